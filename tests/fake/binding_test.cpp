// The binding's loading of the client library: a missing file or entry point, a library that
// appears later, and one handle per binding object.
#include "tests/fake/FakeHarness.h"

namespace fakeldap {
namespace {

class Binding : public FakeTest {};

TEST_F(Binding, MissingLibraryAnswersNeutrallyUntilTheVariableNamesOne) {
    library_.Set("/nonexistent/libldap.so");
    COpenLdapIF binding;
    EXPECT_EQ(nullptr, binding.LdapInit("127.0.0.1", 389));
    ldapmsg* result = nullptr;
    EXPECT_EQ(0, binding.LdapSearchExtS(nullptr, "o=root", 0, "(o=*)", nullptr, 0, nullptr, nullptr,
                                        nullptr, 0, &result));
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(0, binding.LdapModifyS(nullptr, "o=root", nullptr));
    EXPECT_EQ(0, binding.LdapCountEntries(nullptr, nullptr));
    EXPECT_EQ(nullptr, binding.LdapGetDN(nullptr, nullptr));
    // Pointers the library never handed out: releasing them would be caught by the fake.
    char text[] = "x";
    char* values[] = {text, nullptr};
    berval* bvalues[] = {nullptr};
    binding.LdapValueFree(values);
    binding.LdapValueFreeLen(bvalues);
    binding.LdapMemFree(text);

    CLdapOp op;
    EXPECT_EQ(QORLDAP_E_FAILED, op.ConnectLdap());
    EXPECT_EQ(Lines{}, Fake().log_lines());

    library_.Set(FAKE_LDAP_PATH);
    EXPECT_NE(nullptr, binding.LdapInit("127.0.0.1", 389));
    EXPECT_EQ(Lines{"ldap_init host=127.0.0.1 port=389"}, Fake().log_lines());
    ScriptBaseEntry();
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
}

TEST_F(Binding, MissingEntryPointIsSkippedWhileTheOthersWork) {
    library_.Set(FAKE_LDAP_MISSING_PATH);
    FakeLdap missing(FAKE_LDAP_MISSING_PATH);
    missing.reset();
    COpenLdapIF binding;
    ldap* ld = binding.LdapInit("127.0.0.1", 389);
    ASSERT_NE(nullptr, ld);
    int version = 3;
    EXPECT_EQ(0, binding.LdapSetOption(ld, LDAP_OPT_PROTOCOL_VERSION, &version));
    EXPECT_EQ(0, binding.LdapSimpleBindS(ld, "cn=admin,o=root", "secret"));
    ldapmsg* result = nullptr;
    EXPECT_EQ(0, binding.LdapSearchExtS(ld, "o=root", 0, "(o=*)", nullptr, 0, nullptr, nullptr,
                                        nullptr, 0, &result));
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ((Lines{"ldap_init host=127.0.0.1 port=389", "ldap_set_option opt=17 value=3",
                     "ldap_simple_bind_s dn=cn=admin,o=root pw=secret"}),
              missing.log_lines());
    EXPECT_EQ(0, missing.errors()) << missing.log();
}

TEST_F(Binding, EachObjectKeepsItsOwnFirstHandle) {
    COpenLdapIF first;
    COpenLdapIF second;
    ldap* a = first.LdapInit("127.0.0.1", 389);
    ldap* b = second.LdapInit("127.0.0.1", 389);
    ASSERT_NE(nullptr, a);
    ASSERT_NE(nullptr, b);
    EXPECT_NE(a, b);
    EXPECT_EQ(a, first.LdapInit("other.example", 636));
    EXPECT_EQ(b, second.LdapInit("", 1));
    EXPECT_EQ((Lines{"ldap_init host=127.0.0.1 port=389", "ldap_init host=127.0.0.1 port=389"}),
              Fake().log_lines());
    EXPECT_EQ(2, Fake().open_handles());
    // The library exports no last-error function: the binding answers 0.
    EXPECT_EQ(0, first.LdapGetLastErr());
}

}  // namespace
}  // namespace fakeldap
