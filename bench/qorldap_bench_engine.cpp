// qorldap_bench_engine: operations only the engine offers. For now the tree walk that turns a
// common name into the entry's DN (GetFullDN), on trees of 10, 100 and 1,000 users spread over
// 10 units each, looking for a user of the last unit so that the walk visits every unit.
//
// Trees, added at start-up through the engine's own InsertLdap (kept when already there):
//   ou=t<N>,<base>  ou=u0..ou=u9 below it, N/10 users cn=t<N>u<U>n<I> in each unit
// Each walk is rooted at ou=t<N>,<base> (the engine's base DN is set there after connecting).
//
// What one walk sends: per visited DN a one-level child listing and a base select of the DN
// itself, and per unit one base search on the composed candidate DN. The walk visits the root
// of the tree and its 10 units, so every walk here makes 2 + 10 * 3 = 32 searches; the
// listings return 10 units and then every user of every unit (N entries in all). The same 32
// searches, with the same walks over their results, are made with libldap directly on one
// connection for comparison.
#include <lber.h>
#include <ldap.h>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BenchCommon.h"
#include "Raw.h"
#include "engine/LdapOp.h"

namespace {

constexpr int kUnits = 10;
constexpr int kTreeSizes[] = {10, 100, 1000};

// The calls of qorbench::AddEntry, on the engine.
struct EngineApi {
    CLdapOp& op;
    int InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                   unsigned int passwordLength, unsigned char* publicKey,
                   unsigned int publicKeyLength, unsigned char* privateKey,
                   unsigned int privateKeyLength) {
        return op.InsertLdap(dn, att, crypt, password, passwordLength, publicKey, publicKeyLength,
                             privateKey, privateKeyLength);
    }
    int SelectLdap(char const* dn, tagAtt& att) { return op.SelectLdapAtt(dn, att); }
    void FreeAtt(tagAtt* att) { op.FreeAtt(att); }
    int ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
        return op.ModifySignPublicKey(dn, key, length);
    }
};

std::string g_base;
std::unique_ptr<CLdapOp> g_walkers[3];  // one engine per tree, its base DN at the tree's root
LDAP* g_raw = nullptr;                  // the raw side's connection, bound as the manager

std::string TreeDn(int users) {
    return "ou=t" + std::to_string(users) + "," + g_base;
}
std::string UnitDn(int users, int unit) {
    return "ou=u" + std::to_string(unit) + "," + TreeDn(users);
}
std::string UserName(int users, int unit, int index) {
    char name[48];
    std::snprintf(name, sizeof name, "t%du%dn%03d", users, unit, index);
    return name;
}

bool Populate(CLdapOp& op) {
    EngineApi api{op};
    for (int users : kTreeSizes) {
        if (!qorbench::AddEntry(api, TreeDn(users), "organizationalUnit", "ou",
                                "t" + std::to_string(users))) {
            return false;
        }
        for (int unit = 0; unit < kUnits; ++unit) {
            std::string unitDn = UnitDn(users, unit);
            if (!qorbench::AddEntry(api, unitDn, "organizationalUnit", "ou",
                                    "u" + std::to_string(unit))) {
                return false;
            }
            for (int i = 0; i < users / kUnits; ++i) {
                std::string name = UserName(users, unit, i);
                if (!qorbench::AddEntry(api, "cn=" + name + "," + unitDn, "qorPerson", "cn",
                                        name)) {
                    return false;
                }
            }
        }
    }
    return true;
}

void FullDnRaw(benchmark::State& state) {
    int users = static_cast<int>(state.range(0));
    std::string value = UserName(users, kUnits - 1, users / kUnits - 1);
    std::string expected = "cn=" + value + ", " + UnitDn(users, kUnits - 1);
    for (auto _ : state) {
        std::string dn;
        if (!qorbench::RawWalk(g_raw, TreeDn(users), value, dn) || dn != expected) {
            state.SkipWithError(("raw walk gave '" + dn + "'").c_str());
            break;
        }
    }
    state.counters["searches_per_call"] = 2 + kUnits * 3;
    state.counters["entries_listed_per_call"] = kUnits + users;
}

void FullDn(benchmark::State& state) {
    int users = static_cast<int>(state.range(0));
    int tree = users == 10 ? 0 : users == 100 ? 1 : 2;
    CLdapOp& walker = *g_walkers[tree];
    std::string name = "cn=" + UserName(users, kUnits - 1, users / kUnits - 1);
    // The walk composes the candidate as "attr=value, parent".
    std::string expected = name + ", " + UnitDn(users, kUnits - 1);
    for (auto _ : state) {
        std::string dn;
        if (walker.GetFullDN(name.c_str(), dn) != 0 || dn != expected) {
            state.SkipWithError(("GetFullDN gave '" + dn + "'").c_str());
            break;
        }
    }
    state.counters["searches_per_call"] = 2 + kUnits * 3;
    state.counters["entries_listed_per_call"] = kUnits + users;
}

// Both walks alternating in one loop (the ratio).
void FullDnPaired(benchmark::State& state) {
    int users = static_cast<int>(state.range(0));
    int tree = users == 10 ? 0 : users == 100 ? 1 : 2;
    CLdapOp& walker = *g_walkers[tree];
    std::string value = UserName(users, kUnits - 1, users / kUnits - 1);
    std::string name = "cn=" + value;
    std::string expected = name + ", " + UnitDn(users, kUnits - 1);
    std::string root = TreeDn(users);
    qorbench::Paired(
        state,
        [&] {
            std::string dn;
            return walker.GetFullDN(name.c_str(), dn) == 0 && dn == expected;
        },
        [&] {
            std::string dn;
            return qorbench::RawWalk(g_raw, root, value, dn) && dn == expected;
        });
}

// Building an engine reads soap.ini and ldap.ini once each, however many keys it looks up: an
// ldap.ini of 1,000 templates of 8 definitions (8,000 definitions, about 130 KB) in a folder of
// its own. No directory is touched; the engine connects on demand only.
void EngineBuild(benchmark::State& state) {
    char folder[] = "/tmp/qorldap-bench-ini-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        state.SkipWithError("no temporary folder");
        return;
    }
    std::string ini = "[base]\nsum=1000\n";
    for (int t = 0; t < 1000; ++t)
        ini += "A" + std::to_string(t) + "=class" + std::to_string(t) + "\n";
    for (int t = 0; t < 1000; ++t) {
        ini += "[class" + std::to_string(t) + "]\nsum=8\n";
        for (int d = 0; d < 8; ++d)
            ini += "A" + std::to_string(d) + "=attr" + std::to_string(d) + ",s," + (d ? "0" : "2") +
                   "\n";
    }
    std::string const dir = folder;
    std::FILE* out = std::fopen((dir + "/ldap.ini").c_str(), "w");
    std::fputs(ini.c_str(), out);
    std::fclose(out);
    std::string const old = std::getenv("QORLDAP_CONF_DIR") ? std::getenv("QORLDAP_CONF_DIR") : "";
    setenv("QORLDAP_CONF_DIR", folder, 1);
    for (auto _ : state) {
        CLdapOp engine;
        if (engine.TemplateCount() != 1000)
            state.SkipWithError("the schema file did not load");
        benchmark::DoNotOptimize(engine.TemplateCount());
    }
    setenv("QORLDAP_CONF_DIR", old.c_str(), 1);
    std::remove((dir + "/ldap.ini").c_str());
    rmdir(folder);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    CLdapOp setup;
    LdapInfo info;
    setup.GetLdapAtt(info);
    g_base = info.basedn;
    if (g_base.empty() || setup.ConnectLdap() != 0) {
        std::fprintf(stderr, "bench: the engine cannot connect (is QORLDAP_CONF_DIR set?)\n");
        return 1;
    }
    if (!Populate(setup)) {
        return 1;
    }
    for (int tree = 0; tree < 3; ++tree) {
        g_walkers[tree].reset(new CLdapOp());
        if (g_walkers[tree]->ConnectLdap() != 0) {
            return 1;
        }
        LdapInfo rooted;
        g_walkers[tree]->GetLdapAtt(rooted);
        std::snprintf(rooted.basedn, sizeof rooted.basedn, "%s", TreeDn(kTreeSizes[tree]).c_str());
        g_walkers[tree]->SetLdapAtt(rooted);
    }
    g_raw = ldap_init(info.host, info.port);
    int version = LDAP_VERSION3;
    if (g_raw == nullptr ||
        ldap_set_option(g_raw, LDAP_OPT_PROTOCOL_VERSION, &version) != LDAP_OPT_SUCCESS ||
        ldap_simple_bind_s(g_raw, info.managerdn, info.psw) != LDAP_SUCCESS) {
        std::fprintf(stderr, "bench: raw libldap cannot bind as %s\n", info.managerdn);
        return 1;
    }
    for (auto const& side : {std::make_pair("get_full_dn/library", FullDn),
                             std::make_pair("get_full_dn/raw", FullDnRaw)}) {
        benchmark::RegisterBenchmark(side.first, side.second)
            ->ArgName("users")
            ->Arg(kTreeSizes[0])
            ->Arg(kTreeSizes[1])
            ->Arg(kTreeSizes[2])
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RegisterBenchmark("engine_build/ldap_ini_definitions:8000", EngineBuild)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("get_full_dn/paired", FullDnPaired)
        ->ArgName("users")
        ->Arg(kTreeSizes[0])
        ->Arg(kTreeSizes[1])
        ->Arg(kTreeSizes[2])
        ->MinTime(1.0)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
