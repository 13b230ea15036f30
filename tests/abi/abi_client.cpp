// A caller written from the published declarations alone, with its own copies of the records:
// it must compile and link against the library unchanged. No header of the project is used.
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

static int failures = 0;
static void Check(bool ok, char const* what) {
    if (!ok) {
        std::printf("FAILED: %s\n", what);
        ++failures;
    }
}

int main() {
    // Every exported name must resolve: take each one's address.
    void const* names[] = {reinterpret_cast<void const*>(&ConnectLdap),
                           reinterpret_cast<void const*>(&FreeKey),
                           reinterpret_cast<void const*>(&GetSignPrivateKey),
                           reinterpret_cast<void const*>(&GetSignPublicKey),
                           reinterpret_cast<void const*>(&GetCryptPrivateKey),
                           reinterpret_cast<void const*>(&GetCryptPublicKey),
                           reinterpret_cast<void const*>(&DeleteSignPrivateKey),
                           reinterpret_cast<void const*>(&DeleteCryptPrivateKey),
                           reinterpret_cast<void const*>(&ModifyPriKeyPsw),
                           reinterpret_cast<void const*>(&PublishP12)};
    for (void const* p : names)
        Check(p != nullptr, "exported function");
    int (CLdap::*members[])(char const*, unsigned char const*, unsigned int) = {
        &CLdap::ModifySignPrivateKey, &CLdap::ModifySignPublicKey, &CLdap::ModifyCryptPrivateKey,
        &CLdap::ModifyCryptPublicKey};
    (void)members;
    int (CLdap::*select1)(char const*, tagAtt&) = &CLdap::SelectLdap;
    int (CLdap::*select2)(char const*, char const*, tagDN*&, int&) = &CLdap::SelectLdap;
    int (CLdap::*insert)(char const*, tagAtt const&, bool, unsigned char*, unsigned int,
                         unsigned char*, unsigned int, unsigned char*, unsigned int) =
        &CLdap::InsertLdap;
    (void)select1;
    (void)select2;
    (void)insert;

    // Settings cross by value and by reference with this caller's own record layout.
    LdapInfo info;
    std::memset(&info, 0, sizeof info);
    std::strcpy(info.host, "127.0.0.1");
    info.port = 1;  // nothing listens there
    std::strcpy(info.basedn, "o=abi");
    std::strcpy(info.managerdn, "cn=admin,o=abi");
    std::strcpy(info.psw, "secret");
    SetLdapAtt(info);
    LdapInfo back;
    GetLdapAtt(back);
    Check(std::memcmp(&info, &back, sizeof info) == 0, "free settings round trip");

    CLdap ldap;
    ldap.SetLdapAtt(info);
    ldap.GetLdapAtt(back);
    Check(back.port == 1 && std::strcmp(back.psw, "secret") == 0, "member settings round trip");
    Check(ldap.ConnectLdap() == 0x16000010, "connect to nothing gives 0x16000010");
    unsigned char* key = new unsigned char[4];
    ldap.FreeKey(key);
    Check(key == nullptr, "CLdap::FreeKey clears the pointer");
    tagAtt att;
    std::memset(&att, 0, sizeof att);
    att.items = new tagAttItem[2];
    att.itemCount = 2;
    ldap.FreeAtt(&att);
    Check(att.items == nullptr && att.itemCount == 0, "FreeAtt");
    ldap.FreeDN(new tagDN[3], 3);
    unsigned int length = 7;
    Check(ldap.GetSignPublicKey("cn=x,o=abi", key, length) == 0x16000010, "no server");
    std::printf("abi_client: %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
