// Shared set-up of the tests that run the engine against the fake client library: a folder
// with soap.ini and ldap.ini, QORLDAP_LDAP_LIBRARY pointing at the fake, and helpers to read
// the fake's log as lines.
#ifndef QORLDAP_TESTS_FAKE_HARNESS_H
#define QORLDAP_TESTS_FAKE_HARNESS_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/LdapOp.h"
#include "tests/fake_ldap/fake_ldap.h"
#include "tests/support/TestFiles.h"

namespace fakeldap {

using Lines = std::vector<std::string>;

// One process-wide control handle on the very file the binding loads.
inline FakeLdap& Fake() {
    static FakeLdap fake(FAKE_LDAP_PATH);
    return fake;
}

// Sets an environment variable; the old value comes back with the object's end.
class EnvVar {
  public:
    EnvVar(char const* name, char const* value) : name_(name) {
        char const* old = getenv(name);
        had_ = old != nullptr;
        if (had_)
            old_ = old;
        Set(value);
    }
    ~EnvVar() {
        if (had_) {
            setenv(name_.c_str(), old_.c_str(), 1);
        } else {
            unsetenv(name_.c_str());
        }
    }
    void Set(char const* value) { setenv(name_.c_str(), value, 1); }

  private:
    std::string name_;
    bool had_ = false;
    std::string old_;
};

inline char const kSoapIni[] =
    "[ldap]\nhost=127.0.0.1\nport=389\nbasedn=o=root\nmanagerdn=cn=admin,o=root\npsw=secret\n";
inline char const kLdapIni[] =
    "[base]\nsum=2\nA0=organizationalUnit\nA1=qorPerson\n"
    "[organizationalUnit]\nsum=1\nA0=ou,s,2\n"
    "[qorPerson]\nsum=1\nA0=cn,s,2\n";

// The log line of a search with everything but base, scope and filter left at its default.
inline std::string SearchLine(std::string const& base, int scope, std::string const& filter) {
    return "ldap_search_ext_s base=" + base + " scope=" + std::to_string(scope) +
           " filter=" + filter +
           " attrs=null attrsonly=0 sctrls=null cctrls=null timeout=null sizelimit=0";
}

// The calls that read one attribute during a walk with the text or binary value getter.
inline Lines AttrRead(std::string const& name, int values, bool binary) {
    std::string get = binary ? "ldap_get_values_len" : "ldap_get_values";
    return {get + " attr=" + name + " -> " + std::to_string(values),
            binary ? "ldap_value_free_len" : "ldap_value_free", "ldap_memfree"};
}

inline Lines operator+(Lines a, Lines const& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class FakeTest : public ::testing::Test {
  protected:
    FakeTest() : conf_(dir_.Path()), library_("QORLDAP_LDAP_LIBRARY", FAKE_LDAP_PATH) {
        dir_.Write("soap.ini", kSoapIni);
        dir_.Write("ldap.ini", kLdapIni);
        Fake().reset();
    }
    // No double release, foreign pointer or call on a wrong handle in any test.
    void TearDown() override { EXPECT_EQ(0, Fake().errors()) << Fake().log(); }

    static void ScriptBaseEntry() {
        Fake().add_entry("o=root");
        Fake().add_value("o", "root");
        Fake().add_value("objectClass", "organization");
    }

    // An engine that has connected; the fake is reset afterwards, so a test sees only the calls
    // and result sets of the operation it runs.
    std::unique_ptr<CLdapOp> Connected() {
        ScriptBaseEntry();
        std::unique_ptr<CLdapOp> op(new CLdapOp());
        EXPECT_EQ(QORLDAP_OK, op->ConnectLdap()) << Fake().log();
        EXPECT_EQ(0, Fake().errors()) << Fake().log();
        Fake().reset();
        return op;
    }

    qortest::ScratchDir dir_;
    qortest::ConfDir conf_;
    EnvVar library_;
};

}  // namespace fakeldap

#endif
