// Selecting one entry and listing the children of an entry.
#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/LdapOp.h"

namespace {

// A DN that does not fit the 255 characters of a record's name fields is refused before any
// search: it could be neither stored nor handed back without being cut into another name.
bool FitsNameField(char const* dn) {
    return strnlen(dn, sizeof(tagAtt::dn)) < sizeof(tagAtt::dn);
}

}  // namespace

int CLdapOp::SelectLdapAtt(char const* dn, tagAtt& att) {
    if (dn == nullptr || !FitsNameField(dn)) {
        return QORLDAP_E_FAILED;
    }
    std::string value;
    std::string type;
    if (!GetFilter(dn, 0, value, type) || type.empty()) {
        return QORLDAP_E_FAILED;
    }
    // The filter buffer holds 32 bytes: a type of more than 27 characters is refused.
    char filter[32];
    if (!qor::Format(filter, sizeof filter, LDAP_QUERY_CONDITION, type.c_str(), LDAP_ALL)) {
        return QORLDAP_E_FAILED;
    }
    GetAtt(dn, filter, att);
    // Found or not shows only in itemCount.
    return QORLDAP_OK;
}

int CLdapOp::GetAtt(char const* dn, char const* filter, tagAtt& att) {
    att.dn[0] = '\0';
    att.parentDn[0] = '\0';
    ldapmsg* result = nullptr;
    if (Search(dn, LDAP_SCOPE_BASE, filter, result) != 0) {
        return 0;
    }
    std::memset(&att, 0, sizeof att);
    if (result == nullptr) {
        return 0;
    }
    // First pass: count the attributes and take the template that the object class names;
    // the last value naming a template wins.
    int count = 0;
    bool hasClass = false;
    berelement* ber = nullptr;
    for (char* name = binding_.LdapFirstAttribute(Handle(), result, &ber); name != nullptr;
         name = binding_.LdapNextAttribute(Handle(), result, ber)) {
        char** values = binding_.LdapGetValues(Handle(), result, name);
        if (values != nullptr) {
            if (std::strcmp(name, LDAP_DEPART_OR_PER_TYPE) == 0) {
                for (char** v = values; *v != nullptr; ++v) {
                    GetLdapOpAtt(*v, att);
                    hasClass = true;
                }
            }
            binding_.LdapValueFree(values);
        }
        binding_.LdapMemFree(name);
        ++count;
    }
    binding_.BerFree(ber, 0);
    if (count == 0 || !hasClass) {
        std::memset(&att, 0, sizeof att);
        binding_.LdapMsgFree(result);
        return 0;
    }
    // The template copy set items to null; the array is the caller's from here on.
    att.itemCount = count;
    att.items = new tagAttItem[count]();
    // Second pass: the attribute names, one element per attribute. A name that does not fit
    // its 255 characters leaves its element empty, like an attribute without values.
    int k = 0;
    ber = nullptr;
    for (char* name = binding_.LdapFirstAttribute(Handle(), result, &ber);
         name != nullptr && k < count; name = binding_.LdapNextAttribute(Handle(), result, ber)) {
        char** values = binding_.LdapGetValues(Handle(), result, name);
        if (values != nullptr) {
            qor::FitCopy(att.items[k].type, name);
            binding_.LdapValueFree(values);
        } else {
            // libldap hands out no text values for a value holding a zero byte, as every DER
            // key and certificate does; asked for them as octets, it shows they are there, so
            // a key attribute is named like any other.
            berval** octets = binding_.LdapGetValuesLen(Handle(), result, name);
            if (octets != nullptr) {
                qor::FitCopy(att.items[k].type, name);
                binding_.LdapValueFreeLen(octets);
            }
        }
        binding_.LdapMemFree(name);
        ++k;
    }
    binding_.BerFree(ber, 0);
    std::string parent;
    if (GetParentDN(dn, parent)) {
        qor::FitCopy(att.parentDn, parent.c_str());
    }
    qor::FitCopy(att.dn, dn);
    binding_.LdapMsgFree(result);
    return 1;
}

int CLdapOp::SelectLdap(char const* dn, char const* /*condition*/, tagDN*& list, int& count) {
    if (dn == nullptr || dn[0] == '\0' || !FitsNameField(dn)) {
        return QORLDAP_E_FAILED;
    }
    char filter[256] = {};
    qor::Format(filter, sizeof filter, LDAP_CHILD_CONDITION, LDAP_OU, LDAP_ALL, LDAP_CN, LDAP_ALL);
    return GetChild(dn, filter, list, count) ? QORLDAP_OK : QORLDAP_E_FAILED;
}

bool CLdapOp::GetChild(char const* base, char const* filter, tagDN*& list, int& count) {
    if (filter == nullptr || base == nullptr) {
        return false;
    }
    ldapmsg* result = nullptr;
    if (Search(base, LDAP_SCOPE_ONELEVEL, filter, result) != 0) {
        return false;
    }
    if (result == nullptr) {
        count = 0;
        return true;
    }
    int entries = binding_.LdapCountEntries(Handle(), result);
    count = entries;
    if (entries <= 0) {
        binding_.LdapMsgFree(result);
        return true;
    }
    tagDN* names = new tagDN[entries]();
    list = names;
    // A child whose DN is missing or longer than 255 characters keeps an empty dn: it is never
    // cut into another entry's name, and a walk below it finds nothing.
    int i = 0;
    for (ldapmsg* entry = binding_.LdapFirstEnry(Handle(), result); entry != nullptr && i < entries;
         entry = binding_.LdapNextEntry(Handle(), entry), ++i) {
        char* name = binding_.LdapGetDN(Handle(), entry);
        if (name != nullptr) {
            qor::FitCopy(names[i].dn, name);
            binding_.LdapMemFree(name);
        }
        qor::FitCopy(names[i].baseDn, base);
    }
    binding_.LdapMsgFree(result);
    return true;
}
