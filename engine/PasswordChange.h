// PasswordChange: re-protecting a user's two stored private keys under a new password.
// Owns: nothing; each key in the clear lives only in a wiped buffer for the span of the call.
// Promises: the encryption key first, the signing key only once the encryption key is written;
// nothing is undone. The thread's outcome (engine/Outcome.h) says which entry was reached and
// why a key was refused.
// Needs: the user lookup (the entry of the name) and the key store (read and write each key);
// the crypto layer opens and protects the keys.
#ifndef QORLDAP_ENGINE_PASSWORDCHANGE_H
#define QORLDAP_ENGINE_PASSWORDCHANGE_H

#include <string>

#include "engine/KeyStore.h"
#include "engine/UserLookup.h"

class PasswordChange {
  public:
    PasswordChange(UserLookup& users, KeyStore& keys) : users_(users), keys_(keys) {}

    // See the free function ModifyPriKeyPsw (qorldap/LdapIF.h).
    int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw);

  private:
    // Re-protects one stored private key: get reads it, put writes it back.
    using Get = int (KeyStore::*)(char const*, unsigned char*&, unsigned int&);
    using Put = int (KeyStore::*)(char const*, unsigned char const*, unsigned int);
    int ReprotectKey(std::string const& dn, char const* oldPsw, char const* newPsw, Get get,
                     Put put);

    UserLookup& users_;
    KeyStore& keys_;
};

#endif
