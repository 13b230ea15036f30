// Two providers replicating each other and two read-only consumers of theirs (scripts/directory
// start --providers 2 --consumers 2): what is written through one provider is read byte-exact
// through the other, and a provider killed under load costs the callers one failed call each,
// not a write that returned 0. The free functions' pool (ReplicationPool, run by ctest in a
// process of its own) keeps every acknowledged write while a provider is killed and a consumer
// stopped, continued, killed and started again. The figures go to the test's output.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "qorldap/LastResult.h"
#include "qorldap/Settings.h"
#include "qorldap/qorldap.h"
#include "tests/support/CraftedBundle.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

namespace {

using Clock = std::chrono::steady_clock;
qortest::Directory const kDir;

// A CLdap on the settings of one folder: "1" or "2" (one provider), "" (both, host list).
std::unique_ptr<CLdap> Engine(std::string const& which) {
    qortest::ConfDir use(kDir.Var("QORLDAP_DIR") + "/" + (which.empty() ? "" : which + "/") +
                         "conf");
    return std::unique_ptr<CLdap>(new CLdap());
}

std::string Cert(CLdap& ldap, std::string const& dn) {
    unsigned char* key = nullptr;
    unsigned int length = 0;
    ldap.GetSignPublicKey(dn.c_str(), key, length);
    std::string value = key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : "";
    ldap.FreeKey(key);
    return value;
}

int Put(CLdap& ldap, std::string const& dn, std::string const& value) {
    return ldap.ModifySignPublicKey(dn.c_str(),
                                    reinterpret_cast<unsigned char const*>(value.data()),
                                    static_cast<unsigned>(value.size()));
}

// The length of dn's signing private key on ldap; -1 when the read failed.
int KeyLength(CLdap& ldap, std::string const& dn) {
    unsigned char* key = nullptr;
    unsigned int length = 0;
    int rc = ldap.GetSignPrivateKey(dn.c_str(), key, length);
    ldap.FreeKey(key);
    return rc == 0 ? int(length) : -1;
}

// Whether done() comes true within 10 s.
template <typename Done>
bool Eventually(Done done) {
    for (auto until = Clock::now() + std::chrono::seconds(10); Clock::now() < until;) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

// Waits up to 10 s for dn to hold value on ldap; the seconds it took, or -1.
double Await(CLdap& ldap, std::string const& dn, std::string const& value, Clock::time_point from) {
    for (auto until = from + std::chrono::seconds(10); Clock::now() < until;) {
        if (Cert(ldap, dn) == value)
            return std::chrono::duration<double>(Clock::now() - from).count();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return -1;
}

std::string Scripts(std::string const& what) {
    int status = 0;
    std::string out =
        qortest::Run(std::string(std::getenv("QORLDAP_SOURCE_DIR")) + "/scripts/directory " + what +
                         " --dir '" + kDir.Var("QORLDAP_DIR") + "' 2>&1",
                     &status);
    EXPECT_EQ(0, status) << out;
    return out;
}

}  // namespace

TEST(Replication, AKeyWrittenThroughOneProviderIsReadByteExactThroughTheOther) {
    ASSERT_TRUE(kDir.Ready()) << "no replicated directory (QORLDAP_TEST_DIR)";
    auto a = Engine("1"), b = Engine("2");
    std::string const dn = qortest::MakeUser(*a, kDir.Base(), "Replicated", "Delay");
    std::vector<double> delays;
    for (int i = 0; i < 100; ++i) {
        std::string value =
            "cert " + std::to_string(i) + std::string(1, '\0') + std::string(i * 40, char(i));
        ASSERT_EQ(0, Put(*a, dn, value));
        double delay = Await(*b, dn, value, Clock::now());
        ASSERT_GE(delay, 0) << "write " << i << " never reached provider 2";
        delays.push_back(delay);
    }
    std::sort(delays.begin(), delays.end());
    std::printf("replication delay A->B over 100 writes: median %.2f ms, worst %.2f ms\n",
                delays[50] * 1000, delays.back() * 1000);
}

// Four threads of distinct users: two on the free functions (host list A B, reconnect, timeout
// 2 s), reading certificates and removing private keys; two on CLdap objects of the same
// settings, creating users and writing their certificates. A is killed while they run and started
// again after; then every write that returned 0 must be found on both providers.
TEST(Replication, AProviderKilledUnderLoadLosesNoAcknowledgedWrite) {
    ASSERT_TRUE(kDir.Ready());
    auto a = Engine("1"), b = Engine("2");
    int const users = 40;
    std::vector<std::string> holders;  // users whose private key the free-function threads remove
    for (int i = 0; i < 2 * users; ++i) {
        holders.push_back(qortest::MakeUser(*a, kDir.Base(), "Holders", "h" + std::to_string(i)));
        ASSERT_EQ(0, a->ModifySignPrivateKey(holders.back().c_str(),
                                             reinterpret_cast<unsigned char const*>("k"), 1));
    }
    ASSERT_TRUE(Eventually([&] { return KeyLength(*b, holders.back()) == 1; }));
    std::mutex lock;
    std::map<std::string, std::string>
        written;                  // acknowledged: dn -> certificate ("" = key removed)
    std::map<int, int> failures;  // code -> count
    double worst = 0;
    auto note = [&](int rc, Clock::time_point began, std::string const& dn, std::string const& v) {
        std::lock_guard<std::mutex> hold(lock);
        worst = std::max(worst, std::chrono::duration<double>(Clock::now() - began).count());
        rc == 0 ? void(dn.empty() || (written[dn] = v, true)) : void(++failures[rc]);
    };
    auto work = [&](int t) {
        std::unique_ptr<CLdap> own = t >= 2 ? Engine("") : nullptr;
        for (int i = 0; i < users; ++i) {
            auto began = Clock::now();
            if (t < 2) {  // free functions: remove a key, read a certificate
                std::string const& dn = holders[t * users + i];
                note(DeleteSignPrivateKey(dn.c_str()), began, dn, "");
                unsigned char* key = nullptr;
                unsigned int length = 0;
                began = Clock::now();
                note(GetSignPublicKey(dn.c_str(), key, length), began, "", "");
                FreeKey(key);
            } else {  // own engine: a new user and its certificate
                std::string dn = "cn=w" + std::to_string(t) + "-" + std::to_string(i) +
                                 ",ou=Holders," + kDir.Base();
                qortest::MakeUser(*own, kDir.Base(), "Holders",
                                  "w" + std::to_string(t) + "-" + std::to_string(i));
                note(Put(*own, dn, "cert of " + dn), began, dn, "cert of " + dn);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back(work, t);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Scripts("kill --server 1");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Scripts("start --server 1");
    for (std::thread& t : threads)
        t.join();

    int onA = 0, onB = 0;
    auto a2 = Engine("1"), b2 = Engine("2");  // A's first engine lost its connection for good
    auto present = [&](CLdap& ldap, std::string const& dn, std::string const& v) {
        return v.empty() ? Eventually([&] { return KeyLength(ldap, dn) == 0; })
                         : Eventually([&] { return Cert(ldap, dn) == v; });
    };
    for (auto const& [dn, v] : written) {
        onA += present(*a2, dn, v);
        onB += present(*b2, dn, v);
    }
    std::string codes;
    for (auto const& [code, count] : failures)
        codes += " " + std::to_string(count) + "x" + std::to_string(code);
    std::printf(
        "writes acknowledged %zu, found on A %d, on B %d; failed calls:%s; worst call %.2f s\n",
        written.size(), onA, onB, codes.empty() ? " none" : codes.c_str(), worst);
    EXPECT_EQ(int(written.size()), onA);
    EXPECT_EQ(int(written.size()), onB);
    EXPECT_GT(written.size(), 100u);
    // A call meets the dead provider at most once per engine and then redials: the timeout (2 s)
    // and one redial bound every call.
    EXPECT_LT(worst, 2 * 2 + 1.0);
}

namespace {

// The searches server n (1 to 4) has completed since it started, by its cn=Monitor (the
// consumers have one, for the rootdn); -1 when it does not answer.
long Searches(int n) {
    std::string const out = qortest::Run(
        "ldapsearch -x -LLL -o nettimeout=2 -D '" + kDir.Var("LDAP_BINDDN") + "' -w '" +
        kDir.Var("LDAP_BINDPW") + "' -H '" + kDir.Var("LDAP_URI_" + std::to_string(n)) +
        "' -b cn=Search,cn=Operations,cn=Monitor -s base monitorOpCompleted 2>/dev/null | "
        "sed -n 's/^monitorOpCompleted: //p'");
    return out.empty() ? -1 : std::stol(out);
}

pid_t Pid(int n) {
    std::string const pid =
        qortest::Run("cat '" + kDir.Var("LDAP_PID_FILE_" + std::to_string(n)) + "' 2>/dev/null");
    return pid.empty() ? 0 : static_cast<pid_t>(std::stol(pid));
}

// What the pool's callers saw: writes acknowledged (dn -> certificate), codes of the calls that
// failed (for a failed key search the directory's, -5 for a timeout), and how reads came back.
struct Seen {
    std::mutex lock;
    std::map<std::string, std::string> written;
    std::map<int, int> writeFailures, readFailures;
    long reads = 0, current = 0, notYet = 0, foreign = 0;
    double worst = 0;
};

// One of the 16 threads: publishes certificates (public part only, a fresh subject each time, so
// that every entry is written once), and after each write reads three of its earlier
// ones, until stop. A read may find a certificate not there yet (a consumer behind), never
// another one.
void Work(int t, std::atomic<bool> const& stop, Seen& seen) {
    // A unit of this run's own: a directory kept from an earlier run holds other certificates
    // under the same names, which a consumer behind would still show.
    std::string const unit = "pool" + std::to_string(getpid()) + "-" + std::to_string(t);
    std::vector<std::pair<std::string, std::string>> mine;  // acknowledged: dn, certificate
    std::mt19937 pick(static_cast<unsigned>(t));
    auto timed = [&](auto call) {
        auto const began = Clock::now();
        int const rc = call();
        double const took = std::chrono::duration<double>(Clock::now() - began).count();
        std::lock_guard<std::mutex> hold(seen.lock);
        seen.worst = std::max(seen.worst, took);
        return rc;
    };
    for (int i = 0; !stop.load(); ++i) {
        std::string const cn = "k" + std::to_string(i);
        auto const crafted = qortest::CraftBundle({{"OU", unit}, {"CN", cn}}, "bundle-pw");
        ASSERT_FALSE(crafted.bundle.empty());
        int const rc = timed([&] {
            return PublishP12(crafted.bundle.data(), crafted.bundle.size(), "bundle-pw", nullptr,
                              true, true);
        });
        std::string const dn = "cn=" + cn + ",ou=" + unit + "," + kDir.Base();
        {
            std::lock_guard<std::mutex> hold(seen.lock);
            rc == 0 ? void(seen.written[dn] = crafted.cert) : void(++seen.writeFailures[rc]);
        }
        if (rc == 0)
            mine.emplace_back(dn, crafted.cert);
        for (int r = 0; r < 3 && !mine.empty(); ++r) {
            auto const& [readDn, cert] = mine[pick() % mine.size()];
            unsigned char* key = nullptr;
            unsigned int length = 0;
            int const got = timed([&] { return GetSignPublicKey(readDn.c_str(), key, length); });
            QorLdapResult last = {};
            QorLdapLastResult(&last);
            std::string const value =
                key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : "";
            FreeKey(key);
            std::lock_guard<std::mutex> hold(seen.lock);
            ++seen.reads;
            if ((got == QORLDAP_E_KEY_SEARCH && last.code == 32) || (got == 0 && value.empty())) {
                ++seen.notYet;  // on a consumer that has not received it yet
            } else if (got != 0) {
                ++seen.readFailures[got == QORLDAP_E_KEY_SEARCH ? last.code : got];
            } else if (value == cert) {
                ++seen.current;
            } else {
                ++seen.foreign;
            }
        }
    }
}

std::string Codes(std::map<int, int> const& failures) {
    std::string codes;
    for (auto const& [code, count] : failures) {
        char text[32];
        if (code >= QORLDAP_E_FAILED)
            std::snprintf(text, sizeof text, " %dx%#x", count, unsigned(code));
        else
            std::snprintf(text, sizeof text, " %dx%d", count, code);
        codes += text;
    }
    return codes.empty() ? " none" : codes;
}

}  // namespace

// 16 threads on the free functions with pool_size = 16 and the two consumers as read hosts
// (DIR/conf/soap.ini), failback after 2 s and idle_check after 1 s: provider 1 is SIGKILLed and
// started again, consumer 3 is SIGSTOPped for longer than the timeout (2 s) and continued, then
// SIGKILLed and started again, and provider 1 is SIGSTOPped for longer than the timeout and
// continued. Once the servers have converged, every certificate whose write
// returned 0 is read byte-exact from each of the four servers. The consumers' cn=Monitor
// counts the searches each served, in the steady phase before the faults and overall.
TEST(ReplicationPool, EveryAcknowledgedWriteReachesAllFourServersThroughFaults) {
    ASSERT_TRUE(kDir.Ready()) << "no replicated directory (QORLDAP_TEST_DIR)";
    if (kDir.Var("LDAP_PORT_4").empty())
        GTEST_SKIP() << "no consumers: start the directory with --providers 2 --consumers 2";
    int const set = QorLdapSet("pool_size", "16");
    if (set == QORLDAP_E_FAILED)
        GTEST_SKIP() << "this library has no connection pool (QorLdapSet refuses pool_size)";
    if (set == 1)
        GTEST_SKIP() << "the free functions' engine was built by an earlier test in this process, "
                        "before pool_size; run this test alone (--gtest_filter=ReplicationPool.*)";
    ASSERT_EQ(0, QorLdapSet("failback", "2"));
    ASSERT_EQ(0, QorLdapSet("idle_check", "1"));

    long const start3 = Searches(3), start4 = Searches(4);
    Seen seen;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t)
        threads.emplace_back(Work, t, std::cref(stop), std::ref(seen));
    auto readsSoFar = [&] {
        std::lock_guard<std::mutex> hold(seen.lock);
        return seen.reads;
    };
    // The steady phase lasts until the threads have read a few hundred times (2 s on a quiet
    // machine; longer under the sanitizers on a busy one, 60 s at most).
    auto const steadyUntil = Clock::now() + std::chrono::seconds(60);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    while (readsSoFar() < 300 && Clock::now() < steadyUntil)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    long const steady3 = Searches(3) - start3, steady4 = Searches(4) - start4;
    long const steadyReads = readsSoFar();
    Scripts("kill --server 1");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Scripts("start --server 1");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    pid_t const consumer = Pid(3);
    ASSERT_GT(consumer, 0);
    ASSERT_EQ(0, kill(consumer, SIGSTOP));
    std::this_thread::sleep_for(std::chrono::seconds(3));
    ASSERT_EQ(0, kill(consumer, SIGCONT));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    long const before3 = Searches(3) - start3;  // consumer 3's count goes with it
    Scripts("kill --server 3");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Scripts("start --server 3");
    long const restarted3 = Searches(3), restarted4 = Searches(4);
    std::this_thread::sleep_for(std::chrono::seconds(3));
    // Provider 1 stops answering for longer than the timeout (its connections stay open, its
    // port still accepts): writes on it give up after 2 s and the next ones go to provider 2;
    // once it answers again, failback brings new connections back to it.
    pid_t const provider = Pid(1);
    ASSERT_GT(provider, 0);
    ASSERT_EQ(0, kill(provider, SIGSTOP));
    std::this_thread::sleep_for(std::chrono::seconds(3));
    ASSERT_EQ(0, kill(provider, SIGCONT));
    std::this_thread::sleep_for(std::chrono::seconds(3));
    stop = true;
    for (std::thread& t : threads)
        t.join();
    long const after3 = Searches(3) - restarted3, after4 = Searches(4) - restarted4;
    long const served3 = before3 + after3, served4 = after4 + restarted4 - start4;

    // Every acknowledged write on every server, once they have converged (20 s at most each).
    int found[5] = {};
    for (int n = 1; n <= 4; ++n) {
        auto engine = Engine(std::to_string(n));
        auto const until = Clock::now() + std::chrono::seconds(20);
        for (auto const& [dn, cert] : seen.written) {
            while (Cert(*engine, dn) != cert && Clock::now() < until)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            found[n] += Cert(*engine, dn) == cert;
        }
    }
    std::printf(
        "pool of 16, 16 threads: writes acknowledged %zu, failed:%s; reads %ld: current %ld, "
        "not yet replicated %ld, another's %ld, failed:%s; worst call %.2f s\n"
        "found on provider 1 %d, provider 2 %d, consumer 3 %d, consumer 4 %d\n"
        "searches served, steady phase (%ld reads by the threads): consumer 3 %ld, consumer 4 "
        "%ld; after consumer 3 came back: %ld, %ld; whole run: %ld, %ld\n",
        seen.written.size(), Codes(seen.writeFailures).c_str(), seen.reads, seen.current,
        seen.notYet, seen.foreign, Codes(seen.readFailures).c_str(), seen.worst, found[1], found[2],
        found[3], found[4], steadyReads, steady3, steady4, after3, after4, served3, served4);
    EXPECT_EQ(0, seen.foreign) << "a read returned a certificate written for another entry";
    for (int n = 1; n <= 4; ++n)
        EXPECT_EQ(int(seen.written.size()), found[n]) << "server " << n;
    EXPECT_GT(seen.written.size(), 50u);
    // The reads of the steady phase went to the read hosts, both of them.
    EXPECT_GT(steady3, 10);
    EXPECT_GT(steady4, 10);
}
