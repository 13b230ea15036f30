// UserLookup: finding a user's entry from the common name. By default a walk down the tree from
// the base DN, depth first, first match wins; with fast_lookup one subtree search that refuses a
// name two users share.
// Owns: nothing; every listing and key read on the way is released before the call returns.
// Promises: GetFullDN gives 0 with dn the user's entry, or 0x16000010 with dn untouched; both
// ways name a user "<naming attribute>=<value as given>, <parent>".
// Needs: the settings (base DN, fast_lookup), the connection (FindUser's search), the template
// table (how deep users are, how they are named), naming (GetCondition), the entry reads (the
// walk's listings) and the key store (the walk's read at the last level).
#ifndef QORLDAP_ENGINE_USERLOOKUP_H
#define QORLDAP_ENGINE_USERLOOKUP_H

#include <string>

#include "engine/Connection.h"
#include "engine/EntryLookup.h"
#include "engine/KeyStore.h"
#include "engine/Naming.h"
#include "engine/ServerSettings.h"
#include "engine/TemplateTable.h"

class UserLookup {
  public:
    UserLookup(ServerSettings const& settings, Connection& connection,
               TemplateTable const& templates, Naming const& naming, EntryLookup& entries,
               KeyStore& keys)
        : settings_(settings),
          link_(settings.Link()),
          connection_(connection),
          templates_(templates),
          naming_(naming),
          entries_(entries),
          keys_(keys) {}

    // true with key, length and foundDn set for the first user found depth first; false when
    // none is found, foundDn untouched (key, when not null, still goes to FreeKey).
    bool GetChildKey(char const* base, int depth, char const* value, char const* attribute,
                     unsigned char*& key, unsigned int& length, std::string& foundDn);
    // 0 with dn the user's entry; 0x16000010, dn untouched, for a refused name or none found.
    // With fast_lookup, FindUser answers instead of the walk.
    int GetFullDN(char const* name, std::string& dn);
    // One subtree search for the user whose last-level naming attribute equals value; 0 with dn
    // composed as the walk composes it when exactly one user matches, else 0x16000010. Expects
    // at least one template.
    int FindUser(char const* value, std::string& dn);

  private:
    ServerSettings const& settings_;
    LinkOptions const& link_;
    Connection& connection_;
    TemplateTable const& templates_;
    Naming const& naming_;
    EntryLookup& entries_;
    KeyStore& keys_;
};

#endif
