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

// What goes into the bundle: the key with its certificate, one of them alone, or the key with
// the certificate of another key.
enum class Parts { kBoth, kKeyOnly, kCertificateOnly, kOtherCertificate };

// The key is EC on curve, or RSA of rsaBits when that is not 0.
inline Crafted CraftBundle(Subject const& subject, char const* password,
                           char const* curve = "P-256", size_t rsaBits = 0,
                           Parts parts = Parts::kBoth) {
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
    // For another certificate, a second key holds the bundle's key place and the certificate
    // goes in as a chain member, which PKCS12_create takes without matching it to the key.
    EVP_PKEY* other = parts == Parts::kOtherCertificate
                          ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")
                          : nullptr;
    STACK_OF(X509)* chain = sk_X509_new_null();
    if (other != nullptr)
        ok = ok && sk_X509_push(chain, x509) > 0;
    EVP_PKEY* const bagKey = parts == Parts::kCertificateOnly ? nullptr
                             : other != nullptr               ? other
                                                              : key;
    X509* const bagCert =
        parts == Parts::kBoth || parts == Parts::kCertificateOnly ? x509 : nullptr;
    PKCS12* p12 = ok ? PKCS12_create(password, nullptr, bagKey, bagCert,
                                     other != nullptr ? chain : nullptr, 0, 0, 0, 0, 0)
                     : nullptr;
    sk_X509_free(chain);
    EVP_PKEY_free(other);
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
