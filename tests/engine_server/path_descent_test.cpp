// Organisation path creation and lookup by descent, inside the engine, on the real directory.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "engine/LdapOp.h"
#include "tests/support/Directory.h"

namespace {

// An engine on the test directory with the templates ldapIni, working under base (whose parent,
// the directory's own base, a first connect creates).
std::unique_ptr<CLdapOp> Engine(std::string const& ldapIni, std::string const& base) {
    qortest::Directory dir;
    qortest::ScratchDir conf;
    conf.Write("soap.ini", qortest::ReadFile(dir.Var("QORLDAP_CONF_DIR") + "/soap.ini"));
    conf.Write("ldap.ini", ldapIni);
    qortest::ConfDir use(conf.Path());
    EXPECT_EQ(0, CLdapOp().ConnectLdap());
    std::unique_ptr<CLdapOp> op(new CLdapOp());
    LdapInfo info;
    op->GetLdapAtt(info);
    std::strcpy(info.basedn, base.c_str());
    op->SetLdapAtt(info);
    EXPECT_EQ(0, op->ConnectLdap());
    return op;
}

TEST(EngineOnServer, LevelsAreCreatedOnceEachAndNeverCutAndDescentFindsTheFirstUser) {
    qortest::Directory dir;
    ASSERT_TRUE(dir.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
    std::string base = "o=paths," + dir.Base(), dn, again;
    auto op = Engine(
        "[base]\nsum=2\nA0=organization\nA1=organizationalUnit\n[organization]\n"
        "sum=1\nA0=o,s,2\n[organizationalUnit]\nsum=1\nA0=ou,s,2\n",
        base);
    ASSERT_EQ(0, op->InsertOrganization("cn=user1\no=org1\nou=unit1", dn));
    EXPECT_EQ("ou=unit1, o=org1, " + base, dn);
    EXPECT_EQ(std::vector<std::string>{"organization"},
              dir.Values("o=org1," + base, "objectClass"));
    EXPECT_EQ(std::vector<std::string>{"unit1"}, dir.Values("ou=unit1,o=org1," + base, "ou"));
    // Every level exists now: nothing is inserted (an insert of an existing level would fail).
    EXPECT_EQ(0, op->InsertOrganization("cn=user1\no=org1\nou=unit1", again));
    EXPECT_EQ(dn, again);
    // No ou line: the placeholder level "Other".
    ASSERT_EQ(0, op->InsertOrganization("C=CN\nO=Org1\nCN=User2", dn));
    EXPECT_EQ("ou=Other, o=org1, " + base, dn);
    // A path over 255 characters is refused, never cut; dn is the last level that was found.
    EXPECT_EQ(QORLDAP_E_FAILED,
              op->InsertOrganization(("c=cn\no=org1\nou=" + std::string(240, 'n')).c_str(), dn));
    EXPECT_EQ("o=org1, " + base, dn);

    // Descent, with the usual templates: the first user of the name in directory order.
    base = "o=descent," + dir.Base();
    op = Engine(qortest::ReadFile(dir.Var("QORLDAP_CONF_DIR") + "/ldap.ini"), base);
    std::string found = "untouched";
    for (char const* subject :
         {"OU=Dept1\nCN=Zhang San", "OU=Dept2\nCN=Zhang San", "OU=Dept2\nCN=Li Si"})
        ASSERT_EQ(0, op->InsertOrganization(subject, dn));
    for (char const* missing : {"cn=nobody", "ou=dept1"})
        EXPECT_EQ(QORLDAP_E_FAILED, op->GetFullDN(missing, found));
    EXPECT_EQ("untouched", found);
    ASSERT_EQ(0, op->GetFullDN("cn=zhang san", found));
    EXPECT_EQ("cn=zhang san, ou=dept1," + base, found);
    ASSERT_EQ(0, op->GetFullDN("cn=li si,ou=anything", found));
    EXPECT_EQ("cn=li si, ou=dept2," + base, found);
    unsigned char* key = nullptr;
    unsigned int length = 0;
    EXPECT_FALSE(op->GetChildKey(base.c_str(), 3, "zhang san", "cn", key, length, found));
    EXPECT_TRUE(op->GetChildKey(base.c_str(), 0, "zhang san", "cn", key, length, found));
    EXPECT_EQ("zhang san", std::string(reinterpret_cast<char*>(key), length));
    op->FreeKey(key);
}

}  // namespace
