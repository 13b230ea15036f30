// The show command: an entry, and a summary of each certificate and key it holds.
#include <cstdio>
#include <memory>

#include "qorldap/Entry.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/output/entry_view.h"
#include "tools/output/output.h"
#include "tools/session/hints.h"
#include "tools/session/holders.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

typedef int (CLdap::*KeyGet)(char const*, unsigned char*&, unsigned int&);

struct KeySlot {
    KeyGet get;
    char const* attribute;
    char const* role;
};
KeySlot const kSlots[] = {
    {&CLdap::GetSignPublicKey, "signPubcer;binary", "signing certificate"},
    {&CLdap::GetSignPrivateKey, "signPrikey;binary", "signing private key"},
    {&CLdap::GetCryptPublicKey, "cryptPubcer;binary", "encryption certificate"},
    {&CLdap::GetCryptPrivateKey, "cryptPrikey;binary", "encryption private key"},
};

// The entry whole, as the library reads it in one search on its shared connection.
EntryView ReadWhole(Args const& args, std::string const& dn) {
    ConnectShared();
    QorLdapEntry* read = nullptr;
    int const rc = QorLdapReadEntry(dn.c_str(), &read);
    std::unique_ptr<QorLdapEntry, void (*)(QorLdapEntry*)> const entry(read, QorLdapFreeEntry);
    if (rc == kNoSuchObject)
        Fail(args.command, "no such entry: " + dn);
    if (rc != QORLDAP_OK) {
        HintWords words;
        words.dn = dn;
        FailCode(args.command, rc, Hint(rc, Situation::kReadEntry, words));
    }
    EntryView view = ViewOf(*entry);
    view.keys = KeysAmong(view.attributes);
    return view;
}

void PrintText(EntryView const& view, tagAtt const& att, bool user) {
    std::string const parent = Trimmed(att.parentDn);
    std::printf("dn: %s\n", view.dn.c_str());
    // The library names a DN of one part its own parent.
    std::printf("parent: %s\n",
                parent == Trimmed(att.dn) ? "(none, top of the tree)" : parent.c_str());
    if (att.objectClass[0] != '\0') {
        std::printf("template: %s (naming attribute %s, level %d of %d)\n", att.objectClass,
                    att.namingAtt, att.templateIndex + 1, att.templateCount);
    } else {
        std::printf("template: none\n");
    }
    std::printf("attributes:\n");
    for (ShownAttribute const& a : view.attributes)
        std::printf("  %s\n", a.name.c_str());
    if (view.unnamed > 0) {
        std::printf("  (and %d more whose names do not fit the record)\n", view.unnamed);
    }
    if (!user)
        return;
    std::printf("keys and certificates:%s\n", view.keys.empty() ? " none" : "");
    for (ShownKey const& k : view.keys) {
        std::printf("  %s, %zu bytes\n", k.role.c_str(), k.der.size());
        for (Field const& f : Describe(k.der))
            std::printf("    %-10s %s\n", f.name.c_str(), f.value.c_str());
    }
}

int RunShow(Args const& args) {
    std::string const dn = CheckedDn(args);
    if (args.Has("--ldif") && args.Has("--json"))
        Usage(args.command, "--ldif and --json exclude each other");
    if (args.Has("--ldif") || args.Has("--json")) {
        EntryView const view = ReadWhole(args, dn);
        std::fputs((args.Has("--ldif") ? Ldif(view) : Json(view)).c_str(), stdout);
        return kExitOk;
    }
    CLdap ldap;
    Connect(ldap);
    Entry entry(ldap);
    if (Lookup(args, ldap, dn, entry) <= 0) {
        Fail(args.command, "no such entry: " + dn);
    }
    tagAtt const& att = entry.att;
    EntryView view;
    view.dn = att.dn;
    bool const user = ReadKeys(ldap, dn, view.keys);
    for (int i = 0; i < att.itemCount; ++i) {
        if (att.items[i].type[0] == '\0') {
            ++view.unnamed;
            continue;
        }
        view.attributes.push_back({att.items[i].type, {}});
    }
    PrintText(view, att, user);
    return kExitOk;
}

char const kShowHelp[] =
    "usage: qorldap show DN [--ldif | --json]\n"
    "\n"
    "Describes the entry DN: its parent, the template of ldap.ini its class matches (if\n"
    "any), the names of its attributes, and for a user each certificate and key it holds:\n"
    "a certificate's subject, issuer, serial, validity, key type and size and SHA-256\n"
    "fingerprint; how a private key is encrypted; a public key's type and size. Exit\n"
    "status 1 when there is no such entry.\n"
    "\n"
    "  --ldif  every attribute and value of the entry, byte for byte what ldapsearch\n"
    "          -LLL writes (\"::\" and base64 for values that are not plain text, lines\n"
    "          folded at 78 characters as its default folds them)\n"
    "  --json  one JSON object: dn, every attribute with its values (binary values as\n"
    "          {\"base64\": ...}), and the summary of each key\n"
    "\n"
    "--ldif and --json show what the library's identity (managerdn or bind_dn) may read.\n";

}  // namespace

bool ReadKeys(CLdap& ldap, std::string const& dn, std::vector<ShownKey>& keys) {
    for (KeySlot const& slot : kSlots) {
        KeyBuffer key(ldap);
        // Any other name than a user's is refused before anything is sent.
        if ((ldap.*slot.get)(dn.c_str(), key.data, key.length) != QORLDAP_OK)
            return false;
        if (key.data != nullptr && key.length > 0) {
            keys.push_back({slot.attribute, slot.role,
                            std::string(reinterpret_cast<char const*>(key.data), key.length)});
        }
    }
    return true;
}

Command ShowCommand() {
    return {"show",    "describe an entry and the keys it holds",
            kShowHelp, {{"--ldif", nullptr, false}, {"--json", nullptr, false}},
            1,         1,
            RunShow};
}

}  // namespace qortool
