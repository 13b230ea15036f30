// The entry commands: ls, add, modify, delete (show has a file of its own).
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "qorldap/LastResult.h"
#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/session/hints.h"
#include "tools/session/holders.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

// A listing's subtree never goes deeper than this; a loop in the data must not run forever.
int const kMaxDepth = 32;

// The words of the hints about dn.
HintWords About(std::string const& dn) {
    HintWords words;
    words.dn = dn;
    return words;
}

}  // namespace

int Lookup(Args const& args, CLdap& ldap, std::string const& dn, Entry& entry) {
    int rc = ldap.SelectLdap(dn.c_str(), entry.att);
    if (rc != QORLDAP_OK)
        FailCode(args.command, rc, Hint(rc, Situation::kReadEntry, About(dn)));
    return entry.att.itemCount;
}

namespace {

void List(Args const& args, CLdap& ldap, std::string const& dn, int depth, bool recursive) {
    Children children(ldap);
    int rc = ldap.SelectLdap(dn.c_str(), "", children.list, children.count);
    if (rc != QORLDAP_OK)
        FailCode(args.command, rc, Hint(rc, Situation::kList, About(dn)));
    for (int i = 0; i < children.count; ++i) {
        std::string const child = children.list[i].dn;
        if (child.empty())
            continue;
        std::printf("%*s%s\n", recursive ? 2 * depth : 0, "", child.c_str());
        if (recursive && depth < kMaxDepth)
            List(args, ldap, child, depth + 1, true);
    }
}

int RunLs(Args const& args) {
    std::string const dn = CheckedDn(args);
    bool const recursive = args.Has("--recursive");
    CLdap ldap;
    Connect(ldap);
    if (recursive)
        std::printf("%s\n", dn.c_str());
    List(args, ldap, dn, 1, recursive);
    return kExitOk;
}

// The attr=value arguments after the DN, converted for the library. Every value must fit its
// field of the record whole: a cut value would be stored as another value.
std::vector<tagAttItem> Items(Args const& args) {
    std::vector<tagAttItem> items;
    for (size_t i = 1; i < args.positional.size(); ++i) {
        std::string const& arg = args.positional[i];
        size_t eq = arg.find('=');
        if (eq == std::string::npos || eq == 0) {
            Usage(args.command, "\"" + arg + "\" is not attr=value");
        }
        std::string const type = arg.substr(0, eq);
        std::string const value = ToLibraryText(args.command, arg.substr(eq + 1));
        if (value.empty())
            Usage(args.command, "the value of " + type + " is empty");
        if (strcasecmp(type.c_str(), "objectClass") == 0) {
            Usage(args.command, "give the object class with --class");
        }
        tagAttItem item;
        std::memset(&item, 0, sizeof item);
        if (type.size() >= sizeof item.type)
            Usage(args.command, "attribute name too long: " + type);
        if (value.size() >= sizeof item.value)
            Usage(args.command, "the value of " + type + " is too long");
        std::memcpy(item.type, type.c_str(), type.size() + 1);
        std::memcpy(item.value, value.c_str(), value.size() + 1);
        std::memcpy(item.syntax, "s", 2);
        items.push_back(item);
    }
    return items;
}

void SetClass(Args const& args, tagAtt& att) {
    std::string const oc = ToLibraryText(args.command, args.Value("--class"));
    if (oc.size() >= sizeof att.objectClass)
        Usage(args.command, "object class name too long");
    std::memcpy(att.objectClass, oc.c_str(), oc.size() + 1);
}

int RunAdd(Args const& args) {
    std::string const dn = CheckedDn(args);
    if (!args.HasValue("--class") || args.Value("--class").empty()) {
        Usage(args.command, "--class OBJECTCLASS is required");
    }
    std::vector<tagAttItem> items = Items(args);
    // The directory wants the value that names the entry among its attributes; it is added
    // from the DN when not given.
    std::string const first = dn.substr(0, dn.find(','));
    size_t eq = first.find('=');
    if (eq == std::string::npos || Trimmed(first.substr(0, eq)).empty()) {
        Usage(args.command, "\"" + dn + "\" does not start with attr=value");
    }
    std::string const namingType = Trimmed(first.substr(0, eq));
    bool given = false;
    for (tagAttItem const& item : items) {
        if (strcasecmp(item.type, namingType.c_str()) == 0)
            given = true;
    }
    if (!given) {
        std::string const value = ToLibraryText(args.command, Trimmed(first.substr(eq + 1)));
        if (value.empty())
            Usage(args.command, "\"" + dn + "\" names its entry with an empty value");
        tagAttItem item;
        std::memset(&item, 0, sizeof item);
        if (namingType.size() >= sizeof item.type || value.size() >= sizeof item.value) {
            Usage(args.command, "the first part of the DN is too long");
        }
        std::memcpy(item.type, namingType.c_str(), namingType.size() + 1);
        std::memcpy(item.value, value.c_str(), value.size() + 1);
        std::memcpy(item.syntax, "s", 2);
        items.insert(items.begin(), item);
    }
    tagAtt att;
    std::memset(&att, 0, sizeof att);
    att.items = items.data();
    att.itemCount = static_cast<int>(items.size());
    SetClass(args, att);

    CLdap ldap;
    Connect(ldap);
    int rc = ldap.InsertLdap(dn.c_str(), att, false, nullptr, 0, nullptr, 0, nullptr, 0);
    if (rc == QORLDAP_E_FAILED) {
        // The directory's own reason names the case; the library's code alone does not.
        QorLdapResult last = {};
        QorLdapLastResult(&last);
        HintWords words = About(dn);
        words.parent = dn.find(',') == std::string::npos ? std::string()
                                                         : Trimmed(dn.substr(dn.find(',') + 1));
        words.cause = DirectoryCause();
        if (last.code != 0)
            Fail(args.command, CodeText(rc) + " " + Hint(last.code, Situation::kAddRefused, words));
    }
    if (rc != QORLDAP_OK)
        FailCode(args.command, rc, Hint(rc, Situation::kAddEntry));
    std::printf("added %s\n", dn.c_str());
    return kExitOk;
}

// The directory's codes of modify and delete, with the entry named.
[[noreturn]] void FailChange(Args const& args, int rc, std::string const& dn) {
    FailCode(args.command, rc, Hint(rc, Situation::kChangeEntry, About(dn)));
}

int RunModify(Args const& args) {
    std::string const dn = CheckedDn(args);
    std::vector<tagAttItem> items = Items(args);
    tagAtt att;
    std::memset(&att, 0, sizeof att);
    att.items = items.empty() ? nullptr : items.data();
    att.itemCount = static_cast<int>(items.size());
    if (args.HasValue("--class")) {
        if (args.Value("--class").empty())
            Usage(args.command, "the --class value is empty");
        SetClass(args, att);
    }
    if (items.empty() && att.objectClass[0] == '\0') {
        Usage(args.command, "nothing to change; give attr=value or --class");
    }
    CLdap ldap;
    Connect(ldap);
    int rc = ldap.ModifyLdap(dn.c_str(), att);
    if (rc != QORLDAP_OK)
        FailChange(args, rc, dn);
    std::printf("modified %s\n", dn.c_str());
    return kExitOk;
}

int RunDelete(Args const& args) {
    std::string const dn = CheckedDn(args);
    CLdap ldap;
    Connect(ldap);
    int rc = ldap.DeleteLdap(dn.c_str());
    if (rc != QORLDAP_OK)
        FailChange(args, rc, dn);
    std::printf("deleted %s\n", dn.c_str());
    return kExitOk;
}

char const kLsHelp[] =
    "usage: qorldap ls DN [-R]\n"
    "\n"
    "Lists the DNs of the entries directly below DN that hold an ou or a cn, one per line.\n"
    "\n"
    "  -R, --recursive  the whole subtree, starting with DN, indented by depth\n";

char const kAddHelp[] =
    "usage: qorldap add DN --class OBJECTCLASS [attr=value ...]\n"
    "\n"
    "Adds the entry DN of class OBJECTCLASS with the given attribute values. The value that\n"
    "names the entry (the first part of DN) is added when not given. For example:\n"
    "  qorldap add \"ou=research, o=root\" --class organizationalUnit description=R+D\n"
    "  qorldap add \"cn=zhang san, ou=research, o=root\" --class qorPerson sn=Zhang\n";

char const kModifyHelp[] =
    "usage: qorldap modify DN [--class OBJECTCLASS] attr=value ...\n"
    "\n"
    "Replaces the values of the given attributes of DN (and its object class, with --class).\n"
    "Attributes not named are left as they are.\n";

char const kDeleteHelp[] =
    "usage: qorldap delete DN\n"
    "\n"
    "Deletes the entry DN. Entries below it must be deleted first.\n";

}  // namespace

std::vector<Command> EntryCommands() {
    Option const klass{"--class", nullptr, true};
    return {
        ShowCommand(),
        TreeCommand(),
        {"ls",
         "list the entries below an entry",
         kLsHelp,
         {{"--recursive", "-R", false}},
         1,
         1,
         RunLs},
        {"add", "add an entry", kAddHelp, {klass}, 1, 1000, RunAdd},
        {"modify",
         "replace attribute values of an entry",
         kModifyHelp,
         {klass},
         1,
         1000,
         RunModify},
        {"delete", "delete an entry", kDeleteHelp, {}, 1, 1, RunDelete},
    };
}

}  // namespace qortool
