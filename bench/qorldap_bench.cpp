// qorldap_bench: the library's operations through its public API, each next to the very
// directory requests it makes, sent with libldap directly on one connection bound as the
// manager. The raw side is the floor no wrapper can beat; the ratio of the two is the cost of
// the library itself.
//
// Run against a throwaway directory (scripts/bench.sh does it all):
//   scripts/directory start --dir D --nosync; set -a; . D/env; set +a
//   qorldap_bench [google benchmark flags]
//   qorldap_bench --memory N     N key reads and N key writes in one process, VmRSS before and
//                                after (no benchmarks run)
// The library reads its settings from $QORLDAP_CONF_DIR/soap.ini; the raw connections use the
// same settings (taken from the library with GetLdapAtt). The entries are added at start-up
// through the library's own InsertLdap, and kept when they are already there:
//   ou=pki,<base>   cn=holder (both key pairs, from a bundle made by openssl), cn=publisher
//   ou=keys,<base>  cn=reader, cn=writer, cn=user0..cn=user7, each with a 1,229-byte
//                   signPubcer;binary value
//   ou=list,<base>  cn=child000..cn=child099 (no keys)
#include <lber.h>
#include <ldap.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "BenchCommon.h"
#include "Raw.h"
#include "qorldap/qorldap.h"

namespace {

constexpr char kKeyAttribute[] = "signPubcer;binary";
constexpr char kKeyFilter[] = "(signPubcer;binary=*)";
constexpr char kSelectFilter[] = "(cn=*)";  // what a select of a cn=... entry sends
constexpr char kChildFilter[] = "(|(ou=*)(cn=*))";
constexpr unsigned int kCertBytes = 1229;  // 1.2 KiB
constexpr int kMaxThreads = 8;
constexpr int kChildren = 100;
constexpr char kP12Password[] = "bundle-pw";
constexpr char kPublisherKeyPassword[] = "publisher-pw";
constexpr char kHolderPasswords[2][8] = {"pw-one", "pw-two"};

struct Fixture {
    LdapInfo info;
    std::string readerDn;
    std::string writerDn;
    std::string listDn;
    std::string userDn[kMaxThreads];
    std::vector<unsigned char> certs[2];  // two values, so that consecutive writes differ
    std::string publisherBundle;
    int holderPassword = 0;   // index of the password the holder's keys are protected by now
    unsigned int writes = 0;  // key writes made so far (picks the value of the next one)

    std::unique_ptr<CLdap> object;                  // single-thread CLdap benchmarks
    std::unique_ptr<CLdap> perThread[kMaxThreads];  // one CLdap per benchmark thread
    LDAP* raw = nullptr;                            // single-thread raw benchmarks
    LDAP* rawShared = nullptr;                      // threads on one handle and a mutex
    std::mutex rawSharedLock;
    LDAP* rawPerThread[kMaxThreads] = {};  // one handle per benchmark thread
};

Fixture* g = nullptr;

using qorbench::AddEntry;

// --- raw libldap: the same requests as the library, nothing more ---------------------------

// An entry select: one base search, a first walk over the attributes that counts them and
// looks at objectClass, a second walk that copies their names.
int RawSelect(LDAP* ld, char const* dn, int& count) {
    count = 0;
    LDAPMessage* result = nullptr;
    int rc = ldap_search_ext_s(ld, dn, LDAP_SCOPE_BASE, kSelectFilter, nullptr, 0, nullptr, nullptr,
                               nullptr, 0, &result);
    if (rc != LDAP_SUCCESS) {
        if (result != nullptr) {
            ldap_msgfree(result);
        }
        return rc;
    }
    bool person = false;
    BerElement* ber = nullptr;
    for (char* name = ldap_first_attribute(ld, result, &ber); name != nullptr;
         name = ldap_next_attribute(ld, result, ber)) {
        char** values = ldap_get_values(ld, result, name);
        if (values != nullptr) {
            if (std::strcmp(name, "objectClass") == 0) {
                for (char** v = values; *v != nullptr; ++v) {
                    person = person || std::strcmp(*v, "qorPerson") == 0;
                }
            }
            ldap_value_free(values);
        }
        ldap_memfree(name);
        ++count;
    }
    ber_free(ber, 0);
    char names[32][256];
    int k = 0;
    ber = nullptr;
    for (char* name = ldap_first_attribute(ld, result, &ber); name != nullptr && k < count;
         name = ldap_next_attribute(ld, result, ber)) {
        char** values = ldap_get_values(ld, result, name);
        if (values != nullptr) {
            std::snprintf(names[k % 32], sizeof names[0], "%s", name);
            ldap_value_free(values);
        }
        ldap_memfree(name);
        ++k;
    }
    ber_free(ber, 0);
    benchmark::DoNotOptimize(names);
    ldap_msgfree(result);
    return person ? LDAP_SUCCESS : LDAP_NO_SUCH_OBJECT;
}

// A child listing: one one-level search, the entry count, and each child's DN copied out.
int RawList(LDAP* ld, char const* dn, int& count) {
    count = 0;
    LDAPMessage* result = nullptr;
    int rc = ldap_search_ext_s(ld, dn, LDAP_SCOPE_ONELEVEL, kChildFilter, nullptr, 0, nullptr,
                               nullptr, nullptr, 0, &result);
    if (rc != LDAP_SUCCESS) {
        if (result != nullptr) {
            ldap_msgfree(result);
        }
        return rc;
    }
    int entries = ldap_count_entries(ld, result);
    std::unique_ptr<char[]> names(new char[static_cast<size_t>(entries > 0 ? entries : 1) * 256]);
    int i = 0;
    for (LDAPMessage* entry = ldap_first_entry(ld, result); entry != nullptr && i < entries;
         entry = ldap_next_entry(ld, entry), ++i) {
        char* name = ldap_get_dn(ld, entry);
        if (name != nullptr) {
            std::snprintf(names.get() + static_cast<size_t>(i) * 256, 256, "%s", name);
            ldap_memfree(name);
        }
    }
    benchmark::DoNotOptimize(names.get());
    ldap_msgfree(result);
    count = entries;
    return LDAP_SUCCESS;
}

// --- the single-thread pairs ------------------------------------------------------------------
// Each operation once, library and raw side alike; false when it did not give what it should.

bool LibraryKeyRead() {
    unsigned char* key = nullptr;
    unsigned int length = 0;
    if (GetSignPublicKey(g->readerDn.c_str(), key, length) != 0 || length != kCertBytes) {
        return false;
    }
    FreeKey(key);
    return true;
}

bool RawKeyRead() {
    unsigned char* key = nullptr;
    unsigned int length = 0;
    int rc =
        qorbench::RawReadKey(g->raw, g->readerDn.c_str(), kKeyFilter, kKeyAttribute, key, length);
    delete[] key;
    return rc == 0 && length == kCertBytes;
}

// Consecutive writes, whichever side makes them, alternate between two values, so that every
// write changes the entry.
bool LibraryKeyWrite() {
    return g->object->ModifySignPublicKey(g->writerDn.c_str(), g->certs[g->writes++ & 1].data(),
                                          kCertBytes) == 0;
}

bool RawKeyWrite() {
    return qorbench::RawWriteKey(g->raw, g->writerDn.c_str(), kKeyAttribute,
                                 g->certs[g->writes++ & 1].data(), kCertBytes) == 0;
}

bool LibrarySelect() {
    tagAtt att;
    att.items = nullptr;
    att.itemCount = 0;
    if (g->object->SelectLdap(g->readerDn.c_str(), att) != 0 || att.itemCount <= 0) {
        return false;
    }
    g->object->FreeAtt(&att);
    return true;
}

bool RawSelectOnce() {
    int count = 0;
    return RawSelect(g->raw, g->readerDn.c_str(), count) == 0 && count > 0;
}

bool LibraryList() {
    tagDN* list = nullptr;
    int count = 0;
    if (g->object->SelectLdap(g->listDn.c_str(), nullptr, list, count) != 0 || count != kChildren) {
        return false;
    }
    g->object->FreeDN(list, count);
    return true;
}

bool RawListOnce() {
    int count = 0;
    return RawList(g->raw, g->listDn.c_str(), count) == 0 && count == kChildren;
}

// One side of a pair on its own: its ops/s.
template <typename Op>
void Alone(benchmark::State& state, Op op) {
    for (auto _ : state) {
        if (!op()) {
            state.SkipWithError("the operation failed");
            break;
        }
    }
}

// Threads: each thread reads the key of its own user.
void ThreadsFreeFunctions(benchmark::State& state) {
    char const* dn = g->userDn[state.thread_index()].c_str();
    for (auto _ : state) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        if (GetSignPublicKey(dn, key, length) != 0 || length != kCertBytes) {
            state.SkipWithError("GetSignPublicKey failed");
            break;
        }
        FreeKey(key);
    }
}

void ThreadsObjectPerThread(benchmark::State& state) {
    char const* dn = g->userDn[state.thread_index()].c_str();
    CLdap& object = *g->perThread[state.thread_index()];
    for (auto _ : state) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        if (object.GetSignPublicKey(dn, key, length) != 0 || length != kCertBytes) {
            state.SkipWithError("CLdap::GetSignPublicKey failed");
            break;
        }
        object.FreeKey(key);
    }
}

void ThreadsRawSharedHandle(benchmark::State& state) {
    char const* dn = g->userDn[state.thread_index()].c_str();
    for (auto _ : state) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        int rc;
        {
            std::lock_guard<std::mutex> hold(g->rawSharedLock);
            rc = qorbench::RawReadKey(g->rawShared, dn, kKeyFilter, kKeyAttribute, key, length);
        }
        if (rc != 0 || length != kCertBytes) {
            state.SkipWithError("raw key read failed");
            break;
        }
        delete[] key;
    }
}

void ThreadsRawHandlePerThread(benchmark::State& state) {
    char const* dn = g->userDn[state.thread_index()].c_str();
    LDAP* ld = g->rawPerThread[state.thread_index()];
    for (auto _ : state) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        if (qorbench::RawReadKey(ld, dn, kKeyFilter, kKeyAttribute, key, length) != 0 ||
            length != kCertBytes) {
            state.SkipWithError("raw key read failed");
            break;
        }
        delete[] key;
    }
}

// PKCS#12 publication of one bundle (certificate and protected private key) for an entry
// that exists already: the bundle is opened, the two levels are looked up, two modifies.
void Publish(benchmark::State& state) {
    std::string const& bundle = g->publisherBundle;
    for (auto _ : state) {
        if (PublishP12(bundle.data(), bundle.size(), kP12Password, kPublisherKeyPassword, true,
                       false) != 0) {
            state.SkipWithError("PublishP12 failed");
            break;
        }
    }
}

// A password change of both private keys: the walk to the entry, then per key a read, an
// opening under the old password, a protection under the new one and a write.
void ChangePassword(benchmark::State& state) {
    for (auto _ : state) {
        int next = 1 - g->holderPassword;
        if (ModifyPriKeyPsw("cn=holder", kHolderPasswords[g->holderPassword],
                            kHolderPasswords[next]) != 0) {
            state.SkipWithError("ModifyPriKeyPsw failed");
            break;
        }
        g->holderPassword = next;
    }
}

// The key protection's own cost, for reading the two above: one PBKDF2-HMAC-SHA256 derivation
// of 100,000 iterations, as a stored key's protection makes.
void Pbkdf2(benchmark::State& state) {
    unsigned char salt[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    unsigned char out[32];
    for (auto _ : state) {
        if (PKCS5_PBKDF2_HMAC("pw-one", 6, salt, sizeof salt, 100000, EVP_sha256(), sizeof out,
                              out) != 1) {
            state.SkipWithError("PBKDF2 failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
}

// --- set-up ---------------------------------------------------------------------------------

std::vector<unsigned char> RandomValue(unsigned int seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> value(kCertBytes);
    for (unsigned char& c : value) {
        c = static_cast<unsigned char>(rng());
    }
    value[0] = 0x30;  // reads like the start of a DER sequence; the directory does not care
    return value;
}

std::string ReadWhole(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Makes a self-signed RSA-2048 certificate for /O=Bench/OU=pki/CN=<cn> and its PKCS#12
// bundle with the openssl tool, in a scratch folder removed afterwards.
std::string MakeBundle(std::string const& cn) {
    char scratch[] = "/tmp/qorldap-bench-XXXXXX";
    if (mkdtemp(scratch) == nullptr) {
        return std::string();
    }
    std::string dir = scratch;
    std::string cmd = "cd '" + dir +
                      "' && openssl req -x509 -newkey rsa:2048 -nodes -keyout k.pem -out c.pem"
                      " -days 2 -subj '/O=Bench/OU=pki/CN=" +
                      cn +
                      "' && openssl pkcs12 -export -in c.pem -inkey k.pem -out b.p12"
                      " -passout 'pass:" +
                      kP12Password + "'";
    std::string bundle;
    if (std::system(("(" + cmd + ") >/dev/null 2>&1").c_str()) == 0) {
        bundle = ReadWhole(dir + "/b.p12");
    }
    std::system(("rm -rf '" + dir + "'").c_str());
    return bundle;
}

bool SetUp(bool withBundles) {
    g = new Fixture();
    GetLdapAtt(g->info);
    std::string base = g->info.basedn;
    if (base.empty()) {
        std::fprintf(stderr,
                     "bench: no basedn; is QORLDAP_CONF_DIR set (see scripts/directory)?\n");
        return false;
    }
    if (ConnectLdap() != 0) {
        std::fprintf(stderr, "bench: the library cannot connect to %s:%d\n", g->info.host,
                     g->info.port);
        return false;
    }
    g->certs[0] = RandomValue(1);
    g->certs[1] = RandomValue(2);
    g->object.reset(new CLdap());
    if (g->object->ConnectLdap() != 0) {
        return false;
    }
    CLdap& api = *g->object;

    // The key holder first, so that it is the first child of the base and the password change's
    // walk finds it at once.
    if (withBundles) {
        std::string holder = MakeBundle("holder");
        g->publisherBundle = MakeBundle("publisher");
        if (holder.empty() || g->publisherBundle.empty()) {
            std::fprintf(stderr, "bench: openssl could not make the bundles\n");
            return false;
        }
        for (bool sign : {true, false}) {
            if (PublishP12(holder.data(), holder.size(), kP12Password, kHolderPasswords[0], sign,
                           false) != 0) {
                std::fprintf(stderr, "bench: PublishP12 of the holder failed\n");
                return false;
            }
        }
        g->holderPassword = 0;
    }

    std::string keys = "ou=keys," + base;
    if (!AddEntry(api, keys, "organizationalUnit", "ou", "keys")) {
        return false;
    }
    g->readerDn = "cn=reader," + keys;
    g->writerDn = "cn=writer," + keys;
    std::vector<unsigned char> cert = g->certs[0];
    if (!AddEntry(api, g->readerDn, "qorPerson", "cn", "reader", cert.data(), kCertBytes) ||
        !AddEntry(api, g->writerDn, "qorPerson", "cn", "writer", cert.data(), kCertBytes)) {
        return false;
    }
    for (int i = 0; i < kMaxThreads; ++i) {
        std::string name = "user" + std::to_string(i);
        g->userDn[i] = "cn=" + name + "," + keys;
        if (!AddEntry(api, g->userDn[i], "qorPerson", "cn", name, cert.data(), kCertBytes)) {
            return false;
        }
    }
    g->listDn = "ou=list," + base;
    if (!AddEntry(api, g->listDn, "organizationalUnit", "ou", "list")) {
        return false;
    }
    for (int i = 0; i < kChildren; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "child%03d", i);
        if (!AddEntry(api, std::string("cn=") + name + "," + g->listDn, "qorPerson", "cn", name)) {
            return false;
        }
    }

    for (int i = 0; i < kMaxThreads; ++i) {
        g->perThread[i].reset(new CLdap());
        g->rawPerThread[i] = qorbench::RawConnect(g->info);
        if (g->perThread[i]->ConnectLdap() != 0 || g->rawPerThread[i] == nullptr) {
            std::fprintf(stderr, "bench: cannot open the per-thread connections\n");
            return false;
        }
    }
    g->raw = qorbench::RawConnect(g->info);
    g->rawShared = qorbench::RawConnect(g->info);
    if (g->raw == nullptr || g->rawShared == nullptr) {
        std::fprintf(stderr, "bench: raw libldap cannot bind as %s\n", g->info.managerdn);
        return false;
    }
    return true;
}

// --memory N: N key reads (free functions) and N key writes (CLdap) in one process. A short
// warm-up first, so that one-time allocations (connection buffers, the allocator's arenas)
// are not counted as growth.
int MemoryRun(long n) {
    auto round = [](long i) {
        unsigned char* key = nullptr;
        unsigned int length = 0;
        if (GetSignPublicKey(g->userDn[i % kMaxThreads].c_str(), key, length) != 0 ||
            length != kCertBytes) {
            return false;
        }
        FreeKey(key);
        return LibraryKeyWrite();
    };
    for (long i = 0; i < 1000; ++i) {
        if (!round(i)) {
            std::fprintf(stderr, "bench: warm-up read or write failed\n");
            return 1;
        }
    }
    long before = qorbench::ResidentKiB();
    auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        if (!round(i)) {
            std::fprintf(stderr, "bench: read or write %ld failed\n", i);
            return 1;
        }
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    long after = qorbench::ResidentKiB();
    std::printf(
        "memory reads=%ld writes=%ld rss_before_kib=%ld rss_after_kib=%ld growth_kib=%ld "
        "seconds=%.1f\n",
        n, n, before, after, after - before, seconds);
    return 0;
}

void Register() {
    using benchmark::RegisterBenchmark;
    auto unit = benchmark::kMicrosecond;
    struct Pair {
        char const* name;
        bool (*library)();
        bool (*raw)();
    };
    Pair const pairs[] = {{"key_read", LibraryKeyRead, RawKeyRead},
                          {"key_write", LibraryKeyWrite, RawKeyWrite},
                          {"entry_select", LibrarySelect, RawSelectOnce},
                          {"child_list_100", LibraryList, RawListOnce}};
    // Each side on its own (ops/s of each); with --benchmark_enable_random_interleaving the
    // repetitions of all of them are shuffled together.
    for (Pair const& p : pairs) {
        RegisterBenchmark((std::string(p.name) + "/library").c_str(), Alone<bool (*)()>, p.library)
            ->UseRealTime()
            ->Unit(unit);
        RegisterBenchmark((std::string(p.name) + "/raw").c_str(), Alone<bool (*)()>, p.raw)
            ->UseRealTime()
            ->Unit(unit);
    }
    // Both sides alternating in one loop (the ratio).
    for (Pair const& p : pairs) {
        RegisterBenchmark((std::string(p.name) + "/paired").c_str(),
                          qorbench::Paired<bool (*)(), bool (*)()>, p.library, p.raw)
            ->MinTime(1.0)
            ->UseRealTime()
            ->Unit(unit);
    }
    for (auto const& t :
         {std::make_pair("threads_read/free_functions", ThreadsFreeFunctions),
          std::make_pair("threads_read/cldap_per_thread", ThreadsObjectPerThread),
          std::make_pair("threads_read/raw_one_handle_mutex", ThreadsRawSharedHandle),
          std::make_pair("threads_read/raw_handle_per_thread", ThreadsRawHandlePerThread)}) {
        RegisterBenchmark(t.first, t.second)
            ->Threads(1)
            ->Threads(4)
            ->Threads(8)
            ->UseRealTime()
            ->Unit(unit);
    }
    // Slow, fixed-count ones.
    auto ms = benchmark::kMillisecond;
    RegisterBenchmark("publish_p12", Publish)
        ->Iterations(6)
        ->Repetitions(3)
        ->UseRealTime()
        ->Unit(ms);
    RegisterBenchmark("modify_pri_key_psw", ChangePassword)
        ->Iterations(4)
        ->Repetitions(3)
        ->UseRealTime()
        ->Unit(ms);
    RegisterBenchmark("pbkdf2_sha256_100k", Pbkdf2)
        ->Iterations(10)
        ->Repetitions(3)
        ->UseRealTime()
        ->Unit(ms);
}

}  // namespace

int main(int argc, char** argv) {
    long memoryRounds = 0;
    if (argc >= 2 && std::strcmp(argv[1], "--memory") == 0) {
        memoryRounds = argc >= 3 ? std::strtol(argv[2], nullptr, 10) : 100000;
        if (memoryRounds <= 0) {
            std::fprintf(stderr, "usage: %s --memory N\n", argv[0]);
            return 2;
        }
    }
    if (memoryRounds > 0) {
        return SetUp(false) ? MemoryRun(memoryRounds) : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    if (!SetUp(true)) {
        return 1;
    }
    Register();
    benchmark::AddCustomContext("directory",
                                std::string(g->info.host) + ":" + std::to_string(g->info.port));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
