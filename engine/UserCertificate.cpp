// The encryption certificate copied to userCertificate;binary, and removed with its key.
#include "engine/UserCertificate.h"

#include <strings.h>

#include "engine/Constants.h"
#include "engine/SearchResult.h"
#include "qorldap/result_codes.h"

namespace {

// The classes of the standard schemas whose entries may hold userCertificate (RFC 4519,
// RFC 4523, RFC 2798), and the one of them that requires it.
char const* const kAllowing[] = {"inetOrgPerson", "pkiUser", "strongAuthenticationUser"};
char const kRequiring[] = "strongAuthenticationUser";

berval Octets(unsigned char const* value, unsigned int length) {
    berval bv;
    bv.bv_len = length;
    bv.bv_val = reinterpret_cast<char*>(const_cast<unsigned char*>(value));
    return bv;
}

}  // namespace

int UserCertificate::RoomAt(char const* dn, Room& room) {
    room = Room::kNone;
    char classText[] = "objectClass";
    char* wanted[2] = {classText, nullptr};
    COpenLdapIF& binding = connection_.Binding();
    SearchResult result(binding, connection_.Handle());
    int const rc = connection_.Search(dn, LDAP_SCOPE_BASE, LDAP_ANY_ENTRY, result, wanted);
    if (rc != 0) {
        return rc;
    }
    ldapmsg* const entry = binding.LdapFirstEnry(result.Handle(), result.Chain());
    if (entry == nullptr) {
        return LDAP_NO_SUCH_OBJECT;
    }
    TextValues classes(binding, result.Handle(), entry, classText);
    for (char** v = classes.get(); v != nullptr && *v != nullptr; ++v) {
        for (char const* allowing : kAllowing) {
            if (strcasecmp(*v, allowing) == 0 && room == Room::kNone) {
                room = Room::kAllowed;
            }
        }
        if (strcasecmp(*v, kRequiring) == 0) {
            room = Room::kRequired;
        }
    }
    return QORLDAP_OK;
}

int UserCertificate::Publish(char const* dn, char const* certAttribute, unsigned char const* cert,
                             unsigned int certLength, unsigned char const* key,
                             unsigned int keyLength) {
    if (dn == nullptr || certAttribute == nullptr || cert == nullptr || certLength == 0 ||
        (key != nullptr && keyLength == 0)) {
        return QORLDAP_E_FAILED;
    }
    Room room = Room::kNone;
    int const rc = RoomAt(dn, room);
    if (rc != QORLDAP_OK) {
        return rc;
    }
    berval certBv = Octets(cert, certLength);
    berval keyBv = Octets(key, keyLength);
    berval* certValues[2] = {&certBv, nullptr};
    berval* keyValues[2] = {&keyBv, nullptr};
    LDAPMod mods[3];
    ldapmod* list[4] = {};
    int n = 0;
    auto replace = [&](char const* attribute, berval** values) {
        mods[n].mod_op = QOR_MOD_BINARY_REPLACE;
        mods[n].mod_type = const_cast<char*>(attribute);
        mods[n].mod_bvalues = values;
        list[n] = &mods[n];
        ++n;
    };
    // The certificate first, then the key, as a publication without the copy writes them.
    replace(certAttribute, certValues);
    if (key != nullptr) {
        replace(LDAP_PERSON_EN_PRI, keyValues);
    }
    if (room != Room::kNone) {
        replace(LDAP_USER_CERTIFICATE, certValues);
    }
    return connection_.Binding().LdapModifyS(connection_.Handle(), dn, list);
}

int UserCertificate::RemoveKey(char const* dn) {
    if (dn == nullptr) {
        return QORLDAP_E_FAILED;
    }
    Room room = Room::kNone;
    int const rc = RoomAt(dn, room);
    if (rc != QORLDAP_OK) {
        return rc;
    }
    // Replaces with no values: they remove an attribute and succeed when it is absent.
    berval* none[1] = {nullptr};
    LDAPMod mods[2];
    mods[0].mod_op = QOR_MOD_BINARY_REPLACE;
    mods[0].mod_type = const_cast<char*>(LDAP_PERSON_EN_PRI);
    mods[0].mod_bvalues = none;
    mods[1] = mods[0];
    mods[1].mod_type = const_cast<char*>(LDAP_USER_CERTIFICATE);
    ldapmod* list[3] = {&mods[0], room == Room::kAllowed ? &mods[1] : nullptr, nullptr};
    return connection_.Binding().LdapModifyS(connection_.Handle(), dn, list);
}
