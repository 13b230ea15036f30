// The check, at the end of every connection, that the base entry exists; a base DN naming an
// organisation ("o=...") that is missing is created.
#include "engine/RootCheck.h"

#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/Modification.h"
#include "engine/Naming.h"
#include "platform/ChineseCode.h"

bool RootCheck::ValidateRootAtt() {
    LdapInfo const settings = settings_.Get();
    std::string value;
    std::string type;
    if (!Naming::GetFilter(settings.basedn, 0, value, type)) {
        return false;
    }
    // Only an exact "o" is checked: "O", "o " and dc= bases pass without a search.
    if (type != LDAP_ORGANIMZATION) {
        return true;
    }
    char filter[256];
    qor::Format(filter, sizeof filter, LDAP_QUERY_CONDITION, LDAP_ORGANIMZATION, LDAP_ALL);
    DepartementAtt att;
    if (GetRootAtt(settings.basedn, filter, att)) {
        return true;
    }
    // Any failed search leads to the creation attempt; its kind is not told apart.
    return InsertRootAtt(settings.basedn, value.c_str());
}

// The record's texts are cut to their 255 characters; nothing reads them back.
bool RootCheck::GetRootAtt(char const* dn, char const* filter, DepartementAtt& att) {
    std::memset(&att, 0, sizeof att);
    CChineseCode code;
    COpenLdapIF& binding = connection_.Binding();
    SearchResult result(binding, connection_.Handle());
    if (connection_.Search(dn, LDAP_SCOPE_BASE, filter, result) != 0) {
        return false;
    }
    if (result.Chain() == nullptr) {
        return true;
    }
    result.ForEachAttribute([&](char const* name) {
        TextValues values(binding, result.Handle(), result.Chain(), name);
        if (values.get() == nullptr) {
            return;
        }
        if (std::strcmp(name, LDAP_ORGANIMZATION) == 0 && values.First() != nullptr) {
            char* converted = nullptr;
            int n = code.UTF_8ToGB2312(converted, values.First(),
                                       static_cast<int>(std::strlen(values.First())));
            qor::CutCopy(att.name, n == -1 || converted == nullptr ? values.First() : converted);
        }
        qor::CutCopy(att.baseDn, dn);
        qor::CutCopy(att.dn, dn);
    });
    return true;
}

bool RootCheck::InsertRootAtt(char const* dn, char const* name) {
    AttFrame frames[2];
    ldapmod* mods[3] = {nullptr, nullptr, nullptr};
    int used = 0;
    if (name != nullptr && name[0] != '\0' &&
        PrepareTextValue(name, QOR_MOD_ADD, LDAP_ORGANIMZATION, frames[used])) {
        mods[used] = &frames[used].mod;
        ++used;
    }
    if (PrepareTextValue(LDAP_ORGANIMZATION_VALUE, QOR_MOD_ADD, LDAP_DEPART_OR_PER_TYPE,
                         frames[used])) {
        mods[used] = &frames[used].mod;
        ++used;
    }
    int rc = connection_.Binding().LdapAddS(connection_.Handle(), dn, mods);
    for (int i = 0; i < used; ++i) {
        delete[] frames[i].values[0];
        frames[i].values[0] = nullptr;
    }
    return rc == 0;
}
