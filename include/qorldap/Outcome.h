/* What the library decided in the calling thread's last publication or password change, and
   the text of its own result codes: an extension next to the library's interface, for callers
   that tell people why a bundle was refused or which entry a call reached. The library itself
   prints nothing. */
#ifndef QORLDAP_OUTCOME_H
#define QORLDAP_OUTCOME_H

#include "qorldap/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Why PublishP12 or ModifyPriKeyPsw refused, before or instead of writing. */
#define QORLDAP_REFUSED_NONE 0           /* nothing was refused */
#define QORLDAP_REFUSED_NOT_BUNDLE 1     /* not a PKCS#12 bundle */
#define QORLDAP_REFUSED_PASSWORD 2       /* the bundle's password does not open it */
#define QORLDAP_REFUSED_OVER_BOUND 3     /* over the size or key-derivation work bound */
#define QORLDAP_REFUSED_NO_KEY 4         /* the bundle holds no private key */
#define QORLDAP_REFUSED_NO_CERTIFICATE 5 /* the bundle holds no certificate */
#define QORLDAP_REFUSED_KEY_MISMATCH 6   /* no certificate in it belongs to its key */
#define QORLDAP_REFUSED_SUBJECT 7  /* the subject would name another entry, or is unreadable */
#define QORLDAP_REFUSED_WEAK_KEY 8 /* refuse_weak_keys: under 112-bit security */
#define QORLDAP_REFUSED_EMPTY_PASSWORD 9 /* a key would be stored under an empty password */
#define QORLDAP_REFUSED_OLD_PASSWORD 10  /* the old password does not open a stored key */
#define QORLDAP_REFUSED_NO_STORED_KEY 11 /* the entry holds no private key to re-protect */

typedef struct QorLdapOutcome {
    /* One of QORLDAP_REFUSED_*. */
    int refusal;
    /* For people: "subject attribute CN holds a line feed (0x0A)"; "" when nothing was
       refused. */
    char const* reason;
    /* The entry the call resolved to (the deepest level of a publication's path, the user of a
       password change); "" when it got no further. */
    char const* dn;
} QorLdapOutcome;

/* Fills out with the calling thread's last PublishP12 or ModifyPriKeyPsw (either family).
   The texts are valid until that thread's next such call. A null out is ignored. */
QORLDAP_API void QorLdapLastOutcome(QorLdapOutcome* out);

/* The text of a result code: the library's own codes (0x16000010 ... 0x16000015) in the
   library's words, any other code in libldap's (as QorLdapResultText). Lives as long as the
   process. */
QORLDAP_API char const* QorLdapCodeText(int code);

#ifdef __cplusplus
}
#endif

#endif
