// Many threads at once on the real directory. Eight threads use the free functions, that is the
// one engine the library builds at load and every thread of the process shares; eight more each
// have a CLdap, an engine of their own. Each thread writes the signing and the encryption
// certificate of a user of its own, reads them back and reads a neighbour's: what it reads of
// its own user must be exactly the last value it wrote, and what it reads of the neighbour must
// be one whole value the neighbour wrote (never a mix of two writes, another user's or the
// other attribute's value). Under ThreadSanitizer (run_tsan.sh) the same run shows any data
// race in the library as well.
//
// QORLDAP_STRESS_ROUNDS sets the rounds per thread (default 200, at most 5000).
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

namespace {

using qortest::Directory;

constexpr int kThreads = 8;
constexpr char const kUnit[] = "StressUnit";
constexpr char const kSignAttr[] = "signPubcer;binary";
constexpr char const kCryptAttr[] = "cryptPubcer;binary";

// Upper bound on a hang, not a measurement: 16 threads of 200 rounds take seconds, and tens of
// seconds under ThreadSanitizer. A run still going after ten minutes is stuck (threads waiting
// on each other's locks, a libldap call that never returns) and is ended with a message rather
// than left to hang the suite.
constexpr int kHangBoundSeconds = 600;

int Rounds() {
    char const* text = std::getenv("QORLDAP_STRESS_ROUNDS");
    int rounds = text != nullptr ? std::atoi(text) : 200;
    if (rounds < 1)
        return 200;
    return rounds > 5000 ? 5000 : rounds;
}

// Aborts the process when the guarded scope is still running after its bound.
class HangGuard {
  public:
    HangGuard(std::string what, int seconds)
        : what_(std::move(what)), thread_([this, seconds] { Watch(seconds); }) {}
    ~HangGuard() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    HangGuard(HangGuard const&) = delete;
    HangGuard& operator=(HangGuard const&) = delete;

  private:
    void Watch(int seconds) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!wake_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; })) {
            std::fprintf(stderr, "%s: still running after %d s, taken as a hang\n", what_.c_str(),
                         seconds);
            std::abort();
        }
    }
    std::string what_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool done_ = false;
    std::thread thread_;  // last: starts once the members it uses exist
};

// Holds every thread until all have arrived, then lets them go together.
class StartGate {
  public:
    explicit StartGate(int parties) : waiting_(parties) {}
    void ArriveAndWait() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (--waiting_ == 0) {
            open_.notify_all();
            return;
        }
        open_.wait(lock, [this] { return waiting_ == 0; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable open_;
    int waiting_;
};

// A value that names its writer: kind ('S' signing, 'C' encryption), family ('F' free functions,
// 'O' own CLdap), thread and round, then bytes (zeros included) that follow from those four.
// Lengths vary from 16 bytes to a little over 4 KiB.
std::string MakeValue(char kind, char family, int thread, int round) {
    char header[16];
    std::snprintf(header, sizeof header, "%c%c%02d%08d|", kind, family, thread, round);
    unsigned seed = static_cast<unsigned>(kind) * 1000003u + static_cast<unsigned>(family) * 7919u +
                    static_cast<unsigned>(thread) * 104729u + static_cast<unsigned>(round);
    std::mt19937 gen(seed);
    std::string value(header);
    size_t extra = 3 + gen() % 4096;
    for (size_t i = 0; i < extra; ++i)
        value.push_back(static_cast<char>(gen() & 0xff));
    return value;
}

// True when value is exactly one value that MakeValue(kind, family, thread, some round) gives.
bool IsWholeValue(std::string const& value, char kind, char family, int thread) {
    if (value.size() < 13 || value[0] != kind || value[1] != family || value[12] != '|') {
        return false;
    }
    if (std::atoi(value.substr(2, 2).c_str()) != thread)
        return false;
    return value == MakeValue(kind, family, thread, std::atoi(value.substr(4, 8).c_str()));
}

unsigned char const* U(std::string const& s) {
    return reinterpret_cast<unsigned char const*>(s.data());
}

std::string Show(std::string const& value) {
    if (value.empty())
        return "<none>";
    return "'" + value.substr(0, 12) + "...' (" + std::to_string(value.size()) + " bytes)";
}

std::string UserDn(Directory const& dir, char family, int thread) {
    return "cn=" + std::string(family == 'F' ? "free-" : "own-") + std::to_string(thread) +
           ",ou=" + kUnit + "," + dir.Base();
}

// A key read; "" stands for no key (null with length 0). On failure, err says why.
typedef int (*FreeGet)(char const*, unsigned char*&, unsigned int&);
typedef int (CLdap::*MemberGet)(char const*, unsigned char*&, unsigned int&);

bool Took(int rc, unsigned char* key, unsigned int length, std::string& out, std::string& err) {
    if (rc != 0) {
        err = "read returned " + std::to_string(rc);
        return false;
    }
    if (key == nullptr && length != 0) {
        err = "null key with length " + std::to_string(length);
        return false;
    }
    out = key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : std::string();
    return true;
}

bool ReadFree(FreeGet get, std::string const& dn, std::string& out, std::string& err) {
    unsigned char* key = nullptr;
    unsigned int length = 7;
    int rc = get(dn.c_str(), key, length);
    bool ok = Took(rc, key, length, out, err);
    if (key != nullptr)
        FreeKey(key);
    return ok;
}

bool ReadMember(CLdap& ldap, MemberGet get, std::string const& dn, std::string& out,
                std::string& err) {
    unsigned char* key = nullptr;
    unsigned int length = 7;
    int rc = (ldap.*get)(dn.c_str(), key, length);
    bool ok = Took(rc, key, length, out, err);
    ldap.FreeKey(key);
    return ok;
}

// What one thread did; the main thread checks it once all have ended.
struct Outcome {
    int writes = 0;
    int reads = 0;
    std::string error;  // the first thing that went wrong; the thread stops there
    std::string lastSign;
    std::string lastCrypt;
};

class Stress : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
        ASSERT_EQ(0, setup_.ConnectLdap());
    }

    // Makes the users of a family and gives each both certificates, so that every read in the
    // rounds has a known value to expect, also when the directory kept users of an earlier run.
    void MakeUsers(char family, std::vector<Outcome>& outcomes) {
        for (int i = 0; i < kThreads; ++i) {
            std::string name = std::string(family == 'F' ? "free-" : "own-") + std::to_string(i);
            std::string dn = qortest::MakeUser(setup_, dir_.Base(), kUnit, name);
            ASSERT_EQ(UserDn(dir_, family, i), dn);
            std::string sign = MakeValue('S', family, i, 0);
            std::string crypt = MakeValue('C', family, i, 0);
            ASSERT_EQ(0, setup_.ModifySignPublicKey(dn.c_str(), U(sign), unsigned(sign.size())));
            ASSERT_EQ(0, setup_.ModifyCryptPublicKey(dn.c_str(), U(crypt), unsigned(crypt.size())));
            outcomes[i].lastSign = sign;
            outcomes[i].lastCrypt = crypt;
        }
    }

    // The stored values, read by an independent client, are the last ones written.
    void ExpectStored(char family, std::vector<Outcome> const& outcomes) {
        for (int i = 0; i < kThreads; ++i) {
            std::string dn = UserDn(dir_, family, i);
            EXPECT_EQ(std::vector<std::string>{outcomes[i].lastSign}, dir_.Values(dn, kSignAttr))
                << dn;
            EXPECT_EQ(std::vector<std::string>{outcomes[i].lastCrypt}, dir_.Values(dn, kCryptAttr))
                << dn;
        }
    }

    Directory dir_;
    CLdap setup_;
};

// One round: write one of the two certificates (they alternate), read both back, read the
// neighbour's certificate of the same kind.
template <typename Write, typename Read>
bool Round(int round, char family, int thread, std::string const& dn,
           std::string const& neighbourDn, Outcome& out, Write write, Read read) {
    char kind = round % 2 == 0 ? 'S' : 'C';
    std::string value = MakeValue(kind, family, thread, round);
    int rc = write(kind, dn, value);
    if (rc != 0) {
        out.error = "round " + std::to_string(round) + ": write returned " + std::to_string(rc);
        return false;
    }
    ++out.writes;
    (kind == 'S' ? out.lastSign : out.lastCrypt) = value;

    std::string got;
    std::string err;
    for (char k : {'S', 'C'}) {
        std::string const& expected = k == 'S' ? out.lastSign : out.lastCrypt;
        if (!read(k, dn, got, err)) {
            out.error = "round " + std::to_string(round) + ", own " + k + ": " + err;
            return false;
        }
        ++out.reads;
        if (got != expected) {
            out.error = "round " + std::to_string(round) + ", own " + k + ": read " + Show(got) +
                        ", last written " + Show(expected);
            return false;
        }
    }
    int neighbour = (thread + 1) % kThreads;
    if (!read(kind, neighbourDn, got, err)) {
        out.error = "round " + std::to_string(round) + ", neighbour: " + err;
        return false;
    }
    ++out.reads;
    if (!IsWholeValue(got, kind, family, neighbour)) {
        out.error = "round " + std::to_string(round) + ", neighbour " + kind + ": read " +
                    Show(got) + ", not a whole value of thread " + std::to_string(neighbour);
        return false;
    }
    return true;
}

TEST_F(Stress, SharedEngineAndOwnEnginesReadBackTheirLastWritesUnderLoad) {
    HangGuard guard("Stress.SharedEngineAndOwnEnginesReadBackTheirLastWritesUnderLoad",
                    kHangBoundSeconds);
    int const rounds = Rounds();
    std::vector<Outcome> freeOut(kThreads);
    std::vector<Outcome> ownOut(kThreads);
    ASSERT_NO_FATAL_FAILURE(MakeUsers('F', freeOut));
    ASSERT_NO_FATAL_FAILURE(MakeUsers('O', ownOut));

    StartGate gate(2 * kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        // The free functions have no key write: each thread writes through a CLdap of its own
        // and reads through the shared engine.
        threads.emplace_back([&, i] {
            Outcome& out = freeOut[i];
            std::string dn = UserDn(dir_, 'F', i);
            std::string neighbourDn = UserDn(dir_, 'F', (i + 1) % kThreads);
            CLdap writer;
            auto write = [&writer](char kind, std::string const& d, std::string const& v) {
                return kind == 'S'
                           ? writer.ModifySignPublicKey(d.c_str(), U(v), unsigned(v.size()))
                           : writer.ModifyCryptPublicKey(d.c_str(), U(v), unsigned(v.size()));
            };
            auto read = [](char kind, std::string const& d, std::string& got, std::string& err) {
                return ReadFree(kind == 'S' ? &GetSignPublicKey : &GetCryptPublicKey, d, got, err);
            };
            gate.ArriveAndWait();
            for (int r = 1; r <= rounds; ++r) {
                if (!Round(r, 'F', i, dn, neighbourDn, out, write, read))
                    break;
            }
        });
        threads.emplace_back([&, i] {
            Outcome& out = ownOut[i];
            std::string dn = UserDn(dir_, 'O', i);
            std::string neighbourDn = UserDn(dir_, 'O', (i + 1) % kThreads);
            CLdap ldap;
            auto write = [&ldap](char kind, std::string const& d, std::string const& v) {
                return kind == 'S' ? ldap.ModifySignPublicKey(d.c_str(), U(v), unsigned(v.size()))
                                   : ldap.ModifyCryptPublicKey(d.c_str(), U(v), unsigned(v.size()));
            };
            auto read = [&ldap](char kind, std::string const& d, std::string& got,
                                std::string& err) {
                return ReadMember(
                    ldap, kind == 'S' ? &CLdap::GetSignPublicKey : &CLdap::GetCryptPublicKey, d,
                    got, err);
            };
            gate.ArriveAndWait();
            for (int r = 1; r <= rounds; ++r) {
                if (!Round(r, 'O', i, dn, neighbourDn, out, write, read))
                    break;
            }
        });
    }
    for (std::thread& t : threads)
        t.join();

    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ("", freeOut[i].error) << "free-function thread " << i;
        EXPECT_EQ(rounds, freeOut[i].writes) << "free-function thread " << i;
        EXPECT_EQ(3 * rounds, freeOut[i].reads) << "free-function thread " << i;
        EXPECT_EQ("", ownOut[i].error) << "CLdap thread " << i;
        EXPECT_EQ(rounds, ownOut[i].writes) << "CLdap thread " << i;
        EXPECT_EQ(3 * rounds, ownOut[i].reads) << "CLdap thread " << i;
    }
    ExpectStored('F', freeOut);
    ExpectStored('O', ownOut);
}

// Eight threads, each with a new CLdap, connect at the same moment: separate engines share
// nothing, and each connects and reads.
TEST_F(Stress, EightNewObjectsConnectAtTheSameMoment) {
    HangGuard guard("Stress.EightNewObjectsConnectAtTheSameMoment", kHangBoundSeconds);
    std::vector<Outcome> unused(kThreads);
    ASSERT_NO_FATAL_FAILURE(MakeUsers('O', unused));
    StartGate gate(kThreads);
    std::vector<int> connectRc(kThreads, -1);
    std::vector<std::string> readErr(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            CLdap ldap;
            gate.ArriveAndWait();
            connectRc[i] = ldap.ConnectLdap();
            std::string got;
            if (!ReadMember(ldap, &CLdap::GetSignPublicKey, UserDn(dir_, 'O', i), got,
                            readErr[i])) {
                return;
            }
            if (!IsWholeValue(got, 'S', 'O', i))
                readErr[i] = "read " + Show(got);
        });
    }
    for (std::thread& t : threads)
        t.join();
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(0, connectRc[i]) << "thread " << i;
        EXPECT_EQ("", readErr[i]) << "thread " << i;
    }
}

// The shared engine connects on demand. These run in a process of their own (the death-test
// machinery starts this program again for just the one test), so the free functions' engine is
// exactly as the library built it at load: never connected. All eight threads are released at
// once onto the connection sequence; every one must get 0 and a working connection.
void ConnectSharedEngineFromEightThreads(std::string const& dn, bool explicitConnect) {
    StartGate gate(kThreads);
    std::vector<int> connectRc(kThreads, -1);
    std::vector<std::string> readErr(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            gate.ArriveAndWait();
            // Either ConnectLdap itself, or a read that connects on demand.
            connectRc[i] = explicitConnect ? ConnectLdap() : 0;
            std::string got;
            if (ReadFree(&GetSignPublicKey, dn, got, readErr[i]) && got.empty()) {
                readErr[i] = "no key read";
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    int bad = 0;
    for (int i = 0; i < kThreads; ++i) {
        if (connectRc[i] != 0 || !readErr[i].empty()) {
            std::fprintf(stderr, "thread %d: connect %d, read: %s\n", i, connectRc[i],
                         readErr[i].c_str());
            ++bad;
        }
    }
    if (bad == 0)
        std::fprintf(stderr, "all 8 threads connected\n");
    std::fflush(stderr);
    std::exit(bad == 0 ? 0 : 1);
}

class FreshSharedEngine : public Stress {
  protected:
    void SetUp() override {
        Stress::SetUp();
        // The child starts this program afresh (a new process image, whichever threads this
        // one has) and runs only the one test.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::vector<Outcome> unused(kThreads);
        ASSERT_NO_FATAL_FAILURE(MakeUsers('O', unused));
    }
};

TEST_F(FreshSharedEngine, EightThreadsCallConnectLdapAtTheSameMoment) {
    HangGuard guard("FreshSharedEngine.EightThreadsCallConnectLdapAtTheSameMoment",
                    kHangBoundSeconds);
    EXPECT_EXIT(ConnectSharedEngineFromEightThreads(UserDn(dir_, 'O', 0), true),
                ::testing::ExitedWithCode(0), "all 8 threads connected");
}

TEST_F(FreshSharedEngine, EightThreadsConnectOnDemandWithTheirFirstRead) {
    HangGuard guard("FreshSharedEngine.EightThreadsConnectOnDemandWithTheirFirstRead",
                    kHangBoundSeconds);
    EXPECT_EXIT(ConnectSharedEngineFromEightThreads(UserDn(dir_, 'O', 1), false),
                ::testing::ExitedWithCode(0), "all 8 threads connected");
}

}  // namespace
