// The free functions, over one engine that all threads share, or with pool_size over engines
// taken from a pool for the span of each call (engine/Pool.h). Engine and pool are built by
// the first call that needs them, not when the library is loaded, so that a program can name
// its settings first (qorldap/Settings.h, or QORLDAP_CONF_DIR set after loading); they are
// destroyed when the library is unloaded or the process exits.
#include "qorldap/LdapIF.h"

#include <atomic>

#include "engine/Constants.h"
#include "engine/LdapOp.h"
#include "engine/Outcome.h"
#include "engine/Records.h"
#include "interface/CallerDn.h"
#include "interface/FreeEngine.h"

namespace {

std::atomic<bool> built{false};

// Whether soap.ini (with the program's settings) asks for a pool, read once, as the engine reads
// it, when the first call comes.
bool PoolWanted() {
    static bool const wanted = ServerSettings(SECTION_LDAP).Pool().Pooled();
    return wanted;
}

}  // namespace

namespace qor {

CLdapOp& FreeEngine() {
    // Built once, by whichever thread comes first; the others wait for it.
    static CLdapOp engine;
    built.store(true, std::memory_order_release);
    return engine;
}

bool FreeEngineBuilt() {
    return built.load(std::memory_order_acquire);
}

Pool* FreePool() {
    if (!PoolWanted()) {
        return nullptr;
    }
    static Pool pool;
    built.store(true, std::memory_order_release);
    return &pool;
}

FreeLease::FreeLease(Pool::Use use) {
    Pool* pool = FreePool();
    if (pool == nullptr) {
        engine_ = &FreeEngine();
        return;
    }
    lease_ = pool->Take(use);
    engine_ = lease_.Engine();
}

}  // namespace qor

using Use = Pool::Use;

int ConnectLdap() {
    qor::FreeLease lease(Use::kConnect);
    return lease.Engine() != nullptr ? lease.Engine()->ConnectLdap() : QORLDAP_E_FAILED;
}

// Connects first, as every operation of this family does; when that fails nothing is released.
// With a pool the key is released at once: waiting for an engine (or dialling a replica) only
// to release memory could leave it unreleased, or wait for ever without a timeout.
void FreeKey(unsigned char* key) {
    if (qor::FreePool() != nullptr) {
        qor::FreeKey(key);
        return;
    }
    qor::FreeLease lease(Use::kRead);
    if (lease.Engine() == nullptr || lease.Engine()->ConnectLdap() != QORLDAP_OK) {
        return;
    }
    lease.Engine()->FreeKey(key);
}

void GetLdapAtt(LdapInfo& info) {
    if (Pool* pool = qor::FreePool()) {
        info = pool->Record();
        return;
    }
    qor::FreeEngine().GetLdapAtt(info);
}

// With a pool the shared engine takes the record too: the subtree walk and the entry writer
// still run on it.
void SetLdapAtt(LdapInfo info) {
    if (Pool* pool = qor::FreePool()) {
        pool->SetRecord(info);
    }
    qor::FreeEngine().SetLdapAtt(info);
}

int GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    return qor::FreeCall(Use::kRead, [&](CLdapOp& engine) {
        return engine.GetSignPrivateKey(qor::DirectoryDn(engine, name).Get(), key, length);
    });
}

int GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    return qor::FreeCall(Use::kRead, [&](CLdapOp& engine) {
        return engine.GetSignPublicKey(qor::DirectoryDn(engine, name).Get(), key, length);
    });
}

int GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    return qor::FreeCall(Use::kRead, [&](CLdapOp& engine) {
        return engine.GetCryptPrivateKey(qor::DirectoryDn(engine, name).Get(), key, length);
    });
}

int GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    return qor::FreeCall(Use::kRead, [&](CLdapOp& engine) {
        return engine.GetCryptPublicKey(qor::DirectoryDn(engine, name).Get(), key, length);
    });
}

int DeleteSignPrivateKey(char const* dn) {
    return qor::FreeCall(Use::kWrite, [&](CLdapOp& engine) {
        return engine.DeleteSignPrivateKey(qor::DirectoryDn(engine, dn).Get());
    });
}

int DeleteCryptPrivateKey(char const* dn) {
    return qor::FreeCall(Use::kWrite, [&](CLdapOp& engine) {
        return engine.DeleteCryptPrivateKey(qor::DirectoryDn(engine, dn).Get());
    });
}

// A password change reads the keys and writes them back, and a publication reads the path it
// then extends: both run on a provider, so that they never read what a replica has not had yet.
int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    return qor::FreeCall(Use::kWrite, [&](CLdapOp& engine) {
        int const rc = engine.ModifyPriKeyPsw(qor::DirectoryDn(engine, name).Get(), oldPsw, newPsw);
        qor::ToCaller(engine, qor::Outcome::OfThread().dn);
        return rc;
    });
}

int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw, char const* keyPsw,
               bool sign, bool publicOnly) {
    return qor::FreeCall(Use::kWrite, [&](CLdapOp& engine) {
        int const rc = engine.PublishP12(pfx, pfxLength, pfxPsw, keyPsw, sign, publicOnly);
        qor::ToCaller(engine, qor::Outcome::OfThread().dn);
        return rc;
    });
}
