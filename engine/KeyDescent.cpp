// Finding a user's entry from the common name by walking the tree down from the base DN.
#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/LdapOp.h"

// Depth first, first match wins. Each visited DN costs two searches (its children and itself)
// and each candidate at the last level one more; nothing is cached.
bool CLdapOp::GetChildKey(char const* base, int depth, char const* value, char const* attribute,
                          unsigned char*& key, unsigned int& length, std::string& foundDn) {
    if (depth > templates_.Count() || templates_.Empty()) {
        return false;
    }
    tagDN* children = nullptr;
    int count = 0;
    bool found = false;
    tagAtt self;
    std::memset(&self, 0, sizeof self);
    if (SelectLdap(base, nullptr, children, count) == QORLDAP_OK &&
        SelectLdapAtt(base, self) == QORLDAP_OK) {
        if (depth + 1 == templates_.Count()) {
            // A candidate DN longer than the 512 characters the walk composes in is skipped.
            char candidate[513];
            if (count > 0 &&
                qor::Format(candidate, sizeof candidate, LDAP_DN_COMPOSE,
                            templates_[templates_.Count() - 1].namingAtt, value, base)) {
                if (GetEachKey(candidate, attribute, key, length) == QORLDAP_OK && length != 0) {
                    foundDn = candidate;
                    found = true;
                } else {
                    FreeKey(key);
                    length = 0;
                }
            }
        } else {
            for (int i = 0; i < count; ++i) {
                FreeKey(key);
                GetChildKey(children[i].dn, depth + 1, value, attribute, key, length, foundDn);
                if (key != nullptr && length != 0) {
                    break;
                }
            }
            found = key != nullptr && length != 0;
        }
    }
    FreeDN(children, count);
    FreeAtt(&self);
    return found;
}

int CLdapOp::GetFullDN(char const* name, std::string& dn) {
    std::string condition;
    int kind = 0;
    if (!GetCondition(name, condition, kind)) {
        return QORLDAP_E_FAILED;
    }
    if (link_.fastLookup) {
        return FindUser(condition.c_str(), dn);
    }
    unsigned char* key = nullptr;
    unsigned int length = 0;
    LdapInfo const settings = Settings();
    if (!GetChildKey(settings.basedn, 0, condition.c_str(), LDAP_PERSON_CN, key, length, dn)) {
        FreeKey(key);
        return QORLDAP_E_FAILED;
    }
    FreeKey(key);
    return QORLDAP_OK;
}
