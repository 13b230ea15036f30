// EntryLookup: reading entries. One entry as a record shaped by its template, the children of
// an entry by name, and one entry whole with every value as octets.
// Owns: nothing; every search result is released before the call returns, and what a caller
// receives (items, name lists) is array new, released with CLdapOp::FreeAtt and FreeDN.
// Promises: a DN that does not fit a record's 255-character fields is refused before any search;
// a child's DN that does not fit is left empty, never cut into another entry's name.
// Needs: the connection (binding, handle, search), the template table (the object class names
// the template) and the link options (fast_lookup lists children by name only).
#ifndef QORLDAP_ENGINE_ENTRYLOOKUP_H
#define QORLDAP_ENGINE_ENTRYLOOKUP_H

#include "engine/Connection.h"
#include "engine/LinkOptions.h"
#include "engine/TemplateTable.h"
#include "qorldap/records.h"

struct WholeEntry;  // engine/EntryRead.h

class EntryLookup {
  public:
    EntryLookup(Connection& connection, TemplateTable const& templates, LinkOptions const& link)
        : connection_(connection), templates_(templates), link_(link) {}

    // 0 whether or not found (found shows only in att.itemCount); 0x16000010, att untouched,
    // for a dn that is null, over 255 characters or gives no filter.
    int SelectLdapAtt(char const* dn, tagAtt& att);
    // 1 found (att filled, items new); 0 otherwise: att zeroed when the search succeeded,
    // only att.dn and att.parentDn emptied when it failed.
    int GetAtt(char const* dn, char const* filter, tagAtt& att);
    // The children named by ou or cn: 0 with list and count as GetChild leaves them;
    // 0x16000010 for an empty, over-long or refused dn, or a failed search.
    int SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count);
    // true with count set (and list new when count > 0); false, both untouched, for a null
    // argument or a failed search.
    bool GetChild(char const* base, char const* filter, tagDN*& list, int& count);
    // Every user attribute of the entry at dn with every value, as octets: 0, or the
    // directory's code (32 when there is no such entry), or 0x16000010 for no dn.
    int ReadEntry(char const* dn, WholeEntry& entry);

  private:
    Connection& connection_;
    TemplateTable const& templates_;
    LinkOptions const& link_;
};

#endif
