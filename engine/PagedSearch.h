// PagedSearch: a subtree read one page at a time with the simple paged results control
// (RFC 2696), so that a walk of a large directory holds one page of entries, never the whole
// result, and stays within a server's size limit for paged searches.
// Owns: nothing between calls; the search result, the request control and the returned
// controls are released before each call returns. The cookie lives with the caller.
// Promises: a page's entries come whole (every requested attribute, values as octets), in the
// order the server sent them; nothing is sent for refused arguments.
// Needs: the connection (binding, handle).
#ifndef QORLDAP_ENGINE_PAGEDSEARCH_H
#define QORLDAP_ENGINE_PAGEDSEARCH_H

#include <string>
#include <vector>

#include "engine/Connection.h"

struct WholeEntry;  // engine/EntryRead.h

class PagedSearch {
  public:
    explicit PagedSearch(Connection& connection) : connection_(connection) {}

    // The next page of the subtree search at base with filter: at most pageSize entries into
    // page (replaced). cookie is empty for the first page; on success it holds the server's
    // cookie for the next page, empty after the last. 0, or the directory's code (32 when base
    // does not exist, 12 when the server does not take the control, -1, -5, ...) with page
    // empty and cookie untouched; 0x16000010 for a null base or filter or a pageSize below 1.
    // attributes: null for every user attribute, as libldap takes them.
    int NextPage(char const* base, char const* filter, char** attributes, int pageSize,
                 std::string& cookie, std::vector<WholeEntry>& page);
    // Ends a paged search before its last page (a request for 0 entries with the cookie), so
    // that the server releases what it keeps for it. 0, or the directory's code.
    int Abandon(char const* base, char const* filter, char** attributes, std::string const& cookie);

  private:
    int Request(char const* base, char const* filter, char** attributes, int pageSize,
                std::string& cookie, std::vector<WholeEntry>* page);

    Connection& connection_;
};

#endif
