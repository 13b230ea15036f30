// A caller written from the published declarations alone, with its own copies of the records
// and no header of the project: it must build against the library unchanged; each name is called.
#include <cstdio>
#include <cstring>

struct LdapInfo {
    char host[256];
    int port;
    char basedn[256], managerdn[33], psw[33];
};
struct tagAttItem {
    char type[256], value[1024], syntax[256];
    unsigned char valueKnown;
};
struct tagAtt {
    tagAttItem* items;
    int itemCount;
    char objectClass[256], dn[256], parentDn[256], namingAtt[256];
    int templateIndex, templateCount;
};
struct tagDN {
    char dn[256], baseDn[256];
};
using C = char const*;
using K = unsigned char*&;
using N = unsigned int&;
using B = unsigned char const*;

int ConnectLdap(), GetSignPrivateKey(C, K, N), GetSignPublicKey(C, K, N),
    GetCryptPrivateKey(C, K, N), GetCryptPublicKey(C, K, N), DeleteSignPrivateKey(C),
    DeleteCryptPrivateKey(C), ModifyPriKeyPsw(C, C, C),
    PublishP12(C, unsigned long, C, C, bool, bool);
void FreeKey(unsigned char*), GetLdapAtt(LdapInfo&), SetLdapAtt(LdapInfo);

extern "C" {
struct QorLdapResult {
    int code;
    C operation, matchedDn, diagnostic;
};
void QorLdapLastResult(QorLdapResult*), QorLdapKeepDiagnostics(int);
C QorLdapResultText(int);
int QorLdapSet(C, C);
struct QorLdapOutcome {
    int refusal;
    C reason, dn;
};
void QorLdapLastOutcome(QorLdapOutcome*);
C QorLdapCodeText(int);
struct QorLdapEntry;
int QorLdapReadEntry(C, QorLdapEntry**);
void QorLdapFreeEntry(QorLdapEntry*);
int QorLdapSetting(C, C*), QorLdapCheckStoredKey(B, unsigned);
int QorLdapWalk(C, C, C const*, int, int (*)(QorLdapEntry const*, void*), void*);
struct QorLdapValue {
    unsigned length;
    B bytes;
};
struct QorLdapAttribute {
    C name;
    int valueCount;
    QorLdapValue const* values;
};
int QorLdapWriteEntry(C, int, QorLdapAttribute const*, int);
}

class CLdap {
  public:
    CLdap();
    ~CLdap();
    int ConnectLdap(), ModifySignPrivateKey(C, B, unsigned), ModifySignPublicKey(C, B, unsigned),
        ModifyCryptPrivateKey(C, B, unsigned), ModifyCryptPublicKey(C, B, unsigned),
        GetSignPrivateKey(C, K, N), GetSignPublicKey(C, K, N), GetCryptPrivateKey(C, K, N),
        GetCryptPublicKey(C, K, N), DeleteSignPrivateKey(C), DeleteCryptPrivateKey(C),
        ModifyPriKeyPsw(C, C, C), SelectLdap(C, tagAtt&), SelectLdap(C, C, tagDN*&, int&),
        InsertLdap(C, tagAtt const&, bool, unsigned char*, unsigned, unsigned char*, unsigned,
                   unsigned char*, unsigned),
        ModifyLdap(C, tagAtt const&), DeleteLdap(C);
    void FreeKey(unsigned char*&), GetLdapAtt(LdapInfo&), SetLdapAtt(LdapInfo), FreeAtt(tagAtt*),
        FreeDN(tagDN*, int);

  private:
    void* engine;
    bool connected;
};

int main() {
    unsigned char const b0[2] = {0x30, 0x00};
    // Settings before the free functions' engine is built reach it (0), later ones do not (1).
    bool ok = QorLdapSet("timeout", "1") == 0 && QorLdapSet("no_such_key", "1") == 0x16000010;
    // A setting in force as the library reads it: given (0), unread (2, its text as written),
    // unknown (the general failure, no text). Nothing here is a stored key.
    C timeout = nullptr, reconnect = nullptr, unknown = "x";
    ok = ok && QorLdapSetting("timeout", &timeout) == 0 && !std::strcmp(timeout, "1") &&
         QorLdapSet("reconnect", "maybe") == 0 && QorLdapSetting("Reconnect", &reconnect) == 2 &&
         !std::strcmp(reconnect, "maybe") && QorLdapSet("reconnect", nullptr) == 0 &&
         QorLdapSetting("no_such_key", &unknown) == 0x16000010 && unknown == nullptr &&
         QorLdapCheckStoredKey(b0, 2) == 0x16000010 && QorLdapCheckStoredKey(nullptr, 0) != 0;
    // Settings cross by value and by reference in this caller's own layout; with nothing
    // listening on port 1, every call that needs the server gives the general failure.
    LdapInfo info = {"127.0.0.1", 1, "o=abi", "cn=admin,o=abi", "secret"}, back;
    CLdap ldap;
    ldap.SetLdapAtt(info);
    ldap.GetLdapAtt(back);
    SetLdapAtt(back);
    GetLdapAtt(back);
    ok = ok && QorLdapSet("TIMEOUT", nullptr) == 1 && back.port == 1 &&
         !std::strcmp(back.psw, info.psw) && !std::strcmp(back.basedn, info.basedn) &&
         !std::strcmp(back.host, info.host);
    unsigned char *key = nullptr, b[2] = {1, 2};
    unsigned n = 0;
    tagAtt att = {};
    tagDN* list = nullptr;
    int count = 0;
    C dn = "cn=x,o=abi";
    auto F = [](int rc) { return rc != 0x16000010; };  // 1 unless the general failure
    ok = ok &&
         0 == F(ConnectLdap()) + F(GetSignPrivateKey(dn, key, n)) +
                  F(GetSignPublicKey(dn, key, n)) + F(GetCryptPrivateKey(dn, key, n)) +
                  F(GetCryptPublicKey(dn, key, n)) + F(DeleteSignPrivateKey(dn)) +
                  F(DeleteCryptPrivateKey(dn)) + F(ModifyPriKeyPsw("cn=x", "a", "b")) +
                  F(PublishP12("p", 1, "a", "b", true, false)) + F(ldap.ConnectLdap()) +
                  F(ldap.ModifySignPrivateKey(dn, b, 2)) + F(ldap.ModifySignPublicKey(dn, b, 2)) +
                  F(ldap.ModifyCryptPrivateKey(dn, b, 2)) + F(ldap.ModifyCryptPublicKey(dn, b, 2)) +
                  F(ldap.GetSignPrivateKey(dn, key, n)) + F(ldap.GetSignPublicKey(dn, key, n)) +
                  F(ldap.GetCryptPrivateKey(dn, key, n)) + F(ldap.GetCryptPublicKey(dn, key, n)) +
                  F(ldap.DeleteSignPrivateKey(dn)) + F(ldap.DeleteCryptPrivateKey(dn)) +
                  F(ldap.ModifyPriKeyPsw("cn=x", "a", "b")) + F(ldap.SelectLdap(dn, att)) +
                  F(ldap.SelectLdap(dn, nullptr, list, count)) +
                  F(ldap.InsertLdap(dn, att, false, b, 2, b, 2, b, 2)) +
                  F(ldap.ModifyLdap(dn, att)) + F(ldap.DeleteLdap(dn));
    // The extension: this thread's last request was a bind nobody answered.
    QorLdapKeepDiagnostics(1);
    QorLdapResult last = {};
    QorLdapLastResult(&last);
    ok = ok && last.code == -1 && !std::strcmp(last.operation, "bind") &&
         !std::strcmp(QorLdapResultText(49), "Invalid credentials");
    // The publication above never ran (no connection): nothing refused, no entry reached. The
    // library's codes read as words.
    QorLdapOutcome outcome = {7, nullptr, nullptr};
    QorLdapLastOutcome(&outcome);
    ok = ok && outcome.refusal == 0 && !std::strcmp(outcome.dn, "") &&
         std::strstr(QorLdapCodeText(0x16000014), "PKCS#12") != nullptr;
    QorLdapEntry* entry = reinterpret_cast<QorLdapEntry*>(&count);
    ok = ok && QorLdapReadEntry(dn, &entry) == 0x16000010 && entry == nullptr;
    QorLdapFreeEntry(entry);
    // A walk without a connection visits nothing.
    C const wanted[] = {"cn", nullptr};
    int visits = 0;
    auto visit = [](QorLdapEntry const*, void* seen) { return ++*static_cast<int*>(seen); };
    ok = ok && QorLdapWalk("o=abi", nullptr, wanted, 10, visit, &visits) == 0x16000010 &&
         visits == 0;
    // A write without a connection sends nothing; one the library refuses never connects.
    QorLdapValue const octets[] = {{2, b0}};
    QorLdapAttribute const written[] = {{"signPubcer;binary", 1, octets}};
    ok = ok && QorLdapWriteEntry(dn, 1, written, 1) == 0x16000010 &&
         QorLdapWriteEntry(dn, 7, written, 1) == 0x16000010;
    FreeKey(key);
    ldap.FreeKey(key);
    ldap.FreeAtt(&att);
    ldap.FreeDN(list, count);
    std::printf("abi_client: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
