// Checks of the fake libldap itself: what other tests rely on when they read its log, script its
// answers and count what the code under test released.
#define LDAP_DEPRECATED 1
#include <lber.h>
#include <ldap.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "fake_ldap.h"

namespace {

// The client functions, resolved from the same file, as the binding resolves them.
struct Client {
    void* handle;
    decltype(&ldap_init) init;
    decltype(&ldap_initialize) initialize;
    decltype(&ldap_set_option) set_option;
    decltype(&ldap_simple_bind_s) simple_bind_s;
    decltype(&ldap_unbind_ext_s) unbind_ext_s;
    decltype(&ldap_search_ext_s) search_ext_s;
    decltype(&ldap_first_entry) first_entry;
    decltype(&ldap_next_entry) next_entry;
    decltype(&ldap_get_dn) get_dn;
    decltype(&ldap_count_entries) count_entries;
    decltype(&ldap_first_attribute) first_attribute;
    decltype(&ldap_next_attribute) next_attribute;
    decltype(&ldap_msgfree) msgfree;
    decltype(&ldap_get_values) get_values;
    decltype(&ldap_get_values_len) get_values_len;
    decltype(&ldap_value_free) value_free;
    decltype(&ldap_value_free_len) value_free_len;
    decltype(&ldap_memfree) memfree;
    decltype(&ldap_add_s) add_s;
    decltype(&ldap_modify_s) modify_s;
    decltype(&ber_free) ber_free_;

    explicit Client(const char* path) : handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (handle == nullptr)
            throw std::runtime_error(dlerror());
#define FK_RESOLVE(field, name) field = reinterpret_cast<decltype(field)>(resolve(#name))
        FK_RESOLVE(init, ldap_init);
        FK_RESOLVE(initialize, ldap_initialize);
        FK_RESOLVE(set_option, ldap_set_option);
        FK_RESOLVE(simple_bind_s, ldap_simple_bind_s);
        FK_RESOLVE(unbind_ext_s, ldap_unbind_ext_s);
        FK_RESOLVE(search_ext_s, ldap_search_ext_s);
        FK_RESOLVE(first_entry, ldap_first_entry);
        FK_RESOLVE(next_entry, ldap_next_entry);
        FK_RESOLVE(get_dn, ldap_get_dn);
        FK_RESOLVE(count_entries, ldap_count_entries);
        FK_RESOLVE(first_attribute, ldap_first_attribute);
        FK_RESOLVE(next_attribute, ldap_next_attribute);
        FK_RESOLVE(msgfree, ldap_msgfree);
        FK_RESOLVE(get_values, ldap_get_values);
        FK_RESOLVE(get_values_len, ldap_get_values_len);
        FK_RESOLVE(value_free, ldap_value_free);
        FK_RESOLVE(value_free_len, ldap_value_free_len);
        FK_RESOLVE(memfree, ldap_memfree);
        FK_RESOLVE(add_s, ldap_add_s);
        FK_RESOLVE(modify_s, ldap_modify_s);
        FK_RESOLVE(ber_free_, ber_free);
#undef FK_RESOLVE
    }
    void* resolve(const char* name) {
        void* p = dlsym(handle, name);
        if (p == nullptr)
            throw std::runtime_error(std::string("missing ") + name);
        return p;
    }
};

class FakeLdapTest : public ::testing::Test {
  protected:
    static FakeLdap& fake() {
        static FakeLdap instance(FAKE_LDAP_PATH);
        return instance;
    }
    static Client& c() {
        static Client instance(FAKE_LDAP_PATH);
        return instance;
    }
    void SetUp() override { fake().reset(); }

    LDAP* open_v3() {
        LDAP* ld = c().init("127.0.0.1", 389);
        int version = LDAP_VERSION3;
        c().set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
        return ld;
    }
    int search(LDAP* ld, LDAPMessage** res) {
        return c().search_ext_s(ld, "o=b", LDAP_SCOPE_ONELEVEL, "(objectClass=*)", nullptr, 0,
                                nullptr, nullptr, nullptr, 0, res);
    }
};

using Lines = std::vector<std::string>;

// ---- The log -------------------------------------------------------------------------------

TEST_F(FakeLdapTest, LogRecordsASessionLineByLine) {
    LDAP* ld = c().init("127.0.0.1", 389);
    ASSERT_NE(ld, nullptr);
    int version = LDAP_VERSION3;
    EXPECT_EQ(c().set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version), 0);
    struct timeval tv = {5, 0};
    c().set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &tv);
    c().set_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, "/etc/ca.pem");
    EXPECT_EQ(c().simple_bind_s(ld, "cn=admin,o=root", "secret"), 0);
    LDAPMessage* res = nullptr;
    char a0[] = "signPubcer;binary";
    char* attrs[] = {a0, nullptr};
    EXPECT_EQ(c().search_ext_s(ld, "cn=a,o=b", LDAP_SCOPE_BASE, "(signPubcer;binary=*)", nullptr, 0,
                               nullptr, nullptr, nullptr, 0, &res),
              0);
    c().msgfree(res);
    c().search_ext_s(ld, "o=b", LDAP_SCOPE_ONELEVEL, "(cn=*)", attrs, 1, nullptr, nullptr, &tv, 10,
                     &res);
    c().msgfree(res);
    c().unbind_ext_s(ld, nullptr, nullptr);

    EXPECT_EQ(fake().log_lines(),
              (Lines{"ldap_init host=127.0.0.1 port=389", "ldap_set_option opt=17 value=3",
                     "ldap_set_option opt=20485 value={5,0}",
                     "ldap_set_option global opt=24578 value=/etc/ca.pem",
                     "ldap_simple_bind_s dn=cn=admin,o=root pw=secret",
                     "ldap_search_ext_s base=cn=a,o=b scope=0 filter=(signPubcer;binary=*) "
                     "attrs=null attrsonly=0 "
                     "sctrls=null cctrls=null timeout=null sizelimit=0",
                     "ldap_msgfree",
                     "ldap_search_ext_s base=o=b scope=1 filter=(cn=*) attrs=[signPubcer;binary] "
                     "attrsonly=1 "
                     "sctrls=null cctrls=null timeout={5,0} sizelimit=10",
                     "ldap_msgfree", "ldap_unbind_ext_s"}));
    EXPECT_EQ(fake().calls("ldap_set_option"), 3);
    EXPECT_EQ(fake().calls("ldap_delete_s"), 0);
    EXPECT_EQ(fake().calls("ldap_serch_ext_s"), -1);
    EXPECT_EQ(fake().errors(), 0);
}

TEST_F(FakeLdapTest, LogListsEveryModAndKeepsTheBytesWritten) {
    LDAP* ld = open_v3();
    const char key[] = {'k', '\0', 'e', 'y', '\x7f'};
    berval bv{sizeof key, const_cast<char*>(key)};
    berval* bvals[] = {&bv, nullptr};
    char t_key[] = "signPubcer;binary", t_ou[] = "ou", t_del[] = "encPubcer;binary",
         sales[] = "Sales", mkt[] = "Mkt";
    char* ou_vals[] = {sales, mkt, nullptr};
    LDAPMod m_key{LDAP_MOD_REPLACE | LDAP_MOD_BVALUES, t_key, {nullptr}};
    m_key.mod_bvalues = bvals;
    LDAPMod m_ou{LDAP_MOD_REPLACE, t_ou, {ou_vals}};
    LDAPMod m_del{LDAP_MOD_REPLACE | LDAP_MOD_BVALUES, t_del, {nullptr}};
    LDAPMod* mods[] = {&m_key, &m_ou, &m_del, nullptr};
    LDAPMod* none[] = {nullptr};
    fake().clear_log();

    EXPECT_EQ(c().modify_s(ld, "cn=a\n,o=b", mods), 0);
    EXPECT_EQ(c().modify_s(ld, "cn=a,o=b", none), 0);
    EXPECT_EQ(
        fake().log_lines(),
        (Lines{"ldap_modify_s dn=cn=a\\x0a,o=b mods=[op=0x82 type=signPubcer;binary bvals=1:len=5]"
               "[op=0x2 type=ou vals=Sales|Mkt][op=0x82 type=encPubcer;binary bvals=null]",
               "ldap_modify_s dn=cn=a,o=b mods=(empty)"}));

    c().modify_s(ld, "cn=a,o=b", mods);
    EXPECT_EQ(fake().written_value("SIGNPUBCER;binary"), std::string(key, sizeof key));
    EXPECT_EQ(fake().written_values("ou"), 2);
    EXPECT_EQ(fake().written_value("ou", 1), "Mkt");
    EXPECT_EQ(fake().written_values("encPubcer;binary"), 0);
    EXPECT_EQ(fake().written_values("cn"), -1);

    // As libldap: an add refuses a NULL value array itself; the server refuses an empty one.
    LDAPMod* add_null[] = {&m_del, nullptr};
    EXPECT_EQ(c().add_s(ld, "cn=a,o=b", add_null), LDAP_PARAM_ERROR);
    berval* empty_bvals[] = {nullptr};
    m_del.mod_bvalues = empty_bvals;
    EXPECT_EQ(c().add_s(ld, "cn=a,o=b", add_null), LDAP_PROTOCOL_ERROR);
    c().unbind_ext_s(ld, nullptr, nullptr);
}

TEST_F(FakeLdapTest, HandleNumbersAppearOnRequest) {
    fake().set_log_handles(true);
    LDAP* a = c().init("h", 1);
    LDAP* b = c().init("h", 2);
    EXPECT_NE(a, b);
    c().unbind_ext_s(b, nullptr, nullptr);
    c().unbind_ext_s(a, nullptr, nullptr);
    EXPECT_EQ(fake().log_lines(),
              (Lines{"ldap_init host=h port=1 -> ld=1", "ldap_init host=h port=2 -> ld=2",
                     "ldap_unbind_ext_s ld=2", "ldap_unbind_ext_s ld=1"}));
}

// ---- Scripted searches ---------------------------------------------------------------------

TEST_F(FakeLdapTest, SearchWalkSeesTheScriptedEntriesInOrder) {
    const std::string cert("\x30\x00\x82", 3);
    fake().add_entry("cn=a,o=b");
    fake().add_value("signPubcer;binary", cert);
    fake().add_value("signPubcer;binary", "xy");
    fake().add_value("cn", "a");
    fake().add_entry("cn=b,o=b");
    fake().add_attr("encPubcer;binary");

    LDAP* ld = open_v3();
    fake().clear_log();
    LDAPMessage* res = nullptr;
    ASSERT_EQ(search(ld, &res), 0);
    EXPECT_EQ(c().count_entries(ld, res), 2);

    LDAPMessage* e = c().first_entry(ld, res);
    ASSERT_NE(e, nullptr);
    char* dn = c().get_dn(ld, e);
    EXPECT_STREQ(dn, "cn=a,o=b");
    c().memfree(dn);
    BerElement* ber = nullptr;
    char* name = c().first_attribute(ld, e, &ber);
    ASSERT_STREQ(name, "signPubcer;binary");
    berval** vals = c().get_values_len(ld, e, "SignPubCer;Binary");
    ASSERT_NE(vals, nullptr);
    ASSERT_NE(vals[1], nullptr);
    EXPECT_EQ(std::string(vals[0]->bv_val, vals[0]->bv_len), cert);
    EXPECT_EQ(std::string(vals[1]->bv_val, vals[1]->bv_len), "xy");
    EXPECT_EQ(vals[2], nullptr);
    c().value_free_len(vals);
    c().memfree(name);
    name = c().next_attribute(ld, e, ber);
    EXPECT_STREQ(name, "cn");
    char** text = c().get_values(ld, e, name);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text[0], "a");
    c().value_free(text);
    c().memfree(name);
    EXPECT_EQ(c().next_attribute(ld, e, ber), nullptr);
    c().ber_free_(ber, 0);

    e = c().next_entry(ld, e);
    ASSERT_NE(e, nullptr);
    name = c().first_attribute(ld, e, &ber);
    EXPECT_STREQ(name, "encPubcer;binary");
    EXPECT_EQ(c().get_values_len(ld, e, name), nullptr);  // an attribute without values
    c().memfree(name);
    c().ber_free_(ber, 0);
    EXPECT_EQ(c().next_entry(ld, e), nullptr);
    c().msgfree(res);

    EXPECT_EQ(fake().outstanding(), 0) << fake().outstanding_summary();
    EXPECT_EQ(fake().errors(), 0) << fake().log();
    const Lines lines = fake().log_lines();
    EXPECT_EQ(Lines(lines.begin() + 1, lines.end()),
              (Lines{"ldap_count_entries -> 2",
                     "ldap_first_entry -> cn=a,o=b",
                     "ldap_get_dn -> cn=a,o=b",
                     "ldap_memfree",
                     "ldap_first_attribute -> signPubcer;binary",
                     "ldap_get_values_len attr=SignPubCer;Binary -> 2",
                     "ldap_value_free_len",
                     "ldap_memfree",
                     "ldap_next_attribute -> cn",
                     "ldap_get_values attr=cn -> 1",
                     "ldap_value_free",
                     "ldap_memfree",
                     "ldap_next_attribute -> null",
                     "ber_free freebuf=0",
                     "ldap_next_entry -> cn=b,o=b",
                     "ldap_first_attribute -> encPubcer;binary",
                     "ldap_get_values_len attr=encPubcer;binary -> null",
                     "ldap_memfree",
                     "ber_free freebuf=0",
                     "ldap_next_entry -> null",
                     "ldap_msgfree"}));
    c().unbind_ext_s(ld, nullptr, nullptr);
}

TEST_F(FakeLdapTest, ResultSetsAnswerSuccessiveSearchesAndTheLastOneRepeats) {
    fake().add_entry("cn=first,o=b");
    fake().new_result_set();
    fake().add_entry("cn=second,o=b");
    fake().add_entry("cn=third,o=b");
    LDAP* ld = open_v3();
    for (int expected : {1, 2, 2}) {
        LDAPMessage* res = nullptr;
        ASSERT_EQ(search(ld, &res), 0);
        EXPECT_EQ(c().count_entries(ld, res), expected);
        c().msgfree(res);
    }
    c().unbind_ext_s(ld, nullptr, nullptr);
}

// ---- Accounting and misuse -----------------------------------------------------------------

TEST_F(FakeLdapTest, OutstandingCountsEachObjectUntilReleased) {
    fake().add_entry("cn=a,o=b");
    fake().add_value("cn", "a");
    LDAP* ld = open_v3();
    LDAPMessage* res = nullptr;
    search(ld, &res);
    EXPECT_EQ(fake().outstanding(), 1);
    LDAPMessage* e = c().first_entry(ld, res);
    BerElement* ber = nullptr;
    char* name = c().first_attribute(ld, e, &ber);
    berval** bvals = c().get_values_len(ld, e, "cn");
    char** vals = c().get_values(ld, e, "cn");
    char* dn = c().get_dn(ld, e);
    EXPECT_EQ(fake().outstanding(), 6);
    EXPECT_EQ(fake().outstanding_summary(),
              "messages=1 bvalues=1 values=1 strings=2 bers=1 handles=1");
    EXPECT_EQ(fake().open_handles(), 1);

    c().memfree(dn);
    c().value_free(vals);
    c().value_free_len(bvals);
    c().memfree(name);
    c().ber_free_(ber, 0);
    EXPECT_EQ(fake().outstanding(), 1);
    c().msgfree(res);
    EXPECT_EQ(fake().outstanding(), 0);
    c().unbind_ext_s(ld, nullptr, nullptr);
    EXPECT_EQ(fake().open_handles(), 0);
    EXPECT_EQ(fake().errors(), 0);
}

TEST_F(FakeLdapTest, ResetForgetsHeldObjectsWithoutInvalidatingThem) {
    LDAP* ld = open_v3();
    LDAPMessage* res = nullptr;
    search(ld, &res);
    fake().server_down();
    fake().reset();
    EXPECT_EQ(fake().outstanding(), 0);
    EXPECT_EQ(fake().open_handles(), 0);
    c().msgfree(res);
    EXPECT_EQ(c().simple_bind_s(ld, "cn=a", "p"), 0);  // alive again, still version 3
    EXPECT_EQ(c().unbind_ext_s(ld, nullptr, nullptr), 0);
    EXPECT_EQ(fake().errors(), 0) << fake().log();
}

TEST_F(FakeLdapTest, MisuseIsLoggedAndCountedInsteadOfCrashing) {
    fake().add_entry("cn=a,o=b");
    fake().add_value("cn", "a");
    fake().add_entry("cn=b,o=b");
    LDAP* ld = open_v3();
    LDAPMessage* res = nullptr;
    search(ld, &res);
    LDAPMessage* first = c().first_entry(ld, res);
    LDAPMessage* second = c().next_entry(ld, first);
    BerElement* ber = nullptr;
    c().memfree(c().first_attribute(ld, first, &ber));
    fake().clear_log();

    c().ber_free_(ber, 1);
    c().msgfree(second);
    c().msgfree(res);
    c().msgfree(res);
    EXPECT_EQ(c().first_entry(ld, res), nullptr);
    c().unbind_ext_s(ld, nullptr, nullptr);
    EXPECT_EQ(c().simple_bind_s(ld, "cn=x", "y"), LDAP_PARAM_ERROR);
    EXPECT_EQ(fake().errors(), 5) << fake().log();
    EXPECT_EQ(
        fake().log_lines(),
        (Lines{"ber_free freebuf=1 ERROR(freebuf must be 0 for a ber from ldap_first_attribute)",
               "ldap_msgfree ERROR(not the head of a chain)", "ldap_msgfree",
               "ldap_msgfree ERROR(not a live chain)",
               "ldap_first_entry ERROR(not a message of a live chain) -> null", "ldap_unbind_ext_s",
               "ldap_simple_bind_s dn=cn=x pw=y ERROR(not an open handle)"}));
    EXPECT_EQ(fake().outstanding(), 0);
}

// ---- Scripted and copied results -----------------------------------------------------------

TEST_F(FakeLdapTest, SetAndQueuedResultsDecideWhatCallsReturn) {
    LDAP* ld = open_v3();
    fake().set_result("ldap_simple_bind_s", LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(c().simple_bind_s(ld, "cn=a", "bad"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(c().simple_bind_s(ld, "cn=a", "bad"), LDAP_INVALID_CREDENTIALS);

    fake().push_result("ldap_modify_s", LDAP_NO_SUCH_OBJECT);
    LDAPMod* none[] = {nullptr};
    EXPECT_EQ(c().modify_s(ld, "cn=a", none), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(c().modify_s(ld, "cn=a", none), 0);

    EXPECT_THROW(fake().set_result("ldap_serch_ext_s", 1), std::invalid_argument);
    EXPECT_THROW(fake().set_result("ldap_first_entry", 1), std::invalid_argument);
    c().unbind_ext_s(ld, nullptr, nullptr);
}

TEST_F(FakeLdapTest, FailedSearchHandsBackAChainOnlyForServerResults) {
    LDAP* ld = open_v3();
    LDAPMessage* res = nullptr;
    fake().set_result("ldap_search_ext_s", LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(search(ld, &res), LDAP_NO_SUCH_OBJECT);
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(c().count_entries(ld, res), 0);
    EXPECT_EQ(fake().outstanding(), 1);
    c().msgfree(res);

    fake().set_search_result_on_error(0);
    EXPECT_EQ(search(ld, &res), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(res, nullptr);
    fake().set_search_result_on_error(1);
    fake().set_result("ldap_search_ext_s", LDAP_SERVER_DOWN);
    EXPECT_EQ(search(ld, &res), LDAP_SERVER_DOWN);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(fake().outstanding(), 0);
    c().unbind_ext_s(ld, nullptr, nullptr);
}

TEST_F(FakeLdapTest, HandlesBehaveAsLibldapDoes) {
    LDAP* v2 = c().init("127.0.0.1", 389);
    EXPECT_EQ(c().simple_bind_s(v2, "cn=a", "p"), LDAP_PROTOCOL_ERROR);
    int version = LDAP_VERSION3;
    c().set_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &version);
    LDAP* v3 = c().init("127.0.0.1", 389);
    EXPECT_EQ(c().simple_bind_s(v3, "cn=a", "p"), 0);

    LDAP* blank = c().init("", 389);
    EXPECT_EQ(c().simple_bind_s(blank, "cn=a", "p"), LDAP_SERVER_DOWN);

    fake().server_down();
    LDAPMessage* res = nullptr;
    EXPECT_EQ(search(v3, &res), LDAP_SERVER_DOWN);
    EXPECT_EQ(res, nullptr);
    LDAP* fresh = c().init("127.0.0.1", 389);
    EXPECT_EQ(c().simple_bind_s(fresh, "cn=a", "p"), 0);
    for (LDAP* ld : {v2, v3, blank, fresh})
        EXPECT_EQ(c().unbind_ext_s(ld, nullptr, nullptr), 0);

    fake().set_init_null(true);
    EXPECT_EQ(c().init("127.0.0.1", 389), nullptr);
    LDAP* ld = reinterpret_cast<LDAP*>(&version);
    EXPECT_EQ(c().initialize(&ld, "ldap://127.0.0.1:389"), 0);
    EXPECT_EQ(ld, nullptr);
    EXPECT_EQ(fake().open_handles(), 0);
}

TEST_F(FakeLdapTest, ConcurrentCallersLoseNoLogLineAndNoCount) {
    constexpr int kThreads = 4, kRounds = 200;
    int version = LDAP_VERSION3;
    c().set_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &version);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < kRounds; ++i) {
                LDAP* ld = c().init("127.0.0.1", 389);
                c().simple_bind_s(ld, "cn=a", "p");
                c().unbind_ext_s(ld, nullptr, nullptr);
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(fake().calls("ldap_simple_bind_s"), kThreads * kRounds);
    EXPECT_EQ(fake().log_lines().size(), static_cast<size_t>(1 + 3 * kThreads * kRounds));
    EXPECT_EQ(fake().open_handles(), 0);
    EXPECT_EQ(fake().errors(), 0);
}

// ---- The variant without ldap_search_ext_s -------------------------------------------------

TEST(FakeLdapMissing, LacksOnlyTheSearchFunction) {
    void* h = dlopen(FAKE_LDAP_MISSING_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(h, nullptr) << dlerror();
    EXPECT_EQ(dlsym(h, "ldap_search_ext_s"), nullptr);
    EXPECT_NE(dlsym(h, "ldap_init"), nullptr);
    EXPECT_NE(dlsym(h, "ber_free"), nullptr);
    EXPECT_NE(dlsym(h, "fake_ldap_log"), nullptr);
    dlclose(h);
}

}  // namespace
