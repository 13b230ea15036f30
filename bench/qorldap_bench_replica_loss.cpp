// qorldap_bench_replica_loss: what losing a read replica under load costs the free functions'
// pool. 8 threads read keys (GetSignPublicKey) for 10 s through a pool of 8 with the two
// consumers as read hosts; at 3 s consumer 3 is SIGKILLed (scripts/directory kill --server 3),
// at 7 s started again. Reported: calls and failed calls, the worst call, and the searches each
// consumer served by its cn=Monitor (which counts the pool's base checks too, a few dozen).
//
// The reads go through the pool the free functions use (Pool::Run, the connect step and the
// operation as qor::FreeCall runs them). With QORLDAP_BENCH_NO_RETRY=1 the program takes the
// lease and runs the read once, as the free functions did before a read lost with its
// connection was sent again: the same pool, only the second try left out.
//
//   scripts/directory start --providers 2 --consumers 2 --dir D --nosync
//   set -a; . D/env; set +a; qorldap_bench_replica_loss [SECONDS]
// SECONDS (default 10, at least 8) the length of the run: beyond 13 s consumer 3 is out of
// quarantine and takes reads again.
// Entries: ou=poolbench,<base> with cn=user0..cn=user7 (as qorldap_bench_pool makes them),
// written to the providers through a CLdap and awaited on both consumers before the run.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchCommon.h"
#include "engine/LdapOp.h"
#include "engine/Pool.h"
#include "interface/ConnectThenRun.h"
#include "platform/CallerSettings.h"
#include "qorldap/qorldap.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kThreads = 8;
constexpr unsigned int kCertBytes = qorbench::kPoolCertBytes;

std::string Env(char const* name) {
    char const* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string Output(std::string const& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buffer[256];
        while (std::fgets(buffer, sizeof buffer, p) != nullptr)
            out += buffer;
        pclose(p);
    }
    return out;
}

// The searches server n has completed since it started (cn=Monitor); -1 when it does not answer.
long Searches(int n) {
    std::string const out =
        Output("ldapsearch -x -LLL -o nettimeout=2 -D '" + Env("LDAP_BINDDN") + "' -w '" +
               Env("LDAP_BINDPW") + "' -H '" + Env(("LDAP_URI_" + std::to_string(n)).c_str()) +
               "' -b cn=Search,cn=Operations,cn=Monitor -s base monitorOpCompleted 2>/dev/null | "
               "sed -n 's/^monitorOpCompleted: //p'");
    return out.empty() ? -1 : std::atol(out.c_str());
}

// The users with a certificate server n holds under unit.
int Users(int n, std::string const& unit) {
    std::string const out =
        Output("ldapsearch -x -LLL -o nettimeout=2 -D '" + Env("LDAP_BINDDN") + "' -w '" +
               Env("LDAP_BINDPW") + "' -H '" + Env(("LDAP_URI_" + std::to_string(n)).c_str()) +
               "' -b '" + unit + "' '(signPubcer;binary=*)' 1.1 2>/dev/null | grep -c '^dn:'");
    return std::atoi(out.c_str());
}

bool Directory(std::string const& what) {
    std::string source = Env("QORLDAP_SOURCE_DIR");
    if (source.empty())
        source = QORLDAP_SOURCE;
    return std::system((source + "/scripts/directory " + what + " --dir '" + Env("QORLDAP_DIR") +
                        "' >/dev/null 2>&1")
                           .c_str()) == 0;
}

// The users, written through the providers and awaited on both consumers (20 s at most).
bool Setup(std::vector<std::string>& users) {
    CLdap api;
    if (api.ConnectLdap() != 0) {
        std::fprintf(stderr, "bench: no directory (set -a; . D/env; set +a)\n");
        return false;
    }
    LdapInfo info;
    api.GetLdapAtt(info);
    std::string const unit = std::string("ou=poolbench,") + info.basedn;
    if (!qorbench::PoolUsers(api, info.basedn, kThreads, users))
        return false;
    for (auto until = Clock::now() + std::chrono::seconds(20);
         Users(3, unit) < kThreads || Users(4, unit) < kThreads;) {
        if (Clock::now() > until) {
            std::fprintf(stderr, "bench: the consumers do not hold the users\n");
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}

int Read(CLdapOp& engine, std::string const& dn) {
    return qor::ConnectThenRun(
        engine, [&engine] { return engine.ConnectLdap(); }, qor::Recheck::kYes,
        [&] {
            unsigned char* key = nullptr;
            unsigned int length = 0;
            int rc = engine.GetSignPublicKey(dn.c_str(), key, length);
            engine.FreeKey(key);
            return rc == 0 && length != kCertBytes ? -1 : rc;
        });
}

}  // namespace

int main(int argc, char** argv) {
    int const length = argc > 1 ? std::atoi(argv[1]) : 10;
    if (length < 8 || length > 600) {
        std::fprintf(stderr, "usage: qorldap_bench_replica_loss [SECONDS, 8 to 600]\n");
        return 2;
    }
    std::vector<std::string> users;
    if (!Setup(users))
        return 1;
    bool const retry = Env("QORLDAP_BENCH_NO_RETRY") != "1";
    qor::SetCallerSetting("pool_size", std::to_string(kThreads).c_str());
    Pool pool;

    std::atomic<bool> stop{false};
    std::mutex lock;
    long calls = 0, failed = 0;
    double worst = 0, worstNearKill = 0;
    // When the kill was ordered, in seconds from the start (far off until then): calls that
    // start in the second after it meet the lost connections.
    std::atomic<double> killAt{1e9};
    std::vector<std::string> failures;
    Clock::time_point const start = Clock::now();
    auto work = [&](int t) {
        long myCalls = 0, myFailed = 0;
        double myWorst = 0, myWorstNearKill = 0;
        while (!stop) {
            Clock::time_point const t0 = Clock::now();
            int rc = 0;
            if (retry) {
                rc = pool.Run(Pool::Use::kRead,
                              [&](CLdapOp& engine) { return Read(engine, users[t]); });
            } else {
                Pool::Lease lease = pool.Take(Pool::Use::kRead);
                rc = lease.Engine() != nullptr ? Read(*lease.Engine(), users[t]) : QORLDAP_E_FAILED;
            }
            Clock::time_point const t1 = Clock::now();
            double const seconds = std::chrono::duration<double>(t1 - t0).count();
            double const at = std::chrono::duration<double>(t0 - start).count();
            ++myCalls;
            myWorst = std::max(myWorst, seconds);
            if (at >= killAt && at < killAt + 1)
                myWorstNearKill = std::max(myWorstNearKill, seconds);
            if (rc != 0) {
                ++myFailed;
                char line[96];
                std::snprintf(line, sizeof line, "%.3f s: 0x%x after %.3f s", at,
                              static_cast<unsigned>(rc), seconds);
                std::lock_guard<std::mutex> hold(lock);
                failures.push_back(line);
            }
        }
        std::lock_guard<std::mutex> hold(lock);
        calls += myCalls;
        failed += myFailed;
        worst = std::max(worst, myWorst);
        worstNearKill = std::max(worstNearKill, myWorstNearKill);
    };
    long const start3 = Searches(3), start4 = Searches(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back(work, t);
    std::this_thread::sleep_until(start + std::chrono::seconds(3));
    long const before3 = Searches(3);
    killAt = std::chrono::duration<double>(Clock::now() - start).count();
    bool const killed = Directory("kill --server 3");
    std::this_thread::sleep_until(start + std::chrono::seconds(7));
    bool const started = Directory("start --server 3");
    long const restarted3 = Searches(3);
    std::this_thread::sleep_until(start + std::chrono::seconds(length));
    stop = true;
    for (std::thread& t : threads)
        t.join();
    long const end3 = Searches(3), end4 = Searches(4);
    std::printf(
        "retry %s: %ld calls, %ld failed, worst call %.1f ms (%.1f ms in the second after the "
        "kill); searches served: consumer 3 %ld (%ld before the kill, %ld after its start), "
        "consumer 4 %ld%s\n",
        retry ? "on" : "off", calls, failed, worst * 1000, worstNearKill * 1000,
        (before3 - start3) + (end3 - restarted3), before3 - start3, end3 - restarted3,
        end4 - start4, killed && started ? "" : " (kill or start failed)");
    for (std::string const& f : failures)
        std::printf("  failed at %s\n", f.c_str());
    return killed && started ? 0 : 1;
}
