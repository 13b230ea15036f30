// Names, formats and attribute names the engine uses: typed constants, one definition each.
// The names are the ones the engine has always used (some are spelt as they always were:
// SECTION_LDAP_MANGERDN, LDAP_ORGANIMZATION); the format texts go to qor::Format.
#ifndef QORLDAP_ENGINE_CONSTANTS_H
#define QORLDAP_ENGINE_CONSTANTS_H

// Configuration files and keys.
inline constexpr char SOAP_INI[] = "soap.ini";
inline constexpr char LDAP_INI[] = "ldap.ini";
inline constexpr char SECTION_LDAP[] = "ldap";
inline constexpr char SECTION_LDAP_HOST[] = "host";
inline constexpr char SECTION_LDAP_PORT[] = "port";
inline constexpr char SECTION_LDAP_BASEDN[] = "basedn";
inline constexpr char SECTION_LDAP_MANGERDN[] = "managerdn";
inline constexpr char SECTION_LDAP_PSW[] = "psw";
inline constexpr char SECTION_LDAP_TLS[] = "tls";
inline constexpr char SECTION_LDAP_TLS_CACERT[] = "tls_cacert";
inline constexpr char SECTION_LDAP_TLS_VERIFY[] = "tls_verify";
inline constexpr char SECTION_LDAP_TIMEOUT[] = "timeout";
inline constexpr char SECTION_LDAP_RECONNECT[] = "reconnect";
inline constexpr char SECTION_LDAP_BIND_DN[] = "bind_dn";
inline constexpr char SECTION_LDAP_BIND_PASSWORD[] = "bind_password";
inline constexpr char SECTION_LDAP_FAST_LOOKUP[] = "fast_lookup";
inline constexpr char SECTION_LDAP_ATOMIC_PUBLISH[] = "atomic_publish";
inline constexpr char SECTION_LDAP_REFUSE_WEAK_KEYS[] = "refuse_weak_keys";
inline constexpr char SECTION_LDAP_GB18030_DNS[] = "gb18030_dns";
inline constexpr char SECTION_LDAP_USER_CERTIFICATE[] = "user_certificate";
// The free functions' connection pool (engine/PoolOptions.h).
inline constexpr char SECTION_LDAP_POOL_SIZE[] = "pool_size";
inline constexpr char SECTION_LDAP_READ_HOST[] = "read_host";
inline constexpr char SECTION_LDAP_READ_AFTER_WRITE[] = "read_after_write";
inline constexpr char SECTION_LDAP_FAILBACK[] = "failback";
inline constexpr char SECTION_LDAP_IDLE_CHECK[] = "idle_check";
inline constexpr char LDAP_BASE[] = "base";
inline constexpr char LDAP_SUM[] = "sum";
inline constexpr char LDAP_ATT[] = "A";
inline constexpr char ATT_SENTENCE_S_D[] = "%s%d";
inline constexpr char ATT_SEPARATE[] = ",";

// DN text and filters.
inline constexpr char LDAP_E[] = "=";
inline constexpr char LDAP_ALL[] = "*";
inline constexpr char LDAP_QUERY_CONDITION[] = "(%s=%s)";
inline constexpr char LDAP_CHILD_CONDITION[] = "(|(%s=%s)(%s=%s))";
inline constexpr char LDAP_KEY_CONDITION[] = "(%s%s%s)";
inline constexpr char LDAP_DN_COMPOSE[] = "%s=%s, %s";
// The filter that every entry matches.
inline constexpr char LDAP_ANY_ENTRY[] = "(objectClass=*)";

// Attribute and class names. The common name has one definition; the other names of it say
// where it is used (the child listing, the descent).
inline constexpr char LDAP_ORGANIMZATION[] = "o";
inline constexpr char LDAP_ORGANIMZATION_VALUE[] = "organization";
inline constexpr char LDAP_DEPART_OR_PER_TYPE[] = "objectClass";
inline constexpr char LDAP_COMMONNAME[] = "cn";
inline constexpr auto& LDAP_PERSON_CN = LDAP_COMMONNAME;
inline constexpr auto& LDAP_CN = LDAP_COMMONNAME;
inline constexpr char LDAP_OU[] = "ou";
inline constexpr char LDAP_OTHER_DEPARTMENT[] = "Other";
inline constexpr char LDAP_TEXT_SYNTAX[] = "s";

// Key attributes, sent and compared exactly as written, ";binary" option included.
inline constexpr char LDAP_PERSON_SIGN_PRI[] = "signPrikey;binary";
inline constexpr char LDAP_PERSON_SIGN_PUB_CER[] = "signPubcer;binary";
inline constexpr char LDAP_PERSON_SIGN_PUB[] = "signPubkey;binary";
inline constexpr char LDAP_PERSON_EN_PRI[] = "cryptPrikey;binary";
inline constexpr char LDAP_PERSON_EN_PUB_CER[] = "cryptPubcer;binary";
inline constexpr char LDAP_PERSON_EN_PUB[] = "cryptPubkey;binary";
// The standard attribute other directory users read a person's certificate from.
inline constexpr char LDAP_USER_CERTIFICATE[] = "userCertificate;binary";
inline constexpr char LDAP_PASSWORD[] = "userPsw;binary";

// The attribute of the signing (sign) or encryption public key: the certificate attribute when
// public keys are kept as certificates (the engine's certificate flag, always set), the bare
// public key otherwise.
constexpr char const* PublicKeyAttribute(bool sign, bool certificates) {
    return sign ? (certificates ? LDAP_PERSON_SIGN_PUB_CER : LDAP_PERSON_SIGN_PUB)
                : (certificates ? LDAP_PERSON_EN_PUB_CER : LDAP_PERSON_EN_PUB);
}

// Operation codes of modification records.
inline constexpr int QOR_MOD_ADD = 0;
inline constexpr int QOR_MOD_REPLACE = 2;
inline constexpr int QOR_MOD_BINARY_REPLACE = 0x82;

#endif
