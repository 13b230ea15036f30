// Text: blanks and letter case, and attribute values. The command line holds UTF-8; the library
// takes GB18030 text for values and sends it on to the directory as UTF-8 again.
#include <errno.h>
#include <iconv.h>

#include <string>

#include "tools/checks/checks.h"

namespace qortool {

std::string Trimmed(std::string const& text) {
    size_t const first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

std::string ToLibraryText(std::string const& what, std::string const& utf8) {
    bool ascii = true;
    for (char c : utf8)
        ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii)
        return utf8;
    iconv_t const cd = ::iconv_open("GB18030", "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1))
        Fail(what, "cannot convert text to GB18030: this system's iconv lacks it");
    // A character takes at most four bytes either way.
    std::string in = utf8;
    std::string out(2 * in.size() + 4, '\0');
    char* from = &in[0];
    size_t fromLeft = in.size();
    char* to = &out[0];
    size_t toLeft = out.size();
    size_t const done = ::iconv(cd, &from, &fromLeft, &to, &toLeft);
    ::iconv_close(cd);
    if (done == static_cast<size_t>(-1) || fromLeft != 0)
        Usage(what, "\"" + utf8 + "\" is not valid UTF-8 text");
    out.resize(out.size() - toLeft);
    return out;
}

}  // namespace qortool
