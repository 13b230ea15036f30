// Sixteen threads through the free functions' pool (pool_size = 16, the same server also named
// as a read host, so that both shelves of the pool are in use) on the real directory; run_tsan.sh
// runs it under ThreadSanitizer. Each thread writes its user's certificate through a CLdap of
// its own, reads it back through the pool (a read connection), deletes a private key through the
// pool (a provider connection) and reads a missing entry: after each call, the thread's last
// result must be its own call's, whatever engine ran it. QORLDAP_STRESS_ROUNDS sets the rounds.
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "qorldap/LastResult.h"
#include "qorldap/Settings.h"
#include "qorldap/qorldap.h"
#include "tests/support/Directory.h"
#include "tests/support/Entries.h"

namespace {

int Rounds() {
    char const* text = std::getenv("QORLDAP_STRESS_ROUNDS");
    int rounds = text != nullptr ? std::atoi(text) : 100;
    return rounds < 1 || rounds > 5000 ? 100 : rounds;
}

std::string Value(int thread, int round) {
    std::string value = std::to_string(thread) + "/" + std::to_string(round) + '\0';
    return value.append(static_cast<size_t>((thread * 131 + round * 17) % 512), char(round));
}

// The calling thread's last directory result: code and the operation's name.
std::string Last() {
    QorLdapResult last = {};
    QorLdapLastResult(&last);
    return std::to_string(last.code) + " " + last.operation;
}

std::string RunThread(std::string const& dn, std::string const& missing, int thread) {
    CLdap writer;
    for (int round = 0, rounds = Rounds(); round < rounds; ++round) {
        std::string const value = Value(thread, round);
        if (int rc = writer.ModifySignPublicKey(
                dn.c_str(), reinterpret_cast<unsigned char const*>(value.data()),
                unsigned(value.size())))
            return "write returned " + std::to_string(rc);
        unsigned char* key = nullptr;
        unsigned int length = 0;
        int rc = GetSignPublicKey(dn.c_str(), key, length);
        std::string const got =
            key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : "";
        std::string const after = Last();
        FreeKey(key);
        if (rc != 0 || got != value)
            return "round " + std::to_string(round) + ": read " + std::to_string(rc) +
                   ", not the value written";
        if (after != "0 search")
            return "after a read, the last result is " + after;
        if ((rc = DeleteSignPrivateKey(dn.c_str())) != 0 || Last() != "0 modify")
            return "delete returned " + std::to_string(rc) + ", last result " + Last();
        rc = GetCryptPublicKey(missing.c_str(), key, length);
        if (rc != QORLDAP_E_KEY_SEARCH || Last() != "32 search")
            return "a missing entry's read gave " + std::to_string(rc) + ", last result " + Last();
    }
    return "";
}

TEST(PoolStress, SixteenThreadsEachSeeTheirOwnResults) {
    qortest::Directory dir;
    ASSERT_TRUE(dir.Ready()) << "no test directory (QORLDAP_TEST_DIR)";
    // Before the first call of a free function: the pool is built by that call.
    ASSERT_EQ(0, QorLdapSet("pool_size", "16"));
    ASSERT_EQ(0, QorLdapSet("read_host", dir.Var("LDAP_URI").c_str()));
    CLdap setup;
    ASSERT_EQ(0, setup.ConnectLdap());
    std::vector<std::string> dns, errors(16);
    for (int i = 0; i < 16; ++i)
        dns.push_back(qortest::MakeUser(setup, dir.Base(), "PoolUnit", "p" + std::to_string(i)));
    std::promise<void> go;
    std::shared_future<void> started = go.get_future().share();
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i)
        threads.emplace_back([&, i] {
            started.wait();
            errors[i] = RunThread(
                dns[i], "cn=nobody" + std::to_string(i) + ",ou=PoolUnit," + dir.Base(), i);
        });
    go.set_value();
    for (std::thread& t : threads)
        t.join();
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ("", errors[i]) << "thread " << i;
}

}  // namespace
