// Protecting a private key in the clear under a key password, for storing it in the directory.
// Owns: nothing; the protected key goes to a wiped buffer of the caller's.
// Needs: the key conversion of the crypto layer (platform/Crypto.h, Convert2Key).
#ifndef QORLDAP_ENGINE_KEYPROTECT_H
#define QORLDAP_ENGINE_KEYPROTECT_H

class WipedBuffer;  // platform/WipedBuffer.h

namespace qor {

// Protects an unencrypted PKCS#8 key of length bytes under psw (Convert2Key, asked for the size,
// then run). QORLDAP_OK with out holding the protected key, or QORLDAP_E_KEY_CONVERT with out
// empty.
int ProtectKey(unsigned char const* key, unsigned int length, char const* psw, WipedBuffer& out);

}  // namespace qor

#endif
