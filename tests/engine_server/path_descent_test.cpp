// Organisation path creation and lookup by descent, inside the engine, on the real directory.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "engine/LdapOp.h"
#include "tests/support/Directory.h"

namespace {

// The usual templates (an ou level, then the user), under a base of its own.
TEST(EngineOnServer, LevelsAreCreatedOnceEachAndNeverCutAndDescentFindsTheFirstUser) {
    qortest::Directory dir;
    ASSERT_TRUE(dir.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
    std::string const base = "o=paths," + dir.Base();
    std::string dn, again, found = "untouched";
    EXPECT_EQ(0, CLdapOp().ConnectLdap());
    CLdapOp op;
    LdapInfo info;
    op.GetLdapAtt(info);
    std::strcpy(info.basedn, base.c_str());
    op.SetLdapAtt(info);
    ASSERT_EQ(0, op.ConnectLdap());
    for (char const* subject :
         {"OU=Dept1\nCN=Zhang San", "OU=Dept2\nCN=Zhang San", "C=CN\nO=Acme\nOU=Dept2\nCN=Li Si"})
        ASSERT_EQ(0, op.InsertOrganization(subject, dn));
    EXPECT_EQ("cn=li si, ou=dept2, " + base, dn);
    EXPECT_EQ(std::vector<std::string>{"dept2"}, dir.Values("ou=dept2," + base, "ou"));
    // Every level exists now: nothing is inserted (an insert of an existing level would fail).
    EXPECT_EQ(0, op.InsertOrganization("OU=Dept1\nCN=Zhang San", again));
    EXPECT_EQ("cn=zhang san, ou=dept1, " + base, again);
    // No ou line: the placeholder level "Other".
    ASSERT_EQ(0, op.InsertOrganization("C=CN\nCN=Wang Wu", dn));
    EXPECT_EQ("cn=wang wu, ou=Other, " + base, dn);
    // A path over 255 characters is refused, never cut; dn is the last level that was found.
    EXPECT_EQ(QORLDAP_E_FAILED,
              op.InsertOrganization(("ou=dept1\ncn=" + std::string(240, 'n')).c_str(), dn));
    EXPECT_EQ("ou=dept1, " + base, dn);

    // Descent: the first user of the name in directory order.
    EXPECT_EQ(QORLDAP_E_FAILED, op.GetFullDN("cn=nobody", found));
    EXPECT_EQ("untouched", found);
    ASSERT_EQ(0, op.GetFullDN("cn=zhang san", found));
    EXPECT_EQ("cn=zhang san, ou=dept1," + base, found);
    ASSERT_EQ(0, op.GetFullDN("cn=li si,ou=anything", found));
    EXPECT_EQ("cn=li si, ou=dept2," + base, found);

    // fast_lookup: one search finds what the walk finds for a unique name, and refuses a name
    // two users share where the walk takes the first.
    qortest::ScratchDir conf;
    conf.Write("soap.ini", qortest::ReadFile(dir.Var("QORLDAP_CONF_DIR") + "/soap.ini") +
                               "\nfast_lookup=yes\n");
    conf.Write("ldap.ini", qortest::ReadFile(dir.Var("QORLDAP_CONF_DIR") + "/ldap.ini"));
    qortest::ConfDir use(conf.Path());
    CLdapOp fast;
    fast.SetLdapAtt(info);
    ASSERT_EQ(0, fast.ConnectLdap());
    for (std::string name : {"cn=li si", "cn=wang wu", "cn=zhang san", "cn=nobody", "cn=*"}) {
        std::string walked = "none", looked = "none";
        op.GetFullDN(name.c_str(), walked);
        int rc = fast.GetFullDN(name.c_str(), looked);
        EXPECT_EQ(name == "cn=zhang san" || looked == "none" ? "none" : walked, looked) << name;
        EXPECT_EQ(looked == "none" ? QORLDAP_E_FAILED : 0, rc) << name;
    }
    EXPECT_EQ("cn=wang wu, ou=Other," + base, (fast.GetFullDN("cn=wang wu", found), found));
    unsigned char* key = nullptr;
    unsigned int length = 0;
    EXPECT_FALSE(op.GetChildKey(base.c_str(), 3, "zhang san", "cn", key, length, found));
    EXPECT_TRUE(op.GetChildKey(base.c_str(), 0, "zhang san", "cn", key, length, found));
    EXPECT_EQ("zhang san", std::string(reinterpret_cast<char*>(key), length));
    op.FreeKey(key);
}

}  // namespace
