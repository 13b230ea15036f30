// The exported interface on the real directory, read back with ldapsearch; bundles made by openssl.
// No private key in the clear may be released unwiped (operator delete[] below).
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <iconv.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <tuple>

#include "qorldap/Entry.h"
#include "qorldap/Outcome.h"
#include "qorldap/Settings.h"
#include "qorldap/Walk.h"
#include "qorldap/Write.h"
#include "qorldap/qorldap.h"
#include "tests/support/CraftedBundle.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

// 16 bytes of a clear private key, sought in every array the library releases; times found.
static char gMarker[16];
static std::atomic<bool> gArmed{false};
static std::atomic<int> gUnwiped{0};

// Each array's size is kept in front of it: only its own bytes are searched. Never inlined, so
// that a tool replacing the allocation functions (valgrind) replaces every use.
__attribute__((noinline)) void* operator new[](std::size_t size) {
    auto* block = static_cast<std::size_t*>(std::malloc(size + 16));
    if (block == nullptr)
        throw std::bad_alloc();
    *block = size;
    return block + 2;
}
__attribute__((noinline)) void operator delete[](void* p) noexcept {
    Dl_info caller;
    if (p != nullptr && gArmed && dladdr(__builtin_return_address(0), &caller) != 0 &&
        std::strstr(caller.dli_fname, "libqorldap") != nullptr &&
        memmem(p, static_cast<std::size_t*>(p)[-2], gMarker, sizeof gMarker) != nullptr)
        ++gUnwiped;
    std::free(p != nullptr ? static_cast<std::size_t*>(p) - 2 : nullptr);
}
void operator delete[](void* p, std::size_t) noexcept {
    operator delete[](p);
}

namespace {

using Strings = std::vector<std::string>;
char const kP12Pw[] = "bundle pw;#=";

auto const U = [](std::string const& s) { return (unsigned char*)s.data(); };

// In a scratch folder, certificates signed by a test CA, bundled with their keys and the CA:
// FILE.p12 for /C=CN/O=Acme/OU=Pw/CN=<cn>, with a key of kind "rsa:2048" or a curve ("P-256",
// "SM2"); legacy: the old RC2/3DES encryption. FILE.der is the certificate, FILE.key the key.
struct Pki {
    std::string Bundle(std::string const& name, std::string const& kind, std::string const& cn,
                       bool legacy = false) {
        std::string const key = kind[0] == 'r' ? kind : "EC -pkeyopt ec_paramgen_curve:" + kind;
        qortest::Run(R"(sh -c 'cd "$0" && { test -f ca.crt || openssl req -x509 -nodes -newkey EC \
            -pkeyopt ec_paramgen_curve:P-256 -keyout ca.key -out ca.crt -subj /CN=CA; } &&
            openssl req -x509 -CA ca.crt -CAkey ca.key -nodes -newkey $2 -keyout $1.key -out $1.crt \
            -subj "$3" && openssl x509 -outform DER -in $1.crt -out $1.der && openssl pkcs12 \
            -export $4 -in $1.crt -inkey $1.key -certfile ca.crt -out $1.p12 -passout "pass:$5"' )" +
                     dir.Path() + " " + name + " '" + key + "' '/C=CN/O=Acme/OU=Pw/CN=" + cn +
                     "' '" + (legacy ? "-legacy" : "") + "' '" + kP12Pw + "' >/dev/null 2>&1");
        return qortest::ReadFile(dir.File(name + ".p12"));
    }
    // Whether `openssl pkcs8` opens a stored (encrypted, DER) key with password.
    bool OpensWith(std::string const& stored, std::string const& password) {
        return qortest::Run("openssl pkcs8 -inform DER -in '" + dir.Write("stored.der", stored) +
                            "' -passin 'pass:" + password + "' 2>/dev/null")
                   .find("BEGIN PRIVATE KEY") != std::string::npos;
    }
    qortest::ScratchDir dir;
};

// Each test works below ou=<its name>, with a CLdap connected first.
class Server : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
        ASSERT_EQ(0, ldap_.ConnectLdap());
    }
    std::string User(std::string const& cn) {  // made with the unit when that is missing
        return qortest::MakeUser(ldap_, dir_.Base(), name_, cn);
    }
    Pki pki_;
    qortest::Directory dir_;
    CLdap ldap_;
    std::string name_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::string unit_ = "ou=" + name_ + "," + dir_.Base();
};

TEST_F(Server, AFailedConnectRunsNothingUntilOneSucceeds) {
    using Case = std::tuple<char const*, int, char const*, int>;  // password, port, base, code
    for (auto [psw, port, base, rc] : {
             Case{"wrong", 0, nullptr, QORLDAP_E_FAILED},      // a refused bind
             Case{nullptr, 1, nullptr, QORLDAP_E_FAILED},      // nothing listens there
             Case{nullptr, 0, "o=Acme,c=CN", QORLDAP_E_ROOT},  // c=CN does not exist
         }) {
        CLdap ldap;
        LdapInfo good, info;
        ldap.GetLdapAtt(good);
        info = good;
        std::strcpy(info.psw, psw ? psw : good.psw);
        info.port = port ? port : good.port;
        std::strcpy(info.basedn, base ? base : good.basedn);
        ldap.SetLdapAtt(info);
        EXPECT_EQ(rc, ldap.ConnectLdap()) << info.basedn << " " << info.port;
        unsigned char *key = new unsigned char[8], *const kept = key;
        unsigned int length = 5;
        EXPECT_EQ(QORLDAP_E_FAILED, ldap.GetSignPublicKey("cn=x,o=root", key, length));
        EXPECT_TRUE(key == kept && length == 5);  // nothing ran
        ldap.FreeKey(key);                        // needs no connection
        ldap.SetLdapAtt(good);                    // host and port stay those of the first handle
        EXPECT_EQ(port ? rc : QORLDAP_OK, ldap.ConnectLdap()) << info.basedn;
    }
}

// A program's own settings win over the files for every engine built after them, and
// forgetting one brings the file's value back; a misspelt key is refused, not kept.
TEST_F(Server, SettingsGivenByTheProgramWinOverTheFiles) {
    ASSERT_EQ(0, ConnectLdap());  // the free functions' engine is built: settings miss it
    // Another folder: the same files but for the password, which the server refuses.
    std::string const conf = std::getenv("QORLDAP_CONF_DIR");
    std::string const soap = qortest::ReadFile(conf + "/soap.ini") + "\npsw=wrong\n";
    pki_.dir.Write("soap.ini", soap.substr(0, soap.find("\npsw=")) + "\npsw=wrong\n" +
                                   soap.substr(soap.find('\n', soap.find("\npsw=") + 1)));
    pki_.dir.Write("ldap.ini", qortest::ReadFile(conf + "/ldap.ini"));
    using Case = std::tuple<char const*, std::string, int>;  // key, value, connect result
    for (auto [key, value, rc] : {
             Case{"psw", "wrong", QORLDAP_E_FAILED},
             Case{"bind_password", "wrong", QORLDAP_E_FAILED},
             Case{"tls", "bogus", QORLDAP_E_FAILED},  // link keys fail closed here too
             Case{"conf_dir", pki_.dir.Path(), QORLDAP_E_FAILED},
             Case{"Timeout", "3", QORLDAP_OK},
         }) {
        EXPECT_EQ(1, QorLdapSet(key, value.c_str())) << key;  // the free engine exists
        EXPECT_EQ(rc, CLdap().ConnectLdap()) << key;
        EXPECT_EQ(1, QorLdapSet(key, nullptr)) << key;
        EXPECT_EQ(QORLDAP_OK, CLdap().ConnectLdap()) << key;
    }
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapSet("bind_passwd", "x"));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapSet(nullptr, "x"));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapSet("psw", std::string(5000, 'x').c_str()));
}

TEST_F(Server, EntriesAreSelectedListedInsertedModifiedAndDeleted) {
    User("Child A"), User("Child C");
    std::string dn = User("Child B");
    tagAtt att = {};
    ASSERT_EQ(0, ldap_.SelectLdap(dn.c_str(), att));
    std::set<std::string> names;
    for (int i = 0; i < att.itemCount; ++i)
        names.insert(att.items[i].type + std::string(att.items[i].value));  // names, no values
    EXPECT_EQ((std::set<std::string>{"objectClass", "cn", "sn"}), names);
    EXPECT_TRUE(att.objectClass == std::string("qorPerson") && att.namingAtt == std::string("cn"));
    EXPECT_TRUE(att.templateIndex == 1 && att.templateCount == 2);
    EXPECT_TRUE(att.dn == dn && att.parentDn == unit_) << att.dn << " " << att.parentDn;
    ldap_.FreeAtt(&att);
    // A missing DN: 0, nothing found. Refused: no type, 256 characters, a type over 27 characters.
    EXPECT_EQ(0, ldap_.SelectLdap(("cn=ghost," + unit_).c_str(), att));
    EXPECT_TRUE(att.itemCount == 0 && att.dn[0] == '\0');
    for (std::string bad : {std::string("=x,o=root"), "cn=" + std::string(253, 'a'),
                            std::string(28, 't') + "=x," + unit_})
        EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap(bad.c_str(), att)) << bad;
    // The children, each with the DN they were listed under.
    tagDN* list = nullptr;
    int count = -1;
    ASSERT_EQ(0, ldap_.SelectLdap(unit_.c_str(), nullptr, list, count));
    ASSERT_EQ(3, count);
    EXPECT_TRUE(list[0].baseDn == unit_ && list[2].baseDn == unit_) << list[0].baseDn;
    ldap_.FreeDN(list, count);

    // Inserts store the items and the binary values; writes give the directory's codes.
    std::string one = "cn=One," + unit_, psw = "pw-bytes", cert = "cert";
    qortest::Record r("qorPerson", {{"cn", "One"}, {"sn", "S"}, {"description", ""}});
    std::string const key("\x30\x82\x00\x01\x00", 5);
    ASSERT_EQ(0, ldap_.InsertLdap(one.c_str(), r.att, true, U(psw), 8, U(cert), 4, U(key), 5));
    EXPECT_EQ(Strings{key}, dir_.Values(one, "cryptPrikey;binary"));
    EXPECT_EQ(Strings{psw}, dir_.Values(one, "userPsw;binary"));
    EXPECT_EQ(Strings{cert}, dir_.Values(one, "cryptPubcer;binary"));
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.InsertLdap(one.c_str(), r.att, false, nullptr, 0, nullptr, 0,
                                                 nullptr, 0));  // exists already
    // GB2312 text goes to the directory as UTF-8; an empty item (the naming one) removes nothing.
    qortest::Record change("qorPerson", {{"sn", "\xd6\xd0\xce\xc4"}, {"cn", ""}});
    EXPECT_EQ(0, ldap_.ModifyLdap(dn.c_str(), change.att));
    EXPECT_EQ(Strings{"\xe4\xb8\xad\xe6\x96\x87"}, dir_.Values(dn, "sn"));
    EXPECT_EQ(66, ldap_.DeleteLdap(unit_.c_str()));  // still has children
    EXPECT_EQ(0, ldap_.DeleteLdap(dn.c_str()));
    // 389's ACIs cannot let the key service delete a missing entry without letting it delete
    // others' entries too, so it answers 50 there (schema/389ds/aci.ldif, ACI 11).
    EXPECT_EQ(dir_.Var("QORLDAP_SERVER") == "389ds" ? 50 : 32, ldap_.DeleteLdap(dn.c_str()));
}

TEST_F(Server, EachKeyRoundTripsByteExactThroughBothFamiliesAndKeyNamesAreChecked) {
    std::string user = User("Key User"), ghost = "cn=ghost," + unit_;
    std::string const big = qortest::Run("head -c 65536 /dev/urandom");
    struct {
        int (CLdap::*put)(char const*, unsigned char const*, unsigned int);
        int (CLdap::*get)(char const*, unsigned char*&, unsigned int&);
        int (*freeGet)(char const*, unsigned char*&, unsigned int&);
    } const keys[] = {
        {&CLdap::ModifySignPrivateKey, &CLdap::GetSignPrivateKey, &GetSignPrivateKey},
        {&CLdap::ModifySignPublicKey, &CLdap::GetSignPublicKey, &GetSignPublicKey},
        {&CLdap::ModifyCryptPrivateKey, &CLdap::GetCryptPrivateKey, &GetCryptPrivateKey},
        {&CLdap::ModifyCryptPublicKey, &CLdap::GetCryptPublicKey, &GetCryptPublicKey},
    };
    for (auto const& k : keys) {
        // The value read through the member or the free function; none: "<null>0".
        auto read = [&](std::string const& dn, int rc, bool member = true) {
            unsigned char* key = reinterpret_cast<unsigned char*>(1);
            unsigned int length = 99;
            EXPECT_EQ(rc, member ? (ldap_.*k.get)(dn.c_str(), key, length)
                                 : k.freeGet(dn.c_str(), key, length));
            std::string got = key ? std::string(reinterpret_cast<char*>(key), length)
                                  : "<null>" + std::to_string(length);
            FreeKey(key);
            return got;
        };
        EXPECT_EQ("<null>0", read(user, 0, false)) << &k - keys;  // absent: 0, null, 0
        for (std::string value : {std::string("\x30\x00\x01\x00\xff", 5), big}) {
            ASSERT_EQ(0, (ldap_.*k.put)(user.c_str(), U(value), unsigned(value.size())));
            EXPECT_EQ(value, read(user, 0, value != big)) << &k - keys;
        }
        // A missing entry fails the search; names not of the form cn=... are refused.
        EXPECT_EQ("<null>0", read(ghost, QORLDAP_E_KEY_SEARCH));
        EXPECT_EQ("<null>0", read(unit_, QORLDAP_E_FAILED));
        EXPECT_EQ("<null>0", read("uid=x", QORLDAP_E_FAILED, false));
    }
    // Removing a private key removes that attribute only.
    EXPECT_EQ(0, ldap_.DeleteSignPrivateKey(user.c_str()));
    EXPECT_EQ(Strings{big}, dir_.Values(user, "cryptPrikey;binary"));
    EXPECT_EQ(0, DeleteCryptPrivateKey(user.c_str()));
    EXPECT_EQ(Strings{}, dir_.Values(user, "cryptPrikey;binary"));
    EXPECT_EQ(Strings{}, dir_.Values(user, "signPrikey;binary"));
    EXPECT_EQ(32, ldap_.DeleteCryptPrivateKey(ghost.c_str()));
}

int Publish(std::string const& bundle, char const* keyPw, bool sign, bool publicOnly = false) {
    return PublishP12(bundle.data(), bundle.size(), kP12Pw, keyPw, sign, publicOnly);
}

// Bad bundles refused before anything is written; both pairs published, then the certificate
// alone; both keys re-protected, while a wrong old password or an empty new one changes nothing;
// and the key in the clear, which publication and re-protection hold, is wiped wherever it was.
TEST_F(Server, PublishedKeysAreReprotectedAndNoClearKeyIsLeftUnwiped) {
    std::string bundle = pki_.Bundle("changer", "rsa:2048", "Changer");
    std::string const dn = "cn=changer, ou=pw, " + dir_.Base();  // the subject's, lower case
    for (std::string bad : {bundle.substr(0, bundle.size() / 2), std::string()})
        EXPECT_EQ(QORLDAP_E_PKCS12, Publish(bad, "key pw", true));
    EXPECT_EQ(QORLDAP_E_PKCS12,
              PublishP12(bundle.data(), bundle.size(), "wrong", "key pw", true, false));
    EXPECT_EQ(QORLDAP_E_KEY_CONVERT, Publish(bundle, "", true));  // past the bundle: path made
    EXPECT_EQ(Strings{}, dir_.Values(dn, "signPubcer;binary"));
    std::string const clear =  // unencrypted PKCS#8 DER
        qortest::Run("openssl pkey -outform DER -in '" + pki_.dir.File("changer.key") + "'");
    ASSERT_GT(clear.size(), 1000u);
    std::memcpy(gMarker, clear.data() + clear.size() / 2, sizeof gMarker);  // inside a prime
    gArmed = true;
    ASSERT_EQ(0, Publish(bundle, "old", true));
    ASSERT_EQ(0, Publish(bundle, "old", false));
    ASSERT_EQ(0, Publish(bundle, nullptr, true, true));  // public only: no key password used
    EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw("cn=changer", "not-old", "new"));
    ASSERT_EQ(0, ldap_.ModifyPriKeyPsw("cn=changer", "old", "new"));
    gArmed = false;
    EXPECT_EQ(0, gUnwiped.load()) << "arrays released holding the private key in the clear";
    std::string const sign = dir_.Values(dn, "signPrikey;binary").at(0);
    EXPECT_TRUE(pki_.OpensWith(sign, "new") && !pki_.OpensWith(sign, "old"));
    EXPECT_TRUE(pki_.OpensWith(dir_.Values(dn, "cryptPrikey;binary").at(0), "new"));
    // An empty password would open the keys for anyone who reads the entry.
    EXPECT_EQ(QORLDAP_E_KEY_CONVERT, ModifyPriKeyPsw("cn=changer", "new", ""));
    EXPECT_EQ(Strings{sign}, dir_.Values(dn, "signPrikey;binary"));
    // One pair only, for signing (SM2, the old RC2/3DES encryption): the certificate goes where
    // sign says; with no encryption key to re-protect first, nothing is changed.
    std::string const half = "cn=half, ou=pw, " + dir_.Base();
    ASSERT_EQ(0, Publish(pki_.Bundle("half", "SM2", "Half", true), "old", true));
    EXPECT_EQ(Strings{qortest::ReadFile(pki_.dir.File("half.der"))},
              dir_.Values(half, "signPubcer;binary"));
    EXPECT_EQ(Strings{}, dir_.Values(half, "cryptPubcer;binary"));
    EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw("cn=half", "old", "new"));
    EXPECT_TRUE(pki_.OpensWith(dir_.Values(half, "signPrikey;binary").at(0), "old"));
}

// A subject that spells one person must never land on another's entry: each crafted subject is
// refused before anything is written, and bob's keys stay his. The last cases pass: plain
// values, Chinese ones among them.
TEST_F(Server, SubjectsThatWouldNameAnotherEntryAreRefused) {
    std::string const unit = "subj" + std::to_string(getpid());
    std::string const bob = "cn=bob smith, ou=" + unit + ", " + dir_.Base();
    auto const victim = qortest::CraftBundle({{"OU", unit}, {"CN", "Bob Smith"}}, kP12Pw);
    ASSERT_EQ(0, Publish(victim.bundle, "bobs", true));
    using Case = std::pair<char const*, qortest::Subject>;
    std::string const u = unit;
    for (auto const& [why, subject] : {
             Case{"line feed",
                  {{"O", "x\nOU=" + u + "\nCN=bob smith"}, {"OU", "evil"}, {"CN", "m"}}},
             Case{"carriage return", {{"OU", u}, {"CN", "bob smith\r"}}},
             Case{"tab", {{"OU", u}, {"CN", "bob\tsmith"}}},
             Case{"NUL", {{"OU", u}, {"CN", std::string("bob smith\0x", 11)}}},
             Case{"escape", {{"OU", u}, {"CN", "bob\\20smith"}}},
             Case{"encoded value", {{"OU", u}, {"CN", "#0c09626f6220736d697468"}}},
             Case{"comma", {{"OU", "evil"}, {"CN", "bob smith, ou=" + u}}},
             Case{"plus", {{"OU", u}, {"CN", "bob smith+sn=x"}}},
             Case{"blank first", {{"OU", u}, {"CN", " bob smith"}}},
             Case{"blank last", {{"OU", u}, {"CN", "bob smith "}}},
             Case{"two blanks", {{"OU", u}, {"CN", "bob  smith"}}},
             Case{"fullwidth", {{"OU", u}, {"CN", "\uff42\uff4f\uff42 smith"}}},
             Case{"no-break space", {{"OU", u}, {"CN", "bob\u00a0smith"}}},
             Case{"combining accent", {{"OU", u}, {"CN", "bob smithe\u0301"}}},
             Case{"invisible", {{"OU", u}, {"CN", "bob\u200b smith"}}},
             Case{"two CN", {{"OU", u}, {"CN", "mallory"}, {"CN", "bob smith"}}},
         }) {
        auto const crafted = qortest::CraftBundle(subject, kP12Pw);
        ASSERT_FALSE(crafted.bundle.empty()) << why;
        EXPECT_EQ(QORLDAP_E_PKCS12, Publish(crafted.bundle, "mallorys", true)) << why;
    }
    EXPECT_EQ(Strings{victim.cert}, dir_.Values(bob, "signPubcer;binary"));
    EXPECT_TRUE(pki_.OpensWith(dir_.Values(bob, "signPrikey;binary").at(0), "bobs"));
    // Plain values pass, Chinese ones too: each level's value is stored once, as it is spelt.
    for (std::string cn : {"bob smith jr", "o'neil-smith (ops)"}) {
        auto const fine = qortest::CraftBundle({{"OU", unit}, {"CN", cn}}, kP12Pw);
        EXPECT_EQ(0, Publish(fine.bundle, "pw", true)) << cn;
    }
    // A Chinese unit and name, UTF-8 in the certificate: each level holds its one value.
    std::string const sales = "\u9500\u552e\u90e8" + unit, zhang = "\u5f20\u4f1f";
    auto const chinese = qortest::CraftBundle({{"OU", sales}, {"CN", zhang}}, kP12Pw);
    ASSERT_EQ(0, Publish(chinese.bundle, "pw", true));
    std::string const unitDn = "ou=" + sales + ", " + dir_.Base();
    EXPECT_EQ(Strings{sales}, dir_.Values(unitDn, "ou"));
    EXPECT_EQ(Strings{zhang}, dir_.Values("cn=" + zhang + ", " + unitDn, "cn"));
    EXPECT_EQ(Strings{chinese.cert},
              dir_.Values("cn=" + zhang + ", " + unitDn, "signPubcer;binary"));
}

// Every refusal says why, and a call that reached an entry says which; the library's codes
// read as words.
TEST_F(Server, RefusalsSayWhyAndCallsSayWhereTheyWent) {
    using qortest::Parts;
    std::string const unit = "why" + std::to_string(getpid());
    std::string const dn = "cn=" + unit + ", ou=" + unit + ", " + dir_.Base();
    qortest::Subject const subject = {{"OU", unit}, {"CN", unit}};
    auto const good = qortest::CraftBundle(subject, kP12Pw);
    struct Case {
        std::string bundle;
        char const* keyPw;
        int rc, refusal;
        char const* says;  // in the reason
        std::string dn;
    } const cases[] = {
        {good.bundle, "key", 0, QORLDAP_REFUSED_NONE, "", dn},
        {good.bundle.substr(0, 100), "key", QORLDAP_E_PKCS12, QORLDAP_REFUSED_NOT_BUNDLE, "not a",
         ""},
        {qortest::CraftBundle(subject, "other").bundle, "key", QORLDAP_E_PKCS12,
         QORLDAP_REFUSED_PASSWORD, "password", ""},
        {qortest::CraftBundle(subject, kP12Pw, "P-256", 0, Parts::kCertificateOnly).bundle, "key",
         QORLDAP_E_PKCS12, QORLDAP_REFUSED_NO_KEY, "no private key", ""},
        {qortest::CraftBundle(subject, kP12Pw, "P-256", 0, Parts::kKeyOnly).bundle, "key",
         QORLDAP_E_PKCS12, QORLDAP_REFUSED_NO_CERTIFICATE, "no certificate", ""},
        {qortest::CraftBundle(subject, kP12Pw, "P-256", 0, Parts::kOtherCertificate).bundle, "key",
         QORLDAP_E_PKCS12, QORLDAP_REFUSED_KEY_MISMATCH, "belongs", ""},
        {qortest::CraftBundle({{"OU", unit}, {"CN", "x"}, {"1.2.3.4", std::string(10000, 'n')}},
                              kP12Pw)
             .bundle,
         "key", QORLDAP_E_PKCS12, QORLDAP_REFUSED_SUBJECT, "longer than", ""},
        {qortest::CraftBundle({{"OU", unit}, {"CN", "li  lei"}}, kP12Pw).bundle, "key",
         QORLDAP_E_PKCS12, QORLDAP_REFUSED_SUBJECT, "CN holds two blanks", ""},
        {good.bundle, "", QORLDAP_E_KEY_CONVERT, QORLDAP_REFUSED_EMPTY_PASSWORD, "empty", dn},
    };
    for (Case const& c : cases) {
        ASSERT_FALSE(c.bundle.empty()) << c.says;
        EXPECT_EQ(c.rc, Publish(c.bundle, c.keyPw, false)) << c.says;
        QorLdapOutcome outcome = {};
        QorLdapLastOutcome(&outcome);
        EXPECT_EQ(c.refusal, outcome.refusal) << c.says;
        EXPECT_NE(nullptr, std::strstr(outcome.reason, c.says)) << outcome.reason;
        EXPECT_EQ(c.dn, outcome.dn) << c.says;
    }
    // A password change names the user it reached, and which key did not open.
    ASSERT_EQ(0, Publish(good.bundle, "key", true));
    EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw(("cn=" + unit).c_str(), "wrong", "new"));
    QorLdapOutcome outcome = {};
    QorLdapLastOutcome(&outcome);
    EXPECT_EQ(QORLDAP_REFUSED_OLD_PASSWORD, outcome.refusal);
    EXPECT_STREQ("the old password does not open the encryption private key", outcome.reason);
    EXPECT_EQ("cn=" + unit + ", ou=" + unit + "," + dir_.Base(), outcome.dn);  // as the walk has it
    EXPECT_NE(nullptr, std::strstr(QorLdapCodeText(QORLDAP_E_PKCS12), "PKCS#12"));
    EXPECT_STREQ("Invalid credentials", QorLdapCodeText(49));
}

// A password change without passwords only resolves the name: it names the user it reached
// and reads and writes nothing (qorldap passwd asks this first, so that it refuses a full DN
// the lookup would take to another user before any key changes).
TEST_F(Server, APasswordChangeWithoutPasswordsOnlyResolvesTheName) {
    std::string const unit = "resolve" + std::to_string(getpid());
    std::string const dn = "cn=" + unit + ", ou=" + unit + ", " + dir_.Base();
    auto const good = qortest::CraftBundle({{"OU", unit}, {"CN", unit}}, kP12Pw);
    ASSERT_EQ(0, Publish(good.bundle, "key", false));
    ASSERT_EQ(0, Publish(good.bundle, "key", true));
    auto stored = [&] {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        EXPECT_EQ(0, GetCryptPrivateKey(dn.c_str(), key, length));
        std::string const bytes(reinterpret_cast<char const*>(key), length);
        FreeKey(key);
        return bytes;
    };
    std::string const before = stored();
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(QORLDAP_E_FAILED, ModifyPriKeyPsw(("cn=" + unit).c_str(), nullptr, nullptr));
    QorLdapOutcome outcome = {};
    QorLdapLastOutcome(&outcome);
    EXPECT_EQ(QORLDAP_REFUSED_NONE, outcome.refusal);
    EXPECT_EQ("cn=" + unit + ", ou=" + unit + "," + dir_.Base(), outcome.dn);
    EXPECT_EQ(before, stored());
    EXPECT_EQ(QORLDAP_E_FAILED, ModifyPriKeyPsw(("cn=nobody" + unit).c_str(), nullptr, nullptr));
    QorLdapLastOutcome(&outcome);
    EXPECT_STREQ("", outcome.dn);
}

// With gb18030_dns, callers name entries in GB18030 and get GB18030 names back: a Chinese path
// published from a UTF-8 subject is reached, listed and changed by its GB18030 DN through both
// families. The free functions' engine takes its settings once, so that family runs in a child
// process that names the setting before its first call.
std::string Gb18030(std::string const& utf8) {
    iconv_t cd = iconv_open("GB18030", "UTF-8");
    std::string out(utf8.size() * 2 + 4, '\0');
    char* in = const_cast<char*>(utf8.data());
    char* to = &out[0];
    std::size_t left = utf8.size(), room = out.size();
    iconv(cd, &in, &left, &to, &room);
    iconv_close(cd);
    out.resize(out.size() - room);
    return out;
}

TEST_F(Server, Gb18030NamesReachAndComeBackThroughBothFamilies) {
    bool const child = std::getenv("QORLDAP_GB18030_CHILD") != nullptr;
    if (!child) {
        ASSERT_EQ(0, ConnectLdap());  // the free functions' engine, built without the key
        ASSERT_EQ(1, QorLdapSet("gb18030_dns", "yes"));
    }
    std::string const unit = "\u9500\u552e" + std::to_string(child ? getppid() : getpid());
    std::string const user = "\u5f20\u4f1f" + std::to_string(child ? getppid() : getpid());
    std::string const utf8 = "cn=" + user + ", ou=" + unit + ", " + dir_.Base();
    std::string const gb = Gb18030(utf8);
    if (!child) {
        auto const bundle = qortest::CraftBundle({{"OU", unit}, {"CN", user}}, kP12Pw);
        ASSERT_EQ(0, Publish(bundle.bundle, "key", true));
        QorLdapOutcome outcome = {};
        QorLdapLastOutcome(&outcome);
        EXPECT_EQ(utf8, outcome.dn);  // the free engine was built without the key
    }
    unsigned char cert[] = {0x30, 0x03, 0x02, 0x01, 0x09};
    auto read = [&](auto get) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        int const rc = get(key, length);
        std::string const value = key != nullptr ? std::string((char*)key, length) : "<none>";
        FreeKey(key);
        return std::to_string(rc) + ":" + value;
    };
    std::string const stored((char*)cert, sizeof cert);
    if (child) {  // the free functions, with the key named before their first call
        ASSERT_EQ(0, QorLdapSet("gb18030_dns", "yes"));
        EXPECT_EQ("0:" + stored,
                  read([&](auto& k, auto& n) { return GetSignPublicKey(gb.c_str(), k, n); }));
        EXPECT_EQ(0, DeleteSignPrivateKey(gb.c_str()));
        EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw(Gb18030("cn=" + user).c_str(), "x", "y"));
        QorLdapOutcome outcome = {};
        QorLdapLastOutcome(&outcome);
        EXPECT_EQ(Gb18030("cn=" + user + ", ou=" + unit + "," + dir_.Base()), outcome.dn);
        return;
    }
    CLdap ldap;  // built after the setting: it speaks GB18030
    EXPECT_EQ(0, ldap.ModifySignPublicKey(gb.c_str(), cert, sizeof cert));
    EXPECT_EQ(Strings{stored}, dir_.Values(utf8, "signPubcer;binary"));
    tagAtt att = {};
    ASSERT_EQ(0, ldap.SelectLdap(gb.c_str(), att));
    EXPECT_GT(att.itemCount, 0);
    EXPECT_EQ(gb, att.dn);
    ldap.FreeAtt(&att);
    tagDN* list = nullptr;
    int count = 0;
    std::string const unitGb = Gb18030("ou=" + unit + ", " + dir_.Base());
    ASSERT_EQ(0, ldap.SelectLdap(unitGb.c_str(), nullptr, list, count));
    ASSERT_EQ(1, count);
    EXPECT_EQ(Gb18030("cn=" + user + ",ou=" + unit + "," + dir_.Base()), Strings{list[0].dn}[0]);
    EXPECT_EQ(unitGb, list[0].baseDn);
    ldap.FreeDN(list, count);
    // The same DN in UTF-8 is not GB18030 text for this engine: it names no entry.
    EXPECT_NE(0, ldap.ModifySignPublicKey(utf8.c_str(), cert, sizeof cert));
    ASSERT_EQ(1, QorLdapSet("gb18030_dns", nullptr));
    // The free functions in a child that names the setting first.
    setenv("QORLDAP_GB18030_CHILD", "1", 1);
    // By the name it was started with: under valgrind /proc/self/exe is valgrind's tool.
    char* const self = program_invocation_name;
    std::string filter = "--gtest_filter=Server.Gb18030NamesReachAndComeBackThroughBothFamilies";
    char* argv[] = {self, &filter[0], nullptr};
    pid_t pid = 0;
    ASSERT_EQ(0, posix_spawnp(&pid, self, nullptr, nullptr, argv, environ));
    unsetenv("QORLDAP_GB18030_CHILD");
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// An entry read whole gives every attribute with every value byte for byte, binary ones and
// values holding zero bytes included, as ldapsearch reads them.
TEST_F(Server, AnEntryIsReadWholeAsTheDirectoryHoldsIt) {
    std::string const dn = User("Whole");
    std::string const binary("\x30\x00\x01\xff\x0a", 5);
    ASSERT_EQ(0, ldap_.ModifySignPublicKey(dn.c_str(), U(binary), binary.size()));
    QorLdapEntry* entry = nullptr;
    ASSERT_EQ(0, QorLdapReadEntry(dn.c_str(), &entry));
    ASSERT_NE(nullptr, entry);
    std::set<std::string> names;
    for (int i = 0; i < entry->attributeCount; ++i) {
        QorLdapAttribute const& a = entry->attributes[i];
        Strings values;
        for (int v = 0; v < a.valueCount; ++v)
            values.emplace_back(reinterpret_cast<char const*>(a.values[v].bytes),
                                a.values[v].length);
        EXPECT_EQ(dir_.Values(dn, a.name), values) << a.name;
        names.insert(a.name);
    }
    EXPECT_TRUE(names.count("signPubcer;binary") == 1 && names.count("cn") == 1 &&
                names.count("objectClass") == 1)
        << names.size();
    QorLdapFreeEntry(entry);
    EXPECT_EQ(32, QorLdapReadEntry(("cn=nobody," + unit_).c_str(), &entry));
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapReadEntry(nullptr, &entry));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapReadEntry(dn.c_str(), nullptr));
    QorLdapFreeEntry(nullptr);
}

// An entry written whole holds exactly the octets given, zero bytes included, in one request:
// an add of a missing entry (68 when it exists, 32 without its parent; 50 on 389), a replace that
// changes one attribute and removes another (none given); what the library refuses sends nothing.
TEST_F(Server, AnEntryIsWrittenWholeAsOctets) {
    std::string const dn = "cn=written," + unit_;
    User("writer");  // the unit
    std::string const key("\x30\x00\x01\xff\x0a", 5);
    std::string const other("\x30\x03\x00\x00\x00", 5);
    auto const value = [](std::string const& v) {
        return QorLdapValue{static_cast<unsigned int>(v.size()), U(v)};
    };
    std::string const klass = "qorPerson", cn = "written";
    QorLdapValue const classes[] = {value(klass)}, names[] = {value(cn)}, keys[] = {value(key)},
                       others[] = {value(other)};
    QorLdapAttribute const entry[] = {{"objectClass", 1, classes},
                                      {"cn", 1, names},
                                      {"signPubcer;binary", 1, keys},
                                      {"cryptPubcer;binary", 1, keys}};
    ASSERT_EQ(0, QorLdapWriteEntry(dn.c_str(), QORLDAP_WRITE_ADD, entry, 4));
    EXPECT_EQ(Strings{key}, dir_.Values(dn, "signPubcer;binary"));
    EXPECT_EQ(68, QorLdapWriteEntry(dn.c_str(), QORLDAP_WRITE_ADD, entry, 4));
    // 389 answers 50: no ACI grants an add below an entry that is not there.
    int const orphan =
        QorLdapWriteEntry(("cn=x,ou=nowhere," + unit_).c_str(), QORLDAP_WRITE_ADD, entry, 4);
    EXPECT_TRUE(orphan == 32 || orphan == 50) << orphan;
    QorLdapAttribute const change[] = {{"signPubcer;binary", 1, others},
                                       {"cryptPubcer;binary", 0, nullptr}};
    ASSERT_EQ(0, QorLdapWriteEntry(dn.c_str(), QORLDAP_WRITE_REPLACE, change, 2));
    EXPECT_EQ(Strings{other}, dir_.Values(dn, "signPubcer;binary"));
    EXPECT_EQ(Strings{}, dir_.Values(dn, "cryptPubcer;binary"));
    // Refused before anything is sent: the entry keeps its values.
    QorLdapAttribute const unnamed[] = {{"", 1, keys}}, valueless[] = {{"cn", 0, nullptr}};
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWriteEntry(dn.c_str(), 7, change, 2));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWriteEntry(dn.c_str(), QORLDAP_WRITE_REPLACE, unnamed, 1));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWriteEntry(dn.c_str(), QORLDAP_WRITE_ADD, valueless, 1));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWriteEntry(dn.c_str(), QORLDAP_WRITE_REPLACE, change, 0));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWriteEntry(nullptr, QORLDAP_WRITE_REPLACE, change, 2));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWriteEntry(dn.c_str(), QORLDAP_WRITE_REPLACE, nullptr, 2));
    EXPECT_EQ(Strings{other}, dir_.Values(dn, "signPubcer;binary"));
}

// A subtree walked in pages of 3 visits each matching entry once, with the attributes asked for
// byte for byte; the visit may call the library; a visit that stops the walk ends it with its
// value, and the next walk starts afresh.
TEST_F(Server, AWalkVisitsTheSubtreePageByPage) {
    std::string const binary("\x30\x00\x01\xff\x0a", 5);
    std::set<std::string> made;
    for (int i = 0; i < 7; ++i) {
        std::string const dn = User("walker " + std::to_string(i));
        ASSERT_EQ(0, ldap_.ModifySignPublicKey(dn.c_str(), U(binary), binary.size()));
        made.insert(dn);
    }
    struct Seen {
        std::set<std::string> dns;
        int wrong = 0;
        int stopAt = 0;
    } seen;
    auto visit = [](QorLdapEntry const* entry, void* context) {
        Seen& s = *static_cast<Seen*>(context);
        s.dns.insert(entry->dn);
        // cn and the certificate, nothing else, and the same as a read of the whole entry.
        QorLdapEntry* whole = nullptr;
        if (entry->attributeCount != 2 || QorLdapReadEntry(entry->dn, &whole) != 0)
            ++s.wrong;
        for (int i = 0; i < entry->attributeCount; ++i) {
            QorLdapAttribute const& a = entry->attributes[i];
            std::string const name = a.name;
            std::string const first(reinterpret_cast<char const*>(a.values[0].bytes),
                                    a.values[0].length);
            if ((name == "signPubcer;binary" && first != std::string("\x30\x00\x01\xff\x0a", 5)) ||
                (name != "signPubcer;binary" && name != "cn"))
                ++s.wrong;
        }
        QorLdapFreeEntry(whole);
        return static_cast<int>(s.dns.size()) == s.stopAt ? 77 : 0;
    };
    char const* const wanted[] = {"cn", "signPubcer;binary", nullptr};
    ASSERT_EQ(0, QorLdapWalk(unit_.c_str(), "(cn=walker*)", wanted, 3, visit, &seen));
    EXPECT_EQ(made, seen.dns);
    EXPECT_EQ(0, seen.wrong);
    seen = Seen{{}, 0, 4};
    EXPECT_EQ(77, QorLdapWalk(unit_.c_str(), "(cn=walker*)", wanted, 3, visit, &seen));
    EXPECT_EQ(4u, seen.dns.size());
    seen = Seen{};
    EXPECT_EQ(0, QorLdapWalk(unit_.c_str(), "(cn=walker*)", wanted, 3, visit, &seen));
    EXPECT_EQ(7u, seen.dns.size());
    // Every user attribute without a list; the unit itself with a filter that takes it.
    int count = 0;
    auto counter = [](QorLdapEntry const*, void* n) { return ++*static_cast<int*>(n), 0; };
    EXPECT_EQ(0, QorLdapWalk(unit_.c_str(), nullptr, nullptr, 100, counter, &count));
    EXPECT_EQ(8, count);
    std::string const nowhere = "ou=nowhere," + unit_;
    EXPECT_EQ(32, QorLdapWalk(nowhere.c_str(), nullptr, nullptr, 3, counter, &count));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWalk(unit_.c_str(), nullptr, nullptr, 0, counter, &count));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWalk(nullptr, nullptr, nullptr, 3, counter, &count));
    EXPECT_EQ(QORLDAP_E_FAILED, QorLdapWalk(unit_.c_str(), nullptr, nullptr, 3, nullptr, &count));
    EXPECT_EQ(8, count);
    // The server keeps one paged search per connection: walks of two threads, a page of one
    // entry at a time, each see every entry; a walk started from a visit is refused.
    int counts[2] = {};
    auto slowCounter = [](QorLdapEntry const*, void* n) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // so that the pages interleave
        return ++*static_cast<int*>(n), 0;
    };
    std::thread other(
        [&] { QorLdapWalk(unit_.c_str(), nullptr, nullptr, 1, slowCounter, &counts[1]); });
    EXPECT_EQ(0, QorLdapWalk(unit_.c_str(), nullptr, nullptr, 1, slowCounter, &counts[0]));
    other.join();
    EXPECT_EQ(8, counts[0]);
    EXPECT_EQ(8, counts[1]);
    std::pair<std::string, int> nested{unit_, 0};
    auto again = [](QorLdapEntry const*, void* c) {
        auto& n = *static_cast<std::pair<std::string, int>*>(c);
        n.second = QorLdapWalk(
            n.first.c_str(), nullptr, nullptr, 1, [](QorLdapEntry const*, void*) { return 0; },
            nullptr);
        return 1;
    };
    EXPECT_EQ(1, QorLdapWalk(unit_.c_str(), nullptr, nullptr, 1, again, &nested));
    EXPECT_EQ(QORLDAP_E_FAILED, nested.second);
}

}  // namespace
