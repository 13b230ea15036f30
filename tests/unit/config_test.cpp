// The INI reader, soap.ini's settings, ldap.ini's schema, names, subjects and GB text. Helpers turn
// a call into one text ("refused:" first when it says no); tables of {expected, actual} pin rules.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/LdapOp.h"
#include "platform/CallerSettings.h"
#include "platform/ChineseCode.h"
#include "platform/System.h"
#include "tests/support/TestFiles.h"

namespace {

using qortest::ConfDir;
using qortest::ScratchDir;

void Check(std::vector<std::pair<std::string, std::string>> const& expectedActual) {
    for (size_t i = 0; i < expectedActual.size(); ++i)
        EXPECT_EQ(expectedActual[i].first, expectedActual[i].second) << "case " << i;
}

std::string Get(std::string const& file, std::string const& section, std::string const& key) {
    std::string value = "-";
    return (CSystem::GetProfileStrValue(section, key, file, value) ? "=" : "refused:") + value;
}

TEST(IniReader, FindsNamesBlindToCaseTheFirstOfTwoKeysAndTheSettings) {
    ScratchDir dir;
    std::string const f =
        dir.Write("t.ini",
                  "orphan=1\n[LDAP]\r\n;k=v\n#k=v\n  Host  =  127.0.0.1 ldap2  \r\n"
                  "psw = p;a#s=s w\nempty=\nnoequals\nhost=second\n[ other ]\n"
                  "psw=nope\n[broken\nx=1\n[ldap]\nlate=\r 1\nempty=again\n");
    Check({{"=127.0.0.1 ldap2", Get(f, "ldap", "HOST")},  // blanks and CR trimmed, first wins
           {"=127.0.0.1 ldap2", Get(f, " Ldap\t", " host ")},
           {"=p;a#s=s w", Get(f, "ldap", "psw")},
           {"=", Get(f, "ldap", "empty")},
           {"=1", Get(f, "ldap", "late")},  // a section written twice is one; CR is a blank
           {"=nope", Get(f, "Other", "psw")},
           {"refused:-", Get(f, "ldap", ";k")},  // comments
           {"refused:-", Get(f, "ldap", "#k")},
           {"refused:-", Get(f, "ldap", "noequals")},
           {"refused:-", Get(f, "", "orphan")},  // before any section, or under a broken header
           {"refused:-", Get(f, "broken", "x")},
           {"refused:-", Get(dir.File("absent.ini"), "ldap", "host")},
           {"refused:-", Get("", "ldap", "host")}});
    // A bare name is looked for in QORLDAP_CONF_DIR, a name with a '/' taken as it is.
    for (std::string const& folder : {dir.Path(), dir.Path() + "/"}) {
        ConfDir conf(folder);
        Check({{dir.File("soap.ini"), CSystem::ResolveConfigPath("soap.ini")},
               {"./x/soap.ini", CSystem::ResolveConfigPath("./x/soap.ini")}});
    }
    // A folder the program names through the interface wins over the environment's, for the
    // reader as for the path it reports.
    {
        ScratchDir named;
        named.Write("soap.ini", "[ldap]\nhost=named\n");
        ConfDir conf(dir.Path());
        qor::SetCallerSetting("conf_dir", named.Path().c_str());
        Check({{named.File("soap.ini"), CSystem::ResolveConfigPath("soap.ini")},
               {"=named", Get("soap.ini", "ldap", "host")}});
        qor::SetCallerSetting("conf_dir", nullptr);
    }
    // soap.ini's settings: cut to their fields, ports read as strtol reads them.
    ConfDir conf(dir.Path());
    LdapInfo info;
    auto const read = [&dir, &info](std::string const& text) {
        dir.Write("soap.ini", "[ldap]\n" + text);
        CLdapOp().GetLdapAtt(info);
        return std::string(info.host) + "|" + std::to_string(info.port) + "|" + info.basedn + "|" +
               info.managerdn + "|" + info.psw;
    };
    std::string const d300(300, 'd'), m40(40, 'm'), p40(40, 'p');
    Check({{"|389|||", read("port=   389abc")},
           {"|0|||", read("port=0x1F")},
           {"|-5|||", read("port=-5")},
           {"h|0|" + d300.substr(0, 255) + "|" + m40.substr(0, 32) + "|" + p40.substr(0, 32),
            read("host=h\nbasedn=" + d300 + "\nmanagerdn=" + m40 + "\npsw=" + p40)}});
}

class Schema : public ::testing::Test {
  protected:
    int Load(std::string const& text) {  // the template count of an ldap.ini holding text
        dir_.Write("ldap.ini", text);
        ConfDir conf(dir_.Path());
        op_ = std::make_unique<CLdapOp>();
        return op_->TemplateCount();
    }
    ScratchDir dir_;
    std::unique_ptr<CLdapOp> op_;
};

std::string Describe(tagAtt const& t) {
    return std::string(t.objectClass) + "|" + t.namingAtt + "|" + std::to_string(t.templateIndex) +
           "/" + std::to_string(t.templateCount) + "|" + std::to_string(t.itemCount) +
           (t.items != nullptr ? "+" : "");
}

TEST_F(Schema, LoadsTemplatesAndRefusesBrokenFilesWhole) {
    ASSERT_EQ(3, Load("[base]\nsum=3\nA0=organization\nA1=organizationalUnit\nA2=person\n"
                      "[organization]\nsum=1\nA0=description,s,1\n"
                      "[organizationalUnit]\nsum=1\nA0=CN,s,2\n"
                      "[person]\nsum=4\nA0=ou,s,2\nA1=o,s,2\nA2=cn,,2\nA3=sn\n"));
    tagAtt const* t = op_->Templates();
    tagAtt out = {};
    op_->GetLdapOpAtt("Person", out);  // letter case counts: out untouched
    Check({{"organization||0/3|0", Describe(t[0])},
           {"organizationalUnit|CN|1/3|0", Describe(t[1])},
           {"person|cn|2/3|0", Describe(t[2])},
           {"||0/0|0", Describe(out)}});
    op_->GetLdapOpAtt("person", out);
    EXPECT_EQ("person|cn|2/3|0", Describe(out));
    // A broken file is refused whole: a count out of range or no number, A0.. not all there, a
    // template without its section, definitions that do not split, names too long.
    std::string const c256(256, 'c'), p = "[base]\nsum=1\nA0=p\n[p]\n";
    for (std::string const& text : std::vector<std::string>{
             "[base]\nsum=0\n", "[base]\nsum=-1\n", "[base]\nsum=abc\n", "[base]\nsum=1001\n",
             "[base]\nsum=2\nA0=ou\n[ou]\nsum=1\nA0=ou,s,2\n", "[base]\nsum=1\nA0=ou\n",
             "[base]\nsum=1\nA1=ou\n[ou]\nsum=1\nA1=ou,s,2\n", p + "sum=0\n",
             p + "sum=4\nA0=ou,s,2\nA1=o,s,2\nA2=cn,s,2\nA3=sn,s,2\n", p + "sum=1\nA0=,s,2\n",
             p + "sum=1\nA0=cn,\n", p + "sum=1\nA0=" + c256 + ",s,2\n",
             "[base]\nsum=1\nA0=" + c256 + "\n[" + c256 + "]\nsum=1\nA0=cn,s,2\n"}) {
        EXPECT_EQ(0, Load(text)) << text;
        EXPECT_EQ(nullptr, op_->Templates());
    }
}

std::string Split(CLdapOp& op, char const* text) {  // name,code,role
    std::string name = "-", code = "-";
    int role = -1;
    bool const ok = op.SeparateData(text, name, code, role);
    return (ok ? "" : "refused:") + name + "," + code + "," + std::to_string(role);
}

std::string Condition(CLdapOp& op, char const* name) {  // kind:condition
    std::string condition = "-";
    int kind = 7;
    bool const ok = op.GetCondition(name, condition, kind);
    return (ok ? "" : "refused:") + std::to_string(kind) + ":" + condition;
}

TEST_F(Schema, SplitsDefinitionsAndNeedsCnAgainstTheLastTemplate) {
    ASSERT_EQ(2, Load("[base]\nsum=2\nA0=p\nA1=u\n[p]\nsum=1\nA0=ou,s,2\n[u]\nsum=1\nA0=CN,s,2\n"));
    Check({{"cn,s,2", Split(*op_, "cn,s,2")},
           {"cn,cn,0", Split(*op_, "cn")},
           {"cn,,2", Split(*op_, "cn,,2")},
           {"refused:-,-,-1", Split(*op_, ",s,2")},
           // The naming attribute is matched in any letter case, the type "cn" exactly.
           {"1:Li Lei", Condition(*op_, "cn=Li Lei,ou=Sales,o=Acme")},
           {"1:cn", Condition(*op_, "cn")},
           {"refused:0:-", Condition(*op_, "CN=Li Lei")},
           {"refused:0:-", Condition(*op_, "cn =x")},
           {"refused:0:-", Condition(*op_, nullptr)}});
    // Only the last template counts: with ou last, a cn name fills the condition but is refused.
    ASSERT_EQ(2, Load("[base]\nsum=2\nA0=p\nA1=u\n[p]\nsum=1\nA0=cn,s,2\n[u]\nsum=1\nA0=ou,s,2\n"));
    EXPECT_EQ("refused:0:Li Lei", Condition(*op_, "cn=Li Lei,o=x"));
    ASSERT_EQ(0, Load("[base]\nsum=0\n"));  // no templates: refused, nothing read outside
    EXPECT_EQ("refused:0:-", Condition(*op_, "cn=x"));
}

std::string Filter(char const* dn, int index) {  // type|value
    std::string value = "-", type = "-";
    bool const ok = CLdapOp::GetFilter(dn, index, value, type);
    return (ok ? "" : "refused:") + type + "|" + value;
}
std::string Name(char const* dn) {  // components 0 to 2, then "^" and the parent
    std::string parent = "-";
    bool const ok = CLdapOp::GetParentDN(dn, parent);
    return Filter(dn, 0) + " " + Filter(dn, 1) + " " + Filter(dn, 2) + (ok ? " ^" : " ^refused:") +
           parent;
}
std::string Subject(char const* subject, char const* key) {
    std::string value = "-";
    return (CLdapOp::ParseSubject(subject, key, value) ? "" : "refused:") + value;
}

std::string Convert(bool toUtf8, std::string text) {  // GB18030 to UTF-8, or back
    CChineseCode code;
    char* out = nullptr;
    int const n = toUtf8 ? code.GB2312ToUTF_8(out, &text[0], static_cast<int>(text.size()))
                         : code.UTF_8ToGB2312(out, &text[0], static_cast<int>(text.size()));
    return out != nullptr && n >= 0 ? std::string(out, static_cast<size_t>(n)) : "refused:";
}

// Names are plain text: every comma separates, the first "=" splits, no blank is trimmed.
TEST(Text, TakesNamesAndSubjectsApartAndConvertsGbText) {
    char const* const subject = "C=CN\nO=Acme\nOU=Sales\nCN=Li";
    std::string lowered = "AZaz@[`{\x80\xff\xb0\xa1";
    CLdapOp::MakeLower(lowered);
    Check({{"cn|Li Lei ou|Sales o|Acme ^ou=Sales,o=Acme", Name("cn=Li Lei,ou=Sales,o=Acme")},
           {"o|Acme -|- -|- ^o=Acme", Name("o=Acme")},  // fewer components: untouched
           {"cn|a  o|b -|- ^ o=b", Name("cn=a, o=b")},
           {"Acme|Acme -|- -|- ^Acme", Name("Acme")},  // no "=": the text is type and value
           {"cn|a=b b|b o|c ^b,o=c", Name("cn=a=b,b,o=c")},
           {"cn|a\\ b|b -|- ^b", Name("cn=a\\,b")},  // a backslash does not escape the comma
           {"refused:-|- | -|- ^", Name("=x,")},
           {"| o|b -|- ^refused:-", Name(",o=b")},
           {"refused:-|- refused:-|- refused:-|- ^refused:-", Name(nullptr)},
           {"-|-", Filter("cn=a", 50)},  // fifty components at most
           {"refused:-|-", Filter("cn=a", 51)},
           // A key matches a line's start, in any case; any later line wins over the first.
           {"acme", Subject(subject, "o")},
           {"sales", Subject(subject, "OU")},
           {"li", Subject("CN=Li\nO=Acme", "cn")},
           {"refused:-", Subject("cn=user1\no=org1", "ou")},
           {"c=cn\ncnx", Subject("C=CN\ncnx", "cn")},  // no "=" after the match: all of it
           {"azaz@[`{\x80\xff\xb0\xa1", lowered}});    // ASCII letters only
    // GB18030 in the interface, UTF-8 in the directory.
    std::string const gb = "\xd6\xd0\xce\xc4", utf8 = "\xe4\xb8\xad\xe6\x96\x87";  // 中文
    Check({{utf8, Convert(true, gb)},
           {gb, Convert(false, utf8)},
           {"\xe3\x90\x80", Convert(true, "\x81\x39\xee\x39")},  // U+3400, beyond GB2312
           {"refused:", Convert(false, "\xff\xfe")},             // not UTF-8
           {"refused:", Convert(true, "\xd6")}});                // a GB character cut short
}

}  // namespace
