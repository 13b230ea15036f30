// UserCertificate: the copy of a user's encryption certificate in the standard attribute
// userCertificate;binary, where mail clients and other directory users look for the certificate
// to encrypt to (soap.ini user_certificate = yes; off, nothing here is ever sent).
// Owns: nothing; every search result is released before the call returns.
// Promises: the entry's object classes decide, read first with one base search: the copy is
// written only where a class of the entry allows the attribute (inetOrgPerson, pkiUser,
// strongAuthenticationUser), and no class is ever added. The certificate, its key and the copy
// go in one modify request, so that the directory applies all or none.
// Needs: the connection (binding, handle, search).
#ifndef QORLDAP_ENGINE_USERCERTIFICATE_H
#define QORLDAP_ENGINE_USERCERTIFICATE_H

#include "engine/Connection.h"

class UserCertificate {
  public:
    explicit UserCertificate(Connection& connection) : connection_(connection) {}

    // One modify request: certAttribute replaced by the certificate, the encryption key's
    // attribute by key (when key is given), and userCertificate;binary by the certificate when
    // the entry's classes allow it. 0x16000010 for a null dn or an empty certificate (nothing
    // sent); the directory's code for the read of the classes or for the write.
    int Publish(char const* dn, char const* certAttribute, unsigned char const* cert,
                unsigned int certLength, unsigned char const* key, unsigned int keyLength);
    // One modify request removing the encryption key and, where a class merely allows it,
    // userCertificate;binary: without the key nobody should encrypt to the certificate. On an
    // entry whose class requires the attribute (strongAuthenticationUser) it stays. 0x16000010
    // for a null dn (nothing sent); the directory's code otherwise.
    int RemoveKey(char const* dn);

  private:
    enum class Room { kNone, kAllowed, kRequired };
    // What the entry's classes say of userCertificate: 0 with room set, or the search's code.
    int RoomAt(char const* dn, Room& room);

    Connection& connection_;
};

#endif
