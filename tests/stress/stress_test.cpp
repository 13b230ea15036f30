// Many threads at once on the real directory. Eight read through the free functions, the one
// engine every thread shares (writing through a CLdap of their own: the free functions have no
// key write); eight more each have a CLdap of their own. Each writes the signing and encryption
// certificates of a user of its own in turn and reads both back after every write: each must be
// the last value it wrote. Under ThreadSanitizer (run_tsan.sh) this shows any data race too.
// QORLDAP_STRESS_ROUNDS sets the rounds per thread (default 200, at most 5000).
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

namespace {

constexpr int kThreads = 8;
char const* const kAttr[2] = {"signPubcer;binary", "cryptPubcer;binary"};
// 16 threads of 200 rounds take seconds, tens under ThreadSanitizer: a test still running after
// ten minutes is stuck (a lock never released, a call that never returns) and is ended.
constexpr unsigned kHangBoundSeconds = 600;

void OnHang(int) {
    char const text[] = "stress_test: still running after 600 s, taken as a hang\n";
    (void)!write(2, text, sizeof text - 1);
    abort();
}

int Rounds() {
    char const* text = std::getenv("QORLDAP_STRESS_ROUNDS");
    int rounds = text != nullptr ? std::atoi(text) : 200;
    return rounds < 1 ? 200 : rounds > 5000 ? 5000 : rounds;
}

// A value that names its writer (kind, family, thread, round), then 3 to 4098 bytes, zeros
// included, that follow from those.
std::string MakeValue(int kind, char family, int thread, int round) {
    char header[24];
    std::snprintf(header, sizeof header, "%c%c%02d%08d|", "SC"[kind], family, thread, round);
    std::mt19937 gen(
        static_cast<unsigned>(kind * 7919 + family * 104729 + thread * 1000003 + round));
    std::string value(header);
    for (size_t i = 0, n = 3 + gen() % 4096; i < n; ++i)
        value.push_back(static_cast<char>(gen() & 0xff));
    return value;
}

std::string Show(std::string const& v) {  // the writer's header and the length
    return "'" + v.substr(0, 12) + "...' (" + std::to_string(v.size()) + " bytes)";
}

// A certificate read through l, or through the free functions when l is null; "" on failure,
// with err saying why.
std::string Read(CLdap* l, int kind, std::string const& dn, std::string& err) {
    unsigned char* key = nullptr;
    unsigned int length = 7;
    int rc = l == nullptr
                 ? (kind == 0 ? GetSignPublicKey : GetCryptPublicKey)(dn.c_str(), key, length)
             : kind == 0 ? l->GetSignPublicKey(dn.c_str(), key, length)
                         : l->GetCryptPublicKey(dn.c_str(), key, length);
    std::string value = key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : "";
    if (rc != 0 || key == nullptr)
        err = "read returned " + std::to_string(rc) + " with " + (key ? "a key" : "no key");
    if (key != nullptr)
        l != nullptr ? l->FreeKey(key) : FreeKey(key);
    return value;
}

int Write(CLdap& l, int kind, std::string const& dn, std::string const& value) {
    auto put = kind == 0 ? &CLdap::ModifySignPublicKey : &CLdap::ModifyCryptPublicKey;
    return (l.*put)(dn.c_str(), reinterpret_cast<unsigned char const*>(value.data()),
                    unsigned(value.size()));
}

// What one thread did; the main thread checks it once all have ended.
struct Outcome {
    int writes = 0, reads = 0;
    std::string error;    // the first thing that went wrong; the thread stopped there
    std::string last[2];  // the last values written
};

class Stress : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGALRM, OnHang);
        alarm(kHangBoundSeconds);
        ASSERT_TRUE(dir_.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
        ASSERT_EQ(0, setup_.ConnectLdap());
    }
    void TearDown() override { alarm(0); }

    // Makes the users of a family with both certificates, so that every read has a known value
    // to expect, also when the directory kept users of an earlier run.
    std::vector<Outcome> MakeUsers(char family) {
        std::vector<Outcome> outcomes(kThreads);
        for (int i = 0; i < kThreads; ++i) {
            std::string const dn =
                qortest::MakeUser(setup_, dir_.Base(), "StressUnit", Name(family, i));
            for (int kind : {0, 1}) {
                outcomes[i].last[kind] = MakeValue(kind, family, i, 0);
                EXPECT_EQ(0, Write(setup_, kind, dn, outcomes[i].last[kind])) << dn;
            }
        }
        return outcomes;
    }
    static std::string Name(char family, int thread) {
        return (family == 'F' ? "free-" : "own-") + std::to_string(thread);
    }
    std::string User(char family, int thread) const {
        return "cn=" + Name(family, thread) + ",ou=StressUnit," + dir_.Base();
    }

    // One thread's rounds: write the two certificates in turn through writer, read both back
    // through reader (the shared engine when null). Returns the first thing that went wrong.
    std::string Run(char family, int thread, CLdap& writer, CLdap* reader, Outcome& out) {
        std::string const dn = User(family, thread);
        for (int round = 1, rounds = Rounds(); round <= rounds; ++round) {
            int const kind = round % 2;
            std::string const at = "round " + std::to_string(round) + ": ";
            out.last[kind] = MakeValue(kind, family, thread, round);
            if (int rc = Write(writer, kind, dn, out.last[kind]))
                return at + "write returned " + std::to_string(rc);
            ++out.writes;
            for (int k : {0, 1}) {
                std::string err;
                std::string const got = Read(reader, k, dn, err);
                ++out.reads;
                if (!err.empty())
                    return at + kAttr[k] + ": " + err;
                if (got != out.last[k])
                    return at + kAttr[k] + ": read " + Show(got) + ", last written " +
                           Show(out.last[k]);
            }
        }
        return "";
    }

    qortest::Directory dir_;
    CLdap setup_;
};

TEST_F(Stress, SharedEngineAndOwnEnginesReadBackTheirLastWritesUnderLoad) {
    std::vector<Outcome> outcomes[2] = {MakeUsers('F'), MakeUsers('O')};
    std::promise<void> go;
    std::shared_future<void> started = go.get_future().share();
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        for (int own : {0, 1}) {
            threads.emplace_back([&, i, own] {
                CLdap ldap;
                started.wait();
                Outcome& out = outcomes[own][i];
                out.error = Run("FO"[own], i, ldap, own ? &ldap : nullptr, out);
            });
        }
    }
    go.set_value();  // all at once
    for (std::thread& t : threads)
        t.join();

    int const rounds = Rounds();
    for (int own : {0, 1}) {
        for (int i = 0; i < kThreads; ++i) {
            Outcome const& out = outcomes[own][i];
            std::string const who =
                (own ? "CLdap thread " : "free-function thread ") + std::to_string(i);
            EXPECT_EQ("", out.error) << who;
            EXPECT_EQ(rounds, out.writes) << who;
            EXPECT_EQ(2 * rounds, out.reads) << who;
            // Read by an independent client, the stored values are the last ones written.
            for (int k : {0, 1})
                EXPECT_EQ(std::vector<std::string>{out.last[k]},
                          dir_.Values(User("FO"[own], i), kAttr[k]))
                    << who;
        }
    }
}

// The shared engine connects on demand. This runs in a process of its own (the death-test
// machinery starts the program again for just this test), so the free functions' engine is
// exactly as the library built it at load: never connected. Eight threads are released at once
// onto the connection sequence, by ConnectLdap or by a first read; each must get 0 and a key.
// With mixed, the odd threads connect engines of their own at the same moment instead, so that
// the first connections of different engines race too; only the connections are checked then.
void EightThreadsConnectTheSharedEngine(std::string const& dn, bool explicitConnect,
                                        bool mixed = false) {
    std::promise<void> go;
    std::shared_future<void> started = go.get_future().share();
    std::vector<std::string> errors(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            CLdap own;
            bool const mine = mixed && i % 2 == 1;
            started.wait();
            int rc = !explicitConnect ? 0 : mine ? own.ConnectLdap() : ConnectLdap();
            if (!mixed)
                Read(nullptr, 0, dn, errors[i]);
            if (rc != 0)
                errors[i] = "ConnectLdap returned " + std::to_string(rc);
        });
    }
    go.set_value();
    for (std::thread& t : threads)
        t.join();
    std::string report;
    for (int i = 0; i < kThreads; ++i) {
        if (!errors[i].empty())
            report += "thread " + std::to_string(i) + ": " + errors[i] + "\n";
    }
    std::fprintf(stderr, "%s", report.empty() ? "all 8 threads connected\n" : report.c_str());
    std::exit(report.empty() ? 0 : 1);
}

TEST_F(Stress, EightThreadsConnectAFreshSharedEngineAtOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new process image, whatever threads run
    MakeUsers('O');
    for (bool explicitConnect : {true, false}) {
        EXPECT_EXIT(EightThreadsConnectTheSharedEngine(User('O', explicitConnect), explicitConnect),
                    ::testing::ExitedWithCode(0), "all 8 threads connected");
    }
}

// No engine of the process has touched the client library before the threads start: the free
// functions' engine and four engines of their own make their first connections at once.
TEST(StressConnect, TheSharedEngineAndOwnEnginesConnectForTheFirstTimeAtOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    qortest::Directory dir;
    ASSERT_TRUE(dir.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
    // The base entry is made by another client (-c: it may be there already), so that the
    // engines do not race to create it; that race is the root check's, not the one looked for.
    std::string const o = dir.Base().substr(2, dir.Base().find(',') - 2);
    dir.Add("dn: " + dir.Base() + "\nobjectClass: organization\no: " + o + "\n");
    EXPECT_EXIT(EightThreadsConnectTheSharedEngine("", true, true), ::testing::ExitedWithCode(0),
                "all 8 threads connected");
}

}  // namespace
