// The free functions, over one engine that all threads share. It is built by the first call
// that needs it, not when the library is loaded, so that a program can name its settings first
// (qorldap/Settings.h, or QORLDAP_CONF_DIR set after loading); it is destroyed when the library
// is unloaded or the process exits.
#include "qorldap/LdapIF.h"

#include <atomic>

#include "engine/LdapOp.h"
#include "engine/Outcome.h"
#include "interface/CallerDn.h"
#include "interface/ConnectThenRun.h"
#include "interface/FreeEngine.h"

namespace {

std::atomic<bool> built{false};

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

}  // namespace qor

namespace {

CLdapOp& Engine() {
    return qor::FreeEngine();
}

}  // namespace

int ConnectLdap() {
    return Engine().ConnectLdap();
}

// Connects first, as every operation of this family does; when that fails nothing is released.
void FreeKey(unsigned char* key) {
    if (Engine().ConnectLdap() != QORLDAP_OK) {
        return;
    }
    Engine().FreeKey(key);
}

void GetLdapAtt(LdapInfo& info) {
    Engine().GetLdapAtt(info);
}

void SetLdapAtt(LdapInfo info) {
    Engine().SetLdapAtt(info);
}

// Every operation connects first, and looks again under the guard that a connection is left.
template <typename Operation>
int Connected(Operation operation) {
    return qor::ConnectThenRun(
        Engine(), [] { return Engine().ConnectLdap(); }, qor::Recheck::kYes, operation);
}

int GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    return Connected([&] {
        return Engine().GetSignPrivateKey(qor::DirectoryDn(Engine(), name).Get(), key, length);
    });
}

int GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    return Connected([&] {
        return Engine().GetSignPublicKey(qor::DirectoryDn(Engine(), name).Get(), key, length);
    });
}

int GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    return Connected([&] {
        return Engine().GetCryptPrivateKey(qor::DirectoryDn(Engine(), name).Get(), key, length);
    });
}

int GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    return Connected([&] {
        return Engine().GetCryptPublicKey(qor::DirectoryDn(Engine(), name).Get(), key, length);
    });
}

int DeleteSignPrivateKey(char const* dn) {
    return Connected(
        [&] { return Engine().DeleteSignPrivateKey(qor::DirectoryDn(Engine(), dn).Get()); });
}

int DeleteCryptPrivateKey(char const* dn) {
    return Connected(
        [&] { return Engine().DeleteCryptPrivateKey(qor::DirectoryDn(Engine(), dn).Get()); });
}

int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    return Connected([&] {
        int const rc =
            Engine().ModifyPriKeyPsw(qor::DirectoryDn(Engine(), name).Get(), oldPsw, newPsw);
        qor::ToCaller(Engine(), qor::Outcome::OfThread().dn);
        return rc;
    });
}

int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw, char const* keyPsw,
               bool sign, bool publicOnly) {
    return Connected([&] {
        int const rc = Engine().PublishP12(pfx, pfxLength, pfxPsw, keyPsw, sign, publicOnly);
        qor::ToCaller(Engine(), qor::Outcome::OfThread().dn);
        return rc;
    });
}
