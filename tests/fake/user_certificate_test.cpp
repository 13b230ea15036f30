// The requests of user_certificate = yes, through the fake client library: the entry's classes
// are read, then one modify carries the encryption certificate, its key and the copy in
// userCertificate;binary where a class allows it; the removal of the encryption key takes the
// copy with it where a class merely allows it. Off, calls_test.cpp's sequences hold unchanged.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "engine/LdapOp.h"
#include "tests/fake/FakeSoap.h"
#include "tests/fake_ldap/fake_ldap.h"
#include "tests/support/CraftedBundle.h"
#include "tests/support/TestFiles.h"

namespace fakeldap {
namespace {

// Every search answers with this entry, of the given classes (the path's levels exist).
std::vector<Entry> Classes(std::vector<std::string> const& classes) {
    return {{"o=root", {{"o", {"root"}}, {"objectClass", classes}}}};
}

// "search" for the read of the classes, and each modify with its attribute types, in order.
std::string Requests(std::string const& log) {
    std::string found;
    for (size_t at = log.find("ldap_"); at != std::string::npos; at = log.find("\nldap_", at)) {
        at += log[at] == '\n' ? 1 : 0;
        if (log.compare(at, 17, "ldap_search_ext_s") == 0 &&
            log.find("filter=(objectClass=*) attrs=", at) == log.find("filter=", at)) {
            found += "search classes\n";
        } else if (log.compare(at, 13, "ldap_modify_s") == 0) {
            std::string const line = log.substr(at, log.find("ldap_modify_s", at + 1) - at);
            found += "modify";
            for (size_t t = line.find("[op=0x"); t != std::string::npos;
                 t = line.find("[op=0x", t + 1)) {
                size_t const type = line.find(" type=", t) + 6;
                std::string const name = line.substr(type, line.find(' ', type) - type);
                size_t const values = line.find(" vals=", type) + 6;
                found += " " + name + (line[values] == ']' ? "(none)" : "");
            }
            found += "\n";
        }
    }
    return found;
}

class UserCertificateCalls : public ::testing::Test {
  protected:
    UserCertificateCalls() : conf_(dir_.Path()) {
        setenv("QORLDAP_LDAP_LIBRARY", FAKE_LDAP_PATH, 1);
        dir_.Write("soap.ini", qortest::FakeSoap("user_certificate=yes\n"));
        dir_.Write("ldap.ini",
                   "[base]\nsum=2\nA0=organizationalUnit\nA1=qorPerson\n"
                   "[organizationalUnit]\nsum=1\nA0=ou,s,2\n[qorPerson]\nsum=1\nA0=cn,s,2\n");
        Fake().Reset(Classes({"organization"}));
    }
    void TearDown() override {
        EXPECT_EQ(0, std::exchange(Fake().errors, 0)) << Fake().log;
        EXPECT_EQ(0u, std::exchange(Fake().live, {}).size()) << Fake().log;
    }
    qortest::ScratchDir dir_;
    qortest::ConfDir conf_;
};

TEST_F(UserCertificateCalls, PublicationAndRemoval) {
    auto const bundle = qortest::CraftBundle({{"OU", "Sales"}, {"CN", "Li Lei"}}, "pw");
    enum class Op { kCrypt, kCryptPublicOnly, kSign, kRemove };
    struct Case {
        Op op;
        std::vector<std::string> classes;
        char const* requests;  // after the path's own searches
    } const cases[] = {
        {Op::kCrypt,
         {"top", "inetOrgPerson"},
         "search classes\nmodify cryptPubcer;binary cryptPrikey;binary userCertificate;binary\n"},
        {Op::kCrypt,
         {"top", "qorPerson"},
         "search classes\nmodify cryptPubcer;binary cryptPrikey;binary\n"},
        {Op::kCrypt,
         {"qorPerson", "PKIUSER"},
         "search classes\nmodify cryptPubcer;binary cryptPrikey;binary userCertificate;binary\n"},
        {Op::kCryptPublicOnly,
         {"inetOrgPerson"},
         "search classes\nmodify cryptPubcer;binary userCertificate;binary\n"},
        // The signing pair is not copied: its requests are those of the default.
        {Op::kSign, {"inetOrgPerson"}, "modify signPubcer;binary\nmodify signPrikey;binary\n"},
        {Op::kRemove,
         {"inetOrgPerson"},
         "search classes\nmodify cryptPrikey;binary(none) userCertificate;binary(none)\n"},
        // A class that requires the attribute keeps it; none that allows it: not named.
        {Op::kRemove,
         {"inetOrgPerson", "strongAuthenticationUser"},
         "search classes\nmodify cryptPrikey;binary(none)\n"},
        {Op::kRemove, {"qorPerson"}, "search classes\nmodify cryptPrikey;binary(none)\n"},
    };
    for (Case const& c : cases) {
        CLdapOp op;
        ASSERT_EQ(QORLDAP_OK, op.ConnectLdap());
        Fake().Reset(Classes(c.classes));
        int rc = c.op == Op::kRemove
                     ? op.DeleteCryptPrivateKey("cn=li lei, ou=sales, o=root")
                     : op.PublishP12(bundle.bundle.data(), bundle.bundle.size(), "pw", "key",
                                     c.op == Op::kSign, c.op == Op::kCryptPublicOnly);
        EXPECT_EQ(QORLDAP_OK, rc);
        std::string const log = Fake().log;
        std::string requests = Requests(log);
        // The path's searches come first: only what follows the last of them counts.
        size_t const from = requests.rfind("search classes\n");
        if (c.op != Op::kSign && from != std::string::npos)
            requests = requests.substr(from);
        EXPECT_EQ(c.requests, requests) << c.classes.back() << "\n" << log;
    }
}

}  // namespace
}  // namespace fakeldap
