// Owners for the OpenSSL objects the crypto layer makes or is handed: each releases its object
// with the function OpenSSL provides for it, on every way out, so that nothing is released by
// hand and nothing is forgotten on an early return. Where OpenSSL takes an object over (a set0
// call that succeeds) or we keep one for good, the owner lets it go with release().
#ifndef QORLDAP_PLATFORM_OSSLPTR_H
#define QORLDAP_PLATFORM_OSSLPTR_H

#include <memory>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

// Releases an object with Free, one of OpenSSL's release functions.
template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* object) const noexcept {
        Free(object);
    }
};

// Stacks go with their elements.
inline void FreeX509Stack(STACK_OF(X509) * stack) {
    sk_X509_pop_free(stack, X509_free);
}
inline void FreePkcs7Stack(STACK_OF(PKCS7) * stack) {
    sk_PKCS7_pop_free(stack, PKCS7_free);
}
inline void FreeSafeBagStack(STACK_OF(PKCS12_SAFEBAG) * stack) {
    sk_PKCS12_SAFEBAG_pop_free(stack, PKCS12_SAFEBAG_free);
}

// Bytes OpenSSL allocated and handed to us: encodings, strings converted to UTF-8. Never a
// secret: a private key's encoding goes into a WipedBuffer of our own (platform/WipedBuffer.h).
inline void FreeOsslBytes(unsigned char* bytes) {
    OPENSSL_free(bytes);
}

using LibCtxPtr = std::unique_ptr<OSSL_LIB_CTX, Deleter<OSSL_LIB_CTX_free>>;
using EvpMdPtr = std::unique_ptr<EVP_MD, Deleter<EVP_MD_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using EvpCipherPtr = std::unique_ptr<EVP_CIPHER, Deleter<EVP_CIPHER_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using X509StackPtr = std::unique_ptr<STACK_OF(X509), Deleter<FreeX509Stack>>;
using X509SigPtr = std::unique_ptr<X509_SIG, Deleter<X509_SIG_free>>;
using X509AlgorPtr = std::unique_ptr<X509_ALGOR, Deleter<X509_ALGOR_free>>;
using Pkcs8Ptr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, Deleter<PKCS8_PRIV_KEY_INFO_free>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, Deleter<PKCS12_free>>;
using Pkcs7StackPtr = std::unique_ptr<STACK_OF(PKCS7), Deleter<FreePkcs7Stack>>;
using SafeBagStackPtr = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), Deleter<FreeSafeBagStack>>;
using PbeParamPtr = std::unique_ptr<PBEPARAM, Deleter<PBEPARAM_free>>;
using Pbe2ParamPtr = std::unique_ptr<PBE2PARAM, Deleter<PBE2PARAM_free>>;
using Pbkdf2ParamPtr = std::unique_ptr<PBKDF2PARAM, Deleter<PBKDF2PARAM_free>>;
using OsslBytesPtr = std::unique_ptr<unsigned char, Deleter<FreeOsslBytes>>;

#endif
