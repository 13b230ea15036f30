// Heap use per operation: counts what operator new hands out while one library call runs (the
// library's own allocations; libldap's, made with malloc, are its business) and sets it against
// what the call hands back. Run against a directory whose settings QORLDAP_CONF_DIR names.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "CountingNew.h"
#include "qorldap/qorldap.h"

namespace {

struct Count {
    size_t bytes;
    size_t calls;
};

template <typename F>
Count Measure(F f) {
    qorbench::newBytes = 0;
    qorbench::newCalls = 0;
    qorbench::countingNew = true;
    f();
    qorbench::countingNew = false;
    return {qorbench::newBytes.load(), qorbench::newCalls.load()};
}

}  // namespace

int main() {
    CLdap ldap;
    if (ldap.ConnectLdap() != 0) {
        std::fprintf(stderr, "alloc_probe: cannot connect\n");
        return 1;
    }
    tagAttItem item = {};
    std::strcpy(item.type, "ou");
    std::strcpy(item.value, "Alloc");
    tagAtt unit = {};
    unit.items = &item;
    unit.itemCount = 1;
    std::strcpy(unit.objectClass, "organizationalUnit");
    ldap.InsertLdap("ou=Alloc,o=root", unit, false, nullptr, 0, nullptr, 0, nullptr, 0);
    std::strcpy(item.type, "cn");
    std::strcpy(item.value, "Probe");
    tagAtt person = {};
    person.items = &item;
    person.itemCount = 1;
    std::strcpy(person.objectClass, "qorPerson");
    char const* dn = "cn=Probe,ou=Alloc,o=root";
    ldap.InsertLdap(dn, person, false, nullptr, 0, nullptr, 0, nullptr, 0);

    std::printf(
        "| operation | value | bytes from operator new | allocations | beyond the result |\n");
    std::printf("|---|---:|---:|---:|---:|\n");
    for (size_t size : {1200u, 65536u}) {
        std::vector<unsigned char> value(size, 0x5a);
        Count w = Measure(
            [&] { ldap.ModifySignPublicKey(dn, value.data(), static_cast<unsigned>(size)); });
        std::printf("| key write (CLdap::ModifySignPublicKey) | %zu B | %zu | %zu | %zu |\n", size,
                    w.bytes, w.calls, w.bytes);
        unsigned char* key = nullptr;
        unsigned int length = 0;
        GetSignPublicKey(dn, key, length);  // connects the free functions' engine first
        FreeKey(key);
        Count r = Measure([&] {
            key = nullptr;
            GetSignPublicKey(dn, key, length);
        });
        std::printf("| key read (GetSignPublicKey) | %zu B | %zu | %zu | %zu |\n", size, r.bytes,
                    r.calls, r.bytes - length);
        FreeKey(key);
    }
    tagAtt att = {};
    Count s = Measure([&] { ldap.SelectLdap(dn, att); });
    size_t items = static_cast<size_t>(att.itemCount) * sizeof(tagAttItem);
    std::printf("| entry select (%d attributes) | - | %zu | %zu | %zu |\n", att.itemCount, s.bytes,
                s.calls, s.bytes - items);
    ldap.FreeAtt(&att);
    tagDN* list = nullptr;
    int count = 0;
    Count c = Measure([&] { ldap.SelectLdap("o=root", nullptr, list, count); });
    std::printf("| child listing (%d children) | - | %zu | %zu | %zu |\n", count, c.bytes, c.calls,
                c.bytes - static_cast<size_t>(count) * sizeof(tagDN));
    ldap.FreeDN(list, count);
    return 0;
}
