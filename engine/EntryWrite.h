// EntryWriter: inserting, modifying and deleting whole entries.
// Owns: nothing; each request is built in storage of its own for the span of the synchronous
// call, and what it prepared is released before the call returns.
// Promises: InsertLdap gives 0 or 0x16000010; ModifyLdap and DeleteLdap pass the directory's
// code on; a null dn sends nothing (0x16000010). A caller's field that holds no NUL is skipped.
// Needs: the connection (binding and handle), text modification records (Modification.h), and
// the certificate flag, which names the public-key attribute an insert writes.
#ifndef QORLDAP_ENGINE_ENTRYWRITE_H
#define QORLDAP_ENGINE_ENTRYWRITE_H

#include "engine/Connection.h"
#include "qorldap/records.h"

struct WholeEntry;  // engine/EntryRead.h

class EntryWriter {
  public:
    EntryWriter(Connection& connection, bool const& certificates)
        : connection_(connection), certificates_(certificates) {}

    // 0 added; 0x16000010 for a null dn (nothing sent) or any refusal by the directory. The
    // texts go first (items, then objectClass), then the private key, the password value and
    // the public key, each only with 2 bytes or more.
    int InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                   unsigned int passwordLength, unsigned char* publicKey,
                   unsigned int publicKeyLength, unsigned char* privateKey,
                   unsigned int privateKeyLength);
    // The directory's code; 0x16000010 for a null dn (nothing sent). Sent even when no value
    // was accepted.
    int ModifyLdap(char const* dn, tagAtt const& att);
    int DeleteLdap(char const* dn);
    // One request for the whole of entry (its dn is not read): an add of every attribute when
    // add, else a modify replacing each attribute's values (none: the attribute goes). Values
    // go as octets, names as given. The directory's code; 0x16000010 for a null dn (nothing
    // sent). The caller has checked the rest (qorldap/Write.h).
    int WriteWhole(char const* dn, bool add, WholeEntry const& entry);

  private:
    Connection& connection_;
    bool const& certificates_;
};

#endif
