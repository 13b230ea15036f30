// The real directory started for the test run (scripts/directory), read from its env file, and
// an independent client (ldapsearch) to check what the library wrote.
#ifndef QORLDAP_TESTS_DIRECTORY_H
#define QORLDAP_TESTS_DIRECTORY_H

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "tests/support/TestFiles.h"

namespace qortest {

class Directory {
  public:
    Directory() {
        char const* dir = std::getenv("QORLDAP_TEST_DIR");
        dir_ = dir != nullptr ? dir : "";
        std::ifstream in(dir_ + "/env");
        std::string line;
        while (std::getline(in, line)) {
            std::string::size_type eq = line.find('=');
            if (line.empty() || line[0] == '#' || eq == std::string::npos)
                continue;
            std::string value = line.substr(eq + 1);
            if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'') {
                value = value.substr(1, value.size() - 2);
            }
            vars_[line.substr(0, eq)] = value;
        }
    }
    bool Ready() const { return !Var("LDAP_URI").empty(); }
    std::string Var(std::string const& name) const {
        auto it = vars_.find(name);
        return it == vars_.end() ? std::string() : it->second;
    }
    std::string Uri() const { return Var("LDAP_URI"); }
    std::string Base() const { return Var("LDAP_BASEDN"); }
    std::string ConfDir() const { return Var("QORLDAP_CONF_DIR"); }
    int Port() const { return std::atoi(Var("LDAP_PORT").c_str()); }

    // ldapsearch bound as the manager, output as LDIF without wrapping.
    std::string Search(std::string const& base, std::string const& scope, std::string const& filter,
                       std::string const& attrs, int* status = nullptr) const {
        std::string quoted;
        std::string::size_type start = 0;
        while (start < attrs.size()) {
            std::string::size_type end = attrs.find(' ', start);
            if (end == std::string::npos)
                end = attrs.size();
            if (end > start)
                quoted += " '" + attrs.substr(start, end - start) + "'";
            start = end + 1;
        }
        return Run("ldapsearch -x -LLL -o ldif-wrap=no -H '" + Uri() + "' -D '" +
                       Var("LDAP_BINDDN") + "' -w '" + Var("LDAP_BINDPW") + "' -b '" + base +
                       "' -s " + scope + " '" + filter + "'" + quoted + " 2>/dev/null",
                   status);
    }

    // The raw values of one attribute of one entry, read by ldapsearch into files.
    std::vector<std::string> Values(std::string const& dn, std::string const& attr) const {
        ScratchDir tmp;
        std::string out =
            Run("ldapsearch -x -LLL -tt -T '" + tmp.Path() + "' -o ldif-wrap=no -H '" + Uri() +
                "' -D '" + Var("LDAP_BINDDN") + "' -w '" + Var("LDAP_BINDPW") + "' -b '" + dn +
                "' -s base '(objectClass=*)' '" + attr + "' 2>/dev/null");
        std::vector<std::string> values;
        std::string::size_type pos = 0;
        std::string const marker = ":< file://";
        while ((pos = out.find(marker, pos)) != std::string::npos) {
            pos += marker.size();
            std::string::size_type end = out.find('\n', pos);
            values.push_back(ReadFile(out.substr(pos, end - pos)));
        }
        return values;
    }

    // Adds entries from LDIF text with ldapadd; returns its exit status.
    int Add(std::string const& ldif) const {
        ScratchDir tmp;
        std::string file = tmp.Write("add.ldif", ldif);
        int status = 0;
        Run("ldapadd -x -c -H '" + Uri() + "' -D '" + Var("LDAP_BINDDN") + "' -w '" +
                Var("LDAP_BINDPW") + "' -f '" + file + "' >/dev/null 2>&1",
            &status);
        return status;
    }

  private:
    std::string dir_;
    std::map<std::string, std::string> vars_;
};

}  // namespace qortest

#endif
