// An entry as show prints it: what the library hands out about it, gathered once and written
// as text, LDIF or JSON.
#ifndef QORLDAP_TOOLS_ENTRY_VIEW_H
#define QORLDAP_TOOLS_ENTRY_VIEW_H

#include <string>
#include <vector>

class CLdap;

namespace qortool {

struct ShownAttribute {
    std::string name;
    // The values the tool knows; known is false when the library gave the name alone.
    std::vector<std::string> values;
    bool known = false;
};

struct ShownKey {
    std::string attribute;  // "signPubcer;binary"
    std::string role;       // "signing certificate"
    std::string der;
};

struct EntryView {
    std::string dn;
    std::vector<ShownAttribute> attributes;  // in the directory's order
    int unnamed = 0;                         // attributes whose names do not fit the record
    std::vector<ShownKey> keys;              // those the entry holds
};

// The certificates and keys of the user dn, in the order signing certificate, signing key,
// encryption certificate, encryption key; false when dn is not a user's, whose keys the
// library does not read.
bool ReadKeys(CLdap& ldap, std::string const& dn, std::vector<ShownKey>& keys);

// As ldapsearch -LLL writes an entry: "::" and base64 for a value that is not safe text, lines
// folded at 78 characters. Attributes whose values are not known, and the summary of each key,
// follow as comments.
std::string Ldif(EntryView const& entry);
// One JSON object: dn, attributes (name to a list of values: text as a string, other values
// as {"base64": "..."}; null when only the name is known) and keys (the summary of each).
std::string Json(EntryView const& entry);

}  // namespace qortool

#endif
