// Names, formats and attribute names the engine uses.
#ifndef QORLDAP_ENGINE_CONSTANTS_H
#define QORLDAP_ENGINE_CONSTANTS_H

// Configuration files and keys.
#define SOAP_INI "soap.ini"
#define LDAP_INI "ldap.ini"
#define SECTION_LDAP "ldap"
#define SECTION_LDAP_HOST "host"
#define SECTION_LDAP_PORT "port"
#define SECTION_LDAP_BASEDN "basedn"
#define SECTION_LDAP_MANGERDN "managerdn"
#define SECTION_LDAP_PSW "psw"
#define SECTION_LDAP_TLS "tls"
#define SECTION_LDAP_TLS_CACERT "tls_cacert"
#define SECTION_LDAP_TLS_VERIFY "tls_verify"
#define SECTION_LDAP_TIMEOUT "timeout"
#define SECTION_LDAP_RECONNECT "reconnect"
#define SECTION_LDAP_BIND_DN "bind_dn"
#define SECTION_LDAP_BIND_PASSWORD "bind_password"
#define SECTION_LDAP_FAST_LOOKUP "fast_lookup"
#define SECTION_LDAP_ATOMIC_PUBLISH "atomic_publish"
#define SECTION_LDAP_REFUSE_WEAK_KEYS "refuse_weak_keys"
#define SECTION_LDAP_GB18030_DNS "gb18030_dns"
#define LDAP_BASE "base"
#define LDAP_SUM "sum"
#define LDAP_ATT "A"
#define ATT_SENTENCE_S_D "%s%d"
#define ATT_SEPARATE ","

// DN text.
#define LDAP_E "="
#define LDAP_ALL "*"
#define LDAP_QUERY_CONDITION "(%s=%s)"
#define LDAP_CHILD_CONDITION "(|(%s=%s)(%s=%s))"
#define LDAP_KEY_CONDITION "(%s%s%s)"
#define LDAP_DN_COMPOSE "%s=%s, %s"

// Attribute and class names.
#define LDAP_ORGANIMZATION "o"
#define LDAP_ORGANIMZATION_VALUE "organization"
#define LDAP_DEPART_OR_PER_TYPE "objectClass"
#define LDAP_COMMONNAME "cn"
#define LDAP_PERSON_CN "cn"
// The attribute list that asks for no attributes at all.
#define LDAP_NO_ATTRS "1.1"
#define LDAP_OU "ou"
#define LDAP_CN "cn"
#define LDAP_OTHER_DEPARTMENT "Other"
#define LDAP_TEXT_SYNTAX "s"

// Key attributes, sent and compared exactly as written, ";binary" option included.
#define LDAP_PERSON_SIGN_PRI "signPrikey;binary"
#define LDAP_PERSON_SIGN_PUB_CER "signPubcer;binary"
#define LDAP_PERSON_SIGN_PUB "signPubkey;binary"
#define LDAP_PERSON_EN_PRI "cryptPrikey;binary"
#define LDAP_PERSON_EN_PUB_CER "cryptPubcer;binary"
#define LDAP_PERSON_EN_PUB "cryptPubkey;binary"
#define LDAP_PASSWORD "userPsw;binary"

// Operation codes of modification records.
#define QOR_MOD_ADD 0
#define QOR_MOD_REPLACE 2
#define QOR_MOD_BINARY_REPLACE 0x82

#endif
