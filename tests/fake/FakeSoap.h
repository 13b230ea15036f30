// soap.ini of the fake library's tests.
#ifndef QORLDAP_TESTS_FAKE_FAKESOAP_H
#define QORLDAP_TESTS_FAKE_FAKESOAP_H

#include <string>

namespace qortest {

// The [ldap] section: the keys given win over the defaults after them (one server, port 389,
// the base o=root, bound as cn=admin,o=root).
inline std::string FakeSoap(std::string const& keys = "") {
    return "[ldap]\n" + keys +
           "host=127.0.0.1\nport=389\nbasedn=o=root\nmanagerdn=cn=admin,o=root\npsw=secret\n";
}

}  // namespace qortest

#endif
