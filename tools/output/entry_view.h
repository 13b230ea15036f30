// An entry as show prints it: what the library hands out about it, gathered once and written
// as text, LDIF or JSON.
#ifndef QORLDAP_TOOLS_OUTPUT_ENTRY_VIEW_H
#define QORLDAP_TOOLS_OUTPUT_ENTRY_VIEW_H

#include <string>
#include <vector>

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

// As ldapsearch -LLL writes an entry: "::" and base64 for a value that is not safe text, lines
// folded at 78 characters. Attributes whose values are not known, and the summary of each key,
// follow as comments.
std::string Ldif(EntryView const& entry);
// One JSON object: dn, attributes (name to a list of values: text as a string, other values
// as {"base64": "..."}; null when only the name is known) and keys (the summary of each).
std::string Json(EntryView const& entry);

// The pieces of both (entry_format.cpp).

// Whether value goes into LDIF as it is (RFC 2849's SAFE-STRING, as ldapsearch judges it): no
// byte outside 0x20-0x7E, no blank at either end, no ":" or "<" first.
bool LdifSafe(std::string const& value);
// "name: value", or "name:: base64" when the value is not safe, folded as ldapsearch folds:
// 78 characters a line, each further line a blank and 77 more. Every line ends with "\n".
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
