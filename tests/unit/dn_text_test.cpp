// Names and subjects are taken apart as plain text; these tables pin the quirks callers rely on.
#include <gtest/gtest.h>

#include <string>

#include "engine/LdapOp.h"

namespace {

struct FilterCase {
    char const* dn;
    int index;
    bool result;
    char const* type;   // expected type, or the untouched marker
    char const* value;  // expected value, or the untouched marker
};

TEST(DnText, GetFilterTakesOneComponentWithoutEscapingOrTrimming) {
    std::string fifty_one;
    for (int i = 0; i <= 50; ++i) {
        fifty_one +=
            (i ? "," : "") + std::string("c") + std::to_string(i) + "=v" + std::to_string(i);
    }
    FilterCase const cases[] = {
        {"cn=Li Lei,ou=Sales,o=Acme", 0, true, "cn", "Li Lei"},
        {"cn=Li Lei,ou=Sales,o=Acme", 2, true, "o", "Acme"},
        {"cn=Li Lei,ou=Sales,o=Acme", 3, true, "-", "-"},  // fewer components: untouched
        {"cn=a, o=b", 1, true, " o", "b"},                 // the blank stays with the type
        {"o=Acme", 0, true, "o", "Acme"},
        {"=x", 0, false, "-", "-"},
        {"Acme", 0, true, "Acme", "Acme"},
        {"", 0, true, "", ""},
        {",o=b", 0, true, "", ""},
        {"o=b,", 1, true, "", ""},  // the empty last component counts
        {"cn=a=b,o=c", 0, true, "cn", "a=b"},
        {"cn=a\\,b,o=c", 1, true, "b", "b"},  // a backslash does not escape the comma
        {fifty_one.c_str(), 50, true, "c50", "v50"},
        {fifty_one.c_str(), 51, false, "-", "-"},
        {"cn=a", -1, false, "-", "-"},
        {nullptr, 0, false, "-", "-"},
    };
    for (FilterCase const& c : cases) {
        std::string value = "-";
        std::string type = "-";
        SCOPED_TRACE(c.dn ? c.dn : "(null)");
        EXPECT_EQ(c.result, CLdapOp::GetFilter(c.dn, c.index, value, type)) << c.index;
        EXPECT_EQ(c.type, type);
        EXPECT_EQ(c.value, value);
    }
}

TEST(DnText, GetParentDnCutsTheFirstComponent) {
    struct {
        char const* dn;
        bool result;
        char const* parent;
    } const cases[] = {
        {"cn=Li Lei,ou=Sales,o=Acme", true, "ou=Sales,o=Acme"},
        {"o=Acme", true, "o=Acme"},  // one component is its own parent
        {"cn=a, o=b", true, " o=b"},
        {",o=b", false, "-"},
        {"", true, ""},
        {nullptr, false, "-"},
    };
    for (auto const& c : cases) {
        std::string parent = "-";
        EXPECT_EQ(c.result, CLdapOp::GetParentDN(c.dn, parent)) << (c.dn ? c.dn : "(null)");
        EXPECT_EQ(c.parent, parent);
    }
}

TEST(DnText, ParseSubjectMatchesLinePrefixesAndFoldsCase) {
    struct {
        char const* subject;
        char const* key;
        bool result;
        char const* value;
    } const cases[] = {
        {"C=CN\nO=Acme\nOU=Sales\nCN=Li Lei", "o", true, "acme"},
        {"C=CN\nO=Acme\nOU=Sales\nCN=Li Lei", "OU", true, "sales"},
        {"C=CN\nO=Acme\nOU=Sales\nCN=Li Lei", "cn", true, "li lei"},
        {"CN=Li\nO=Acme", "cn", true, "li"},       // the first line only when no other matches
        {"o=Acme\nou=Sales", "o", true, "sales"},  // a later line wins over the first
        {"cn=user1\no=org1", "ou", false, "-"},
        {"cn=a\r\no=b", "cn", true, "a\r"},      // a carriage return is ordinary text
        {"cn = x", "cn", true, " x"},            // blanks around "=" stay
        {"C=CN\ncnx", "cn", true, "c=cn\ncnx"},  // no "=" after the match: whole subject
        {"", "cn", false, "-"},
    };
    for (auto const& c : cases) {
        std::string value = "-";
        EXPECT_EQ(c.result, CLdapOp::ParseSubject(c.subject, c.key, value)) << c.subject;
        EXPECT_EQ(c.value, value) << c.subject;
    }
}

TEST(DnText, MakeLowerFoldsAsciiLettersOnly) {
    std::string text = "AZaz@[`{\x80\xff\xb0\xa1";
    CLdapOp::MakeLower(text);
    EXPECT_EQ("azaz@[`{\x80\xff\xb0\xa1", text);
    EXPECT_TRUE(CLdapOp::CompareNameSame("CN=Li", "cn=li"));
    EXPECT_FALSE(CLdapOp::CompareNameSame("cn=li", "cn=lu"));
    EXPECT_FALSE(CLdapOp::CompareNameSame(nullptr, "x"));
}

}  // namespace
