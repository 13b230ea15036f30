// The free functions, over one engine that is built when the library is loaded and destroyed
// when it is unloaded or the process exits. All threads share it.
#include "qorldap/LdapIF.h"

#include "engine/LdapOp.h"

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

// With reconnection on, the operation holds the engine's guard, so that another thread cannot
// release the connection under it, and finds out under the guard whether a connection is left.
#define QOR_CONNECTED_CALL(call)                  \
    do {                                          \
        if (opLdap.ConnectLdap() != QORLDAP_OK) { \
            return QORLDAP_E_FAILED;              \
        }                                         \
        auto inUse = opLdap.GuardOperation();     \
        if (!opLdap.HasConnection()) {            \
            return QORLDAP_E_FAILED;              \
        }                                         \
        return opLdap.call;                       \
    } while (0)

int GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    QOR_CONNECTED_CALL(GetSignPrivateKey(name, key, length));
}

int GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    QOR_CONNECTED_CALL(GetSignPublicKey(name, key, length));
}

int GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    QOR_CONNECTED_CALL(GetCryptPrivateKey(name, key, length));
}

int GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    QOR_CONNECTED_CALL(GetCryptPublicKey(name, key, length));
}

int DeleteSignPrivateKey(char const* dn) {
    QOR_CONNECTED_CALL(DeleteSignPrivateKey(dn));
}

int DeleteCryptPrivateKey(char const* dn) {
    QOR_CONNECTED_CALL(DeleteCryptPrivateKey(dn));
}

int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    QOR_CONNECTED_CALL(ModifyPriKeyPsw(name, oldPsw, newPsw));
}

int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw, char const* keyPsw,
               bool sign, bool publicOnly) {
    QOR_CONNECTED_CALL(PublishP12(pfx, pfxLength, pfxPsw, keyPsw, sign, publicOnly));
}
