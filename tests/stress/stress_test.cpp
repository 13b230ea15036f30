// Many threads at once on the real directory; run_tsan.sh runs this under ThreadSanitizer.
// Eight threads use the free functions (the one engine every thread shares; they write through a
// CLdap of their own, the free functions have no key write) and eight a CLdap each. Each writes
// the certificates of a user of its own in turn and reads both back after every write: each must
// be the last value it wrote. QORLDAP_STRESS_ROUNDS sets the rounds (default 200).
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

namespace {

int Rounds() {
    char const* text = std::getenv("QORLDAP_STRESS_ROUNDS");
    int rounds = text != nullptr ? std::atoi(text) : 200;
    return rounds < 1 || rounds > 5000 ? 200 : rounds;
}

// A value naming its writer and round, 3 to 1027 bytes with zeros inside.
std::string Value(int kind, int thread, int round) {
    std::string value =
        std::to_string(kind) + "/" + std::to_string(thread) + "/" + std::to_string(round) + '\0';
    value.append(static_cast<size_t>((thread * 131 + round * 17) % 1024), char(round));
    return value;
}

// One thread's rounds: write both certificates, then read both back through reader (the shared
// engine when null). The first thing that went wrong, or "".
std::string RunThread(CLdap& writer, CLdap* reader, std::string const& dn, int thread) {
    for (int round = 0, rounds = Rounds(); round < rounds; ++round) {
        for (int kind : {0, 1}) {
            std::string const value = Value(kind, thread, round);
            auto put = kind == 0 ? &CLdap::ModifySignPublicKey : &CLdap::ModifyCryptPublicKey;
            auto const* bytes = reinterpret_cast<unsigned char const*>(value.data());
            if (int rc = (writer.*put)(dn.c_str(), bytes, unsigned(value.size())))
                return "write returned " + std::to_string(rc);
        }
        for (int kind : {0, 1}) {
            unsigned char* key = nullptr;
            unsigned int length = 0;
            int rc = reader == nullptr
                         ? (kind ? GetCryptPublicKey : GetSignPublicKey)(dn.c_str(), key, length)
                     : kind ? reader->GetCryptPublicKey(dn.c_str(), key, length)
                            : reader->GetSignPublicKey(dn.c_str(), key, length);
            std::string got =
                key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : "";
            reader != nullptr ? reader->FreeKey(key) : FreeKey(key);
            if (rc != 0 || got != Value(kind, thread, round))
                return "round " + std::to_string(round) + ": read " + std::to_string(rc) +
                       ", not the last value written";
        }
    }
    return "";
}

// Runs work(i) on n threads released at once.
template <typename Work>
void AtOnce(int n, Work work) {
    std::promise<void> go;
    std::shared_future<void> started = go.get_future().share();
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back([&, i] { started.wait(), work(i); });
    go.set_value();
    for (std::thread& t : threads)
        t.join();
}

TEST(Stress, SharedEngineAndOwnEnginesReadBackTheirLastWritesUnderLoad) {
    qortest::Directory dir;
    ASSERT_TRUE(dir.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
    CLdap setup;
    ASSERT_EQ(0, setup.ConnectLdap());
    std::vector<std::string> dns, errors(16);
    for (int i = 0; i < 16; ++i)
        dns.push_back(qortest::MakeUser(setup, dir.Base(), "StressUnit", "u" + std::to_string(i)));
    AtOnce(16, [&](int i) {
        CLdap own;
        errors[i] = RunThread(own, i % 2 == 1 ? &own : nullptr, dns[i], i);
    });
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ("", errors[i]) << (i % 2 ? "CLdap thread " : "free-function thread ") << i;
}

// First connections of a process in which nothing has touched the client library yet, on eight
// threads at once; exits 0 when every ConnectLdap returned 0. With own, the odd threads connect
// engines of their own, so that first connections of different engines race too.
void FirstConnectionsAtOnce(bool own) {
    std::vector<int> codes(8, -1);
    AtOnce(8, [&](int i) {
        CLdap mine;
        codes[i] = own && i % 2 == 1 ? mine.ConnectLdap() : ConnectLdap();
    });
    for (int code : codes)
        if (code != 0)
            std::exit(1);
    std::fprintf(stderr, "all 8 threads connected\n");
    std::exit(0);
}

// A directory of its own whose base entry is missing: the shared engine's threads connect as one,
// and only one of them creates the base. Then, the base there, the shared engine and engines of
// their own connect for the first time together. The children read the settings of that directory
// when the library loads (the death-test machinery starts the program again for each).
TEST(Stress, FirstConnectionsFromManyThreadsAtOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // In the children the folder is already given: they only run the threads.
    char const* given = std::getenv("QORLDAP_STRESS_FIRST_DIR");
    qortest::ScratchDir scratch;
    std::string const d = given != nullptr ? given : scratch.File("d");
    std::string const script =
        std::string(std::getenv("QORLDAP_SOURCE_DIR")) + "/scripts/directory";
    if (given == nullptr) {
        int status = 0;
        qortest::Run(script + " start --nosync --dir '" + d + "' >/dev/null 2>&1", &status);
        ASSERT_EQ(0, status);
        setenv("QORLDAP_STRESS_FIRST_DIR", d.c_str(), 1);
        setenv("QORLDAP_CONF_DIR", (d + "/conf").c_str(), 1);
    }
    EXPECT_EXIT(FirstConnectionsAtOnce(false), ::testing::ExitedWithCode(0), "all 8 threads");
    EXPECT_EXIT(FirstConnectionsAtOnce(true), ::testing::ExitedWithCode(0), "all 8 threads");
    if (given == nullptr)
        qortest::Run(script + " stop --dir '" + d + "' >/dev/null 2>&1");
}

}  // namespace
