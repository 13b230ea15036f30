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

    // Connects whatever the object remembers: 0, 0x16000010 (no connection, or a link key in
    // soap.ini that does not read), or 0x16000011 (base entry missing, cannot be created).
    // Any other member connects on demand first; when that fails it returns 0x16000010, sends
    // nothing and leaves every output untouched.
    int ConnectLdap();
    // These three need no connection.
    void FreeKey(unsigned char*& key);  // releases the buffer and sets key to null
    void GetLdapAtt(LdapInfo& info);    // copies the settings in force into info
    void SetLdapAtt(LdapInfo info);     // replaces them; see the free function of that name

    // Key writes replace the attribute's values with this one value. 0 when written.
    // 0x16000010: dn or key null, or length 0; nothing sent. Else the directory's code (32: no
    // such entry; -1 or -5: the outcome is unknown, see README).
    int ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    // Key reads, key removal and the password change: outputs and codes exactly as the free
    // functions of the same names (qorldap/LdapIF.h), on this object's engine.
    int GetSignPrivateKey(char const* name, unsigned char*& key, unsigned int& length);
    int GetSignPublicKey(char const* name, unsigned char*& key, unsigned int& length);
    int GetCryptPrivateKey(char const* name, unsigned char*& key, unsigned int& length);
    int GetCryptPublicKey(char const* name, unsigned char*& key, unsigned int& length);
    int DeleteSignPrivateKey(char const* dn);
    int DeleteCryptPrivateKey(char const* dn);
    int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw);

    // Selects one entry. Pass a record with items null and itemCount 0.
    // 0, found: items holds the attribute names (release with FreeAtt), itemCount their number,
    // dn and parentDn are set, and objectClass, namingAtt and the template numbers come from
    // the template the entry's class names.
    // 0, nothing found (no such entry, or no class): att is all zero.
    // 0, the search itself failed (server down, no access): att.dn and att.parentDn are
    // emptied, the rest is left as it was; itemCount 0 tells it from a find.
    // 0x16000010: dn null or over 255 characters, or its first type does not make a filter;
    // att untouched, nothing sent.
    int SelectLdap(char const* dn, tagAtt& att);
    // Lists the direct children holding an ou or a cn; condition is not read.
    // 0: count is the number of children; when positive, list is a new array of them (release
    // with FreeDN), otherwise list is left untouched.
    // 0x16000010: dn null, empty or over 255 characters (nothing sent), or the search failed;
    // list and count untouched.
    int SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count);
    // Adds an entry with the record's items and objectClass, plus the binary values that are at
    // least 2 bytes long; crypt selects the encryption key attributes. 0 when added;
    // 0x16000010 when dn is null (nothing sent) or the directory refused the add.
    int InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                   unsigned int passwordLength, unsigned char* publicKey,
                   unsigned int publicKeyLength, unsigned char* privateKey,
                   unsigned int privateKeyLength);
    // Replaces each non-empty item's values and objectClass. 0x16000010 for a null dn (nothing
    // sent); otherwise the directory's code.
    int ModifyLdap(char const* dn, tagAtt const& att);
    // Deletes one entry (a leaf). 0x16000010 for a null dn (nothing sent); otherwise the
    // directory's code (66: the entry has children).
    int DeleteLdap(char const* dn);

    void FreeAtt(tagAtt* att);            // releases items; itemCount becomes 0; null is ignored
    void FreeDN(tagDN* list, int count);  // releases a child list; count is not used

  private:
    QORLDAP_LOCAL int Connected();

    CLdapOp* engine;
    bool connected;
};

#endif
