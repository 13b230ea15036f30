// CLdapOp: the engine, a façade. One object holds its own binding to the directory library, its
// connection, the server settings of "soap.ini" and the entry templates of "ldap.ini"; engines
// share nothing. Each member hands its call to the part that owns the operation, and that part's
// header says what the operation leaves in its outputs on success and on each refusal.
//
// Where each operation lives (engine/<name>.h and .cpp):
//   ServerSettings  GetConfig, GetLdapAtt, SetLdapAtt: the soap.ini record
//   LinkOptions     the soap.ini link keys (TLS, timeout, reconnect, fast_lookup, ...)
//   Connection      ConnectLdap, NeedsReconnect, GuardOperation, HasConnection, JoinPool: dial,
//                   bind, TLS, reconnect, host rotation, failback, idle checks; the search
//                   every read uses. A lost connection is noticed by the binding
//                   (binding/OpenLdapIF, WatchConnection)
//   RootCheck       ValidateRootAtt, GetRootAtt, InsertRootAtt (DepartementAtt)
//   TemplateTable   ReadConfig, ReadEachConfig, SeparateData, GetLdapOpAtt, TemplateCount,
//                   Templates: the templates of ldap.ini
//   Naming          MakeLower, CompareNameSame, GetFilter, GetParentDN, ParseSubject,
//                   FromCNToName, GetCondition (Naming.cpp); CheckSubject, the refusal of a
//                   subject that would name another entry (SubjectCheck.cpp)
//   Modification    GetParaAtt, AttFrame: one text value of a write
//   EntryWrite      InsertLdap, ModifyLdap, DeleteLdap, WriteWhole
//   EntryLookup     SelectLdapAtt, GetAtt, SelectLdap, GetChild, ReadEntry
//   EntryRead.h     WholeEntry, the record ReadEntry fills
//   PagedSearch     ReadPage, EndPages: a subtree one page at a time (RFC 2696)
//   OrgPath         InsertOrganization: the path a certificate subject names
//   KeyStore        ModifyKey, ReplacePair, GetKeyOP, GetEachKey, and the per-key
//                   Modify..., Get... and Delete... members: every key write and read (a
//                   publication's certificate and key go through ReplacePair when atomic)
//   UserLookup      GetChildKey (the descent walk), FindUser (fast_lookup), GetFullDN
//   PasswordChange  ModifyPriKeyPsw
//   UserCertificate the copy in userCertificate;binary (user_certificate), with publication
//                   and DeleteCryptPrivateKey
//   Pkcs12Publish   PublishP12
//   KeyProtect      a private key protected under its password (publication, change)
//   Records.h       FreeKey, FreeAtt, FreeDN
//   Constants.h     names and formats        Bounded.h      bounded copies
//   SearchResult.h  a search result's owner  Outcome.h      the thread's last refusal
//   Pool, HostSet, HostProbe, PoolOptions  the free functions' pool (pool_size, read_host,
//                   read_after_write, failback, idle_check); not part of an engine
#ifndef QORLDAP_ENGINE_LDAPOP_H
#define QORLDAP_ENGINE_LDAPOP_H

#include <shared_mutex>
#include <string>
#include <vector>

#include "engine/Connection.h"
#include "engine/Constants.h"
#include "engine/EntryLookup.h"
#include "engine/EntryWrite.h"
#include "engine/KeyStore.h"
#include "engine/LinkOptions.h"
#include "engine/Modification.h"
#include "engine/Naming.h"
#include "engine/OrgPath.h"
#include "engine/PagedSearch.h"
#include "engine/PasswordChange.h"
#include "engine/Pkcs12Publish.h"
#include "engine/RootCheck.h"
#include "engine/ServerSettings.h"
#include "engine/TemplateTable.h"
#include "engine/UserCertificate.h"
#include "engine/UserLookup.h"
#include "qorldap/records.h"
#include "qorldap/result_codes.h"

struct WholeEntry;  // engine/EntryRead.h

class CLdapOp {
  public:
    using AttFrame = ::AttFrame;  // engine/Modification.h

    CLdapOp();
    virtual ~CLdapOp();
    CLdapOp(CLdapOp const&) = delete;
    CLdapOp& operator=(CLdapOp const&) = delete;

    // "Untouched" means the output keeps what the caller put there. Operations that talk to
    // the directory expect a connection (the exported layer connects first); without one the
    // directory library's own refusal code comes back.

    // --- settings and connection (ServerSettings, Connection, RootCheck) ---
    void GetConfig(std::string const& section);
    int ConnectLdap();
    bool NeedsReconnect() const { return connection_.NeedsReconnect(); }
    // Whether the next ConnectLdap has work to do on a connection held: a lost one to redial,
    // an idle one to check (idle_check), or one to move back to the first host (failback).
    bool ConnectDue() { return connection_.NeedsReconnect() || connection_.CheckDue(); }
    std::shared_lock<std::shared_mutex> GuardOperation() { return connection_.GuardOperation(); }
    bool HasConnection() const { return connection_.HasConnection(); }
    // Makes the engine one of a pool's: it dials the hosts of hosts and redials a lost
    // connection (engine/Pool.h). Called once, before the first connection.
    void JoinPool(HostSet& hosts) { connection_.Join(hosts); }
    // Whether callers speak GB18030 in DNs (soap.ini gb18030_dns).
    bool Gb18030Dns() const { return settings_.Link().gb18030Dns; }
    void GetLdapAtt(LdapInfo& info);  // info receives a copy of the settings in force
    void SetLdapAtt(LdapInfo info);   // replaces the settings whole
    bool ValidateRootAtt();
    bool GetRootAtt(char const* dn, char const* filter, DepartementAtt& att);
    bool InsertRootAtt(char const* dn, char const* name);

    // --- records (Records.h) ---
    void FreeKey(unsigned char*& key);    // array delete; key becomes null (null is ignored)
    void FreeAtt(tagAtt* att);            // items released and null, itemCount 0; null ignored
    void FreeDN(tagDN* list, int count);  // array delete of list; count not read

    // --- schema file (TemplateTable) ---
    bool ReadConfig();
    bool ReadEachConfig(std::string const& section, std::string const& file, tagAtt& tmpl);
    bool SeparateData(std::string const& text, std::string& name, std::string& code, int& role);
    int GetLdapOpAtt(char const* name, tagAtt& out);  // always 1
    int TemplateCount() const { return templates_.Count(); }
    tagAtt const* Templates() const { return templates_.Data(); }

    // --- naming (Naming) ---
    static void MakeLower(std::string& text);
    static bool CompareNameSame(char const* a, char const* b);
    static bool GetFilter(char const* dn, int index, std::string& value, std::string& type);
    static bool GetParentDN(char const* dn, std::string& parent);
    static bool ParseSubject(char const* subject, char const* key, std::string& value);
    bool CheckSubject(char const* subject, std::string* fault = nullptr) const;
    bool GetCondition(char const* name, std::string& condition, int& kind);
    static bool FromCNToName(char const* component, char const* type, char const* namingAtt,
                             std::string& value);

    // --- entries (Modification, EntryWrite, EntryLookup, OrgPath) ---
    static bool GetParaAtt(char const* value, unsigned int op, char const* type, AttFrame& frame);
    int InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                   unsigned int passwordLength, unsigned char* publicKey,
                   unsigned int publicKeyLength, unsigned char* privateKey,
                   unsigned int privateKeyLength);
    int ModifyLdap(char const* dn, tagAtt const& att);
    int DeleteLdap(char const* dn);
    int WriteWhole(char const* dn, bool add, WholeEntry const& entry);
    int SelectLdapAtt(char const* dn, tagAtt& att);
    int GetAtt(char const* dn, char const* filter, tagAtt& att);
    int SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count);
    bool GetChild(char const* base, char const* filter, tagDN*& list, int& count);
    int ReadEntry(char const* dn, WholeEntry& entry);
    int ReadPage(char const* base, char const* filter, char** attributes, int pageSize,
                 std::string& cookie, std::vector<WholeEntry>& page);
    int EndPages(char const* base, char const* filter, char** attributes,
                 std::string const& cookie);
    int InsertOrganization(char const* subject, std::string& dn);

    // --- key store (KeyStore, UserLookup, PasswordChange, Pkcs12Publish) ---
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
    int FindUser(char const* value, std::string& dn);
    int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw);
    int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw, char const* keyPsw,
                   bool sign, bool publicOnly);

  private:
    // Built in this order; each part holds references to the parts before it.
    ServerSettings settings_{SECTION_LDAP};
    Connection connection_{settings_};
    RootCheck root_{connection_, settings_};
    // Public keys are kept as certificates: set, and never changed.
    bool certFlag_ = true;
    TemplateTable templates_;
    Naming naming_{templates_};
    EntryWriter writer_{connection_, certFlag_};
    EntryLookup lookup_{connection_, templates_, settings_.Link()};
    PagedSearch pages_{connection_};
    KeyStore keys_{connection_, naming_, certFlag_};
    UserLookup users_{settings_, connection_, templates_, naming_, lookup_, keys_};
    PasswordChange password_{users_, keys_};
    PathBuilder paths_{settings_, templates_, lookup_, writer_};
    UserCertificate copies_{connection_};
    Publisher publisher_{settings_.Link(), naming_, paths_, keys_, copies_};
};

#endif
