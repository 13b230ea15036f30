// CLdapOp: the engine. One object holds its own binding to the directory library, its
// connection, the server settings of "soap.ini" and the entry templates of "ldap.ini".
// Engines share nothing. Operations that refuse say what they leave in their outputs.
#ifndef QORLDAP_ENGINE_LDAPOP_H
#define QORLDAP_ENGINE_LDAPOP_H

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "binding/OpenLdapIF.h"
#include "engine/Constants.h"
#include "engine/LinkOptions.h"
#include "engine/SearchResult.h"
#include "platform/IniFile.h"
#include "qorldap/records.h"
#include "qorldap/result_codes.h"

// What the root check reads from the base entry. Nothing reads it back; texts are cut to fit.
struct DepartementAtt {
    char name[256];
    char dn[256];
    char baseDn[256];
};

class CLdapOp {
  public:
    // One prepared text modification. values[0] is the UTF-8 copy (array new) that the
    // request's sender releases; mod.mod_values points into this same frame, so a filled
    // frame is never moved or copied.
    struct AttFrame {
        char* values[2];
        LDAPMod mod;
    };

    CLdapOp();
    virtual ~CLdapOp();
    CLdapOp(CLdapOp const&) = delete;
    CLdapOp& operator=(CLdapOp const&) = delete;

    // --- engine core: settings and connection ---
    void GetConfig(std::string const& section);
    int ConnectLdap();
    // True when reconnection is on and the connection was lost: the next ConnectLdap redials.
    bool NeedsReconnect() const { return link_.reconnect && binding_.ConnectionLost(); }
    // Held by the caller for the span of one operation when reconnection is on, so that a lost
    // handle is released only once no operation still uses it. Empty (free) otherwise.
    std::shared_lock<std::shared_mutex> GuardOperation() {
        return link_.reconnect ? std::shared_lock<std::shared_mutex>(operations_)
                               : std::shared_lock<std::shared_mutex>();
    }
    // Whether the engine holds a connection; checked under GuardOperation, since with
    // reconnection on another thread may have found the connection lost and failed to redial.
    bool HasConnection() const { return handle_.load(std::memory_order_acquire) != nullptr; }
    void GetLdapAtt(LdapInfo& info);
    void SetLdapAtt(LdapInfo info);
    void FreeKey(unsigned char*& key);
    bool ValidateRootAtt();
    bool GetRootAtt(char const* dn, char const* filter, DepartementAtt& att);
    bool InsertRootAtt(char const* dn, char const* name);

    // --- records ---
    void FreeAtt(tagAtt* att);
    void FreeDN(tagDN* list, int count);

    // --- schema file ---
    bool ReadConfig();
    bool ReadEachConfig(std::string const& section, std::string const& file, tagAtt& tmpl);
    bool SeparateData(std::string const& text, std::string& name, std::string& code, int& role);
    int GetLdapOpAtt(char const* name, tagAtt& out);
    int TemplateCount() const { return templateCount_; }
    tagAtt const* Templates() const { return templates_; }

    // --- naming (pure text operations) ---
    static void MakeLower(std::string& text);
    static bool CompareNameSame(char const* a, char const* b);
    static bool GetFilter(char const* dn, int index, std::string& value, std::string& type);
    static bool GetParentDN(char const* dn, std::string& parent);
    static bool ParseSubject(char const* subject, char const* key, std::string& value);
    bool GetCondition(char const* name, std::string& condition, int& kind);
    static bool FromCNToName(char const* component, char const* type, char const* namingAtt,
                             std::string& value);

    // --- entries ---
    static bool GetParaAtt(char const* value, unsigned int op, char const* type, AttFrame& frame);
    int InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                   unsigned int passwordLength, unsigned char* publicKey,
                   unsigned int publicKeyLength, unsigned char* privateKey,
                   unsigned int privateKeyLength);
    int ModifyLdap(char const* dn, tagAtt const& att);
    int DeleteLdap(char const* dn);
    int SelectLdapAtt(char const* dn, tagAtt& att);
    int GetAtt(char const* dn, char const* filter, tagAtt& att);
    int SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count);
    bool GetChild(char const* base, char const* filter, tagDN*& list, int& count);
    int InsertOrganization(char const* subject, std::string& dn);

    // --- key store ---
    int ModifyKey(char const* dn, char const* attribute, unsigned char const* value,
                  unsigned int length);
    int ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    int DeleteSignPrivateKey(char const* dn);
    int DeleteCryptPrivateKey(char const* dn);
    int GetSignPrivateKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetSignPublicKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetCryptPrivateKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetCryptPublicKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetKeyOP(char const* name, char const* attribute, unsigned char*& value,
                 unsigned int& length);
    int GetEachKey(char const* dn, char const* attribute, unsigned char*& value,
                   unsigned int& length);
    bool GetChildKey(char const* base, int depth, char const* value, char const* attribute,
                     unsigned char*& key, unsigned int& length, std::string& foundDn);
    int GetFullDN(char const* name, std::string& dn);
    int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw);
    int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw, char const* keyPsw,
                   bool sign, bool publicOnly);

  private:
    // The attribute of the signing (sign) or encryption public key: the certificate attribute
    // while the certificate flag is set, as it always is, the bare public key otherwise.
    char const* PublicKeyAttribute(bool sign) const {
        return sign ? (certFlag_ ? LDAP_PERSON_SIGN_PUB_CER : LDAP_PERSON_SIGN_PUB)
                    : (certFlag_ ? LDAP_PERSON_EN_PUB_CER : LDAP_PERSON_EN_PUB);
    }
    // One template's definitions from a schema file already read; see ReadEachConfig.
    bool ReadTemplate(IniFile const& file, std::string const& section, tagAtt& tmpl);
    // A copy of the settings in force, so that SetLdapAtt from another thread never tears a
    // text that an operation is reading.
    LdapInfo Settings() const {
        std::lock_guard<std::mutex> guard(settingsLock_);
        return info_;
    }
    // One synchronous search for all attributes, no limits, on result's handle. On a non-zero
    // code the chain the library may have handed back with it is released and result is empty.
    int Search(char const* base, int scope, char const* filter, SearchResult& result);
    // The connection sequence proper, run under connectLock_: drops a lost handle, then
    // opens, secures and binds a new one and checks the root. A QORLDAP code.
    int Dial();
    // Opens the handle as the link options say; null when none can be had.
    ldap* OpenHandle(LdapInfo const& settings);
    // Timeouts and TLS settings, only those configured. false when StartTLS failed.
    bool SecureHandle(ldap* ld);
    int ReplaceBinary(char const* dn, char const* attribute, berval** values);
    // Removes a private-key attribute: a replace with no values.
    int RemoveKey(char const* dn, char const* attribute);
    // Re-protects one stored private key; see ModifyPriKeyPsw.
    template <typename Get, typename Put>
    int ReprotectKey(std::string const& dn, char const* oldPsw, char const* newPsw, Get get,
                     Put put);
    // The handle operations run on: the connected one, or during the connection sequence the
    // freshly bound one that the root check uses.
    ldap* Handle() const {
        ldap* ld = handle_.load(std::memory_order_acquire);
        return ld != nullptr ? ld : connecting_;
    }

    COpenLdapIF binding_;
    // Set only by ConnectLdap. Atomic, and the connection sequence serialised by connectLock_,
    // so that threads sharing one engine may all connect on demand at once.
    std::atomic<ldap*> handle_;
    LdapInfo info_;  // read and replaced as a whole under settingsLock_
    mutable std::mutex settingsLock_;
    bool certFlag_;
    tagAtt* templates_;
    int templateCount_;
    std::timed_mutex connectLock_;
    ldap* connecting_ = nullptr;  // written and read only under connectLock_
    LinkOptions link_;
    std::shared_mutex operations_;
    std::atomic<unsigned long> failedConnects_{0};
    unsigned hostShift_ = 0;  // written and read only under connectLock_
};

#endif
