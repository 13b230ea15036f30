// What the tool adds to a result code, by the situation it came back in. One table (hints.cpp)
// serves every command, so that a code reads the same wherever it comes back and a reader
// finds every sentence the tool attaches to a code in one place.
#ifndef QORLDAP_TOOLS_SESSION_HINTS_H
#define QORLDAP_TOOLS_SESSION_HINTS_H

#include <string>

namespace qortool {

// The directory's codes (libldap's numbers) that the tool acts on.
int const kNoSuchObject = 32;
int const kObjectClassViolation = 65;
int const kNotAllowedOnNonLeaf = 66;
int const kAlreadyExists = 68;
// libldap's codes for a server that is gone, silent, or cannot be reached.
int const kServerDown = -1;
int const kTimedOut = -5;
int const kConnectError = -11;

// Where a code came back. The library's own codes (0x16000010 ...) and the directory's codes
// behind them (this thread's last result) each have their rows.
enum class Situation {
    kConnect,            // connecting and binding: the library's code
    kConnectNoSettings,  // the same, with no soap.ini to read
    kConnectBadLink,     // the same, with a link key the library does not know
    kConnectRefused,     // the directory's code, when nothing listens where soap.ini points
    kConnectTls,         // the directory's code, on a link protected by TLS
    kStartTls,           // any code of a StartTLS request that failed
    kTemplatesMissing,   // a name refused or entries not made, and no ldap.ini to read
    kTemplatesUnread,    // the same, with an ldap.ini that does not read
    kReadKey,            // get-cert, get-key: the library's code
    kReadKeyTemplates,   // the same, when ldap.ini is the reason ({cause})
    kWriteKey,           // put-cert, put-key, rm-key: the directory's code handed on
    kPublish,            // publish: the library's code, or the directory's handed on
    kPublishNoCause,     // publish: levels not made, and the directory said nothing
    kReadEntry,          // show: the library's code
    kList,               // ls, tree: any code
    kAddEntry,           // add: the library's code
    kAddRefused,         // add: the directory's code behind the library's
    kChangeEntry,        // modify, delete: the directory's code handed on
    kFindUser,           // passwd: the walk by name found nobody
    kFindUserFast,       // passwd with fast_lookup: the library's code
    kPasswdName,         // passwd: a name that is not cn=...
    kPasswdNoCryptKey,   // passwd: the old password refused, and what the keys show
    kPasswdCryptOnly,
    kPasswdCryptNoSign,
    kPasswdUnchanged,
};

// The words a hint may name, as {dn}, {parent}, {name}, {where}, {hosts}, {soap}, {who},
// {fault}, {cause} and {path}.
struct HintWords {
    std::string dn;      // the entry concerned
    std::string parent;  // its parent
    std::string name;    // a user's name, cn=...
    std::string where;   // " at HOST port PORT", or empty
    std::string hosts;   // "127.0.0.1:1, ldap2:389"
    std::string soap;    // soap.ini's path
    std::string who;     // "managerdn and psw", "bind_dn and bind_password"
    std::string fault;   // a link key as written, "tls=yes"
    std::string cause;   // what the directory answered, or a hint of its own
    std::string path;    // ldap.ini's path
};

// The hint for code in situation with the words filled in: the row of that code, else the
// situation's row for any code; empty when neither is there (the code's meaning stands alone).
std::string Hint(int code, Situation situation, HintWords const& words = HintWords());
// Whether the table holds a row for code in situation (a row for any code counts).
bool HasHint(int code, Situation situation);
// A code that says the server is gone, silent or unreachable: a further host may answer.
bool Unreachable(int code);

}  // namespace qortool

#endif
