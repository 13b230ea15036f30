// The hardened directory link on real servers started by the test: StartTLS, LDAPS, a server
// that refuses clear binds, a wrong CA, failover from a dead and a hung server, bounded waits.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qorldap/qorldap.h"
#include "tests/support/Entries.h"
#include "tests/support/TestFiles.h"

namespace {

using qortest::ConfDir;
using qortest::ScratchDir;

// A throwaway slapd of the test's own (scripts/directory), stopped when the object goes.
class Server {
  public:
    explicit Server(std::string const& options) { Do("start --nosync " + options); }
    ~Server() { Do("stop"); }
    std::string Env(std::string const& key) const {
        return qortest::Run("sed -n 's/^" + key + "=//p' '" + dir_.File("d/env") +
                            "' | tr -d \"'\\n\"");
    }
    int Port() const { return std::atoi(Env("LDAP_PORT").c_str()); }
    pid_t Pid() const { return std::atoi(qortest::ReadFile(dir_.File("d/slapd.pid")).c_str()); }

  private:
    bool Do(std::string const& what) {
        int status = -1;
        qortest::Run(std::string(std::getenv("QORLDAP_SOURCE_DIR")) + "/scripts/directory " + what +
                         " --dir '" + dir_.File("d") + "' >/dev/null 2>&1",
                     &status);
        return status == 0;
    }
    ScratchDir dir_;
};

// soap.ini and ldap.ini for one CLdap; the object reads them when it is built.
class Config {
  public:
    explicit Config(std::string const& ldapSection) {
        dir_.Write("soap.ini",
                   "[ldap]\nbasedn=o=root\nmanagerdn=cn=admin,o=root\npsw=secret\n" + ldapSection);
        dir_.Write("ldap.ini",
                   "[base]\nsum=2\nA0=organizationalUnit\nA1=qorPerson\n"
                   "[organizationalUnit]\nsum=1\nA0=ou,s,2\n[qorPerson]\nsum=1\nA0=cn,s,2\n");
    }
    CLdap* Make() {
        ConfDir use(dir_.Path());
        return new CLdap();
    }
    std::string const& Path() const { return dir_.Path(); }

  private:
    ScratchDir dir_;
};

// A user with a certificate, written and read back through the link.
void WriteAndRead(CLdap& ldap, std::string const& name) {
    std::string dn = qortest::MakeUser(ldap, "o=root", "Link", name);
    unsigned char value[] = {0x30, 0x03, 0x02, 0x01, 0x07};
    ASSERT_EQ(0, ldap.ModifySignPublicKey(dn.c_str(), value, sizeof value));
    unsigned char* key = nullptr;
    unsigned int length = 0;
    ASSERT_EQ(0, ldap.GetSignPublicKey(dn.c_str(), key, length));
    EXPECT_EQ(sizeof value, length);
    ldap.FreeKey(key);
}

std::string Hosted(Server&, int port) {
    return "host=127.0.0.1\nport=" + std::to_string(port) + "\n";
}

// StartTLS and LDAPS bind and carry keys; a server that demands TLS refuses a clear bind; a CA the
// server's certificate does not chain to never binds; hosts may be written as URIs.
TEST(Link, TlsBindsOnlyOverAVerifiedLink) {
    Server server("--tls --require-tls");
    int const ldaps = std::atoi(server.Env("LDAPS_PORT").c_str());
    ASSERT_NE(0, ldaps);
    ScratchDir other;
    qortest::Run("cd '" + other.Path() +
                 "' && openssl req -x509 -newkey rsa:2048 -nodes -keyout k -out ca.crt -days 1"
                 " -subj /CN=Other >/dev/null 2>&1");
    std::string const ca = "tls_cacert=" + server.Env("LDAP_TLS_CACERT") + "\n";
    std::string const wrong = "tls_cacert=" + other.File("ca.crt") + "\n";
    struct Case {
        int port;
        std::string keys;
        int rc;
    } const cases[] = {
        {server.Port(), "tls=starttls\n" + ca, 0},
        {ldaps, "tls=ldaps\n" + ca, 0},
        {server.Port(), "", QORLDAP_E_FAILED},
        {server.Port(), "tls=starttls\n" + wrong, QORLDAP_E_FAILED},
        {ldaps, "tls=ldaps\n" + wrong, QORLDAP_E_FAILED},
        // Hosts written as URIs, a list among them (port 0: the keys name the host).
        {0, "host=ldap://127.0.0.1:" + std::to_string(server.Port()) + "\ntls=starttls\n" + ca, 0},
        {0, "host=ldap://127.0.0.1:1 " + server.Env("LDAP_LDAPI_URI") + "\n", 0},
        {0, "host=ldaps://127.0.0.1:" + std::to_string(ldaps) + "\n" + ca, 0},
        {0, "host=ldaps://127.0.0.1:" + std::to_string(ldaps) + "\n" + wrong, QORLDAP_E_FAILED},
    };
    for (Case const& c : cases) {
        Config config((c.port > 0 ? Hosted(server, c.port) : "") + c.keys);
        std::unique_ptr<CLdap> ldap(config.Make());
        EXPECT_EQ(c.rc, ldap->ConnectLdap()) << c.keys;
        if (c.rc == 0)
            WriteAndRead(*ldap, "Over " + std::to_string(c.port));
    }
}

// Stops a server (SIGSTOP: it keeps its port and accepts connections, but answers nothing)
// for the life of the object.
class Frozen {
  public:
    // Returns once the kernel shows the process stopped: a busy machine may let it answer one
    // more request after the signal is sent.
    explicit Frozen(pid_t pid) : pid_(pid) {
        EXPECT_GT(pid_, 0);
        kill(pid_, SIGSTOP);
        for (int i = 0; i < 500 && State() != 'T'; ++i)
            usleep(10 * 1000);
        EXPECT_EQ('T', State());
    }
    ~Frozen() { kill(pid_, SIGCONT); }

  private:
    // 'T' once every thread of the process is stopped (the third field of each task's stat).
    char State() const {
        std::string const tasks = "/proc/" + std::to_string(pid_) + "/task";
        std::string all = qortest::Run("cat " + tasks + "/*/stat 2>/dev/null");
        bool any = false;
        for (std::string::size_type p = all.find(") "); p != std::string::npos;
             p = all.find(") ", p + 2)) {
            any = true;
            if (all[p + 2] != 'T')
                return all[p + 2];
        }
        return any ? 'T' : '?';
    }
    pid_t pid_;
};

// A listener that accepts connections and never answers: every transport's first call ends
// within the timeout plus one second. (An LDAPS handshake reads from a blocking socket that
// libldap's own timeouts do not bound.)
TEST(Link, ASilentServerEndsTheFirstCallWithinTheTimeoutOnEveryTransport) {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), size));
    ASSERT_EQ(0, listen(listener, 16));
    ASSERT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size));
    std::string const port = std::to_string(ntohs(address.sin_port));
    std::atomic<bool> done{false};
    std::vector<int> accepted;
    std::thread acceptor([&] {  // takes every connection, reads nothing, writes nothing
        while (!done) {
            pollfd ready = {listener, POLLIN, 0};
            if (poll(&ready, 1, 50) == 1)
                accepted.push_back(accept(listener, nullptr, nullptr));
        }
    });
    for (std::string const& keys : {"host=127.0.0.1\nport=" + port + "\n",
                                    "host=127.0.0.1\nport=" + port + "\ntls=starttls\n",
                                    "host=127.0.0.1\nport=" + port + "\ntls=ldaps\n",
                                    "host=ldaps://127.0.0.1:" + port + "\ntls_verify=no\n"}) {
        Config config(keys + "timeout=2\n");
        std::unique_ptr<CLdap> ldap(config.Make());
        auto const start = std::chrono::steady_clock::now();
        EXPECT_EQ(QORLDAP_E_FAILED, ldap->ConnectLdap()) << keys;
        std::chrono::duration<double> const took = std::chrono::steady_clock::now() - start;
        EXPECT_LT(took.count(), 3.0) << keys;
    }
    done = true;
    acceptor.join();
    for (int fd : accepted)
        close(fd);
    close(listener);
}

// A host that is down (nothing listens on port 1) is passed over by libldap itself; one that has
// stopped answering is passed over by the redial that follows a timed-out call.
TEST(Link, AHostListFailsOverFromADeadAndFromAHungServer) {
    Server a("");
    Server b("");
    Config config("host=127.0.0.1:1 127.0.0.1:" + std::to_string(a.Port()) +
                  " 127.0.0.1:" + std::to_string(b.Port()) + "\nreconnect=yes\ntimeout=1\n");
    std::unique_ptr<CLdap> ldap(config.Make());
    ASSERT_EQ(0, ldap->ConnectLdap());
    WriteAndRead(*ldap, "On A");
    Frozen hung(a.Pid());
    tagDN* list = nullptr;
    int count = 0;
    // The call that meets A returns its timeout; the redial starting at A times out too; the
    // next one starts at B.
    EXPECT_NE(0, ldap->SelectLdap("o=root", nullptr, list, count));
    EXPECT_NE(0, ldap->SelectLdap("o=root", nullptr, list, count));
    WriteAndRead(*ldap, "On B");
}

// The free functions' engine reads its settings when the library is loaded, so the threads run
// in a child process started with QORLDAP_CONF_DIR already set (see SharedEngine below).
TEST(Link, ATimeoutBoundsEveryCallOfTheSharedEngineWhileTheServerIsStopped) {
    if (std::getenv("QORLDAP_LINK_CHILD") != nullptr)
        GTEST_SKIP() << "runs in the parent";
    Server server("");
    for (char const* reconnect : {"no", "yes"}) {
        Config config(Hosted(server, server.Port()) + "timeout=2\nreconnect=" + reconnect + "\n");
        setenv("QORLDAP_CONF_DIR", config.Path().c_str(), 1);
        setenv("QORLDAP_LINK_CHILD", std::to_string(server.Pid()).c_str(), 1);
        char self[] = "/proc/self/exe", filter[] = "--gtest_filter=SharedEngine.*";
        char* argv[] = {self, filter, nullptr};
        pid_t pid = 0;
        ASSERT_EQ(0, posix_spawn(&pid, self, nullptr, nullptr, argv, environ));
        unsetenv("QORLDAP_LINK_CHILD");
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reconnect=" << reconnect;
    }
}

// Sixteen threads read a key in a loop; the server stops while their calls are under way and
// queued, and starts again three timeouts later. No call, whenever it started, lasts longer
// than the timeout plus one second; the reads succeed again once the server answers.
TEST(SharedEngine, EveryCallEndsWithinTheTimeoutPlusOneSecond) {
    char const* server = std::getenv("QORLDAP_LINK_CHILD");
    if (server == nullptr)
        GTEST_SKIP() << "runs in a child of the test above";
    ASSERT_EQ(0, ConnectLdap());
    CLdap writer;
    std::string const dn = qortest::MakeUser(writer, "o=root", "Link", "Reader");
    unsigned char value[] = {0x30, 0x03, 0x02, 0x01, 0x07};
    ASSERT_EQ(0, writer.ModifySignPublicKey(dn.c_str(), value, sizeof value));
    double worst = 0;
    int failed = 0, calls = 0;
    std::mutex lock;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                unsigned char* key = nullptr;
                unsigned int length = 0;
                auto start = std::chrono::steady_clock::now();
                int rc = GetSignPublicKey(dn.c_str(), key, length);
                std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
                FreeKey(key);
                std::lock_guard<std::mutex> guard(lock);
                worst = std::max(worst, took.count());
                failed += rc != 0;
                ++calls;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    {
        Frozen hung(std::atoi(server));
        std::this_thread::sleep_for(std::chrono::seconds(6));
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    int const failedBefore = failed;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    stop = true;
    for (std::thread& t : threads)
        t.join();
    std::printf(
        "16 threads reading a key on the shared engine, server stopped for 6 s, timeout=2: "
        "%d calls, %d failed, worst call %.2f s\n",
        calls, failed, worst);
    EXPECT_GT(failed, 0);
    EXPECT_EQ(failedBefore, failed) << "reads fail after the server came back";
    EXPECT_LT(worst, 3.0);
}

}  // namespace
