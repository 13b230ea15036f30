// CLdap: an engine per object, connected on demand and remembered once connected.
#include "qorldap/CLdap.h"

#include "engine/LdapOp.h"

CLdap::CLdap() : engine(nullptr), connected(false) {
    engine = new CLdapOp();
}

// The connection is not closed; the engine goes with the object.
CLdap::~CLdap() {
    if (engine != nullptr) {
        delete engine;
        engine = nullptr;
    }
}

// A failed attempt leaves the object unconnected, and the next operation tries again.
int CLdap::Connected() {
    // A lost connection (only noticed when reconnection is on) counts as not connected.
    if (!connected || engine->NeedsReconnect()) {
        if (engine->ConnectLdap() != QORLDAP_OK) {
            connected = false;
            return QORLDAP_E_FAILED;
        }
        connected = true;
    }
    return QORLDAP_OK;
}

#define QOR_ON_DEMAND(call)                    \
    do {                                       \
        if (Connected() != QORLDAP_OK) {       \
            return QORLDAP_E_FAILED;           \
        }                                      \
        auto inUse = engine->GuardOperation(); \
        return engine->call;                   \
    } while (0)

int CLdap::ConnectLdap() {
    int rc = engine->ConnectLdap();
    connected = rc == QORLDAP_OK;
    return rc;
}

void CLdap::FreeKey(unsigned char*& key) {
    engine->FreeKey(key);
}

void CLdap::GetLdapAtt(LdapInfo& info) {
    engine->GetLdapAtt(info);
}

void CLdap::SetLdapAtt(LdapInfo info) {
    engine->SetLdapAtt(info);
}

int CLdap::ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    QOR_ON_DEMAND(ModifySignPrivateKey(dn, key, length));
}

int CLdap::ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    QOR_ON_DEMAND(ModifySignPublicKey(dn, key, length));
}

int CLdap::ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    QOR_ON_DEMAND(ModifyCryptPrivateKey(dn, key, length));
}

int CLdap::ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    QOR_ON_DEMAND(ModifyCryptPublicKey(dn, key, length));
}

int CLdap::GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    QOR_ON_DEMAND(GetSignPrivateKey(name, key, length));
}

int CLdap::GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    QOR_ON_DEMAND(GetSignPublicKey(name, key, length));
}

int CLdap::GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    QOR_ON_DEMAND(GetCryptPrivateKey(name, key, length));
}

int CLdap::GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    QOR_ON_DEMAND(GetCryptPublicKey(name, key, length));
}

int CLdap::DeleteSignPrivateKey(char const* dn) {
    QOR_ON_DEMAND(DeleteSignPrivateKey(dn));
}

int CLdap::DeleteCryptPrivateKey(char const* dn) {
    QOR_ON_DEMAND(DeleteCryptPrivateKey(dn));
}

int CLdap::ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    QOR_ON_DEMAND(ModifyPriKeyPsw(name, oldPsw, newPsw));
}

int CLdap::SelectLdap(char const* dn, tagAtt& att) {
    QOR_ON_DEMAND(SelectLdapAtt(dn, att));
}

int CLdap::SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count) {
    QOR_ON_DEMAND(SelectLdap(dn, condition, list, count));
}

int CLdap::InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                      unsigned int passwordLength, unsigned char* publicKey,
                      unsigned int publicKeyLength, unsigned char* privateKey,
                      unsigned int privateKeyLength) {
    QOR_ON_DEMAND(InsertLdap(dn, att, crypt, password, passwordLength, publicKey, publicKeyLength,
                             privateKey, privateKeyLength));
}

int CLdap::ModifyLdap(char const* dn, tagAtt const& att) {
    QOR_ON_DEMAND(ModifyLdap(dn, att));
}

int CLdap::DeleteLdap(char const* dn) {
    QOR_ON_DEMAND(DeleteLdap(dn));
}

void CLdap::FreeAtt(tagAtt* att) {
    engine->FreeAtt(att);
}

void CLdap::FreeDN(tagDN* list, int count) {
    engine->FreeDN(list, count);
}
