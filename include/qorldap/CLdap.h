// CLdap: one engine of its own per object, with its own settings (read from "soap.ini" and
// "ldap.ini" when the object is built) and its own connection. Operations connect on demand;
// a connection that cannot be made gives 0x16000010 and is tried again on the next call.
// One object is used by one thread at a time; different objects share nothing.
#ifndef QORLDAP_CLDAP_H
#define QORLDAP_CLDAP_H

#include "qorldap/export.h"
#include "qorldap/records.h"
#include "qorldap/result_codes.h"

class CLdapOp;

class QORLDAP_API CLdap {
  public:
    CLdap();
    ~CLdap();
    CLdap(CLdap const&) = delete;
    CLdap& operator=(CLdap const&) = delete;

    // Connects whatever the object remembers: 0, 0x16000010, or 0x16000011 (base entry).
    int ConnectLdap();
    // These three need no connection.
    void FreeKey(unsigned char*& key);  // releases the buffer and sets key to null
    void GetLdapAtt(LdapInfo& info);
    void SetLdapAtt(LdapInfo info);

    // Key writes replace the attribute's values with this one value. 0x16000010 for a null or
    // empty value (nothing sent), else the directory's result code.
    int ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    // Key reads: as the free functions of the same names.
    int GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length);
    int GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length);
    int GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length);
    int GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length);
    int DeleteSignPrivateKey(char const* dn);
    int DeleteCryptPrivateKey(char const* dn);
    int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw);

    // Selects one entry. Pass a record with items null and itemCount 0. On 0, itemCount > 0
    // means found: items holds the attribute names (release with FreeAtt), and objectClass,
    // namingAtt and the template numbers come from the template the entry's class names.
    int SelectLdap(char const* dn, tagAtt& att);
    // Lists the direct children holding an ou or a cn. On 0, count is set and, when positive,
    // list is a new array (release with FreeDN); condition is not read.
    int SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count);
    // Adds an entry with the record's items and objectClass, plus the binary values that are at
    // least 2 bytes long. crypt selects the encryption key attributes. 0 or 0x16000010.
    int InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                   unsigned int passwordLength, unsigned char* publicKey,
                   unsigned int publicKeyLength, unsigned char* privateKey,
                   unsigned int privateKeyLength);
    // Replaces each non-empty item's values and objectClass; the directory's result code.
    int ModifyLdap(char const* dn, tagAtt const& att);
    // Deletes one entry (a leaf); the directory's result code.
    int DeleteLdap(char const* dn);

    void FreeAtt(tagAtt* att);            // releases items; itemCount becomes 0
    void FreeDN(tagDN* list, int count);  // releases a child list; count is not used

  private:
    QORLDAP_LOCAL int Connected();

    CLdapOp* engine;
    bool connected;
};

#endif
