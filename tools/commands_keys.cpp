// The key commands: publish, get-cert, get-key, put-cert, put-key, rm-key, passwd.
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "platform/Crypto.h"
#include "qorldap/qorldap.h"

namespace qortool {

namespace {

size_t const kMaxInput = 16 * 1024 * 1024;

typedef int (CLdap::*KeyGet)(char const*, unsigned char*&, unsigned int&);
typedef int (CLdap::*KeyPut)(char const*, unsigned char const*, unsigned int);

char const* Pair(Args const& args) {
    return args.Has("--crypt") ? "encryption" : "signing";
}

// A key read, released through the object that made it.
class KeyBuffer {
  public:
    explicit KeyBuffer(CLdap& ldap) : ldap_(ldap) {}
    ~KeyBuffer() { ldap_.FreeKey(data); }
    KeyBuffer(KeyBuffer const&) = delete;
    KeyBuffer& operator=(KeyBuffer const&) = delete;

    unsigned char* data = nullptr;
    unsigned int length = 0;

  private:
    CLdap& ldap_;
};

std::string NameHint(std::string const& dn) {
    std::string hint = MissingTemplatesHint();
    if (!hint.empty())
        return "the library refused the name: " + hint;
    return "the library refused the name \"" + dn +
           "\": a user's DN starts with cn= (such as cn=li lei, ou=sales, o=root)";
}

// The stored value, empty when the entry holds none.
std::string ReadKey(Args const& args, CLdap& ldap, KeyGet get, std::string const& dn) {
    KeyBuffer key(ldap);
    int rc = (ldap.*get)(dn.c_str(), key.data, key.length);
    if (rc == QORLDAP_E_FAILED) {
        FailCode(args.command, rc, NameHint(dn));
    }
    if (rc == QORLDAP_E_KEY_SEARCH) {
        FailCode(args.command, rc, "the key search failed (is there an entry " + dn + "?)");
    }
    if (rc != QORLDAP_OK) {
        FailCode(args.command, rc);
    }
    if (key.data == nullptr || key.length == 0)
        return "";
    return std::string(reinterpret_cast<char const*>(key.data), key.length);
}

// Meanings with the entry named, for the directory's codes of writes.
[[noreturn]] void FailWrite(Args const& args, int rc, std::string const& dn) {
    if (rc == 32)
        FailCode(args.command, rc, "no such object: there is no entry " + dn);
    if (rc == 65) {
        FailCode(args.command, rc,
                 "object class violation (the class of " + dn + " does not allow this attribute)");
    }
    FailCode(args.command, rc);
}

// One whole DER element, and its tag.
bool WholeDer(std::string const& der, unsigned char& tag) {
    size_t header = 0;
    size_t content = 0;
    return DerHeader(der, 0, tag, header, content) && header + content == der.size();
}

// The file as DER; a PEM file is decoded and label receives its block's label.
std::string ReadDerOrPem(Args const& args, std::string const& path, std::string& label) {
    std::string const data = ReadFile(args.command, path, kMaxInput);
    label.clear();
    if (!LooksLikePem(data))
        return data;
    std::string der;
    std::string error;
    if (!PemDecode(data, label, der, error)) {
        Fail(args.command, path + ": " + error);
    }
    return der;
}

int RunGetCert(Args const& args) {
    std::string const& dn = args.positional[0];
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
    WriteOutput(args.command, pem ? PemEncode("CERTIFICATE", der) : der, out, !pem, false);
    if (!out.empty() && out != "-") {
        std::printf("wrote the %s certificate of %s to %s\n", Pair(args), dn.c_str(), out.c_str());
    }
    return kExitOk;
}

int RunGetKey(Args const& args) {
    std::string const& dn = args.positional[0];
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
           char const* what) {
    CLdap ldap;
    Connect(ldap);
    int rc = (ldap.*put)(dn.c_str(), reinterpret_cast<unsigned char const*>(der.data()),
                         static_cast<unsigned int>(der.size()));
    if (rc != QORLDAP_OK)
        FailWrite(args, rc, dn);
    std::printf("stored the %s %s of %s (%zu bytes)\n", Pair(args), what, dn.c_str(), der.size());
}

int RunPutCert(Args const& args) {
    std::string const& dn = args.positional[0];
    std::string const& path = args.positional[1];
    std::string label;
    std::string const der = ReadDerOrPem(args, path, label);
    if (!label.empty() && label != "CERTIFICATE") {
        Fail(args.command, path + " holds a PEM \"" + label + "\" block, not a CERTIFICATE");
    }
    unsigned char tag = 0;
    if (!WholeDer(der, tag) || tag != 0x30) {
        Fail(args.command, path + " is not a certificate in DER or PEM form");
    }
    Store(args, args.Has("--crypt") ? &CLdap::ModifyCryptPublicKey : &CLdap::ModifySignPublicKey,
          dn, der, "certificate");
    return kExitOk;
}

int RunPutKey(Args const& args) {
    std::string const& dn = args.positional[0];
    std::string const& path = args.positional[1];
    std::string label;
    std::string const der = ReadDerOrPem(args, path, label);
    std::string const convert =
        "; the directory keeps keys encrypted, convert it first: "
        "openssl pkcs8 -topk8 -v2 aes-256-cbc" +
        std::string(label.empty() ? " -inform DER" : "") + " -in " + path +
        " -outform DER -out KEY.p8";
    if (!label.empty() && label != "ENCRYPTED PRIVATE KEY") {
        if (label.find("PRIVATE KEY") != std::string::npos) {
            Fail(args.command, path + " holds a \"" + label + "\" block" + convert);
        }
        Fail(args.command, path + " holds a PEM \"" + label + "\" block, not a private key");
    }
    // An encrypted key is SEQUENCE { SEQUENCE algorithm, OCTET STRING }; an unencrypted one
    // starts with its INTEGER version.
    unsigned char tag = 0;
    unsigned char inner = 0;
    size_t header = 0;
    size_t content = 0;
    size_t innerHeader = 0;
    size_t innerContent = 0;
    if (!WholeDer(der, tag) || tag != 0x30 || !DerHeader(der, 0, tag, header, content) ||
        !DerHeader(der, header, inner, innerHeader, innerContent)) {
        Fail(args.command, path + " is not a private key in DER or PEM form");
    }
    if (inner == 0x02) {
        Fail(args.command, path + " holds an unencrypted key" + convert);
    }
    // Only a key the library would open is stored: the shape alone would let through a clear key
    // wrapped as SEQUENCE { SEQUENCE {}, OCTET STRING }.
    if (inner != 0x30 || !IsProtectedKey(reinterpret_cast<unsigned char const*>(der.data()),
                                         static_cast<unsigned int>(der.size()))) {
        Fail(args.command, path +
                               " is not an encrypted PKCS#8 private key (PBES2 with PBKDF2, or a "
                               "PKCS#5 or PKCS#12 password-based scheme)");
    }
    Store(args, args.Has("--crypt") ? &CLdap::ModifyCryptPrivateKey : &CLdap::ModifySignPrivateKey,
          dn, der, "private key");
    return kExitOk;
}

int RunRmKey(Args const& args) {
    std::string const& dn = args.positional[0];
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

int RunPublish(Args const& args) {
    std::string const& path = args.positional[0];
    bool const crypt = args.Has("--crypt");
    bool const publicOnly = args.Has("--public-only");
    std::string const bundle = ReadFile(args.command, path, kMaxInput);
    RefuseCutSettings();
    int rc = ConnectLdap();
    LdapInfo info;
    GetLdapAtt(info);
    if (rc != QORLDAP_OK)
        FailConnect(rc, info.host, info.port, info.basedn);

    std::string const bundlePassword = GetPassword(
        args,
        {"--p12-pass-file", "QORLDAP_P12_PASSWORD", "Password of " + path + ": ", false, true});
    std::string keyPassword;
    if (!publicOnly) {
        keyPassword = GetPassword(args, {"--key-pass-file", "QORLDAP_KEY_PASSWORD",
                                         "New password for the stored private key: ", true, false});
    }
    rc = PublishP12(bundle.data(), bundle.size(), bundlePassword.c_str(),
                    publicOnly ? nullptr : keyPassword.c_str(), !crypt, publicOnly);
    if (rc == QORLDAP_E_FAILED) {
        // When the directory refused a level, its own answer says why (a class that needs more
        // than the naming attribute: "object class 'inetOrgPerson' requires attribute 'sn'").
        std::string hint = MissingTemplatesHint();
        if (hint.empty() && DirectoryCause().empty())
            hint = "is the DN longer than 255 characters?";
        FailCode(args.command, rc,
                 "the entries that the certificate's subject names could not be made" +
                     (hint.empty() ? std::string() : " (" + hint + ")"));
    }
    if (rc != QORLDAP_OK)
        FailCode(args.command, rc);
    std::printf("published %s (%s %s)\n", path.c_str(), Pair(args),
                publicOnly ? "certificate only" : "pair");
    return kExitOk;
}

int RunPasswd(Args const& args) {
    std::string const& name = args.positional[0];
    CLdap ldap;
    Connect(ldap);
    std::string const oldPassword = GetPassword(
        args, {"--old-pass-file", "QORLDAP_OLD_PASSWORD", "Current key password: ", false, true});
    std::string const newPassword = GetPassword(
        args, {"--new-pass-file", "QORLDAP_NEW_PASSWORD", "New key password: ", true, false});
    int rc = ldap.ModifyPriKeyPsw(name.c_str(), oldPassword.c_str(), newPassword.c_str());
    if (rc == QORLDAP_E_FAILED) {
        LdapInfo info;
        ldap.GetLdapAtt(info);
        std::string hint = MissingTemplatesHint();
        if (hint.empty()) {
            hint = name.compare(0, 3, "cn=") != 0
                       ? "the name must start with cn=, such as cn=li lei"
                       : "no user " + name + " found below " + info.basedn;
        }
        FailCode(args.command, rc, hint);
    }
    if (rc == QORLDAP_E_OLD_PASSWORD) {
        FailCode(args.command, rc,
                 "the old password does not open a stored private key, or the user lacks one "
                 "of the two (the encryption key is changed first and not changed back)");
    }
    if (rc != QORLDAP_OK)
        FailCode(args.command, rc);
    std::printf("changed the password of the private keys of %s\n", name.c_str());
    return kExitOk;
}

char const kPublishHelp[] =
    "usage: qorldap publish BUNDLE.p12 [--crypt] [--public-only]\n"
    "                       [--p12-pass-file FILE] [--key-pass-file FILE]\n"
    "\n"
    "Stores the certificate and private key of a PKCS#12 bundle in the directory. The\n"
    "entry comes from the certificate's subject and the templates of ldap.ini: a subject\n"
    "C=CN,O=Acme,OU=Sales,CN=Li Lei lands at \"cn=li lei, ou=sales, <basedn>\". Missing\n"
    "levels are created. The private key is stored encrypted under the key password.\n"
    "\n"
    "  --crypt              store it as the encryption pair (default: the signing pair)\n"
    "  --public-only        store the certificate only; no key password is needed\n"
    "  --p12-pass-file FILE read the bundle's password from the first line of FILE\n"
    "  --key-pass-file FILE read the key password from the first line of FILE\n"
    "\n"
    "Passwords never go on the command line. Without a file option they come from\n"
    "QORLDAP_P12_PASSWORD and QORLDAP_KEY_PASSWORD, else from a prompt on the terminal.\n"
    "Give a user's two pairs the same key password: passwd changes both together.\n";

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
    "Stores the certificate in FILE (DER or PEM) as the signing (or with --crypt the\n"
    "encryption) certificate of the entry DN, replacing the one there.\n";

char const kPutKeyHelp[] =
    "usage: qorldap put-key DN FILE [--crypt]\n"
    "\n"
    "Stores the encrypted PKCS#8 private key in FILE (DER or PEM \"ENCRYPTED PRIVATE KEY\")\n"
    "as the signing (or with --crypt the encryption) key of the entry DN. Unencrypted keys\n"
    "are refused. Encrypt one with:\n"
    "  openssl pkcs8 -topk8 -v2 aes-256-cbc -in KEY.pem -outform DER -out KEY.p8\n";

char const kRmKeyHelp[] =
    "usage: qorldap rm-key DN [--crypt]\n"
    "\n"
    "Removes the signing (or with --crypt the encryption) private key of the entry DN.\n"
    "The certificate stays.\n";

char const kPasswdHelp[] =
    "usage: qorldap passwd NAME [--old-pass-file FILE] [--new-pass-file FILE]\n"
    "\n"
    "Changes the password that protects a user's two stored private keys (encryption and\n"
    "signing). NAME is cn=<name>, such as \"cn=li lei\"; the user is found by walking the\n"
    "tree from the base DN, so a full DN works too but only its cn= part counts. The user\n"
    "must hold both keys under the same password.\n"
    "\n"
    "The passwords come from the files, else from QORLDAP_OLD_PASSWORD and\n"
    "QORLDAP_NEW_PASSWORD, else from prompts (the new one asked twice).\n";

Option const kCrypt{"--crypt", nullptr, false};
Option const kPem{"--pem", nullptr, false};
Option const kOutput{"--output", "-o", true};

}  // namespace

std::vector<Command> KeyCommands() {
    return {
        {"publish",
         "store a PKCS#12 bundle's certificate and key under its subject",
         kPublishHelp,
         {kCrypt,
          {"--public-only", nullptr, false},
          {"--p12-pass-file", nullptr, true},
          {"--key-pass-file", nullptr, true}},
         1,
         1,
         RunPublish},
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
        {"put-cert", "store a certificate in an entry", kPutCertHelp, {kCrypt}, 2, 2, RunPutCert},
        {"put-key",
         "store an encrypted private key in an entry",
         kPutKeyHelp,
         {kCrypt},
         2,
         2,
         RunPutKey},
        {"rm-key", "remove a private key from an entry", kRmKeyHelp, {kCrypt}, 1, 1, RunRmKey},
        {"passwd",
         "change the password of a user's private keys",
         kPasswdHelp,
         {{"--old-pass-file", nullptr, true}, {"--new-pass-file", nullptr, true}},
         1,
         1,
         RunPasswd},
    };
}

}  // namespace qortool
