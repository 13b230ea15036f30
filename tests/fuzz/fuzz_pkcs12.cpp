// Fuzzes GetKeyFromPfx (with and without the legacy algorithms), GetCertInfo and DecryptKey on
// the input, under the seeds' password "fuzz" (make_seeds.sh) and the empty one, the only one a
// bundle without a MAC opens under: changed bytes inside it reach the key and certificate
// parsing. Inputs kept in crashes/ declare iteration counts that must be refused at once.
#include <set>

#include <openssl/x509.h>

#include "platform/Crypto.h"
#include "tests/fuzz/FuzzCheck.h"

using qorfuzz::Guarded;

namespace {

char const* const kPassword = "fuzz";
using Bytes = std::vector<unsigned char>;

bool IsPrivateKey(unsigned char const* der, size_t len) {
    unsigned char const* p = der;
    PKCS8_PRIV_KEY_INFO* p8 = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(len));
    bool const whole = p8 != nullptr && p == der + len;
    PKCS8_PRIV_KEY_INFO_free(p8);
    return whole;
}

// A certificate described, or refused with the record zeroed.
void CheckCertInfo(unsigned char const* cert, size_t len) {
    tagCERT info;
    std::memset(&info, qorfuzz::kFill, sizeof info);
    bool const ok = GetCertInfo(cert, static_cast<int>(len), info);
    unsigned char const* raw = reinterpret_cast<unsigned char const*>(&info);
    for (size_t i = 0; i < (ok ? sizeof info.reserved : sizeof info); ++i)
        FUZZ_CHECK(raw[i] == 0);
    FUZZ_CHECK(std::memchr(info.subject, '\0', sizeof info.subject) != nullptr);
}

// Opens a stored key in place, on exactly its bytes on the heap (a read past them is caught);
// a key refused is left untouched.
bool Decrypt(Bytes& key, char const* password) {
    Bytes const before = key;
    unsigned int len = static_cast<unsigned int>(key.size());
    if (DecryptKey(key.empty() ? nullptr : key.data(), len, password) != 0)
        return FUZZ_CHECK(len == before.size() && key == before), false;
    FUZZ_CHECK(len > 0 && len <= before.size() && IsPrivateKey(key.data(), len));
    key.resize(len);
    return true;
}

// Protecting and opening run 100000 PBKDF2 iterations each, seconds under the sanitizers:
// only the first two distinct keys of a run (the seeds' EC and RSA keys) make the round trip.
void CheckRoundTrip(Bytes const& key) {
    static std::set<Bytes> seen;
    if (seen.size() >= 2 || !seen.insert(key).second)
        return;
    auto const keyLen = static_cast<unsigned int>(key.size());
    unsigned int need = 0, len = 0;
    FUZZ_CHECK(Convert2Key(key.data(), keyLen, kPassword, nullptr, need));
    Guarded stored(len = need);
    FUZZ_CHECK(Convert2Key(key.data(), keyLen, kPassword, stored.Data(), len));
    FUZZ_CHECK(len > 0 && len <= need && stored.GuardIntact());
    Bytes sealed(stored.bytes.begin(), stored.bytes.begin() + len);
    FUZZ_CHECK(!Decrypt(sealed, "not the password"));
    FUZZ_CHECK(Decrypt(sealed, kPassword) && sealed == key);
}

// Opens the input as a bundle; true with cert and key filled when it opens. Buffers of the
// sizes reported are filled exactly; one byte short, or no key buffer, is refused; no guard
// byte is touched.
bool OpenBundle(Bytes const& in, char const* password, bool legacy, Bytes& cert, Bytes& key) {
    auto open = [&](unsigned char* c, unsigned int& cl, unsigned char* k, unsigned int& kl) {
        return GetKeyFromPfx(in.empty() ? nullptr : in.data(), static_cast<int>(in.size()),
                             password, c, cl, k, kl, legacy);
    };
    unsigned int certNeed = 0, keyNeed = 0;
    if (!open(nullptr, certNeed, nullptr, keyNeed))
        return false;
    FUZZ_CHECK(certNeed > 0 && keyNeed > 0);
    for (int fault = -1; fault < 3; ++fault) {  // none, cert short, key short, no key buffer
        Guarded c(certNeed - (fault == 0)), k(keyNeed - (fault == 1));
        unsigned int cl = static_cast<unsigned int>(c.size), kl = static_cast<unsigned int>(k.size);
        FUZZ_CHECK(open(c.Data(), cl, fault == 2 ? nullptr : k.Data(), kl) == (fault == -1));
        FUZZ_CHECK(c.GuardIntact() && k.GuardIntact());
        if (fault == -1) {
            FUZZ_CHECK(cl == certNeed && kl == keyNeed && IsPrivateKey(k.Data(), kl));
            cert.assign(c.Data(), c.Data() + cl);
            key.assign(k.Data(), k.Data() + kl);
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size > 64 * 1024)
        return 0;
    Bytes const input(data, data + size);  // exactly the input's bytes on the heap
    for (char const* password : {kPassword, ""}) {
        Bytes modernCert, modernKey, fullCert, fullKey;
        bool const modern = OpenBundle(input, password, false, modernCert, modernKey);
        bool const full = OpenBundle(input, password, true, fullCert, fullKey);
        // The legacy algorithms only add: what opens without them opens with them, the same.
        FUZZ_CHECK(!modern || (full && modernCert == fullCert && modernKey == fullKey));
        if (full) {
            CheckCertInfo(fullCert.data(), fullCert.size());
            CheckRoundTrip(fullKey);
        }
    }
    CheckCertInfo(input.data(), size);
    Bytes key = input;
    Decrypt(key, kPassword);
    return 0;
}
