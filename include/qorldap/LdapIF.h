// The free functions. They all work on one engine that the library builds when it is loaded
// (settings from "soap.ini", templates from "ldap.ini") and that every thread of the process
// shares. Every function but ConnectLdap, FreeKey's release, GetLdapAtt and SetLdapAtt connects
// first when needed; a connection that cannot be made gives 0x16000010 and nothing else happens.
#ifndef QORLDAP_LDAPIF_H
#define QORLDAP_LDAPIF_H

#include "qorldap/export.h"
#include "qorldap/records.h"
#include "qorldap/result_codes.h"

// Connects and binds once; later calls return 0 at once. 0, 0x16000010 (no connection, or a
// link key in soap.ini that does not read), or 0x16000011 when the base entry is missing and
// cannot be created.
QORLDAP_API int ConnectLdap();
// Releases a key buffer handed out by a read. Connects first: when that fails, nothing is
// released. The caller's pointer is left as it was either way.
QORLDAP_API void FreeKey(unsigned char* key);
// Copies the settings in force into info. Needs no server.
QORLDAP_API void GetLdapAtt(LdapInfo& info);
// Replaces the settings. The bind DN and password count from the next connection; host and
// port only until the first connection handle was made; basedn at once.
QORLDAP_API void SetLdapAtt(LdapInfo info);

// Key reads. name is the user's entry DN, whose first component must be cn=...
// On 0: key is a new buffer (release with FreeKey) and length its size, or key is null and
// length 0 when the entry has no such key.
// 0x16000010, no connection: key and length are left untouched.
// 0x16000010, name refused (null, not cn=..., too long): key null, length 0; nothing sent.
// 0x16000015, the search failed (no such entry, server down, timeout): key null, length 0.
QORLDAP_API int GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length);
QORLDAP_API int GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length);
QORLDAP_API int GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length);
QORLDAP_API int GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length);

// Removes a private-key attribute with one replace that carries no values.
// 0: the key is gone (also when there was none). 0x16000010: no connection, or dn is null;
// nothing sent. Otherwise the directory's code (32: no such entry; -1, -5: see README, the
// outcome is then unknown).
QORLDAP_API int DeleteSignPrivateKey(char const* dn);
QORLDAP_API int DeleteCryptPrivateKey(char const* dn);

// Re-protects the user's encryption and then signing private key under newPsw. name is
// resolved by walking the tree from the base DN (first user of that common name, depth first).
// 0: both keys re-protected and written.
// 0x16000010: no connection, the name is not found, or a password is null; nothing written.
// 0x16000012: oldPsw does not open a key, or the key is missing.
// 0x16000013: a key cannot be protected (newPsw empty among other causes).
// Else the code of a failed key read or write. A failure on the signing key leaves the
// encryption key already under newPsw: nothing is undone.
QORLDAP_API int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw);

// Publishes a PKCS#12 bundle: creates the levels its certificate subject names, then stores the
// certificate and (unless publicOnly) the private key protected by keyPsw in the deepest entry.
// sign selects the signing pair, otherwise the encryption pair.
// 0: stored. 0x16000010: no connection; nothing written.
// 0x16000014: the bundle does not open (wrong password, not a bundle, over the work bound);
// nothing written. 0x16000013: the key cannot be protected; the path exists, nothing stored.
// Else the directory's code of the path creation or of a store; what was written stays (a
// failed private-key store leaves the certificate stored).
QORLDAP_API int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw,
                           char const* keyPsw, bool sign, bool publicOnly);

#endif
