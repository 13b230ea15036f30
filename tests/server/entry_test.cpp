// Selecting, listing, inserting, modifying and deleting entries on the real directory.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

namespace {

using qortest::Directory;
using qortest::Record;

class Entries : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.Ready());
        ASSERT_EQ(0, ldap_.ConnectLdap());
        unit_ = std::string("ou=") +
                ::testing::UnitTest::GetInstance()->current_test_info()->name() + "," + dir_.Base();
        Record ou("organizationalUnit", {{"ou", unit_.substr(3, unit_.find(',') - 3)}});
        ldap_.InsertLdap(unit_.c_str(), ou.att, false, nullptr, 0, nullptr, 0, nullptr, 0);
    }
    Directory dir_;
    CLdap ldap_;
    std::string unit_;
};

TEST_F(Entries, SelectGivesAttributeNamesTemplateAndParent) {
    std::string dn = "cn=Select Me," + unit_;
    Record person("qorPerson", {{"cn", "Select Me"}, {"sn", "Me"}, {"mail", "me@example.org"}});
    unsigned char key[] = {0x30, 0x00, 0x02, 0x00};  // zero bytes, as in every DER key
    ASSERT_EQ(0, ldap_.InsertLdap(dn.c_str(), person.att, false, nullptr, 0, nullptr, 0, key, 4));

    tagAtt att = {};
    ASSERT_EQ(0, ldap_.SelectLdap(dn.c_str(), att));
    ASSERT_EQ(5, att.itemCount);
    std::set<std::string> names;
    for (int i = 0; i < att.itemCount; ++i) {
        names.insert(att.items[i].type);
        EXPECT_STREQ("", att.items[i].value);
    }
    EXPECT_EQ((std::set<std::string>{"objectClass", "cn", "sn", "mail", "signPrikey;binary"}),
              names);
    EXPECT_STREQ("qorPerson", att.objectClass);
    EXPECT_STREQ("cn", att.namingAtt);
    EXPECT_EQ(1, att.templateIndex);
    EXPECT_EQ(2, att.templateCount);
    EXPECT_EQ(dn, att.dn);
    EXPECT_EQ(unit_, att.parentDn);
    ldap_.FreeAtt(&att);
    EXPECT_EQ(nullptr, att.items);
    EXPECT_EQ(0, att.itemCount);
    EXPECT_STREQ("qorPerson", att.objectClass);  // the names stay
    ldap_.FreeAtt(&att);                         // twice is harmless

    // A missing DN: 0 with nothing found; a DN beginning with "=" or too long: refused.
    tagAtt none = {};
    EXPECT_EQ(0, ldap_.SelectLdap(("cn=ghost," + unit_).c_str(), none));
    EXPECT_EQ(0, none.itemCount);
    EXPECT_STREQ("", none.dn);
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap("=x,o=root", none));
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap((char const*)nullptr, none));
    std::string longDn = "cn=" + std::string(256, 'a') + "," + unit_;
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap(longDn.c_str(), none));
    std::string longType = std::string(28, 't') + "=x," + unit_;  // filter buffer holds 27
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap(longType.c_str(), none));
}

TEST_F(Entries, ChildrenAreListedWithTheirBase) {
    for (char const* name : {"Child A", "Child B", "Child C"}) {
        Record person("qorPerson", {{"cn", name}, {"sn", "x"}});
        ASSERT_EQ(0, ldap_.InsertLdap(("cn=" + std::string(name) + "," + unit_).c_str(), person.att,
                                      false, nullptr, 0, nullptr, 0, nullptr, 0));
    }
    tagDN* list = nullptr;
    int count = -1;
    ASSERT_EQ(0, ldap_.SelectLdap(unit_.c_str(), nullptr, list, count));
    ASSERT_EQ(3, count);
    std::set<std::string> dns;
    for (int i = 0; i < count; ++i) {
        dns.insert(list[i].dn);
        EXPECT_EQ(unit_, list[i].baseDn);
    }
    EXPECT_EQ(1u, dns.count("cn=Child B," + unit_));
    ldap_.FreeDN(list, count);

    // A leaf: 0, count 0, list untouched. A missing DN: refused, count and list untouched.
    tagDN* untouched = reinterpret_cast<tagDN*>(8);
    count = -1;
    EXPECT_EQ(0, ldap_.SelectLdap(("cn=Child A," + unit_).c_str(), "ignored", untouched, count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(reinterpret_cast<tagDN*>(8), untouched);
    count = -1;
    EXPECT_EQ(QORLDAP_E_FAILED,
              ldap_.SelectLdap(("ou=ghost," + unit_).c_str(), nullptr, untouched, count));
    EXPECT_EQ(-1, count);
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap("", nullptr, untouched, count));
}

TEST_F(Entries, InsertStoresItemsPasswordAndKeyAndRefusesAnExistingEntry) {
    std::string dn = "cn=Inserted," + unit_;
    Record person("qorPerson", {{"cn", "Inserted"}, {"sn", "S"}, {"description", ""}});
    std::string password = "pw-bytes";
    std::string priv("\x30\x82\x00\x01\x00", 5);
    std::string cert = "certificate";
    auto u = [](std::string& s) { return reinterpret_cast<unsigned char*>(&s[0]); };
    ASSERT_EQ(0, ldap_.InsertLdap(dn.c_str(), person.att, true, u(password), 8, u(cert),
                                  static_cast<unsigned>(cert.size()), u(priv), 5));
    EXPECT_EQ(std::vector<std::string>{priv}, dir_.Values(dn, "cryptPrikey;binary"));
    EXPECT_EQ(std::vector<std::string>{password}, dir_.Values(dn, "userPsw;binary"));
    EXPECT_EQ(std::vector<std::string>{cert}, dir_.Values(dn, "cryptPubcer;binary"));
    EXPECT_TRUE(dir_.Values(dn, "signPrikey;binary").empty());
    std::string ldif = dir_.Search(dn, "base", "(objectClass=*)", "sn description");
    EXPECT_NE(std::string::npos, ldif.find("sn: S")) << ldif;
    EXPECT_EQ(std::string::npos, ldif.find("description")) << ldif;  // empty values skipped

    EXPECT_EQ(QORLDAP_E_FAILED,
              ldap_.InsertLdap(dn.c_str(), person.att, false, nullptr, 0, nullptr, 0, nullptr, 0));
    // A one-byte value counts as none.
    std::string dn2 = "cn=Short Key," + unit_;
    Record other("qorPerson", {{"cn", "Short Key"}, {"sn", "S"}});
    ASSERT_EQ(0,
              ldap_.InsertLdap(dn2.c_str(), other.att, false, nullptr, 0, nullptr, 0, u(priv), 1));
    EXPECT_TRUE(dir_.Values(dn2, "signPrikey;binary").empty());
    EXPECT_EQ(QORLDAP_E_FAILED,
              ldap_.InsertLdap(nullptr, other.att, false, nullptr, 0, nullptr, 0, nullptr, 0));
}

TEST_F(Entries, ModifyAndDeleteReturnTheDirectorysCodes) {
    std::string dn = "cn=Changing," + unit_;
    Record person("qorPerson", {{"cn", "Changing"}, {"sn", "Before"}, {"mail", "a@b"}});
    ASSERT_EQ(0,
              ldap_.InsertLdap(dn.c_str(), person.att, false, nullptr, 0, nullptr, 0, nullptr, 0));
    // GB2312 text goes to the directory as UTF-8.
    Record change("qorPerson",
                  {{"sn", "After"}, {"description", "\xd6\xd0\xce\xc4"}, {"mail", ""}});
    EXPECT_EQ(0, ldap_.ModifyLdap(dn.c_str(), change.att));
    std::string ldif = dir_.Search(dn, "base", "(objectClass=*)", "sn mail description");
    EXPECT_NE(std::string::npos, ldif.find("sn: After")) << ldif;
    EXPECT_NE(std::string::npos, ldif.find("mail: a@b")) << ldif;  // an empty item removes nothing
    EXPECT_EQ(std::vector<std::string>{"\xe4\xb8\xad\xe6\x96\x87"}, dir_.Values(dn, "description"));

    EXPECT_EQ(32, ldap_.ModifyLdap(("cn=ghost," + unit_).c_str(), change.att));
    EXPECT_EQ(66, ldap_.DeleteLdap(unit_.c_str()));  // still has a child
    EXPECT_EQ(0, ldap_.DeleteLdap(dn.c_str()));
    EXPECT_EQ(32, ldap_.DeleteLdap(dn.c_str()));
    EXPECT_EQ(0, ldap_.DeleteLdap(unit_.c_str()));
}

}  // namespace
