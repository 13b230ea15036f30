// The directory goes away under running engines and comes back on the same port (run_faults.sh).
// While it is down every operation fails with a result code within a bound a watchdog enforces.
// After the restart a new CLdap works, while the engines connected before keep failing: without
// "reconnect" in soap.ini a connection is made once per engine.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"
#include "tests/support/Pki.h"

namespace {

// A call on a lost connection: 127.0.0.1 refuses a connection and an open one sees end-of-file
// at once, so calls take under a millisecond (PublishP12, opening the bundle first, about 2 s
// under AddressSanitizer). One still running after the bound waits on the network without limit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned kLostBound = 30;
#else
constexpr unsigned kLostBound = 10;
#endif
// Calls on a working connection are bounded only so that a hang ends the test; a password
// change converts two keys (PBKDF2), up to a minute under AddressSanitizer on a busy machine.
constexpr unsigned kWorkingBound = 300;
constexpr int kAnyFailure = -1;  // any non-zero code (the directory library's, passed on)
constexpr int kNothingOut = -2;  // any code, as long as nothing is handed out
char const kBundlePw[] = "fault-bundle", kKeyPw[] = "fault-key";

char watched[300];
void OnAlarm(int) {
    char const text[] = "\nWATCHDOG: this call has not returned within its bound: ";
    (void)!write(2, text, sizeof text - 1);
    (void)!write(2, watched, strlen(watched));
    abort();
}

// One call under the watchdog; prints its result code and time.
int Timed(std::string const& what, unsigned bound, std::function<int()> const& call) {
    std::snprintf(watched, sizeof watched, "%s (%u s)\n", what.c_str(), bound);
    auto start = std::chrono::steady_clock::now();
    alarm(bound);
    int rc = call();
    alarm(0);
    std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - start;
    std::printf("  %-84s 0x%-8x %8.2f ms\n", what.c_str(), unsigned(rc), ms.count());
    return rc;
}

// A call on a lost connection. An engine that never connected fails each operation with
// QORLDAP_E_FAILED (it cannot connect); a connected one with the expected code.
void Lost(std::string const& who, bool never, char const* call, int expected,
          std::function<int()> const& run) {
    int rc = Timed(who + " " + call, kLostBound, run);
    if (never || expected >= 0) {
        EXPECT_EQ(never ? QORLDAP_E_FAILED : expected, rc) << who << " " << call;
    } else if (expected == kAnyFailure) {
        EXPECT_NE(0, rc) << who << " " << call;
    }
}
#define LOST(expected, call) Lost(who, never, #call, expected, [&] { return call; })
#define UP(call) ASSERT_EQ(0, Timed("up: " #call, kWorkingBound, [&] { return call; }))

unsigned char const* U(std::string const& s) {
    return reinterpret_cast<unsigned char const*>(s.data());
}

// A key read through l, or the free functions when l is null; a refused read hands out
// nothing. The value goes to *out.
int ReadKey(CLdap* l, bool cryptPrivate, std::string const& dn, std::string* out = nullptr) {
    unsigned char* key = nullptr;
    unsigned int n = 0;
    int rc = l == nullptr
                 ? (cryptPrivate ? GetCryptPrivateKey : GetSignPublicKey)(dn.c_str(), key, n)
             : cryptPrivate ? l->GetCryptPrivateKey(dn.c_str(), key, n)
                            : l->GetSignPublicKey(dn.c_str(), key, n);
    EXPECT_TRUE(rc == 0 || key == nullptr) << dn;
    if (out != nullptr)
        *out = key != nullptr ? std::string(reinterpret_cast<char*>(key), n) : "";
    if (key != nullptr)
        l != nullptr ? l->FreeKey(key) : FreeKey(key);
    return rc;
}

// Every operation of a CLdap. never: the object never connected. A connected one answers
// ConnectLdap with 0 at once, without going to the server (as documented).
void EveryMemberOperationFails(CLdap& l, std::string const& who, std::string const& user,
                               bool never) {
    std::string const unit = user.substr(user.find(',') + 1);
    LOST(0, l.ConnectLdap());
    LOST(QORLDAP_E_KEY_SEARCH, ReadKey(&l, false, user));
    LOST(QORLDAP_E_KEY_SEARCH, ReadKey(&l, true, user));
    LOST(kAnyFailure, l.ModifySignPublicKey(user.c_str(), U(user), unsigned(user.size())));
    LOST(kAnyFailure, l.DeleteSignPrivateKey(user.c_str()));
    // A connected engine reports a failed search of one entry as a missing entry (0 with
    // itemCount 0): the outage cannot be told from absence, but nothing is handed out.
    tagAtt att = {};
    LOST(kNothingOut, l.SelectLdap(user.c_str(), att));
    EXPECT_TRUE(att.itemCount == 0 && att.items == nullptr) << who;
    l.FreeAtt(&att);
    tagDN* list = nullptr;
    int count = -1;
    LOST(QORLDAP_E_FAILED, l.SelectLdap(unit.c_str(), nullptr, list, count));
    EXPECT_TRUE(count == -1 && list == nullptr) << who;
    qortest::Record down("qorPerson", {{"cn", "Down"}, {"sn", "Down"}});
    std::string const downDn = "cn=Down," + unit;
    LOST(QORLDAP_E_FAILED,
         l.InsertLdap(downDn.c_str(), down.att, false, nullptr, 0, nullptr, 0, nullptr, 0));
    LOST(kAnyFailure, l.ModifyLdap(user.c_str(), down.att));
    LOST(kAnyFailure, l.DeleteLdap(user.c_str()));
    LOST(kAnyFailure, l.ModifyPriKeyPsw("cn=fault user", kKeyPw, "new"));
    LOST(0, l.ConnectLdap());
}

class Faults : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGALRM, OnAlarm);
        ASSERT_TRUE(dir_.Ready()) << "no directory env (QORLDAP_TEST_DIR)";
        ASSERT_TRUE(pki_.Ok());
        bundle_ = pki_.Bundle("fault", "rsa", "/C=CN/O=Acme/OU=Fault/CN=Fault User", kBundlePw);
        ASSERT_FALSE(bundle_.empty());
    }
    void TearDown() override {
        if (stopped_)  // the next run finds the directory running, as this one did
            Start();
    }
    // scripts/directory on this run's folder; a start keeps the port and wipes the database.
    bool Stop() { return stopped_ = Script("stop --dir '" + dir_.Var("QORLDAP_DIR") + "'"); }
    bool Start() {
        stopped_ = !Script("start --dir '" + dir_.Var("QORLDAP_DIR") + "' --port " +
                           std::to_string(dir_.Port()) + " --nosync");
        return !stopped_;
    }
    static bool Script(std::string const& args) {
        return std::system(("'" QORLDAP_DIRECTORY_SCRIPT "' " + args + " >&2").c_str()) == 0;
    }
    int Publish(bool signing) {
        return PublishP12(bundle_.data(), bundle_.size(), kBundlePw, kKeyPw, signing, false);
    }
    // Every free function that goes to the server; the shared engine is connected.
    void EveryFreeFunctionFails(std::string const& who, std::string const& user) {
        bool const never = false;
        LOST(0, ConnectLdap());
        LOST(QORLDAP_E_KEY_SEARCH, ReadKey(nullptr, false, user));
        LOST(QORLDAP_E_KEY_SEARCH, ReadKey(nullptr, true, user));
        LOST(kAnyFailure, DeleteSignPrivateKey(user.c_str()));
        LOST(kAnyFailure, Publish(true));
        LOST(kAnyFailure, ModifyPriKeyPsw("cn=fault user", kKeyPw, "new"));
    }

    qortest::Pki pki_;
    qortest::Directory dir_;
    std::string bundle_;
    bool stopped_ = false;
};

TEST_F(Faults, StoppedServerFailsEveryCallPromptlyAndOnlyANewEngineRecovers) {
    std::string const base = dir_.Base();
    std::string got;

    // 1. Up: an object and the free functions connect, write, read, publish both pairs and
    // change the key password (two keys to convert).
    CLdap old;
    UP(old.ConnectLdap());
    std::string const user = qortest::MakeUser(old, base, "FaultUnit", "Fault Keeper");
    std::string const before = "certificate before the outage";
    UP(old.ModifySignPublicKey(user.c_str(), U(before), unsigned(before.size())));
    UP(ReadKey(&old, false, user, &got));
    EXPECT_EQ(before, got);
    UP(ConnectLdap());
    UP(Publish(true));
    UP(Publish(false));
    UP(ModifyPriKeyPsw("cn=fault user", kKeyPw, kKeyPw));

    // 2. Down: all that goes to the server fails. A new engine cannot connect, and each
    // operation, which connects first, fails with that.
    ASSERT_TRUE(Stop());
    EveryMemberOperationFails(old, "down: old CLdap", user, false);
    EveryFreeFunctionFails("down: free", user);
    CLdap fresh;
    EveryMemberOperationFails(fresh, "down: new CLdap", user, true);

    // 3. Back on the same port, with an empty database: a new engine connects and works.
    ASSERT_TRUE(Start());
    CLdap renewed;
    UP(renewed.ConnectLdap());
    ASSERT_EQ(user, qortest::MakeUser(renewed, base, "FaultUnit", "Fault Keeper"));
    std::string const after = "certificate after the restart";
    UP(renewed.ModifySignPublicKey(user.c_str(), U(after), unsigned(after.size())));
    UP(ReadKey(&renewed, false, user, &got));
    EXPECT_EQ(after, got);

    // The engines connected before still count as connected, keep failing (also for the entry
    // that exists again) and change nothing.
    EveryMemberOperationFails(old, "restarted: old CLdap", user, false);
    EveryFreeFunctionFails("restarted: free", user);
    EXPECT_EQ(std::vector<std::string>{after}, dir_.Values(user, "signPubcer;binary"));
    EXPECT_TRUE(dir_.Values("cn=fault user, ou=fault, " + base, "signPubcer;binary").empty())
        << "the old free-function engine published after the restart";
}

}  // namespace
