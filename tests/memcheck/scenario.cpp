// One end-to-end run through the public interface, made to be watched by valgrind
// (run_memcheck.sh): connect both families, publish a bundle, read every key both ways, change
// the key password, select the user, list its unit, insert and delete an extra entry, remove a
// private key; and on the way the refusals whose clean-up paths are as easy to get wrong as the
// successful ones (wrong password, missing entry, broken bundle).
//
// Needs QORLDAP_CONF_DIR (read when the library is loaded) and QORLDAP_TEST_DIR (the directory's
// env file), as set up by run_memcheck.sh or the test fixture. Prints one line per check and
// then "N passed, M failed"; exits 1 when a check failed.
#include <cstdio>
#include <string>
#include <vector>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"
#include "tests/support/Pki.h"

namespace {

int passed = 0;
int failed = 0;

bool Check(bool ok, std::string const& what, std::string const& detail = std::string()) {
    if (ok) {
        ++passed;
        std::printf("ok   %s\n", what.c_str());
    } else {
        ++failed;
        std::printf("FAIL %s%s%s\n", what.c_str(), detail.empty() ? "" : ": ", detail.c_str());
    }
    std::fflush(stdout);
    return ok;
}

std::string Code(int rc) {
    char text[32];
    std::snprintf(text, sizeof text, "returned 0x%x", static_cast<unsigned>(rc));
    return text;
}

bool CheckRc(int rc, int expected, std::string const& what) {
    return Check(rc == expected, what, rc == expected ? std::string() : Code(rc));
}

char const kBundlePw[] = "bundle-pw";
char const kKeyPw[] = "first key pw";
char const kKeyPw2[] = "second key pw";
char const kKeyPw3[] = "third key pw";

typedef int (*FreeGet)(char const*, unsigned char*&, unsigned int&);
typedef int (CLdap::*MemberGet)(char const*, unsigned char*&, unsigned int&);

// Reads one key through the free function and through the object; both must agree and hold a
// value. Returns that value ("" when the reads failed or disagreed).
std::string ReadBoth(CLdap& ldap, std::string const& dn, FreeGet freeGet, MemberGet memberGet,
                     char const* name) {
    unsigned char* viaFree = nullptr;
    unsigned int freeLength = 0;
    int rcFree = freeGet(dn.c_str(), viaFree, freeLength);
    unsigned char* viaMember = nullptr;
    unsigned int memberLength = 0;
    int rcMember = (ldap.*memberGet)(dn.c_str(), viaMember, memberLength);
    std::string a = viaFree ? std::string(reinterpret_cast<char*>(viaFree), freeLength) : "";
    std::string b = viaMember ? std::string(reinterpret_cast<char*>(viaMember), memberLength) : "";
    FreeKey(viaFree);
    ldap.FreeKey(viaMember);
    bool ok =
        Check(rcFree == 0 && rcMember == 0 && !a.empty() && a == b,
              std::string("read ") + name + " (free and CLdap)",
              "free " + Code(rcFree) + " with " + std::to_string(a.size()) + " bytes, CLdap " +
                  Code(rcMember) + " with " + std::to_string(b.size()) + " bytes");
    return ok ? a : std::string();
}

int Scenario() {
    qortest::Directory dir;
    if (!Check(dir.Ready(), "test directory env found (QORLDAP_TEST_DIR)"))
        return 1;
    std::string const base = dir.Base();
    std::string const unitDn = "ou=mem," + base;
    // The levels are named after the certificate subject, lower case, joined with ", ".
    std::string const userDn = "cn=mem user, ou=mem, " + base;

    qortest::Pki pki;
    std::string bundle =
        pki.Ok() ? pki.Bundle("mem", "rsa", "/C=CN/O=Acme/OU=Mem/CN=Mem User", kBundlePw)
                 : std::string();
    if (!Check(!bundle.empty(), "openssl made an RSA bundle for /C=CN/O=Acme/OU=Mem/CN=Mem User")) {
        return 1;
    }
    std::string const certificate = pki.Certificate("mem");

    CheckRc(ConnectLdap(), 0, "ConnectLdap (free functions)");
    CLdap ldap;
    CheckRc(ldap.ConnectLdap(), 0, "CLdap::ConnectLdap");

    // Publication: both pairs, so that the password change below has two keys to convert.
    CheckRc(PublishP12(bundle.data(), bundle.size(), kBundlePw, kKeyPw, true, false), 0,
            "PublishP12 signing pair");
    CheckRc(PublishP12(bundle.data(), bundle.size(), kBundlePw, kKeyPw, false, false), 0,
            "PublishP12 encryption pair");
    CheckRc(PublishP12(bundle.data(), bundle.size(), "wrong", kKeyPw, true, false),
            QORLDAP_E_PKCS12, "PublishP12 with the wrong bundle password is refused");
    std::string half = bundle.substr(0, bundle.size() / 2);
    CheckRc(PublishP12(half.data(), half.size(), kBundlePw, kKeyPw, true, false), QORLDAP_E_PKCS12,
            "PublishP12 of a cut bundle is refused");

    // Every key, both ways.
    std::string signKey = ReadBoth(ldap, userDn, &GetSignPrivateKey, &CLdap::GetSignPrivateKey,
                                   "signing private key");
    std::string signCert =
        ReadBoth(ldap, userDn, &GetSignPublicKey, &CLdap::GetSignPublicKey, "signing certificate");
    std::string cryptKey = ReadBoth(ldap, userDn, &GetCryptPrivateKey, &CLdap::GetCryptPrivateKey,
                                    "encryption private key");
    std::string cryptCert = ReadBoth(ldap, userDn, &GetCryptPublicKey, &CLdap::GetCryptPublicKey,
                                     "encryption certificate");
    Check(signCert == certificate && cryptCert == certificate,
          "both certificates are the bundle's certificate");
    Check(pki.OpensWith(signKey, kKeyPw) && pki.OpensWith(cryptKey, kKeyPw),
          "both private keys open with the key password");
    unsigned char* none = reinterpret_cast<unsigned char*>(1);
    unsigned int noneLength = 1;
    CheckRc(GetSignPublicKey(("cn=ghost," + unitDn).c_str(), none, noneLength),
            QORLDAP_E_KEY_SEARCH, "reading a key of a missing entry fails the search");
    Check(none == nullptr && noneLength == 0, "... and hands out no buffer");

    // Password change, once through each family, and a wrong old password.
    CheckRc(ModifyPriKeyPsw("cn=mem user", "not the password", kKeyPw2), QORLDAP_E_OLD_PASSWORD,
            "ModifyPriKeyPsw with a wrong old password is refused");
    CheckRc(ModifyPriKeyPsw("cn=mem user", kKeyPw, kKeyPw2), 0, "ModifyPriKeyPsw (free)");
    CheckRc(ldap.ModifyPriKeyPsw("cn=mem user", kKeyPw2, kKeyPw3), 0, "CLdap::ModifyPriKeyPsw");
    signKey = ReadBoth(ldap, userDn, &GetSignPrivateKey, &CLdap::GetSignPrivateKey,
                       "signing private key after the change");
    Check(pki.OpensWith(signKey, kKeyPw3) && !pki.OpensWith(signKey, kKeyPw),
          "the signing key opens with the new password only");

    // Select the user, list the unit.
    tagAtt att = {};
    CheckRc(ldap.SelectLdap(userDn.c_str(), att), 0, "SelectLdap of the user");
    Check(att.itemCount > 0 && att.items != nullptr && std::string(att.objectClass) == "qorPerson",
          "the user is found with its template",
          "itemCount " + std::to_string(att.itemCount) + ", objectClass '" + att.objectClass + "'");
    ldap.FreeAtt(&att);
    tagAtt missing = {};
    CheckRc(ldap.SelectLdap(("cn=ghost," + unitDn).c_str(), missing), 0,
            "SelectLdap of a missing entry");
    Check(missing.itemCount == 0 && missing.items == nullptr, "... finds nothing");

    tagDN* list = nullptr;
    int count = 0;
    CheckRc(ldap.SelectLdap(unitDn.c_str(), nullptr, list, count), 0,
            "SelectLdap list of the unit");
    bool listed = false;
    for (int i = 0; i < count; ++i) {
        listed = listed || std::string(list[i].dn).find("mem user") != std::string::npos;
    }
    Check(count >= 1 && listed, "the unit lists the user", "count " + std::to_string(count));
    if (count > 0)
        ldap.FreeDN(list, count);

    // An extra entry with password and both key values, changed and deleted again.
    std::string const extraDn = "cn=Mem Extra," + unitDn;
    qortest::Record extra("qorPerson", {{"cn", "Mem Extra"}, {"sn", "Extra"}});
    std::string password = "extra-password";
    std::string privateKey(300, '\x5a');
    std::string publicKey = certificate;
    auto u = [](std::string& s) { return reinterpret_cast<unsigned char*>(&s[0]); };
    ldap.DeleteLdap(extraDn.c_str());  // left over from an interrupted run: gone either way
    CheckRc(ldap.InsertLdap(extraDn.c_str(), extra.att, false, u(password),
                            static_cast<unsigned>(password.size()), u(publicKey),
                            static_cast<unsigned>(publicKey.size()), u(privateKey),
                            static_cast<unsigned>(privateKey.size())),
            0, "InsertLdap of an extra entry");
    CheckRc(ldap.InsertLdap(extraDn.c_str(), extra.att, false, nullptr, 0, nullptr, 0, nullptr, 0),
            QORLDAP_E_FAILED, "InsertLdap of the same entry again is refused");
    qortest::Record change("qorPerson", {{"sn", "Changed"}, {"mail", "extra@example.org"}});
    CheckRc(ldap.ModifyLdap(extraDn.c_str(), change.att), 0, "ModifyLdap of the extra entry");
    CheckRc(ldap.DeleteLdap(extraDn.c_str()), 0, "DeleteLdap of the extra entry");
    CheckRc(ldap.DeleteLdap(extraDn.c_str()), 32, "DeleteLdap of it again: no such object");

    // Private keys removed, one through each family.
    CheckRc(DeleteSignPrivateKey(userDn.c_str()), 0, "DeleteSignPrivateKey (free)");
    CheckRc(ldap.DeleteCryptPrivateKey(userDn.c_str()), 0, "CLdap::DeleteCryptPrivateKey");
    unsigned char* gone = reinterpret_cast<unsigned char*>(1);
    unsigned int goneLength = 1;
    CheckRc(GetSignPrivateKey(userDn.c_str(), gone, goneLength), 0,
            "reading the removed signing key");
    Check(gone == nullptr && goneLength == 0, "... finds no key");
    FreeKey(gone);
    return 0;
}

}  // namespace

int main() {
    Scenario();
    std::printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 && passed > 0 ? 0 : 1;
}
