// A caller written from the published declarations alone, with its own copies of the records
// and no header of the project: it must build against the library unchanged; each name is called.
#include <cstdio>
#include <cstring>

struct LdapInfo {
    char host[256];
    int port;
    char basedn[256];
    char managerdn[33];
    char psw[33];
};
struct tagAttItem {
    char type[256];
    char value[1024];
    char syntax[256];
    unsigned char valueKnown;
};
struct tagAtt {
    tagAttItem* items;
    int itemCount;
    char objectClass[256];
    char dn[256];
    char parentDn[256];
    char namingAtt[256];
    int templateIndex;
    int templateCount;
};
struct tagDN {
    char dn[256];
    char baseDn[256];
};

int ConnectLdap();
void FreeKey(unsigned char*);
void GetLdapAtt(LdapInfo&);
void SetLdapAtt(LdapInfo);
int GetSignPrivateKey(char const*, unsigned char*&, unsigned int&);
int GetSignPublicKey(char const*, unsigned char*&, unsigned int&);
int GetCryptPrivateKey(char const*, unsigned char*&, unsigned int&);
int GetCryptPublicKey(char const*, unsigned char*&, unsigned int&);
int DeleteSignPrivateKey(char const*);
int DeleteCryptPrivateKey(char const*);
int ModifyPriKeyPsw(char const*, char const*, char const*);
int PublishP12(char const*, unsigned long, char const*, char const*, bool, bool);

class CLdapOp;
class CLdap {
  public:
    CLdap();
    ~CLdap();
    int ConnectLdap();
    void FreeKey(unsigned char*&);
    void GetLdapAtt(LdapInfo&);
    void SetLdapAtt(LdapInfo);
    int ModifySignPrivateKey(char const*, unsigned char const*, unsigned int);
    int ModifySignPublicKey(char const*, unsigned char const*, unsigned int);
    int ModifyCryptPrivateKey(char const*, unsigned char const*, unsigned int);
    int ModifyCryptPublicKey(char const*, unsigned char const*, unsigned int);
    int GetSignPrivateKey(char const*, unsigned char*&, unsigned int&);
    int GetSignPublicKey(char const*, unsigned char*&, unsigned int&);
    int GetCryptPrivateKey(char const*, unsigned char*&, unsigned int&);
    int GetCryptPublicKey(char const*, unsigned char*&, unsigned int&);
    int DeleteSignPrivateKey(char const*);
    int DeleteCryptPrivateKey(char const*);
    int ModifyPriKeyPsw(char const*, char const*, char const*);
    int SelectLdap(char const*, tagAtt&);
    int SelectLdap(char const*, char const*, tagDN*&, int&);
    int InsertLdap(char const*, tagAtt const&, bool, unsigned char*, unsigned int, unsigned char*,
                   unsigned int, unsigned char*, unsigned int);
    int ModifyLdap(char const*, tagAtt const&);
    int DeleteLdap(char const*);
    void FreeAtt(tagAtt*);
    void FreeDN(tagDN*, int);

  private:
    CLdapOp* engine;
    bool connected;
};

int main() {
    // Settings cross by value and by reference in this caller's own layout; with nothing
    // listening on port 1, every call that needs the server gives the general failure.
    LdapInfo info = {"127.0.0.1", 1, "o=abi", "cn=admin,o=abi", "secret"}, back;
    auto same = [&] {
        return back.port == 1 && !std::strcmp(back.psw, info.psw) &&
               !std::strcmp(back.basedn, info.basedn);
    };
    SetLdapAtt(info);
    GetLdapAtt(back);
    bool ok = same();
    CLdap ldap;
    ldap.SetLdapAtt(info);
    ldap.GetLdapAtt(back);
    ok = ok && same();
    unsigned char* key = nullptr;
    unsigned int n = 0;
    unsigned char bytes[2] = {1, 2};
    tagAtt att = {};
    tagDN* list = nullptr;
    int count = 0;
    char const* dn = "cn=x,o=abi";
    auto F = [](int rc) { return rc != 0x16000010 ? 1 : 0; };  // 1 unless the general failure
    int wrong =
        F(ConnectLdap()) + F(GetSignPrivateKey(dn, key, n)) + F(GetSignPublicKey(dn, key, n)) +
        F(GetCryptPrivateKey(dn, key, n)) + F(GetCryptPublicKey(dn, key, n)) +
        F(DeleteSignPrivateKey(dn)) + F(DeleteCryptPrivateKey(dn)) +
        F(ModifyPriKeyPsw("cn=x", "a", "b")) + F(PublishP12("p", 1, "a", "b", true, false)) +
        F(ldap.ConnectLdap()) + F(ldap.ModifySignPrivateKey(dn, bytes, 2)) +
        F(ldap.ModifySignPublicKey(dn, bytes, 2)) + F(ldap.ModifyCryptPrivateKey(dn, bytes, 2)) +
        F(ldap.ModifyCryptPublicKey(dn, bytes, 2)) + F(ldap.GetSignPrivateKey(dn, key, n)) +
        F(ldap.GetSignPublicKey(dn, key, n)) + F(ldap.GetCryptPrivateKey(dn, key, n)) +
        F(ldap.GetCryptPublicKey(dn, key, n)) + F(ldap.DeleteSignPrivateKey(dn)) +
        F(ldap.DeleteCryptPrivateKey(dn)) + F(ldap.ModifyPriKeyPsw("cn=x", "a", "b")) +
        F(ldap.SelectLdap(dn, att)) + F(ldap.SelectLdap(dn, nullptr, list, count)) +
        F(ldap.InsertLdap(dn, att, false, bytes, 2, bytes, 2, bytes, 2)) +
        F(ldap.ModifyLdap(dn, att)) + F(ldap.DeleteLdap(dn));
    ok = ok && wrong == 0;
    FreeKey(key);
    ldap.FreeKey(key);
    ldap.FreeAtt(&att);
    ldap.FreeDN(list, count);
    std::printf("abi_client: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
