// What a stored certificate or key is, for people: read by OpenSSL, nothing decrypted.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <ctime>

#include "tools/checks/checks.h"
#include "tools/ossl.h"
#include "tools/output/output.h"

namespace qortool {

namespace {

using BignumPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using Pkcs8InfoPtr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, Deleter<PKCS8_PRIV_KEY_INFO_free>>;

void FreeText(char* text) {
    OPENSSL_free(text);
}

unsigned char const* Bytes(std::string const& der) {
    return reinterpret_cast<unsigned char const*>(der.data());
}

// RFC 2253 order and escaping, UTF-8 left as it is.
std::string NameText(X509_NAME const* name) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    char* text = nullptr;
    long length = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<size_t>(length));
}

std::string TimeText(ASN1_TIME const* time) {
    struct tm when = {};
    if (ASN1_TIME_to_tm(time, &when) != 1)
        return "(unreadable)";
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &when);
    return text;
}

std::string Hex(unsigned char const* data, size_t length, char const* separator) {
    static char const kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < length; ++i) {
        if (i > 0)
            out += separator;
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

// "RSA 2048 bits", "EC 256 bits (prime256v1)".
std::string KeyText(EVP_PKEY* key) {
    if (key == nullptr)
        return "(unreadable)";
    char const* type = EVP_PKEY_get0_type_name(key);
    std::string text = std::string(type != nullptr ? type : "unknown") + " " +
                       std::to_string(EVP_PKEY_get_bits(key)) + " bits";
    char group[80];
    if (EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                       nullptr) == 1) {
        text += std::string(" (") + group + ")";
    }
    return text;
}

std::string ObjectText(ASN1_OBJECT const* object) {
    char text[128];
    OBJ_obj2txt(text, sizeof text, object, 0);
    return text;
}

// "PBES2 (PBKDF2, hmacWithSHA256, 100000 iterations; aes-256-cbc)", or the scheme's name.
std::string SchemeText(X509_ALGOR const* algorithm) {
    ASN1_OBJECT const* oid = nullptr;
    int type = 0;
    void const* value = nullptr;
    X509_ALGOR_get0(&oid, &type, &value, algorithm);
    std::string text = ObjectText(oid);
    if (OBJ_obj2nid(oid) != NID_pbes2 || type != V_ASN1_SEQUENCE)
        return text;
    Pbe2ParamPtr pbes2(static_cast<PBE2PARAM*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), algorithm->parameter)));
    if (pbes2 == nullptr)
        return text;
    ASN1_OBJECT const* kdf = nullptr;
    X509_ALGOR_get0(&kdf, nullptr, nullptr, pbes2->keyfunc);
    std::string kdfText = ObjectText(kdf);
    if (OBJ_obj2nid(kdf) == NID_id_pbkdf2) {
        Pbkdf2ParamPtr pbkdf2(static_cast<PBKDF2PARAM*>(
            ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), pbes2->keyfunc->parameter)));
        if (pbkdf2 != nullptr) {
            kdfText +=
                std::string(", ") +
                (pbkdf2->prf != nullptr ? ObjectText(pbkdf2->prf->algorithm) : "hmacWithSHA1") +
                ", " + std::to_string(ASN1_INTEGER_get(pbkdf2->iter)) + " iterations";
        }
    }
    ASN1_OBJECT const* cipher = nullptr;
    X509_ALGOR_get0(&cipher, nullptr, nullptr, pbes2->encryption);
    return text + " (" + kdfText + "; " + ObjectText(cipher) + ")";
}

void Certificate(std::string const& der, std::vector<Field>& out) {
    unsigned char const* p = Bytes(der);
    X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    out.push_back({"kind", "X.509 certificate"});
    out.push_back({"subject", NameText(X509_get_subject_name(cert.get()))});
    out.push_back({"issuer", NameText(X509_get_issuer_name(cert.get()))});
    BignumPtr serial(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert.get()), nullptr));
    std::unique_ptr<char, Deleter<FreeText>> serialHex(serial ? BN_bn2hex(serial.get()) : nullptr);
    out.push_back({"serial", serialHex ? serialHex.get() : "(unreadable)"});
    out.push_back({"notBefore", TimeText(X509_get0_notBefore(cert.get()))});
    out.push_back({"notAfter", TimeText(X509_get0_notAfter(cert.get()))});
    out.push_back({"key", KeyText(X509_get0_pubkey(cert.get()))});
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(cert.get(), EVP_sha256(), digest, &length) == 1)
        out.push_back({"sha256", Hex(digest, length, ":")});
}

}  // namespace

// The fields of a certificate's TBSCertificate that a report needs, read without decoding the
// whole certificate: OpenSSL 3 decodes the public key of every certificate through its provider
// decoders, which cost most of a subtree report's time. The outer structure is still checked:
// one SEQUENCE over the whole value holding the TBSCertificate's SEQUENCE.
namespace {

// Steps into (enter) or over the next element of [p, end): false when it does not read.
bool NextElement(unsigned char const*& p, unsigned char const* end, bool enter, int& tag) {
    unsigned char const* q = p;
    long length = 0;
    int xclass = 0;
    int const info = ASN1_get_object(&q, &length, &tag, &xclass, end - p);
    if ((info & 0x80) != 0 || length > end - q) {
        return false;
    }
    tag |= xclass;  // context tags apart from universal ones
    p = enter ? q : q + length;
    return true;
}

}  // namespace

bool ReadCertificateFacts(std::string const& der, CertificateFacts& facts) {
    unsigned char const* p = Bytes(der);
    unsigned char const* const end = p + der.size();
    unsigned char const* outer = p;
    int tag = 0;
    bool ok = NextElement(outer, end, false, tag) && outer == end && tag == V_ASN1_SEQUENCE &&
              NextElement(p, end, true, tag) && NextElement(p, end, true, tag) &&
              tag == V_ASN1_SEQUENCE;
    unsigned char const* version = p;
    if (ok && NextElement(version, end, false, tag) && tag == (V_ASN1_CONTEXT_SPECIFIC | 0))
        p = version;  // [0] version, present from v2 on
    std::unique_ptr<ASN1_INTEGER, Deleter<ASN1_INTEGER_free>> serialNumber(
        ok ? d2i_ASN1_INTEGER(nullptr, &p, end - p) : nullptr);
    ok = serialNumber != nullptr && NextElement(p, end, false, tag) &&  // signature
         NextElement(p, end, false, tag) &&                             // issuer
         NextElement(p, end, true, tag) && tag == V_ASN1_SEQUENCE &&    // validity
         NextElement(p, end, false, tag);                               // notBefore
    std::unique_ptr<ASN1_TIME, Deleter<ASN1_TIME_free>> notAfter(
        ok ? d2i_ASN1_TIME(nullptr, &p, end - p) : nullptr);
    std::unique_ptr<X509_NAME, Deleter<X509_NAME_free>> subject(
        notAfter != nullptr ? d2i_X509_NAME(nullptr, &p, end - p) : nullptr);
    struct tm when = {};
    if (subject == nullptr || ASN1_TIME_to_tm(notAfter.get(), &when) != 1) {
        ERR_clear_error();
        return false;
    }
    facts.subject = NameText(subject.get());
    BignumPtr serial(ASN1_INTEGER_to_BN(serialNumber.get(), nullptr));
    std::unique_ptr<char, Deleter<FreeText>> serialHex(serial ? BN_bn2hex(serial.get()) : nullptr);
    facts.serial = serialHex ? serialHex.get() : "(unreadable)";
    facts.notAfter = TimeText(notAfter.get());
    facts.notAfterTime = static_cast<long long>(timegm(&when));
    return true;
}

std::vector<Field> Describe(std::string const& der) {
    std::vector<Field> out;
    unsigned char const* p = Bytes(der);
    long const size = static_cast<long>(der.size());
    switch (Classify(der)) {
        case DerKind::kCertificate:
            Certificate(der, out);
            break;
        case DerKind::kPublicKey: {
            EvpPkeyPtr key(d2i_PUBKEY(nullptr, &p, size));
            out.push_back({"kind", "public key (SubjectPublicKeyInfo)"});
            out.push_back({"key", KeyText(key.get())});
            break;
        }
        case DerKind::kEncryptedKey: {
            X509SigPtr sig(d2i_X509_SIG(nullptr, &p, size));
            X509_ALGOR const* algorithm = nullptr;
            X509_SIG_get0(sig.get(), &algorithm, nullptr);
            out.push_back({"kind", "encrypted PKCS#8"});
            out.push_back({"encryption", SchemeText(algorithm)});
            break;
        }
        case DerKind::kPrivateKey: {
            // Named by its algorithm only: the key itself is not decoded.
            Pkcs8InfoPtr info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, size));
            ASN1_OBJECT const* oid = nullptr;
            if (info != nullptr)
                PKCS8_pkey_get0(&oid, nullptr, nullptr, nullptr, info.get());
            out.push_back({"kind", "private key, NOT encrypted"});
            out.push_back({"algorithm", oid != nullptr ? ObjectText(oid) : "(its own form)"});
            break;
        }
        case DerKind::kOther:
            out.push_back({"kind", "not a certificate or key that OpenSSL reads"});
            break;
    }
    ERR_clear_error();
    return out;
}

}  // namespace qortool
