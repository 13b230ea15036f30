// The key commands: get-cert, get-key, put-cert, put-key, rm-key (publish and passwd have
// files of their own).
#include <cstdio>
#include <cstring>

#include "qorldap/Inspect.h"
#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/output/output.h"
#include "tools/session/hints.h"
#include "tools/session/holders.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

typedef int (CLdap::*KeyGet)(char const*, unsigned char*&, unsigned int&);
typedef int (CLdap::*KeyPut)(char const*, unsigned char const*, unsigned int);

char const* Pair(Args const& args) {
    return args.Has("--crypt") ? "encryption" : "signing";
}

// The stored value, empty when the entry holds none.
std::string ReadKey(Args const& args, CLdap& ldap, KeyGet get, std::string const& dn) {
    KeyBuffer key(ldap);
    int rc = (ldap.*get)(dn.c_str(), key.data, key.length);
    if (rc != QORLDAP_OK) {
        HintWords words;
        words.dn = dn;
        words.cause = rc == QORLDAP_E_FAILED ? MissingTemplatesHint() : "";
        FailCode(args.command, rc,
                 Hint(rc, words.cause.empty() ? Situation::kReadKey : Situation::kReadKeyTemplates,
                      words));
    }
    if (key.data == nullptr || key.length == 0)
        return "";
    return std::string(reinterpret_cast<char const*>(key.data), key.length);
}

// The directory's codes of writes, with the entry named.
[[noreturn]] void FailWrite(Args const& args, int rc, std::string const& dn) {
    HintWords words;
    words.dn = dn;
    FailCode(args.command, rc, Hint(rc, Situation::kWriteKey, words));
}

// The file as DER; a PEM file is decoded and label receives its block's label.
std::string ReadDerOrPem(Args const& args, std::string const& path, std::string& label) {
    std::string const data = ReadFile(args.command, path, kMaxInput);
    label.clear();
    std::string der;
    std::string error;
    Pem const pem = PemDecode(data, label, der, error);
    if (pem == Pem::kBroken)
        Fail(args.command, path + " holds " + error);
    return pem == Pem::kNone ? data : der;
}

int RunGetCert(Args const& args) {
    std::string const dn = LibraryDn(args.command, args.positional[0]);
    RefuseBinaryOnTerminal(args.command, args.Value("--output"), !args.Has("--pem"));
    CLdap ldap;
    Connect(ldap);
    std::string const der = ReadKey(
        args, ldap, args.Has("--crypt") ? &CLdap::GetCryptPublicKey : &CLdap::GetSignPublicKey, dn);
    if (der.empty()) {
        Fail(args.command, dn + " holds no " + Pair(args) + " certificate");
    }
    bool const pem = args.Has("--pem");
    std::string const out = args.Value("--output");
    // put-cert also stores bare public keys.
    char const* label = Classify(der) == DerKind::kPublicKey ? "PUBLIC KEY" : "CERTIFICATE";
    WriteOutput(args.command, pem ? PemEncode(label, der) : der, out, !pem, false);
    if (!out.empty() && out != "-") {
        std::printf("wrote the %s certificate of %s to %s\n", Pair(args), dn.c_str(), out.c_str());
    }
    return kExitOk;
}

int RunGetKey(Args const& args) {
    std::string const dn = LibraryDn(args.command, args.positional[0]);
    RefuseBinaryOnTerminal(args.command, args.Value("--output"), !args.Has("--pem"));
    CLdap ldap;
    Connect(ldap);
    std::string const der =
        ReadKey(args, ldap,
                args.Has("--crypt") ? &CLdap::GetCryptPrivateKey : &CLdap::GetSignPrivateKey, dn);
    if (der.empty()) {
        Fail(args.command, dn + " holds no " + Pair(args) + " private key");
    }
    bool const pem = args.Has("--pem");
    std::string const out = args.Value("--output");
    WriteOutput(args.command, pem ? PemEncode("ENCRYPTED PRIVATE KEY", der) : der, out, !pem, true);
    if (!out.empty() && out != "-") {
        std::printf("wrote the %s private key of %s (still encrypted) to %s\n", Pair(args),
                    dn.c_str(), out.c_str());
    }
    return kExitOk;
}

void Store(Args const& args, KeyPut put, std::string const& dn, std::string const& der,
           char const* what, bool checked = true) {
    CLdap ldap;
    Connect(ldap);
    int rc = (ldap.*put)(dn.c_str(), reinterpret_cast<unsigned char const*>(der.data()),
                         static_cast<unsigned int>(der.size()));
    if (rc != QORLDAP_OK)
        FailWrite(args, rc, dn);
    std::printf("stored the %s %s of %s (%zu bytes%s)\n", Pair(args), what, dn.c_str(), der.size(),
                checked ? "" : ", unchecked");
}

int RunPutCert(Args const& args) {
    std::string const dn = LibraryDn(args.command, args.positional[0]);
    std::string const& path = args.positional[1];
    std::string label;
    std::string const der = ReadDerOrPem(args, path, label);
    DerKind const kind = Classify(der);
    if (label.find("PRIVATE KEY") != std::string::npos || kind == DerKind::kPrivateKey ||
        kind == DerKind::kEncryptedKey) {
        Fail(args.command,
             path + ": this is a private key; put-cert stores certificates and public keys");
    }
    if (kind == DerKind::kOther) {
        Fail(args.command, path + (label.empty() ? "" : " (PEM \"" + label + "\")") +
                               " is neither an X.509 certificate nor a public key "
                               "(SubjectPublicKeyInfo), in DER or PEM form");
    }
    Store(args, args.Has("--crypt") ? &CLdap::ModifyCryptPublicKey : &CLdap::ModifySignPublicKey,
          dn, der, kind == DerKind::kCertificate ? "certificate" : "public key");
    return kExitOk;
}

int RunPutKey(Args const& args) {
    std::string const dn = LibraryDn(args.command, args.positional[0]);
    std::string const& path = args.positional[1];
    KeyPut const put =
        args.Has("--crypt") ? &CLdap::ModifyCryptPrivateKey : &CLdap::ModifySignPrivateKey;
    if (args.Has("--raw")) {
        Store(args, put, dn, ReadFile(args.command, path, kMaxInput), "private key", false);
        return kExitOk;
    }
    std::string label;
    std::string const der = ReadDerOrPem(args, path, label);
    std::string const convert =
        "; the directory keeps keys encrypted, convert it first: "
        "openssl pkcs8 -topk8 -v2 aes-256-cbc" +
        std::string(label.empty() ? " -inform DER" : "") + " -in " + path +
        " -outform DER -out KEY.p8";
    switch (Classify(der)) {
        case DerKind::kEncryptedKey:
            break;
        case DerKind::kPrivateKey:
            Fail(args.command, path + " holds an unencrypted key" + convert);
        case DerKind::kCertificate:
            Fail(args.command,
                 path + " holds a certificate, not a private key (put-cert stores it)");
        case DerKind::kPublicKey:
            Fail(args.command,
                 path + " holds a public key, not a private key (put-cert stores it)");
        case DerKind::kOther:
            // Old-style encrypted PEM ("Proc-Type: 4,ENCRYPTED") does not decode as DER.
            if (label.find("PRIVATE KEY") != std::string::npos && label != "ENCRYPTED PRIVATE KEY")
                Fail(args.command, path + " holds a \"" + label + "\" block" + convert);
            break;
    }
    // Only a key the library would open is stored.
    if (QorLdapCheckStoredKey(reinterpret_cast<unsigned char const*>(der.data()),
                              static_cast<unsigned int>(der.size())) != QORLDAP_OK) {
        Fail(args.command, path +
                               " is not an encrypted PKCS#8 private key (PBES2 with PBKDF2, or a "
                               "PKCS#5 or PKCS#12 password-based scheme), in DER or PEM form");
    }
    // The library never protects a key under an empty password; one that opens with it is
    // protected by nothing.
    if (OpensWith(reinterpret_cast<unsigned char const*>(der.data()),
                  static_cast<unsigned int>(der.size()), "")) {
        Fail(args.command, path + " is encrypted under an empty password, which protects nothing");
    }
    Store(args, put, dn, der, "private key");
    return kExitOk;
}

int RunRmKey(Args const& args) {
    std::string const dn = LibraryDn(args.command, args.positional[0]);
    bool const crypt = args.Has("--crypt");
    CLdap ldap;
    Connect(ldap);
    // Only a user's DN can be read first; for any other the removal alone answers.
    bool known = false;
    {
        KeyBuffer key(ldap);
        int rc = (ldap.*(crypt ? &CLdap::GetCryptPrivateKey : &CLdap::GetSignPrivateKey))(
            dn.c_str(), key.data, key.length);
        if (rc == QORLDAP_OK && (key.data == nullptr || key.length == 0)) {
            std::printf("%s holds no %s private key; nothing to remove\n", dn.c_str(), Pair(args));
            return kExitOk;
        }
        known = rc == QORLDAP_OK;
    }
    int rc = crypt ? ldap.DeleteCryptPrivateKey(dn.c_str()) : ldap.DeleteSignPrivateKey(dn.c_str());
    if (rc != QORLDAP_OK)
        FailWrite(args, rc, dn);
    if (known) {
        std::printf("removed the %s private key of %s\n", Pair(args), dn.c_str());
    } else {
        std::printf("%s holds no %s private key now\n", dn.c_str(), Pair(args));
    }
    return kExitOk;
}

char const kGetCertHelp[] =
    "usage: qorldap get-cert DN [--crypt] [--pem] [-o FILE]\n"
    "\n"
    "Writes the signing (or with --crypt the encryption) certificate of the user DN.\n"
    "DN starts with cn=, such as \"cn=li lei, ou=sales, o=root\".\n"
    "\n"
    "  --crypt           the encryption certificate\n"
    "  --pem             PEM text instead of binary DER\n"
    "  -o, --output FILE write to FILE instead of standard output\n"
    "\n"
    "Binary DER is not written to a terminal.\n";

char const kGetKeyHelp[] =
    "usage: qorldap get-key DN [--crypt] [--pem] [-o FILE]\n"
    "\n"
    "Writes the stored private key of the user DN as it is stored: encrypted PKCS#8\n"
    "(PBES2, AES-256) under the key password. Open it with, for example:\n"
    "  openssl pkcs8 -inform DER -in KEY.p8\n"
    "\n"
    "  --crypt           the encryption key (default: the signing key)\n"
    "  --pem             PEM text (\"ENCRYPTED PRIVATE KEY\") instead of binary DER\n"
    "  -o, --output FILE write to FILE (created readable by you only)\n";

char const kPutCertHelp[] =
    "usage: qorldap put-cert DN FILE [--crypt]\n"
    "\n"
    "Stores the X.509 certificate or the public key (SubjectPublicKeyInfo) in FILE, DER or\n"
    "PEM, as the signing (or with --crypt the encryption) certificate of the entry DN,\n"
    "replacing the one there. FILE must decode whole; private keys are refused.\n";

char const kPutKeyHelp[] =
    "usage: qorldap put-key DN FILE [--crypt] [--raw]\n"
    "\n"
    "Stores the encrypted PKCS#8 private key in FILE (DER or PEM \"ENCRYPTED PRIVATE KEY\")\n"
    "as the signing (or with --crypt the encryption) key of the entry DN. Unencrypted keys\n"
    "and certificates are refused. Encrypt a key with:\n"
    "  openssl pkcs8 -topk8 -v2 aes-256-cbc -in KEY.pem -outform DER -out KEY.p8\n"
    "\n"
    "  --crypt  the encryption key (default: the signing key)\n"
    "  --raw    store the bytes of FILE as they are, unchecked (passwd and the library's\n"
    "           key readers then cannot open them unless they are such a key)\n";

char const kRmKeyHelp[] =
    "usage: qorldap rm-key DN [--crypt]\n"
    "\n"
    "Removes the signing (or with --crypt the encryption) private key of the entry DN.\n"
    "The certificate stays.\n";

Option const kCrypt{"--crypt", nullptr, false};
Option const kPem{"--pem", nullptr, false};
Option const kOutput{"--output", "-o", true};

}  // namespace

std::vector<Command> KeyCommands() {
    return {
        PublishCommand(),
        {"get-cert",
         "write a user's certificate",
         kGetCertHelp,
         {kCrypt, kPem, kOutput},
         1,
         1,
         RunGetCert},
        {"get-key",
         "write a user's stored (encrypted) private key",
         kGetKeyHelp,
         {kCrypt, kPem, kOutput},
         1,
         1,
         RunGetKey},
        {"put-cert",
         "store a certificate or public key in an entry",
         kPutCertHelp,
         {kCrypt},
         2,
         2,
         RunPutCert},
        {"put-key",
         "store an encrypted private key in an entry",
         kPutKeyHelp,
         {kCrypt, {"--raw", nullptr, false}},
         2,
         2,
         RunPutKey},
        {"rm-key", "remove a private key from an entry", kRmKeyHelp, {kCrypt}, 1, 1, RunRmKey},
        PasswdCommand(),
    };
}

}  // namespace qortool
