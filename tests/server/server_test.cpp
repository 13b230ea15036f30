// The exported interface on the real directory, read back with ldapsearch; bundles made by openssl.
// No private key in the clear may be released unwiped (operator delete[] below).
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <string>
#include <tuple>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

namespace {

// 16 bytes of a private key in the clear, searched for in every array the library (a shared
// object: its array deletes come here) releases, and how often they were found there.
char gMarker[16];
std::atomic<bool> gArmed{false};
std::atomic<int> gUnwiped{0};

}  // namespace

// Each array's size is kept in front of it: only its own bytes are searched. Never inlined, so
// that a tool replacing the allocation functions (valgrind) replaces every use.
__attribute__((noinline)) void* operator new[](std::size_t size) {
    void* block = std::malloc(size + 16);
    if (block == nullptr)
        throw std::bad_alloc();
    *static_cast<std::size_t*>(block) = size;
    return static_cast<char*>(block) + 16;
}
__attribute__((noinline)) void operator delete[](void* p) noexcept {
    if (p == nullptr)
        return;
    Dl_info caller;
    std::size_t const* block = reinterpret_cast<std::size_t*>(static_cast<char*>(p) - 16);
    if (gArmed && dladdr(__builtin_return_address(0), &caller) != 0 &&
        std::strstr(caller.dli_fname, "libqorldap") != nullptr &&
        memmem(p, *block, gMarker, sizeof gMarker) != nullptr)
        ++gUnwiped;
    std::free(const_cast<std::size_t*>(block));
}
void operator delete[](void* p, std::size_t) noexcept {
    operator delete[](p);
}

namespace {

using qortest::Run;
using Strings = std::vector<std::string>;
char const kP12Pw[] = "bundle pw;#=";

unsigned char* U(std::string const& s) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(s.data()));
}

// Certificates signed by a test CA, bundled with their keys and the CA, in a scratch folder.
class Pki {
  public:
    // NAME.p12 for /C=CN/O=Acme/OU=<unit>/CN=<cn>, a key of kind "rsa:2048" or a curve ("P-256",
    // "SM2"); legacy: the old RC2/3DES encryption. NAME.der is the certificate, NAME.key the key.
    std::string Bundle(std::string const& name, std::string const& kind, std::string const& unit,
                       std::string const& cn, bool legacy = false) {
        std::string const key = kind[0] == 'r' ? kind : "EC -pkeyopt ec_paramgen_curve:" + kind;
        Run(R"(sh -c 'cd "$0" && { test -f ca.crt || openssl req -x509 -nodes -newkey EC \
            -pkeyopt ec_paramgen_curve:P-256 -keyout ca.key -out ca.crt -subj /CN=CA; } &&
            openssl req -x509 -CA ca.crt -CAkey ca.key -nodes -newkey $2 -keyout $1.key -out $1.crt \
            -subj "$3" && openssl x509 -outform DER -in $1.crt -out $1.der && openssl pkcs12 \
            -export $4 -in $1.crt -inkey $1.key -certfile ca.crt -out $1.p12 -passout "pass:$5"' )" +
            dir_.Path() + " " + name + " '" + key + "' '/C=CN/O=Acme/OU=" + unit + "/CN=" + cn +
            "' '" + (legacy ? "-legacy" : "") + "' '" + kP12Pw + "' >/dev/null 2>&1");
        return File(name + ".p12");
    }
    std::string File(std::string const& name) { return qortest::ReadFile(dir_.File(name)); }
    std::string ClearKey(std::string const& name) {  // unencrypted PKCS#8 DER
        return Run("openssl pkey -outform DER -in '" + dir_.File(name + ".key") + "'");
    }
    // Whether `openssl pkcs8` opens a stored (encrypted, DER) key with password.
    bool OpensWith(std::string const& stored, std::string const& password) {
        return Run("openssl pkcs8 -inform DER -in '" + dir_.Write("stored.der", stored) +
                   "' -passin 'pass:" + password + "' 2>/dev/null")
                   .find("BEGIN PRIVATE KEY") != std::string::npos;
    }

  private:
    qortest::ScratchDir dir_;
};

// Each test works below ou=<its name>, with a CLdap connected first.
class Server : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
        ASSERT_EQ(0, ldap_.ConnectLdap());
        name_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        unit_ = "ou=" + name_ + "," + dir_.Base();
    }
    std::string User(std::string const& cn) {  // made with the unit when that is missing
        return qortest::MakeUser(ldap_, dir_.Base(), name_, cn);
    }
    Pki pki_;
    qortest::Directory dir_;
    CLdap ldap_;
    std::string name_, unit_;
};

TEST_F(Server, ConnectCreatesTheBaseAndAFailedOneRunsNothingUntilItSucceeds) {
    EXPECT_EQ(0, ConnectLdap());
    EXPECT_EQ(Strings{"organization"}, dir_.Values(dir_.Base(), "objectClass"));
    using Case = std::tuple<char const*, int, char const*, int>;  // password, port, base, code
    for (auto [psw, port, base, rc] : {
             Case{"wrong", 0, nullptr, QORLDAP_E_FAILED},        // a refused bind
             Case{nullptr, 1, nullptr, QORLDAP_E_FAILED},        // nothing listens there
             Case{nullptr, 0, "o=Acme,c=CN", QORLDAP_E_ROOT},    // c=CN does not exist
             Case{nullptr, 0, "dc=example,dc=com", QORLDAP_OK},  // only an exact "o" is checked
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
        if (rc == QORLDAP_OK)
            continue;
        unsigned char *key = new unsigned char[8], *const kept = key;
        unsigned int length = 5;
        EXPECT_EQ(QORLDAP_E_FAILED, ldap.GetSignPublicKey("cn=x,o=root", key, length));
        EXPECT_TRUE(key == kept && length == 5);  // nothing ran
        ldap.FreeKey(key);                        // needs no connection
        EXPECT_EQ(nullptr, key);
        ldap.SetLdapAtt(good);  // host and port stay those of the first handle
        EXPECT_EQ(port ? rc : QORLDAP_OK, ldap.ConnectLdap()) << info.basedn;
    }
}

TEST_F(Server, SelectNamesAttributesAndTemplateAndTheListGivesChildrenWithTheirBase) {
    User("Child A"), User("Child C");
    std::string dn = User("Child B"), key("\x30\x00\x02\x00", 4);  // zero bytes, as in DER
    ASSERT_EQ(0, ldap_.ModifySignPrivateKey(dn.c_str(), U(key), 4));
    tagAtt att = {};
    ASSERT_EQ(0, ldap_.SelectLdap(dn.c_str(), att));
    std::set<std::string> names;
    for (int i = 0; i < att.itemCount; ++i)
        names.insert(att.items[i].type + std::string(att.items[i].value));
    EXPECT_EQ((std::set<std::string>{"objectClass", "cn", "sn", "signPrikey;binary"}), names);
    EXPECT_TRUE(att.objectClass == std::string("qorPerson") && att.namingAtt == std::string("cn"));
    EXPECT_TRUE(att.templateIndex == 1 && att.templateCount == 2);
    EXPECT_TRUE(att.dn == dn && att.parentDn == unit_) << att.dn << " " << att.parentDn;
    ldap_.FreeAtt(&att);
    // A missing DN: 0, nothing found. Refused: no type, 256 characters, a type longer than the
    // 27 characters the filter holds, null.
    EXPECT_EQ(0, ldap_.SelectLdap(("cn=ghost," + unit_).c_str(), att));
    EXPECT_TRUE(att.itemCount == 0 && att.dn[0] == '\0');
    for (std::string bad : {std::string("=x,o=root"), "cn=" + std::string(253, 'a'),
                            std::string(28, 't') + "=x," + unit_})
        EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap(bad.c_str(), att)) << bad;
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap(static_cast<char const*>(nullptr), att));

    tagDN* list = nullptr;
    int count = -1;
    ASSERT_EQ(0, ldap_.SelectLdap(unit_.c_str(), nullptr, list, count));
    ASSERT_EQ(3, count);
    std::set<std::string> dns;
    for (int i = 0; i < count; ++i)
        dns.insert(list[i].dn + std::string(" under ") + list[i].baseDn);
    EXPECT_EQ(1u, dns.count(dn + " under " + unit_));
    ldap_.FreeDN(list, count);
    // A leaf: 0 and count 0. A missing or empty DN: refused.
    EXPECT_EQ(0, ldap_.SelectLdap(dn.c_str(), "ignored", list, count));
    EXPECT_EQ(0, count);
    for (std::string bad : {"ou=ghost," + unit_, std::string()})
        EXPECT_EQ(QORLDAP_E_FAILED, ldap_.SelectLdap(bad.c_str(), nullptr, list, count));
}

TEST_F(Server, InsertStoresItemsAndBinaryValuesAndModifyAndDeleteGiveTheDirectorysCodes) {
    std::string dn = User("Inserted"), one = "cn=One," + unit_, psw = "pw-bytes", cert = "cert";
    qortest::Record r("qorPerson", {{"cn", "One"}, {"sn", "S"}, {"description", ""}});
    std::string const key("\x30\x82\x00\x01\x00", 5);
    ASSERT_EQ(0, ldap_.InsertLdap(one.c_str(), r.att, true, U(psw), 8, U(cert), 4, U(key), 5));
    EXPECT_EQ(Strings{key}, dir_.Values(one, "cryptPrikey;binary"));
    EXPECT_EQ(Strings{psw}, dir_.Values(one, "userPsw;binary"));
    EXPECT_EQ(Strings{cert}, dir_.Values(one, "cryptPubcer;binary"));
    EXPECT_EQ(QORLDAP_E_FAILED, ldap_.InsertLdap(one.c_str(), r.att, false, nullptr, 0, nullptr, 0,
                                                 nullptr, 0));  // exists already
    ldap_.DeleteLdap(one.c_str());  // again with one-byte values, which count as none
    ASSERT_EQ(0, ldap_.InsertLdap(one.c_str(), r.att, false, U(psw), 1, U(cert), 1, U(key), 1));
    EXPECT_EQ(Strings{}, dir_.Values(one, "signPrikey;binary"));
    // GB2312 text goes to the directory as UTF-8; an empty item (the naming one) removes nothing.
    qortest::Record change("qorPerson", {{"sn", "\xd6\xd0\xce\xc4"}, {"cn", ""}});
    EXPECT_EQ(0, ldap_.ModifyLdap(dn.c_str(), change.att));
    EXPECT_EQ(Strings{"\xe4\xb8\xad\xe6\x96\x87"}, dir_.Values(dn, "sn"));
    EXPECT_EQ(32, ldap_.ModifyLdap(("cn=ghost," + unit_).c_str(), change.att));
    EXPECT_EQ(66, ldap_.DeleteLdap(unit_.c_str()));  // still has children
    EXPECT_EQ(0, ldap_.DeleteLdap(dn.c_str()));
    EXPECT_EQ(32, ldap_.DeleteLdap(dn.c_str()));
}

TEST_F(Server, EachKeyRoundTripsByteExactThroughBothFamiliesAndKeyNamesAreChecked) {
    std::string user = User("Key User"), ghost = "cn=ghost," + unit_;
    std::string const big = qortest::Run("head -c 65536 /dev/urandom");
    struct {
        int (CLdap::*put)(char const*, unsigned char const*, unsigned int);
        int (CLdap::*get)(char const*, unsigned char*&, unsigned int&);
        int (*freeGet)(char const*, unsigned char*&, unsigned int&);
        char const* attribute;
    } const keys[] = {
        {&CLdap::ModifySignPrivateKey, &CLdap::GetSignPrivateKey, &GetSignPrivateKey,
         "signPrikey;binary"},
        {&CLdap::ModifySignPublicKey, &CLdap::GetSignPublicKey, &GetSignPublicKey,
         "signPubcer;binary"},
        {&CLdap::ModifyCryptPrivateKey, &CLdap::GetCryptPrivateKey, &GetCryptPrivateKey,
         "cryptPrikey;binary"},
        {&CLdap::ModifyCryptPublicKey, &CLdap::GetCryptPublicKey, &GetCryptPublicKey,
         "cryptPubcer;binary"},
    };
    for (auto const& k : keys) {
        // The value read through the member, then the free function; none: "<null>0".
        auto read = [&](std::string const& dn, int rc) {
            std::string got[2];
            for (int i = 0; i < 2; ++i) {
                unsigned char* key = reinterpret_cast<unsigned char*>(1);
                unsigned int length = 99;
                EXPECT_EQ(rc, i ? k.freeGet(dn.c_str(), key, length)
                                : (ldap_.*k.get)(dn.c_str(), key, length));
                got[i] = key ? std::string(reinterpret_cast<char*>(key), length)
                             : "<null>" + std::to_string(length);
                FreeKey(key);
            }
            EXPECT_EQ(got[0], got[1]) << k.attribute << " of " << dn;
            return got[0];
        };
        EXPECT_EQ("<null>0", read(user, 0)) << k.attribute;  // absent: 0, null, 0
        for (std::string value : {std::string("\x30\x00\x01\x00\xff", 5), std::string("B"), big}) {
            ASSERT_EQ(0, (ldap_.*k.put)(user.c_str(), U(value), unsigned(value.size())));
            EXPECT_EQ(value, read(user, 0)) << k.attribute;
        }
        EXPECT_EQ(QORLDAP_E_FAILED, (ldap_.*k.put)(user.c_str(), U(big), 0));
        EXPECT_EQ(QORLDAP_E_FAILED, (ldap_.*k.put)(user.c_str(), nullptr, 3));
        EXPECT_EQ(32, (ldap_.*k.put)(ghost.c_str(), U(big), 4));
        // Missing entries fail the search; names not of the form cn=... are refused.
        for (std::string name : {ghost, std::string("cn=Li Lei")})
            EXPECT_EQ("<null>0", read(name, QORLDAP_E_KEY_SEARCH));
        for (std::string name :
             {unit_, std::string("CN=x,o=root"), std::string("uid=x"), std::string()})
            EXPECT_EQ("<null>0", read(name, QORLDAP_E_FAILED));
    }
    // Removing a private key removes that attribute only; one already gone still gives 0.
    EXPECT_EQ(0, ldap_.DeleteSignPrivateKey(user.c_str()));
    EXPECT_EQ(Strings{}, dir_.Values(user, "signPrikey;binary"));
    EXPECT_EQ(Strings{big}, dir_.Values(user, "cryptPrikey;binary"));
    EXPECT_EQ(0, DeleteCryptPrivateKey(user.c_str()));
    EXPECT_EQ(Strings{}, dir_.Values(user, "cryptPrikey;binary"));
    EXPECT_EQ(0, DeleteSignPrivateKey(user.c_str()));
    EXPECT_EQ(32, ldap_.DeleteCryptPrivateKey(ghost.c_str()));
    EXPECT_EQ(QORLDAP_E_FAILED, DeleteSignPrivateKey(nullptr));
}

int Publish(std::string const& bundle, char const* keyPw, bool sign, bool publicOnly = false,
            char const* p12Pw = kP12Pw) {
    return PublishP12(bundle.data(), bundle.size(), p12Pw, keyPw, sign, publicOnly);
}

TEST_F(Server, BadBundlesAreRefusedBeforeAnythingIsWritten) {
    std::string bundle = pki_.Bundle("refused", "P-256", "Never", "Refused");
    for (std::string bad :
         {bundle.substr(0, bundle.size() / 2), std::string(2048, '\x30'), std::string()})
        EXPECT_EQ(QORLDAP_E_PKCS12, Publish(bad, "key pw", true));
    EXPECT_EQ(QORLDAP_E_PKCS12, Publish(bundle, "key pw", true, false, "wrong"));
    EXPECT_EQ(QORLDAP_E_PKCS12, Publish(bundle, "key pw", true, false, nullptr));
    EXPECT_EQ(QORLDAP_E_PKCS12, PublishP12(nullptr, 10, kP12Pw, "key pw", true, false));
    EXPECT_EQ(QORLDAP_E_KEY_CONVERT, Publish(bundle, "", true));
    EXPECT_EQ(QORLDAP_E_KEY_CONVERT, Publish(bundle, nullptr, true));
    // Only the last two got past the bundle: its path exists, its certificate was not stored.
    EXPECT_EQ(Strings{}, dir_.Values("cn=refused, ou=never, " + dir_.Base(), "signPubcer;binary"));
}

// Both pairs published, then the certificate alone; both keys re-protected, while a wrong old
// password or an empty new one changes nothing; and the key in the clear, which publication and
// re-protection hold, is wiped wherever it was.
TEST_F(Server, PublishedKeysAreReprotectedAndNoClearKeyIsLeftUnwiped) {
    std::string bundle = pki_.Bundle("changer", "rsa:2048", "Pw", "Changer");
    std::string const dn = "cn=changer, ou=pw, " + dir_.Base();  // the subject's, lower case
    std::string const clear = pki_.ClearKey("changer");
    ASSERT_GT(clear.size(), 1000u);
    std::memcpy(gMarker, clear.data() + clear.size() / 2, sizeof gMarker);  // inside a prime
    gArmed = true;
    ASSERT_EQ(0, Publish(bundle, "old", true));
    ASSERT_EQ(0, Publish(bundle, "old", false));
    Strings const before = dir_.Values(dn, "signPrikey;binary");
    ASSERT_EQ(0, Publish(bundle, nullptr, true, true));  // public only: no key password used
    EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw("cn=changer", "not-old", "new"));
    EXPECT_EQ(before, dir_.Values(dn, "signPrikey;binary"));
    ASSERT_EQ(0, ldap_.ModifyPriKeyPsw("cn=changer", "old", "new"));
    gArmed = false;
    EXPECT_EQ(0, gUnwiped.load()) << "arrays released holding the private key in the clear";
    Strings const keys[2] = {dir_.Values(dn, "signPrikey;binary"),
                             dir_.Values(dn, "cryptPrikey;binary")};
    for (Strings const& key : keys) {
        ASSERT_EQ(1u, key.size());
        EXPECT_TRUE(pki_.OpensWith(key[0], "new") && !pki_.OpensWith(key[0], "old"));
    }
    // An empty password would open the keys for anyone who reads the entry.
    EXPECT_EQ(QORLDAP_E_KEY_CONVERT, ModifyPriKeyPsw("cn=changer", "new", ""));
    EXPECT_EQ(keys[0], dir_.Values(dn, "signPrikey;binary"));
    EXPECT_EQ(keys[1], dir_.Values(dn, "cryptPrikey;binary"));
    EXPECT_EQ(QORLDAP_E_FAILED, ModifyPriKeyPsw("cn=nobody here", "new", "x"));
    // One pair only (an SM2 bundle with the old RC2/3DES encryption for signing): its
    // certificate goes where sign says. The encryption key is done first; a missing signing key
    // is reported after it.
    for (bool sign : {false, true}) {
        std::string name = sign ? "half sign" : "half crypt", pair = sign ? "sign" : "crypt";
        std::string dn = "cn=" + name + ", ou=pw, " + dir_.Base(), other = sign ? "crypt" : "sign";
        std::string half = pki_.Bundle(pair, sign ? "SM2" : "P-256", "Pw", name, sign);
        ASSERT_EQ(0, Publish(half, "old", sign));
        EXPECT_EQ(Strings{pki_.File(pair + ".der")}, dir_.Values(dn, pair + "Pubcer;binary"));
        EXPECT_EQ(Strings{}, dir_.Values(dn, other + "Pubcer;binary"));
        EXPECT_EQ(QORLDAP_E_OLD_PASSWORD, ModifyPriKeyPsw(("cn=" + name).c_str(), "old", "new"));
        EXPECT_TRUE(
            pki_.OpensWith(dir_.Values(dn, pair + "Prikey;binary").at(0), sign ? "old" : "new"));
        EXPECT_EQ(Strings{}, dir_.Values(dn, other + "Prikey;binary"));
    }
}

}  // namespace
