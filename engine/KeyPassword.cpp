// Re-protecting a user's two stored private keys under a new password.
#include <string.h>

#include <memory>

#include "engine/LdapOp.h"
#include "platform/Crypto.h"

namespace {

// A key buffer released with array delete on every path, wiped first: after decryption it
// holds a private key in the clear.
struct KeyBuffer {
    unsigned char* data = nullptr;
    unsigned int size = 0;
    ~KeyBuffer() {
        if (data != nullptr) {
            explicit_bzero(data, size);
        }
        delete[] data;
    }
};

}  // namespace

// One key: read, open with the old password, protect under the new one, write back. A key the
// entry lacks reads as empty and is refused by the decryption: 0x16000012 with nothing written
// for it, never a protected empty key. The conversion is handed the key that decryption
// produced, at the length decryption reports; it refuses an empty new password, so such a
// change gives 0x16000013 before anything is written.
template <typename Get, typename Put>
int CLdapOp::ReprotectKey(std::string const& dn, char const* oldPsw, char const* newPsw, Get get,
                          Put put) {
    KeyBuffer stored;
    unsigned int length = 0;
    int rc = (this->*get)(dn.c_str(), stored.data, length);
    stored.size = length;
    if (rc != QORLDAP_OK) {
        return rc;
    }
    unsigned int plainLength = length;
    if (stored.data == nullptr || length == 0 ||
        DecryptKey(stored.data, plainLength, oldPsw) != 0) {
        return QORLDAP_E_OLD_PASSWORD;
    }
    unsigned int size = 0;
    if (!Convert2Key(stored.data, plainLength, newPsw, nullptr, size) || size == 0) {
        return QORLDAP_E_KEY_CONVERT;
    }
    KeyBuffer converted;
    converted.data = new unsigned char[size];
    converted.size = size;
    if (!Convert2Key(stored.data, plainLength, newPsw, converted.data, size)) {
        return QORLDAP_E_KEY_CONVERT;
    }
    return (this->*put)(dn.c_str(), converted.data, size);
}

// The encryption key first, and the signing key only once the encryption key is written.
// Nothing is undone: a failure on the signing key leaves the encryption key re-protected.
int CLdapOp::ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    std::string dn;
    int rc = GetFullDN(name, dn);
    if (rc != QORLDAP_OK) {
        return rc;
    }
    if (oldPsw == nullptr || newPsw == nullptr) {
        return QORLDAP_E_FAILED;
    }
    rc = ReprotectKey(dn, oldPsw, newPsw, &CLdapOp::GetCryptPrivateKey,
                      &CLdapOp::ModifyCryptPrivateKey);
    if (rc != QORLDAP_OK) {
        return rc;
    }
    return ReprotectKey(dn, oldPsw, newPsw, &CLdapOp::GetSignPrivateKey,
                        &CLdapOp::ModifySignPrivateKey);
}
