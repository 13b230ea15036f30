// CLdapOp: the engine. One object holds its own binding to the directory library, its
// connection, the server settings of "soap.ini" and the entry templates of "ldap.ini".
// Engines share nothing. Each operation says what it leaves in its outputs on success and on
// each refusal.
#ifndef QORLDAP_ENGINE_LDAPOP_H
#define QORLDAP_ENGINE_LDAPOP_H

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "binding/OpenLdapIF.h"
#include "engine/Connection.h"
#include "engine/Constants.h"
#include "engine/EntryLookup.h"
#include "engine/EntryWrite.h"
#include "engine/KeyProtect.h"
#include "engine/KeyStore.h"
#include "engine/LinkOptions.h"
#include "engine/Modification.h"
#include "engine/Naming.h"
#include "engine/OrgPath.h"
#include "engine/PasswordChange.h"
#include "engine/Pkcs12Publish.h"
#include "engine/RootCheck.h"
#include "engine/SearchResult.h"
#include "engine/ServerSettings.h"
#include "engine/TemplateTable.h"
#include "engine/UserLookup.h"
#include "platform/IniFile.h"
#include "qorldap/records.h"
#include "qorldap/result_codes.h"

class WipedBuffer;  // platform/WipedBuffer.h
struct WholeEntry;  // engine/EntryRead.h

class CLdapOp {
  public:
    // One prepared text modification (engine/Modification.h).
    using AttFrame = ::AttFrame;

    CLdapOp();
    virtual ~CLdapOp();
    CLdapOp(CLdapOp const&) = delete;
    CLdapOp& operator=(CLdapOp const&) = delete;

    // Contracts. "Untouched" means the output keeps what the caller put there. Operations that
    // talk to the directory expect a connection (the exported layer connects first); without
    // one the directory library's own refusal code comes back.

    // --- engine core: settings and connection ---
    // Reads section of soap.ini into the settings and link options; a missing key keeps its
    // field, a text longer than its field is cut.
    void GetConfig(std::string const& section);
    // 0 connected (at once when already connected); 0x16000010 no handle, a refused bind or
    // StartTLS, link keys that do not read, or (with a timeout) another thread's attempt failed
    // while this one waited; 0x16000011 the root check failed.
    int ConnectLdap();
    // True when reconnection is on and the connection was lost: the next ConnectLdap redials.
    bool NeedsReconnect() const { return connection_.NeedsReconnect(); }
    // Held by the caller for the span of one operation when reconnection is on, so that a lost
    // handle is released only once no operation still uses it. Empty (free) otherwise.
    std::shared_lock<std::shared_mutex> GuardOperation() { return connection_.GuardOperation(); }
    // Whether the engine holds a connection; checked under GuardOperation, since with
    // reconnection on another thread may have found the connection lost and failed to redial.
    bool HasConnection() const { return connection_.HasConnection(); }
    // Whether callers speak GB18030 in DNs (soap.ini gb18030_dns).
    bool Gb18030Dns() const { return settings_.Link().gb18030Dns; }
    void GetLdapAtt(LdapInfo& info);    // info receives a copy of the settings in force
    void SetLdapAtt(LdapInfo info);     // replaces the settings whole
    void FreeKey(unsigned char*& key);  // array delete; key becomes null (null is ignored)
    // true when the base entry exists or was created, or the base is not "o=..."; false when
    // the base DN is unusable or the creation failed.
    bool ValidateRootAtt();
    // true when the search succeeded (att then holds what was found, cut to fit, or zeros);
    // false when it failed, att zeroed.
    bool GetRootAtt(char const* dn, char const* filter, DepartementAtt& att);
    // true when the base entry was added.
    bool InsertRootAtt(char const* dn, char const* name);

    // --- records ---
    void FreeAtt(tagAtt* att);            // items released and null, itemCount 0; null ignored
    void FreeDN(tagDN* list, int count);  // array delete of list; count not read

    // --- schema file ---
    // true with the template table replaced; false (a missing key, a count below 1 or over
    // 1000, a broken template) with the table as it was, or empty once a template failed.
    bool ReadConfig();
    // true with tmpl.namingAtt set from the last naming definition; false for a broken
    // template (tmpl.namingAtt may then hold an earlier naming attribute).
    bool ReadEachConfig(std::string const& section, std::string const& file, tagAtt& tmpl);
    // Splits "name,code,role"; false, outputs untouched, for text that does not split.
    bool SeparateData(std::string const& text, std::string& name, std::string& code, int& role);
    // Copies the template whose object class is name into out (out untouched when none is);
    // always 1.
    int GetLdapOpAtt(char const* name, tagAtt& out);
    int TemplateCount() const { return templates_.Count(); }
    tagAtt const* Templates() const { return templates_.Data(); }

    // --- naming (engine/Naming.h) ---
    static void MakeLower(std::string& text);
    static bool CompareNameSame(char const* a, char const* b);
    static bool GetFilter(char const* dn, int index, std::string& value, std::string& type);
    static bool GetParentDN(char const* dn, std::string& parent);
    static bool ParseSubject(char const* subject, char const* key, std::string& value);
    bool CheckSubject(char const* subject, std::string* fault = nullptr) const;
    bool GetCondition(char const* name, std::string& condition, int& kind);
    static bool FromCNToName(char const* component, char const* type, char const* namingAtt,
                             std::string& value);

    // --- entries ---
    // Fills frame with value converted to UTF-8; false (frame untouched) for a null type, an
    // empty or unconvertible value.
    static bool GetParaAtt(char const* value, unsigned int op, char const* type, AttFrame& frame);
    // 0 added; 0x16000010 for a null dn (nothing sent) or any refusal by the directory.
    int InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                   unsigned int passwordLength, unsigned char* publicKey,
                   unsigned int publicKeyLength, unsigned char* privateKey,
                   unsigned int privateKeyLength);
    // The directory's code; 0x16000010 for a null dn (nothing sent).
    int ModifyLdap(char const* dn, tagAtt const& att);
    int DeleteLdap(char const* dn);
    // See CLdap::SelectLdap(dn, att): 0 whether or not found; 0x16000010, att untouched, for a
    // dn that is null, over 255 characters or gives no filter.
    int SelectLdapAtt(char const* dn, tagAtt& att);
    // 1 found (att filled, items new); 0 otherwise: att zeroed when the search succeeded,
    // only att.dn and att.parentDn emptied when it failed.
    int GetAtt(char const* dn, char const* filter, tagAtt& att);
    // See CLdap::SelectLdap(dn, condition, list, count).
    int SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count);
    // true with count set (and list new when count > 0); false, both untouched, for a null
    // argument or a failed search.
    bool GetChild(char const* base, char const* filter, tagDN*& list, int& count);
    // 0 with dn the deepest level (dn untouched with no templates); 0x16000010 when the base or
    // a composed level does not fit 255 characters; else the code of a failed lookup or add,
    // with the levels made so far left in place.
    int InsertOrganization(char const* subject, std::string& dn);

    // --- key store ---
    // Replaces attribute's values with one value. 0x16000010 for a null argument or an empty
    // value (nothing sent); else the directory's code.
    int ModifyKey(char const* dn, char const* attribute, unsigned char const* value,
                  unsigned int length);
    int ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length);
    int ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length);
    // A replace with no values: 0 when the key is gone (present or not); 0x16000010 for a null
    // dn (nothing sent); else the directory's code.
    int DeleteSignPrivateKey(char const* dn);
    int DeleteCryptPrivateKey(char const* dn);
    // As GetKeyOP with the matching attribute.
    int GetSignPrivateKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetSignPublicKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetCryptPrivateKey(char const* dn, unsigned char*& key, unsigned int& length);
    int GetCryptPublicKey(char const* dn, unsigned char*& key, unsigned int& length);
    // value null and length 0 first, whatever follows. 0 with value new (or still null when
    // the entry lacks the attribute); 0x16000010 name refused (nothing sent); 0x16000015 the
    // search failed.
    int GetKeyOP(char const* name, char const* attribute, unsigned char*& value,
                 unsigned int& length);
    // value null and length 0 first. 0 with value new, or null when absent; 0x16000010 for a
    // null argument, an over-long attribute name or a failed search.
    int GetEachKey(char const* dn, char const* attribute, unsigned char*& value,
                   unsigned int& length);
    // true with key, length and foundDn set for the first user found depth first; false when
    // none is found, foundDn untouched (key, when not null, still goes to FreeKey).
    bool GetChildKey(char const* base, int depth, char const* value, char const* attribute,
                     unsigned char*& key, unsigned int& length, std::string& foundDn);
    // 0 with dn the user's entry; 0x16000010, dn untouched, for a refused name or none found.
    // With fast_lookup, FindUser answers instead of the walk.
    int GetFullDN(char const* name, std::string& dn);
    // One subtree search for the user whose last-level naming attribute equals value; 0 with dn
    // composed as the walk composes it when exactly one user matches, else 0x16000010. See
    // engine/FastLookup.cpp.
    int FindUser(char const* value, std::string& dn);
    // See the free function ModifyPriKeyPsw (qorldap/LdapIF.h).
    int ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw);
    // Every user attribute of the entry at dn with every value, as octets (engine/EntryRead.cpp):
    // 0, or the directory's code (32 when there is no such entry), or 0x16000010 for no dn.
    int ReadEntry(char const* dn, WholeEntry& entry);
    // See the free function PublishP12 (qorldap/LdapIF.h).
    int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw, char const* keyPsw,
                   bool sign, bool publicOnly);

  private:
    ServerSettings settings_{SECTION_LDAP};
    Connection connection_{settings_};
    RootCheck root_{connection_, settings_};
    // Public keys are kept as certificates: set, and never changed.
    bool certFlag_ = true;
    TemplateTable templates_;
    Naming naming_{templates_};
    EntryWriter writer_{connection_, certFlag_};
    EntryLookup lookup_{connection_, templates_, settings_.Link()};
    KeyStore keys_{connection_, naming_, certFlag_};
    UserLookup users_{settings_, connection_, templates_, naming_, lookup_, keys_};
    PasswordChange password_{users_, keys_};
    PathBuilder paths_{settings_, templates_, lookup_, writer_};
    Publisher publisher_{settings_.Link(), naming_, paths_, keys_};
};

#endif
