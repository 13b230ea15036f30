// LDIF as ldapsearch -LLL writes it, and JSON that any reader takes. Each case is
// {expected, actual}.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/unit_tool/Check.h"
#include "tools/checks/checks.h"
#include "tools/output/entry_view.h"

namespace {

using qortool::JsonString;
using qortool::JsonText;
using qortool::JsonValue;
using qortool::LdifLine;
using qortool::LdifSafe;
using tooltest::Check;

TEST(ToolLdif, AValueIsWrittenAsItIsOnlyWhenItIsASafeString) {
    struct Case {
        char const* value;
        bool safe;
    };
    Case const cases[] = {
        {"plain text", true}, {"", true},          {"a:b", true},        {"a<b", true},
        {"#x", true},         {"~}|", true},       {" lead", false},     {"trail ", false},
        {":x", false},        {"<x", false},       {"tab\there", false}, {"cr\r", false},
        {"del\x7f", false},   {"\xc3\xa9", false}, {"\x1f", false},
    };
    for (Case const& c : cases)
        EXPECT_EQ(c.safe, LdifSafe(c.value)) << c.value;
    EXPECT_FALSE(LdifSafe(std::string("a\0b", 3)));
    // Values of ;binary attributes and of userPassword go as base64 whatever they hold, and an
    // empty value as the bare name, as ldapsearch writes them.
    Check({{"cn: li lei\n", LdifLine("cn", "li lei")},
           {"cn:: w6k=\n", LdifLine("cn", "\xc3\xa9")},
           {"description:: IGxlYWQ=\n", LdifLine("description", " lead")},
           {"description:: dHJhaWwg\n", LdifLine("description", "trail ")},
           {"signPubcer;binary:: YWJj\n", LdifLine("signPubcer;binary", "abc")},
           {"userPassword:: YWJj\n", LdifLine("userPassword", "abc")},
           {"USERPASSWORD:: YWJj\n", LdifLine("USERPASSWORD", "abc")},
           {"2.5.4.35:: YWJj\n", LdifLine("2.5.4.35", "abc")},
           {"description: a;binary\n", LdifLine("description", "a;binary")},
           {"signPrikey;binary:\n", LdifLine("signPrikey;binary", "")},
           {"description:\n", LdifLine("description", "")}});
}

TEST(ToolLdif, LinesAreFoldedAt78AsLdapsearchFoldsThem) {
    // "dn: " and n letters: 78 characters fit the first line, 77 each further one after its blank.
    auto line = [](size_t letters) { return LdifLine("dn", std::string(letters, 'a')); };
    std::string const a74(74, 'a');
    std::string const a77(77, 'a');
    Check({{"dn: " + a74 + "\n", line(74)},
           {"dn: " + a74 + "\n a\n", line(75)},
           {"dn: " + a74 + "\n " + a77 + "\n", line(74 + 77)},
           {"dn: " + a74 + "\n " + a77 + "\n a\n", line(74 + 78)}});
    // A name and its colons stay whole on the first line, however long; the value follows.
    std::string const name = "description;lang-" + std::string(75, 'x');
    Check({{name + ": \n abc\n", LdifLine(name, "abc")}});
    // Long binary values: every line within 78, continuation lines one blank first, and the
    // lines joined again give "name:: " and the whole base64.
    std::string binary;
    for (int i = 0; i < 1000; ++i)
        binary += static_cast<char>(i * 7);
    std::string const folded = LdifLine("userCertificate;binary", binary);
    std::string joined;
    size_t start = 0;
    for (size_t end; (end = folded.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string const one = folded.substr(start, end - start);
        EXPECT_LE(one.size(), 78u);
        if (start > 0) {
            ASSERT_EQ(' ', one[0]);
            EXPECT_NE(' ', one[1]);
        }
        joined += start > 0 ? one.substr(1) : one;
    }
    EXPECT_EQ(folded.size(), start);
    EXPECT_EQ("userCertificate;binary:: " + qortool::Base64Encode(binary), joined);
}

TEST(ToolJson, StringsAreEscapedAndOnlyWellFormedTextIsShownAsText) {
    Check({
        {"\"li lei\"", JsonString("li lei")},
        {"\"a\\\"b\"", JsonString("a\"b")},
        {"\"a\\\\b\"", JsonString("a\\b")},
        {"\"\\u000a\\u0009\\u001f\\u0000\"", JsonString(std::string("\n\t\x1f\0", 4))},
        {"\"/\x7f\xc3\xa9\"", JsonString("/\x7f\xc3\xa9")},  // nothing else needs escaping
    });
    struct Case {
        char const* value;
        bool text;
    };
    Case const cases[] = {
        {"abc", true},
        {"\xc3\xa9", true},          // U+00E9
        {"\xe5\xbc\xa0", true},      // U+5F20
        {"\xf0\x9f\x94\x91", true},  // U+1F511
        {"\xf4\x8f\xbf\xbf", true},  // U+10FFFF, the last
        {"\xed\x9f\xbf", true},      // U+D7FF, before the surrogates
        {"\xc3", false},             // cut short
        {"\xe5\xbc", false},
        {"\xc3(", false},             // not a continuation byte
        {"\xa9", false},              // a continuation byte first
        {"\xc0\xaf", false},          // overlong "/"
        {"\xe0\x80\xaf", false},      // overlong, three bytes
        {"\xf0\x80\x80\xaf", false},  // overlong, four bytes
        {"\xed\xa0\x80", false},      // a surrogate, U+D800
        {"\xf4\x90\x80\x80", false},  // past U+10FFFF
        {"\xf5\x80\x80\x80", false},
        {"\xff", false},
        {"a\nb", false},  // control characters go as base64
        {"\x7f", false},
    };
    for (Case const& c : cases)
        EXPECT_EQ(c.text, JsonText(c.value)) << JsonString(c.value);
    Check({{"\"sales\"", JsonValue("ou", "sales")},
           {"\"\xe9\x94\x80\xe5\x94\xae\"", JsonValue("ou", "\xe9\x94\x80\xe5\x94\xae")},
           {"{\"base64\": \"c2FsZXM=\"}", JsonValue("signPubcer;binary", "sales")},
           {"{\"base64\": \"/w==\"}", JsonValue("description", "\xff")},
           {"{\"base64\": \"YQpi\"}", JsonValue("description", "a\nb")}});
}

}  // namespace
