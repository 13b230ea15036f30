// What the tool refuses before the library sees it: DN values and DNs, the options of a command
// line, the subject line the library takes. Each case is {expected, actual}; a refusal shows as
// "usage: <message>" (exit status 2) or "fail: <message>" (exit status 1).
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "qorldap/records.h"
#include "tests/unit_tool/Check.h"
#include "tools/checks/checks.h"

namespace {

using qortool::Args;
using qortool::Option;
using qortool::Stop;
using tooltest::Check;

template <typename F>
std::string Outcome(F call) {
    try {
        return call();
    } catch (Stop const& stop) {
        return (stop.status == qortool::kExitUsage ? "usage: " : "fail: ") + stop.message;
    }
}

std::string Dn(std::string const& dn) {
    return Outcome([&] { return qortool::LibraryDn("ls", dn); });
}

TEST(ToolDnValues, EveryCharacterThatMakesTheDirectoryReadAnotherNameIsNamed) {
    using qortool::UnsafeInValue;
    Check({
        {"", UnsafeInValue("li lei")},
        {"", UnsafeInValue("a#b")},                       // only a leading # is special
        {"", UnsafeInValue("\xe5\xbc\xa0\xe4\xbc\x9f")},  // UTF-8 bytes are not control characters
        {"", UnsafeInValue("r&d (1)")},
        {"is empty", UnsafeInValue("")},
        {"starts with a blank", UnsafeInValue(" li")},
        {"ends with a blank", UnsafeInValue("li ")},
        {"starts with \"#\"", UnsafeInValue("#li")},
        {"holds two blanks in a row", UnsafeInValue("li  lei")},
        {"holds \",\" (0x2C)", UnsafeInValue("a,b")},
        {"holds \"+\" (0x2B)", UnsafeInValue("r+d")},
        {"holds \"\"\" (0x22)", UnsafeInValue("a\"b")},
        {"holds \"\\\" (0x5C)", UnsafeInValue("a\\b")},
        {"holds \"<\" (0x3C)", UnsafeInValue("a<b")},
        {"holds \">\" (0x3E)", UnsafeInValue("a>b")},
        {"holds \";\" (0x3B)", UnsafeInValue("a;b")},
        {"holds \"=\" (0x3D)", UnsafeInValue("a=b")},
        {"holds a NUL (0x00)", UnsafeInValue(std::string("a\0b", 3))},
        {"holds a tab (0x09)", UnsafeInValue("a\tb")},
        {"holds a line feed (0x0A)", UnsafeInValue("a\nb")},
        {"holds a carriage return (0x0D)", UnsafeInValue("ab\r")},
        {"holds a control character (0x1F)", UnsafeInValue("a\x1f")},
        {"holds a delete character (0x7F)", UnsafeInValue("a\x7f")},
        // A control character is named first, before the blanks around it.
        {"holds a line feed (0x0A)", UnsafeInValue(" \n ")},
    });
    Check({{"a\\x0Ab\\x7F\xc3\xa9", qortool::Printable("a\nb\x7f\xc3\xa9")},
           {"", qortool::ControlIn("plain \xc3\xa9")}});
}

TEST(ToolDnValues, ADnIsTakenAsTheLibraryTakesItOrRefusedNamingThePart) {
    Check({
        // Types in lower case, values and the blanks after commas as given.
        {"cn=Li Lei,ou=Sales,o=root", Dn("CN=Li Lei,OU=Sales,o=root")},
        {"cn=li lei, ou=sales, o=root", Dn("cn=li lei, ou=sales, o=root")},
        {"cn=x,ou=y", Dn(" cn=x,ou=y")},  // a blank before the first part would join its type
        {"2.5.4.3=x", Dn("2.5.4.3=x")},
        {"x-custom=v", Dn("X-Custom=v")},
        {"usage: ls: \"ou\" in \"cn=a,ou\" is not attr=value (a comma always separates: a value "
         "cannot hold one) (see qorldap ls --help)",
         Dn("cn=a,ou")},
        {"usage: ls: \"\" in \"cn=a,\" is not attr=value (a comma always separates: a value "
         "cannot hold one) (see qorldap ls --help)",
         Dn("cn=a,")},
        {"usage: ls: \"c n\" in \"c n=x\" is not an attribute type (see qorldap ls --help)",
         Dn("c n=x")},
        {"usage: ls: \"1cn\" in \"1cn=x\" is not an attribute type (see qorldap ls --help)",
         Dn("1cn=x")},
        {"usage: ls: \"2.5.x\" in \"2.5.x=y\" is not an attribute type (see qorldap ls --help)",
         Dn("2.5.x=y")},
        {"usage: ls: \"\" in \"=x\" is not an attribute type (see qorldap ls --help)", Dn("=x")},
        {"usage: ls: the value \"r+d\" of ou in \"ou=r+d,o=root\" holds \"+\" (0x2B), which the "
         "directory library cannot store unescaped (see qorldap ls --help)",
         Dn("ou=r+d,o=root")},
        {"usage: ls: the value \"a\\x0Ab\" of cn in \"cn=a\\x0Ab\" holds a line feed (0x0A), "
         "which the directory library cannot store unescaped (see qorldap ls --help)",
         Dn("cn=a\nb")},
        {"usage: ls: the value \" x\" of cn in \"cn= x\" starts with a blank, which the "
         "directory library cannot store unescaped (see qorldap ls --help)",
         Dn("cn= x")},
    });
}

TEST(ToolDnValues, PartsAndTheKeyThatComparesTwoSpellingsOfOneDn) {
    using qortool::DnKey;
    using qortool::DnParts;
    EXPECT_EQ((std::vector<std::string>{"a", "", " b "}), DnParts("a,, b "));
    EXPECT_EQ((std::vector<std::string>{""}), DnParts(""));
    Check({{"cn=li lei,ou=sales,o=root", DnKey("CN=Li Lei , ou=Sales,O=root")},
           {DnKey("cn=li lei, ou=sales, o=root"), DnKey("cn=li lei,ou=sales,o=root")},
           {"cn=\xc3\x84", DnKey("CN=\xc3\x84")}});  // only ASCII letters fold
    EXPECT_NE(DnKey("cn=li lei,ou=sales"), DnKey("cn=lilei,ou=sales"));
}

TEST(ToolDnValues, ADnMustFitTheLibrarysRecordWhole) {
    size_t const room = sizeof(tagAtt::dn) - 1;  // 255 characters and the terminator
    auto checked = [](std::string const& dn) {
        return Outcome([&] {
            Args args;
            args.command = "show";
            args.positional = {dn};
            return qortool::CheckedDn(args);
        });
    };
    std::string const fits = "cn=" + std::string(room - 3, 'x');
    EXPECT_EQ(fits, checked(fits));
    Check({{"usage: show: the DN is longer than 255 characters (see qorldap show --help)",
            checked(fits + "x")},
           {"usage: show: the DN is empty (see qorldap show --help)", checked("")}});
}

// One command line read against a table of options: the words left, the values, the flags.
std::string Read(std::vector<std::string> const& words, bool untilWord = false) {
    static std::vector<Option> const kOptions = {{"--crypt", nullptr, false},
                                                 {"--output", "-o", true},
                                                 {"--recursive", "-R", false},
                                                 {"--report", nullptr, true}};
    return Outcome([&] {
        Args args;
        size_t const at = qortool::ReadOptions("get-cert", kOptions, words, untilWord, args);
        std::string out = "at " + std::to_string(at) + ":";
        for (std::string const& p : args.positional)
            out += " [" + p + "]";
        for (auto const& v : args.values)
            out += " " + v.first + "=" + v.second;
        for (std::string const& f : args.flags)
            out += " " + f;
        return out;
    });
}

TEST(ToolOptions, GetoptLongConventionsAndOneLineUsageErrors) {
    Check({
        {"at 2: [dn] --crypt", Read({"dn", "--crypt"})},
        {"at 3: [a] [b] --recursive", Read({"a", "-R", "b"})},  // words keep their order
        {"at 2: [dn] --output=F", Read({"-oF", "dn"})},
        {"at 2: --output=F", Read({"-o", "F"})},
        {"at 1: --output=F", Read({"--output=F"})},
        {"at 2: --output=F", Read({"--out", "F"})},  // a unique prefix
        {"at 2: --output=F --recursive", Read({"-Ro", "F"})},
        {"at 3: [--crypt] [-R]", Read({"--", "--crypt", "-R"})},
        {"at 1: [-]", Read({"-"})},
        {"at 2: --output=G", Read({"-oF", "--output=G"})},  // the last value wins
        {"usage: get-cert: ambiguous option --re (--recursive, --report) (see qorldap get-cert "
         "--help)",
         Read({"--re"})},
        {"usage: get-cert: --crypt takes no value (see qorldap get-cert --help)",
         Read({"--crypt=yes"})},
        {"usage: get-cert: --output needs a value (see qorldap get-cert --help)",
         Read({"dn", "--output"})},
        {"usage: get-cert: --output needs a value (see qorldap get-cert --help)", Read({"-o"})},
        {"usage: get-cert: unknown option -x (see qorldap get-cert --help)", Read({"-x"})},
        {"usage: get-cert: unknown option --bogus (see qorldap get-cert --help)",
         Read({"--bogus=1"})},
        // Before the command: reading stops at the first word that is not an option.
        {"at 1: --crypt", Read({"--crypt", "ls", "-R"}, true)},
        {"at 0:", Read({"ls", "--crypt"}, true)},
    });
}

}  // namespace
