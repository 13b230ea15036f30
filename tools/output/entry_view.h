// An entry as show prints it: what the library hands out about it, gathered once and written
// as text, LDIF or JSON.
#ifndef QORLDAP_TOOLS_OUTPUT_ENTRY_VIEW_H
#define QORLDAP_TOOLS_OUTPUT_ENTRY_VIEW_H

#include <string>
#include <vector>

struct QorLdapEntry;  // qorldap/Entry.h

namespace qortool {

struct ShownAttribute {
    std::string name;                 // as the directory returns it, options included
    std::vector<std::string> values;  // every value, byte for byte
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

// The entry the library handed out, copied: its DN and every attribute with its values.
EntryView ViewOf(QorLdapEntry const& entry);
// Whether name, options aside and in any case, is one of the key attributes: signPubcer,
// signPubkey, signPrikey, cryptPubcer, cryptPubkey, cryptPrikey, userPsw.
bool KeyAttribute(std::string const& name);
// The keys and certificates among attributes (signPubcer, signPubkey, signPrikey and their
// crypt twins, with any options), each value with its role.
std::vector<ShownKey> KeysAmong(std::vector<ShownAttribute> const& attributes);
// Exactly what ldapsearch -LLL writes for the entry with its default folding: "dn: ", each
// value of each attribute on a line of its own, a blank line after the entry.
std::string Ldif(EntryView const& entry);
// One JSON object: dn, attributes (name to a list of values: text as a string, other values
// as {"base64": "..."}) and keys (the summary of each).
std::string Json(EntryView const& entry);

// The pieces of both (entry_format.cpp).

// Whether value goes into LDIF as it is, as ldapsearch judges it: no byte outside 0x20-0x7E,
// no blank at either end, no ":" or "<" first.
bool LdifSafe(std::string const& value);
// One value as ldapsearch writes it: "name:" for an empty value; "name: value" for a safe one;
// "name:: base64" for any other, and for every value of a ;binary attribute and of
// userPassword. Folded as ldapsearch folds by default: a line is cut before a character of the
// value once it holds 78, each further line a blank and 77 more. Every line ends with "\n".
std::string LdifLine(std::string const& name, std::string const& value);
// text as a JSON string, quotes included: " and \ escaped, control characters as \u00XX, the
// other bytes as they are.
std::string JsonString(std::string const& text);
// Whether value is well-formed UTF-8 without control characters: JSON shows it as text.
bool JsonText(std::string const& value);
// A value of the attribute name in JSON: a string, or {"base64": "..."} for a ;binary
// attribute or a value that is not JsonText.
std::string JsonValue(std::string const& name, std::string const& value);

}  // namespace qortool

#endif
