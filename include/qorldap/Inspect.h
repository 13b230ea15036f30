/* What the library makes of its settings and of a stored key, without sending anything: an
   extension next to the library's interface, for callers that show the settings in force or
   check a key before they store it, by the library's own reading rather than a copy of it. */
#ifndef QORLDAP_INSPECT_H
#define QORLDAP_INSPECT_H

#include "qorldap/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* How a setting stands. */
#define QORLDAP_SETTING_GIVEN 0   /* written, by the program (QorLdapSet) or in soap.ini */
#define QORLDAP_SETTING_DEFAULT 1 /* absent or empty: the library's default is in force */
#define QORLDAP_SETTING_UNREAD                                     \
    2 /* written in none of its spellings: an engine built with it \
         refuses every connection */

/* The value of a key of soap.ini's [ldap] section (any key QorLdapSet takes, "conf_dir"
   included) as an engine built now would read it: the program's value over the file's, the
   file read from the folder in force. *value is set to
     - for tls: "none", "starttls" or "ldaps";
     - for tls_verify, reconnect, fast_lookup, atomic_publish, refuse_weak_keys and
       gb18030_dns: "yes" or "no";
     - for timeout: whole seconds, "0" for none;
     - for conf_dir: the folder the files are read from, "" for the current directory;
     - for the other keys: the text as written (uncut: managerdn and psw as long as written);
   the default when the key is absent or empty, and the text as written when it is unread.
   Returns one of QORLDAP_SETTING_*, or 0x16000010 (*value null) for a null key or value or a
   key the library does not know. The text is valid until the calling thread's next call. */
QORLDAP_API int QorLdapSetting(char const* key, char const** value);

/* 0 when der (length bytes) is a private key as the library stores and opens it: an encrypted
   PKCS#8 key (EncryptedPrivateKeyInfo, DER, nothing after it) under a password-based scheme
   the library knows, within its bounds on the work of opening it; 0x16000010 otherwise. The
   password is not tried. */
QORLDAP_API int QorLdapCheckStoredKey(unsigned char const* der, unsigned int length);

#ifdef __cplusplus
}
#endif

#endif
