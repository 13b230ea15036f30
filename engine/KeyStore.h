// KeyStore: the key and certificate attributes of a user's entry. One replace per write (two in
// one request for a pair), one base search per read; values are opaque octets.
// Owns: nothing; what a read hands out is array new, released with CLdapOp::FreeKey.
// Promises: a write with a null argument or an empty value sends nothing (0x16000010); the
// directory's code comes back otherwise. A read clears its outputs first and takes the first
// value of exactly the attribute asked for.
// Needs: the connection (binding, handle, search), naming (a read's name must be a user's
// name, GetCondition), and the certificate flag, which names the public-key attributes.
#ifndef QORLDAP_ENGINE_KEYSTORE_H
#define QORLDAP_ENGINE_KEYSTORE_H

#include "engine/Connection.h"
#include "engine/Constants.h"
#include "engine/Naming.h"

class KeyStore {
  public:
    KeyStore(Connection& connection, Naming const& naming, bool const& certificates)
        : connection_(connection), naming_(naming), certificates_(certificates) {}

    // The attribute of the signing (sign) or encryption public key: the certificate attribute
    // while the certificate flag is set, as it always is, the bare public key otherwise.
    char const* PublicKeyAttribute(bool sign) const {
        return ::PublicKeyAttribute(sign, certificates_);
    }

    // Replaces attribute's values with one value. 0x16000010 for a null argument or an empty
    // value (nothing sent); else the directory's code.
    int ModifyKey(char const* dn, char const* attribute, unsigned char const* value,
                  unsigned int length);
    int ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    // One modify request replacing two binary attributes with one value each: the directory
    // applies both or neither. 0x16000010 for a null dn or an empty value (nothing sent).
    int ReplacePair(char const* dn, char const* first, unsigned char const* firstValue,
                    unsigned int firstLength, char const* second, unsigned char const* secondValue,
                    unsigned int secondLength);
    // A replace with no values: 0 when the key is gone (present or not); 0x16000010 for a null
    // dn (nothing sent); else the directory's code.
    int DeleteSignPrivateKey(char const* dn);
    int DeleteCryptPrivateKey(char const* dn);
    // As GetKeyOP with the matching attribute.
    int GetSignPrivateKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetSignPublicKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetCryptPrivateKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetCryptPublicKey(char const* dn, unsigned char*& key, unsigned int& length);
    // value null and length 0 first, whatever follows. 0 with value new (or still null when
    // the entry lacks the attribute); 0x16000010 name refused (nothing sent); 0x16000015 the
    // search failed.
    int GetKeyOP(char const* name, char const* attribute, unsigned char*& value,
                 unsigned int& length);
    // value null and length 0 first. 0 with value new, or null when absent; 0x16000010 for a
    // null argument, an over-long attribute name or a failed search.
    int GetEachKey(char const* dn, char const* attribute, unsigned char*& value,
                   unsigned int& length);

  private:
    int ReplaceBinary(char const* dn, char const* attribute, berval** values);
    // Removes a private-key attribute: a replace with no values.
    int RemoveKey(char const* dn, char const* attribute);

    Connection& connection_;
    Naming const& naming_;
    bool const& certificates_;
};

#endif
