// The key and certificate attributes of a user's entry: one replace per write, one base search
// per read. Values are opaque octets.
#include "engine/KeyStore.h"

#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/SearchResult.h"
#include "qorldap/result_codes.h"

int KeyStore::ModifyKey(char const* dn, char const* attribute, unsigned char const* value,
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
int KeyStore::RemoveKey(char const* dn, char const* attribute) {
    if (dn == nullptr) {
        return QORLDAP_E_FAILED;
    }
    // An empty (not null) value list: libldap refuses a null one before sending anything.
    berval* values[1] = {nullptr};
    return ReplaceBinary(dn, attribute, values);
}

// One modify request with one binary replace, all in local storage for the synchronous call.
int KeyStore::ReplaceBinary(char const* dn, char const* attribute, berval** values) {
    LDAPMod mod;
    mod.mod_op = QOR_MOD_BINARY_REPLACE;
    mod.mod_type = const_cast<char*>(attribute);
    mod.mod_bvalues = values;
    ldapmod* mods[2] = {&mod, nullptr};
    return connection_.Binding().LdapModifyS(connection_.Handle(), dn, mods);
}

// Both replaces in one request: the directory applies a modify request whole or not at all.
int KeyStore::ReplacePair(char const* dn, char const* first, unsigned char const* firstValue,
                          unsigned int firstLength, char const* second,
                          unsigned char const* secondValue, unsigned int secondLength) {
    if (dn == nullptr || firstValue == nullptr || firstLength == 0 || secondValue == nullptr ||
        secondLength == 0) {
        return QORLDAP_E_FAILED;
    }
    berval firstBv;
    firstBv.bv_len = firstLength;
    firstBv.bv_val = reinterpret_cast<char*>(const_cast<unsigned char*>(firstValue));
    berval secondBv;
    secondBv.bv_len = secondLength;
    secondBv.bv_val = reinterpret_cast<char*>(const_cast<unsigned char*>(secondValue));
    berval* firstValues[2] = {&firstBv, nullptr};
    berval* secondValues[2] = {&secondBv, nullptr};
    LDAPMod mods[2];
    mods[0].mod_op = QOR_MOD_BINARY_REPLACE;
    mods[0].mod_type = const_cast<char*>(first);
    mods[0].mod_bvalues = firstValues;
    mods[1].mod_op = QOR_MOD_BINARY_REPLACE;
    mods[1].mod_type = const_cast<char*>(second);
    mods[1].mod_bvalues = secondValues;
    ldapmod* list[3] = {&mods[0], &mods[1], nullptr};
    return connection_.Binding().LdapModifyS(connection_.Handle(), dn, list);
}

int KeyStore::ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    return ModifyKey(dn, LDAP_PERSON_SIGN_PRI, key, length);
}

int KeyStore::ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    return ModifyKey(dn, PublicKeyAttribute(true), key, length);
}

int KeyStore::ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    return ModifyKey(dn, LDAP_PERSON_EN_PRI, key, length);
}

int KeyStore::ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    return ModifyKey(dn, PublicKeyAttribute(false), key, length);
}

int KeyStore::DeleteSignPrivateKey(char const* dn) {
    return RemoveKey(dn, LDAP_PERSON_SIGN_PRI);
}

int KeyStore::DeleteCryptPrivateKey(char const* dn) {
    return RemoveKey(dn, LDAP_PERSON_EN_PRI);
}

int KeyStore::GetSignPrivateKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return GetKeyOP(dn, LDAP_PERSON_SIGN_PRI, key, length);
}

int KeyStore::GetSignPublicKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return GetKeyOP(dn, PublicKeyAttribute(true), key, length);
}

int KeyStore::GetCryptPrivateKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return GetKeyOP(dn, LDAP_PERSON_EN_PRI, key, length);
}

int KeyStore::GetCryptPublicKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return GetKeyOP(dn, PublicKeyAttribute(false), key, length);
}

int KeyStore::GetKeyOP(char const* name, char const* attribute, unsigned char*& value,
                       unsigned int& length) {
    value = nullptr;
    length = 0;
    std::string condition;
    int kind = 0;
    if (!naming_.GetCondition(name, condition, kind)) {
        return QORLDAP_E_FAILED;
    }
    if (GetEachKey(name, attribute, value, length) != QORLDAP_OK) {
        return QORLDAP_E_KEY_SEARCH;
    }
    return QORLDAP_OK;
}

int KeyStore::GetEachKey(char const* dn, char const* attribute, unsigned char*& value,
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
    COpenLdapIF& binding = connection_.Binding();
    SearchResult result(binding, connection_.Handle());
    if (connection_.Search(dn, LDAP_SCOPE_BASE, filter, result) != 0) {
        return QORLDAP_E_FAILED;
    }
    if (result.Chain() == nullptr) {
        return QORLDAP_OK;
    }
    result.ForEachAttribute([&](char const* name) {
        OctetValues values(binding, result.Handle(), result.Chain(), name);
        berval const* first = values.First();
        if (first == nullptr || std::strcmp(name, attribute) != 0) {
            return;
        }
        delete[] value;
        value = nullptr;
        length = 0;
        unsigned int size = static_cast<unsigned int>(first->bv_len);
        value = new unsigned char[size == 0 ? 1 : size];
        if (size > 0) {
            std::memcpy(value, first->bv_val, size);
        }
        length = size;
    });
    return QORLDAP_OK;
}
