// The verify command: every stored certificate and private key below a base checked, and the
// pairs they should make, with the key password also whether each key belongs to its
// certificate.
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>

#include "qorldap/Inspect.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/commands/subtree.h"
#include "tools/ossl.h"
#include "tools/output/entry_view.h"
#include "tools/output/output.h"

namespace qortool {

namespace {

using Pkcs8InfoPtr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, Deleter<PKCS8_PRIV_KEY_INFO_free>>;

// The library protects keys with PBKDF2 at 100,000 iterations. A key under fewer was written
// by something else (put-key --raw, another tool, an old release), and every guess at its
// password costs an attacker that much less: it is reported.
long const kMinIterations = 100000;
// RFC 8018 asks for a salt of at least eight octets.
int const kMinSaltBytes = 8;

struct Pair {
    char const* role;  // as reported
    char const* certificate;
    char const* key;
};
Pair const kPairs[] = {{"signing", "signPubcer;binary", "signPrikey;binary"},
                       {"encryption", "cryptPubcer;binary", "cryptPrikey;binary"}};
char const kKeyFilter[] =
    "(|(signPubcer;binary=*)(signPrikey;binary=*)(cryptPubcer;binary=*)(cryptPrikey;binary=*))";

unsigned char const* Bytes(std::string const& der) {
    return reinterpret_cast<unsigned char const*>(der.data());
}

std::string ObjectName(ASN1_OBJECT const* object) {
    char text[80];
    OBJ_obj2txt(text, sizeof text, object, 0);
    return text;
}

// Why a stored private key's protection is not what the library writes and accepts, or empty:
// a whole EncryptedPrivateKeyInfo, PBES2 with PBKDF2 (HMAC-SHA-2, at least kMinIterations,
// a salt of kMinSaltBytes or more) and AES in CBC mode.
std::string ProtectionFault(std::string const& der) {
    unsigned char const* p = Bytes(der);
    X509SigPtr sig(d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size())));
    if (sig == nullptr || p != Bytes(der) + der.size()) {
        ERR_clear_error();
        return Classify(der) == DerKind::kPrivateKey
                   ? "is NOT encrypted"
                   : "is not an encrypted PKCS#8 private key (EncryptedPrivateKeyInfo)";
    }
    X509_ALGOR const* algorithm = nullptr;
    X509_SIG_get0(sig.get(), &algorithm, nullptr);
    ASN1_OBJECT const* oid = nullptr;
    int type = 0;
    void const* value = nullptr;
    X509_ALGOR_get0(&oid, &type, &value, algorithm);
    if (OBJ_obj2nid(oid) != NID_pbes2 || type != V_ASN1_SEQUENCE)
        return "is encrypted with " + ObjectName(oid) + ", not PBES2";
    Pbe2ParamPtr pbes2(static_cast<PBE2PARAM*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), algorithm->parameter)));
    if (pbes2 == nullptr)
        return "has unreadable PBES2 parameters";
    ASN1_OBJECT const* kdf = nullptr;
    X509_ALGOR_get0(&kdf, nullptr, nullptr, pbes2->keyfunc);
    if (OBJ_obj2nid(kdf) != NID_id_pbkdf2)
        return "derives its key with " + ObjectName(kdf) + ", not PBKDF2";
    Pbkdf2ParamPtr pbkdf2(static_cast<PBKDF2PARAM*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), pbes2->keyfunc->parameter)));
    if (pbkdf2 == nullptr)
        return "has unreadable PBKDF2 parameters";
    int const prf = pbkdf2->prf != nullptr ? OBJ_obj2nid(pbkdf2->prf->algorithm) : NID_hmacWithSHA1;
    if (prf != NID_hmacWithSHA224 && prf != NID_hmacWithSHA256 && prf != NID_hmacWithSHA384 &&
        prf != NID_hmacWithSHA512)
        return std::string("derives its key with PBKDF2 over ") + OBJ_nid2sn(prf) +
               ", not HMAC-SHA-2";
    long const iterations = ASN1_INTEGER_get(pbkdf2->iter);
    if (iterations < kMinIterations)
        return "derives its key with " + std::to_string(iterations) +
               " PBKDF2 iterations, fewer than " + std::to_string(kMinIterations);
    if (pbkdf2->salt == nullptr || pbkdf2->salt->type != V_ASN1_OCTET_STRING ||
        pbkdf2->salt->value.octet_string->length < kMinSaltBytes)
        return "has a PBKDF2 salt shorter than " + std::to_string(kMinSaltBytes) + " bytes";
    ASN1_OBJECT const* cipher = nullptr;
    X509_ALGOR_get0(&cipher, nullptr, nullptr, pbes2->encryption);
    int const c = OBJ_obj2nid(cipher);
    if (c != NID_aes_128_cbc && c != NID_aes_192_cbc && c != NID_aes_256_cbc)
        return "is encrypted with " + ObjectName(cipher) + ", not AES-CBC";
    if (QorLdapCheckStoredKey(Bytes(der), static_cast<unsigned int>(der.size())) != 0)
        return "is not a key the library opens (over its work bounds)";
    return "";
}

// The public key of a stored certificate (or of a public key stored in its place).
EvpPkeyPtr PublicKeyOf(std::string const& der) {
    unsigned char const* p = Bytes(der);
    X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    if (cert != nullptr)
        return EvpPkeyPtr(X509_get_pubkey(cert.get()));
    p = Bytes(der);
    return EvpPkeyPtr(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())));
}

// Whether the key opens with password ("" when it does not) and belongs to publicKey.
enum class Match { kMatches, kOther, kDoesNotOpen };
Match KeyMatches(std::string const& der, std::string const& password, EVP_PKEY* publicKey) {
    unsigned char const* p = Bytes(der);
    X509SigPtr sig(d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size())));
    Pkcs8InfoPtr clear(sig != nullptr ? PKCS8_decrypt(sig.get(), password.c_str(),
                                                      static_cast<int>(password.size()))
                                      : nullptr);
    EvpPkeyPtr key(clear != nullptr ? EVP_PKCS82PKEY(clear.get()) : nullptr);
    ERR_clear_error();
    if (key == nullptr)
        return Match::kDoesNotOpen;
    return publicKey != nullptr && EVP_PKEY_eq(key.get(), publicKey) == 1 ? Match::kMatches
                                                                          : Match::kOther;
}

std::string KeyPassword(Args const& args) {
    std::string const from = args.Value("--key-password-from");
    if (from.compare(0, 4, "env:") == 0) {
        char const* value = std::getenv(from.substr(4).c_str());
        if (from.size() == 4 || value == nullptr)
            Usage(args.command, "--key-password-from " + from + ": no such variable");
        if (value[0] == '\0')
            Usage(args.command, "--key-password-from " + from + ": the password is empty");
        return value;
    }
    std::string const text = ReadRegularFile(args.command, from, 64 * 1024);
    std::string const line = text.substr(0, text.find('\n'));
    if (line.empty())
        Usage(args.command, "--key-password-from " + from + ": the password is empty");
    return line;
}

struct Tally {
    size_t entries = 0, certificates = 0, keys = 0, opened = 0, problems = 0, faulty = 0;
};

int RunVerify(Args const& args) {
    bool const json = args.Has("--json");
    bool const withPassword = args.HasValue("--key-password-from");
    std::string const password = withPassword ? KeyPassword(args) : "";
    Tally tally;
    // Each problem is written as it is found; nothing but the counts is kept.
    auto report = [&](std::string const& dn, char const* role, std::string const& problem) {
        if (json)
            std::printf("%s\n    {\"dn\": %s, \"role\": \"%s\", \"problem\": %s}",
                        tally.problems == 0 ? "" : ",", JsonString(dn).c_str(), role,
                        JsonString(problem).c_str());
        else
            std::printf("%s: %s %s\n", dn.c_str(), role, problem.c_str());
        ++tally.problems;
    };
    if (json)
        std::printf("{\"problems\": [");
    WalkSubtree(
        args, kKeyFilter,
        {kPairs[0].certificate, kPairs[0].key, kPairs[1].certificate, kPairs[1].key},
        [&](QorLdapEntry const& entry) {
            ++tally.entries;
            size_t const before = tally.problems;
            std::string const dn = entry.dn;
            for (Pair const& pair : kPairs) {
                std::vector<std::string> const certs = ValuesOf(entry, pair.certificate);
                std::vector<std::string> const keys = ValuesOf(entry, pair.key);
                tally.certificates += certs.size();
                tally.keys += keys.size();
                if (certs.size() > 1)
                    report(
                        dn, pair.role,
                        "certificate attribute holds " + std::to_string(certs.size()) + " values");
                if (keys.size() > 1)
                    report(
                        dn, pair.role,
                        "private key attribute holds " + std::to_string(keys.size()) + " values");
                bool certOk = false;
                for (std::string const& der : certs) {
                    DerKind const kind = Classify(der);
                    certOk = kind == DerKind::kCertificate || kind == DerKind::kPublicKey;
                    if (!certOk)
                        report(dn, pair.role,
                               "certificate does not parse as an X.509 certificate (" +
                                   std::to_string(der.size()) + " bytes)");
                }
                bool keyOk = false;
                for (std::string const& der : keys) {
                    std::string const fault = ProtectionFault(der);
                    keyOk = fault.empty();
                    if (!keyOk)
                        report(dn, pair.role, "private key " + fault);
                }
                if (!certs.empty() && keys.empty())
                    report(dn, pair.role, "certificate without its private key");
                if (certs.empty() && !keys.empty())
                    report(dn, pair.role, "private key without its certificate");
                if (!withPassword || certs.size() != 1 || keys.size() != 1 || !certOk || !keyOk)
                    continue;
                EvpPkeyPtr publicKey = PublicKeyOf(certs[0]);
                switch (KeyMatches(keys[0], password, publicKey.get())) {
                    case Match::kMatches:
                        ++tally.opened;
                        break;
                    case Match::kOther:
                        ++tally.opened;
                        report(dn, pair.role,
                               "private key does not belong to its certificate (another pair's "
                               "key)");
                        break;
                    case Match::kDoesNotOpen:
                        report(dn, pair.role, "private key does not open with the password given");
                        break;
                }
            }
            tally.faulty += tally.problems != before;
        });
    if (json) {
        std::printf(
            "%s], \"entries\": %zu, \"certificates\": %zu, \"keys\": %zu, "
            "\"keysOpened\": %s, \"entriesWithProblems\": %zu}\n",
            tally.problems == 0 ? "" : "\n  ", tally.entries, tally.certificates, tally.keys,
            withPassword ? std::to_string(tally.opened).c_str() : "null", tally.faulty);
    } else {
        std::printf(
            "checked %zu entries: %zu certificates, %zu private keys%s; %zu problems in "
            "%zu entries\n",
            tally.entries, tally.certificates, tally.keys,
            withPassword ? (", " + std::to_string(tally.opened) + " opened").c_str()
                         : " (no password: keys not opened)",
            tally.problems, tally.faulty);
    }
    return tally.problems == 0 ? kExitOk : kExitFailed;
}

char const kVerifyHelp[] =
    "usage: qorldap verify [BASE] [--json] [--key-password-from FILE|env:VAR]\n"
    "\n"
    "Checks every entry at or below BASE (default: the base DN of soap.ini) that holds a\n"
    "certificate or a private key, and prints one line per problem (DN, role, what is wrong),\n"
    "then a count:\n"
    "  - each certificate is one whole X.509 certificate (a public key stored in its place\n"
    "    by put-cert is accepted);\n"
    "  - each private key is an encrypted PKCS#8 key (EncryptedPrivateKeyInfo) under PBES2:\n"
    "    PBKDF2 with HMAC-SHA-224/256/384/512, at least 100,000 iterations (what the library\n"
    "    writes; fewer make each guess of the password cheaper), a salt of 8 bytes or more\n"
    "    (RFC 8018), AES-128/192/256-CBC, within the library's work bounds;\n"
    "  - each certificate has its private key and each key its certificate (what an\n"
    "    interrupted or two concurrent publications without atomic_publish leave behind);\n"
    "  - each attribute holds one value.\n"
    "With the key password, each key is also opened and must hold the private key of its\n"
    "certificate's public key (a key left next to another pair's certificate is found only\n"
    "so). The subtree is read in pages of 500 entries; nothing but the counts is kept.\n"
    "\n"
    "  --json                         one JSON object: problems (dn, role, problem) and counts\n"
    "  --key-password-from FILE       the key password, the first line of FILE\n"
    "  --key-password-from env:VAR    the key password, from the environment variable VAR\n"
    "\n"
    "Exit status: 0 nothing wrong, 1 problems found, 3 no report (one line on stderr says\n"
    "why: bad input, no such BASE, no directory).\n";

}  // namespace

Command VerifyCommand() {
    return {"verify",
            "check the stored certificates and keys, and that they make pairs",
            kVerifyHelp,
            {{"--json", nullptr, false}, {"--key-password-from", nullptr, true}},
            0,
            1,
            [](Args const& args) { return RunReport(args, RunVerify); }};
}

}  // namespace qortool
