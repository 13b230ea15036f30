// What the directory last answered to the calling thread: an extension next to the library's
// own result codes, for callers that want to tell an operator why a call failed ("invalid
// credentials (49)", "object class violation (65): object class 'inetOrgPerson' requires
// attribute 'sn'"). The library itself prints nothing.
//
// Every request the library sends to the directory (bind, StartTLS, search, add, modify,
// delete) notes its result code for the thread that sent it, success included. The server's
// matched DN and diagnostic text are read only when the caller asked for them with
// QorLdapKeepDiagnostics(1): reading them is two more calls into libldap after each failed
// request, so by default the calls the library makes stay exactly as they were.
#ifndef QORLDAP_LASTRESULT_H
#define QORLDAP_LASTRESULT_H

#include "qorldap/export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QorLdapResult {
    // The last request's result: 0 for success, an LDAP result code (32 no such object,
    // 49 invalid credentials, 65 object class violation, ...) or one of libldap's negative
    // client codes (-1 cannot contact the server, -5 timed out, -11 connect error).
    int code;
    // "bind", "starttls", "search", "add", "modify" or "delete"; "" when this thread has sent
    // nothing yet.
    char const* operation;
    // The server's matched DN and diagnostic text for a failed request; "" when it gave none
    // or diagnostics are off. Valid until the thread's next call into the library.
    char const* matchedDn;
    char const* diagnostic;
} QorLdapResult;

// Fills out with the calling thread's last result. A null out is ignored.
QORLDAP_API void QorLdapLastResult(QorLdapResult* out);
// Process-wide switch, off by default: with 1, the matched DN and diagnostic text of every
// failed request are kept for the thread that sent it.
QORLDAP_API void QorLdapKeepDiagnostics(int on);
// libldap's text for a result code ("Invalid credentials"); "" when the library cannot be
// loaded. The text is libldap's own and lives as long as the process.
QORLDAP_API char const* QorLdapResultText(int code);

#ifdef __cplusplus
}
#endif

#endif
