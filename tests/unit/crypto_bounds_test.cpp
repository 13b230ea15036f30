// Inputs that name an absurd key-derivation iteration count are refused before the work is done.
#include <gtest/gtest.h>

#include <string>

#include "platform/Crypto.h"
#include "tests/support/TestFiles.h"

namespace {

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

}  // namespace
