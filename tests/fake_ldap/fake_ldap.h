// The fake client library of the tests (fake_ldap.cpp), as a test scripts and reads it: the test
// program links the library, and the binding loads the very same file.
#ifndef QORLDAP_TESTS_FAKE_LDAP_H
#define QORLDAP_TESTS_FAKE_LDAP_H

#include <map>
#include <string>
#include <vector>

#define FAKE_LDAP_API __attribute__((visibility("default")))

namespace fakeldap {

struct Entry {
    std::string dn;
    std::vector<std::pair<std::string, std::vector<std::string>>> attributes;  // with values
};
using Fails = std::multimap<std::string, int>;

struct State {
    std::string log;                   // a line a call, values as they are; "ERROR": a misuse
    std::vector<Entry> entries;        // the result of every search
    Fails fails;                       // function, code of its next call (of ldap_init: no handle)
    std::map<void const*, char> live;  // handed out (handles aside), not released, by kind
    int errors = 0;                    // misuses

    // A new log, and the entries and failures of the next calls.
    void Reset(std::vector<Entry> e = {}, Fails f = {}) { log.clear(), entries = e, fails = f; }
};

FAKE_LDAP_API State& Fake();

}  // namespace fakeldap

#endif
