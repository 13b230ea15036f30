/* An entry written whole, every attribute given as octets: an extension next to the library's
   interface, for callers that load entries another directory exported (qorldap import) or
   write attributes the templates of ldap.ini do not name. The values go as they are, with the
   names as given (options included, "signPubcer;binary"); nothing is converted or checked
   against the templates. */
#ifndef QORLDAP_WRITE_H
#define QORLDAP_WRITE_H

#include "qorldap/Entry.h"
#include "qorldap/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* How QorLdapWriteEntry writes. A new entry holding exactly these attributes (one add): */
#define QORLDAP_WRITE_ADD 0
/* An existing entry, each attribute given having its values replaced by these (none removes
   it), the others left as they are (one modify): */
#define QORLDAP_WRITE_REPLACE 1

/* Writes the entry at dn through the free functions' engine (connecting first, as they do),
   in one request, so the directory applies all of it or none. attributes holds count
   attributes; a value's bytes may hold anything, zero bytes included.
   0 when written. 0x16000010, with nothing sent: no connection, a null or empty dn, how not
   one of QORLDAP_WRITE_*, count under 1 or over 4096, null attributes, an attribute with a
   null or empty name, a negative count of values or null values where it has some, a value
   with null bytes and a length; for QORLDAP_WRITE_ADD also an attribute without values.
   Otherwise the directory's code: 68 the entry exists (add), 32 its parent or (replace) the
   entry is missing, 65 or 17 a class or an attribute the schema does not allow, 50 no
   right. */
QORLDAP_API int QorLdapWriteEntry(char const* dn, int how, QorLdapAttribute const* attributes,
                                  int count);

#ifdef __cplusplus
}
#endif

#endif
