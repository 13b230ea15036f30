// Selecting one entry, listing the children of an entry, and reading one entry whole.
#include "engine/EntryLookup.h"

#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/EntryRead.h"
#include "engine/Naming.h"
#include "engine/SearchResult.h"
#include "qorldap/result_codes.h"

namespace {

// A DN that does not fit the 255 characters of a record's name fields is refused before any
// search: it could be neither stored nor handed back without being cut into another name.
bool FitsNameField(char const* dn) {
    return strnlen(dn, sizeof(tagAtt::dn)) < sizeof(tagAtt::dn);
}

}  // namespace

int EntryLookup::SelectLdapAtt(char const* dn, tagAtt& att) {
    if (dn == nullptr || !FitsNameField(dn)) {
        return QORLDAP_E_FAILED;
    }
    std::string value;
    std::string type;
    if (!Naming::GetFilter(dn, 0, value, type) || type.empty()) {
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

int EntryLookup::GetAtt(char const* dn, char const* filter, tagAtt& att) {
    att.dn[0] = '\0';
    att.parentDn[0] = '\0';
    COpenLdapIF& binding = connection_.Binding();
    SearchResult result(binding, connection_.Handle());
    if (connection_.Search(dn, LDAP_SCOPE_BASE, filter, result) != 0) {
        return 0;
    }
    std::memset(&att, 0, sizeof att);
    if (result.Chain() == nullptr) {
        return 0;
    }
    // First pass: count the attributes and take the template that the object class names;
    // the last value naming a template wins.
    int count = 0;
    bool hasClass = false;
    result.ForEachAttribute([&](char const* name) {
        TextValues values(binding, result.Handle(), result.Chain(), name);
        if (values.get() != nullptr && std::strcmp(name, LDAP_DEPART_OR_PER_TYPE) == 0) {
            for (char** v = values.get(); *v != nullptr; ++v) {
                templates_.Find(*v, att);
                hasClass = true;
            }
        }
        ++count;
    });
    if (count == 0 || !hasClass) {
        std::memset(&att, 0, sizeof att);
        return 0;
    }
    // The template copy set items to null; the array is the caller's from here on.
    att.itemCount = count;
    att.items = new tagAttItem[count]();
    // Second pass: the attribute names, one element per attribute. A name that does not fit
    // its 255 characters leaves its element empty, like an attribute without values.
    int k = 0;
    result.ForEachAttribute([&](char const* name) {
        if (k == count) {
            return;
        }
        TextValues values(binding, result.Handle(), result.Chain(), name);
        if (values.get() != nullptr) {
            qor::FitCopy(att.items[k].type, name);
        } else {
            // libldap hands out no text values for a value holding a zero byte, as every DER
            // key and certificate does; asked for them as octets, it shows they are there, so
            // a key attribute is named like any other.
            OctetValues octets(binding, result.Handle(), result.Chain(), name);
            if (octets.get() != nullptr) {
                qor::FitCopy(att.items[k].type, name);
            }
        }
        ++k;
    });
    std::string parent;
    if (Naming::GetParentDN(dn, parent)) {
        qor::FitCopy(att.parentDn, parent.c_str());
    }
    qor::FitCopy(att.dn, dn);
    return 1;
}

int EntryLookup::SelectLdap(char const* dn, char const* /*condition*/, tagDN*& list, int& count) {
    if (dn == nullptr || dn[0] == '\0' || !FitsNameField(dn)) {
        return QORLDAP_E_FAILED;
    }
    char filter[256] = {};
    qor::Format(filter, sizeof filter, LDAP_CHILD_CONDITION, LDAP_OU, LDAP_ALL, LDAP_CN, LDAP_ALL);
    return GetChild(dn, filter, list, count) ? QORLDAP_OK : QORLDAP_E_FAILED;
}

bool EntryLookup::GetChild(char const* base, char const* filter, tagDN*& list, int& count) {
    if (filter == nullptr || base == nullptr) {
        return false;
    }
    // The list holds names only: with fast_lookup the listing asks for no attributes.
    NoAttributes namesOnly;
    COpenLdapIF& binding = connection_.Binding();
    SearchResult result(binding, connection_.Handle());
    if (connection_.Search(base, LDAP_SCOPE_ONELEVEL, filter, result,
                           link_.fastLookup ? namesOnly.List() : nullptr) != 0) {
        return false;
    }
    if (result.Chain() == nullptr) {
        count = 0;
        return true;
    }
    int entries = binding.LdapCountEntries(result.Handle(), result.Chain());
    count = entries;
    if (entries <= 0) {
        return true;
    }
    tagDN* names = new tagDN[entries]();
    list = names;
    // A child whose DN is missing or longer than 255 characters keeps an empty dn: it is never
    // cut into another entry's name, and a walk below it finds nothing.
    result.ForEachEntryDn(entries, [&](char const* name, int i) {
        if (name != nullptr) {
            qor::FitCopy(names[i].dn, name);
        }
        qor::FitCopy(names[i].baseDn, base);
    });
    return true;
}

void TakeWholeEntry(COpenLdapIF& binding, SearchResult const& result, ldapmsg* from,
                    WholeEntry& entry) {
    entry = WholeEntry();
    char* name = binding.LdapGetDN(result.Handle(), from);
    if (name != nullptr) {
        entry.dn = name;
        binding.LdapMemFree(name);
    }
    result.ForEachAttributeOf(from, [&](char const* attribute) {
        OctetValues values(binding, result.Handle(), from, attribute);
        std::vector<std::string> copies;
        for (berval** v = values.get(); v != nullptr && *v != nullptr; ++v) {
            copies.emplace_back((*v)->bv_val, (*v)->bv_len);
        }
        entry.attributes.emplace_back(attribute, std::move(copies));
    });
}

// One base search for every user attribute, each value taken as octets, so that binary values
// and values holding zero bytes come out exactly as stored.
int EntryLookup::ReadEntry(char const* dn, WholeEntry& entry) {
    entry = WholeEntry();
    if (dn == nullptr || dn[0] == '\0') {
        return QORLDAP_E_FAILED;
    }
    COpenLdapIF& binding = connection_.Binding();
    SearchResult result(binding, connection_.Handle());
    int const rc = connection_.Search(dn, LDAP_SCOPE_BASE, LDAP_ANY_ENTRY, result);
    if (rc != 0) {
        return rc;
    }
    ldapmsg* const first = binding.LdapFirstEnry(result.Handle(), result.Chain());
    if (first == nullptr) {
        return LDAP_NO_SUCH_OBJECT;  // no entry came back (the server hid it)
    }
    TakeWholeEntry(binding, result, first, entry);
    return QORLDAP_OK;
}
