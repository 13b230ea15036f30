// The connection sequence of the engine, call by call: init, protocol version, bind, the check
// of the base entry, and what a failure at each step leaves for the next attempt.
#include <cstdio>

#include "tests/fake/FakeHarness.h"

namespace fakeldap {
namespace {

Lines const kInit = {"ldap_init host=127.0.0.1 port=389"};
Lines const kOptionAndBind = {"ldap_set_option opt=17 value=3",
                              "ldap_simple_bind_s dn=cn=admin,o=root pw=secret"};

// The base search answered by the entry of ScriptBaseEntry, walked and released.
Lines const kBaseCheck = Lines{SearchLine("o=root", 0, "(o=*)"), "ldap_first_attribute -> o"} +
                         AttrRead("o", 1, false) + Lines{"ldap_next_attribute -> objectClass"} +
                         AttrRead("objectClass", 1, false) +
                         Lines{"ldap_next_attribute -> null", "ber_free freebuf=0", "ldap_msgfree"};

class Connect : public FakeTest {};

TEST_F(Connect, BindsChecksTheBaseOnceAndThenMakesNoCall) {
    ScriptBaseEntry();
    CLdapOp op;
    ASSERT_EQ(QORLDAP_OK, op.ConnectLdap());
    EXPECT_EQ(kInit + kOptionAndBind + kBaseCheck, Fake().log_lines());
    EXPECT_EQ(0, Fake().outstanding()) << Fake().log();

    Fake().clear_log();
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
    EXPECT_EQ(Lines{}, Fake().log_lines());
}

TEST_F(Connect, MissingBaseEntryIsCreatedAsAnOrganization) {
    Fake().push_result("ldap_search_ext_s", 32);
    CLdapOp op;
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
    Lines const create = {SearchLine("o=root", 0, "(o=*)"), "ldap_msgfree",
                          "ldap_add_s dn=o=root mods=[op=0x0 type=o vals=root]"
                          "[op=0x0 type=objectClass vals=organization]"};
    EXPECT_EQ(kInit + kOptionAndBind + create, Fake().log_lines());
    EXPECT_EQ(0, Fake().outstanding()) << Fake().log();
}

TEST_F(Connect, RefusedCreationFailsAndTheNextAttemptReusesTheHandle) {
    Fake().push_result("ldap_search_ext_s", 32);
    Fake().set_result("ldap_add_s", 68);
    CLdapOp op;
    EXPECT_EQ(QORLDAP_E_ROOT, op.ConnectLdap());
    EXPECT_EQ(1, Fake().calls("ldap_add_s"));

    Fake().set_result("ldap_add_s", 0);
    Fake().clear_log();
    ScriptBaseEntry();
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
    EXPECT_EQ(kOptionAndBind + kBaseCheck, Fake().log_lines());

    Fake().clear_log();
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
    EXPECT_EQ(Lines{}, Fake().log_lines());
}

TEST_F(Connect, BaseOutsideAnOrganizationIsNotSearched) {
    CLdapOp op;
    LdapInfo info;
    op.GetLdapAtt(info);
    std::snprintf(info.basedn, sizeof info.basedn, "%s", "dc=example,dc=com");
    op.SetLdapAtt(info);
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
    EXPECT_EQ(kInit + kOptionAndBind, Fake().log_lines());
}

TEST_F(Connect, RefusedBindIsRepeatedOnTheSameHandleWithTheNewPassword) {
    Fake().set_result("ldap_simple_bind_s", 49);
    CLdapOp op;
    EXPECT_EQ(QORLDAP_E_FAILED, op.ConnectLdap());
    EXPECT_EQ(kInit + kOptionAndBind, Fake().log_lines());

    LdapInfo info;
    op.GetLdapAtt(info);
    std::snprintf(info.psw, sizeof info.psw, "%s", "changed");
    op.SetLdapAtt(info);
    Fake().set_result("ldap_simple_bind_s", 0);
    Fake().clear_log();
    ScriptBaseEntry();
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
    Lines const rebind = {"ldap_set_option opt=17 value=3",
                          "ldap_simple_bind_s dn=cn=admin,o=root pw=changed"};
    EXPECT_EQ(rebind + kBaseCheck, Fake().log_lines());
}

TEST_F(Connect, NoHandleFailsAndTheNextAttemptInitsAgain) {
    Fake().set_init_null(true);
    CLdapOp op;
    EXPECT_EQ(QORLDAP_E_FAILED, op.ConnectLdap());
    EXPECT_EQ(kInit, Fake().log_lines());

    Fake().set_init_null(false);
    Fake().clear_log();
    ScriptBaseEntry();
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
    EXPECT_EQ(kInit + kOptionAndBind + kBaseCheck, Fake().log_lines());
}

}  // namespace
}  // namespace fakeldap
