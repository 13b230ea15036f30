// The directory goes away under a running process, and comes back.
//
// While the server is down every operation must fail with a result code (no crash) and must
// come back promptly: each call is guarded by a watchdog that aborts the whole test when the
// call has not returned within kCallBoundSeconds. After the server is started again on the
// same port, a new CLdap (a new engine) connects and works, while the engines that were
// connected before keep failing: with the default settings (no "reconnect" in soap.ini) a
// connection is made once per engine and never remade. A server that freezes instead of
// stopping is bounded only by the "timeout" setting, checked last.
//
// Run by run_faults.sh, which starts the directory (on a fixed port, so that it can be started
// again on the same one) before this program starts: the free functions' engine reads its
// settings when the library is loaded. The test stops and restarts that directory itself with
// scripts/directory. Needs QORLDAP_TEST_DIR (the directory's folder) and QORLDAP_CONF_DIR.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"
#include "tests/support/Pki.h"

#ifndef QORLDAP_DIRECTORY_SCRIPT
#error "QORLDAP_DIRECTORY_SCRIPT must name scripts/directory"
#endif

namespace {

using qortest::Directory;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSanitizerFactor = 3;
#else
constexpr int kSanitizerFactor = 1;
#endif

// Bound on one call on a lost connection (server stopped, or restarted under an old engine) or
// on a frozen server. With the server gone, 127.0.0.1 refuses a connection at once and an open
// connection sees end-of-file at once: such a call takes well under a millisecond; PublishP12,
// which opens the bundle before it goes to the server, takes tens of milliseconds, about 2 s in
// the AddressSanitizer build (which records a stack at every allocation OpenSSL makes). On a
// frozen server with timeout=2 a call takes the two seconds. The test prints every figure. Ten
// seconds (thirty in a sanitizer build) leaves room for a loaded machine and is still far below
// what a caller would wait for: a call that takes longer is waiting on the network with no limit,
// the fault this guards against.
constexpr int kCallBoundSeconds = 10 * kSanitizerFactor;
// Calls on a working connection are not what is measured here; they are bounded only so that a
// hang ends the test. A password change converts two keys (PBKDF2), up to a minute in the
// AddressSanitizer build on a busy machine.
constexpr int kWorkingCallBoundSeconds = 300;

// Aborts the process when an armed call has not returned within its bound.
class Watchdog {
  public:
    Watchdog() : thread_([this] { Watch(); }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            quit_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    Watchdog(Watchdog const&) = delete;
    Watchdog& operator=(Watchdog const&) = delete;

    void Arm(std::string const& what, int seconds) {
        std::lock_guard<std::mutex> lock(mutex_);
        what_ = what;
        deadline_ = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        bound_ = seconds;
        armed_ = true;
        wake_.notify_all();
    }
    void Disarm() {
        std::lock_guard<std::mutex> lock(mutex_);
        armed_ = false;
        wake_.notify_all();
    }

  private:
    void Watch() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!quit_) {
            if (!armed_) {
                wake_.wait(lock);
                continue;
            }
            if (wake_.wait_until(lock, deadline_) == std::cv_status::timeout && armed_ &&
                std::chrono::steady_clock::now() >= deadline_) {
                std::fprintf(stderr, "WATCHDOG: %s has not returned within %d s; aborting\n",
                             what_.c_str(), bound_);
                std::fflush(stderr);
                std::abort();
            }
        }
    }
    std::mutex mutex_;
    std::condition_variable wake_;
    std::string what_;
    std::chrono::steady_clock::time_point deadline_;
    int bound_ = 0;
    bool armed_ = false;
    bool quit_ = false;
    std::thread thread_;  // last: starts once the members it uses exist
};

// The directory of this run, driven through scripts/directory.
class Server {
  public:
    Server(std::string dir, int port) : dir_(std::move(dir)), port_(port) {}
    bool Stop() const { return Sh("stop --dir '" + dir_ + "'"); }
    // The same folder and port; the start wipes the database.
    bool Start() const {
        return Sh("start --dir '" + dir_ + "' --port " + std::to_string(port_) + " --nosync");
    }

  private:
    static bool Sh(std::string const& args) {
        std::string cmd = std::string("'") + QORLDAP_DIRECTORY_SCRIPT + "' " + args + " >&2";
        return std::system(cmd.c_str()) == 0;
    }
    std::string dir_;
    int port_;
};

struct Timing {
    std::string what;
    int rc;
    double ms;
};

unsigned char const* U(std::string const& s) {
    return reinterpret_cast<unsigned char const*>(s.data());
}

std::string Hex(int rc) {
    char text[32];
    std::snprintf(text, sizeof text, rc < 0 ? "%d" : "0x%x", rc);
    return text;
}

char const kBundlePw[] = "fault-bundle";
char const kKeyPw[] = "fault-key";
// The DN a bundle for /C=CN/O=Acme/OU=Fault/CN=Fault User is published at.
std::string PublishedDn(std::string const& base) {
    return "cn=fault user, ou=fault, " + base;
}

class Faults : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { pki_ = new qortest::Pki(); }
    static void TearDownTestSuite() {
        delete pki_;
        pki_ = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(dir_.Ready()) << "no directory env (QORLDAP_TEST_DIR)";
        ASSERT_TRUE(pki_->Ok());
        bundle_ = pki_->Bundle("fault", "rsa", "/C=CN/O=Acme/OU=Fault/CN=Fault User", kBundlePw);
        ASSERT_FALSE(bundle_.empty());
    }
    void TearDown() override {
        // Whatever happened, the next run finds the directory running again, as it found it.
        if (stopped_)
            server_.Start();
        std::printf("\nCalls, in order (result code, time):\n");
        Timing const* slowest = nullptr;
        for (Timing const& t : timings_) {
            std::printf("  %-62s %-11s %8.2f ms\n", t.what.c_str(), Hex(t.rc).c_str(), t.ms);
            bool working =
                t.what.compare(0, 4, "up: ") == 0 || t.what.compare(0, 15, "restarted: new ") == 0;
            if (!working && (slowest == nullptr || t.ms > slowest->ms))
                slowest = &t;
        }
        if (slowest != nullptr) {
            std::printf("Slowest call on a lost or frozen connection: %.2f ms (%s); bound %d s\n",
                        slowest->ms, slowest->what.c_str(), kCallBoundSeconds);
        }
        std::fflush(stdout);
    }

    // Runs one call under the watchdog, records its result and time.
    // Calls named "up: ..." or "restarted: new ..." run on a working connection, the others
    // on a lost one; each kind has its bound.
    template <typename Call>
    int Timed(std::string const& what, Call call) {
        bool working =
            what.compare(0, 4, "up: ") == 0 || what.compare(0, 15, "restarted: new ") == 0;
        watchdog_.Arm(what, working ? kWorkingCallBoundSeconds : kCallBoundSeconds);
        auto start = std::chrono::steady_clock::now();
        int rc = call();
        auto end = std::chrono::steady_clock::now();
        watchdog_.Disarm();
        timings_.push_back(
            {what, rc, std::chrono::duration<double, std::milli>(end - start).count()});
        return rc;
    }

    // A key read through a CLdap or the free function: the result code, the value in *out.
    int ReadMember(CLdap& ldap, std::string const& what, std::string const& dn,
                   std::string* out = nullptr) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        int rc = Timed(what, [&] { return ldap.GetSignPublicKey(dn.c_str(), key, length); });
        if (out != nullptr) {
            *out = key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : "";
        }
        ldap.FreeKey(key);
        return rc;
    }
    int ReadFree(std::string const& what, std::string const& dn, std::string* out = nullptr) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        int rc = Timed(what, [&] { return GetSignPublicKey(dn.c_str(), key, length); });
        if (out != nullptr) {
            *out = key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : "";
        }
        if (key != nullptr)
            FreeKey(key);
        return rc;
    }

    // Checks a failure: an engine that never connected fails every operation with 0x16000010
    // (it cannot connect); a connected one gives the operation's own code where the interface
    // names one (expected), else any non-zero code (the directory library's, passed on).
    static void ExpectFailure(int rc, bool neverConnected, int expected = 0) {
        if (neverConnected) {
            EXPECT_EQ(QORLDAP_E_FAILED, rc);
        } else if (expected != 0) {
            EXPECT_EQ(expected, rc);
        } else {
            EXPECT_NE(0, rc);
        }
    }

    // Every operation of a CLdap; each must fail (the select of one entry aside, see there).
    // For a connected engine ConnectLdap is left out (see the test); for one that never
    // connected it is the first call, and every operation then fails by failing to connect.
    void EveryMemberOperationFails(CLdap& ldap, std::string const& who, std::string const& user,
                                   std::string const& unit, bool neverConnected) {
        if (neverConnected) {
            ExpectFailure(Timed(who + " ConnectLdap", [&] { return ldap.ConnectLdap(); }), true);
        }
        ExpectFailure(ReadMember(ldap, who + " GetSignPublicKey", user), neverConnected,
                      QORLDAP_E_KEY_SEARCH);
        unsigned char* key = nullptr;
        unsigned int length = 0;
        ExpectFailure(Timed(who + " GetCryptPrivateKey",
                            [&] { return ldap.GetCryptPrivateKey(user.c_str(), key, length); }),
                      neverConnected, QORLDAP_E_KEY_SEARCH);
        EXPECT_EQ(nullptr, key);
        ldap.FreeKey(key);
        std::string value = "written while the server is down";
        ExpectFailure(Timed(who + " ModifySignPublicKey",
                            [&] {
                                return ldap.ModifySignPublicKey(user.c_str(), U(value),
                                                                unsigned(value.size()));
                            }),
                      neverConnected);
        ExpectFailure(Timed(who + " DeleteSignPrivateKey",
                            [&] { return ldap.DeleteSignPrivateKey(user.c_str()); }),
                      neverConnected);
        // The select of one entry on a connected engine reports a failed search the way it
        // reports a missing entry: 0 with itemCount 0, so a caller cannot tell the outage from
        // an entry that is not there. What must hold either way: nothing is handed out.
        tagAtt att = {};
        int rc =
            Timed(who + " SelectLdap (entry)", [&] { return ldap.SelectLdap(user.c_str(), att); });
        if (neverConnected) {
            EXPECT_EQ(QORLDAP_E_FAILED, rc);
        }
        EXPECT_EQ(0, att.itemCount);
        EXPECT_EQ(nullptr, att.items);
        ldap.FreeAtt(&att);
        tagDN* list = nullptr;
        int count = -1;
        ExpectFailure(Timed(who + " SelectLdap (children)",
                            [&] { return ldap.SelectLdap(unit.c_str(), nullptr, list, count); }),
                      neverConnected, QORLDAP_E_FAILED);
        EXPECT_EQ(-1, count);
        EXPECT_EQ(nullptr, list);
        qortest::Record person("qorPerson", {{"cn", "Down"}, {"sn", "Down"}});
        std::string down = "cn=Down," + unit;
        ExpectFailure(Timed(who + " InsertLdap",
                            [&] {
                                return ldap.InsertLdap(down.c_str(), person.att, false, nullptr, 0,
                                                       nullptr, 0, nullptr, 0);
                            }),
                      neverConnected, QORLDAP_E_FAILED);
        qortest::Record change("qorPerson", {{"sn", "Changed"}});
        ExpectFailure(
            Timed(who + " ModifyLdap", [&] { return ldap.ModifyLdap(user.c_str(), change.att); }),
            neverConnected);
        ExpectFailure(Timed(who + " DeleteLdap", [&] { return ldap.DeleteLdap(user.c_str()); }),
                      neverConnected);
        ExpectFailure(Timed(who + " ModifyPriKeyPsw",
                            [&] { return ldap.ModifyPriKeyPsw("cn=fault user", kKeyPw, "new"); }),
                      neverConnected);
    }

    // Every free function that goes to the server; each must fail. The engine is connected.
    void EveryFreeFunctionFails(std::string const& who, std::string const& user) {
        ExpectFailure(ReadFree(who + " GetSignPublicKey", user), false, QORLDAP_E_KEY_SEARCH);
        unsigned char* key = nullptr;
        unsigned int length = 0;
        ExpectFailure(Timed(who + " GetCryptPrivateKey",
                            [&] { return GetCryptPrivateKey(user.c_str(), key, length); }),
                      false, QORLDAP_E_KEY_SEARCH);
        EXPECT_EQ(nullptr, key);
        ExpectFailure(Timed(who + " DeleteSignPrivateKey",
                            [&] { return DeleteSignPrivateKey(user.c_str()); }),
                      false);
        ExpectFailure(Timed(who + " PublishP12",
                            [&] {
                                return PublishP12(bundle_.data(), bundle_.size(), kBundlePw, kKeyPw,
                                                  true, false);
                            }),
                      false);
        ExpectFailure(Timed(who + " ModifyPriKeyPsw",
                            [&] { return ModifyPriKeyPsw("cn=fault user", kKeyPw, "new"); }),
                      false);
    }

    static qortest::Pki* pki_;
    Directory dir_;
    Server server_{dir_.Var("QORLDAP_DIR"), dir_.Port()};
    Watchdog watchdog_;
    std::vector<Timing> timings_;
    std::string bundle_;
    bool stopped_ = false;
};

qortest::Pki* Faults::pki_ = nullptr;

TEST_F(Faults, StoppedServerFailsEveryCallPromptlyAndOnlyANewEngineRecovers) {
    std::string const base = dir_.Base();
    std::string const unit = "ou=FaultUnit," + base;
    std::string const published = PublishedDn(base);

    // 1. Server up: an object and the free functions connect, write and read.
    CLdap old;
    ASSERT_EQ(0, Timed("up: old CLdap ConnectLdap", [&] { return old.ConnectLdap(); }));
    std::string const user = qortest::MakeUser(old, base, "FaultUnit", "Fault Keeper");
    std::string const before = "certificate before the outage";
    ASSERT_EQ(0, Timed("up: old CLdap ModifySignPublicKey", [&] {
                  return old.ModifySignPublicKey(user.c_str(), U(before), unsigned(before.size()));
              }));
    std::string got;
    ASSERT_EQ(0, ReadMember(old, "up: old CLdap GetSignPublicKey", user, &got));
    EXPECT_EQ(before, got);
    ASSERT_EQ(0, Timed("up: free ConnectLdap", [] { return ConnectLdap(); }));
    ASSERT_EQ(0, ReadFree("up: free GetSignPublicKey", user, &got));
    EXPECT_EQ(before, got);
    // Both pairs, so that the password change has both keys to convert.
    ASSERT_EQ(0, Timed("up: free PublishP12 (signing)", [&] {
                  return PublishP12(bundle_.data(), bundle_.size(), kBundlePw, kKeyPw, true, false);
              }));
    ASSERT_EQ(0, Timed("up: free PublishP12 (encryption)", [&] {
                  return PublishP12(bundle_.data(), bundle_.size(), kBundlePw, kKeyPw, false,
                                    false);
              }));
    ASSERT_EQ(0, Timed("up: free ModifyPriKeyPsw",
                       [] { return ModifyPriKeyPsw("cn=fault user", kKeyPw, kKeyPw); }));

    // 2. The server stops under the connected engines.
    ASSERT_TRUE(server_.Stop());
    stopped_ = true;

    // Connected engines: a connection is made once, so their ConnectLdap keeps answering 0 at
    // once without going to the server (as documented); everything that does go to the server
    // fails.
    EXPECT_EQ(0,
              Timed("down: old CLdap ConnectLdap (connected)", [&] { return old.ConnectLdap(); }));
    EXPECT_EQ(0, Timed("down: free ConnectLdap (connected)", [] { return ConnectLdap(); }));
    EveryMemberOperationFails(old, "down: old CLdap", user, unit, false);
    EveryFreeFunctionFails("down: free", user);
    // A new engine cannot connect, and each operation, which connects first, fails with it.
    {
        CLdap fresh;
        EveryMemberOperationFails(fresh, "down: new CLdap", user, unit, true);
        EXPECT_EQ(QORLDAP_E_FAILED, Timed("down: new CLdap ConnectLdap (again)",
                                          [&] { return fresh.ConnectLdap(); }));
    }

    // 3. The server comes back on the same port, with an empty database.
    ASSERT_TRUE(server_.Start());
    stopped_ = false;
    CLdap renewed;
    ASSERT_EQ(0, Timed("restarted: new CLdap ConnectLdap", [&] { return renewed.ConnectLdap(); }));
    ASSERT_EQ(user, qortest::MakeUser(renewed, base, "FaultUnit", "Fault Keeper"));
    std::string const after = "certificate after the restart";
    EXPECT_EQ(0, Timed("restarted: new CLdap ModifySignPublicKey", [&] {
                  return renewed.ModifySignPublicKey(user.c_str(), U(after),
                                                     unsigned(after.size()));
              }));
    EXPECT_EQ(0, ReadMember(renewed, "restarted: new CLdap GetSignPublicKey", user, &got));
    EXPECT_EQ(after, got);
    EXPECT_EQ(std::vector<std::string>{after}, dir_.Values(user, "signPubcer;binary"));

    // The engines connected before the outage do not come back: they still count as
    // connected, their calls keep failing, also for the entry that exists again, and they
    // change nothing.
    EXPECT_EQ(0, Timed("restarted: old CLdap ConnectLdap (connected)",
                       [&] { return old.ConnectLdap(); }));
    EXPECT_EQ(0, Timed("restarted: free ConnectLdap (connected)", [] { return ConnectLdap(); }));
    EveryMemberOperationFails(old, "restarted: old CLdap", user, unit, false);
    EveryFreeFunctionFails("restarted: free", user);
    EXPECT_EQ(std::vector<std::string>{after}, dir_.Values(user, "signPubcer;binary"));
    EXPECT_TRUE(dir_.Values(published, "signPubcer;binary").empty())
        << "the old free-function engine published after the restart";
}

// A server that still holds its connections but never answers (slapd stopped with SIGSTOP).
// With the default settings (no "timeout" in soap.ini) libldap waits for the answer without
// limit, so a call would stay blocked for as long as the server stays frozen; an engine given
// "timeout" must give up after that many seconds on a connection it already had, and fail the
// call with a result code.
TEST_F(Faults, WithATimeoutACallOnAFrozenServerFailsWithinTheBound) {
    constexpr int kTimeoutSeconds = 2;
    qortest::ScratchDir conf;
    conf.Write("soap.ini", qortest::ReadFile(dir_.ConfDir() + "/soap.ini") +
                               "timeout=" + std::to_string(kTimeoutSeconds) + "\n");
    conf.Write("ldap.ini", qortest::ReadFile(dir_.ConfDir() + "/ldap.ini"));
    std::unique_ptr<CLdap> ldap;
    {
        qortest::ConfDir use(conf.Path());  // read while the object is built
        ldap.reset(new CLdap());
    }
    ASSERT_EQ(0, Timed("up: CLdap (timeout=2) ConnectLdap", [&] { return ldap->ConnectLdap(); }));
    std::string const user = qortest::MakeUser(*ldap, dir_.Base(), "FaultUnit", "Frozen");
    std::string const value = "certificate before the freeze";
    ASSERT_EQ(0, Timed("up: CLdap (timeout=2) ModifySignPublicKey", [&] {
                  return ldap->ModifySignPublicKey(user.c_str(), U(value), unsigned(value.size()));
              }));
    std::string got;
    ASSERT_EQ(0, ReadMember(*ldap, "up: CLdap (timeout=2) GetSignPublicKey", user, &got));
    ASSERT_EQ(value, got);

    pid_t slapd = static_cast<pid_t>(
        std::atol(qortest::ReadFile(dir_.Var("QORLDAP_DIR") + "/slapd.pid").c_str()));
    ASSERT_GT(slapd, 1);
    ASSERT_EQ(0, kill(slapd, SIGSTOP));
    struct Resume {
        pid_t pid;
        ~Resume() { kill(pid, SIGCONT); }
    } resume{slapd};
    EXPECT_EQ(QORLDAP_E_KEY_SEARCH,
              ReadMember(*ldap, "frozen: CLdap (timeout=2) GetSignPublicKey", user));
    EXPECT_NE(0, Timed("frozen: CLdap (timeout=2) ModifySignPublicKey", [&] {
                  return ldap->ModifySignPublicKey(user.c_str(), U(value), unsigned(value.size()));
              }));
}

}  // namespace
