// Fuzzes the key and certificate layer: GetKeyFromPfx (both contexts), GetCertInfo and
// DecryptKey, all on the input bytes, with the password "fuzz" the seed bundles are made with
// (tests/fuzz/make_seeds.sh). Bundles are also tried under the empty password, the only one a
// bundle without a MAC opens under: changed bytes inside such a bundle still open, which takes
// the fuzzer past the bundle into the key and certificate parsing.
//
// What is checked beyond "no crash" (leaks are caught by the sanitizer's leak check after each
// input):
// - a bundle that opens reports sizes, and filling buffers of exactly those sizes writes
//   exactly those lengths and nothing past them (guard bytes); one byte less is refused
//   without a write past the smaller buffer either;
// - whatever opens without the legacy algorithms opens with them too, to the same bytes;
// - the certificate's subject ends within its field, and a refused certificate leaves the
//   record all zero;
// - DecryptKey leaves data and length alone when it refuses, and when it opens a key the
//   result is a private key of exactly the new length;
// - a key taken from a bundle, protected by Convert2Key and opened by DecryptKey, comes back
//   byte for byte (for the first two distinct keys of a run: protecting is slow on purpose).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include <openssl/x509.h>

#include "platform/Crypto.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

char const* const kPassword = "fuzz";
size_t const kGuard = 16;
unsigned char const kFill = 0xa5;

// A buffer of size bytes followed by guard bytes, all set to kFill.
struct Guarded {
    explicit Guarded(size_t size) : bytes(size + kGuard, kFill), size(size) {}
    unsigned char* Data() { return bytes.data(); }
    bool GuardIntact() const {
        for (size_t i = size; i < bytes.size(); ++i) {
            if (bytes[i] != kFill)
                return false;
        }
        return true;
    }
    std::vector<unsigned char> bytes;
    size_t size;
};

bool IsPrivateKey(unsigned char const* der, size_t len) {
    unsigned char const* p = der;
    PKCS8_PRIV_KEY_INFO* p8 = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(len));
    bool const whole = p8 != nullptr && p == der + len;
    PKCS8_PRIV_KEY_INFO_free(p8);
    return whole;
}

void CheckCertInfo(unsigned char const* cert, size_t len) {
    tagCERT info;
    std::memset(&info, kFill, sizeof info);
    bool const ok = GetCertInfo(cert, static_cast<int>(len), info);
    unsigned char const* raw = reinterpret_cast<unsigned char const*>(&info);
    if (!ok) {
        for (size_t i = 0; i < sizeof info; ++i)
            FUZZ_CHECK(raw[i] == 0);
        return;
    }
    for (unsigned char b : info.reserved)
        FUZZ_CHECK(b == 0);
    void const* nul = std::memchr(info.subject, '\0', sizeof info.subject);
    FUZZ_CHECK(nul != nullptr);
    size_t const used = static_cast<size_t>(static_cast<char const*>(nul) - info.subject);
    for (size_t i = used; i < sizeof info.subject; ++i)
        FUZZ_CHECK(info.subject[i] == '\0');
    // Lines are "type=value": a type is a short name or a dotted OID, never empty.
    size_t start = 0;
    while (start < used) {
        char const* line = info.subject + start;
        char const* eq = static_cast<char const*>(std::memchr(line, '=', used - start));
        FUZZ_CHECK(eq != nullptr && eq != line);
        FUZZ_CHECK(std::memchr(line, '\n', static_cast<size_t>(eq - line)) == nullptr);
        char const* lf = static_cast<char const*>(
            std::memchr(eq, '\n', used - static_cast<size_t>(eq - info.subject)));
        if (lf == nullptr)
            break;
        start = static_cast<size_t>(lf - info.subject) + 1;
    }
}

void CheckDecryptKey(uint8_t const* data, size_t size, char const* password) {
    // Exactly the input's bytes on the heap, so a read past them is caught.
    std::vector<unsigned char> buffer(data, data + size);
    std::vector<unsigned char> const before = buffer;
    unsigned int len = static_cast<unsigned int>(size);
    unsigned char* p = buffer.empty() ? nullptr : buffer.data();
    if (DecryptKey(p, len, password) != 0) {
        FUZZ_CHECK(len == size);
        FUZZ_CHECK(buffer == before);
        return;
    }
    FUZZ_CHECK(len > 0 && len <= size);
    FUZZ_CHECK(IsPrivateKey(buffer.data(), len));
}

// Protects a key taken from a bundle and opens it again: the same bytes come back.
void CheckRoundTrip(std::vector<unsigned char> const& key) {
    // Protecting and opening run 100000 PBKDF2 iterations each, and under the address
    // sanitizer every iteration's allocations are checked: a round trip costs seconds. The
    // first two distinct keys of a run are enough (the seeds run smallest first: the EC key,
    // then the RSA key).
    static std::set<size_t> seen;
    if (seen.size() >= 2 ||
        !seen.insert(std::hash<std::string>()(std::string(key.begin(), key.end()))).second) {
        return;
    }
    unsigned int need = 0;
    FUZZ_CHECK(
        Convert2Key(key.data(), static_cast<unsigned int>(key.size()), kPassword, nullptr, need));
    Guarded stored(need);
    unsigned int storedLen = need;
    FUZZ_CHECK(Convert2Key(key.data(), static_cast<unsigned int>(key.size()), kPassword,
                           stored.Data(), storedLen));
    FUZZ_CHECK(storedLen > 0 && storedLen <= need && stored.GuardIntact());
    std::vector<unsigned char> opened(stored.bytes.begin(), stored.bytes.begin() + storedLen);
    unsigned int openedLen = storedLen;
    std::vector<unsigned char> const sealed = opened;
    FUZZ_CHECK(DecryptKey(opened.data(), openedLen, "not the password") != 0);
    FUZZ_CHECK(openedLen == storedLen && opened == sealed);
    FUZZ_CHECK(DecryptKey(opened.data(), openedLen, kPassword) == 0);
    FUZZ_CHECK(openedLen == key.size());
    FUZZ_CHECK(std::memcmp(opened.data(), key.data(), key.size()) == 0);
}

// Opens the input as a bundle; true with cert and key filled when it opens.
bool OpenBundle(uint8_t const* data, size_t size, char const* password, bool legacy,
                std::vector<unsigned char>& cert, std::vector<unsigned char>& key) {
    unsigned int certNeed = 0x5a5a5a5a;
    unsigned int keyNeed = 0x5a5a5a5a;
    if (!GetKeyFromPfx(data, static_cast<int>(size), password, nullptr, certNeed, nullptr, keyNeed,
                       legacy)) {
        return false;  // the lengths may hold anything now
    }
    FUZZ_CHECK(certNeed > 0 && keyNeed > 0);

    // Buffers of exactly the reported sizes take exactly those lengths.
    Guarded certBuf(certNeed);
    Guarded keyBuf(keyNeed);
    unsigned int certLen = certNeed;
    unsigned int keyLen = keyNeed;
    FUZZ_CHECK(GetKeyFromPfx(data, static_cast<int>(size), password, certBuf.Data(), certLen,
                             keyBuf.Data(), keyLen, legacy));
    FUZZ_CHECK(certLen == certNeed && keyLen == keyNeed);
    FUZZ_CHECK(certBuf.GuardIntact() && keyBuf.GuardIntact());
    FUZZ_CHECK(IsPrivateKey(keyBuf.Data(), keyLen));

    // One byte short, on either side: refused, and nothing written past the smaller buffer.
    for (int shortSide = 0; shortSide < 2; ++shortSide) {
        Guarded c(shortSide == 0 ? certNeed - 1 : certNeed);
        Guarded k(shortSide == 1 ? keyNeed - 1 : keyNeed);
        unsigned int cl = static_cast<unsigned int>(c.size);
        unsigned int kl = static_cast<unsigned int>(k.size);
        FUZZ_CHECK(!GetKeyFromPfx(data, static_cast<int>(size), password, c.Data(), cl, k.Data(),
                                  kl, legacy));
        FUZZ_CHECK(c.GuardIntact() && k.GuardIntact());
    }
    // One buffer without the other is a caller's mistake, refused.
    unsigned int cl = certNeed;
    unsigned int kl = keyNeed;
    FUZZ_CHECK(!GetKeyFromPfx(data, static_cast<int>(size), password, certBuf.Data(), cl, nullptr,
                              kl, legacy));

    cert.assign(certBuf.bytes.begin(), certBuf.bytes.begin() + certLen);
    key.assign(keyBuf.bytes.begin(), keyBuf.bytes.begin() + keyLen);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size > 64 * 1024)
        return 0;
    // Exactly the input's bytes on the heap (libFuzzer's own copy is too, but say so here).
    std::vector<uint8_t> const input(data, data + size);
    uint8_t const* bytes = input.empty() ? nullptr : input.data();

    for (char const* password : {kPassword, ""}) {
        std::vector<unsigned char> modernCert, modernKey, fullCert, fullKey;
        bool const modern = OpenBundle(bytes, size, password, false, modernCert, modernKey);
        bool const full = OpenBundle(bytes, size, password, true, fullCert, fullKey);
        if (modern) {
            FUZZ_CHECK(full);
            FUZZ_CHECK(modernCert == fullCert && modernKey == fullKey);
        }
        if (full) {
            CheckCertInfo(fullCert.data(), fullCert.size());
            CheckRoundTrip(fullKey);
        }
    }

    CheckCertInfo(bytes, size);
    CheckDecryptKey(bytes, size, kPassword);
    return 0;
}
