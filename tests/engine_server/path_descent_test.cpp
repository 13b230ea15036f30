// Organisation path creation and lookup by descent, inside the engine, on the real directory.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "engine/LdapOp.h"
#include "tests/support/Directory.h"
#include "tests/support/TestFiles.h"

namespace {

using qortest::ConfDir;
using qortest::Directory;
using qortest::ScratchDir;

std::string const kThreeLevels =
    "[base]\nsum=3\nA0=organization\nA1=organizationalUnit\nA2=qorPerson\n"
    "[organization]\nsum=2\nA0=o,s,2\nA1=description,s,1\n"
    "[organizationalUnit]\nsum=1\nA0=ou,s,2\n"
    "[qorPerson]\nsum=3\nA0=cn,s,2\nA1=sn,s,1\nA2=mail,s,0\n";

class EngineOnServer : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(dir_.Ready()); }

    // An engine on the test directory with its own templates, working under base.
    std::unique_ptr<CLdapOp> Engine(std::string const& ldapIni, std::string const& base) {
        conf_.Write("soap.ini", qortest::ReadFile(dir_.ConfDir() + "/soap.ini"));
        conf_.Write("ldap.ini", ldapIni);
        ConfDir use(conf_.Path());
        std::unique_ptr<CLdapOp> op(new CLdapOp());
        // The parent of every test base is the directory's own base, created by a first connect.
        CLdapOp root;
        EXPECT_EQ(0, root.ConnectLdap());
        LdapInfo info;
        op->GetLdapAtt(info);
        std::strcpy(info.basedn, base.c_str());
        op->SetLdapAtt(info);
        EXPECT_EQ(0, op->ConnectLdap());
        return op;
    }
    bool Exists(std::string const& dn) {
        return dir_.Search(dn, "base", "(objectClass=*)", "1.1").find("dn:") != std::string::npos;
    }
    Directory dir_;
    ScratchDir conf_;
};

TEST_F(EngineOnServer, SubjectLevelsAreCreatedInOrderOnceEach) {
    std::string base = "o=paths," + dir_.Base();
    auto op = Engine(kThreeLevels, base);
    ASSERT_EQ(3, op->TemplateCount());
    std::string dn = "unchanged";
    ASSERT_EQ(0, op->InsertOrganization("cn=user1\no=org1\nou=unit1", dn));
    EXPECT_EQ("cn=user1, ou=unit1, o=org1, " + base, dn);
    EXPECT_TRUE(Exists("o=org1," + base));
    EXPECT_TRUE(Exists("ou=unit1,o=org1," + base));
    std::string ldif = dir_.Search("o=org1," + base, "base", "(objectClass=*)", "*");
    EXPECT_NE(std::string::npos, ldif.find("objectClass: organization")) << ldif;
    EXPECT_NE(std::string::npos, ldif.find("o: org1")) << ldif;

    // Every level exists now: nothing is inserted (an insert of an existing level would fail).
    std::string again;
    EXPECT_EQ(0, op->InsertOrganization("cn=user1\no=org1\nou=unit1", again));
    EXPECT_EQ(dn, again);

    // No ou line: the placeholder level "Other", and the user below it.
    ASSERT_EQ(0, op->InsertOrganization("C=CN\nO=Org1\nCN=User2", dn));
    EXPECT_EQ("cn=user2, ou=Other, o=org1, " + base, dn);
    EXPECT_TRUE(Exists("ou=Other,o=org1," + base));

    // A path that would not fit 255 characters is refused, never cut.
    std::string longName(240, 'n');
    EXPECT_EQ(QORLDAP_E_FAILED,
              op->InsertOrganization(("c=cn\no=org1\nou=" + longName).c_str(), dn));
    EXPECT_EQ("o=org1, " + base, dn);  // the last level that was found
    // With the O line first, key "o" takes the later OU line: the quirk of prefix matching.
    EXPECT_EQ(QORLDAP_E_FAILED, op->InsertOrganization(("o=org1\nou=" + longName).c_str(), dn));
    EXPECT_EQ("o=org1, " + base, dn);  // refused at the first level: dn as it was
}

TEST_F(EngineOnServer, NoTemplatesMeansNoPathAndNoDn) {
    auto op = Engine("[base]\nsum=0\n", dir_.Base());
    std::string dn = "unchanged";
    EXPECT_EQ(0, op->InsertOrganization("cn=a\nou=b", dn));
    EXPECT_EQ("unchanged", dn);
    EXPECT_EQ(QORLDAP_E_FAILED, op->GetFullDN("cn=a", dn));
}

TEST_F(EngineOnServer, DescentFindsTheFirstUserInDirectoryOrder) {
    std::string base = "o=descent," + dir_.Base();
    std::string ini = qortest::ReadFile(dir_.ConfDir() + "/ldap.ini");
    auto op = Engine(ini, base);
    ASSERT_EQ(2, op->TemplateCount());
    std::string dn;
    ASSERT_EQ(0, op->InsertOrganization("C=CN\nO=Acme\nOU=Dept1\nCN=Zhang San", dn));
    ASSERT_EQ(0, op->InsertOrganization("C=CN\nO=Acme\nOU=Dept2\nCN=Zhang San", dn));
    ASSERT_EQ(0, op->InsertOrganization("C=CN\nO=Acme\nOU=Dept2\nCN=Li Si", dn));

    std::string found = "untouched";
    ASSERT_EQ(0, op->GetFullDN("cn=zhang san", found));
    EXPECT_EQ("cn=zhang san, ou=dept1," + base, found);
    ASSERT_EQ(0, op->GetFullDN("cn=li si,ou=anything", found));
    EXPECT_EQ("cn=li si, ou=dept2," + base, found);
    found = "untouched";
    EXPECT_EQ(QORLDAP_E_FAILED, op->GetFullDN("cn=nobody", found));
    EXPECT_EQ(QORLDAP_E_FAILED, op->GetFullDN("ou=dept1", found));
    EXPECT_EQ("untouched", found);

    unsigned char* key = nullptr;
    unsigned int length = 0;
    std::string at;
    EXPECT_FALSE(op->GetChildKey(base.c_str(), 3, "zhang san", "cn", key, length, at));
    EXPECT_TRUE(op->GetChildKey(base.c_str(), 0, "zhang san", "cn", key, length, at));
    EXPECT_EQ("zhang san", std::string(reinterpret_cast<char*>(key), length));
    op->FreeKey(key);
}

}  // namespace
