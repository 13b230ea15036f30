// Building entry records for inserts in tests.
#ifndef QORLDAP_TESTS_ENTRIES_H
#define QORLDAP_TESTS_ENTRIES_H

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "qorldap/CLdap.h"

namespace qortest {

// A record with its own item storage (text items, syntax "s"); the library only reads it.
struct Record {
    tagAtt att = {};
    std::vector<tagAttItem> items;

    Record(char const* objectClass, std::vector<std::pair<std::string, std::string>> const& kv)
        : items(kv.size()) {
        std::strncpy(att.objectClass, objectClass, sizeof att.objectClass - 1);
        for (size_t i = 0; i < kv.size(); ++i) {
            std::strncpy(items[i].type, kv[i].first.c_str(), sizeof items[i].type - 1);
            std::strncpy(items[i].value, kv[i].second.c_str(), sizeof items[i].value - 1);
            items[i].syntax[0] = 's';
        }
        att.items = items.empty() ? nullptr : items.data();
        att.itemCount = static_cast<int>(items.size());
    }
};

// Inserts ou=<unit>,<base> (if missing) and cn=<name>,ou=<unit>,<base>; returns the user's DN.
inline std::string MakeUser(CLdap& ldap, std::string const& base, std::string const& unit,
                            std::string const& name) {
    std::string ou = "ou=" + unit + "," + base, dn = "cn=" + name + "," + ou;
    ldap.InsertLdap(ou.c_str(), Record("organizationalUnit", {{"ou", unit}}).att, false, nullptr, 0,
                    nullptr, 0, nullptr, 0);
    ldap.InsertLdap(dn.c_str(), Record("qorPerson", {{"cn", name}, {"sn", name}}).att, false,
                    nullptr, 0, nullptr, 0, nullptr, 0);
    return dn;
}

}  // namespace qortest

#endif
