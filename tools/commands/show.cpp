// The show command: an entry, and a summary of each certificate and key it holds.
#include <strings.h>

#include <cstdio>

#include "platform/Trim.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/output/entry_view.h"
#include "tools/output/output.h"
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

// The values the tool can tell: the naming value from the DN, the class from the template,
// the keys from their reads. The library hands out the names of the other attributes only.
void Fill(ShownAttribute& a, tagAtt const& att, std::string const& dn,
          std::vector<ShownKey> const& keys) {
    std::string const first = qor::Trim(DnParts(dn)[0]);
    std::string const namingType = first.substr(0, first.find('='));
    if (strcasecmp(a.name.c_str(), namingType.c_str()) == 0) {
        a.values.push_back(first.substr(first.find('=') + 1));
    } else if (strcasecmp(a.name.c_str(), "objectClass") == 0 && att.objectClass[0] != '\0') {
        a.values.push_back(att.objectClass);
    }
    for (ShownKey const& k : keys) {
        if (strcasecmp(a.name.c_str(), k.attribute.c_str()) == 0)
            a.values.push_back(k.der);
    }
    a.known = !a.values.empty();
}

void PrintText(EntryView const& view, tagAtt const& att, bool user) {
    std::string const parent = qor::Trim(att.parentDn);
    std::printf("dn: %s\n", view.dn.c_str());
    // The library names a DN of one part its own parent.
    std::printf("parent: %s\n",
                parent == qor::Trim(att.dn) ? "(none, top of the tree)" : parent.c_str());
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
        ShownAttribute a;
        a.name = att.items[i].type;
        Fill(a, att, dn, view.keys);
        view.attributes.push_back(a);
    }
    if (args.Has("--ldif")) {
        std::fputs(Ldif(view).c_str(), stdout);
    } else if (args.Has("--json")) {
        std::fputs(Json(view).c_str(), stdout);
    } else {
        PrintText(view, att, user);
    }
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
    "  --ldif  the entry as ldapsearch -LLL writes it (\"::\" and base64 for values that\n"
    "          are not plain text, lines folded at 78 characters), the summary as comments\n"
    "  --json  one JSON object: dn, attributes (binary values as {\"base64\": ...}), keys\n"
    "\n"
    "libqorldap hands out an entry's attribute names but only some values: the key\n"
    "attributes, the naming value (from the DN) and the class of the template. The other\n"
    "attributes are listed as LDIF comments, or with the value null in JSON.\n";

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
