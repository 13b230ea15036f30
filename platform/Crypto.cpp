// Key and certificate handling over OpenSSL 3.
//
// Everything here runs in a library context of our own, so that whatever the application does
// with OpenSSL (its own providers, default properties, a FIPS-only default context) neither
// affects us nor is affected by us. Errors we raise are popped off the thread's OpenSSL error
// queue before returning, so the application never finds our failures mixed with its own.
#include "platform/Crypto.h"

#include <climits>
#include <cstring>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

namespace {

// Stored keys are protected with PBKDF2-HMAC-SHA256. Measured on the development machine
// (2-core AMD EPYC, RSA-2048 key): 100000 iterations cost about 29 ms per conversion, 600000
// about 240 ms. A password change opens and re-protects two keys, so the higher count would
// hold the user for about a second each time; 100000 keeps it near a tenth of a second while
// the stored entry is, besides, behind the directory's access control.
constexpr int kPbkdf2Iterations = 100000;
constexpr int kSaltLen = 16;

// The most key-derivation iterations an input may ask for. A bundle or a stored key names its own
// count, and the work is done before the password can be found wrong, so without a bound one
// crafted input holds a thread for hours (2^31 iterations). OpenSSL writes 2048, other
// exporters up to a few hundred thousand, we 100000; 2000000 costs about 0.6 s here.
constexpr long kMaxIterations = 2000000;

// Room the encrypted form needs beyond the key itself: the PBES2 algorithm identifier (about
// 95 bytes with a 16-byte salt and IV), one block of CBC padding and two DER headers.
constexpr unsigned int kEncryptOverhead = 256;

// Our library contexts, created on first use and kept for the life of the process (freeing
// them at exit could race OpenSSL's own clean-up, or a caller still using us from a static
// destructor). The modern one holds only the default provider; the full one adds the legacy
// provider when its module is installed, for old bundles (RC2) and keys protected by older
// tools. Two contexts rather than a property query excluding the legacy provider: a query
// string attached to a bundle object is never released by OpenSSL 3.0 and would leak per call.
class Contexts {
  public:
    static OSSL_LIB_CTX* Modern() { return Get().modern_; }
    static OSSL_LIB_CTX* Full() { return Get().full_; }

  private:
    static Contexts const& Get() {
        static Contexts const instance;
        return instance;
    }

    Contexts() : modern_(Make(false)), full_(Make(true)) {}

    static OSSL_LIB_CTX* Make(bool legacy) {
        OSSL_LIB_CTX* ctx = OSSL_LIB_CTX_new();
        if (ctx == nullptr)
            return nullptr;
        if (OSSL_PROVIDER_load(ctx, "default") == nullptr) {
            OSSL_LIB_CTX_free(ctx);
            return nullptr;
        }
        // Without the module, old bundles simply do not open.
        if (legacy)
            OSSL_PROVIDER_load(ctx, "legacy");
        return ctx;
    }

    OSSL_LIB_CTX* modern_;
    OSSL_LIB_CTX* full_;
};

// Keeps the errors raised during one call off the caller's error queue.
class ErrorScope {
  public:
    ErrorScope() { ERR_set_mark(); }
    ~ErrorScope() { ERR_pop_to_mark(); }
    ErrorScope(ErrorScope const&) = delete;
    ErrorScope& operator=(ErrorScope const&) = delete;
};

// Owns a buffer that OpenSSL allocated, wiping it on release when it holds secrets.
class OsslBuffer {
  public:
    explicit OsslBuffer(bool secret) : secret_(secret) {}
    ~OsslBuffer() {
        if (secret_)
            OPENSSL_clear_free(data_, len_ > 0 ? static_cast<size_t>(len_) : 0);
        else
            OPENSSL_free(data_);
    }
    OsslBuffer(OsslBuffer const&) = delete;
    OsslBuffer& operator=(OsslBuffer const&) = delete;

    unsigned char** Out() { return &data_; }
    unsigned char const* Data() const { return data_; }
    int len_ = 0;

  private:
    unsigned char* data_ = nullptr;
    bool secret_;
};

// Parses an unencrypted PKCS#8 private key that must fill exactly len bytes and make a usable
// key in our context. Null when it does not.
PKCS8_PRIV_KEY_INFO* ParsePrivateKey(unsigned char const* der, long len, OSSL_LIB_CTX* ctx) {
    unsigned char const* p = der;
    PKCS8_PRIV_KEY_INFO* p8 = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, len);
    if (p8 == nullptr)
        return nullptr;
    EVP_PKEY* pkey = nullptr;
    if (p != der + len || (pkey = EVP_PKCS82PKEY_ex(p8, ctx, nullptr)) == nullptr) {
        PKCS8_PRIV_KEY_INFO_free(p8);
        return nullptr;
    }
    EVP_PKEY_free(pkey);
    return p8;
}

// Appends text to the subject buffer, keeping room for the final NUL.
bool Append(char* buf, size_t cap, size_t& used, char const* text, size_t len) {
    if (len >= cap - used)
        return false;
    std::memcpy(buf + used, text, len);
    used += len;
    buf[used] = '\0';
    return true;
}

}  // namespace

namespace {

bool IterationsWithinBound(ASN1_INTEGER const* iter) {
    // An absent count means one iteration.
    long n = iter == nullptr ? 1 : ASN1_INTEGER_get(iter);
    return n >= 1 && n <= kMaxIterations;
}

// Whether a password-based encryption algorithm asks for a bounded amount of work: PBES2 with
// PBKDF2, or a PKCS#5 v1 / PKCS#12 scheme. Other key derivations (scrypt among them) are refused.
bool PbeWithinBound(X509_ALGOR const* alg) {
    if (alg == nullptr) {
        return false;
    }
    ASN1_OBJECT const* oid = nullptr;
    int ptype = 0;
    void const* pval = nullptr;
    X509_ALGOR_get0(&oid, &ptype, &pval, alg);
    if (ptype != V_ASN1_SEQUENCE) {
        return false;
    }
    ASN1_TYPE const* param = alg->parameter;
    if (OBJ_obj2nid(oid) != NID_pbes2) {
        auto* pbe =
            static_cast<PBEPARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBEPARAM), param));
        bool ok = pbe != nullptr && IterationsWithinBound(pbe->iter);
        PBEPARAM_free(pbe);
        return ok;
    }
    auto* pbe2 =
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), param));
    bool ok = false;
    if (pbe2 != nullptr && pbe2->keyfunc != nullptr &&
        OBJ_obj2nid(pbe2->keyfunc->algorithm) == NID_id_pbkdf2) {
        auto* kdf = static_cast<PBKDF2PARAM*>(
            ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), pbe2->keyfunc->parameter));
        ok = kdf != nullptr && IterationsWithinBound(kdf->iter);
        PBKDF2PARAM_free(kdf);
    }
    PBE2PARAM_free(pbe2);
    return ok;
}

bool BagsWithinBound(STACK_OF(PKCS12_SAFEBAG) const* bags) {
    for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
        PKCS12_SAFEBAG const* bag = sk_PKCS12_SAFEBAG_value(bags, i);
        if (PKCS12_SAFEBAG_get_nid(bag) == NID_pkcs8ShroudedKeyBag) {
            X509_ALGOR const* alg = nullptr;
            X509_SIG_get0(PKCS12_SAFEBAG_get0_pkcs8(bag), &alg, nullptr);
            if (!PbeWithinBound(alg)) {
                return false;
            }
        }
    }
    return true;
}

// Checks every iteration count a bundle names before the parser spends them: the MAC's, each
// encrypted safe's, and each shrouded key's (those inside an encrypted safe are read by opening
// that safe, whose own count was checked first).
bool BundleWithinBound(PKCS12* p12, char const* psw) {
    ASN1_INTEGER const* macIter = nullptr;
    if (PKCS12_mac_present(p12)) {
        PKCS12_get0_mac(nullptr, nullptr, nullptr, &macIter, p12);
        if (!IterationsWithinBound(macIter)) {
            return false;
        }
    }
    STACK_OF(PKCS7)* safes = PKCS12_unpack_authsafes(p12);
    if (safes == nullptr) {
        return false;
    }
    bool ok = true;
    for (int i = 0; ok && i < sk_PKCS7_num(safes); ++i) {
        PKCS7* safe = sk_PKCS7_value(safes, i);
        STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
        int type = OBJ_obj2nid(safe->type);
        if (type == NID_pkcs7_data) {
            bags = PKCS12_unpack_p7data(safe);
        } else if (type == NID_pkcs7_encrypted) {
            ok = safe->d.encrypted != nullptr && safe->d.encrypted->enc_data != nullptr &&
                 PbeWithinBound(safe->d.encrypted->enc_data->algorithm);
            if (ok) {
                bags = PKCS12_unpack_p7encdata(safe, psw, static_cast<int>(std::strlen(psw)));
            }
        }
        // A safe that does not open is left to the parser, which refuses the bundle.
        if (ok && bags != nullptr) {
            ok = BagsWithinBound(bags);
        }
        sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
    }
    sk_PKCS7_pop_free(safes, PKCS7_free);
    return ok;
}

}  // namespace

bool GetKeyFromPfx(unsigned char const* pfx, int pfxLen, char const* psw, unsigned char* cert,
                   unsigned int& certLen, unsigned char* key, unsigned int& keyLen, bool legacy) {
    if (pfx == nullptr || pfxLen <= 0 || psw == nullptr)
        return false;
    bool const sizeQuery = cert == nullptr && key == nullptr;
    if (!sizeQuery && (cert == nullptr || key == nullptr))
        return false;
    OSSL_LIB_CTX* ctx = legacy ? Contexts::Full() : Contexts::Modern();
    if (ctx == nullptr)
        return false;
    ErrorScope errors;

    // The bundle object is made in our context first and then filled by the decoder, so the
    // MAC check and every decryption inside it fetch their algorithms from our context.
    PKCS12* p12 = PKCS12_init_ex(NID_pkcs7_data, ctx, nullptr);
    if (p12 == nullptr)
        return false;
    unsigned char const* p = pfx;
    if (d2i_PKCS12(&p12, &p, pfxLen) == nullptr) {
        PKCS12_free(p12);  // the decoder has already released it on failure; null is harmless
        return false;
    }

    EVP_PKEY* pkey = nullptr;
    X509* x509 = nullptr;
    STACK_OF(X509)* others = nullptr;
    bool ok = BundleWithinBound(p12, psw) && PKCS12_parse(p12, psw, &pkey, &x509, &others) == 1 &&
              pkey != nullptr && x509 != nullptr;
    PKCS12_free(p12);
    sk_X509_pop_free(others, X509_free);

    OsslBuffer keyDer(true);
    OsslBuffer certDer(false);
    if (ok) {
        PKCS8_PRIV_KEY_INFO* p8 = EVP_PKEY2PKCS8(pkey);
        ok = p8 != nullptr && (keyDer.len_ = i2d_PKCS8_PRIV_KEY_INFO(p8, keyDer.Out())) > 0 &&
             (certDer.len_ = i2d_X509(x509, certDer.Out())) > 0;
        PKCS8_PRIV_KEY_INFO_free(p8);
    }
    EVP_PKEY_free(pkey);
    X509_free(x509);
    if (!ok)
        return false;

    auto const certNeed = static_cast<unsigned int>(certDer.len_);
    auto const keyNeed = static_cast<unsigned int>(keyDer.len_);
    if (sizeQuery) {
        certLen = certNeed;
        keyLen = keyNeed;
        return true;
    }
    if (certLen < certNeed || keyLen < keyNeed)
        return false;
    std::memcpy(cert, certDer.Data(), certNeed);
    std::memcpy(key, keyDer.Data(), keyNeed);
    certLen = certNeed;
    keyLen = keyNeed;
    return true;
}

bool GetCertInfo(unsigned char const* cert, int certLen, tagCERT& info) {
    std::memset(&info, 0, sizeof info);
    if (cert == nullptr || certLen <= 0)
        return false;
    OSSL_LIB_CTX* ctx = Contexts::Full();
    if (ctx == nullptr)
        return false;
    ErrorScope errors;

    X509* x509 = X509_new_ex(ctx, nullptr);
    if (x509 == nullptr)
        return false;
    unsigned char const* p = cert;
    if (d2i_X509(&x509, &p, certLen) == nullptr) {
        X509_free(x509);  // null after a failed decode
        return false;
    }

    char* const out = info.subject;
    size_t const cap = sizeof info.subject;
    size_t used = 0;
    bool ok = true;
    X509_NAME const* name = X509_get_subject_name(x509);
    int const count = X509_NAME_entry_count(name);
    for (int i = 0; ok && i < count; ++i) {
        X509_NAME_ENTRY const* entry = X509_NAME_get_entry(name, i);
        ASN1_OBJECT const* obj = X509_NAME_ENTRY_get_object(entry);
        char oid[128];
        char const* type = nullptr;
        int const nid = OBJ_obj2nid(obj);
        if (nid != NID_undef)
            type = OBJ_nid2sn(nid);
        if (type == nullptr) {
            int const n = OBJ_obj2txt(oid, sizeof oid, obj, 1);
            if (n <= 0 || static_cast<size_t>(n) >= sizeof oid) {
                ok = false;
                break;
            }
            type = oid;
        }
        unsigned char* value = nullptr;
        int const valueLen = ASN1_STRING_to_UTF8(&value, X509_NAME_ENTRY_get_data(entry));
        // A value with a NUL inside would read as something else; such a subject is refused.
        ok = valueLen >= 0 && std::memchr(value, '\0', static_cast<size_t>(valueLen)) == nullptr &&
             (i == 0 || Append(out, cap, used, "\n", 1)) &&
             Append(out, cap, used, type, std::strlen(type)) && Append(out, cap, used, "=", 1) &&
             Append(out, cap, used, reinterpret_cast<char const*>(value),
                    static_cast<size_t>(valueLen));
        OPENSSL_free(value);
    }
    X509_free(x509);
    if (!ok)
        std::memset(&info, 0, sizeof info);
    return ok;
}

bool Convert2Key(unsigned char const* key, unsigned int keyLen, char const* psw, unsigned char* out,
                 unsigned int& outLen) {
    if (key == nullptr || keyLen == 0 || keyLen > INT_MAX - kEncryptOverhead || psw == nullptr)
        return false;
    size_t const pswLen = std::strlen(psw);
    if (pswLen > INT_MAX)
        return false;
    OSSL_LIB_CTX* ctx = Contexts::Full();
    if (ctx == nullptr)
        return false;
    ErrorScope errors;

    PKCS8_PRIV_KEY_INFO* p8 = ParsePrivateKey(key, static_cast<long>(keyLen), ctx);
    if (p8 == nullptr)
        return false;
    if (out == nullptr) {
        PKCS8_PRIV_KEY_INFO_free(p8);
        outLen = keyLen + kEncryptOverhead;
        return true;
    }

    // Fresh random salt and IV for every conversion, so equal keys under equal passwords never
    // store alike.
    X509_SIG* sig = nullptr;
    EVP_CIPHER* cipher = EVP_CIPHER_fetch(ctx, "AES-256-CBC", nullptr);
    X509_ALGOR* pbe = cipher == nullptr
                          ? nullptr
                          : PKCS5_pbe2_set_iv_ex(cipher, kPbkdf2Iterations, nullptr, kSaltLen,
                                                 nullptr, NID_hmacWithSHA256, ctx);
    if (pbe != nullptr) {
        sig = PKCS8_set0_pbe_ex(psw, static_cast<int>(pswLen), p8, pbe, ctx, nullptr);
        if (sig == nullptr)
            X509_ALGOR_free(pbe);  // only taken over on success
    }
    EVP_CIPHER_free(cipher);
    PKCS8_PRIV_KEY_INFO_free(p8);
    if (sig == nullptr)
        return false;

    int const need = i2d_X509_SIG(sig, nullptr);
    bool ok = need > 0 && static_cast<unsigned int>(need) <= outLen;
    if (ok) {
        unsigned char* q = out;
        ok = i2d_X509_SIG(sig, &q) == need;
        if (ok)
            outLen = static_cast<unsigned int>(need);
    }
    X509_SIG_free(sig);
    return ok;
}

unsigned char DecryptKey(unsigned char* data, unsigned int& len, char const* psw) {
    if (data == nullptr || len == 0 || len > INT_MAX || psw == nullptr)
        return 1;
    size_t const pswLen = std::strlen(psw);
    if (pswLen > INT_MAX)
        return 1;
    OSSL_LIB_CTX* ctx = Contexts::Full();
    if (ctx == nullptr)
        return 1;
    ErrorScope errors;

    unsigned char const* p = data;
    X509_SIG* sig = d2i_X509_SIG(nullptr, &p, static_cast<long>(len));
    if (sig == nullptr)
        return 1;
    X509_ALGOR const* alg = nullptr;
    X509_SIG_get0(sig, &alg, nullptr);
    bool const whole = p == data + len && PbeWithinBound(alg);
    // CBC padding alone lets a wrong password through now and then; the plaintext must then
    // still parse as a private key structure, which garbage does not.
    PKCS8_PRIV_KEY_INFO* p8 =
        whole ? PKCS8_decrypt_ex(sig, psw, static_cast<int>(pswLen), ctx, nullptr) : nullptr;
    X509_SIG_free(sig);
    if (p8 == nullptr)
        return 1;

    OsslBuffer plain(true);
    plain.len_ = i2d_PKCS8_PRIV_KEY_INFO(p8, plain.Out());
    PKCS8_PRIV_KEY_INFO_free(p8);
    if (plain.len_ <= 0 || static_cast<unsigned int>(plain.len_) > len)
        return 1;
    std::memcpy(data, plain.Data(), static_cast<size_t>(plain.len_));
    len = static_cast<unsigned int>(plain.len_);
    return 0;
}
