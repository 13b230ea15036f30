// Result codes in words, and the one-line failure messages.
#include <cstdio>

#include "cli.h"
#include "qorldap/result_codes.h"

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

// The directory's codes that a caller may meet, and the client library's negative ones.
Meaning const kDirectory[] = {
    {1, "operations error"},
    {2, "protocol error"},
    {3, "time limit exceeded"},
    {4, "size limit exceeded"},
    {7, "authentication method not supported"},
    {8, "stronger authentication required"},
    {11, "administrative limit exceeded"},
    {12, "unavailable critical extension"},
    {13, "confidentiality required"},
    {16, "no such attribute"},
    {17, "undefined attribute type"},
    {18, "inappropriate matching"},
    {19, "constraint violation"},
    {20, "attribute or value exists"},
    {21, "invalid attribute syntax"},
    {32, "no such object"},
    {33, "alias problem"},
    {34, "invalid DN syntax"},
    {36, "alias dereferencing problem"},
    {48, "inappropriate authentication"},
    {49, "invalid credentials"},
    {50, "insufficient access rights"},
    {51, "busy"},
    {52, "unavailable"},
    {53, "unwilling to perform"},
    {54, "loop detected"},
    {64, "naming violation"},
    {65, "object class violation"},
    {66, "not allowed on non-leaf"},
    {67, "not allowed on RDN"},
    {68, "already exists"},
    {69, "cannot modify object class"},
    {71, "affects multiple servers"},
    {80, "other"},
    {-1, "cannot reach the server"},
    {-2, "local error"},
    {-3, "encoding error"},
    {-4, "decoding error"},
    {-5, "timed out"},
    {-6, "unknown authentication method"},
    {-7, "bad search filter"},
    {-8, "cancelled"},
    {-9, "bad parameter"},
    {-10, "out of memory"},
    {-11, "connect error"},
    {-12, "not supported"},
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

std::string CodeMeaning(int code) {
    for (Meaning const& m : kLibrary) {
        if (m.code == code)
            return m.text;
    }
    for (Meaning const& m : kDirectory) {
        if (m.code == code)
            return m.text;
    }
    return "unknown result code";
}

void Fail(std::string const& what, std::string const& text) {
    throw Stop{kExitFailed, what + ": " + text};
}

void FailCode(std::string const& what, int code, std::string const& meaning) {
    Fail(what, CodeText(code) + " " + (meaning.empty() ? CodeMeaning(code) : meaning));
}

void Usage(std::string const& what, std::string const& text) {
    std::string const see =
        what.empty() || what[0] == '-' ? "qorldap --help" : "qorldap " + what + " --help";
    throw Stop{kExitUsage, (what.empty() ? "" : what + ": ") + text + " (see " + see + ")"};
}

}  // namespace qortool
