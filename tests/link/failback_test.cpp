// Failback and idle checks on real servers: two replicating providers of the test's own
// (scripts/directory start --providers 2), killed and started again under a CLdap. Each case runs
// once with its key and once without, and the two must differ where the key is meant to help.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "qorldap/qorldap.h"
#include "tests/support/Entries.h"
#include "tests/support/TestFiles.h"

namespace {

using qortest::ScratchDir;

class Providers : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = new ScratchDir();
        ASSERT_TRUE(Do("start --providers 2 --nosync"));
    }
    static void TearDownTestSuite() {
        Do("stop");
        delete dir_;
    }
    static bool Do(std::string const& what) {
        int status = -1;
        qortest::Run(std::string(std::getenv("QORLDAP_SOURCE_DIR")) + "/scripts/directory " + what +
                         " --dir '" + dir_->File("d") + "' >/dev/null 2>&1",
                     &status);
        return status == 0;
    }
    // A CLdap on the settings of conf ("conf": both providers; "1/conf": the first alone) with
    // extra keys after them.
    static std::unique_ptr<CLdap> Make(std::string const& conf, std::string const& keys) {
        std::string const from = dir_->File("d/" + conf);
        ScratchDir* mine = new ScratchDir();
        kept_.emplace_back(mine);
        mine->Write("soap.ini", qortest::ReadFile(from + "/soap.ini") + keys);
        mine->Write("ldap.ini", qortest::ReadFile(from + "/ldap.ini"));
        qortest::ConfDir use(mine->Path());
        return std::unique_ptr<CLdap>(new CLdap());
    }
    static inline ScratchDir* dir_ = nullptr;
    static inline std::vector<std::unique_ptr<ScratchDir>> kept_;
};

// A read of the user's certificate: the library's code.
int Read(CLdap& ldap, std::string const& dn) {
    unsigned char* key = nullptr;
    unsigned int length = 0;
    int const rc = ldap.GetSignPublicKey(dn.c_str(), key, length);
    ldap.FreeKey(key);
    return rc;
}

// Provider 1 dies and the engine fails over to provider 2; provider 1 comes back and answers for
// a while; then provider 2 dies. With failback the engine is back on provider 1 by then and the
// read succeeds; without it the engine is still on provider 2 and that read meets the loss.
TEST_F(Providers, FailbackReturnsToTheFirstHostOnceItHasAnsweredThatLong) {
    for (bool failback : {false, true}) {
        std::unique_ptr<CLdap> ldap = Make("conf", failback ? "failback=1\n" : "");
        ASSERT_EQ(0, ldap->ConnectLdap());
        std::string const dn =
            qortest::MakeUser(*ldap, "o=root", "Failback", failback ? "with" : "without");
        ASSERT_EQ(0, Read(*ldap, dn));
        ASSERT_TRUE(Do("kill --server 1"));
        Read(*ldap, dn);  // meets the loss
        ASSERT_NE(QORLDAP_E_FAILED, Read(*ldap, dn)) << "no failover to provider 2";
        ASSERT_TRUE(Do("start --server 1"));
        // Calls go on while provider 1 answers again, for longer than failback plus a probe.
        for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
             std::chrono::steady_clock::now() < end;)
            Read(*ldap, dn), std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_TRUE(Do("kill --server 2"));
        // A read that meets a lost connection gives 0x16000015.
        EXPECT_EQ(failback ? 0 : QORLDAP_E_KEY_SEARCH, Read(*ldap, dn))
            << (failback ? "with failback the engine should be on provider 1"
                         : "without failback the engine stays on provider 2");
        ASSERT_TRUE(Do("start --server 2"));
    }
}

// The server goes away and comes back while the engine is idle: its connection is dead. With
// idle_check the call after the pause finds it checked and redialled; without, it fails on it.
TEST_F(Providers, AnIdleConnectionIsCheckedBeforeTheCallThatUsesIt) {
    for (bool check : {false, true}) {
        std::unique_ptr<CLdap> ldap =
            Make("1/conf", check ? "reconnect=yes\nidle_check=1\n" : "reconnect=yes\n");
        ASSERT_EQ(0, ldap->ConnectLdap());
        std::string const dn = qortest::MakeUser(*ldap, "o=root", "Idle", check ? "on" : "off");
        ASSERT_EQ(0, Read(*ldap, dn));
        ASSERT_TRUE(Do("kill --server 1"));
        ASSERT_TRUE(Do("start --server 1"));
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        EXPECT_EQ(check ? 0 : QORLDAP_E_KEY_SEARCH, Read(*ldap, dn))
            << (check ? "the idle check should have redialled" : "the dead connection was used");
    }
}

}  // namespace
