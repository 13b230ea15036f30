// The form a private key is stored in on a directory entry: PKCS#8 DER protected under the
// user's password (EncryptedPrivateKeyInfo), and the checks a key passes before it is stored.
//
// Contract: a key is only ever stored protected, never under an empty password, and a stored
// key that opens here always makes a usable private key, so it can be protected again. Nothing
// here keeps a key in the clear beyond the call; a refusal leaves the caller's buffers as they
// were.
#ifndef QORLDAP_PLATFORM_STOREDKEY_H
#define QORLDAP_PLATFORM_STOREDKEY_H

#include <string>

// Whether an unencrypted PKCS#8 DER private key gives less than 112-bit security (RSA or DSA
// below 2048 bits, curves below 224 bits) or is an EC key over explicit parameters. A key that
// does not parse counts as weak.
// Why an unencrypted PKCS#8 DER private key is too weak to keep, for people ("RSA 1024 bits,
// 80-bit security (at least 112 needed)", "EC prime192v1, 80-bit security ...", "an EC key
// with explicit parameters ..."); empty when it is not weak.
std::string WeakKeyReason(unsigned char const* key, unsigned int keyLen);
bool IsWeakKey(unsigned char const* key, unsigned int keyLen);

// Protects an unencrypted PKCS#8 DER private key under psw as DER EncryptedPrivateKeyInfo
// (PBES2, PBKDF2-HMAC-SHA256, AES-256-CBC). With out null, stores the size needed (an upper
// bound) into outLen. With out, outLen holds the buffer's size and receives the length written.
// false for an empty password: a key under it opens for anyone who reads the entry.
bool Convert2Key(unsigned char const* key, unsigned int keyLen, char const* psw, unsigned char* out,
                 unsigned int& outLen);

// Whether der (len bytes) is exactly one DER EncryptedPrivateKeyInfo whose protection a key
// opening accepts: PBES2 with PBKDF2, or a PKCS#5 v1 or PKCS#12 password-based scheme, with an
// iteration count within our bound, over a non-empty encrypted key. Nothing is decrypted.
bool IsProtectedKey(unsigned char const* der, unsigned int len);

// Opens a stored key (as Convert2Key writes it) with psw, in place: data receives the
// unencrypted PKCS#8 DER and len its new length. Returns 0 on success, non-zero when the key
// cannot be opened (wrong password, empty or malformed input); data is then untouched.
unsigned char DecryptKey(unsigned char* data, unsigned int& len, char const* psw);

#endif
