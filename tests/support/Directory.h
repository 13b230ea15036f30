// The real directory started for the test run (scripts/directory), read from its env file, and
// an independent client (ldapsearch) to check what the library wrote.
#ifndef QORLDAP_TESTS_DIRECTORY_H
#define QORLDAP_TESTS_DIRECTORY_H

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/TestFiles.h"

namespace qortest {

struct Directory {
    bool Ready() const { return !Var("LDAP_URI").empty(); }
    // A variable of the env file that scripts/directory wrote, read by the shell.
    std::string Var(std::string const& name) const {
        char const* dir = std::getenv("QORLDAP_TEST_DIR");
        return Run(". '" + std::string(dir != nullptr ? dir : "") +
                   "/env' 2>/dev/null && printf %s \"$" + name + "\"");
    }
    std::string Base() const { return Var("LDAP_BASEDN"); }

    // The raw values of one attribute of one entry, read by ldapsearch as the rootdn into files.
    std::vector<std::string> Values(std::string const& dn, std::string const& attr) const {
        ScratchDir tmp;
        std::istringstream files(Run("ldapsearch -LLL -o ldif-wrap=no -tt -T '" + tmp.Path() +
                                     "' -x -D '" + Var("LDAP_BINDDN") + "' -w '" +
                                     Var("LDAP_BINDPW") + "' -H '" + Var("LDAP_URI") + "' -b '" +
                                     dn + "' -s base '(objectClass=*)' '" + attr +
                                     "' 2>/dev/null | sed -n 's|^[^:]*:< file://||p'"));
        std::vector<std::string> values;
        for (std::string file; std::getline(files, file);)
            values.push_back(ReadFile(file));
        return values;
    }
};

}  // namespace qortest

#endif
