// The levels of ldap.ini, read as the library reads them: [base] sum and A0, A1, ... name the
// templates from the top down; a template's naming attribute is its last "attr,code,2".
#include <cstdlib>

#include "platform/IniFile.h"
#include "platform/Trim.h"
#include "tools/checks/checks.h"
#include "tools/session/session.h"

namespace qortool {

std::vector<std::string> NamingAttributes() {
    std::vector<std::string> names;
    for (auto const& level : Levels())
        names.push_back(level.second);
    return names;
}

std::vector<std::pair<std::string, std::string>> Levels() {
    IniFile const ini = IniFile::Load(ConfigPath("ldap.ini"));
    std::string text;
    std::vector<std::pair<std::string, std::string>> levels;
    long const count = ini.Get("base", "sum", text) ? std::strtol(text.c_str(), nullptr, 10) : 0;
    for (long i = 0; i < count && i < 1000; ++i) {
        std::string name;
        std::string sum;
        if (!ini.Get("base", "A" + std::to_string(i), name) || !ini.Get(name, "sum", sum))
            return {};
        std::string naming;
        for (long j = 0; j < std::strtol(sum.c_str(), nullptr, 10); ++j) {
            std::string definition;
            if (!ini.Get(name, "A" + std::to_string(j), definition))
                return {};
            size_t first = definition.find(',');
            size_t second = first == std::string::npos ? first : definition.find(',', first + 1);
            std::string const role =
                first == std::string::npos
                    ? definition
                    : definition.substr(second == std::string::npos ? first + 1 : second + 1);
            if (std::strtol(role.c_str(), nullptr, 10) == 2)
                naming = definition.substr(0, first);
        }
        levels.emplace_back(name, naming);
    }
    return levels;
}

}  // namespace qortool
