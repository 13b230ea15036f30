// Two providers replicating each other (scripts/directory start --providers 2): what is written
// through one is read byte-exact through the other, and a provider killed under load costs the
// callers one failed call each, not a write that returned 0. The figures go to the test's output.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "qorldap/qorldap.h"
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
