// Stored keys: protecting, checking and opening them; see platform/StoredKey.h.
#include "platform/StoredKey.h"

#include <climits>
#include <cstring>
#include <string>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include "platform/CryptoContext.h"
#include "platform/OsslPtr.h"
#include "platform/WipedBuffer.h"
#include "platform/WorkBounds.h"

namespace {

constexpr int kSaltLen = 16;

// Room the encrypted form needs beyond the key itself: the PBES2 algorithm identifier (about
// 95 bytes with a 16-byte salt and IV), one block of CBC padding and two DER headers.
constexpr unsigned int kEncryptOverhead = 256;

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

}  // namespace

bool IsProtectedKey(unsigned char const* der, unsigned int len) {
    if (der == nullptr || len == 0 || len > INT_MAX)
        return false;
    qor::ErrorScope errors;
    unsigned char const* p = der;
    X509SigPtr const sig(d2i_X509_SIG(nullptr, &p, static_cast<long>(len)));
    if (sig == nullptr)
        return false;
    X509_ALGOR const* alg = nullptr;
    ASN1_OCTET_STRING const* encrypted = nullptr;
    X509_SIG_get0(sig.get(), &alg, &encrypted);
    return p == der + len && qor::PbeIterations(alg) > 0 && encrypted != nullptr &&
           ASN1_STRING_length(encrypted) > 0;
}

std::string WeakKeyReason(unsigned char const* key, unsigned int keyLen) {
    if (key == nullptr || keyLen == 0 || keyLen > INT_MAX)
        return "no key";
    OSSL_LIB_CTX* ctx = qor::FullCryptoContext();
    if (ctx == nullptr)
        return "a key that cannot be examined";
    qor::ErrorScope errors;
    unsigned char const* p = key;
    Pkcs8Ptr const p8(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(keyLen)));
    EvpPkeyPtr const pkey(p8 == nullptr ? nullptr : EVP_PKCS82PKEY_ex(p8.get(), ctx, nullptr));
    if (pkey == nullptr)
        return "a key that does not parse";
    // 112 bits: RSA and DSA of 2048 bits, curves of 224 bits. A curve given by explicit
    // parameters rather than by name is refused whatever its size: its parameters could be
    // anything, and named curves are all any CA issues.
    std::string kind = EVP_PKEY_get0_type_name(pkey.get()) != nullptr
                           ? EVP_PKEY_get0_type_name(pkey.get())
                           : "a key";
    bool const ec = EVP_PKEY_is_a(pkey.get(), "EC");
    char group[80] = {0};
    if (ec) {
        char encoding[32] = {0};
        if (!EVP_PKEY_get_utf8_string_param(pkey.get(), OSSL_PKEY_PARAM_EC_ENCODING, encoding,
                                            sizeof encoding, nullptr) ||
            std::strcmp(encoding, OSSL_PKEY_EC_ENCODING_GROUP) != 0)
            return "an EC key with explicit parameters (only named curves are taken)";
        if (EVP_PKEY_get_group_name(pkey.get(), group, sizeof group, nullptr) == 1)
            kind += std::string(" ") + group;
    }
    int const bits = EVP_PKEY_get_security_bits(pkey.get());
    if (bits >= 112)
        return "";
    if (!ec)
        kind += " " + std::to_string(EVP_PKEY_get_bits(pkey.get())) + " bits";
    return kind + ", " + std::to_string(bits) + "-bit security (at least 112 needed)";
}

bool IsWeakKey(unsigned char const* key, unsigned int keyLen) {
    return !WeakKeyReason(key, keyLen).empty();
}

bool Convert2Key(unsigned char const* key, unsigned int keyLen, char const* psw, unsigned char* out,
                 unsigned int& outLen) {
    if (key == nullptr || keyLen == 0 || keyLen > INT_MAX - kEncryptOverhead || psw == nullptr)
        return false;
    // An empty password protects nothing: whoever reads the entry would open the key.
    size_t const pswLen = std::strlen(psw);
    if (pswLen == 0 || pswLen > INT_MAX)
        return false;
    OSSL_LIB_CTX* ctx = qor::FullCryptoContext();
    if (ctx == nullptr)
        return false;
    qor::ErrorScope errors;

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
    X509AlgorPtr pbe(PKCS5_pbe2_set_iv_ex(cipher.get(), qor::kPbkdf2Iterations, nullptr, kSaltLen,
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
    OSSL_LIB_CTX* ctx = qor::FullCryptoContext();
    if (ctx == nullptr)
        return 1;
    qor::ErrorScope errors;

    unsigned char const* p = data;
    X509SigPtr const sig(d2i_X509_SIG(nullptr, &p, static_cast<long>(len)));
    if (sig == nullptr)
        return 1;
    X509_ALGOR const* alg = nullptr;
    X509_SIG_get0(sig.get(), &alg, nullptr);
    if (p != data + len || qor::PbeIterations(alg) <= 0)
        return 1;
    // CBC padding alone lets a wrong password through now and then, and a damaged IV garbles
    // only the first block; the plaintext must then still make a usable private key, which
    // garbage does not. So a key that opens here can always be protected again.
    Pkcs8Ptr const p8(PKCS8_decrypt_ex(sig.get(), psw, static_cast<int>(pswLen), ctx, nullptr));
    if (p8 == nullptr || EvpPkeyPtr(EVP_PKCS82PKEY_ex(p8.get(), ctx, nullptr)) == nullptr)
        return 1;

    WipedBuffer const plain = qor::EncodePrivateKey(p8.get());
    if (plain.Size() == 0 || plain.Size() > len)
        return 1;
    std::memcpy(data, plain.Data(), plain.Size());
    len = static_cast<unsigned int>(plain.Size());
    return 0;
}
