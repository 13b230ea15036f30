// The tree command: the entries below a DN drawn as a tree, with the keys each user holds.
#include <langinfo.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/output/entry_view.h"
#include "tools/session/hints.h"
#include "tools/session/holders.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

struct Glyphs {
    char const* branch;   // before an entry that has a sibling below it
    char const* last;     // before the last entry of its parent
    char const* through;  // the line on to a later sibling
    char const* blank;
};
Glyphs const kBoxes = {"\u251c\u2500\u2500 ", "\u2514\u2500\u2500 ", "\u2502   ", "    "};
Glyphs const kAscii = {"|-- ", "`-- ", "|   ", "    "};

// A listing never goes deeper than this: a loop in the data must not run for ever.
int const kMaxDepth = 32;

bool Utf8Locale() {
    std::setlocale(LC_CTYPE, "");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

// "  [sign cert, sign key]" for a user's entry, nothing for others.
std::string KeysText(CLdap& ldap, std::string const& dn) {
    std::vector<ShownKey> keys;
    if (!ReadKeys(ldap, dn, keys))
        return "";
    std::string text;
    for (ShownKey const& k : keys) {
        std::string const& a = k.attribute;
        text += std::string(text.empty() ? "" : ", ") +
                (a.compare(0, 4, "sign") == 0 ? "sign" : "crypt") +
                (a.find("Prikey") != std::string::npos ? " key" : " cert");
    }
    return "  [" + (text.empty() ? std::string("no keys") : text) + "]";
}

void Draw(Args const& args, CLdap& ldap, Glyphs const& g, std::string const& dn,
          std::string const& prefix, int depth, int maxDepth) {
    if (depth > maxDepth)
        return;
    Children children(ldap);
    int rc = ldap.SelectLdap(dn.c_str(), "", children.list, children.count);
    if (rc != QORLDAP_OK) {
        HintWords words;
        words.dn = dn;
        FailCode(args.command, rc, Hint(rc, Situation::kList, words));
    }
    std::vector<std::string> names;
    for (int i = 0; i < children.count; ++i) {
        if (children.list[i].dn[0] != '\0')
            names.push_back(children.list[i].dn);
    }
    for (size_t i = 0; i < names.size(); ++i) {
        bool const last = i + 1 == names.size();
        std::string const rdn = names[i].substr(0, names[i].find(','));
        std::printf("%s%s%s%s\n", prefix.c_str(), last ? g.last : g.branch, rdn.c_str(),
                    KeysText(ldap, names[i]).c_str());
        Draw(args, ldap, g, names[i], prefix + (last ? g.blank : g.through), depth + 1, maxDepth);
    }
}

int RunTree(Args const& args) {
    int maxDepth = kMaxDepth;
    if (args.HasValue("--depth")) {
        std::string const text = args.Value("--depth");
        char* end = nullptr;
        long n = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || n < 0)
            Usage(args.command, "--depth takes a whole number of levels, not \"" + text + "\"");
        maxDepth = n < kMaxDepth ? static_cast<int>(n) : kMaxDepth;
    }
    std::string dn = args.positional.empty() ? "" : CheckedDn(args);
    Glyphs const& glyphs = Utf8Locale() ? kBoxes : kAscii;
    CLdap ldap;
    Connect(ldap);
    if (dn.empty()) {
        LdapInfo info;
        ldap.GetLdapAtt(info);
        dn = info.basedn;
    }
    std::printf("%s%s\n", dn.c_str(), KeysText(ldap, dn).c_str());
    Draw(args, ldap, glyphs, dn, "", 1, maxDepth);
    return kExitOk;
}

char const kTreeHelp[] =
    "usage: qorldap tree [DN] [--depth N]\n"
    "\n"
    "Draws the entries below DN (default: the base DN of soap.ini) as a tree, each by its\n"
    "first part, and after each user the keys it holds, such as\n"
    "  cn=li lei  [sign cert, sign key, crypt cert]\n"
    "Like ls, it follows the entries that hold an ou or a cn. Box-drawing characters are\n"
    "used when the locale's character set is UTF-8, |-- and `-- otherwise.\n"
    "\n"
    "  --depth N  at most N levels below DN (default: all, up to 32)\n";

}  // namespace

Command TreeCommand() {
    return {"tree",    "draw the tree below an entry, with each user's keys",
            kTreeHelp, {{"--depth", nullptr, true}},
            0,         1,
            RunTree};
}

}  // namespace qortool
