// Finding a user's entry from the common name: the walk down the tree from the base DN, and
// the opt-in lookup ("fast_lookup = yes" in soap.ini), one indexed search instead of the walk.
#include "engine/UserLookup.h"

#include <cstring>
#include <utility>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/Records.h"
#include "engine/SearchResult.h"
#include "platform/Trim.h"
#include "qorldap/result_codes.h"

namespace {

// At most this many entries come back; more than one user of the name refuses the lookup anyway.
int const kLookupSizeLimit = 16;

// The value as a filter assertion: the characters a filter gives a meaning are written as \XX.
std::string FilterValue(std::string const& value) {
    static char const hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : value) {
        if (c == '*' || c == '(' || c == ')' || c == '\\' || c == '\0') {
            out += '\\';
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// The number of components of a DN: its unescaped commas plus one.
int Components(std::string const& dn) {
    int count = 1;
    for (std::size_t i = 0; i < dn.size(); ++i) {
        if (dn[i] == '\\') {
            ++i;
        } else if (dn[i] == ',') {
            ++count;
        }
    }
    return count;
}

// Whether the DN's first component is naming=value (letter case and blanks around "=" aside):
// the entry is named by the value, not merely holding it among other values of the attribute.
bool NamedBy(std::string const& dn, char const* naming, std::string const& value) {
    std::string first;
    for (std::size_t i = 0; i < dn.size() && dn[i] != ','; ++i) {
        first += dn[i];
        if (dn[i] == '\\' && i + 1 < dn.size()) {
            first += dn[++i];
        }
    }
    std::string::size_type const eq = first.find('=');
    return eq != std::string::npos &&
           qor::Folded(qor::Trim(first.substr(0, eq))) == qor::Folded(naming) &&
           qor::Folded(qor::Trim(first.substr(eq + 1))) == qor::Folded(value);
}

// The DN without its first component, as the server wrote it.
std::string Parent(std::string const& dn) {
    for (std::size_t i = 0; i < dn.size(); ++i) {
        if (dn[i] == '\\') {
            ++i;
        } else if (dn[i] == ',') {
            return dn.substr(i + 1);
        }
    }
    return "";
}

}  // namespace

// Depth first, first match wins. Each visited DN costs two searches (its children and itself)
// and each candidate at the last level one more; nothing is cached.
bool UserLookup::GetChildKey(char const* base, int depth, char const* value, char const* attribute,
                             unsigned char*& key, unsigned int& length, std::string& foundDn) {
    if (depth > templates_.Count() || templates_.Empty()) {
        return false;
    }
    tagDN* children = nullptr;
    int count = 0;
    bool found = false;
    tagAtt self;
    std::memset(&self, 0, sizeof self);
    if (entries_.SelectLdap(base, nullptr, children, count) == QORLDAP_OK &&
        entries_.SelectLdapAtt(base, self) == QORLDAP_OK) {
        if (depth + 1 == templates_.Count()) {
            // A candidate DN longer than the 512 characters the walk composes in is skipped.
            char candidate[513];
            if (count > 0 &&
                qor::Format(candidate, sizeof candidate, LDAP_DN_COMPOSE,
                            templates_[templates_.Count() - 1].namingAtt, value, base)) {
                if (keys_.GetEachKey(candidate, attribute, key, length) == QORLDAP_OK &&
                    length != 0) {
                    foundDn = candidate;
                    found = true;
                } else {
                    qor::FreeKey(key);
                    length = 0;
                }
            }
        } else {
            for (int i = 0; i < count; ++i) {
                qor::FreeKey(key);
                GetChildKey(children[i].dn, depth + 1, value, attribute, key, length, foundDn);
                if (key != nullptr && length != 0) {
                    break;
                }
            }
            found = key != nullptr && length != 0;
        }
    }
    qor::FreeDN(children);
    qor::FreeAtt(&self);
    return found;
}

int UserLookup::GetFullDN(char const* name, std::string& dn) {
    std::string condition;
    int kind = 0;
    if (!naming_.GetCondition(name, condition, kind)) {
        return QORLDAP_E_FAILED;
    }
    if (link_.fastLookup) {
        return FindUser(condition.c_str(), dn);
    }
    unsigned char* key = nullptr;
    unsigned int length = 0;
    LdapInfo const settings = settings_.Get();
    if (!GetChildKey(settings.basedn, 0, condition.c_str(), LDAP_PERSON_CN, key, length, dn)) {
        qor::FreeKey(key);
        return QORLDAP_E_FAILED;
    }
    qor::FreeKey(key);
    return QORLDAP_OK;
}

// The walk finds users exactly as many levels below the base as there are templates, and names
// them "<naming attribute>=<value as given>, <parent>", the parent as the server listed it (the
// base as set for the first level). The search keeps to the same: entries at other depths are
// not users, and, as the walk composes the user's DN, only entries named by the value count (an
// entry that merely holds it as a further value of the naming attribute does not). Where the
// walk takes the first of two users of one name in the server's listing order, the lookup
// refuses: a password change must not reach a user the caller may not have meant. Intermediate
// entries are not required to hold ou or cn, as the walk's listings are.
int UserLookup::FindUser(char const* value, std::string& dn) {
    LdapInfo const settings = settings_.Get();
    char const* naming = templates_[templates_.Count() - 1].namingAtt;
    std::string const filter = "(" + std::string(naming) + "=" + FilterValue(value) + ")";
    NoAttributes attributes;
    COpenLdapIF& binding = connection_.Binding();
    SearchResult result(binding, connection_.Handle());
    int rc = binding.LdapSearchExtS(result.Handle(), settings.basedn, LDAP_SCOPE_SUBTREE,
                                    filter.c_str(), attributes.List(), 0, nullptr, nullptr, nullptr,
                                    kLookupSizeLimit, result.Out());
    if (rc != LDAP_SUCCESS || result.Chain() == nullptr) {
        return QORLDAP_E_FAILED;  // no such base, no answer, or more users than the limit
    }
    int const depth = Components(settings.basedn) + templates_.Count();
    int const entries = binding.LdapCountEntries(result.Handle(), result.Chain());
    std::string parent;
    int users = 0;
    result.ForEachEntryDn(entries, [&](char const* found, int) {
        if (found != nullptr && Components(found) == depth && NamedBy(found, naming, value)) {
            ++users;
            parent = templates_.Count() == 1 ? std::string(settings.basedn) : Parent(found);
        }
    });
    // "attr=value, parent", as LDAP_DN_COMPOSE writes it, and no longer than the walk's 512.
    std::string composed = std::string(naming) + "=" + value + ", " + parent;
    if (users != 1 || composed.size() > 512) {
        return QORLDAP_E_FAILED;
    }
    dn = std::move(composed);
    return QORLDAP_OK;
}
