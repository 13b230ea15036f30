// The free functions, over one engine that is built when the library is loaded and destroyed
// when it is unloaded or the process exits. All threads share it.
#include "qorldap/LdapIF.h"

#include "engine/LdapOp.h"
#include "interface/ConnectThenRun.h"

namespace {

CLdapOp opLdap;

}  // namespace

int ConnectLdap() {
    return opLdap.ConnectLdap();
}

// Connects first, as every operation of this family does; when that fails nothing is released.
void FreeKey(unsigned char* key) {
    if (opLdap.ConnectLdap() != QORLDAP_OK) {
        return;
    }
    opLdap.FreeKey(key);
}

void GetLdapAtt(LdapInfo& info) {
    opLdap.GetLdapAtt(info);
}

void SetLdapAtt(LdapInfo info) {
    opLdap.SetLdapAtt(info);
}

// Every operation connects first, and looks again under the guard that a connection is left.
template <typename Operation>
int Connected(Operation operation) {
    return qor::ConnectThenRun(
        opLdap, [] { return opLdap.ConnectLdap(); }, qor::Recheck::kYes, operation);
}

int GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    return Connected([&] { return opLdap.GetSignPrivateKey(name, key, length); });
}

int GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    return Connected([&] { return opLdap.GetSignPublicKey(name, key, length); });
}

int GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    return Connected([&] { return opLdap.GetCryptPrivateKey(name, key, length); });
}

int GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    return Connected([&] { return opLdap.GetCryptPublicKey(name, key, length); });
}

int DeleteSignPrivateKey(char const* dn) {
    return Connected([&] { return opLdap.DeleteSignPrivateKey(dn); });
}

int DeleteCryptPrivateKey(char const* dn) {
    return Connected([&] { return opLdap.DeleteCryptPrivateKey(dn); });
}

int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    return Connected([&] { return opLdap.ModifyPriKeyPsw(name, oldPsw, newPsw); });
}

int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw, char const* keyPsw,
               bool sign, bool publicOnly) {
    return Connected(
        [&] { return opLdap.PublishP12(pfx, pfxLength, pfxPsw, keyPsw, sign, publicOnly); });
}
