/* An entry read whole, every attribute with every value exactly as the directory holds it:
   an extension next to the library's interface, for callers that export or show an entry
   faithfully (SelectLdap gives only the template's attributes, as text). */
#ifndef QORLDAP_ENTRY_H
#define QORLDAP_ENTRY_H

#include "qorldap/export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QorLdapValue {
    unsigned int length;
    unsigned char const* bytes; /* not NUL-terminated; text values are the directory's UTF-8 */
} QorLdapValue;

typedef struct QorLdapAttribute {
    char const* name; /* as the directory returns it, options included ("signPubcer;binary") */
    int valueCount;
    QorLdapValue const* values;
} QorLdapAttribute;

typedef struct QorLdapEntry {
    char const* dn; /* as the directory returns it (GB18030 with gb18030_dns = yes) */
    int attributeCount;
    QorLdapAttribute const* attributes;
} QorLdapEntry;

/* Reads the entry at dn through the free functions' engine (connecting first, as they do):
   one base search for every user attribute. 0 with *entry set, to be released with
   QorLdapFreeEntry; otherwise *entry is null and the result is 0x16000010 (no connection, a
   null dn or entry), or the directory's code (32 when there is no such entry). */
QORLDAP_API int QorLdapReadEntry(char const* dn, QorLdapEntry** entry);
/* Releases what QorLdapReadEntry handed out; null is ignored. */
QORLDAP_API void QorLdapFreeEntry(QorLdapEntry* entry);

#ifdef __cplusplus
}
#endif

#endif
