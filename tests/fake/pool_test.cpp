// The free functions' pool (engine/Pool.h) through the fake client library: what each pooled
// connection sends, where reads and writes go, and how long a call waits for a free engine.
// Without the pool keys the requests are those of calls_test.cpp, which runs untouched.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <thread>

#include "engine/LdapOp.h"
#include "engine/Pool.h"
#include "tests/fake/FakeSoap.h"
#include "tests/fake_ldap/fake_ldap.h"
#include "tests/support/TestFiles.h"

namespace fakeldap {
namespace {

using Use = Pool::Use;

// One connection's documented sequence on host: init, version, bind as who, the base check.
std::string Dial(std::string const& host, std::string const& who = "cn=admin,o=root pw=secret") {
    return "ldap_init host=" + host + " port=389\nldap_set_option opt=17 value=3\n" +
           "ldap_simple_bind_s dn=" + who +
           "\nldap_search_ext_s base=o=root scope=0 filter=(o=*) attrs=null attrsonly=0 "
           "ctrls=null,null timeout=null sizelimit=0\n"
           "ldap_first_attribute -> o\nldap_get_values attr=o -> 1\nldap_value_free\n"
           "ldap_memfree\nldap_next_attribute -> objectClass\nldap_get_values attr=objectClass "
           "-> 1\nldap_value_free\nldap_memfree\nldap_next_attribute -> null\nber_free ptr "
           "freebuf=0\nldap_msgfree\n";
}

class PoolCalls : public ::testing::Test {
  protected:
    PoolCalls() : conf_(dir_.Path()) {
        setenv("QORLDAP_LDAP_LIBRARY", FAKE_LDAP_PATH, 1);
        dir_.Write("ldap.ini", "[base]\nsum=0\n");
    }
    void TearDown() override { EXPECT_EQ(0, std::exchange(Fake().errors, 0)) << Fake().log; }
    void Soap(std::string const& keys) { dir_.Write("soap.ini", qortest::FakeSoap(keys)); }

    qortest::ScratchDir dir_;
    qortest::ConfDir conf_;
};

// Leases held at once, each connected as the free functions connect them: every pooled
// connection binds as the configured identity with the documented sequence; reads go to the
// least busy read host, a refusing one is passed over for the providers, and read_after_write
// keeps a thread's reads on the providers after its write.
TEST_F(PoolCalls, WhereEachConnectionGoes) {
    std::vector<Entry> const base = {{"o=root", {{"o", {"root"}}, {"objectClass", {"org"}}}}};
    std::string const unbind = "ldap_unbind_ext_s ctrls=null,null\n";
    struct Case {
        char const* keys;
        std::vector<Use> uses;  // taken in turn, all held to the end
        Fails fails;
        std::string transcript;
    } const cases[] = {
        {"pool_size=2\n", {Use::kWrite, Use::kRead}, {}, Dial("127.0.0.1") + Dial("127.0.0.1")},
        {"pool_size=2\nbind_dn=cn=key service,ou=services,o=root\nbind_password=a long one\n",
         {Use::kWrite, Use::kWrite},
         {},
         Dial("127.0.0.1", "cn=key service,ou=services,o=root pw=a long one") +
             Dial("127.0.0.1", "cn=key service,ou=services,o=root pw=a long one")},
        {"pool_size=3\nread_host=r1:389 r2:389\n",
         {Use::kRead, Use::kRead, Use::kRead, Use::kWrite},
         {},
         Dial("r1:389") + Dial("r2:389") + Dial("r1:389") + Dial("127.0.0.1")},
        // No host: libldap's default, as without a pool.
        {"pool_size=1\nhost=\n", {Use::kWrite}, {}, Dial("")},
        // r1 is gone: quarantined, r2 takes both reads.
        {"pool_size=2\nread_host=r1 r2\n",
         {Use::kRead, Use::kRead},
         {{"ldap_simple_bind_s", -1}},
         Dial("r1").substr(0, Dial("r1").find("ldap_search")) + unbind + Dial("r2") + Dial("r2")},
        // A replica that refuses the bind is out of step, not the directory: the next one.
        {"pool_size=1\nread_host=r1 r2\n",
         {Use::kRead},
         {{"ldap_simple_bind_s", 49}},
         Dial("r1").substr(0, Dial("r1").find("ldap_search")) + unbind + Dial("r2")},
        // No read host answers: the read goes to a provider.
        {"pool_size=1\nread_host=r1\n",
         {Use::kRead},
         {{"ldap_simple_bind_s", -1}},
         Dial("r1").substr(0, Dial("r1").find("ldap_search")) + unbind + Dial("127.0.0.1")},
        // ConnectLdap writes nothing: a read after it still goes to the read host.
        {"pool_size=1\nread_host=r1\nread_after_write=60\n",
         {Use::kConnect, Use::kRead},
         {},
         Dial("127.0.0.1") + Dial("r1")},
        {"pool_size=1\nread_host=r1\nread_after_write=60\n",
         {Use::kWrite, Use::kRead},
         {},
         Dial("127.0.0.1")},
    };
    for (Case const& c : cases) {
        Fake().Reset(base, c.fails);
        Soap(c.keys);
        // Each case on a thread of its own: the time of a thread's last write is the thread's.
        std::thread([&] {
            Pool pool;
            std::vector<Pool::Lease> held;
            for (Use use : c.uses) {
                Pool::Lease lease = pool.Take(use);
                if (lease.Engine() == nullptr) {
                    Fake().log += "no engine\n";
                    continue;
                }
                EXPECT_EQ(QORLDAP_OK, lease.Engine()->ConnectLdap()) << c.keys;
                // read_after_write: the write (or connect) is over once its lease is given back.
                if (use != Use::kRead &&
                    std::string(c.keys).find("read_after_write") != std::string::npos)
                    lease = Pool::Lease();
                else
                    held.push_back(std::move(lease));
            }
        }).join();
        EXPECT_EQ(c.transcript, Fake().log) << c.keys;
    }
}

// Pool::Run, called as the free functions call it (connect, then the operation): a read whose
// connection drops under it is sent once more, on a connection to the other read host, the one
// it was on passed over; when no read host is left it goes to a provider. A write on a lost
// connection is not sent again: it fails, and the next call redials.
TEST_F(PoolCalls, ALostReadIsSentOnceMoreAndAWriteIsNot) {
    std::vector<Entry> const base = {{"o=root", {{"o", {"root"}}, {"objectClass", {"org"}}}}};
    std::string const unbind = "ldap_unbind_ext_s ctrls=null,null\n";
    std::string const read =
        "ldap_search_ext_s base=cn=u,o=root scope=0 filter=(signPubcer;binary=*) attrs=null "
        "attrsonly=0 ctrls=null,null timeout=null sizelimit=0\n";
    std::string const found =
        "ldap_first_attribute -> o\nldap_get_values_len attr=o -> 1\nldap_value_free_len\n"
        "ldap_memfree\nldap_next_attribute -> objectClass\nldap_get_values_len "
        "attr=objectClass -> 1\nldap_value_free_len\nldap_memfree\nldap_next_attribute -> "
        "null\nber_free ptr freebuf=0\nldap_msgfree\n";
    std::string const removal =
        "ldap_modify_s dn=cn=u,o=root mods=[op=0x82 type=signPrikey;binary vals=]\n";
    // The dial's base check goes through, the key search is lost.
    Fails const lostRead = {{"ldap_search_ext_s", 0}, {"ldap_search_ext_s", -1}};
    struct Case {
        char const* keys;
        Use use;
        Fails fails;
        std::string transcript;
    } const cases[] = {
        {"pool_size=1\nread_host=r1 r2\n", Use::kRead, lostRead,
         Dial("r1") + read + unbind + Dial("r2") + read + found},
        {"pool_size=1\nread_host=r1\n", Use::kRead, lostRead,
         Dial("r1") + read + unbind + Dial("127.0.0.1") + read + found},
        // Without read hosts the read is on a provider's connection, redialled by the call.
        {"pool_size=1\n", Use::kRead, lostRead,
         Dial("127.0.0.1") + read + unbind + Dial("127.0.0.1") + read + found},
        {"pool_size=1\nread_host=r1 r2\n",
         Use::kWrite,
         {{"ldap_modify_s", -1}},
         Dial("127.0.0.1") + removal},
    };
    dir_.Write("ldap.ini", "[base]\nsum=1\nA0=qorPerson\n[qorPerson]\nsum=1\nA0=cn,s,2\n");
    for (Case const& c : cases) {
        Fake().Reset(base, c.fails);
        Soap(c.keys);
        Pool pool;
        int calls = 0;
        int const rc = pool.Run(c.use, [&](CLdapOp& engine) {
            ++calls;
            if (engine.ConnectLdap() != QORLDAP_OK)
                return QORLDAP_E_FAILED;
            if (c.use == Use::kWrite)
                return engine.DeleteSignPrivateKey("cn=u,o=root");
            unsigned char* key = nullptr;
            unsigned int length = 0;
            int const code = engine.GetSignPublicKey("cn=u,o=root", key, length);
            engine.FreeKey(key);
            return code;
        });
        EXPECT_EQ(c.transcript, Fake().log) << c.keys;
        EXPECT_EQ(c.use == Use::kRead ? 2 : 1, calls) << c.keys;
        // The read comes back with the other host's answer; the write with the loss.
        EXPECT_EQ(c.use == Use::kRead ? QORLDAP_OK : LDAP_SERVER_DOWN, rc) << c.keys;
    }
}

// A full pool: without a timeout a call waits until an engine comes back, and gets that one
// (nothing dialled again); with one it gives up after it.
TEST_F(PoolCalls, FullPoolWaits) {
    Fake().Reset({{"o=root", {{"o", {"root"}}}}});
    for (char const* timeout : {"", "timeout=1\n"}) {
        Soap(std::string("pool_size=1\n") + timeout);
        Pool pool;
        Pool::Lease first = pool.Take(Use::kWrite);
        ASSERT_NE(nullptr, first.Engine());
        CLdapOp* const engine = first.Engine();
        auto const start = std::chrono::steady_clock::now();
        std::thread giver;
        if (*timeout == '\0')
            giver = std::thread([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                first = Pool::Lease();
            });
        Pool::Lease second = pool.Take(Use::kWrite);
        double const waited =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (giver.joinable())
            giver.join();
        EXPECT_EQ(*timeout == '\0' ? engine : nullptr, second.Engine()) << timeout;
        EXPECT_GE(waited, *timeout == '\0' ? 0.15 : 0.9) << timeout;
        EXPECT_LT(waited, 3.0) << timeout;
        EXPECT_EQ(1u, pool.Made(0));
    }
}

// A pool key that is no whole number in its range refuses every connection before anything is
// sent, as a misspelt link key does: "5s" must not quietly mean 5 or 0.
TEST_F(PoolCalls, AKeyThatDoesNotReadRefusesEveryConnection) {
    for (char const* keys : {"pool_size=abc\n", "pool_size=257\n", "failback=5s\n",
                             "idle_check=-1\n", "read_after_write=1.5\n"}) {
        Fake().Reset({{"o=root", {{"o", {"root"}}}}});
        Soap(keys);
        CLdapOp op;
        EXPECT_EQ(QORLDAP_E_FAILED, op.ConnectLdap()) << keys;
        EXPECT_EQ("", Fake().log) << keys;
    }
}

}  // namespace
}  // namespace fakeldap
