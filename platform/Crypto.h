// Key and certificate handling over OpenSSL 3, in a library context of our own so that the
// caller's use of OpenSSL (providers, default properties) is never disturbed.
#ifndef QORLDAP_PLATFORM_CRYPTO_H
#define QORLDAP_PLATFORM_CRYPTO_H

#include <cstddef>

// Certificate description. Only the subject text is filled and read; the record keeps the
// width and the subject's place of the record this layer stands in for.
struct tagCERT {
    unsigned char reserved[608];
    char subject[6792];  // "type=value" lines joined by '\n', most significant first
};
static_assert(sizeof(tagCERT) == 7400, "tagCERT is 7400 bytes");
static_assert(offsetof(tagCERT, subject) == 608, "subject starts 608 bytes in");

// Limits on the bundles GetKeyFromPfx opens; a bundle beyond either is refused before the work.
// kMaxPfxBytes: exported bundles are a few kilobytes, one with a long chain some tens; 1 MiB
// leaves room for any real one and keeps the decoding of a crafted one short.
// kMaxPfxIterations: the sum of the iteration counts of every key derivation opening a bundle
// runs (its MAC, every encrypted safe, the shrouded key), see platform/Crypto.cpp.
constexpr int kMaxPfxBytes = 1 << 20;
constexpr long kMaxPfxIterations = 500000;

// Why the calling thread's last GetKeyFromPfx failed (kNone after a success).
enum class BundleFault {
    kNone,
    kNotBundle,      // not a PKCS#12 bundle (or one this layer cannot read)
    kPassword,       // the password does not open it
    kOverBound,      // over the size, count or key-derivation bounds
    kNoKey,          // it holds no private key
    kNoCertificate,  // it holds no certificate
    kKeyMismatch,    // no certificate in it belongs to its private key
};
BundleFault LastBundleFault();

// Opens a PKCS#12 bundle with its password. With cert and key both null, stores the sizes
// needed into certLen and keyLen. With buffers, fills them: the certificate as DER and the
// private key as unencrypted PKCS#8 DER; certLen and keyLen must hold the buffers' sizes and
// receive the lengths written. false when the bundle does not open (wrong password, not a
// bundle, no certificate or no key, over the limits above) or a buffer is too small. legacy:
// also try the legacy provider's algorithms (RC2-40, 3DES), which older exporters use.
// The size query keeps what it opened in a slot of the calling thread, and the next fill call
// for the same bytes, password and legacy flag takes it from there instead of opening the
// bundle again; that call empties the slot, whatever its outcome.
bool GetKeyFromPfx(unsigned char const* pfx, int pfxLen, char const* psw, unsigned char* cert,
                   unsigned int& certLen, unsigned char* key, unsigned int& keyLen, bool legacy);

// Empties the calling thread's slot of an opened bundle, wiping the private key it holds. For a
// caller that asked for the sizes and then gives up before the fill call.
void ForgetOpenedBundle();

// Describes a DER certificate: info.subject receives the subject, one line per attribute
// value in encoding order, "type=value" with OpenSSL's short type names, values as UTF-8.
// info is zeroed first. false when the certificate does not parse or the subject does not fit.
bool GetCertInfo(unsigned char const* cert, int certLen, tagCERT& info);

// Whether an unencrypted PKCS#8 DER private key gives less than 112-bit security (RSA or DSA
// below 2048 bits, curves below 224 bits) or is an EC key over explicit parameters. A key that
// does not parse counts as weak.
bool IsWeakKey(unsigned char const* key, unsigned int keyLen);

// Protects an unencrypted PKCS#8 DER private key under psw as DER EncryptedPrivateKeyInfo
// (PBES2, PBKDF2-HMAC-SHA256, AES-256-CBC). With out null, stores the size needed (an upper
// bound) into outLen. With out, outLen holds the buffer's size and receives the length written.
// false for an empty password: a key under it opens for anyone who reads the entry.
bool Convert2Key(unsigned char const* key, unsigned int keyLen, char const* psw, unsigned char* out,
                 unsigned int& outLen);

// Whether der (len bytes) is exactly one DER EncryptedPrivateKeyInfo whose protection a key
// opening accepts: PBES2 with PBKDF2, or a PKCS#5 v1 or PKCS#12 password-based scheme, with an
// iteration count within our bound, over a non-empty encrypted key. Nothing is decrypted.
bool IsProtectedKey(unsigned char const* der, unsigned int len);

// Opens a stored key (as Convert2Key writes it) with psw, in place: data receives the
// unencrypted PKCS#8 DER and len its new length. Returns 0 on success, non-zero when the key
// cannot be opened (wrong password, empty or malformed input); data is then untouched.
unsigned char DecryptKey(unsigned char* data, unsigned int& len, char const* psw);

#endif
