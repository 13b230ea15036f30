// Records that cross the library's interface. Callers compile against these layouts, so the
// field order and widths are part of the ABI and never change.
#ifndef QORLDAP_RECORDS_H
#define QORLDAP_RECORDS_H

#include <stdint.h>

// Server settings, read from section "ldap" of "soap.ini" and exchanged by value.
// Every text is NUL-terminated and never longer than its width less one.
struct LdapInfo {
    char host[256];  // host name, or a blank-separated list tried in order
    int port;
    char basedn[256];    // root of the tree the library works under
    char managerdn[33];  // bind DN, at most 32 characters
    char psw[33];        // bind password, at most 32 characters
};

// One attribute of an entry record.
struct tagAttItem {
    char type[256];      // attribute type name, such as "ou"
    char value[1024];    // value as GB2312 text (converted to UTF-8 on writes)
    char syntax[256];    // value-kind code, "s" for text; not read by the library
    uint8_t valueKnown;  // 1 when the value came from a certificate subject
};

// One directory entry, or one entry template of "ldap.ini".
// After FreeAtt, items is null and itemCount 0; the other fields keep their text.
struct tagAtt {
    tagAttItem* items;  // array new; null when there are none; released with FreeAtt
    int itemCount;
    char objectClass[256];  // object class, and the name of the template describing it
    char dn[256];
    char parentDn[256];
    char namingAtt[256];  // attribute whose value forms the entry's relative name
    int templateIndex;    // position of the template in "ldap.ini", from 0
    int templateCount;    // number of templates "ldap.ini" declared
};

// One element of a list of entry names, released whole with FreeDN.
struct tagDN {
    char dn[256];      // the entry's DN as the directory returns it
    char baseDn[256];  // the DN the list was taken under
};

#endif
