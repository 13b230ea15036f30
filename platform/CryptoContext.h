// The ground every part of the crypto layer stands on: OpenSSL library contexts of our own, the
// scope that keeps our errors off the caller's error queue, and the DER encodings the parts share.
//
// Contract: every crypto entry point (PKCS#12 opening, stored keys, certificate description)
// fetches its algorithms only from one of these contexts, and holds an ErrorScope for its whole
// run, so that whatever the application does with OpenSSL (its own providers, default
// properties, a FIPS-only default context) neither affects us nor is affected by us, and the
// application never finds our failures mixed with its own on the error queue.
#ifndef QORLDAP_PLATFORM_CRYPTOCONTEXT_H
#define QORLDAP_PLATFORM_CRYPTOCONTEXT_H

#include <memory>

#include <openssl/err.h>
#include <openssl/types.h>
#include <openssl/x509.h>

#include "platform/OsslPtr.h"
#include "platform/WipedBuffer.h"

namespace qor {

// Our library contexts, made on first use and kept for the life of the process; null when one
// cannot be made. The modern one holds only the default provider; the full one adds the legacy
// provider when its module is installed, for old bundles (RC2) and keys protected by older tools.
OSSL_LIB_CTX* ModernCryptoContext();
OSSL_LIB_CTX* FullCryptoContext();

// Keeps the errors raised during one call off the caller's error queue.
class ErrorScope {
  public:
    ErrorScope() { ERR_set_mark(); }
    ~ErrorScope() { ERR_pop_to_mark(); }
    ErrorScope(ErrorScope const&) = delete;
    ErrorScope& operator=(ErrorScope const&) = delete;
};

// Decodes into an object made beforehand in our context, which the owner holds. The decoder
// takes the object and, when it fails, releases it and leaves null, so the owner takes back
// whatever pointer the decoder leaves. decode is called with the object's address.
template <typename T, typename D, typename Decode>
bool DecodeInto(std::unique_ptr<T, D>& owner, Decode decode) {
    T* object = owner.release();
    bool const decoded = decode(&object) != nullptr;
    owner.reset(object);
    return decoded;
}

// A certificate's DER encoding in bytes OpenSSL allocates; len receives its length, which is
// not positive when the encoding fails.
OsslBytesPtr EncodeCertificate(X509 const* x509, int& len);

// A private key's DER encoding in a wiped buffer of our own, so that the key in the clear is
// never left in memory nobody wipes. Empty when the encoding fails.
WipedBuffer EncodePrivateKey(PKCS8_PRIV_KEY_INFO const* p8);

}  // namespace qor

#endif
