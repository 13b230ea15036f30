// Building entry records for inserts in tests.
#ifndef QORLDAP_TESTS_ENTRIES_H
#define QORLDAP_TESTS_ENTRIES_H

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "qorldap/CLdap.h"

namespace qortest {

// A record with its own item storage; the library only reads it.
struct Record {
    tagAtt att;
    std::vector<tagAttItem> items;

    Record(char const* objectClass, std::vector<std::pair<std::string, std::string>> const& kv) {
        std::memset(&att, 0, sizeof att);
        std::strncpy(att.objectClass, objectClass, sizeof att.objectClass - 1);
        for (auto const& p : kv) {
            tagAttItem item;
            std::memset(&item, 0, sizeof item);
            std::strncpy(item.type, p.first.c_str(), sizeof item.type - 1);
            std::strncpy(item.value, p.second.c_str(), sizeof item.value - 1);
            std::strcpy(item.syntax, "s");
            items.push_back(item);
        }
        att.items = items.empty() ? nullptr : items.data();
        att.itemCount = static_cast<int>(items.size());
    }
};

// Inserts ou=<unit>,<base> (if missing) and cn=<name>,ou=<unit>,<base>; returns the user's DN.
inline std::string MakeUser(CLdap& ldap, std::string const& base, std::string const& unit,
                            std::string const& name) {
    std::string ouDn = "ou=" + unit + "," + base;
    Record ou("organizationalUnit", {{"ou", unit}});
    ldap.InsertLdap(ouDn.c_str(), ou.att, false, nullptr, 0, nullptr, 0, nullptr, 0);
    std::string dn = "cn=" + name + "," + ouDn;
    Record person("qorPerson", {{"cn", name}, {"sn", name}});
    ldap.InsertLdap(dn.c_str(), person.att, false, nullptr, 0, nullptr, 0, nullptr, 0);
    return dn;
}

}  // namespace qortest

#endif
