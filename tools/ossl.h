// Owners for what OpenSSL hands the tool, each released with OpenSSL's own function.
#ifndef QORLDAP_TOOLS_OSSL_H
#define QORLDAP_TOOLS_OSSL_H

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace qortool {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* object) const noexcept {
        Free(object);
    }
};

using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using X509SigPtr = std::unique_ptr<X509_SIG, Deleter<X509_SIG_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Pbe2ParamPtr = std::unique_ptr<PBE2PARAM, Deleter<PBE2PARAM_free>>;
using Pbkdf2ParamPtr = std::unique_ptr<PBKDF2PARAM, Deleter<PBKDF2PARAM_free>>;

}  // namespace qortool

#endif
