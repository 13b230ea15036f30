// Keys stored, read and removed on the real directory, checked byte for byte, also with an
// independent client.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

namespace {

using qortest::Directory;

std::string Bytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (char& c : s)
        c = static_cast<char>(gen() & 0xff);
    return s;
}

unsigned char const* U(std::string const& s) {
    return reinterpret_cast<unsigned char const*>(s.data());
}

class Keys : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.Ready());
        ASSERT_EQ(0, ldap_.ConnectLdap());
        user_ = qortest::MakeUser(ldap_, dir_.Base(), "KeyUnit",
                                  ::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    // Reads through a CLdap member and through the matching free function.
    typedef int (CLdap::*MemberGet)(char const*, unsigned char*&, unsigned int&);
    typedef int (*FreeGet)(char const*, unsigned char*&, unsigned int&);
    std::string Read(MemberGet member, FreeGet free, int* rc = nullptr) {
        unsigned char* key = reinterpret_cast<unsigned char*>(1);
        unsigned int length = 99;
        int r = (ldap_.*member)(user_.c_str(), key, length);
        std::string viaMember = key ? std::string(reinterpret_cast<char*>(key), length) : "<null>";
        if (!key) {
            EXPECT_EQ(0u, length);
        }
        ldap_.FreeKey(key);
        unsigned char* key2 = nullptr;
        int r2 = free(user_.c_str(), key2, length);
        std::string viaFree = key2 ? std::string(reinterpret_cast<char*>(key2), length) : "<null>";
        FreeKey(key2);
        EXPECT_EQ(r, r2);
        EXPECT_EQ(viaMember, viaFree);
        if (rc)
            *rc = r;
        return viaMember;
    }
    Directory dir_;
    CLdap ldap_;
    std::string user_;
};

TEST_F(Keys, EachKeyRoundTripsByteExactAndASecondWriteReplacesTheFirst) {
    std::string const withZeros("\x30\x00\x01\x00\xff", 5);
    std::string const oneByte("\x42", 1);
    std::string const big = Bytes(64 * 1024, 7);
    struct {
        int (CLdap::*put)(char const*, unsigned char const*, unsigned int);
        MemberGet get;
        FreeGet freeGet;
        char const* attribute;
    } const keys[] = {
        {&CLdap::ModifySignPrivateKey, &CLdap::GetSignPrivateKey, &GetSignPrivateKey,
         "signPrikey;binary"},
        {&CLdap::ModifySignPublicKey, &CLdap::GetSignPublicKey, &GetSignPublicKey,
         "signPubcer;binary"},
        {&CLdap::ModifyCryptPrivateKey, &CLdap::GetCryptPrivateKey, &GetCryptPrivateKey,
         "cryptPrikey;binary"},
        {&CLdap::ModifyCryptPublicKey, &CLdap::GetCryptPublicKey, &GetCryptPublicKey,
         "cryptPubcer;binary"},
    };
    for (auto const& k : keys) {
        SCOPED_TRACE(k.attribute);
        int rc = -1;
        EXPECT_EQ("<null>", Read(k.get, k.freeGet, &rc));  // absent: 0 with null and 0
        EXPECT_EQ(0, rc);
        for (std::string const& value : {withZeros, oneByte, big}) {
            ASSERT_EQ(0,
                      (ldap_.*k.put)(user_.c_str(), U(value), static_cast<unsigned>(value.size())));
            EXPECT_EQ(value, Read(k.get, k.freeGet));
            std::vector<std::string> stored = dir_.Values(user_, k.attribute);
            ASSERT_EQ(1u, stored.size());  // the replace leaves one value
            EXPECT_EQ(value, stored[0]);
        }
        EXPECT_EQ(QORLDAP_E_FAILED, (ldap_.*k.put)(user_.c_str(), U(big), 0));
        EXPECT_EQ(QORLDAP_E_FAILED, (ldap_.*k.put)(user_.c_str(), nullptr, 3));
        EXPECT_EQ(32, (ldap_.*k.put)(("cn=ghost," + dir_.Base()).c_str(), U(big), 4));
    }
}

TEST_F(Keys, ReadsRefuseBadNamesAndReportMissingEntries) {
    unsigned char* key = reinterpret_cast<unsigned char*>(1);
    unsigned int length = 5;
    EXPECT_EQ(QORLDAP_E_KEY_SEARCH,
              GetSignPublicKey(("cn=ghost,ou=KeyUnit," + dir_.Base()).c_str(), key, length));
    EXPECT_EQ(nullptr, key);
    EXPECT_EQ(0u, length);
    EXPECT_EQ(QORLDAP_E_KEY_SEARCH, ldap_.GetSignPrivateKey("cn=Li Lei", key, length));
    for (char const* refused : {"ou=KeyUnit,o=root", "CN=x,o=root", "uid=x", "", (char const*)0}) {
        key = reinterpret_cast<unsigned char*>(1);
        EXPECT_EQ(QORLDAP_E_FAILED, ldap_.GetCryptPublicKey(refused, key, length));
        EXPECT_EQ(nullptr, key);
        EXPECT_EQ(QORLDAP_E_FAILED, GetCryptPrivateKey(refused, key, length));
    }
}

TEST_F(Keys, DeletingAPrivateKeyRemovesTheAttribute) {
    std::string const value = Bytes(600, 3);
    ASSERT_EQ(0, ldap_.ModifySignPrivateKey(user_.c_str(), U(value), 600));
    ASSERT_EQ(0, ldap_.ModifyCryptPrivateKey(user_.c_str(), U(value), 600));
    EXPECT_EQ(0, ldap_.DeleteSignPrivateKey(user_.c_str()));
    EXPECT_TRUE(dir_.Values(user_, "signPrikey;binary").empty());
    EXPECT_EQ(1u, dir_.Values(user_, "cryptPrikey;binary").size());  // the other key stays
    EXPECT_EQ(0, DeleteCryptPrivateKey(user_.c_str()));
    EXPECT_TRUE(dir_.Values(user_, "cryptPrikey;binary").empty());
    EXPECT_EQ(0, ldap_.DeleteSignPrivateKey(user_.c_str()));  // already gone: still 0
    EXPECT_EQ(32, DeleteSignPrivateKey(("cn=ghost," + dir_.Base()).c_str()));
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.DeleteCryptPrivateKey(nullptr));
}

}  // namespace
