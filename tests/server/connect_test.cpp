// Connecting to the real directory through both families, and the check of the base entry.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"

namespace {

using qortest::Directory;

class Connect : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(dir_.Ready()) << "no test directory"; }
    LdapInfo Settings() {
        LdapInfo info;
        CLdap probe;
        probe.GetLdapAtt(info);
        return info;
    }
    Directory dir_;
};

TEST_F(Connect, BothFamiliesConnectAndCreateTheOrganisationBase) {
    EXPECT_EQ(0, ConnectLdap());
    EXPECT_EQ(0, ConnectLdap());  // connected: returns at once
    CLdap ldap;
    EXPECT_EQ(0, ldap.ConnectLdap());
    // The base o=root did not exist before: it was created with o and objectClass organization.
    std::string base = dir_.Search(dir_.Base(), "base", "(objectClass=*)", "o objectClass");
    EXPECT_NE(std::string::npos, base.find("o: root")) << base;
    EXPECT_NE(std::string::npos, base.find("objectClass: organization")) << base;
}

TEST_F(Connect, WrongPasswordIsRefusedAndTheSameObjectConnectsOnceCorrected) {
    CLdap ldap;
    LdapInfo good;
    ldap.GetLdapAtt(good);
    LdapInfo bad = good;
    std::strcpy(bad.psw, "wrong");
    ldap.SetLdapAtt(bad);
    EXPECT_EQ(QORLDAP_E_FAILED, ldap.ConnectLdap());
    unsigned char* key = nullptr;
    unsigned int length = 0;
    EXPECT_EQ(QORLDAP_E_FAILED, ldap.GetSignPublicKey("cn=x,o=root", key, length));
    ldap.SetLdapAtt(good);
    EXPECT_EQ(0, ldap.ConnectLdap());
}

TEST_F(Connect, NoServerGivesTheGeneralFailureAndSettingsNeedNoServer) {
    CLdap ldap;
    LdapInfo info;
    ldap.GetLdapAtt(info);
    EXPECT_EQ(dir_.Port(), info.port);
    info.port = 1;  // nothing listens there
    std::strcpy(info.host, "127.0.0.1");
    ldap.SetLdapAtt(info);
    EXPECT_EQ(QORLDAP_E_FAILED, ldap.ConnectLdap());
    unsigned char* key = new unsigned char[8];
    ldap.FreeKey(key);  // needs no connection
    EXPECT_EQ(nullptr, key);

    // Two objects keep separate settings, and neither touches the free functions' engine.
    CLdap other;
    LdapInfo seen;
    other.GetLdapAtt(seen);
    EXPECT_EQ(dir_.Port(), seen.port);
    GetLdapAtt(seen);
    EXPECT_EQ(dir_.Port(), seen.port);
}

TEST_F(Connect, BaseUnderAMissingParentIsRefusedAndRetried) {
    CLdap ldap;
    LdapInfo info;
    ldap.GetLdapAtt(info);
    std::strcpy(info.basedn, "o=Acme,c=CN");  // c=CN does not exist
    ldap.SetLdapAtt(info);
    EXPECT_EQ(QORLDAP_E_ROOT, ldap.ConnectLdap());
    EXPECT_EQ(QORLDAP_E_FAILED, ldap.DeleteLdap("cn=nobody,o=root"));
    EXPECT_EQ(QORLDAP_E_ROOT, ldap.ConnectLdap());  // tried again, refused again
    // A dc= base (or "O" in capitals) passes unchecked even though it does not exist.
    std::strcpy(info.basedn, "dc=example,dc=com");
    ldap.SetLdapAtt(info);
    EXPECT_EQ(0, ldap.ConnectLdap());
    CLdap upper;
    upper.GetLdapAtt(info);
    std::strcpy(info.basedn, "O=Nowhere,c=XX");
    upper.SetLdapAtt(info);
    EXPECT_EQ(0, upper.ConnectLdap());
    CLdap equals;
    std::strcpy(info.basedn, "=Acme");
    equals.SetLdapAtt(info);
    EXPECT_EQ(QORLDAP_E_ROOT, equals.ConnectLdap());
}

}  // namespace
