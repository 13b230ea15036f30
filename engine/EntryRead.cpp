// Reading one entry whole, for callers that export it: one base search for every user
// attribute, each value taken as octets so that binary values and values holding zero bytes
// come out exactly as stored.
#include "engine/EntryRead.h"

#include "engine/Constants.h"
#include "engine/LdapOp.h"
#include "engine/SearchResult.h"

int CLdapOp::ReadEntry(char const* dn, WholeEntry& entry) {
    entry = WholeEntry();
    if (dn == nullptr || dn[0] == '\0') {
        return QORLDAP_E_FAILED;
    }
    SearchResult result(binding_, Handle());
    int const rc = Search(dn, LDAP_SCOPE_BASE, LDAP_ANY_ENTRY, result);
    if (rc != 0) {
        return rc;
    }
    ldapmsg* const first = binding_.LdapFirstEnry(result.Handle(), result.Chain());
    if (first == nullptr) {
        return LDAP_NO_SUCH_OBJECT;  // no entry came back (the server hid it)
    }
    char* name = binding_.LdapGetDN(result.Handle(), first);
    if (name != nullptr) {
        entry.dn = name;
        binding_.LdapMemFree(name);
    }
    result.ForEachAttribute([&](char const* attribute) {
        OctetValues values(binding_, result.Handle(), result.Chain(), attribute);
        std::vector<std::string> copies;
        for (berval** v = values.get(); v != nullptr && *v != nullptr; ++v) {
            copies.emplace_back((*v)->bv_val, (*v)->bv_len);
        }
        entry.attributes.emplace_back(attribute, std::move(copies));
    });
    return QORLDAP_OK;
}
