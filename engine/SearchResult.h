// The owner of one search result, and walks over it that release everything libldap hands out
// on the way (attribute names, value arrays, the attribute cursor) in the order libldap expects.
#ifndef QORLDAP_ENGINE_SEARCHRESULT_H
#define QORLDAP_ENGINE_SEARCHRESULT_H

#include <cstring>

#include "binding/OpenLdapIF.h"

// The values of one attribute as libldap hands them out, released when the object goes:
// TextValues by ldap_get_values (null for a value holding a zero byte), OctetValues by
// ldap_get_values_len.
template <typename T, T (COpenLdapIF::*Get)(ldap*, ldapmsg*, char const*),
          void (COpenLdapIF::*Free)(T)>
class LdapValues {
  public:
    LdapValues(COpenLdapIF& binding, ldap* ld, ldapmsg* entry, char const* name)
        : binding_(binding), values_((binding.*Get)(ld, entry, name)) {}
    ~LdapValues() {
        if (values_ != nullptr) {
            (binding_.*Free)(values_);
        }
    }
    LdapValues(LdapValues const&) = delete;
    LdapValues& operator=(LdapValues const&) = delete;

    T get() const { return values_; }
    // The first value, or null when there is none.
    auto First() const { return values_ != nullptr ? values_[0] : nullptr; }

  private:
    COpenLdapIF& binding_;
    T values_;
};

using TextValues = LdapValues<char**, &COpenLdapIF::LdapGetValues, &COpenLdapIF::LdapValueFree>;
using OctetValues =
    LdapValues<berval**, &COpenLdapIF::LdapGetValuesLen, &COpenLdapIF::LdapValueFreeLen>;

// The attribute list that asks for no attributes at all (libldap's LDAP_NO_ATTRS, "1.1"), in
// storage of its own: a search takes the list as char**.
class NoAttributes {
  public:
    NoAttributes() { std::memcpy(text_, LDAP_NO_ATTRS, sizeof text_); }
    NoAttributes(NoAttributes const&) = delete;
    NoAttributes& operator=(NoAttributes const&) = delete;
    char** List() { return list_; }

  private:
    char text_[sizeof LDAP_NO_ATTRS];
    char* list_[2] = {text_, nullptr};
};

class SearchResult {
  public:
    SearchResult(COpenLdapIF& binding, ldap* ld) : binding_(binding), ld_(ld) {}
    ~SearchResult() { Reset(); }
    SearchResult(SearchResult const&) = delete;
    SearchResult& operator=(SearchResult const&) = delete;

    // Where the search puts the chain; any chain held before is released first.
    ldapmsg** Out() {
        Reset();
        return &chain_;
    }
    void Reset() {
        if (chain_ != nullptr) {
            binding_.LdapMsgFree(chain_);
            chain_ = nullptr;
        }
    }
    ldapmsg* Chain() const { return chain_; }
    ldap* Handle() const { return ld_; }

    // visit(char const* name) for each attribute of the chain's first entry. Each name is
    // released once visit returns, the cursor at the end of the walk.
    template <typename Visit>
    void ForEachAttribute(Visit visit) const {
        ForEachAttributeOf(chain_, visit);
    }
    // The same for one entry of the chain.
    template <typename Visit>
    void ForEachAttributeOf(ldapmsg* entry, Visit visit) const {
        berelement* ber = nullptr;
        for (char* name = binding_.LdapFirstAttribute(ld_, entry, &ber); name != nullptr;
             name = binding_.LdapNextAttribute(ld_, entry, ber)) {
            visit(static_cast<char const*>(name));
            binding_.LdapMemFree(name);
        }
        binding_.BerFree(ber, 0);
    }

    // visit(char const* dn, int index) for the first count entries of the chain; dn is null when
    // libldap hands out none, and is released once visit returns.
    template <typename Visit>
    void ForEachEntryDn(int count, Visit visit) const {
        int i = 0;
        for (ldapmsg* entry = binding_.LdapFirstEnry(ld_, chain_); entry != nullptr && i < count;
             entry = binding_.LdapNextEntry(ld_, entry), ++i) {
            char* dn = binding_.LdapGetDN(ld_, entry);
            visit(static_cast<char const*>(dn), i);
            if (dn != nullptr) {
                binding_.LdapMemFree(dn);
            }
        }
    }

  private:
    COpenLdapIF& binding_;
    ldap* ld_;
    ldapmsg* chain_ = nullptr;
};

#endif
