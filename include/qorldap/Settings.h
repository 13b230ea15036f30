// Settings a program gives the library itself, instead of (or over) its configuration files:
// an extension next to the library's own interface, for programs that keep their settings
// elsewhere or must not write a password into a file.
//
//   QorLdapSet("conf_dir", "/etc/myservice");   the folder soap.ini and ldap.ini are read from
//                                                (wins over QORLDAP_CONF_DIR)
//   QorLdapSet("timeout", "5");                 any key of soap.ini's [ldap] section; the value
//   QorLdapSet("bind_password", secret);        wins over the file's, read with the same rules
//   QorLdapSet("timeout", NULL);                forgets the program's value: the file's counts
//
//   QorLdapSet("pool_size", "8");               the free functions' pool (pool_size, read_host,
//                                                read_after_write, failback, idle_check: see
//                                                schema/soap.ini.example)
//
// A setting reaches every engine built after it: each CLdap object when it is constructed,
// and the free functions' engine, which is built by the first call of any free function. The
// pool keys count when that first call comes; failback and idle_check reach CLdap objects too.
// Settings are process-wide; the value is copied.
#ifndef QORLDAP_SETTINGS_H
#define QORLDAP_SETTINGS_H

#include "qorldap/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// 0 when the setting is kept and will reach the free functions' engine; 1 when it is kept but
// that engine was built already (only CLdap objects made from now on see it); 0x16000010 for a
// null key, a key the library does not know, or a value over 4096 characters (nothing kept).
QORLDAP_API int QorLdapSet(char const* key, char const* value);

#ifdef __cplusplus
}
#endif

#endif
