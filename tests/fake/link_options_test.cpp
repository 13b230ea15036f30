// The optional link keys of soap.ini: what each adds to a connection, and that a failed
// StartTLS drops the handle without ever binding.
#include "tests/fake/FakeHarness.h"

namespace {

using namespace fakeldap;

class LinkKeys : public FakeTest {
  protected:
    void Soap(std::string const& extra) { dir_.Write("soap.ini", kSoapIni + extra); }
    // Connects, loses the server, and shows that the next read fails with the search code.
    void LoseConnection(CLdapOp& op) {
        ScriptBaseEntry();
        ASSERT_EQ(QORLDAP_OK, op.ConnectLdap());
        Fake().server_down();
        unsigned char* key = nullptr;
        unsigned int length = 0;
        EXPECT_EQ(QORLDAP_E_KEY_SEARCH, op.GetSignPublicKey("cn=a,ou=b,o=root", key, length));
        Fake().clear_log();
    }
};

TEST_F(LinkKeys, StartTlsRunsAfterTheVersionAndBeforeTheBind) {
    Soap("tls=starttls\ntls_cacert=/etc/ca.pem\ntimeout=3\n");
    ScriptBaseEntry();
    CLdapOp op;
    ASSERT_EQ(QORLDAP_OK, op.ConnectLdap()) << Fake().log();
    Lines const lines = Fake().log_lines();
    ASSERT_GE(lines.size(), 8u);
    EXPECT_EQ("ldap_init host=127.0.0.1 port=389", lines[0]);
    EXPECT_EQ("ldap_set_option opt=17 value=3", lines[1]);
    EXPECT_EQ("ldap_set_option opt=20485 value={3,0}", lines[2]);  // network timeout
    EXPECT_EQ("ldap_set_option opt=20482 value={3,0}", lines[3]);  // request timeout
    EXPECT_EQ("ldap_start_tls_s", lines[7]);
    EXPECT_EQ(0u, lines[8].find("ldap_simple_bind_s"));
}

TEST_F(LinkKeys, AFailedStartTlsNeverFallsBackToAClearBind) {
    Soap("tls=starttls\n");
    Fake().set_result("ldap_start_tls_s", -11);
    CLdapOp op;
    EXPECT_EQ(QORLDAP_E_FAILED, op.ConnectLdap());
    EXPECT_EQ(0, Fake().calls("ldap_simple_bind_s"));
    EXPECT_EQ(1, Fake().calls("ldap_unbind_ext_s"));
    // The next attempt starts from a fresh handle and is refused the same way.
    EXPECT_EQ(QORLDAP_E_FAILED, op.ConnectLdap());
    EXPECT_EQ(2, Fake().calls("ldap_init"));
    EXPECT_EQ(0, Fake().calls("ldap_simple_bind_s"));
}

TEST_F(LinkKeys, LdapsUsesAUriPerHost) {
    Soap("tls=ldaps\n");
    dir_.Write("soap.ini",
               "[ldap]\nhost=a.example b.example:1636\nport=636\nbasedn=dc=x\n"
               "managerdn=cn=m\npsw=p\ntls=ldaps\n");
    CLdapOp op;
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap()) << Fake().log();
    EXPECT_EQ("ldap_initialize uri=ldaps://a.example:636 ldaps://b.example:1636",
              Fake().log_lines().at(0));
    EXPECT_EQ(0, Fake().calls("ldap_init"));
}

TEST_F(LinkKeys, WithReconnectALostConnectionIsReleasedAndRedialled) {
    Soap("reconnect=yes\n");
    CLdapOp op;
    LoseConnection(op);
    EXPECT_TRUE(op.NeedsReconnect());
    ScriptBaseEntry();
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap()) << Fake().log();
    EXPECT_EQ(1, Fake().calls("ldap_unbind_ext_s"));
    EXPECT_EQ(1, Fake().calls("ldap_init"));
    EXPECT_EQ(1, Fake().calls("ldap_simple_bind_s"));
    EXPECT_FALSE(op.NeedsReconnect());
}

TEST_F(LinkKeys, WithoutReconnectALostConnectionIsKept) {
    CLdapOp op;
    LoseConnection(op);
    EXPECT_FALSE(op.NeedsReconnect());
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());
    EXPECT_EQ(Lines{}, Fake().log_lines());
}

}  // namespace
