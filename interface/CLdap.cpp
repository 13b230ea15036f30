// CLdap: an engine per object, connected on demand and remembered once connected.
#include "qorldap/CLdap.h"

#include "engine/LdapOp.h"
#include "engine/Outcome.h"
#include "interface/CallerDn.h"
#include "interface/ConnectThenRun.h"

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
    // A lost connection (only noticed when reconnection is on) counts as not connected, and so
    // does one that idle_check or failback is to look at.
    if (!connected || engine->ConnectDue()) {
        if (engine->ConnectLdap() != QORLDAP_OK) {
            connected = false;
            return QORLDAP_E_FAILED;
        }
        connected = true;
    }
    return QORLDAP_OK;
}

namespace {

// Members connect on demand; see CLdap::Connected.
template <typename Operation>
int OnDemand(CLdap& self, CLdapOp& engine, int (CLdap::*connected)(), Operation operation) {
    return qor::ConnectThenRun(
        engine, [&] { return (self.*connected)(); }, qor::Recheck::kNo, operation);
}

}  // namespace

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
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->ModifySignPrivateKey(qor::DirectoryDn(*engine, dn).Get(), key, length);
    });
}

int CLdap::ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->ModifySignPublicKey(qor::DirectoryDn(*engine, dn).Get(), key, length);
    });
}

int CLdap::ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->ModifyCryptPrivateKey(qor::DirectoryDn(*engine, dn).Get(), key, length);
    });
}

int CLdap::ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->ModifyCryptPublicKey(qor::DirectoryDn(*engine, dn).Get(), key, length);
    });
}

int CLdap::GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->GetSignPrivateKey(qor::DirectoryDn(*engine, name).Get(), key, length);
    });
}

int CLdap::GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->GetSignPublicKey(qor::DirectoryDn(*engine, name).Get(), key, length);
    });
}

int CLdap::GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->GetCryptPrivateKey(qor::DirectoryDn(*engine, name).Get(), key, length);
    });
}

int CLdap::GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->GetCryptPublicKey(qor::DirectoryDn(*engine, name).Get(), key, length);
    });
}

int CLdap::DeleteSignPrivateKey(char const* dn) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->DeleteSignPrivateKey(qor::DirectoryDn(*engine, dn).Get());
    });
}

int CLdap::DeleteCryptPrivateKey(char const* dn) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->DeleteCryptPrivateKey(qor::DirectoryDn(*engine, dn).Get());
    });
}

int CLdap::ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        int const rc =
            engine->ModifyPriKeyPsw(qor::DirectoryDn(*engine, name).Get(), oldPsw, newPsw);
        qor::ToCaller(*engine, qor::Outcome::OfThread().dn);
        return rc;
    });
}

int CLdap::SelectLdap(char const* dn, tagAtt& att) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        int const rc = engine->SelectLdapAtt(qor::DirectoryDn(*engine, dn).Get(), att);
        if (rc == QORLDAP_OK) {
            qor::ToCaller(*engine, att);
        }
        return rc;
    });
}

int CLdap::SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        int const rc =
            engine->SelectLdap(qor::DirectoryDn(*engine, dn).Get(), condition, list, count);
        if (rc == QORLDAP_OK) {
            qor::ToCaller(*engine, list, count);
        }
        return rc;
    });
}

int CLdap::InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                      unsigned int passwordLength, unsigned char* publicKey,
                      unsigned int publicKeyLength, unsigned char* privateKey,
                      unsigned int privateKeyLength) {
    return OnDemand(*this, *engine, &CLdap::Connected, [&] {
        return engine->InsertLdap(qor::DirectoryDn(*engine, dn).Get(), att, crypt, password,
                                  passwordLength, publicKey, publicKeyLength, privateKey,
                                  privateKeyLength);
    });
}

int CLdap::ModifyLdap(char const* dn, tagAtt const& att) {
    return OnDemand(*this, *engine, &CLdap::Connected,
                    [&] { return engine->ModifyLdap(qor::DirectoryDn(*engine, dn).Get(), att); });
}

int CLdap::DeleteLdap(char const* dn) {
    return OnDemand(*this, *engine, &CLdap::Connected,
                    [&] { return engine->DeleteLdap(qor::DirectoryDn(*engine, dn).Get()); });
}

void CLdap::FreeAtt(tagAtt* att) {
    engine->FreeAtt(att);
}

void CLdap::FreeDN(tagDN* list, int count) {
    engine->FreeDN(list, count);
}
