// Inputs that name an absurd key-derivation iteration count are refused before the work is done.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "platform/Crypto.h"
#include "tests/support/TestFiles.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string Finding(std::string const& name) {
    return qortest::ReadFile(std::string(QORLDAP_SOURCE_DIR) + "/tests/fuzz/crashes/fuzz_pkcs12/" +
                             name);
}

TEST(CryptoBounds, HugeIterationCountsAreRefusedNotSpent) {
    // A bundle whose MAC asks for 2^31-1 iterations (password "fuzz"): refused at once.
    std::string pfx = Finding("timeout-pfx-mac-iterations-2147483647.p12");
    ASSERT_FALSE(pfx.empty());
    unsigned int certLen = 0, keyLen = 0;
    EXPECT_FALSE(GetKeyFromPfx(reinterpret_cast<unsigned char const*>(pfx.data()),
                               static_cast<int>(pfx.size()), "fuzz", nullptr, certLen, nullptr,
                               keyLen, true));
    // A stored key whose PBKDF2 asks for 2^31-1 iterations: refused, data untouched.
    std::string stored = Finding("timeout-stored-key-pbkdf2-iterations-2147483647.p8");
    ASSERT_FALSE(stored.empty());
    std::string copy = stored;
    unsigned int len = static_cast<unsigned int>(copy.size());
    EXPECT_NE(0, DecryptKey(reinterpret_cast<unsigned char*>(&copy[0]), len, "fuzz"));
    EXPECT_EQ(stored, copy);
}

// A bundle of the seed's key and certificate: one safe holding both, encrypted with safeIter
// iterations and repeated `safes` times, the key shrouded with keyIter iterations (0: in the
// clear), a MAC of 2048 iterations. Every count is within the bound on one piece.
Bytes Bundle(EVP_PKEY* pkey, X509* x509, int safes, int safeIter, int keyIter) {
    char const* const pw = "fuzz";
    STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
    STACK_OF(PKCS7)* p7s = nullptr;
    Bytes der;
    if (PKCS12_add_cert(&bags, x509) != nullptr &&
        PKCS12_add_key(&bags, pkey, 0, keyIter, keyIter > 0 ? NID_aes_256_cbc : -1, pw) !=
            nullptr &&
        PKCS12_add_safe(&p7s, bags, NID_aes_256_cbc, safeIter, pw) == 1) {
        // Copies of the one safe cost nothing to make, all the more to open.
        for (int i = 1; i < safes; ++i)
            sk_PKCS7_push(p7s, PKCS7_dup(sk_PKCS7_value(p7s, 0)));
        PKCS12* p12 = PKCS12_add_safes(p7s, 0);
        unsigned char* out = nullptr;
        int len = 0;
        if (p12 != nullptr && PKCS12_set_mac(p12, pw, -1, nullptr, 0, 2048, EVP_sha256()) == 1 &&
            (len = i2d_PKCS12(p12, &out)) > 0)
            der.assign(out, out + len);
        OPENSSL_free(out);
        PKCS12_free(p12);
    }
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
    sk_PKCS7_pop_free(p7s, PKCS7_free);
    return der;
}

TEST(CryptoBounds, ABundleIsBoundedAsAWholeNotOnlyPieceByPiece) {
    std::string const seed = qortest::ReadFile(std::string(QORLDAP_SOURCE_DIR) +
                                               "/tests/fuzz/corpus/fuzz_pkcs12/ec.p12");
    unsigned char const* p = reinterpret_cast<unsigned char const*>(seed.data());
    PKCS12* p12 = d2i_PKCS12(nullptr, &p, static_cast<long>(seed.size()));
    EVP_PKEY* pkey = nullptr;
    X509* x509 = nullptr;
    ASSERT_EQ(1, PKCS12_parse(p12, "fuzz", &pkey, &x509, nullptr));
    PKCS12_free(p12);
    unsigned char* certDer = nullptr;
    int const certDerLen = i2d_X509(x509, &certDer);
    Bytes const cert(certDer, certDer + certDerLen);
    OPENSSL_free(certDer);

    // The MAC takes 2048 of the budget; `half` twice takes the rest, to the last iteration.
    int const half = static_cast<int>((kMaxPfxIterations - 2048) / 2);
    struct {
        char const* what;
        int safes, safeIter, keyIter;
        bool opens;
    } const cases[] = {
        {"64 copies of a safe of 1000000 iterations", 64, 1000000, 0, false},
        {"three safes, the third over the budget", 3, half, 0, false},
        {"a safe and a shrouded key spending the budget exactly", 1, half, half, true},
        {"the shrouded key one iteration over", 1, half, half + 1, false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes const pfx = Bundle(pkey, x509, c.safes, c.safeIter, c.keyIter);
        ASSERT_FALSE(pfx.empty());
        unsigned int certLen = 0, keyLen = 0;
        bool const opened = GetKeyFromPfx(pfx.data(), static_cast<int>(pfx.size()), "fuzz", nullptr,
                                          certLen, nullptr, keyLen, true);
        EXPECT_EQ(c.opens, opened);
        if (!opened)
            continue;
        Bytes gotCert(certLen), gotKey(keyLen);
        ASSERT_TRUE(GetKeyFromPfx(pfx.data(), static_cast<int>(pfx.size()), "fuzz", gotCert.data(),
                                  certLen, gotKey.data(), keyLen, true));
        EXPECT_EQ(cert, gotCert);
    }
    EVP_PKEY_free(pkey);
    X509_free(x509);
}

}  // namespace
