// What a PKCS#12 bundle holds, opened the way the library opens it at publication (same
// bounds on the work, same subject text), so that the tool can check it first.
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <cstring>

#include "tools/checks/bundle.h"

#include "platform/Crypto.h"
#include "platform/OsslPtr.h"

namespace qortool {

namespace {

X509Ptr Certificate(std::string const& cert) {
    auto const* p = reinterpret_cast<unsigned char const*>(cert.data());
    return X509Ptr(d2i_X509(nullptr, &p, static_cast<long>(cert.size())));
}

// Each attribute of the certificate's subject in encoding order: OpenSSL's short type name
// (or the OID) and the value as UTF-8, control characters and all.
bool SubjectAttributes(std::string const& cert,
                       std::vector<std::pair<std::string, std::string>>& attributes) {
    X509Ptr const x509 = Certificate(cert);
    if (x509 == nullptr)
        return false;
    X509_NAME const* name = X509_get_subject_name(x509.get());
    for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
        X509_NAME_ENTRY const* entry = X509_NAME_get_entry(name, i);
        ASN1_OBJECT const* object = X509_NAME_ENTRY_get_object(entry);
        int const nid = OBJ_obj2nid(object);
        char oid[128] = "";
        char const* type = nid != NID_undef ? OBJ_nid2sn(nid) : nullptr;
        if (type == nullptr) {
            OBJ_obj2txt(oid, sizeof oid, object, 1);
            type = oid;
        }
        unsigned char* utf8 = nullptr;
        int const length = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(entry));
        OsslBytesPtr const value(utf8);
        if (length < 0)
            return false;
        attributes.emplace_back(
            type, std::string(reinterpret_cast<char const*>(utf8), static_cast<size_t>(length)));
    }
    return true;
}

// 112 bits: RSA and DSA of 2048 bits, curves of 224 bits (NIST SP 800-57's floor since 2014).
int const kLeastSecurityBits = 112;

// Why key is too weak to keep, for people; empty when it is not.
std::string Weakness(EVP_PKEY* key) {
    if (key == nullptr)
        return "a key OpenSSL cannot read";
    std::string const type =
        EVP_PKEY_get0_type_name(key) != nullptr ? EVP_PKEY_get0_type_name(key) : "unknown";
    char text[80] = "";
    // A curve given by its parameters rather than by name could be any curve at all.
    if (EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_EC_ENCODING, text, sizeof text,
                                       nullptr) == 1 &&
        std::strcmp(text, OSSL_PKEY_EC_ENCODING_EXPLICIT) == 0) {
        return type + " with explicit parameters (a curve given by its parameters, not by name)";
    }
    int const security = EVP_PKEY_get_security_bits(key);
    if (security >= kLeastSecurityBits)
        return "";
    std::string name = type + " " + std::to_string(EVP_PKEY_get_bits(key)) + " bits";
    if (EVP_PKEY_get_group_name(key, text, sizeof text, nullptr) == 1) {
        // OpenSSL names the X9.62 curve; SEC 2's name (secp192r1) is the one people look for.
        name =
            type + " " +
            (std::strcmp(text, "prime192v1") == 0 ? "secp192r1 (prime192v1)" : std::string(text));
    }
    if (security <= 0)
        return name + ", of a strength OpenSSL cannot tell";
    return name + ", " + std::to_string(security) + "-bit security (at least " +
           std::to_string(kLeastSecurityBits) + " needed)";
}

}  // namespace

std::string WeakKey(OpenedBundle const& opened, bool publicOnly) {
    X509Ptr const x509 = Certificate(opened.cert);
    std::string const certificate =
        Weakness(x509 == nullptr ? nullptr : X509_get0_pubkey(x509.get()));
    if (!certificate.empty() || publicOnly)
        return certificate.empty() ? "" : "the certificate's key is " + certificate;
    unsigned char const* p = opened.key.Data();
    Pkcs8Ptr const pkcs8(
        d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(opened.key.Size())));
    EvpPkeyPtr const key(pkcs8 == nullptr ? nullptr : EVP_PKCS82PKEY(pkcs8.get()));
    std::string const weakness = Weakness(key.get());
    return weakness.empty() ? "" : "the private key is " + weakness;
}

bool OpenBundle(std::string const& bundle, std::string const& password, OpenedBundle& opened) {
    auto const* bytes = reinterpret_cast<unsigned char const*>(bundle.data());
    if (bundle.empty() || bundle.size() > static_cast<size_t>(kMaxPfxBytes))
        return false;
    int const length = static_cast<int>(bundle.size());
    unsigned int certLength = 0;
    unsigned int keyLength = 0;
    if (!GetKeyFromPfx(bytes, length, password.c_str(), nullptr, certLength, nullptr, keyLength,
                       true) ||
        certLength == 0 || keyLength == 0) {
        ForgetOpenedBundle();
        return false;
    }
    opened.cert.assign(certLength, '\0');
    opened.key = WipedBuffer(keyLength);
    bool const read = GetKeyFromPfx(bytes, length, password.c_str(),
                                    reinterpret_cast<unsigned char*>(&opened.cert[0]), certLength,
                                    opened.key.Data(), keyLength, true);
    ForgetOpenedBundle();
    if (!read || !SubjectAttributes(opened.cert, opened.attributes))
        return false;
    opened.key.Shrink(keyLength);
    tagCERT info;
    if (GetCertInfo(reinterpret_cast<unsigned char const*>(opened.cert.data()),
                    static_cast<int>(certLength), info)) {
        opened.subject = info.subject;
    }
    return true;
}

}  // namespace qortool
