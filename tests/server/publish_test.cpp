// Publishing PKCS#12 bundles made by openssl, and changing the password of the stored keys.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Pki.h"

namespace {

using qortest::Directory;
using qortest::Pki;

char const kP12Pw[] = "bundle pw;#=";
char const kKeyPw[] = "key-password";

int Publish(std::string const& bundle, char const* p12Pw, char const* keyPw, bool sign,
            bool publicOnly) {
    return PublishP12(bundle.data(), bundle.size(), p12Pw, keyPw, sign, publicOnly);
}

class Publication : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { pki_ = new Pki(); }
    static void TearDownTestSuite() {
        delete pki_;
        pki_ = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(dir_.Ready());
        ASSERT_TRUE(pki_->Ok());
    }
    // The DN a subject /C=CN/O=Acme/OU=<unit>/CN=<name> lands at, as the library composes it.
    std::string UserDn(std::string const& unit, std::string const& name) {
        return "cn=" + name + ", ou=" + unit + ", " + dir_.Base();
    }
    static Pki* pki_;
    Directory dir_;
};

Pki* Publication::pki_ = nullptr;

TEST_F(Publication, BundlesOfEachKeyKindCreateThePathAndStoreCertificateAndKey) {
    struct {
        char const* kind;
        bool legacy;
        bool sign;
    } const cases[] = {
        {"rsa", false, true}, {"ec", false, false}, {"sm2", false, true}, {"rsa", true, false}};
    int n = 0;
    for (auto const& c : cases) {
        ++n;
        std::string name = std::string("user ") + c.kind + std::to_string(n);
        SCOPED_TRACE(name);
        std::string file = std::string(c.kind) + std::to_string(n);
        std::string bundle =
            pki_->Bundle(file, c.kind, "/C=CN/O=Acme/OU=PubUnit/CN=" + name, kP12Pw, c.legacy);
        ASSERT_FALSE(bundle.empty());
        ASSERT_EQ(0, Publish(bundle, kP12Pw, kKeyPw, c.sign, false));
        std::string dn = UserDn("pubunit", name);
        std::string certAttr = c.sign ? "signPubcer;binary" : "cryptPubcer;binary";
        std::string keyAttr = c.sign ? "signPrikey;binary" : "cryptPrikey;binary";
        EXPECT_EQ(std::vector<std::string>{pki_->Certificate(file)}, dir_.Values(dn, certAttr));
        std::vector<std::string> keys = dir_.Values(dn, keyAttr);
        ASSERT_EQ(1u, keys.size());
        EXPECT_TRUE(pki_->OpensWith(keys[0], kKeyPw));
        EXPECT_FALSE(pki_->OpensWith(keys[0], "wrong"));
        // The other pair is left alone.
        EXPECT_TRUE(dir_.Values(dn, c.sign ? "cryptPubcer;binary" : "signPubcer;binary").empty());
        // Read back through the library as well.
        unsigned char* cert = nullptr;
        unsigned int length = 0;
        ASSERT_EQ(0, (c.sign ? GetSignPublicKey : GetCryptPublicKey)(dn.c_str(), cert, length));
        EXPECT_EQ(pki_->Certificate(file), std::string(reinterpret_cast<char*>(cert), length));
        FreeKey(cert);
    }
    std::string levels = dir_.Search(dir_.Base(), "sub", "(ou=pubunit)", "ou objectClass");
    EXPECT_NE(std::string::npos, levels.find("objectClass: organizationalUnit")) << levels;
}

TEST_F(Publication, PublicOnlyAndRepeatedPublicationReplaceOnlyWhatTheyStore) {
    std::string bundle = pki_->Bundle("repeat", "ec", "/C=CN/O=Acme/OU=Again/CN=Repeat", kP12Pw);
    std::string dn = UserDn("again", "repeat");
    ASSERT_EQ(0, Publish(bundle, kP12Pw, kKeyPw, true, false));
    std::vector<std::string> key = dir_.Values(dn, "signPrikey;binary");
    ASSERT_EQ(0, Publish(bundle, kP12Pw, nullptr, true, true));  // key password unused
    EXPECT_EQ(key, dir_.Values(dn, "signPrikey;binary"));
    ASSERT_EQ(0, Publish(bundle, kP12Pw, kKeyPw, true, false));  // twice: replaced, still one
    EXPECT_EQ(1u, dir_.Values(dn, "signPrikey;binary").size());
    EXPECT_NE(key, dir_.Values(dn, "signPrikey;binary"));  // a new salt each time
}

TEST_F(Publication, BadBundlesAreRefusedBeforeAnythingIsWritten) {
    std::string bundle = pki_->Bundle("refused", "rsa", "/C=CN/O=Acme/OU=Never/CN=Refused", kP12Pw);
    EXPECT_EQ(QORLDAP_E_PKCS12, Publish(bundle, "wrong", kKeyPw, true, false));
    EXPECT_EQ(QORLDAP_E_PKCS12,
              Publish(bundle.substr(0, bundle.size() / 2), kP12Pw, kKeyPw, true, false));
    std::string noise(2048, '\0');
    std::mt19937 gen(1);
    for (char& ch : noise)
        ch = static_cast<char>(gen());
    EXPECT_EQ(QORLDAP_E_PKCS12, Publish(noise, kP12Pw, kKeyPw, true, false));
    EXPECT_EQ(QORLDAP_E_PKCS12, PublishP12("", 0, kP12Pw, kKeyPw, true, false));
    EXPECT_EQ(QORLDAP_E_PKCS12, PublishP12(nullptr, 10, kP12Pw, kKeyPw, true, false));
    EXPECT_EQ(QORLDAP_E_PKCS12, Publish(bundle, nullptr, kKeyPw, true, false));
    EXPECT_EQ(QORLDAP_E_KEY_CONVERT, Publish(bundle, kP12Pw, "", true, false));
    EXPECT_EQ(QORLDAP_E_KEY_CONVERT, Publish(bundle, kP12Pw, nullptr, true, false));
    // Only the last two calls got past the bundle: its path exists, its certificate was not stored.
    std::string dn = UserDn("never", "refused");
    EXPECT_TRUE(dir_.Values(dn, "signPubcer;binary").empty());
}

class PasswordChange : public Publication {};

TEST_F(PasswordChange, BothKeysAreReprotectedAndAWrongOldPasswordChangesNothing) {
    std::string bundle = pki_->Bundle("changer", "sm2", "/C=CN/O=Acme/OU=Pw/CN=Changer", kP12Pw);
    ASSERT_EQ(0, Publish(bundle, kP12Pw, "old", true, false));
    ASSERT_EQ(0, Publish(bundle, kP12Pw, "old", false, false));
    std::string dn = UserDn("pw", "changer");
    std::vector<std::string> before = dir_.Values(dn, "signPrikey;binary");

    EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw("cn=changer", "not-old", "new"));
    EXPECT_EQ(before, dir_.Values(dn, "signPrikey;binary"));

    CLdap ldap;
    ASSERT_EQ(0, ldap.ModifyPriKeyPsw("cn=changer", "old", "new"));
    for (char const* attr : {"signPrikey;binary", "cryptPrikey;binary"}) {
        std::vector<std::string> key = dir_.Values(dn, attr);
        ASSERT_EQ(1u, key.size()) << attr;
        EXPECT_TRUE(pki_->OpensWith(key[0], "new")) << attr;
        EXPECT_FALSE(pki_->OpensWith(key[0], "old")) << attr;
    }
    // An empty password would open the keys for anyone who reads the entry: refused, and both
    // keys stay as they are, under "new".
    std::vector<std::string> const sign = dir_.Values(dn, "signPrikey;binary");
    std::vector<std::string> const crypt = dir_.Values(dn, "cryptPrikey;binary");
    EXPECT_EQ(QORLDAP_E_KEY_CONVERT, ModifyPriKeyPsw("cn=changer", "new", ""));
    EXPECT_EQ(sign, dir_.Values(dn, "signPrikey;binary"));
    EXPECT_EQ(crypt, dir_.Values(dn, "cryptPrikey;binary"));
    EXPECT_EQ(0, ModifyPriKeyPsw("cn=changer", "new", "new"));  // same password: rewritten
    EXPECT_EQ(QORLDAP_E_FAILED, ModifyPriKeyPsw("cn=nobody here", "new", "x"));
    EXPECT_EQ(QORLDAP_E_FAILED, ModifyPriKeyPsw("uid=changer", "new", "x"));
}

TEST_F(PasswordChange, AMissingKeyIsReportedAfterTheOtherOneIsDone) {
    std::string bundle =
        pki_->Bundle("halfcrypt", "rsa", "/C=CN/O=Acme/OU=Half/CN=Half Crypt", kP12Pw);
    ASSERT_EQ(0, Publish(bundle, kP12Pw, "old", false, false));  // encryption key only
    EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw("cn=half crypt", "old", "new"));
    std::string dn = UserDn("half", "half crypt");
    EXPECT_TRUE(pki_->OpensWith(dir_.Values(dn, "cryptPrikey;binary").at(0), "new"));
    EXPECT_TRUE(dir_.Values(dn, "signPrikey;binary").empty());  // no protected empty key

    bundle = pki_->Bundle("halfsign", "rsa", "/C=CN/O=Acme/OU=Half/CN=Half Sign", kP12Pw);
    ASSERT_EQ(0, Publish(bundle, kP12Pw, "old", true, false));  // signing key only
    EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw("cn=half sign", "old", "new"));
    dn = UserDn("half", "half sign");
    EXPECT_TRUE(pki_->OpensWith(dir_.Values(dn, "signPrikey;binary").at(0), "old"));
    EXPECT_TRUE(dir_.Values(dn, "cryptPrikey;binary").empty());
}

}  // namespace
