// The calls behind each operation of a connected engine: key reads and writes, entry writes,
// lookups and the refusal of names before any call. Every object the library hands out must be
// released exactly once.
#include <cstdio>
#include <cstring>
#include <utility>

#include "tests/fake/FakeHarness.h"

namespace fakeldap {
namespace {

char const kUser[] = "cn=Li Lei,ou=Sales,o=root";
char const kSales[] = "ou=Sales,o=root";

class Operations : public FakeTest {
  protected:
    void SetUp() override { op_ = Connected(); }
    std::unique_ptr<CLdapOp> op_;
};

// ---- key reads ---------------------------------------------------------------------------

TEST_F(Operations, KeyReadSearchesTheEntryAndReturnsTheValueByteForByte) {
    std::string const cert("\x30\x00\x82\x00\xff", 5);
    Fake().add_entry(kUser);
    Fake().add_value("cn", "Li Lei");
    Fake().add_value("signPubcer;binary", cert);
    int const baseline = Fake().outstanding();

    unsigned char* key = nullptr;
    unsigned int length = 0;
    ASSERT_EQ(QORLDAP_OK, op_->GetSignPublicKey(kUser, key, length));
    ASSERT_NE(nullptr, key);
    EXPECT_EQ(cert, std::string(reinterpret_cast<char*>(key), length));
    op_->FreeKey(key);

    Lines const walk = Lines{"ldap_first_attribute -> cn"} + AttrRead("cn", 1, true) +
                       Lines{"ldap_next_attribute -> signPubcer;binary"} +
                       AttrRead("signPubcer;binary", 1, true) +
                       Lines{"ldap_next_attribute -> null", "ber_free freebuf=0", "ldap_msgfree"};
    EXPECT_EQ(Lines{SearchLine(kUser, 0, "(signPubcer;binary=*)")} + walk, Fake().log_lines());
    EXPECT_EQ(baseline, Fake().outstanding()) << Fake().log();
}

TEST_F(Operations, KeyReadTakesOnlyTheExactAttributeNameAndItsFirstValue) {
    struct Case {
        char const* what;
        std::vector<std::pair<std::string, std::string>> values;
        char const* expected;  // null: no key
    } const cases[] = {
        {"other letter case", {{"signpubcer;binary", "abc"}}, nullptr},
        {"no option", {{"signPubcer", "abc"}}, nullptr},
        {"two values", {{"signPubcer;binary", "first"}, {"signPubcer;binary", "second"}}, "first"},
    };
    for (Case const& c : cases) {
        Fake().reset();
        Fake().add_entry(kUser);
        for (auto const& v : c.values)
            Fake().add_value(v.first, v.second);
        unsigned char* key = nullptr;
        unsigned int length = 7;
        EXPECT_EQ(QORLDAP_OK, op_->GetSignPublicKey(kUser, key, length)) << c.what;
        std::string got = key ? std::string(reinterpret_cast<char*>(key), length) : "<none>";
        EXPECT_EQ(c.expected ? c.expected : "<none>", got) << c.what;
        if (!key) {
            EXPECT_EQ(0u, length) << c.what;
        }
        op_->FreeKey(key);
        EXPECT_EQ(0, Fake().outstanding()) << c.what << ":\n" << Fake().log();
        EXPECT_EQ(0, Fake().errors()) << c.what << ":\n" << Fake().log();
    }
}

TEST_F(Operations, KeyReadWithAFailedSearchReleasesTheResultAndReportsTheSearch) {
    Fake().push_result("ldap_search_ext_s", 32);
    unsigned char buffer[4] = {};
    unsigned char* key = buffer;
    unsigned int length = 4;
    EXPECT_EQ(QORLDAP_E_KEY_SEARCH, op_->GetSignPublicKey(kUser, key, length));
    EXPECT_EQ(nullptr, key);
    EXPECT_EQ(0u, length);
    EXPECT_EQ((Lines{SearchLine(kUser, 0, "(signPubcer;binary=*)"), "ldap_msgfree"}),
              Fake().log_lines());
    EXPECT_EQ(0, Fake().outstanding()) << Fake().log();
}

TEST_F(Operations, RefusedNamesAreNeverSearched) {
    for (char const* name : {"ou=x,o=root", "CN=x", ""}) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        EXPECT_EQ(QORLDAP_E_FAILED, op_->GetSignPublicKey(name, key, length)) << name;
    }
    std::string dn;
    EXPECT_EQ(QORLDAP_E_FAILED, op_->GetFullDN("uid=x", dn));
    EXPECT_EQ(Lines{}, Fake().log_lines());

    // Without templates even a cn name is refused.
    std::remove(dir_.File("ldap.ini").c_str());
    std::unique_ptr<CLdapOp> bare = Connected();
    unsigned char* key = nullptr;
    unsigned int length = 0;
    EXPECT_EQ(QORLDAP_E_FAILED, bare->GetSignPublicKey(kUser, key, length));
    EXPECT_EQ(Lines{}, Fake().log_lines());
}

// ---- key writes --------------------------------------------------------------------------

TEST_F(Operations, KeyWritesReplaceOneBinaryValueAndPassTheDirectoryCodeOn) {
    unsigned char const key[5] = {1, 0, 2, 0, 3};
    EXPECT_EQ(QORLDAP_OK, op_->ModifySignPublicKey(kUser, key, sizeof key));
    EXPECT_EQ(Lines{std::string("ldap_modify_s dn=") + kUser +
                    " mods=[op=0x82 type=signPubcer;binary bvals=1:len=5]"},
              Fake().log_lines());
    EXPECT_EQ(std::string("\1\0\2\0\3", 5), Fake().written_value("signPubcer;binary"));

    Fake().clear_log();
    EXPECT_EQ(QORLDAP_E_FAILED, op_->ModifySignPublicKey(kUser, key, 0));
    EXPECT_EQ(QORLDAP_E_FAILED, op_->ModifySignPublicKey(kUser, nullptr, 5));
    EXPECT_EQ(Lines{}, Fake().log_lines());

    Fake().set_result("ldap_modify_s", 32);
    EXPECT_EQ(32, op_->ModifySignPublicKey(kUser, key, sizeof key));

    Fake().set_result("ldap_modify_s", 0);
    Fake().clear_log();
    EXPECT_EQ(QORLDAP_OK, op_->DeleteSignPrivateKey(kUser));
    EXPECT_EQ(Lines{std::string("ldap_modify_s dn=") + kUser +
                    " mods=[op=0x82 type=signPrikey;binary bvals=0]"},
              Fake().log_lines());
}

// ---- entry writes ------------------------------------------------------------------------

struct Record {
    std::vector<tagAttItem> items;
    tagAtt att;
    Record(std::vector<std::pair<char const*, char const*>> const& values, char const* objectClass)
        : items(values.size()) {
        std::memset(&att, 0, sizeof att);
        for (std::size_t i = 0; i < values.size(); ++i) {
            std::snprintf(items[i].type, sizeof items[i].type, "%s", values[i].first);
            std::snprintf(items[i].value, sizeof items[i].value, "%s", values[i].second);
        }
        att.items = items.data();
        att.itemCount = static_cast<int>(items.size());
        std::snprintf(att.objectClass, sizeof att.objectClass, "%s", objectClass);
    }
};

TEST_F(Operations, InsertSendsTextValuesThenTheBinaryOnesInAFixedOrder) {
    Record sales({{"ou", "Sales"}, {"description", ""}}, "organizationalUnit");
    std::string privateKey(600, '\0');
    for (std::size_t i = 0; i < privateKey.size(); ++i)
        privateKey[i] = static_cast<char>(i * 7);
    auto* priv = reinterpret_cast<unsigned char*>(&privateKey[0]);
    unsigned char oneByte[1] = {'p'};
    std::string const text = std::string("ldap_add_s dn=") + kSales +
                             " mods=[op=0x2 type=ou vals=Sales][op=0x2 type=objectClass "
                             "vals=organizationalUnit]";

    EXPECT_EQ(QORLDAP_OK,
              op_->InsertLdap(kSales, sales.att, false, oneByte, 1, nullptr, 0, priv, 600));
    EXPECT_EQ(Lines{text + "[op=0x82 type=signPrikey;binary bvals=1:len=600]"}, Fake().log_lines());
    EXPECT_EQ(privateKey, Fake().written_value("signPrikey;binary"));

    std::string password = "8 bytes!";
    std::string publicKey(300, 'c');
    Fake().clear_log();
    EXPECT_EQ(
        QORLDAP_OK,
        op_->InsertLdap(kSales, sales.att, true, reinterpret_cast<unsigned char*>(&password[0]), 8,
                        reinterpret_cast<unsigned char*>(&publicKey[0]), 300, priv, 600));
    EXPECT_EQ(Lines{text + "[op=0x82 type=cryptPrikey;binary bvals=1:len=600]"
                           "[op=0x82 type=userPsw;binary bvals=1:len=8]"
                           "[op=0x82 type=cryptPubcer;binary bvals=1:len=300]"},
              Fake().log_lines());
    EXPECT_EQ(password, Fake().written_value("userPsw;binary"));
    EXPECT_EQ(publicKey, Fake().written_value("cryptPubcer;binary"));

    Fake().set_result("ldap_add_s", 68);
    EXPECT_EQ(QORLDAP_E_FAILED,
              op_->InsertLdap(kSales, sales.att, false, nullptr, 0, nullptr, 0, priv, 600));
}

TEST_F(Operations, ModifyAndDeleteReturnTheDirectoryCode) {
    Record empty({{"", ""}, {"ou", ""}}, "");
    Fake().set_result("ldap_modify_s", 53);
    EXPECT_EQ(53, op_->ModifyLdap(kSales, empty.att));
    EXPECT_EQ(Lines{std::string("ldap_modify_s dn=") + kSales + " mods=(empty)"},
              Fake().log_lines());

    Fake().clear_log();
    Fake().set_result("ldap_delete_s", 66);
    EXPECT_EQ(66, op_->DeleteLdap(kSales));
    EXPECT_EQ(Lines{std::string("ldap_delete_s dn=") + kSales}, Fake().log_lines());
}

// ---- lookups -----------------------------------------------------------------------------

TEST_F(Operations, SelectLdapAttWalksTwiceAndTakesTheLastNamedTemplate) {
    struct {
        char const* first;
        char const* second;
        char const* objectClass;
        char const* namingAtt;
        int templateIndex;
    } const cases[] = {{"organizationalUnit", "qorPerson", "qorPerson", "cn", 1},
                       {"qorPerson", "organizationalUnit", "organizationalUnit", "ou", 0}};
    Lines const pass = Lines{"ldap_first_attribute -> cn"} + AttrRead("cn", 1, false) +
                       Lines{"ldap_next_attribute -> objectClass"} +
                       AttrRead("objectClass", 2, false) +
                       Lines{"ldap_next_attribute -> null", "ber_free freebuf=0"};
    Lines const expected =
        Lines{SearchLine(kUser, 0, "(cn=*)")} + pass + pass + Lines{"ldap_msgfree"};

    for (auto const& c : cases) {
        Fake().reset();
        Fake().add_entry(kUser);
        Fake().add_value("cn", "Li Lei");
        Fake().add_value("objectClass", c.first);
        Fake().add_value("objectClass", c.second);
        tagAtt att;
        std::memset(&att, 0, sizeof att);
        ASSERT_EQ(QORLDAP_OK, op_->SelectLdapAtt(kUser, att));
        EXPECT_EQ(expected, Fake().log_lines());
        EXPECT_EQ(0, Fake().outstanding()) << Fake().log();
        ASSERT_EQ(2, att.itemCount);
        EXPECT_STREQ("cn", att.items[0].type);
        EXPECT_STREQ("objectClass", att.items[1].type);
        EXPECT_STREQ(c.objectClass, att.objectClass);
        EXPECT_STREQ(c.namingAtt, att.namingAtt);
        EXPECT_EQ(c.templateIndex, att.templateIndex);
        EXPECT_STREQ(kUser, att.dn);
        EXPECT_STREQ(kSales, att.parentDn);
        op_->FreeAtt(&att);
    }
}

TEST_F(Operations, SelectLdapAttWithAFailedSearchLeavesTheCount) {
    tagAtt att;
    std::memset(&att, 0, sizeof att);
    att.itemCount = 7;
    Fake().push_result("ldap_search_ext_s", 32);
    EXPECT_EQ(QORLDAP_OK, op_->SelectLdapAtt(kUser, att));
    EXPECT_EQ(7, att.itemCount);
    EXPECT_EQ((Lines{SearchLine(kUser, 0, "(cn=*)"), "ldap_msgfree"}), Fake().log_lines());
}

// A search that succeeds without an entry (the filter excluded it) hands back a chain holding
// only the final result: there is no entry whose attributes could be walked.
// A search that found nothing hands back only its final result; the attribute walk then ends at
// once (libldap answers null) and everything is released.
TEST_F(Operations, SearchWithoutEntryEndsTheWalkAtOnce) {
    unsigned char* key = nullptr;
    unsigned int length = 9;
    EXPECT_EQ(QORLDAP_OK, op_->GetSignPublicKey(kUser, key, length));
    EXPECT_EQ(nullptr, key);
    EXPECT_EQ(0u, length);
    EXPECT_EQ(0, Fake().errors()) << "key read:\n" << Fake().log();

    Fake().reset();
    tagAtt att;
    std::memset(&att, 0, sizeof att);
    att.itemCount = 7;
    EXPECT_EQ(QORLDAP_OK, op_->SelectLdapAtt(kUser, att));
    EXPECT_EQ(0, att.itemCount);
    EXPECT_EQ(nullptr, att.items);
    EXPECT_EQ(0, Fake().outstanding()) << Fake().log();
}

TEST_F(Operations, SelectLdapListsTheChildrenByName) {
    Fake().add_entry("cn=A,ou=Sales,o=root");
    Fake().add_entry("cn=B,ou=Sales,o=root");
    tagDN* list = nullptr;
    int count = 0;
    ASSERT_EQ(QORLDAP_OK, op_->SelectLdap(kSales, nullptr, list, count));
    ASSERT_EQ(2, count);
    ASSERT_NE(nullptr, list);
    EXPECT_STREQ("cn=A,ou=Sales,o=root", list[0].dn);
    EXPECT_STREQ("cn=B,ou=Sales,o=root", list[1].dn);
    EXPECT_STREQ(kSales, list[1].baseDn);
    op_->FreeDN(list, count);
    EXPECT_EQ(
        (Lines{SearchLine(kSales, 1, "(|(ou=*)(cn=*))"), "ldap_count_entries -> 2",
               "ldap_first_entry -> cn=A,ou=Sales,o=root", "ldap_get_dn -> cn=A,ou=Sales,o=root",
               "ldap_memfree", "ldap_next_entry -> cn=B,ou=Sales,o=root",
               "ldap_get_dn -> cn=B,ou=Sales,o=root", "ldap_memfree", "ldap_next_entry -> null",
               "ldap_msgfree"}),
        Fake().log_lines());
    EXPECT_EQ(0, Fake().outstanding()) << Fake().log();

    Fake().reset();
    tagDN untouched[1];
    list = untouched;
    count = 5;
    EXPECT_EQ(QORLDAP_OK, op_->SelectLdap(kSales, nullptr, list, count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(untouched, list);
    EXPECT_EQ((Lines{SearchLine(kSales, 1, "(|(ou=*)(cn=*))"), "ldap_count_entries -> 0",
                     "ldap_msgfree"}),
              Fake().log_lines());
}

// A DN fits a record's 255-character name field or is refused before any search; a child DN
// that does not fit is left empty in its element rather than cut into another name.
TEST_F(Operations, NamesAtTheFieldBoundAreSearchedAndOneMoreIsRefused) {
    std::string const at = "cn=" + std::string(245, 'a') + ",o=root";
    std::string const over = "cn=" + std::string(246, 'a') + ",o=root";
    ASSERT_EQ(255u, at.size());
    ASSERT_EQ(256u, over.size());
    tagAtt att;
    std::memset(&att, 0, sizeof att);
    EXPECT_EQ(QORLDAP_OK, op_->SelectLdapAtt(at.c_str(), att));
    EXPECT_EQ(1, Fake().calls("ldap_search_ext_s"));
    EXPECT_EQ(QORLDAP_E_FAILED, op_->SelectLdapAtt(over.c_str(), att));
    tagDN* list = nullptr;
    int count = 0;
    EXPECT_EQ(QORLDAP_E_FAILED, op_->SelectLdap(over.c_str(), nullptr, list, count));
    EXPECT_EQ(1, Fake().calls("ldap_search_ext_s"));

    Fake().reset();
    Fake().add_entry(at.c_str());
    Fake().add_entry(over.c_str());
    ASSERT_EQ(QORLDAP_OK, op_->SelectLdap(kSales, nullptr, list, count));
    ASSERT_EQ(2, count);
    EXPECT_EQ(at, list[0].dn);
    EXPECT_STREQ("", list[1].dn);
    op_->FreeDN(list, count);
}

}  // namespace
}  // namespace fakeldap
