// The calls the library makes into libldap, through the fake client library (tests/fake_ldap): a
// step is checked as one log, the calls with the results noted in between. Options: 17 version,
// 20485/20482 timeouts, 24578 CA file, 24582 demand (2 demand, 0 never), 24591 new TLS context.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>

#include "engine/LdapOp.h"
#include "tests/fake/FakeSoap.h"
#include "tests/fake_ldap/fake_ldap.h"
#include "tests/support/CraftedBundle.h"
#include "tests/support/TestFiles.h"

namespace fakeldap {
namespace {

char const kUser[] = "cn=Li Lei,ou=Sales,o=root";
char const kSales[] = "ou=Sales,o=root";

std::string Rc(int rc) {
    return rc == QORLDAP_E_FAILED ? "= failed\n" : "= " + std::to_string(rc) + "\n";
}

std::string Search(std::string const& base, int scope, std::string const& filter) {
    return "ldap_search_ext_s base=" + base + " scope=" + std::to_string(scope) +
           " filter=" + filter +
           " attrs=null attrsonly=0 ctrls=null,null timeout=null sizelimit=0\n";
}

// A walk over an entry's attributes (name, values), read as text or octets ("_len"), released.
std::string Walk(std::vector<std::pair<std::string, int>> const& attributes, std::string get) {
    std::string log = "ldap_first_attribute -> ";
    for (auto const& [name, count] : attributes)
        log += name + "\nldap_get_values" + get + " attr=" + name + " -> " + std::to_string(count) +
               "\nldap_value_free" + get + "\nldap_memfree\nldap_next_attribute -> ";
    return log + "null\nber_free ptr freebuf=0\n";
}

std::string const kOk = Rc(QORLDAP_OK);
std::string const kFailed = Rc(QORLDAP_E_FAILED);
std::string const kInit = "ldap_init host=127.0.0.1 port=389\n";
std::string const kVersion = "ldap_set_option opt=17 value=3\n";
std::string const kBind = "ldap_simple_bind_s dn=cn=admin,o=root pw=secret\n";
std::string const kBase =
    Search("o=root", 0, "(o=*)") + Walk({{"o", 1}, {"objectClass", 1}}, "") + "ldap_msgfree\n";
std::string const kNothing = "ldap_first_attribute -> null\nldap_msgfree\n" + kOk;
std::vector<Entry> const kBaseEntry = {
    {"o=root", {{"o", {"root"}}, {"objectClass", {"organization"}}}}};
tagAttItem kItems[2] = {{"ou", "Sales", "", 0}, {"description", "", "", 0}};
tagAtt const kSalesRecord = {kItems, 2, "organizationalUnit", "", "", "", 0, 0};

// What the reads hand back, noted in the log.
void Key(CLdapOp& op, char const* dn) {
    unsigned char* key = nullptr;
    unsigned int length = 7;
    std::string& log = Fake().log += Rc(op.GetSignPublicKey(dn, key, length));
    log += (key != nullptr ? std::string(reinterpret_cast<char*>(key), length) : "no key") +
           " length=" + std::to_string(length) + "\n";
    op.FreeKey(key);
}

void Record(CLdapOp& op, char const* dn) {
    tagAtt att = {};
    att.itemCount = 7;
    std::string& log = Fake().log += Rc(op.SelectLdapAtt(dn, att));
    log += std::to_string(att.itemCount) + " items";
    for (int i = 0; att.items != nullptr && i < att.itemCount; ++i)
        log += std::string(" ") + att.items[i].type;
    log += std::string(", ") + att.objectClass + " by " + att.namingAtt + " (" +
           std::to_string(att.templateIndex) + ") " + att.dn + " under " + att.parentDn + "\n";
    op.FreeAtt(&att);
}

void Children(CLdapOp& op, char const* dn) {
    tagDN* list = nullptr;
    int count = 5;
    std::string& log = Fake().log += Rc(op.SelectLdap(dn, nullptr, list, count));
    log += std::to_string(count) + " children";
    for (int i = 0; list != nullptr && i < count; ++i)
        log += std::string(" ") + list[i].dn + " under " + list[i].baseDn;
    log += "\n";
    op.FreeDN(list, count);
}

class Calls : public ::testing::Test {
  protected:
    Calls() : conf_(dir_.Path()) {
        setenv("QORLDAP_LDAP_LIBRARY", FAKE_LDAP_PATH, 1);
        Soap("");
        dir_.Write("ldap.ini",
                   "[base]\nsum=2\nA0=organizationalUnit\nA1=qorPerson\n"
                   "[organizationalUnit]\nsum=1\nA0=ou,s,2\n[qorPerson]\nsum=1\nA0=cn,s,2\n");
        Fake().Reset(kBaseEntry);
    }
    // In every test: no misuse, and everything but the handles released (counts start afresh).
    void TearDown() override {
        EXPECT_EQ(0, std::exchange(Fake().errors, 0)) << Fake().log;
        EXPECT_EQ(0u, std::exchange(Fake().live, {}).size()) << Fake().log;
    }
    // soap.ini: the keys given win over the defaults after them.
    void Soap(std::string const& keys) { dir_.Write("soap.ini", qortest::FakeSoap(keys)); }

    qortest::ScratchDir dir_;
    qortest::ConfDir conf_;
};

// Two attempts on one engine: the first with the codes queued, the second after a new password
// was set and, with `lose`, a read that lost the server.
TEST_F(Calls, Connect) {
    std::string const connected = kInit + kVersion + kBind + kBase + kOk;
    std::string const rebind =
        kVersion + "ldap_simple_bind_s dn=cn=admin,o=root pw=changed\n" + kBase + kOk;
    std::string const create = kInit + kVersion + kBind + Search("o=root", 0, "(o=*)") +
                               "ldap_msgfree\nldap_add_s dn=o=root mods=[op=0x0 type=o vals=root]"
                               "[op=0x0 type=objectClass vals=organization]\n";
    auto tls = [](int require) {
        return "ldap_set_option opt=24582 value=" + std::to_string(require) +
               "\nldap_set_option opt=24591 value=0\n";
    };
    std::string const start = "ldap_start_tls_s ctrls=null,null\n";
    auto startTls = [&](int require, std::string const& options = "") {
        return kInit + kVersion + options + tls(require) + start + kBind + kBase + kOk + kOk;
    };
    std::string const unbind = "ldap_unbind_ext_s ctrls=null,null\n";
    std::string const ldaps = "ldap_initialize uri=ldaps://a.example:636 ldaps://b.example:1636\n";
    std::string const refused = kInit + kVersion + tls(2) + start + unbind + kFailed;
    std::string const options =
        "ldap_set_option opt=20485 value={3,0}\nldap_set_option "
        "opt=20482 value={3,0}\nldap_set_option opt=24578 value=/ca\n";
    std::string const lost = Search("cn=a,ou=b,o=root", 0, "(signPubcer;binary=*)") +
                             Rc(QORLDAP_E_KEY_SEARCH) + "no key length=0\n";
    Fails const loss = {{"ldap_search_ext_s", 0}, {"ldap_search_ext_s", -1}};
    Fails const noTls = {{"ldap_start_tls_s", -11}, {"ldap_start_tls_s", -11}};
    struct Case {
        char const* keys;  // soap.ini keys before the defaults
        Fails fails;
        std::string transcript;
        bool lose = false;
    } const cases[] = {
        {"", {}, connected + kOk},
        // A missing base entry is created as an organization; when that is refused the next
        // attempt binds again on the same handle, as after a refused bind.
        {"", {{"ldap_search_ext_s", 32}}, create + kOk + kOk},
        {"", {{"ldap_search_ext_s", 32}, {"ldap_add_s", 68}}, create + Rc(QORLDAP_E_ROOT) + rebind},
        {"", {{"ldap_simple_bind_s", 49}}, kInit + kVersion + kBind + kFailed + rebind},
        {"", {{"ldap_init", 1}}, kInit + kFailed + kInit + rebind},
        // A lost server: with reconnect the handle is released and dialled afresh, else kept.
        {"reconnect=yes\n", loss, connected + lost + "lost\n" + unbind + kInit + rebind, true},
        {"", loss, connected + lost + kOk, true},
        // Timeouts and TLS options come between the version and the bind, StartTLS last.
        {"tls=starttls\ntls_cacert=/ca\ntimeout=3\n", {}, startTls(2, options)},
        // A failed StartTLS drops the handle and never binds in the clear.
        {"tls=starttls\n", noTls, refused + refused},
        // One ldaps:// URI per host; a base outside an organization is not searched.
        {"host=a.example b.example:1636\nport=636\nbasedn=dc=x\ntls=ldaps\n",
         {},
         ldaps + kVersion + tls(2) + kBind + kOk + kOk},
        // Link keys read without regard to case; an unknown value refuses before anything is
        // sent, so a misspelt key never means a clear bind or an unverified server.
        {"tls=Start_TLS\ntls_verify=TRUE\n", {}, startTls(2)},
        {"tls=STARTTLS\ntls_verify=Off\n", {}, startTls(0)},
        {"tls=yes\n", {}, kFailed + kFailed},
    };
    for (Case const& c : cases) {
        Fake().Reset(kBaseEntry, c.fails);
        Soap(c.keys);
        CLdapOp op;
        Fake().log += Rc(op.ConnectLdap());
        LdapInfo info;
        op.GetLdapAtt(info);
        std::snprintf(info.psw, sizeof info.psw, "%s", "changed");
        op.SetLdapAtt(info);
        if (c.lose)
            Key(op, "cn=a,ou=b,o=root");
        Fake().log += op.NeedsReconnect() ? "lost\n" : "";
        Fake().log += Rc(op.ConnectLdap());
        EXPECT_FALSE(op.NeedsReconnect());
        EXPECT_EQ(c.transcript, Fake().log) << c.keys;
    }
}

TEST_F(Calls, Operations) {
    CLdapOp op;
    ASSERT_EQ(QORLDAP_OK, op.ConnectLdap());
    // A key read is one base search; each attribute is read as octets and released, and the key
    // is the first value of exactly "signPubcer;binary", byte for byte.
    std::string const key = Search(kUser, 0, "(signPubcer;binary=*)");
    std::string const none = "no key length=0\n";
    std::string const cert("\x30\x00\x82", 3);
    Fake().Reset({{kUser, {{"cn", {"Li Lei"}}, {"signPubcer;binary", {cert, "2nd"}}}}});
    Key(op, kUser);
    EXPECT_EQ(key + Walk({{"cn", 1}, {"signPubcer;binary", 2}}, "_len") + "ldap_msgfree\n" + kOk +
                  cert + " length=3\n",
              Fake().log);
    Fake().Reset({{kUser, {{"signpubcer;binary", {"abc"}}, {"signPubcer", {"abc"}}}}});
    Key(op, kUser);
    Fake().entries.clear();
    Key(op, kUser);  // nothing found: the walk ends at once, with no cursor to release
    Fake().fails = {{"ldap_search_ext_s", 32}};
    Key(op, kUser);
    for (char const* refused : {"ou=x,o=root", "CN=x", ""})  // names no template makes
        Key(op, refused);
    EXPECT_EQ(key + Walk({{"signpubcer;binary", 1}, {"signPubcer", 1}}, "_len") + "ldap_msgfree\n" +
                  kOk + none + key + kNothing + none + key + "ldap_msgfree\n" +
                  Rc(QORLDAP_E_KEY_SEARCH) + none + kFailed + none + kFailed + none + kFailed +
                  none,
              Fake().log);

    // A key write replaces with one binary value, a removal with none; an insert sends the texts,
    // then the binary values (2 bytes at least) in a fixed order. Writes pass the code on.
    std::string const add = std::string("ldap_add_s dn=") + kSales +
                            " mods=[op=0x2 type=ou vals=Sales][op=0x2 type=objectClass "
                            "vals=organizationalUnit][op=0x82 type=";
    std::string priv(600, 'k'), pub(300, 'c'), password = "8 bytes!";
    auto bytes = [](std::string& s) { return reinterpret_cast<unsigned char*>(&s[0]); };
    Fake().Reset(
        {},
        {{"ldap_modify_s", 32}, {"ldap_modify_s", 53}, {"ldap_delete_s", 66}, {"ldap_add_s", 68}});
    Fake().log += Rc(op.ModifySignPublicKey(kUser, bytes(password), 3));
    Fake().log += Rc(op.ModifyLdap(kSales, tagAtt{}));
    Fake().log += Rc(op.DeleteLdap(kSales));
    Fake().log += Rc(op.ModifySignPublicKey(kUser, bytes(password), 0));
    Fake().log += Rc(op.ModifySignPublicKey(kUser, nullptr, 5));
    Fake().log += Rc(op.DeleteSignPrivateKey(kUser));
    Fake().log +=
        Rc(op.InsertLdap(kSales, kSalesRecord, false, nullptr, 0, nullptr, 0, bytes(priv), 600));
    Fake().log += Rc(op.InsertLdap(kSales, kSalesRecord, false, bytes(password), 1, nullptr, 0,
                                   bytes(priv), 600));
    Fake().log += Rc(op.InsertLdap(kSales, kSalesRecord, true, bytes(password), 8, bytes(pub), 300,
                                   bytes(priv), 600));
    EXPECT_EQ(std::string("ldap_modify_s dn=") + kUser +
                  " mods=[op=0x82 type=signPubcer;binary vals=8 b]\n" + Rc(32) +
                  "ldap_modify_s dn=" + kSales + " mods=(empty)\n" + Rc(53) +
                  "ldap_delete_s dn=" + kSales + "\n" + Rc(66) + kFailed + kFailed +
                  "ldap_modify_s dn=" + kUser + " mods=[op=0x82 type=signPrikey;binary vals=]\n" +
                  kOk + add + "signPrikey;binary vals=" + priv + "]\n" + kFailed + add +
                  "signPrikey;binary vals=" + priv + "]\n" + kOk + add +
                  "cryptPrikey;binary vals=" + priv + "][op=0x82 type=userPsw;binary vals=" +
                  password + "][op=0x82 type=cryptPubcer;binary vals=" + pub + "]\n" + kOk,
              Fake().log);

    // A record: two walks over one search; the last objectClass value naming a template wins.
    std::string const record = Search(kUser, 0, "(cn=*)") +
                               Walk({{"cn", 1}, {"objectClass", 2}}, "") +
                               Walk({{"cn", 1}, {"objectClass", 2}}, "") + "ldap_msgfree\n" + kOk +
                               "2 items cn objectClass, ";
    std::string const where = std::string(kUser) + " under " + kSales + "\n";
    Fake().Reset(
        {{kUser, {{"cn", {"Li Lei"}}, {"objectClass", {"organizationalUnit", "qorPerson"}}}}});
    Record(op, kUser);
    Fake().entries[0].attributes[1].second = {"qorPerson", "organizationalUnit"};
    Record(op, kUser);
    EXPECT_EQ(
        record + "qorPerson by cn (1) " + where + record + "organizationalUnit by ou (0) " + where,
        Fake().log);

    // The children of an entry by name. A DN fits a record's 255-character field or is refused
    // before any search; a child's that does not is left empty rather than cut.
    std::string const at = "cn=" + std::string(245, 'a') + ",o=root", over = at + "a";
    std::string const listed = Search(kSales, 1, "(|(ou=*)(cn=*))");
    Fake().Reset({{"cn=A,o=root", {}}, {at, {}}, {over, {}}});
    Children(op, kSales);
    Fake().entries.clear();
    Record(op, at.c_str());
    Record(op, over.c_str());
    Children(op, over.c_str());
    std::string walk = "ldap_first_entry -> ";
    for (std::string const& dn : {std::string("cn=A,o=root"), at, over})
        walk += dn + "\nldap_get_dn -> " + dn + "\nldap_memfree\nldap_next_entry -> ";
    EXPECT_EQ(listed + "ldap_count_entries -> 3\n" + walk + "null\nldap_msgfree\n" + kOk +
                  "3 children cn=A,o=root under " + kSales + " " + at + " under " + kSales +
                  "  under " + kSales + "\n" + Search(at, 0, "(cn=*)") + kNothing +
                  "0 items,  by  (0)  under \n" + kFailed + "7 items,  by  (0)  under \n" +
                  kFailed + "5 children\n",
              Fake().log);
}

// fast_lookup: a name costs one subtree search that asks for no attributes and at most 16
// entries; only users at the template depth count, and two of one name are refused.
TEST_F(Calls, FastLookup) {
    Soap("fast_lookup=yes\n");
    CLdapOp op;
    ASSERT_EQ(QORLDAP_OK, op.ConnectLdap());
    std::string const search =
        "ldap_search_ext_s base=o=root scope=2 filter=(cn=li lei\\2a) "
        "attrs=ptr attrsonly=0 ctrls=null,null timeout=null sizelimit=16\n";
    auto walk = [](std::vector<std::string> const& dns) {
        std::string log = "ldap_count_entries -> " + std::to_string(dns.size()) + "\n";
        for (size_t i = 0; i < dns.size(); ++i)
            log += (i ? "ldap_next_entry -> " : "ldap_first_entry -> ") + dns[i] +
                   "\nldap_get_dn -> " + dns[i] + "\nldap_memfree\n";
        return log + "ldap_next_entry -> null\nldap_msgfree\n";
    };
    // Not users: an entry above the users' level, and one that only holds the name as a
    // further cn value (the server returns it for the filter).
    std::vector<std::string> dns = {"cn=li lei*,o=root", "cn=mallory,ou=Sales,o=root",
                                    "CN=Li Lei*, ou=Sales,o=root"};
    std::string found[3];
    Fake().Reset({{dns[0], {}}, {dns[1], {}}, {dns[2], {}}});
    int one = op.GetFullDN("cn=li lei*", found[0]);
    dns.push_back("cn=li lei*,ou=HR,o=root");
    Fake().entries.push_back({dns.back(), {}});
    int two = op.GetFullDN("cn=li lei*", found[1]);
    std::string const log = Fake().log;
    Fake().Reset({}, {{"ldap_search_ext_s", 4}});
    int many = op.GetFullDN("cn=li lei*", found[2]);
    EXPECT_EQ(0, one);
    EXPECT_EQ("cn=li lei*,  ou=Sales,o=root", found[0]);
    EXPECT_EQ(QORLDAP_E_FAILED, two);
    EXPECT_EQ(QORLDAP_E_FAILED, many);
    EXPECT_EQ("", found[1] + found[2]);
    EXPECT_EQ(search + walk({dns[0], dns[1], dns[2]}) + search + walk(dns), log);
    EXPECT_EQ(search + "ldap_msgfree\n", Fake().log);
}

// A publication's writes after the path: by default the certificate, then the key, in two
// requests; with atomic_publish one request carries both; with refuse_weak_keys a weak key is
// refused before anything is sent, and a strong one goes through. Certificate first in each
// request, so that the two forms store the same values in the same order.
TEST_F(Calls, PublicationWrites) {
    auto const strong = qortest::CraftBundle({{"OU", "Sales"}, {"CN", "Li Lei"}}, "pw");
    auto const weak = qortest::CraftBundle({{"OU", "Sales"}, {"CN", "Li Lei"}}, "pw", "P-192");
    auto modifies = [](std::string const& log) {
        std::string found;
        for (size_t at = log.find("ldap_modify_s"); at != std::string::npos;
             at = log.find("ldap_modify_s", at + 1)) {
            // Up to the next modify: the values are binary and may hold line feeds.
            std::string const line = log.substr(at, log.find("ldap_modify_s", at + 1) - at);
            found += "modify";
            for (size_t t = line.find("[op=0x"); t != std::string::npos;
                 t = line.find("[op=0x", t + 1)) {
                size_t const type = line.find(" type=", t) + 6;
                found += " " + line.substr(type, line.find(' ', type) - type);
            }
            found += "\n";
        }
        return found;
    };
    struct Case {
        char const* keys;
        std::string const* bundle;
        int rc;
        char const* writes;
    } const cases[] = {
        {"", &strong.bundle, QORLDAP_OK, "modify signPubcer;binary\nmodify signPrikey;binary\n"},
        {"atomic_publish=yes\n", &strong.bundle, QORLDAP_OK,
         "modify signPubcer;binary signPrikey;binary\n"},
        {"refuse_weak_keys=yes\n", &weak.bundle, QORLDAP_E_PKCS12, ""},
        {"", &weak.bundle, QORLDAP_OK, "modify signPubcer;binary\nmodify signPrikey;binary\n"},
    };
    for (Case const& c : cases) {
        Soap(c.keys);
        CLdapOp op;
        ASSERT_EQ(QORLDAP_OK, op.ConnectLdap());
        Fake().Reset(kBaseEntry);
        EXPECT_EQ(c.rc, op.PublishP12(c.bundle->data(), c.bundle->size(), "pw", "key", true, false))
            << c.keys;
        EXPECT_EQ(c.writes, modifies(Fake().log)) << c.keys;
        if (c.rc != QORLDAP_OK) {
            EXPECT_EQ("", Fake().log) << c.keys;
        }
    }
}

// Without the library nothing is sent; once the variable names it, the same binding loads it.
// Without ldap_search_ext_s the search answers 0 with no result, and the rest works.
TEST_F(Calls, MissingLibraryOrFunction) {
    setenv("QORLDAP_LDAP_LIBRARY", "/nonexistent/libldap.so", 1);
    COpenLdapIF binding;
    EXPECT_EQ(nullptr, binding.LdapInit("127.0.0.1", 389));
    CLdapOp op;
    EXPECT_EQ(QORLDAP_E_FAILED, op.ConnectLdap());
    EXPECT_EQ("", Fake().log);

    setenv("QORLDAP_LDAP_LIBRARY", FAKE_LDAP_PATH, 1);
    COpenLdapIF other;
    ldap* handle = binding.LdapInit("127.0.0.1", 389);
    EXPECT_NE(handle, other.LdapInit("127.0.0.1", 389));  // a handle per binding
    EXPECT_EQ(handle, binding.LdapInit("other.example", 636));
    EXPECT_EQ(kInit + kInit, Fake().log);
    EXPECT_EQ(QORLDAP_OK, op.ConnectLdap());

    setenv("QORLDAP_LDAP_LIBRARY", FAKE_LDAP_MISSING_PATH, 1);
    CLdapOp without;
    EXPECT_EQ(QORLDAP_OK, without.ConnectLdap());
    void* missing = dlopen(FAKE_LDAP_MISSING_PATH, RTLD_NOW | RTLD_NOLOAD);
    auto log = reinterpret_cast<char const* (*)()>(dlsym(missing, "fake_ldap_log"));
    EXPECT_EQ(kInit + kVersion + kBind, log());
}

}  // namespace
}  // namespace fakeldap
