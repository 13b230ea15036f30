// The levels of ldap.ini, read as the library reads them: [base] sum and A0, A1, ... name the
// templates from the top down; a template's naming attribute is its last "attr,code,2". The
// file is read by the rules the README gives for both INI files; the tool reads it only to
// tell a missing or broken ldap.ini apart from other causes of a refusal.
#include <cstdlib>
#include <fstream>
#include <map>

#include "tools/checks/checks.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

// Section to key to value, names in lower case; the first of two equal keys counts.
class Ini {
  public:
    explicit Ini(std::string const& path) {
        std::ifstream in(path);
        std::string section;
        for (std::string line; std::getline(in, line);) {
            line = Trimmed(line);
            size_t const close = line.find(']');
            size_t const eq = line.find('=');
            if (line.empty() || line[0] == ';' || line[0] == '#') {
                continue;
            } else if (line[0] == '[' && close != std::string::npos) {
                section = Lower(Trimmed(line.substr(1, close - 1)));
            } else if (eq != std::string::npos) {
                keys_[section].emplace(Lower(Trimmed(line.substr(0, eq))),
                                       Trimmed(line.substr(eq + 1)));
            }
        }
    }
    bool Get(std::string const& section, std::string const& key, std::string& value) const {
        auto const s = keys_.find(Lower(section));
        if (s == keys_.end())
            return false;
        auto const k = s->second.find(Lower(key));
        if (k == s->second.end())
            return false;
        value = k->second;
        return true;
    }

  private:
    std::map<std::string, std::map<std::string, std::string>> keys_;
};

}  // namespace

std::vector<std::pair<std::string, std::string>> Levels() {
    Ini const ini(ConfigPath("ldap.ini"));
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
