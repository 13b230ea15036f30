// The passwd command. The library finds the user (by walking the tree, or with fast_lookup by
// one search); it is asked first which entry that is, with no passwords, which resolves the
// name and changes nothing, so that the message names the entry and a full DN that the lookup
// would take to some other entry is refused before anything changes.
#include <cstdio>

#include "qorldap/Outcome.h"
#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/session/hints.h"
#include "tools/session/holders.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

// The DN of the user the library resolves name to; empty when it finds none. Without
// passwords the call stops once the name is resolved: nothing is read or written.
std::string ResolvedUser(CLdap& ldap, std::string const& name) {
    if (ldap.ModifyPriKeyPsw(name.c_str(), nullptr, nullptr) != QORLDAP_E_FAILED)
        return "";
    QorLdapOutcome outcome = {};
    QorLdapLastOutcome(&outcome);
    return outcome.dn;
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
    bool const fast = CurrentLink().fastLookup;
    std::string const dn = ResolvedUser(ldap, name);
    if (dn.empty()) {
        LdapInfo info;
        ldap.GetLdapAtt(info);
        std::string const hint = MissingTemplatesHint();
        words.dn = info.basedn;
        Situation const why = fast ? Situation::kFindUserFast : Situation::kFindUser;
        FailCode(args.command, QORLDAP_E_FAILED,
                 hint.empty() ? Hint(QORLDAP_E_FAILED, why, words) : hint);
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
        // Which of the two: the encryption key is changed first and not changed back.
        KeyBuffer crypt(ldap), sign(ldap);
        ldap.GetCryptPrivateKey(dn.c_str(), crypt.data, crypt.length);
        ldap.GetSignPrivateKey(dn.c_str(), sign.data, sign.length);
        Situation const state = crypt.length == 0 ? Situation::kPasswdNoCryptKey
                                : !OpensWith(crypt.data, crypt.length, newPassword)
                                    ? Situation::kPasswdUnchanged
                                : sign.length == 0 ? Situation::kPasswdCryptNoSign
                                                   : Situation::kPasswdCryptOnly;
        words.dn = dn;
        FailCode(args.command, rc, Hint(rc, state, words));
    }
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
    "The user must hold both keys under the same password. The library is asked first\n"
    "which entry the name leads to (nothing is changed then), and changes its keys after.\n"
    "With fast_lookup = yes in soap.ini the library finds the user with one indexed\n"
    "search instead of the walk and refuses a name that two users share.\n"
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
