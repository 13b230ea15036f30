// What the tool checks before the library sees it: names, PEM and DER, ldap.ini's levels,
// passwords, text.
#ifndef QORLDAP_TOOLS_CHECKS_CHECKS_H
#define QORLDAP_TOOLS_CHECKS_CHECKS_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tools/cli.h"

namespace qortool {

// --- names (dn.cpp) ---

// The first positional argument as a DN the library takes, and fits its records.
std::string CheckedDn(Args const& args);
// The DN or name argument as the library takes it: attribute types in lower case, values and
// the blanks after commas as given. A usage error, naming the character, for a value the
// library cannot store unescaped, and for a part that is not type=value.
std::string LibraryDn(std::string const& what, std::string const& dn);
// Why value cannot be part of a DN the library composes: "holds a line feed (0x0A)", "holds
// \"+\" (0x2B)", "starts with a blank", "holds two blanks in a row"; empty when it can. Control
// characters (0x00-0x1F, 0x7F), the characters of DN syntax (, + " \ < > ; =), a leading #,
// blanks at either end and runs of blanks all make the directory read another name.
std::string UnsafeInValue(std::string const& value);
// The first control character of value, for people ("a tab (0x09)"); empty when none.
std::string ControlIn(std::string const& value);
// c for people: "a line feed (0x0A)", "\"+\" (0x2B)".
std::string CharacterName(char c);
// text with its control characters written as \xNN, to go into a one-line message.
std::string Printable(std::string const& text);
// A descriptor (a letter, then letters, digits and hyphens) or a numeric OID.
bool IsAttributeType(std::string const& type);
// The parts between commas, as given.
std::vector<std::string> DnParts(std::string const& dn);
// dn folded for comparison: blanks around the parts dropped, ASCII letters in lower case.
std::string DnKey(std::string const& dn);

// --- ldap.ini's levels (levels.cpp) ---

// Each level's class (the template's name) and naming attribute, from the top down.
std::vector<std::pair<std::string, std::string>> Levels();

// --- PEM and base64 (pem.cpp) ---

std::string Base64Encode(std::string const& data);  // one line
// data from base64 text without blanks; false when text is not whole base64.
bool Base64Decode(std::string const& text, std::string& data);
// The SHA-256 digest of data, 64 lower-case hex digits.
std::string Sha256Hex(std::string const& data);
std::string PemEncode(std::string const& label, std::string const& der);
enum class Pem { kNone, kRead, kBroken };
// Decodes the first PEM block of text: its label and its data. kNone when text holds none (it
// may be DER); kBroken, with error set, for a block that does not decode.
Pem PemDecode(std::string const& text, std::string& label, std::string& der, std::string& error);

// --- what DER holds (der.cpp) ---

enum class DerKind { kCertificate, kPublicKey, kEncryptedKey, kPrivateKey, kOther };
// Decided by decoding der whole: an X.509 certificate, a SubjectPublicKeyInfo, a PKCS#8
// EncryptedPrivateKeyInfo, a clear private key (PKCS#8 or the algorithm's own form), or other.
DerKind Classify(std::string const& der);
// Whether an encrypted PKCS#8 private key (DER) opens with password.
bool OpensWith(unsigned char const* der, unsigned int length, std::string const& password);

// --- passwords (password.cpp) ---

struct PasswordSource {
    std::string fileOption;  // the option naming a file, "--key-pass-file"
    std::string envName;     // "QORLDAP_KEY_PASSWORD"
    std::string prompt;      // "Key password: "
    bool confirm;            // ask twice at the prompt
    bool mayBeEmpty;
};
std::string GetPassword(Args const& args, PasswordSource const& source);

// --- text (text.cpp) ---

// text without the blanks (space, tab, carriage return) at either end.
std::string Trimmed(std::string const& text);
// text with the ASCII letters A-Z in lower case; other bytes stay as they are.
std::string Lower(std::string text);

// UTF-8 (what the command line holds) into the GB18030 text the library expects for values.
std::string ToLibraryText(std::string const& what, std::string const& utf8);

}  // namespace qortool

#endif
