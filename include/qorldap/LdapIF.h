// The free functions. They all work on one engine that the library builds when it is loaded
// (settings from "soap.ini", templates from "ldap.ini") and that every thread of the process
// shares. Every function but ConnectLdap, FreeKey's release, GetLdapAtt and SetLdapAtt connects
// first when needed; a connection that cannot be made gives 0x16000010 and nothing else happens.
#ifndef QORLDAP_LDAPIF_H
#define QORLDAP_LDAPIF_H

#include "qorldap/export.h"
#include "qorldap/records.h"
#include "qorldap/result_codes.h"

// Connects and binds once; later calls return 0 at once. 0, 0x16000010, or 0x16000011 when
// the base entry is missing and cannot be created.
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
// On 0, key is a new buffer (release with FreeKey) or null with length 0 when the entry has no
// such key. 0x16000010: name refused, no search made. 0x16000015: the search failed.
QORLDAP_API int GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length);
QORLDAP_API int GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length);
QORLDAP_API int GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length);
QORLDAP_API int GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length);

// Remove a private key attribute. 0 when the key is gone (also when there was none), else the
// directory's result code (32 when the entry does not exist).
QORLDAP_API int DeleteSignPrivateKey(char const* dn);
QORLDAP_API int DeleteCryptPrivateKey(char const* dn);

// Re-protects the user's encryption and then signing private key under newPsw. name is
// resolved by walking the tree from the base DN. 0x16000012 when oldPsw does not open a key
// (or a key is missing), 0x16000013 when a key cannot be converted; nothing is undone.
QORLDAP_API int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw);

// Publishes a PKCS#12 bundle: creates the levels its certificate subject names, then stores the
// certificate and (unless publicOnly) the private key protected by keyPsw in the deepest entry.
// sign selects the signing pair, otherwise the encryption pair. 0x16000014: the bundle does not
// open; 0x16000013: the key cannot be protected; else the directory's code.
QORLDAP_API int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw,
                           char const* keyPsw, bool sign, bool publicOnly);

#endif
