// The key and certificate attributes of a user's entry: one replace per write, one base search
// per read. Values are opaque octets.
#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/LdapOp.h"

int CLdapOp::ModifyKey(char const* dn, char const* attribute, unsigned char const* value,
                       unsigned int length) {
    if (length == 0 || value == nullptr || dn == nullptr || attribute == nullptr) {
        return QORLDAP_E_FAILED;
    }
    // The replace makes this value the attribute's only one, creating the attribute if needed.
    berval bv;
    bv.bv_len = length;
    bv.bv_val = reinterpret_cast<char*>(const_cast<unsigned char*>(value));
    berval* values[2] = {&bv, nullptr};
    return ReplaceBinary(dn, attribute, values);
}

// A replace that carries no values removes the attribute, and the directory accepts it also
// when the attribute is already absent: 0 means the key is gone either way. A missing entry
// gives the directory's code (32).
int CLdapOp::RemoveKey(char const* dn, char const* attribute) {
    if (dn == nullptr) {
        return QORLDAP_E_FAILED;
    }
    // An empty (not null) value list: libldap refuses a null one before sending anything.
    berval* values[1] = {nullptr};
    return ReplaceBinary(dn, attribute, values);
}

// One modify request with one binary replace, all in local storage for the synchronous call.
int CLdapOp::ReplaceBinary(char const* dn, char const* attribute, berval** values) {
    LDAPMod mod;
    mod.mod_op = QOR_MOD_BINARY_REPLACE;
    mod.mod_type = const_cast<char*>(attribute);
    mod.mod_bvalues = values;
    ldapmod* mods[2] = {&mod, nullptr};
    return binding_.LdapModifyS(Handle(), dn, mods);
}

int CLdapOp::ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    return ModifyKey(dn, LDAP_PERSON_SIGN_PRI, key, length);
}

int CLdapOp::ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    return ModifyKey(dn, certFlag_ ? LDAP_PERSON_SIGN_PUB_CER : LDAP_PERSON_SIGN_PUB, key, length);
}

int CLdapOp::ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    return ModifyKey(dn, LDAP_PERSON_EN_PRI, key, length);
}

int CLdapOp::ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    return ModifyKey(dn, certFlag_ ? LDAP_PERSON_EN_PUB_CER : LDAP_PERSON_EN_PUB, key, length);
}

int CLdapOp::DeleteSignPrivateKey(char const* dn) {
    return RemoveKey(dn, LDAP_PERSON_SIGN_PRI);
}

int CLdapOp::DeleteCryptPrivateKey(char const* dn) {
    return RemoveKey(dn, LDAP_PERSON_EN_PRI);
}

int CLdapOp::GetSignPrivateKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return GetKeyOP(dn, LDAP_PERSON_SIGN_PRI, key, length);
}

int CLdapOp::GetSignPublicKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return GetKeyOP(dn, certFlag_ ? LDAP_PERSON_SIGN_PUB_CER : LDAP_PERSON_SIGN_PUB, key, length);
}

int CLdapOp::GetCryptPrivateKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return GetKeyOP(dn, LDAP_PERSON_EN_PRI, key, length);
}

int CLdapOp::GetCryptPublicKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return GetKeyOP(dn, certFlag_ ? LDAP_PERSON_EN_PUB_CER : LDAP_PERSON_EN_PUB, key, length);
}

int CLdapOp::GetKeyOP(char const* name, char const* attribute, unsigned char*& value,
                      unsigned int& length) {
    value = nullptr;
    length = 0;
    std::string condition;
    int kind = 0;
    if (!GetCondition(name, condition, kind)) {
        return QORLDAP_E_FAILED;
    }
    if (GetEachKey(name, attribute, value, length) != QORLDAP_OK) {
        return QORLDAP_E_KEY_SEARCH;
    }
    return QORLDAP_OK;
}

int CLdapOp::GetEachKey(char const* dn, char const* attribute, unsigned char*& value,
                        unsigned int& length) {
    value = nullptr;
    length = 0;
    if (dn == nullptr || attribute == nullptr) {
        return QORLDAP_E_FAILED;
    }
    // 128 bytes: an attribute name of more than 123 characters is refused.
    char filter[128];
    if (!qor::Format(filter, sizeof filter, LDAP_KEY_CONDITION, attribute, LDAP_E, LDAP_ALL)) {
        return QORLDAP_E_FAILED;
    }
    ldapmsg* result = nullptr;
    if (Search(dn, LDAP_SCOPE_BASE, filter, result) != 0) {
        return QORLDAP_E_FAILED;
    }
    if (result == nullptr) {
        return QORLDAP_OK;
    }
    berelement* ber = nullptr;
    for (char* name = binding_.LdapFirstAttribute(Handle(), result, &ber); name != nullptr;
         name = binding_.LdapNextAttribute(Handle(), result, ber)) {
        berval** values = binding_.LdapGetValuesLen(Handle(), result, name);
        if (values != nullptr) {
            if (values[0] != nullptr && std::strcmp(name, attribute) == 0) {
                delete[] value;
                value = nullptr;
                length = 0;
                unsigned int size = static_cast<unsigned int>(values[0]->bv_len);
                value = new unsigned char[size == 0 ? 1 : size];
                if (size > 0) {
                    std::memcpy(value, values[0]->bv_val, size);
                }
                length = size;
            }
            binding_.LdapValueFreeLen(values);
        }
        binding_.LdapMemFree(name);
    }
    binding_.BerFree(ber, 0);
    binding_.LdapMsgFree(result);
    return QORLDAP_OK;
}
