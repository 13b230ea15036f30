// Blanks around a text and ASCII letter case: the one rule for INI lines, link keys and what the
// tool reads.
#ifndef QORLDAP_PLATFORM_TRIM_H
#define QORLDAP_PLATFORM_TRIM_H

#include <string>

namespace qor {

// text without the spaces, tabs and carriage returns at either end.
inline std::string Trim(std::string const& text) {
    std::string::size_type first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// text with the ASCII letters A-Z in lower case; other bytes stay as they are.
inline std::string Folded(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

}  // namespace qor

#endif
