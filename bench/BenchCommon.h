// Helpers shared by the two benchmark programs: entry records for populating the directory, the
// paired measurement of a library operation against its raw counterpart, and the process's
// resident size.
#ifndef QORLDAP_BENCH_BENCHCOMMON_H
#define QORLDAP_BENCH_BENCHCOMMON_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "qorldap/records.h"

namespace qorbench {

// One entry of one text attribute (its naming attribute) and one object class, in the form
// InsertLdap takes. The record points into itself, so it is neither copied nor moved.
struct EntryRecord {
    tagAttItem item;
    tagAtt att;

    EntryRecord(char const* objectClass, char const* type, std::string const& value) {
        std::memset(&item, 0, sizeof item);
        std::memset(&att, 0, sizeof att);
        std::snprintf(item.type, sizeof item.type, "%s", type);
        std::snprintf(item.value, sizeof item.value, "%s", value.c_str());
        std::snprintf(item.syntax, sizeof item.syntax, "s");
        std::snprintf(att.objectClass, sizeof att.objectClass, "%s", objectClass);
        att.items = &item;
        att.itemCount = 1;
    }
    EntryRecord(EntryRecord const&) = delete;
    EntryRecord& operator=(EntryRecord const&) = delete;
};

// Adds an entry through the library's own InsertLdap (Api is CLdap or the engine). An entry
// that is already there (a second run against the same directory) counts as added; with a
// certificate, its value is then written again so that every run reads the same bytes.
template <typename Api>
bool AddEntry(Api& api, std::string const& dn, char const* objectClass, char const* type,
              std::string const& value, unsigned char* cert = nullptr,
              unsigned int certLength = 0) {
    EntryRecord record(objectClass, type, value);
    if (api.InsertLdap(dn.c_str(), record.att, false, nullptr, 0, cert, certLength, nullptr, 0) ==
        0) {
        return true;
    }
    tagAtt found;
    std::memset(&found, 0, sizeof found);
    bool there = api.SelectLdap(dn.c_str(), found) == 0 && found.itemCount > 0;
    api.FreeAtt(&found);
    if (!there) {
        std::fprintf(stderr, "bench: cannot add %s\n", dn.c_str());
        return false;
    }
    if (cert != nullptr && api.ModifySignPublicKey(dn.c_str(), cert, certLength) != 0) {
        std::fprintf(stderr, "bench: cannot write the certificate of %s\n", dn.c_str());
        return false;
    }
    return true;
}

// The users the pool benchmarks read: ou=poolbench,base with cn=user0 up to cn=user<n-1>, each
// with the same certificate of kPoolCertBytes bytes, added through api and kept when they are
// there; their DNs in users.
constexpr unsigned int kPoolCertBytes = 1229;
template <typename Api>
bool PoolUsers(Api& api, std::string const& base, int n, std::vector<std::string>& users) {
    std::string const unit = "ou=poolbench," + base;
    std::vector<unsigned char> cert(kPoolCertBytes);
    for (unsigned int i = 0; i < kPoolCertBytes; ++i) {
        cert[i] = static_cast<unsigned char>(i * 7 + 1);
    }
    cert[0] = 0x30;
    if (!AddEntry(api, unit, "organizationalUnit", "ou", "poolbench")) {
        return false;
    }
    for (int i = 0; i < n; ++i) {
        std::string const name = "user" + std::to_string(i);
        users.push_back("cn=" + name + "," + unit);
        if (!AddEntry(api, users.back(), "qorPerson", "cn", name, cert.data(), kPoolCertBytes)) {
            return false;
        }
    }
    return true;
}

// CPU time this thread has used, in ns.
inline double ThreadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// The q-quantile of the values (0.5: the median), by rank; reorders them. 0 for none.
inline double Quantile(std::vector<double>& v, double q) {
    if (v.empty()) {
        return 0;
    }
    std::size_t k = static_cast<std::size_t>(q * static_cast<double>(v.size() - 1) + 0.5);
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    return v[k];
}

// Both sides of a pair in one loop, one call of each per iteration (the order swapped every
// iteration), each call timed on its own. Whatever else the machine does at a given moment
// falls on both sides alike, so the ratio holds even where the absolute times drift.
// Reported as counters, per side the median time of one call (library_us, raw_us) and the
// time the fastest tenth of the calls stay under (library_p10_us, raw_p10_us), and the two
// ratios. On a busy machine the call times spread over two humps, calls that found the cores
// free and calls that waited for one; the median can then fall anywhere between them, while
// the tenth percentile stays on the first hump and still shows what the calls themselves cost.
// Each call's CPU time in this thread is taken too (library_cpu_us, raw_cpu_us, means): it
// leaves out the waits for the server and for a core, so the difference of the two is what
// the library itself adds on the client, even on a busy machine.
// The benchmark's own time is that of one iteration, both calls.
template <typename Library, typename Raw>
void Paired(benchmark::State& state, Library library, Raw raw) {
    using Clock = std::chrono::steady_clock;
    std::vector<double> libraryNs;
    std::vector<double> rawNs;
    libraryNs.reserve(1 << 16);
    rawNs.reserve(1 << 16);
    double cpuNs[2] = {0, 0};  // library, raw
    unsigned int turn = 0;
    for (auto _ : state) {
        bool libraryFirst = (turn++ & 1) == 0;
        bool ok = true;
        for (int side = 0; side < 2 && ok; ++side) {
            bool isLibrary = (side == 0) == libraryFirst;
            double c0 = ThreadCpuNs();
            Clock::time_point t0 = Clock::now();
            ok = isLibrary ? library() : raw();
            double ns = std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
            cpuNs[isLibrary ? 0 : 1] += ThreadCpuNs() - c0;
            (isLibrary ? libraryNs : rawNs).push_back(ns);
        }
        if (!ok) {
            state.SkipWithError("the operation failed");
            break;
        }
    }
    double lib50 = Quantile(libraryNs, 0.5);
    double raw50 = Quantile(rawNs, 0.5);
    double lib10 = Quantile(libraryNs, 0.1);
    double raw10 = Quantile(rawNs, 0.1);
    state.counters["library_us"] = lib50 / 1000;
    state.counters["raw_us"] = raw50 / 1000;
    state.counters["ratio"] = raw50 > 0 ? lib50 / raw50 : 0;
    state.counters["library_p10_us"] = lib10 / 1000;
    state.counters["raw_p10_us"] = raw10 / 1000;
    state.counters["ratio_p10"] = raw10 > 0 ? lib10 / raw10 : 0;
    if (!libraryNs.empty() && !rawNs.empty()) {
        state.counters["library_cpu_us"] = cpuNs[0] / static_cast<double>(libraryNs.size()) / 1000;
        state.counters["raw_cpu_us"] = cpuNs[1] / static_cast<double>(rawNs.size()) / 1000;
    }
}

// VmRSS of this process in KiB, from /proc/self/status; -1 when it cannot be read.
inline long ResidentKiB() {
    std::FILE* f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) {
        return -1;
    }
    char line[256];
    long kib = -1;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::strncmp(line, "VmRSS:", 6) == 0) {
            kib = std::strtol(line + 6, nullptr, 10);
            break;
        }
    }
    std::fclose(f);
    return kib;
}

}  // namespace qorbench

#endif
