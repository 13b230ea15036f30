// PKCS#12 bundles with subjects openssl's command line cannot spell (line feeds, NULs,
// repeated attributes), made with the OpenSSL API: a self-signed certificate over a new key.
#ifndef QORLDAP_TESTS_CRAFTEDBUNDLE_H
#define QORLDAP_TESTS_CRAFTEDBUNDLE_H

#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <string>
#include <utility>
#include <vector>

namespace qortest {

using Subject = std::vector<std::pair<std::string, std::string>>;  // type, UTF-8 value

struct Crafted {
    std::string bundle;  // PKCS#12, empty when it could not be made
    std::string cert;    // the certificate, DER
};

// key: an EVP_PKEY_Q_keygen kind and its argument, such as {"EC", "P-256"}, {"RSA", 1024}.
inline Crafted CraftBundle(Subject const& subject, char const* password,
                           char const* curve = "P-256", size_t rsaBits = 0) {
    Crafted out;
    EVP_PKEY* key = rsaBits != 0 ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", rsaBits)
                                 : EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve);
    X509* x509 = X509_new();
    X509_NAME* name = X509_NAME_new();
    bool ok = key != nullptr && x509 != nullptr && name != nullptr;
    for (auto const& [type, value] : subject)
        ok = ok && X509_NAME_add_entry_by_txt(name, type.c_str(), MBSTRING_UTF8,
                                              reinterpret_cast<unsigned char const*>(value.data()),
                                              static_cast<int>(value.size()), -1, 0) == 1;
    ok = ok && X509_set_version(x509, 2) && ASN1_INTEGER_set(X509_get_serialNumber(x509), 7) &&
         X509_set_subject_name(x509, name) && X509_set_issuer_name(x509, name) &&
         X509_gmtime_adj(X509_getm_notBefore(x509), 0) &&
         X509_gmtime_adj(X509_getm_notAfter(x509), 86400) && X509_set_pubkey(x509, key) &&
         X509_sign(x509, key, EVP_sha256()) > 0;
    PKCS12* p12 =
        ok ? PKCS12_create(password, nullptr, key, x509, nullptr, 0, 0, 0, 0, 0) : nullptr;
    unsigned char* der = nullptr;
    int len = p12 != nullptr ? i2d_PKCS12(p12, &der) : -1;
    if (len > 0)
        out.bundle.assign(reinterpret_cast<char*>(der), static_cast<size_t>(len));
    OPENSSL_free(der);
    der = nullptr;
    len = ok ? i2d_X509(x509, &der) : -1;
    if (len > 0)
        out.cert.assign(reinterpret_cast<char*>(der), static_cast<size_t>(len));
    OPENSSL_free(der);
    PKCS12_free(p12);
    X509_NAME_free(name);
    X509_free(x509);
    EVP_PKEY_free(key);
    return out;
}

}  // namespace qortest

#endif
