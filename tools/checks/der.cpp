// What DER bytes hold, decided by decoding them whole with OpenSSL.
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include "tools/checks/checks.h"

namespace qortool {

namespace {

// Whether decode reads the whole of der as one object (a trailing byte is not tolerated).
template <typename T, typename Free>
bool Whole(std::string const& der, T* (*decode)(T**, unsigned char const**, long), Free free) {
    unsigned char const* p = reinterpret_cast<unsigned char const*>(der.data());
    T* object = decode(nullptr, &p, static_cast<long>(der.size()));
    bool const whole =
        object != nullptr && p == reinterpret_cast<unsigned char const*>(der.data()) + der.size();
    free(object);
    return whole;
}

}  // namespace

DerKind Classify(std::string const& der) {
    DerKind kind = DerKind::kOther;
    if (der.empty()) {
        kind = DerKind::kOther;
    } else if (Whole(der, d2i_X509, X509_free)) {
        kind = DerKind::kCertificate;
    } else if (Whole(der, d2i_PUBKEY, EVP_PKEY_free)) {
        kind = DerKind::kPublicKey;
    } else if (Whole(der, d2i_X509_SIG, X509_SIG_free)) {
        kind = DerKind::kEncryptedKey;
    } else if (Whole(der, d2i_PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free) ||
               Whole(der, d2i_AutoPrivateKey, EVP_PKEY_free)) {
        kind = DerKind::kPrivateKey;
    }
    ERR_clear_error();
    return kind;
}

bool OpensWith(unsigned char const* der, unsigned int length, std::string const& password) {
    unsigned char const* p = der;
    X509_SIG* sealed = d2i_X509_SIG(nullptr, &p, static_cast<long>(length));
    PKCS8_PRIV_KEY_INFO* clear =
        sealed != nullptr
            ? PKCS8_decrypt(sealed, password.c_str(), static_cast<int>(password.size()))
            : nullptr;
    bool const opens = clear != nullptr;
    PKCS8_PRIV_KEY_INFO_free(clear);
    X509_SIG_free(sealed);
    ERR_clear_error();
    return opens;
}

}  // namespace qortool
