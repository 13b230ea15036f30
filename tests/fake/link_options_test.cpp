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

// Link keys read without regard to letter case, and a value the library does not know refuses
// the connection before anything is sent, so a misspelt key never means a clear bind or an
// unverified server.
TEST_F(LinkKeys, KeysReadCaseBlindAndUnknownValuesRefuseBeforeAnythingIsSent) {
    struct Case {
        char const* keys;
        int startTls;     // StartTLS calls made
        int requireCert;  // LDAP_OPT_X_TLS_REQUIRE_CERT set to this; -1: not set
    };
    int const kDemand = LDAP_OPT_X_TLS_DEMAND;
    int const kNever = LDAP_OPT_X_TLS_NEVER;
    Case const accepted[] = {
        {"tls=STARTTLS\n", 1, kDemand},
        {"tls=Start_TLS\ntls_verify=TRUE\n", 1, kDemand},
        {"tls=starttls\ntls_verify=Demand\n", 1, kDemand},
        {"tls=StartTls\ntls_verify=OFF\n", 1, kNever},
        {"tls=starttls\ntls_verify=never\n", 1, kNever},
        {"tls=None\nreconnect=YES\ntimeout=0\n", 0, -1},
    };
    for (Case const& c : accepted) {
        Soap(c.keys);
        Fake().reset();
        ScriptBaseEntry();
        CLdapOp op;
        EXPECT_EQ(QORLDAP_OK, op.ConnectLdap()) << c.keys << Fake().log();
        EXPECT_EQ(c.startTls, Fake().calls("ldap_start_tls_s")) << c.keys;
        std::string const require =
            "ldap_set_option opt=" + std::to_string(LDAP_OPT_X_TLS_REQUIRE_CERT) +
            " value=" + std::to_string(c.requireCert);
        bool const set = Fake().log().find(require) != std::string::npos;
        EXPECT_EQ(c.requireCert != -1, set) << c.keys << Fake().log();
    }
    char const* const refused[] = {"tls=yes\n",
                                   "tls=true\n",
                                   "tls=ssl\n",
                                   "tls=starttls\ntls_verify=Y\n",
                                   "tls_verify=required\n",
                                   "tls_verify=hard\n",
                                   "reconnect=enabled\n",
                                   "timeout=5s\n",
                                   "timeout=-1\n"};
    for (char const* keys : refused) {
        Soap(keys);
        Fake().reset();
        CLdapOp op;
        EXPECT_EQ(QORLDAP_E_FAILED, op.ConnectLdap()) << keys;
        EXPECT_EQ(Lines{}, Fake().log_lines()) << keys;
    }
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
