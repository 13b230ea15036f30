#include "platform/IniFile.h"

#include <fstream>

#include "platform/ConfigPath.h"
#include "platform/Trim.h"

// Names match without regard to ASCII letter case only.
using qor::Folded;

IniFile IniFile::Load(std::string const& file) {
    IniFile ini;
    if (file.empty()) {
        return ini;
    }
    std::ifstream in(qor::ResolveConfigPath(file));
    if (!in) {
        return ini;
    }
    // Lines before the first section header, and under a header without its ']', belong to no
    // section and are never found.
    std::unordered_map<std::string, std::string>* current = nullptr;
    std::string line;
    while (std::getline(in, line)) {
        std::string text = qor::Trim(line);
        if (text.empty() || text[0] == ';' || text[0] == '#') {
            continue;
        }
        if (text[0] == '[') {
            std::string::size_type close = text.find(']');
            current = close == std::string::npos
                          ? nullptr
                          : &ini.sections_[Folded(qor::Trim(text.substr(1, close - 1)))];
            continue;
        }
        std::string::size_type eq = text.find('=');
        if (current == nullptr || eq == std::string::npos) {
            continue;
        }
        // emplace keeps the first value when a key appears twice, also across two headers of
        // the same section.
        current->emplace(Folded(qor::Trim(text.substr(0, eq))), qor::Trim(text.substr(eq + 1)));
    }
    return ini;
}

bool IniFile::Get(std::string const& section, std::string const& key, std::string& value) const {
    auto s = sections_.find(Folded(qor::Trim(section)));
    if (s == sections_.end()) {
        return false;
    }
    auto k = s->second.find(Folded(qor::Trim(key)));
    if (k == s->second.end()) {
        return false;
    }
    value = k->second;
    return true;
}

void IniFile::Set(std::string const& section, std::string const& key, std::string const& value) {
    sections_[Folded(qor::Trim(section))][Folded(qor::Trim(key))] = value;
}
