// Key and certificate handling over OpenSSL 3.
//
// Everything here runs in a library context of our own, so that whatever the application does
// with OpenSSL (its own providers, default properties, a FIPS-only default context) neither
// affects us nor is affected by us. Errors we raise are popped off the thread's OpenSSL error
// queue before returning, so the application never finds our failures mixed with its own.
#include "platform/Crypto.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include "platform/OsslPtr.h"
#include "platform/WipedBuffer.h"

namespace {

// Stored keys are protected with PBKDF2-HMAC-SHA256. Measured on the development machine
// (2-core AMD EPYC, RSA-2048 key): 100000 iterations cost about 29 ms per conversion, 600000
// about 240 ms. A password change opens and re-protects two keys, so the higher count would
// hold the user for about a second each time; 100000 keeps it near a tenth of a second while
// the stored entry is, besides, behind the directory's access control.
constexpr int kPbkdf2Iterations = 100000;
constexpr int kSaltLen = 16;

// The most key-derivation iterations one piece of input may ask for. A bundle or a stored key
// names its own count, and the work is done before the password can be found wrong, so without
// a bound one crafted input holds a thread for hours (2^31 iterations). OpenSSL writes 2048,
// other exporters up to a few hundred thousand, we 100000; 2000000 costs about 0.6 s here.
constexpr long kMaxIterations = 2000000;

// A bundle is bounded as a whole besides (kMaxPfxIterations in Crypto.h): a bundle repeats its
// safes at will, and 64 copies of one safe at a bounded count held a thread for minutes. The
// sum of the counts of every derivation opening it runs (the MAC's, counted twice under an
// empty password, which is tried as no password and then as ""; every encrypted safe's; the
// shrouded key's) must stay within 500000. Exporters' defaults need a fraction of it: openssl
// pkcs12 -export, with or without -legacy, 2048 each for the MAC, the certificate safe and the
// key, 6144 in all; Windows 2000 or 10000 each; Java keytool 10000 each, 30000 (40000 under an
// empty password). Measured here, the budget costs about 0.18 s spent on PBKDF2-HMAC-SHA256
// (0.35 us an iteration) and 0.37 s on the costliest derivations a bundle can name (about
// 0.7 us an iteration: PBKDF2-HMAC-SHA1 drawing a 32-byte key, PBKDF2-HMAC-SHA512), so no
// bundle holds a thread longer. The counts are summed before the work they stand for: the
// MAC's and the safes' before any derivation, a shrouded key's once its safe is open.
static_assert(kMaxPfxIterations <= kMaxIterations, "a bundle's budget bounds each piece too");

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
        LibCtxPtr ctx(OSSL_LIB_CTX_new());
        if (ctx == nullptr || OSSL_PROVIDER_load(ctx.get(), "default") == nullptr)
            return nullptr;
        // Without the module, old bundles simply do not open.
        if (legacy)
            OSSL_PROVIDER_load(ctx.get(), "legacy");
        return ctx.release();  // kept for good, see above
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
OsslBytesPtr EncodeCertificate(X509 const* x509, int& len) {
    unsigned char* der = nullptr;
    len = i2d_X509(x509, &der);
    return OsslBytesPtr(der);
}

// A private key's DER encoding in a wiped buffer of our own, so that the key in the clear is
// never left in memory nobody wipes. Empty when the encoding fails.
WipedBuffer EncodePrivateKey(PKCS8_PRIV_KEY_INFO const* p8) {
    int const need = i2d_PKCS8_PRIV_KEY_INFO(p8, nullptr);
    if (need <= 0)
        return WipedBuffer();
    WipedBuffer der(static_cast<size_t>(need));
    unsigned char* q = der.Data();
    int const len = i2d_PKCS8_PRIV_KEY_INFO(p8, &q);
    if (len <= 0 || len > need)
        return WipedBuffer();
    der.Shrink(static_cast<size_t>(len));
    return der;
}

// Parses an unencrypted PKCS#8 private key that must fill exactly len bytes and make a usable
// key in our context. Null when it does not.
Pkcs8Ptr ParsePrivateKey(unsigned char const* der, long len, OSSL_LIB_CTX* ctx) {
    unsigned char const* p = der;
    Pkcs8Ptr p8(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, len));
    if (p8 == nullptr || p != der + len ||
        EvpPkeyPtr(EVP_PKCS82PKEY_ex(p8.get(), ctx, nullptr)) == nullptr)
        return nullptr;
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

// The iteration count an input names, or -1 when it is out of our bound. An absent count means
// one iteration.
long Iterations(ASN1_INTEGER const* iter) {
    long const n = iter == nullptr ? 1 : ASN1_INTEGER_get(iter);
    return n >= 1 && n <= kMaxIterations ? n : -1;
}

// The PKCS#5 v1 and PKCS#12 password-based schemes: one key derivation with the count of their
// PBEParameter.
bool IsPbes1(int nid) {
    switch (nid) {
        case NID_pbeWithMD2AndDES_CBC:
        case NID_pbeWithMD5AndDES_CBC:
        case NID_pbeWithMD2AndRC2_CBC:
        case NID_pbeWithMD5AndRC2_CBC:
        case NID_pbeWithSHA1AndDES_CBC:
        case NID_pbeWithSHA1AndRC2_CBC:
        case NID_pbe_WithSHA1And128BitRC4:
        case NID_pbe_WithSHA1And40BitRC4:
        case NID_pbe_WithSHA1And3_Key_TripleDES_CBC:
        case NID_pbe_WithSHA1And2_Key_TripleDES_CBC:
        case NID_pbe_WithSHA1And128BitRC2_CBC:
        case NID_pbe_WithSHA1And40BitRC2_CBC:
            return true;
        default:
            return false;
    }
}

// The iteration count of a password-based encryption algorithm, or -1 when it is not one we
// accept: PBES2 with PBKDF2, or a PKCS#5 v1 / PKCS#12 scheme, with a count
// within our bound. Other key derivations (scrypt among them) are refused.
long PbeIterations(X509_ALGOR const* alg) {
    if (alg == nullptr)
        return -1;
    ASN1_OBJECT const* oid = nullptr;
    int ptype = 0;
    void const* pval = nullptr;
    X509_ALGOR_get0(&oid, &ptype, &pval, alg);
    if (ptype != V_ASN1_SEQUENCE)
        return -1;
    ASN1_TYPE const* param = alg->parameter;
    int const nid = OBJ_obj2nid(oid);
    if (IsPbes1(nid)) {
        PbeParamPtr const pbe(
            static_cast<PBEPARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBEPARAM), param)));
        return pbe != nullptr ? Iterations(pbe->iter) : -1;
    }
    if (nid != NID_pbes2)
        return -1;
    Pbe2ParamPtr const pbe2(
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), param)));
    if (pbe2 == nullptr || pbe2->keyfunc == nullptr ||
        OBJ_obj2nid(pbe2->keyfunc->algorithm) != NID_id_pbkdf2)
        return -1;
    Pbkdf2ParamPtr const kdf(static_cast<PBKDF2PARAM*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), pbe2->keyfunc->parameter)));
    return kdf != nullptr ? Iterations(kdf->iter) : -1;
}

// How much of a bundle is looked at. Exporters write two safes (certificates, key) of a few
// bags each, one bag per certificate of the chain; other bundles hold more keys or a longer
// chain, but nothing near these. Safes inside safes (safeContents bags) go one or two deep in
// the rare bundles that have them.
constexpr int kMaxPfxSafes = 16;
constexpr int kMaxPfxBags = 256;
constexpr int kMaxPfxNesting = 3;

// One pass over a bundle: the MAC checked, each safe opened once, the first private key taken
// and every X.509 certificate kept, as the key's certificate is picked among them at the end.
// Every key derivation is charged to the budget before it runs.
class BundleWalk {
  public:
    explicit BundleWalk(OSSL_LIB_CTX* ctx) : ctx_(ctx), certs_(sk_X509_new_null()) {}
    BundleWalk(BundleWalk const&) = delete;
    BundleWalk& operator=(BundleWalk const&) = delete;

    // Walks the bundle; true when it opened with a private key. Fault() says why not.
    bool Open(PKCS12* p12, char const* psw, int pswLen) {
        Pkcs7StackPtr const safes(certs_ != nullptr ? PKCS12_unpack_authsafes(p12) : nullptr);
        if (safes == nullptr || !Walk(p12, safes.get(), psw, pswLen)) {
            return false;
        }
        if (key_ == nullptr) {
            fault_ = BundleFault::kNoKey;
            return false;
        }
        return true;
    }

    // Why the walk, or the search of the key's certificate, failed.
    BundleFault Fault() const { return fault_; }
    BundleFault CertificateFault() const {
        return sk_X509_num(certs_.get()) == 0 ? BundleFault::kNoCertificate
                                              : BundleFault::kKeyMismatch;
    }

    // The first certificate that holds the key's public half, as PKCS12_parse picks it; null
    // when none does.
    X509* Certificate() const {
        for (int i = 0; i < sk_X509_num(certs_.get()); ++i) {
            X509* x509 = sk_X509_value(certs_.get(), i);
            if (X509_check_private_key(x509, key_.get()) == 1)
                return x509;
        }
        return nullptr;
    }

    EVP_PKEY* Key() const { return key_.get(); }

  private:
    bool Spend(long iterations) {
        if (iterations < 0 || iterations > left_)
            return Failed(BundleFault::kOverBound);
        left_ -= iterations;
        return true;
    }

    bool Walk(PKCS12* p12, STACK_OF(PKCS7) * safes, char const* psw, int pswLen) {
        int const count = sk_PKCS7_num(safes);
        if (count > kMaxPfxSafes)
            return Failed(BundleFault::kOverBound);
        // The counts known before anything is derived: the MAC's and every encrypted safe's.
        bool const mac = PKCS12_mac_present(p12) == 1;
        bool const empty = pswLen == 0;
        if (mac) {
            ASN1_INTEGER const* iter = nullptr;
            PKCS12_get0_mac(nullptr, nullptr, nullptr, &iter, p12);
            long const once = Iterations(iter);
            if (!Spend(once) || (empty && !Spend(once)))
                return false;
        }
        for (int i = 0; i < count; ++i) {
            PKCS7 const* safe = sk_PKCS7_value(safes, i);
            if (OBJ_obj2nid(safe->type) == NID_pkcs7_encrypted &&
                (safe->d.encrypted == nullptr || safe->d.encrypted->enc_data == nullptr ||
                 !Spend(PbeIterations(safe->d.encrypted->enc_data->algorithm))))
                return false;
        }

        // The MAC as PKCS12_parse checks it: an empty password is tried as no password, then
        // as "", and a bundle without a MAC opens under an empty password only.
        if (empty) {
            if (!mac || PKCS12_verify_mac(p12, nullptr, 0) == 1)
                pass_ = nullptr;
            else if (PKCS12_verify_mac(p12, "", 0) == 1)
                pass_ = "";
            else
                return Failed(BundleFault::kPassword);
        } else {
            if (PKCS12_verify_mac(p12, psw, pswLen) != 1)
                return Failed(BundleFault::kPassword);
            pass_ = psw;
            passLen_ = pswLen;
        }

        for (int i = 0; i < count; ++i) {
            PKCS7* safe = sk_PKCS7_value(safes, i);
            SafeBagStackPtr bags;
            int const type = OBJ_obj2nid(safe->type);
            if (type == NID_pkcs7_data)
                bags.reset(PKCS12_unpack_p7data(safe));
            else if (type == NID_pkcs7_encrypted)
                bags.reset(PKCS12_unpack_p7encdata(safe, pass_, passLen_));
            else
                continue;  // other content types carry nothing for us
            // An encrypted safe that does not open under the password the MAC took (a bundle
            // without a MAC) is a wrong password too.
            if (bags == nullptr)
                return Failed(type == NID_pkcs7_encrypted ? BundleFault::kPassword
                                                          : BundleFault::kNotBundle);
            if (!Bags(bags.get(), 0))
                return false;
        }
        return true;
    }

    bool Bags(STACK_OF(PKCS12_SAFEBAG) const* bags, int depth) {
        for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
            if (++bagCount_ > kMaxPfxBags)
                return Failed(BundleFault::kOverBound);
            if (!Bag(sk_PKCS12_SAFEBAG_value(bags, i), depth))
                return false;
        }
        return true;
    }

    bool Bag(PKCS12_SAFEBAG const* bag, int depth) {
        switch (PKCS12_SAFEBAG_get_nid(bag)) {
            case NID_keyBag:
                if (key_ != nullptr)
                    return true;  // the first key is the one
                key_.reset(EVP_PKCS82PKEY_ex(PKCS12_SAFEBAG_get0_p8inf(bag), ctx_, nullptr));
                return key_ != nullptr;
            case NID_pkcs8ShroudedKeyBag: {
                if (key_ != nullptr)
                    return true;
                X509_SIG const* sig = PKCS12_SAFEBAG_get0_pkcs8(bag);
                X509_ALGOR const* alg = nullptr;
                if (sig != nullptr)
                    X509_SIG_get0(sig, &alg, nullptr);
                if (!Spend(PbeIterations(alg)))
                    return false;
                Pkcs8Ptr const p8(PKCS12_decrypt_skey_ex(bag, pass_, passLen_, ctx_, nullptr));
                if (p8 == nullptr)
                    return Failed(BundleFault::kPassword);
                key_.reset(EVP_PKCS82PKEY_ex(p8.get(), ctx_, nullptr));
                return key_ != nullptr;
            }
            case NID_certBag:
                return PKCS12_SAFEBAG_get_bag_nid(bag) != NID_x509Certificate ||
                       KeepCertificate(bag);
            case NID_safeContentsBag:
                if (depth + 1 >= kMaxPfxNesting)
                    return Failed(BundleFault::kOverBound);
                return Bags(PKCS12_SAFEBAG_get0_safes(bag), depth + 1);
            default:
                return true;  // CRLs, secrets and the like are not ours to read
        }
    }

    // The bag's certificate, decoded again in our context so that its public key is read with
    // our providers when it is matched against the private key.
    bool KeepCertificate(PKCS12_SAFEBAG const* bag) {
        X509Ptr const loose(PKCS12_SAFEBAG_get1_cert(bag));
        if (loose == nullptr)
            return false;
        int len = 0;
        OsslBytesPtr const der = EncodeCertificate(loose.get(), len);
        if (len <= 0)
            return false;
        X509Ptr x509(X509_new_ex(ctx_, nullptr));
        if (x509 == nullptr)
            return false;
        unsigned char const* p = der.get();
        if (!DecodeInto(x509, [&](X509** object) { return d2i_X509(object, &p, len); }))
            return false;
        if (sk_X509_push(certs_.get(), x509.get()) <= 0)
            return false;
        x509.release();  // the stack holds it now
        return true;
    }

    bool Failed(BundleFault fault) {
        fault_ = fault;
        return false;
    }

    OSSL_LIB_CTX* ctx_;
    X509StackPtr const certs_;
    EvpPkeyPtr key_;
    BundleFault fault_ = BundleFault::kNotBundle;
    char const* pass_ = nullptr;
    int passLen_ = 0;
    long left_ = kMaxPfxIterations;
    int bagCount_ = 0;
};

// What a bundle opened to: the certificate and the private key (unencrypted PKCS#8), as DER.
// The key is wiped whenever it goes.
struct OpenedBundle {
    std::vector<unsigned char> cert;
    WipedBuffer key;

    OpenedBundle() = default;
    OpenedBundle(OpenedBundle const&) = delete;
    OpenedBundle& operator=(OpenedBundle const&) = delete;

    void Wipe() {
        key.Reset();
        cert.clear();
    }
};

BundleFault& LastFault() {
    thread_local BundleFault fault = BundleFault::kNone;
    return fault;
}

// Decodes and opens a bundle in one pass; false when it does not open or is over our limits,
// with the reason in LastFault().
bool OpenBundle(unsigned char const* pfx, int pfxLen, char const* psw, int pswLen,
                OSSL_LIB_CTX* ctx, OpenedBundle& out) {
    LastFault() = BundleFault::kNotBundle;
    // The bundle object is made in our context first and then filled by the decoder, so the
    // MAC check and every decryption inside it fetch their algorithms from our context.
    Pkcs12Ptr p12(PKCS12_init_ex(NID_pkcs7_data, ctx, nullptr));
    if (p12 == nullptr)
        return false;
    unsigned char const* p = pfx;
    if (!DecodeInto(p12, [&](PKCS12** object) { return d2i_PKCS12(object, &p, pfxLen); }))
        return false;
    BundleWalk walk(ctx);
    bool const opened = walk.Open(p12.get(), psw, pswLen);
    p12.reset();
    if (!opened) {
        LastFault() = walk.Fault();
        return false;
    }
    X509* const x509 = walk.Certificate();
    if (x509 == nullptr) {
        LastFault() = walk.CertificateFault();
        return false;
    }
    LastFault() = BundleFault::kNotBundle;  // what may still fail is the encoding

    Pkcs8Ptr const p8(EVP_PKEY2PKCS8(walk.Key()));
    if (p8 == nullptr)
        return false;
    WipedBuffer keyDer = EncodePrivateKey(p8.get());
    if (keyDer.Size() == 0)
        return false;
    int certLen = 0;
    OsslBytesPtr const certDer = EncodeCertificate(x509, certLen);
    if (certLen <= 0)
        return false;
    out.Wipe();
    out.cert.assign(certDer.get(), certDer.get() + certLen);
    out.key = std::move(keyDer);
    LastFault() = BundleFault::kNone;
    return true;
}

// Names one opening of a bundle: a SHA-256 digest of everything the result depends on (the
// bundle's bytes, the password, the legacy flag), each field preceded by its length so that no
// two inputs run together alike. Wiped when it goes, as it is a fast check of the password.
struct BundleId {
    unsigned char bytes[SHA256_DIGEST_LENGTH] = {};
    bool valid = false;

    BundleId() = default;
    ~BundleId() { OPENSSL_cleanse(bytes, sizeof bytes); }
    BundleId(BundleId const&) = delete;
    BundleId& operator=(BundleId const&) = delete;

    void Compute(OSSL_LIB_CTX* ctx, unsigned char const* pfx, int pfxLen, char const* psw,
                 size_t pswLen, bool legacy) {
        EvpMdPtr const md(EVP_MD_fetch(ctx, "SHA2-256", nullptr));
        EvpMdCtxPtr const mdCtx(md != nullptr ? EVP_MD_CTX_new() : nullptr);
        auto const field = [&mdCtx](void const* data, size_t len) {
            unsigned char prefix[8];
            for (int i = 0; i < 8; ++i)
                prefix[i] = static_cast<unsigned char>(static_cast<uint64_t>(len) >> (56 - 8 * i));
            return EVP_DigestUpdate(mdCtx.get(), prefix, sizeof prefix) == 1 &&
                   EVP_DigestUpdate(mdCtx.get(), data, len) == 1;
        };
        unsigned char const flag = legacy ? 1 : 0;
        unsigned int len = 0;
        valid = mdCtx != nullptr && EVP_DigestInit_ex2(mdCtx.get(), md.get(), nullptr) == 1 &&
                field(pfx, static_cast<size_t>(pfxLen)) && field(psw, pswLen) && field(&flag, 1) &&
                EVP_DigestFinal_ex(mdCtx.get(), bytes, &len) == 1 && len == sizeof bytes;
    }
};

// The bundle this thread's last size query opened, kept for the fill call that follows it, so
// that a publication decodes and decrypts its bundle once. The private key in it is wiped
// whenever the slot is emptied, and at the thread's end.
class OpenedSlot {
  public:
    OpenedSlot() = default;
    ~OpenedSlot() { Clear(); }
    OpenedSlot(OpenedSlot const&) = delete;
    OpenedSlot& operator=(OpenedSlot const&) = delete;

    void Clear() {
        bundle_.Wipe();
        OPENSSL_cleanse(id_, sizeof id_);
        full_ = false;
    }

    bool Holds(BundleId const& id) const {
        return full_ && id.valid && CRYPTO_memcmp(id_, id.bytes, sizeof id_) == 0;
    }

    // Takes over what bundle holds.
    void Keep(BundleId const& id, OpenedBundle& bundle) {
        Clear();
        std::memcpy(id_, id.bytes, sizeof id_);
        bundle_.cert.swap(bundle.cert);
        bundle_.key = std::move(bundle.key);
        full_ = id.valid;
    }

    OpenedBundle const& Bundle() const { return bundle_; }

  private:
    OpenedBundle bundle_;
    unsigned char id_[SHA256_DIGEST_LENGTH] = {};
    bool full_ = false;
};

OpenedSlot& Slot() {
    thread_local OpenedSlot slot;
    return slot;
}

}  // namespace

bool GetKeyFromPfx(unsigned char const* pfx, int pfxLen, char const* psw, unsigned char* cert,
                   unsigned int& certLen, unsigned char* key, unsigned int& keyLen, bool legacy) {
    LastFault() = pfxLen > kMaxPfxBytes ? BundleFault::kOverBound : BundleFault::kNotBundle;
    if (pfx == nullptr || pfxLen <= 0 || pfxLen > kMaxPfxBytes || psw == nullptr)
        return false;
    bool const sizeQuery = cert == nullptr && key == nullptr;
    if (!sizeQuery && (cert == nullptr || key == nullptr))
        return false;
    size_t const pswLen = std::strlen(psw);
    if (pswLen > INT_MAX)
        return false;
    OSSL_LIB_CTX* ctx = legacy ? Contexts::Full() : Contexts::Modern();
    if (ctx == nullptr)
        return false;
    ErrorScope errors;

    // Without a digest (none to fetch) every call opens the bundle itself.
    OpenedSlot& slot = Slot();
    BundleId id;
    id.Compute(ctx, pfx, pfxLen, psw, pswLen, legacy);
    OpenedBundle fresh;
    if (!slot.Holds(id)) {
        slot.Clear();
        if (!OpenBundle(pfx, pfxLen, psw, static_cast<int>(pswLen), ctx, fresh))
            return false;
        if (sizeQuery && id.valid)
            slot.Keep(id, fresh);
    }
    OpenedBundle const& opened = slot.Holds(id) ? slot.Bundle() : fresh;
    LastFault() = BundleFault::kNone;

    auto const certNeed = static_cast<unsigned int>(opened.cert.size());
    auto const keyNeed = static_cast<unsigned int>(opened.key.Size());
    if (sizeQuery) {
        certLen = certNeed;
        keyLen = keyNeed;
        return true;
    }
    bool const fits = certLen >= certNeed && keyLen >= keyNeed;
    if (fits) {
        std::memcpy(cert, opened.cert.data(), certNeed);
        std::memcpy(key, opened.key.Data(), keyNeed);
        certLen = certNeed;
        keyLen = keyNeed;
    }
    // The fill call ends the slot's use, whatever its outcome.
    slot.Clear();
    return fits;
}

void ForgetOpenedBundle() {
    Slot().Clear();
}

BundleFault LastBundleFault() {
    return LastFault();
}

bool IsProtectedKey(unsigned char const* der, unsigned int len) {
    if (der == nullptr || len == 0 || len > INT_MAX)
        return false;
    ErrorScope errors;
    unsigned char const* p = der;
    X509SigPtr const sig(d2i_X509_SIG(nullptr, &p, static_cast<long>(len)));
    if (sig == nullptr)
        return false;
    X509_ALGOR const* alg = nullptr;
    ASN1_OCTET_STRING const* encrypted = nullptr;
    X509_SIG_get0(sig.get(), &alg, &encrypted);
    return p == der + len && PbeIterations(alg) > 0 && encrypted != nullptr &&
           ASN1_STRING_length(encrypted) > 0;
}

bool GetCertInfo(unsigned char const* cert, int certLen, tagCERT& info) {
    std::memset(&info, 0, sizeof info);
    if (cert == nullptr || certLen <= 0)
        return false;
    OSSL_LIB_CTX* ctx = Contexts::Full();
    if (ctx == nullptr)
        return false;
    ErrorScope errors;

    X509Ptr x509(X509_new_ex(ctx, nullptr));
    if (x509 == nullptr)
        return false;
    unsigned char const* p = cert;
    if (!DecodeInto(x509, [&](X509** object) { return d2i_X509(object, &p, certLen); }))
        return false;

    char* const out = info.subject;
    size_t const cap = sizeof info.subject;
    size_t used = 0;
    bool ok = true;
    X509_NAME const* name = X509_get_subject_name(x509.get());
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
        unsigned char* utf8 = nullptr;
        int const valueLen = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(entry));
        OsslBytesPtr const value(utf8);
        // The subject is read as lines of "type=value": a value holding a line feed would add
        // lines of its own choosing (and so name another user's entry), a carriage return or
        // a tab would end up inside a name, a NUL would cut the value short. A subject with
        // any control character in any value is refused.
        ok = valueLen >= 0 &&
             std::none_of(value.get(), value.get() + valueLen,
                          [](unsigned char c) { return c < 0x20 || c == 0x7F; }) &&
             (i == 0 || Append(out, cap, used, "\n", 1)) &&
             Append(out, cap, used, type, std::strlen(type)) && Append(out, cap, used, "=", 1) &&
             Append(out, cap, used, reinterpret_cast<char const*>(value.get()),
                    static_cast<size_t>(valueLen));
    }
    if (!ok)
        std::memset(&info, 0, sizeof info);
    return ok;
}

bool IsWeakKey(unsigned char const* key, unsigned int keyLen) {
    if (key == nullptr || keyLen == 0 || keyLen > INT_MAX)
        return true;
    OSSL_LIB_CTX* ctx = Contexts::Full();
    if (ctx == nullptr)
        return true;
    ErrorScope errors;
    unsigned char const* p = key;
    Pkcs8Ptr const p8(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(keyLen)));
    EvpPkeyPtr const pkey(p8 == nullptr ? nullptr : EVP_PKCS82PKEY_ex(p8.get(), ctx, nullptr));
    if (pkey == nullptr)
        return true;
    // 112 bits: RSA and DSA of 2048 bits, curves of 224 bits. A curve given by explicit
    // parameters rather than by name is refused whatever its size: its parameters could be
    // anything, and named curves are all any CA issues.
    if (EVP_PKEY_get_security_bits(pkey.get()) < 112)
        return true;
    if (EVP_PKEY_is_a(pkey.get(), "EC")) {
        char encoding[32] = {0};
        if (!EVP_PKEY_get_utf8_string_param(pkey.get(), OSSL_PKEY_PARAM_EC_ENCODING, encoding,
                                            sizeof encoding, nullptr) ||
            std::strcmp(encoding, OSSL_PKEY_EC_ENCODING_GROUP) != 0)
            return true;
    }
    return false;
}

bool Convert2Key(unsigned char const* key, unsigned int keyLen, char const* psw, unsigned char* out,
                 unsigned int& outLen) {
    if (key == nullptr || keyLen == 0 || keyLen > INT_MAX - kEncryptOverhead || psw == nullptr)
        return false;
    // An empty password protects nothing: whoever reads the entry would open the key.
    size_t const pswLen = std::strlen(psw);
    if (pswLen == 0 || pswLen > INT_MAX)
        return false;
    OSSL_LIB_CTX* ctx = Contexts::Full();
    if (ctx == nullptr)
        return false;
    ErrorScope errors;

    Pkcs8Ptr const p8 = ParsePrivateKey(key, static_cast<long>(keyLen), ctx);
    if (p8 == nullptr)
        return false;
    if (out == nullptr) {
        outLen = keyLen + kEncryptOverhead;
        return true;
    }

    // Fresh random salt and IV for every conversion, so equal keys under equal passwords never
    // store alike.
    EvpCipherPtr const cipher(EVP_CIPHER_fetch(ctx, "AES-256-CBC", nullptr));
    if (cipher == nullptr)
        return false;
    X509AlgorPtr pbe(PKCS5_pbe2_set_iv_ex(cipher.get(), kPbkdf2Iterations, nullptr, kSaltLen,
                                          nullptr, NID_hmacWithSHA256, ctx));
    if (pbe == nullptr)
        return false;
    X509SigPtr const sig(
        PKCS8_set0_pbe_ex(psw, static_cast<int>(pswLen), p8.get(), pbe.get(), ctx, nullptr));
    if (sig == nullptr)
        return false;
    pbe.release();  // taken over by sig, which it now describes; only on success

    int const need = i2d_X509_SIG(sig.get(), nullptr);
    if (need <= 0 || static_cast<unsigned int>(need) > outLen)
        return false;
    unsigned char* q = out;
    if (i2d_X509_SIG(sig.get(), &q) != need)
        return false;
    outLen = static_cast<unsigned int>(need);
    return true;
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
    X509SigPtr const sig(d2i_X509_SIG(nullptr, &p, static_cast<long>(len)));
    if (sig == nullptr)
        return 1;
    X509_ALGOR const* alg = nullptr;
    X509_SIG_get0(sig.get(), &alg, nullptr);
    if (p != data + len || PbeIterations(alg) <= 0)
        return 1;
    // CBC padding alone lets a wrong password through now and then, and a damaged IV garbles
    // only the first block; the plaintext must then still make a usable private key, which
    // garbage does not. So a key that opens here can always be protected again.
    Pkcs8Ptr const p8(PKCS8_decrypt_ex(sig.get(), psw, static_cast<int>(pswLen), ctx, nullptr));
    if (p8 == nullptr || EvpPkeyPtr(EVP_PKCS82PKEY_ex(p8.get(), ctx, nullptr)) == nullptr)
        return 1;

    WipedBuffer const plain = EncodePrivateKey(p8.get());
    if (plain.Size() == 0 || plain.Size() > len)
        return 1;
    std::memcpy(data, plain.Data(), plain.Size());
    len = static_cast<unsigned int>(plain.Size());
    return 0;
}
