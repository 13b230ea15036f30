// Opening PKCS#12 bundles; see platform/Pkcs12Bundle.h.
//
// One pass over the bundle does everything: the MAC checked, each safe decrypted once, the key
// and the certificates taken from its bags, each key derivation charged to the bundle's budget
// before it runs. GetKeyFromPfx's two calls share that pass through a slot of the calling thread.
#include "platform/Pkcs12Bundle.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pkcs12.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include "platform/CryptoContext.h"
#include "platform/OsslPtr.h"

namespace {

using qor::DecodeInto;
using qor::EncodeCertificate;
using qor::EncodePrivateKey;
using qor::Iterations;
using qor::kMaxPfxBags;
using qor::kMaxPfxNesting;
using qor::kMaxPfxSafes;
using qor::PbeIterations;

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

// The checks every opening makes before any work: the call's arguments and the bundle's size.
// The context the bundle opens in, with pswLen set; null when the call is refused, with the
// reason in LastFault().
OSSL_LIB_CTX* ContextFor(unsigned char const* pfx, int pfxLen, char const* psw, bool legacy,
                         size_t& pswLen) {
    LastFault() = pfxLen > kMaxPfxBytes ? BundleFault::kOverBound : BundleFault::kNotBundle;
    if (pfx == nullptr || pfxLen <= 0 || pfxLen > kMaxPfxBytes || psw == nullptr)
        return nullptr;
    pswLen = std::strlen(psw);
    if (pswLen > INT_MAX)
        return nullptr;
    return legacy ? qor::FullCryptoContext() : qor::ModernCryptoContext();
}

}  // namespace

bool GetKeyFromPfx(unsigned char const* pfx, int pfxLen, char const* psw, unsigned char* cert,
                   unsigned int& certLen, unsigned char* key, unsigned int& keyLen, bool legacy) {
    size_t pswLen = 0;
    OSSL_LIB_CTX* ctx = ContextFor(pfx, pfxLen, psw, legacy, pswLen);
    if (ctx == nullptr)
        return false;
    bool const sizeQuery = cert == nullptr && key == nullptr;
    if (!sizeQuery && (cert == nullptr || key == nullptr))
        return false;
    qor::ErrorScope errors;

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

bool OpenPfx(unsigned char const* pfx, int pfxLen, char const* psw,
             std::vector<unsigned char>& cert, WipedBuffer& key, bool legacy) {
    size_t pswLen = 0;
    OSSL_LIB_CTX* ctx = ContextFor(pfx, pfxLen, psw, legacy, pswLen);
    if (ctx == nullptr)
        return false;
    qor::ErrorScope errors;
    OpenedBundle opened;
    if (!OpenBundle(pfx, pfxLen, psw, static_cast<int>(pswLen), ctx, opened))
        return false;
    cert.swap(opened.cert);  // what cert held goes with opened
    key = std::move(opened.key);
    return true;
}

void ForgetOpenedBundle() {
    Slot().Clear();
}

BundleFault LastBundleFault() {
    return LastFault();
}
