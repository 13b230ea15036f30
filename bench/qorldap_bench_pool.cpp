// qorldap_bench_pool: key reads (GetSignPublicKey) from 1, 2, 4 and 8 threads through the free
// functions' pool, next to the same search made with libldap directly on one handle per thread.
// Each thread alternates the two sides call by call (the order swapped every iteration), so that
// whatever else the machine does falls on both alike; per side the median time of one call and
// the calls per second of all threads together are reported.
//
// The pool is given pool_size = 8, the most threads measured: engines are made only as calls
// come at once, so T threads use exactly T connections and never wait, as with pool_size = T
// (the pool of a process is built once, by its first call).
//
//   scripts/directory start --dir D --nosync; set -a; . D/env; set +a
//   qorldap_bench_pool [google benchmark flags]
//   qorldap_bench_pool --memory N   N pooled reads on 8 threads: VmRSS after a warm-up and at the
//                                   end, and the heap bytes (operator new) and VmRSS each pooled
//                                   connection costs (no benchmarks run)
// Entries: ou=poolbench,<base> with cn=user0..cn=user7, each with a 1,229-byte certificate,
// added through a CLdap and kept when they are there.
#include <lber.h>
#include <ldap.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "BenchCommon.h"
#include "CountingNew.h"
#include "Raw.h"
#include "qorldap/Settings.h"
#include "qorldap/qorldap.h"

namespace {

constexpr int kMaxThreads = 8;
constexpr unsigned int kCertBytes = qorbench::kPoolCertBytes;
constexpr char kKeyAttribute[] = "signPubcer;binary";
constexpr char kKeyFilter[] = "(signPubcer;binary=*)";

std::string g_userDn[kMaxThreads];
LDAP* g_raw[kMaxThreads] = {};

bool PoolRead(int thread) {
    unsigned char* key = nullptr;
    unsigned int length = 0;
    bool const ok =
        GetSignPublicKey(g_userDn[thread].c_str(), key, length) == 0 && length == kCertBytes;
    FreeKey(key);
    return ok;
}

bool RawRead(int thread) {
    unsigned char* key = nullptr;
    unsigned int length = 0;
    bool const ok = qorbench::RawReadKey(g_raw[thread], g_userDn[thread].c_str(), kKeyFilter,
                                         kKeyAttribute, key, length) == 0 &&
                    length == kCertBytes;
    delete[] key;
    return ok;
}

// One thread's loop: a pooled read and a raw read per iteration, each timed.
void PairedThreads(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    int const thread = state.thread_index();
    std::vector<double> ns[2];  // pool, raw
    unsigned int turn = 0;
    for (auto _ : state) {
        bool const poolFirst = (turn++ & 1) == 0;
        for (int side = 0; side < 2; ++side) {
            bool const pool = (side == 0) == poolFirst;
            Clock::time_point const t0 = Clock::now();
            bool const ok = pool ? PoolRead(thread) : RawRead(thread);
            ns[pool ? 0 : 1].push_back(
                std::chrono::duration<double, std::nano>(Clock::now() - t0).count());
            if (!ok) {
                state.SkipWithError(pool ? "pooled read failed" : "raw read failed");
                return;
            }
        }
    }
    double const pool50 = qorbench::Quantile(ns[0], 0.5);
    double const raw50 = qorbench::Quantile(ns[1], 0.5);
    auto avg = benchmark::Counter::kAvgThreads;
    state.counters["pool_us"] = benchmark::Counter(pool50 / 1000, avg);
    state.counters["raw_us"] = benchmark::Counter(raw50 / 1000, avg);
    state.counters["ratio"] = benchmark::Counter(raw50 > 0 ? pool50 / raw50 : 0, avg);
    // Each side's calls of all threads, per second of the run.
    state.counters["calls_per_side"] =
        benchmark::Counter(static_cast<double>(ns[0].size()), benchmark::Counter::kIsRate);
}

bool Setup() {
    if (QorLdapSet("pool_size", std::to_string(kMaxThreads).c_str()) != 0) {
        std::fprintf(stderr, "bench: the pool must be set before the first call\n");
        return false;
    }
    CLdap api;
    if (api.ConnectLdap() != 0) {
        std::fprintf(stderr, "bench: no directory (QORLDAP_CONF_DIR)\n");
        return false;
    }
    LdapInfo info;
    api.GetLdapAtt(info);
    std::vector<std::string> users;
    if (!qorbench::PoolUsers(api, info.basedn, kMaxThreads, users))
        return false;
    for (int i = 0; i < kMaxThreads; ++i) {
        g_userDn[i] = users[static_cast<size_t>(i)];
        g_raw[i] = qorbench::RawConnect(info);
        if (g_raw[i] == nullptr) {
            std::fprintf(stderr, "bench: raw libldap cannot bind as %s\n", info.managerdn);
            return false;
        }
    }
    return true;
}

// Runs each of threads's share of calls on its own thread; false when one failed.
bool OnThreads(int threads, long calls) {
    std::atomic<bool> ok{true};
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t)
        running.emplace_back([&, t] {
            for (long i = 0; i < calls / threads && ok; ++i)
                ok = PoolRead(t);
        });
    for (std::thread& t : running)
        t.join();
    return ok;
}

// --memory N. The pool's engines are made by the first calls of 1, then 8 threads at once: the
// heap bytes and VmRSS that went with them, per engine. Then N calls on 8 threads after a
// warm-up of N/10: VmRSS must not grow.
int MemoryRun(long n) {
    long const rss0 = qorbench::ResidentKiB();
    qorbench::newBytes = 0;
    qorbench::countingNew = true;
    bool ok = OnThreads(1, 1);
    size_t const oneBytes = qorbench::newBytes.load();
    long const rss1 = qorbench::ResidentKiB();
    ok = ok && OnThreads(kMaxThreads, kMaxThreads);
    qorbench::countingNew = false;
    size_t const allBytes = qorbench::newBytes.load();
    long const rss8 = qorbench::ResidentKiB();
    ok = ok && OnThreads(kMaxThreads, n / 10);
    long const warm = qorbench::ResidentKiB();
    ok = ok && OnThreads(kMaxThreads, n);
    long const end = qorbench::ResidentKiB();
    if (!ok) {
        std::fprintf(stderr, "bench: a pooled read failed\n");
        return 1;
    }
    std::printf("first pooled connection: %zu heap bytes (operator new), %ld KiB VmRSS\n", oneBytes,
                rss1 - rss0);
    std::printf("each further pooled connection: %zu heap bytes, %ld KiB VmRSS (7 made at once)\n",
                (allBytes - oneBytes) / (kMaxThreads - 1), (rss8 - rss1) / (kMaxThreads - 1));
    std::printf(
        "%ld pooled reads on %d threads: VmRSS %ld KiB after the warm-up, %ld KiB at the "
        "end, growth %ld KiB\n",
        n, kMaxThreads, warm, end, end - warm);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (!Setup())
        return 1;
    if (argc >= 2 && std::strcmp(argv[1], "--memory") == 0) {
        long const n = argc >= 3 ? std::strtol(argv[2], nullptr, 10) : 100000;
        return n > 0 ? MemoryRun(n) : 2;
    }
    // Registered 1, 2, 4, 8 threads in turn; each benchmark holds both sides.
    for (int threads = 1; threads <= kMaxThreads; threads *= 2)
        benchmark::RegisterBenchmark("pool_read/pool_vs_raw_handle_per_thread", PairedThreads)
            ->Threads(threads)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
