// Result codes in words, and the one-line failure messages.
#include <cstdio>

#include "qorldap/LastResult.h"
#include "qorldap/result_codes.h"
#include "tools/cli.h"

namespace qortool {

namespace {

struct Meaning {
    int code;
    char const* text;
};

// The library's own codes.
Meaning const kLibrary[] = {
    {QORLDAP_E_FAILED,
     "general failure (no connection, a missing argument, a refused name, or a failed search or "
     "insert)"},
    {QORLDAP_E_ROOT, "the base entry is missing and cannot be created (check basedn in soap.ini)"},
    {QORLDAP_E_OLD_PASSWORD, "the old password does not open a stored private key"},
    {QORLDAP_E_KEY_CONVERT, "the private key cannot be converted into its protected form"},
    {QORLDAP_E_PKCS12, "the PKCS#12 bundle cannot be opened (wrong password or not a bundle)"},
    {QORLDAP_E_KEY_SEARCH, "the key search failed (is there such an entry?)"},
};

}  // namespace

std::string CodeText(int code) {
    for (Meaning const& m : kLibrary) {
        if (m.code == code) {
            char text[16];
            std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
            return text;
        }
    }
    return std::to_string(code);
}

bool IsLibraryCode(int code) {
    for (Meaning const& m : kLibrary) {
        if (m.code == code)
            return true;
    }
    return false;
}

std::string CodeMeaning(int code) {
    for (Meaning const& m : kLibrary) {
        if (m.code == code)
            return m.text;
    }
    // libldap's own text, with a small first letter to sit inside a sentence.
    std::string text = QorLdapResultText(code);
    if (text.empty())
        return "unknown result code";
    if (text.size() > 1 && text[0] >= 'A' && text[0] <= 'Z' && !(text[1] >= 'A' && text[1] <= 'Z'))
        text[0] = static_cast<char>(text[0] - 'A' + 'a');
    return text;
}

namespace {

// ": <diagnostic text> [the nearest entry that exists: <matched DN>]", on one line.
std::string Detail(QorLdapResult const& last) {
    std::string detail;
    if (last.diagnostic[0] != '\0')
        detail += std::string(": ") + last.diagnostic;
    if (last.matchedDn[0] != '\0')
        detail += std::string(" [the nearest entry that exists: ") + last.matchedDn + "]";
    for (char& c : detail) {
        if (c == '\n' || c == '\r')
            c = ' ';
    }
    return detail;
}

QorLdapResult LastResult() {
    QorLdapResult last = {};
    QorLdapLastResult(&last);
    return last;
}

}  // namespace

std::string DirectoryCause() {
    QorLdapResult const last = LastResult();
    if (last.code == 0)
        return "";
    return CodeMeaning(last.code) + " (" + std::to_string(last.code) + ")" + Detail(last);
}

void Fail(std::string const& what, std::string const& text) {
    throw Stop{kExitFailed, what + ": " + text};
}

// The code and its meaning, then what the directory itself answered when the last request
// failed: its text after a directory code the library handed on ("65 object class violation:
// attribute 'x' not allowed"), its code as well after one of the library's own ("0x16000010 ...;
// the directory answered: invalid credentials (49)").
void FailCode(std::string const& what, int code, std::string const& meaning) {
    std::string text = CodeText(code) + " " + (meaning.empty() ? CodeMeaning(code) : meaning);
    QorLdapResult const last = LastResult();
    if (last.code == code && !IsLibraryCode(code))
        text += Detail(last);
    else if (last.code != 0)
        text += "; the directory answered: " + DirectoryCause();
    Fail(what, text);
}

void Usage(std::string const& what, std::string const& text) {
    std::string const see =
        what.empty() || what[0] == '-' ? "qorldap --help" : "qorldap " + what + " --help";
    bool const report = what == "expiring" || what == "verify";
    throw Stop{report ? kExitNoReport : kExitUsage, (what.empty() ? "" : what + ": ") + text + " (see " + see + ")"};
}

}  // namespace qortool
