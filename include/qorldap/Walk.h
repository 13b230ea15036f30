/* A subtree walked in pages: an extension next to the library's interface, for callers that
   look at every entry below a point of the tree (reports, exports, checks) without holding
   the whole subtree in memory. */
#ifndef QORLDAP_WALK_H
#define QORLDAP_WALK_H

#include "qorldap/Entry.h"
#include "qorldap/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Called once per entry, in the order the directory sends them. entry and everything it
   points to is valid only during the call. 0 goes on; any other value stops the walk, and
   QorLdapWalk returns it. The callback may call the library (it runs between requests), but
   not start another walk: that one returns 0x16000010 with nothing sent. */
typedef int (*QorLdapWalkVisit)(QorLdapEntry const* entry, void* context);

/* Walks base and every entry below it that matches filter (null: every entry), through the
   free functions' engine (connecting first, as they do), with the simple paged results control
   (RFC 2696, sent as critical): one subtree search request per page of at most pageSize
   entries, and only one page held at a time. attributes names the attributes wanted, ending
   with a null (null: every user attribute; "1.1" alone: none); values come as octets, exactly
   as QorLdapReadEntry gives them, and DNs as it gives them.
   Returns 0 when every page was read and visited; visit's non-zero value when it stopped the
   walk (the server is then told to drop the rest, with a request for 0 entries); 0x16000010,
   nothing sent, for no connection, a null base or visit, or a pageSize below 1; otherwise the
   directory's code for the page that failed (32 when base does not exist, on a server that
   answers such a paged search with no entries too: a walk that finds nothing reads the base
   with one more request; 12 when the server
   does not page, 4 or 11 for a server limit, -1, -5, ...), the entries of earlier pages having
   been visited. Walks of several threads take turns (the server keeps one paged search per
   connection): a second walk waits until the first has returned. */
QORLDAP_API int QorLdapWalk(char const* base, char const* filter, char const* const* attributes,
                            int pageSize, QorLdapWalkVisit visit, void* context);

#ifdef __cplusplus
}
#endif

#endif
