// Every sentence the tool attaches to a result code, by situation.
#include "tools/session/hints.h"

#include <climits>

#include "qorldap/result_codes.h"

namespace qortool {

namespace {

int const kAnyCode = INT_MIN;

struct Row {
    int code;
    Situation situation;
    char const* text;
};

char const kTlsHint[] =
    "cannot set up TLS with the directory{where} (check tls_cacert and that the server's "
    "certificate names the host as written in {soap})";
char const kRefusedHint[] =
    "cannot connect to the directory: nothing answers at {hosts} (the connection is refused; "
    "check host and port in {soap})";

Row const kRows[] = {
    // Connecting. libldap gives the same -1 or -11 for a port where nothing listens and for a
    // TLS handshake that failed; the tool's own TCP connection tells them apart.
    {QORLDAP_E_FAILED, Situation::kConnect,
     "cannot connect to the directory{where} (check host, port, {who} in {soap})"},
    {QORLDAP_E_ROOT, Situation::kConnect,
     "the base entry {dn} is missing and cannot be created (check basedn in {soap})"},
    {QORLDAP_E_FAILED, Situation::kConnectNoSettings,
     "cannot connect to the directory (no soap.ini at {soap}; use --conf DIR or set "
     "QORLDAP_CONF_DIR)"},
    {QORLDAP_E_FAILED, Situation::kConnectBadLink,
     "no connection attempted: {fault} in {soap} is not a spelling the library knows (see "
     "qorldap config --help)"},
    {kServerDown, Situation::kConnectRefused, kRefusedHint},
    {kConnectError, Situation::kConnectRefused, kRefusedHint},
    {kServerDown, Situation::kConnectTls, kTlsHint},
    {kConnectError, Situation::kConnectTls, kTlsHint},
    {kAnyCode, Situation::kStartTls, kTlsHint},
    // The templates of ldap.ini, behind a refused name or entries that were not made.
    {QORLDAP_E_FAILED, Situation::kTemplatesMissing,
     "no ldap.ini at {path}; use --conf DIR or set QORLDAP_CONF_DIR"},
    {QORLDAP_E_FAILED, Situation::kTemplatesUnread,
     "ldap.ini at {path} does not read (a level or a key is missing), so the library has no "
     "templates"},
    // Keys.
    {QORLDAP_E_FAILED, Situation::kReadKey,
     "the library refused the name \"{dn}\": a user's DN starts with cn= (such as cn=li lei, "
     "ou=sales, o=root)"},
    {QORLDAP_E_FAILED, Situation::kReadKeyTemplates, "the library refused the name: {cause}"},
    {QORLDAP_E_KEY_SEARCH, Situation::kReadKey, "the key search failed (is there an entry {dn}?)"},
    {kNoSuchObject, Situation::kWriteKey, "no such object: there is no entry {dn}"},
    {kObjectClassViolation, Situation::kWriteKey,
     "object class violation (the class of {dn} does not allow this attribute; qorldap-prepare "
     "gives an entry the auxiliary class qorKeyHolder)"},
    // Publication.
    {QORLDAP_E_FAILED, Situation::kPublish,
     "the entries that the certificate's subject names could not be made"},
    {QORLDAP_E_FAILED, Situation::kPublishNoCause, "is the DN longer than 255 characters?"},
    {kObjectClassViolation, Situation::kPublish,
     "object class violation ({dn} does not allow keys; qorldap-prepare gives an entry the "
     "auxiliary class qorKeyHolder)"},
    // Entries.
    {QORLDAP_E_FAILED, Situation::kReadEntry,
     "the entry cannot be read (is \"{dn}\" a DN such as ou=sales, o=root?)"},
    {kAnyCode, Situation::kList, "the search below {dn} failed (is there such an entry?)"},
    {QORLDAP_E_FAILED, Situation::kAddEntry,
     "the directory refused the entry (check the class and the attributes against the "
     "directory's schema)"},
    {kAlreadyExists, Situation::kAddRefused,
     "the directory refused the entry: {dn} exists already"},
    {kNoSuchObject, Situation::kAddRefused,
     "the directory refused the entry: its parent {parent} does not exist"},
    {kAnyCode, Situation::kAddRefused, "the directory refused the entry: {cause}"},
    {kNoSuchObject, Situation::kChangeEntry, "no such object: there is no entry {dn}"},
    {kNotAllowedOnNonLeaf, Situation::kChangeEntry,
     "not allowed on non-leaf ({dn} has entries below it; delete those first)"},
    {kObjectClassViolation, Situation::kChangeEntry,
     "object class violation (the class does not allow an attribute, or lacks one it "
     "requires)"},
    // The password change.
    {QORLDAP_E_FAILED, Situation::kPasswdName, "the name must start with cn=, such as cn=li lei"},
    {QORLDAP_E_FAILED, Situation::kFindUser, "no user {name} found below {dn}"},
    {QORLDAP_E_FAILED, Situation::kFindUserFast,
     "fast_lookup finds no single user named {name} (none, or more than one: give the keys' "
     "owner a name of its own)"},
    {QORLDAP_E_OLD_PASSWORD, Situation::kPasswdNoCryptKey,
     "{dn}: the user holds no encryption private key; nothing was changed"},
    {QORLDAP_E_OLD_PASSWORD, Situation::kPasswdCryptOnly,
     "{dn}: the encryption key is now under the new password; the signing key did not open "
     "with the old one and is as it was"},
    {QORLDAP_E_OLD_PASSWORD, Situation::kPasswdCryptNoSign,
     "{dn}: the encryption key is now under the new password; the signing key is missing"},
    {QORLDAP_E_OLD_PASSWORD, Situation::kPasswdUnchanged,
     "{dn}: the old password does not open the encryption key; nothing was changed"},
};

Row const* Find(int code, Situation situation) {
    Row const* any = nullptr;
    for (Row const& row : kRows) {
        if (row.situation != situation)
            continue;
        if (row.code == code)
            return &row;
        if (row.code == kAnyCode)
            any = &row;
    }
    return any;
}

std::string const* Word(HintWords const& words, std::string const& name) {
    struct Named {
        char const* name;
        std::string const HintWords::*field;
    };
    static Named const kNames[] = {
        {"dn", &HintWords::dn},       {"parent", &HintWords::parent}, {"name", &HintWords::name},
        {"where", &HintWords::where}, {"hosts", &HintWords::hosts},   {"soap", &HintWords::soap},
        {"who", &HintWords::who},     {"fault", &HintWords::fault},   {"cause", &HintWords::cause},
        {"path", &HintWords::path},
    };
    for (Named const& n : kNames) {
        if (name == n.name)
            return &(words.*n.field);
    }
    return nullptr;
}

}  // namespace

std::string Hint(int code, Situation situation, HintWords const& words) {
    Row const* row = Find(code, situation);
    if (row == nullptr)
        return "";
    std::string const text = row->text;
    std::string out;
    size_t at = 0;
    for (size_t open; (open = text.find('{', at)) != std::string::npos;) {
        size_t const close = text.find('}', open);
        std::string const* word = close == std::string::npos
                                      ? nullptr
                                      : Word(words, text.substr(open + 1, close - open - 1));
        if (word == nullptr) {  // not a word of ours: kept as written
            out += text.substr(at, open + 1 - at);
            at = open + 1;
            continue;
        }
        out += text.substr(at, open - at) + *word;
        at = close + 1;
    }
    return out + text.substr(at);
}

bool HasHint(int code, Situation situation) {
    return Find(code, situation) != nullptr;
}

bool Unreachable(int code) {
    return code == kServerDown || code == kTimedOut || code == kConnectError;
}

}  // namespace qortool
