// The INI reader's rules and the loading of soap.ini and ldap.ini, on files the tests write.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "engine/LdapOp.h"
#include "platform/System.h"
#include "tests/support/TestFiles.h"

namespace {

using qortest::ConfDir;
using qortest::ScratchDir;

std::string Get(std::string const& file, std::string const& section, std::string const& key,
                bool* found = nullptr) {
    std::string value = "<untouched>";
    bool ok = CSystem::GetProfileStrValue(section, key, file, value);
    if (found)
        *found = ok;
    return value;
}

TEST(IniReader, MatchesNamesBlindToCaseAndKeepsValuesWhole) {
    ScratchDir dir;
    std::string longValue(300, 'x');
    std::string file = dir.Write("t.ini",
                                 "; comment\n"
                                 "# another\n"
                                 "[LDAP]\r\n"
                                 "  Host  =  127.0.0.1 ldap2  \r\n"
                                 "psw = p;a#s=s w\n"
                                 "empty=\n"
                                 "noequals\n"
                                 "long=" +
                                     longValue +
                                     "\n"
                                     "host=second\n"
                                     "[ other ]\n"
                                     "psw=nope\n");
    bool found = false;
    EXPECT_EQ("127.0.0.1 ldap2", Get(file, "ldap", "HOST"));
    EXPECT_EQ("p;a#s=s w", Get(file, "ldap", "psw"));
    EXPECT_EQ("", Get(file, "ldap", "empty", &found));
    EXPECT_TRUE(found);
    EXPECT_EQ(longValue, Get(file, "ldap", "long"));
    EXPECT_EQ("nope", Get(file, "Other", "psw"));
    EXPECT_EQ("<untouched>", Get(file, "ldap", "noequals", &found));
    EXPECT_FALSE(found);
    EXPECT_EQ("<untouched>", Get(file, "missing", "host", &found));
    EXPECT_FALSE(found);
    EXPECT_EQ("<untouched>", Get(dir.File("absent.ini"), "ldap", "host", &found));
    EXPECT_FALSE(found);
}

TEST(IniReader, BareNamesResolveThroughTheConfigurationFolder) {
    ScratchDir dir;
    dir.Write("soap.ini", "[ldap]\nhost=from-dir\n");
    ConfDir conf(dir.Path());
    EXPECT_EQ("from-dir", Get("soap.ini", "ldap", "host"));
    EXPECT_EQ(dir.Path() + "/soap.ini", CSystem::ResolveConfigPath("soap.ini"));
    EXPECT_EQ("./x/soap.ini", CSystem::ResolveConfigPath("./x/soap.ini"));
}

TEST(Settings, ReadFromSoapIniCutToTheirFieldsWithStrtolPorts) {
    ScratchDir dir;
    ConfDir conf(dir.Path());
    struct {
        char const* port;
        int expected;
    } const ports[] = {{"389", 389}, {"   389", 389}, {"389abc", 389},
                       {"abc", 0},   {"0x1F", 0},     {"-5", -5}};
    for (auto const& p : ports) {
        dir.Write("soap.ini", std::string("[ldap]\nport=") + p.port + "\n");
        CLdapOp op;
        LdapInfo info;
        op.GetLdapAtt(info);
        EXPECT_EQ(p.expected, info.port) << p.port;
    }
    std::string longDn(300, 'd');
    dir.Write("soap.ini", "[ldap]\nhost=h\nbasedn=" + longDn +
                              "\nmanagerdn=cn=a-very-long-manager-name,o=example\npsw=" +
                              std::string(40, 'p') + "\n");
    CLdapOp op;
    LdapInfo info;
    op.GetLdapAtt(info);
    EXPECT_STREQ("h", info.host);
    EXPECT_EQ(std::string(255, 'd'), info.basedn);
    EXPECT_EQ(32u, std::strlen(info.managerdn));
    EXPECT_EQ(std::string(32, 'p'), info.psw);

    // Without any file the engine is built with empty settings.
    ScratchDir empty;
    ConfDir none(empty.Path());
    CLdapOp bare;
    bare.GetLdapAtt(info);
    EXPECT_STREQ("", info.host);
    EXPECT_EQ(0, info.port);
    EXPECT_EQ(0, bare.TemplateCount());
}

TEST(Settings, EnginesKeepTheirOwnCopies) {
    ScratchDir dir;
    dir.Write("soap.ini", "[ldap]\nhost=one\n");
    ConfDir conf(dir.Path());
    CLdapOp a;
    CLdapOp b;
    LdapInfo info;
    a.GetLdapAtt(info);
    std::strcpy(info.host, "two");
    a.SetLdapAtt(info);
    LdapInfo seen;
    a.GetLdapAtt(seen);
    EXPECT_STREQ("two", seen.host);
    b.GetLdapAtt(seen);
    EXPECT_STREQ("one", seen.host);
}

class Schema : public ::testing::Test {
  protected:
    // Loads an ldap.ini holding text; returns the template count.
    int Load(std::string const& text) {
        dir_.Write("ldap.ini", text);
        ConfDir conf(dir_.Path());
        op_.reset(new CLdapOp());
        return op_->TemplateCount();
    }
    ScratchDir dir_;
    std::unique_ptr<CLdapOp> op_;
};

std::string const kThreeLevels =
    "[base]\nsum=3\nA0=organization\nA1=organizationalUnit\nA2=person\n"
    "[organization]\nsum=2\nA0=o,s,2\nA1=description,s,1\n"
    "[organizationalUnit]\nsum=1\nA0=ou,s,2\n"
    "[person]\nsum=3\nA0=cn,s,2\nA1=sn,s,1\nA2=mail,s,0\n";

TEST_F(Schema, LoadsTemplatesInOrderWithTheirNamingAttributes) {
    ASSERT_EQ(3, Load(kThreeLevels));
    tagAtt const* t = op_->Templates();
    EXPECT_STREQ("organization", t[0].objectClass);
    EXPECT_STREQ("o", t[0].namingAtt);
    EXPECT_STREQ("ou", t[1].namingAtt);
    EXPECT_STREQ("cn", t[2].namingAtt);
    EXPECT_EQ(2, t[2].templateIndex);
    EXPECT_EQ(3, t[2].templateCount);
    EXPECT_EQ(nullptr, t[2].items);

    tagAtt out;
    std::memset(&out, 0x5a, sizeof out);
    out.items = nullptr;
    EXPECT_EQ(1, op_->GetLdapOpAtt("Person", out));
    EXPECT_EQ(0x5a, static_cast<unsigned char>(out.objectClass[0]));  // case counts: untouched
    EXPECT_EQ(1, op_->GetLdapOpAtt("person", out));
    EXPECT_STREQ("person", out.objectClass);
    EXPECT_STREQ("cn", out.namingAtt);
    EXPECT_EQ(nullptr, out.items);
    EXPECT_EQ(0, out.itemCount);
}

TEST_F(Schema, RefusesBrokenFilesWhole) {
    std::string const broken[] = {
        "[base]\nsum=0\n",
        "[base]\nsum=-1\n",
        "[base]\nsum=abc\n",
        "[base]\nsum=2\nA0=ou\n[ou]\nsum=1\nA0=ou,s,2\n",  // A1 missing
        "[base]\nsum=1\nA1=ou\n[ou]\nsum=1\nA1=ou,s,2\n",  // numbered from 1
        "[base]\nsum=1\nA0=ou\n",                          // no template section
        "[base]\nsum=1\nA0=p\n[p]\nsum=4\nA0=ou,s,2\nA1=o,s,2\nA2=cn,s,2\nA3=sn,s,2\n",
        "[base]\nsum=1\nA0=p\n[p]\nsum=1\nA0=,s,2\n",  // does not split
        "[base]\nsum=1\nA0=p\n[p]\nsum=1\nA0=cn,\n",   // does not split
        "[base]\nsum=1\nA0=" + std::string(256, 'c') + "\n[" + std::string(256, 'c') +
            "]\nsum=1\nA0=cn,s,2\n",
    };
    for (std::string const& text : broken) {
        EXPECT_EQ(0, Load(text)) << text;
        EXPECT_EQ(nullptr, op_->Templates());
    }
}

TEST_F(Schema, SplitsDefinitionsAndKeepsTheLastOfThreeNamingAttributes) {
    ASSERT_EQ(1, Load("[base]\nsum=1\nA0=p\n[p]\nsum=4\nA0=ou,s,2\nA1=o,s,2\nA2=cn,,2\nA3=sn\n"));
    EXPECT_STREQ("cn", op_->Templates()[0].namingAtt);
    ASSERT_EQ(1, Load("[base]\nsum=1\nA0=p\n[p]\nsum=1\nA0=sn,s,1\n"));
    EXPECT_STREQ("", op_->Templates()[0].namingAtt);

    std::string name, code;
    int role = -1;
    EXPECT_TRUE(op_->SeparateData("cn,s,2", name, code, role));
    EXPECT_EQ("cn", name);
    EXPECT_EQ("s", code);
    EXPECT_EQ(2, role);
    EXPECT_TRUE(op_->SeparateData("cn,s", name, code, role));
    EXPECT_EQ(0, role);
    EXPECT_TRUE(op_->SeparateData("cn", name, code, role));
    EXPECT_EQ("cn", code);
    EXPECT_EQ(0, role);
    EXPECT_TRUE(op_->SeparateData("cn,,2", name, code, role));
    EXPECT_EQ("", code);
    EXPECT_EQ(2, role);
    name = "keep";
    EXPECT_FALSE(op_->SeparateData("", name, code, role));
    EXPECT_FALSE(op_->SeparateData(",s,2", name, code, role));
    EXPECT_FALSE(op_->SeparateData("cn,", name, code, role));
    EXPECT_EQ("keep", name);
}

TEST_F(Schema, ConditionNeedsCnAgainstTheLastTemplate) {
    ASSERT_EQ(3, Load(kThreeLevels));
    struct {
        char const* name;
        bool result;
        char const* condition;
    } const cases[] = {
        {"cn=Li Lei,ou=Sales,o=Acme", true, "Li Lei"},
        {"cn=Li Lei", true, "Li Lei"},
        {"cn=", true, ""},
        {"cn", true, "cn"},
        {"CN=Li Lei", false, "-"},
        {"cn =x", false, "-"},
        {"uid=lilei", false, "-"},
        {"Li Lei", false, "-"},
        {"", false, "-"},
        {nullptr, false, "-"},
    };
    for (auto const& c : cases) {
        std::string condition = "-";
        int kind = 7;
        EXPECT_EQ(c.result, op_->GetCondition(c.name, condition, kind)) << (c.name ? c.name : "");
        EXPECT_EQ(c.result ? 1 : 0, kind);
        EXPECT_EQ(c.condition, condition);
    }
    // Only the last template counts: with ou last, a cn name fills the condition but is refused.
    ASSERT_EQ(2, Load("[base]\nsum=2\nA0=p\nA1=u\n[p]\nsum=1\nA0=cn,s,2\n[u]\nsum=1\nA0=ou,s,2\n"));
    std::string condition;
    int kind = 5;
    EXPECT_FALSE(op_->GetCondition("cn=Li Lei,o=x", condition, kind));
    EXPECT_EQ(0, kind);
    EXPECT_EQ("Li Lei", condition);
    // No templates at all: refused, nothing read outside the table.
    ASSERT_EQ(0, Load("[base]\nsum=0\n"));
    EXPECT_FALSE(op_->GetCondition("cn=x", condition, kind));
}

}  // namespace
