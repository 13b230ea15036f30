// qorldap_bench_scale: the lookup of a user by name (GetFullDN), the password change by name
// (ModifyPriKeyPsw) and the key read by DN, on a directory filled by scripts/directory populate
// (users cn=user<i>,ou=unit<i mod M>,<base>, each with two certificates and two encrypted keys
// under the password "populate"). Every library call is paired with its raw-libldap
// counterpart (BenchCommon.h). scripts/bench-scale.sh runs it once per directory size.
//
//   qorldap_bench_scale --users N --units M [--walk] [benchmark flags]
//   qorldap_bench_scale --users N --units M --memory ROUNDS
//
// The walk (the default lookup) is measured only with --walk: at a million users one call
// takes about 20 s. --memory runs ROUNDS fast lookups and prints the library's heap growth.
#include <lber.h>
#include <ldap.h>
#include <malloc.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "BenchCommon.h"
#include "Raw.h"
#include "engine/LdapOp.h"

namespace {

int g_users = 0, g_units = 0;
std::string g_base;
std::unique_ptr<CLdapOp> g_walker, g_fast;  // default settings; the same with fast_lookup=yes
LDAP* g_raw = nullptr;

// The k-th user looked for: spread over the directory, always in the last unit, so that the
// walk visits every unit.
int Target(long k) {
    int const perUnit = g_users / g_units;
    return static_cast<int>((k * 7919) % perUnit) * g_units + g_units - 1;
}
std::string Name(int i) {
    return "user" + std::to_string(i);
}
// The DN as the lookups compose it: "cn=<name>, <the unit as the server lists it>".
std::string Expected(int i) {
    return "cn=" + Name(i) + ", ou=unit" + std::to_string(i % g_units) + "," + g_base;
}

// The fast lookup's one search: subtree, equality on cn, no attributes, 16 entries at most;
// the one entry at the users' depth gives the DN.
bool RawFind(std::string const& value, std::string& dn) {
    char noAttributes[] = "1.1";
    char* attributes[] = {noAttributes, nullptr};
    std::string const filter = "(cn=" + value + ")";
    LDAPMessage* result = nullptr;
    int rc = ldap_search_ext_s(g_raw, g_base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(),
                               attributes, 0, nullptr, nullptr, nullptr, 16, &result);
    int users = 0;
    if (rc == LDAP_SUCCESS) {
        ldap_count_entries(g_raw, result);
        for (LDAPMessage* e = ldap_first_entry(g_raw, result); e != nullptr;
             e = ldap_next_entry(g_raw, e)) {
            char* found = ldap_get_dn(g_raw, e);
            char const* comma = found != nullptr ? std::strchr(found, ',') : nullptr;
            if (comma != nullptr && std::strchr(comma + 1, ',') != nullptr) {
                ++users;
                dn = "cn=" + value + ", " + (comma + 1);
            }
            ldap_memfree(found);
        }
    }
    if (result != nullptr)
        ldap_msgfree(result);
    return users == 1;
}

bool Lookup(CLdapOp& op, long k) {
    std::string dn;
    return op.GetFullDN(("cn=" + Name(Target(k))).c_str(), dn) == 0 && dn == Expected(Target(k));
}
bool RawLookup(bool walk, long k) {
    std::string dn;
    bool found =
        walk ? qorbench::RawWalk(g_raw, g_base, Name(Target(k)), dn) : RawFind(Name(Target(k)), dn);
    return found && dn == Expected(Target(k));
}

// The password change by hand: find the user, then for the encryption and the signing key read
// it, open it under the old password, protect it under the new one as the library does (PBES2,
// AES-256-CBC, 100,000 iterations) and write it back.
bool RawReprotect(std::string const& dn, char const* attribute, char const* oldPsw,
                  char const* newPsw) {
    std::string const filter = std::string("(") + attribute + "=*)";
    unsigned char* stored = nullptr;
    unsigned int length = 0;
    if (qorbench::RawReadKey(g_raw, dn.c_str(), filter.c_str(), attribute, stored, length) != 0 ||
        stored == nullptr)
        return false;
    unsigned char const* p = stored;
    X509_SIG* sealed = d2i_X509_SIG(nullptr, &p, length);
    delete[] stored;
    PKCS8_PRIV_KEY_INFO* clear =
        sealed != nullptr ? PKCS8_decrypt(sealed, oldPsw, static_cast<int>(std::strlen(oldPsw)))
                          : nullptr;
    X509_SIG* resealed = clear != nullptr ? PKCS8_encrypt(-1, EVP_aes_256_cbc(), newPsw,
                                                          static_cast<int>(std::strlen(newPsw)),
                                                          nullptr, 0, 100000, clear)
                                          : nullptr;
    unsigned char* der = nullptr;
    int derLength = resealed != nullptr ? i2d_X509_SIG(resealed, &der) : -1;
    bool ok = derLength > 0 && qorbench::RawWriteKey(g_raw, dn.c_str(), attribute, der,
                                                     static_cast<unsigned>(derLength)) == 0;
    OPENSSL_free(der);
    X509_SIG_free(resealed);
    PKCS8_PRIV_KEY_INFO_free(clear);
    X509_SIG_free(sealed);
    return ok;
}

char const* const kPasswords[] = {"populate", "populate-2"};

void LookupPaired(benchmark::State& state) {
    bool const walk = state.range(0) != 0;
    long k = 0;
    qorbench::Paired(
        state, [&] { return Lookup(walk ? *g_walker : *g_fast, k); },
        [&] { return RawLookup(walk, k++); });
}

// Each side changes the passwords of a user of its own back and forth.
void PasswdPaired(benchmark::State& state) {
    bool const walk = state.range(0) != 0;
    int const mine = Target(1), theirs = Target(2);
    static int turn[2] = {0, 0};  // per side: which password the keys are under now
    qorbench::Paired(
        state,
        [&] {
            int& t = turn[0];
            auto change = [&] {
                return (walk ? *g_walker : *g_fast)
                    .ModifyPriKeyPsw(("cn=" + Name(mine)).c_str(), kPasswords[t],
                                     kPasswords[1 - t]);
            };
            int rc = change();
            if (rc == QORLDAP_E_OLD_PASSWORD)  // an earlier run left the keys under the other one
                t = 1 - t, rc = change();
            t = rc == 0 ? 1 - t : t;
            return rc == 0;
        },
        [&] {
            int& t = turn[1];
            std::string dn;
            if (!(walk ? qorbench::RawWalk(g_raw, g_base, Name(theirs), dn)
                       : RawFind(Name(theirs), dn)))
                return false;
            int from = t;
            if (!RawReprotect(dn, "cryptPrikey;binary", kPasswords[from], kPasswords[1 - from])) {
                from = 1 - from;  // the same: the keys were under the other password
                if (!RawReprotect(dn, "cryptPrikey;binary", kPasswords[from], kPasswords[1 - from]))
                    return false;
            }
            bool ok = RawReprotect(dn, "signPrikey;binary", kPasswords[from], kPasswords[1 - from]);
            t = ok ? 1 - from : from;
            return ok;
        });
}

// A key read by DN: one base search whatever the directory's size.
void KeyReadPaired(benchmark::State& state) {
    long k = 0;
    qorbench::Paired(
        state,
        [&] {
            unsigned char* key = nullptr;
            unsigned int length = 0;
            std::string const dn = Expected(Target(k));
            bool ok = g_fast->GetSignPublicKey(dn.c_str(), key, length) == 0 && length > 0;
            g_fast->FreeKey(key);
            return ok;
        },
        [&] {
            unsigned char* key = nullptr;
            unsigned int length = 0;
            std::string const dn = Expected(Target(k++));
            bool ok = qorbench::RawReadKey(g_raw, dn.c_str(), "(signPubcer;binary=*)",
                                           "signPubcer;binary", key, length) == 0 &&
                      length > 0;
            delete[] key;
            return ok;
        });
}

std::unique_ptr<CLdapOp> Engine(std::string const& extraKeys) {
    char const* conf = std::getenv("QORLDAP_CONF_DIR");
    std::string const dir = conf != nullptr ? conf : ".";
    char folder[] = "/tmp/qorldap-bench-scale-XXXXXX";
    if (extraKeys.empty() || mkdtemp(folder) == nullptr)
        return std::unique_ptr<CLdapOp>(new CLdapOp());
    std::string const copy = "cp '" + dir + "/ldap.ini' '" + folder + "/' && { cat '" + dir +
                             "/soap.ini'; echo; echo '" + extraKeys + "'; } >'" + folder +
                             "/soap.ini'";
    if (std::system(copy.c_str()) != 0)
        return nullptr;
    setenv("QORLDAP_CONF_DIR", folder, 1);
    std::unique_ptr<CLdapOp> op(new CLdapOp());
    setenv("QORLDAP_CONF_DIR", dir.c_str(), 1);
    std::system(("rm -rf '" + std::string(folder) + "'").c_str());
    return op;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    bool walk = false;
    long memory = 0;
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if (arg == "--users" && i + 1 < argc)
            g_users = std::atoi(argv[++i]);
        else if (arg == "--units" && i + 1 < argc)
            g_units = std::atoi(argv[++i]);
        else if (arg == "--memory" && i + 1 < argc)
            memory = std::atol(argv[++i]);
        else if (arg == "--walk")
            walk = true;
        else
            return std::fprintf(stderr, "bench: unknown argument %s\n", argv[i]), 2;
    }
    if (g_users < 1 || g_units < 1 || g_users % g_units != 0)
        return std::fprintf(stderr, "bench: --users N --units M, N a multiple of M\n"), 2;
    g_walker = Engine("");
    g_fast = Engine("fast_lookup=yes");
    LdapInfo info;
    g_walker->GetLdapAtt(info);
    g_base = info.basedn;
    g_raw = qorbench::RawConnect(info);
    if (g_raw == nullptr || g_fast == nullptr || g_walker->ConnectLdap() != 0 ||
        g_fast->ConnectLdap() != 0)
        return std::fprintf(stderr, "bench: cannot connect (is QORLDAP_CONF_DIR set?)\n"), 1;
    if (memory > 0) {
        for (long k = 0; k < 1000; ++k)
            Lookup(*g_fast, k);  // the connection's and libldap's own buffers settle first
        size_t const before = mallinfo2().uordblks;
        long failed = 0;
        for (long k = 0; k < memory; ++k)
            failed += !Lookup(*g_fast, k);
        long const growth = static_cast<long>(mallinfo2().uordblks) - static_cast<long>(before);
        std::printf("memory: %ld fast lookups at %d users, %ld failed; heap growth %ld bytes\n",
                    memory, g_users, failed, growth);
        return failed == 0 ? 0 : 1;
    }
    std::string const at = "/users:" + std::to_string(g_users);
    for (int w = 0; w <= (walk ? 1 : 0); ++w) {
        char const* how = w ? "walk" : "fast";
        benchmark::RegisterBenchmark(("lookup/" + std::string(how) + at).c_str(), LookupPaired)
            ->Arg(w)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("passwd/" + std::string(how) + at).c_str(), PasswdPaired)
            ->Arg(w)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark(("key_read" + at).c_str(), KeyReadPaired)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
