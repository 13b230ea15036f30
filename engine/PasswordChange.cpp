// Re-protecting a user's two stored private keys under a new password.
#include "engine/PasswordChange.h"

#include "engine/KeyProtect.h"
#include "engine/Outcome.h"
#include "platform/Crypto.h"
#include "platform/WipedBuffer.h"
#include "qorldap/result_codes.h"

// One key: read, open with the old password, protect under the new one, write back. A key the
// entry lacks reads as empty and is refused by the decryption: 0x16000012 with nothing written
// for it, never a protected empty key. The conversion is handed the key that decryption
// produced, at the length decryption reports; it refuses an empty new password, so such a
// change gives 0x16000013 before anything is written.
int PasswordChange::ReprotectKey(std::string const& dn, char const* oldPsw, char const* newPsw,
                                 Get get, Put put) {
    unsigned char* read = nullptr;
    unsigned int length = 0;
    int rc = (keys_.*get)(dn.c_str(), read, length);
    // Whatever the read hands back (array new) goes with the buffer, wiped: after decryption
    // it holds the private key in the clear.
    WipedBuffer stored(read, length);
    if (rc != QORLDAP_OK) {
        return rc;
    }
    unsigned int plainLength = length;
    qor::Outcome& outcome = qor::Outcome::OfThread();
    char const* const which = get == &KeyStore::GetCryptPrivateKey ? "encryption" : "signing";
    if (stored.Data() == nullptr || length == 0) {
        outcome.Refuse(QORLDAP_REFUSED_NO_STORED_KEY,
                       std::string("the entry holds no ") + which + " private key");
        return QORLDAP_E_OLD_PASSWORD;
    }
    if (DecryptKey(stored.Data(), plainLength, oldPsw) != 0) {
        outcome.Refuse(QORLDAP_REFUSED_OLD_PASSWORD,
                       std::string("the old password does not open the ") + which + " private key");
        return QORLDAP_E_OLD_PASSWORD;
    }
    WipedBuffer converted;
    rc = qor::ProtectKey(stored.Data(), plainLength, newPsw, converted);
    if (rc != QORLDAP_OK) {
        outcome.Refuse(QORLDAP_REFUSED_EMPTY_PASSWORD, "the new password is empty");
        return rc;
    }
    return (keys_.*put)(dn.c_str(), converted.Data(), static_cast<unsigned int>(converted.Size()));
}

// The encryption key first, and the signing key only once the encryption key is written.
// Nothing is undone: a failure on the signing key leaves the encryption key re-protected.
int PasswordChange::ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    std::string dn;
    qor::Outcome::OfThread().Reset();
    int rc = users_.GetFullDN(name, dn);
    if (rc != QORLDAP_OK) {
        return rc;
    }
    qor::Outcome::OfThread().dn = dn;
    if (oldPsw == nullptr || newPsw == nullptr) {
        return QORLDAP_E_FAILED;
    }
    rc = ReprotectKey(dn, oldPsw, newPsw, &KeyStore::GetCryptPrivateKey,
                      &KeyStore::ModifyCryptPrivateKey);
    if (rc != QORLDAP_OK) {
        return rc;
    }
    return ReprotectKey(dn, oldPsw, newPsw, &KeyStore::GetSignPrivateKey,
                        &KeyStore::ModifySignPrivateKey);
}
