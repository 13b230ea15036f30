// The raw counterparts of the library's operations, made with libldap directly: the same
// requests in the same order, with the same walks over their results, nothing more.
#ifndef QORLDAP_BENCH_RAW_H
#define QORLDAP_BENCH_RAW_H

#include <lber.h>
#include <ldap.h>

#include <cstring>
#include <string>
#include <vector>

#include "qorldap/records.h"

namespace qorbench {

inline LDAP* RawConnect(LdapInfo const& info) {
    LDAP* ld = ldap_init(info.host, info.port);
    if (ld == nullptr) {
        return nullptr;
    }
    int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (ldap_simple_bind_s(ld, info.managerdn, info.psw) != LDAP_SUCCESS) {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

// A key read: one base search with the presence filter, then a walk over the attributes that
// copies the wanted value into a new buffer (the caller releases it with delete[]).
inline int RawReadKey(LDAP* ld, char const* dn, char const* filter, char const* attribute,
                      unsigned char*& value, unsigned int& length) {
    value = nullptr;
    length = 0;
    LDAPMessage* result = nullptr;
    int rc = ldap_search_ext_s(ld, dn, LDAP_SCOPE_BASE, filter, nullptr, 0, nullptr, nullptr,
                               nullptr, 0, &result);
    if (rc != LDAP_SUCCESS) {
        if (result != nullptr) {
            ldap_msgfree(result);
        }
        return rc;
    }
    BerElement* ber = nullptr;
    for (char* name = ldap_first_attribute(ld, result, &ber); name != nullptr;
         name = ldap_next_attribute(ld, result, ber)) {
        berval** values = ldap_get_values_len(ld, result, name);
        if (values != nullptr) {
            if (values[0] != nullptr && std::strcmp(name, attribute) == 0) {
                delete[] value;
                length = static_cast<unsigned int>(values[0]->bv_len);
                value = new unsigned char[length == 0 ? 1 : length];
                std::memcpy(value, values[0]->bv_val, length);
            }
            ldap_value_free_len(values);
        }
        ldap_memfree(name);
    }
    ber_free(ber, 0);
    ldap_msgfree(result);
    return LDAP_SUCCESS;
}

// A key write: one modify replacing the attribute's values with this one binary value.
inline int RawWriteKey(LDAP* ld, char const* dn, char const* attribute, unsigned char const* data,
                       unsigned int length) {
    berval bv;
    bv.bv_len = length;
    bv.bv_val = reinterpret_cast<char*>(const_cast<unsigned char*>(data));
    berval* values[2] = {&bv, nullptr};
    LDAPMod mod;
    mod.mod_op = LDAP_MOD_REPLACE | LDAP_MOD_BVALUES;
    mod.mod_type = const_cast<char*>(attribute);
    mod.mod_bvalues = values;
    LDAPMod* mods[2] = {&mod, nullptr};
    return ldap_modify_s(ld, dn, mods);
}

// The engine's walk from a common name to a user's DN, for two levels (units, then users) as
// the shipped ldap.ini has them.

// One-level listing of the children holding an ou or a cn; their DNs.
inline bool RawChildren(LDAP* ld, char const* base, std::vector<std::string>& children) {
    children.clear();
    LDAPMessage* result = nullptr;
    if (ldap_search_ext_s(ld, base, LDAP_SCOPE_ONELEVEL, "(|(ou=*)(cn=*))", nullptr, 0, nullptr,
                          nullptr, nullptr, 0, &result) != LDAP_SUCCESS) {
        if (result != nullptr) {
            ldap_msgfree(result);
        }
        return false;
    }
    children.reserve(static_cast<size_t>(ldap_count_entries(ld, result)));
    for (LDAPMessage* e = ldap_first_entry(ld, result); e != nullptr; e = ldap_next_entry(ld, e)) {
        char* dn = ldap_get_dn(ld, e);
        children.emplace_back(dn != nullptr ? dn : "");
        ldap_memfree(dn);
    }
    ldap_msgfree(result);
    return true;
}

// Base select of an entry by its first RDN's type, (ou=*) for ou=...: two walks over its
// attributes.
inline bool RawSelectSelf(LDAP* ld, char const* dn) {
    LDAPMessage* result = nullptr;
    std::string const type(dn, std::strcspn(dn, "="));  // the filter names the first RDN's type
    std::string const filter = "(" + type + "=*)";
    if (ldap_search_ext_s(ld, dn, LDAP_SCOPE_BASE, filter.c_str(), nullptr, 0, nullptr, nullptr,
                          nullptr, 0, &result) != LDAP_SUCCESS) {
        if (result != nullptr) {
            ldap_msgfree(result);
        }
        return false;
    }
    for (int pass = 0; pass < 2; ++pass) {
        BerElement* ber = nullptr;
        for (char* a = ldap_first_attribute(ld, result, &ber); a != nullptr;
             a = ldap_next_attribute(ld, result, ber)) {
            char** values = ldap_get_values(ld, result, a);
            ldap_value_free(values);
            ldap_memfree(a);
        }
        ber_free(ber, 0);
    }
    ldap_msgfree(result);
    return true;
}

// Base search on a candidate with (cn=*); true when it exists and holds a cn value.
inline bool RawCandidate(LDAP* ld, char const* dn) {
    LDAPMessage* result = nullptr;
    if (ldap_search_ext_s(ld, dn, LDAP_SCOPE_BASE, "(cn=*)", nullptr, 0, nullptr, nullptr, nullptr,
                          0, &result) != LDAP_SUCCESS) {
        if (result != nullptr) {
            ldap_msgfree(result);
        }
        return false;
    }
    bool found = false;
    BerElement* ber = nullptr;
    for (char* a = ldap_first_attribute(ld, result, &ber); a != nullptr;
         a = ldap_next_attribute(ld, result, ber)) {
        berval** values = ldap_get_values_len(ld, result, a);
        if (values != nullptr) {
            found = found || (values[0] != nullptr && std::strcmp(a, "cn") == 0);
            ldap_value_free_len(values);
        }
        ldap_memfree(a);
    }
    ber_free(ber, 0);
    ldap_msgfree(result);
    return found;
}

inline bool RawWalk(LDAP* ld, std::string const& root, std::string const& value, std::string& dn) {
    std::vector<std::string> units;
    std::vector<std::string> users;
    if (!RawChildren(ld, root.c_str(), units) || !RawSelectSelf(ld, root.c_str())) {
        return false;
    }
    for (std::string const& unit : units) {
        if (!RawChildren(ld, unit.c_str(), users) || !RawSelectSelf(ld, unit.c_str())) {
            continue;
        }
        if (users.empty()) {
            continue;
        }
        std::string candidate = "cn=" + value + ", " + unit;
        if (RawCandidate(ld, candidate.c_str())) {
            dn = candidate;
            return true;
        }
    }
    return false;
}

}  // namespace qorbench

#endif
