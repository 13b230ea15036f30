// The passwd command. The library finds the user by walking the tree; the walk is made here
// first as well, so that the message names the entry that was changed, and a full DN that the
// walk would take to some other entry is refused before anything changes.
#include <strings.h>

#include <cstdio>

#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/session/hints.h"
#include "tools/session/holders.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

// As the library walks: from base down through the children that hold an ou or a cn, depth
// first in listing order, to the parents of the last level; there the first parent with an
// entry "<naming>=<value>, <parent>" that holds a cn wins. A listing that fails hides its
// subtree, for the library as well.
bool Walk(CLdap& ldap, std::string const& base, size_t depth, size_t levels,
          std::string const& naming, std::string const& value, std::string& found) {
    Children children(ldap);
    if (ldap.SelectLdap(base.c_str(), "", children.list, children.count) != QORLDAP_OK)
        return false;
    if (depth + 1 == levels) {
        if (children.count <= 0)
            return false;
        std::string const candidate = naming + "=" + value + ", " + base;
        Entry entry(ldap);
        if (ldap.SelectLdap(candidate.c_str(), entry.att) != QORLDAP_OK)
            return false;
        for (int i = 0; i < entry.att.itemCount; ++i) {
            if (std::string(entry.att.items[i].type) == "cn") {
                found = candidate;
                return true;
            }
        }
        return false;
    }
    for (int i = 0; i < children.count; ++i) {
        if (Walk(ldap, children.list[i].dn, depth + 1, levels, naming, value, found))
            return true;
    }
    return false;
}

int RunPasswd(Args const& args) {
    std::string const name = LibraryDn(args.command, args.positional[0]);
    std::vector<std::string> const parts = DnParts(name);
    std::string const first = parts[0].substr(parts[0].find_first_not_of(" \t"));
    if (first.compare(0, 3, "cn=") != 0)
        FailCode(args.command, QORLDAP_E_FAILED, Hint(QORLDAP_E_FAILED, Situation::kPasswdName));
    HintWords words;
    words.name = first;
    CLdap ldap;
    Connect(ldap);
    LdapInfo info;
    ldap.GetLdapAtt(info);
    std::vector<std::string> const levels = NamingAttributes();
    std::string dn;
    Link const link = CurrentLink();
    if (link.fastLookup) {
        // The library's one search accepts a name only when exactly one user holds it, so a
        // full DN that exists is that user; the walk here would cost what fast_lookup saves.
        Entry given(ldap);
        if (parts.size() > 1 &&
            (ldap.SelectLdap(name.c_str(), given.att) != QORLDAP_OK || given.att.itemCount <= 0)) {
            Fail(args.command, "there is no entry " + name + "; nothing was changed");
        }
        dn = parts.size() > 1 ? name : "the one user named " + first;
    } else if (levels.empty() || strcasecmp(levels.back().c_str(), "cn") != 0 ||
               !Walk(ldap, info.basedn, 0, levels.size(), levels.back(), first.substr(3), dn)) {
        std::string const hint = MissingTemplatesHint();
        words.dn = info.basedn;
        FailCode(args.command, QORLDAP_E_FAILED,
                 hint.empty() ? Hint(QORLDAP_E_FAILED, Situation::kFindUser, words) : hint);
    }
    if (parts.size() > 1 && DnKey(dn) != DnKey(name)) {
        Fail(args.command, "the library finds users by their cn alone, and " + first +
                               " leads it to " + dn + ", not to " + name + "; nothing was changed");
    }
    std::string const oldPassword = GetPassword(
        args, {"--old-pass-file", "QORLDAP_OLD_PASSWORD", "Current key password: ", false, true});
    std::string const newPassword = GetPassword(
        args, {"--new-pass-file", "QORLDAP_NEW_PASSWORD", "New key password: ", true, false});
    int rc = ldap.ModifyPriKeyPsw(name.c_str(), oldPassword.c_str(), newPassword.c_str());
    if (rc == QORLDAP_E_OLD_PASSWORD) {
        // Which of the two: the encryption key is changed first and not changed back. With
        // fast_lookup and a bare name the tool knows no DN to look at.
        if (link.fastLookup && parts.size() == 1)
            FailCode(args.command, rc, Hint(rc, Situation::kFindUserFast, words));
        std::string const who = link.fastLookup ? name : dn;
        KeyBuffer crypt(ldap), sign(ldap);
        ldap.GetCryptPrivateKey(who.c_str(), crypt.data, crypt.length);
        ldap.GetSignPrivateKey(who.c_str(), sign.data, sign.length);
        Situation const state = crypt.length == 0 ? Situation::kPasswdNoCryptKey
                                : !OpensWith(crypt.data, crypt.length, newPassword)
                                    ? Situation::kPasswdUnchanged
                                : sign.length == 0 ? Situation::kPasswdCryptNoSign
                                                   : Situation::kPasswdCryptOnly;
        words.dn = dn;
        FailCode(args.command, rc, Hint(rc, state, words));
    }
    if (rc == QORLDAP_E_FAILED && link.fastLookup)
        FailCode(args.command, rc, Hint(rc, Situation::kFindUserFast, words));
    if (rc != QORLDAP_OK)
        FailCode(args.command, rc);
    std::printf("changed the password of the private keys of %s\n", dn.c_str());
    return kExitOk;
}

char const kPasswdHelp[] =
    "usage: qorldap passwd NAME [--old-pass-file FILE] [--new-pass-file FILE]\n"
    "\n"
    "Changes the password that protects a user's two stored private keys (encryption and\n"
    "signing). NAME is cn=<name>, such as \"cn=li lei\"; the user is found by walking the\n"
    "tree from the base DN (depth first, the first user of that name wins), and the entry\n"
    "changed is named. A full DN is accepted only when the walk leads to that very entry.\n"
    "The user must hold both keys under the same password. The walk lists every level\n"
    "(the tool walks once to name the entry, the library once more to change it).\n"
    "With fast_lookup = yes in soap.ini the library finds the user with one indexed\n"
    "search instead and refuses a name that two users share; the tool then does not\n"
    "walk, names a bare NAME as given, and accepts a full DN that exists.\n"
    "\n"
    "The passwords come from the files, else from QORLDAP_OLD_PASSWORD and\n"
    "QORLDAP_NEW_PASSWORD, else from prompts (the new one asked twice).\n";

}  // namespace

Command PasswdCommand() {
    return {"passwd",    "change the password of a user's private keys",
            kPasswdHelp, {{"--old-pass-file", nullptr, true}, {"--new-pass-file", nullptr, true}},
            1,           1,
            RunPasswd};
}

}  // namespace qortool
