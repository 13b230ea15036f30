// COpenLdapIF: the directory client library, loaded at run time and bound function by
// function, with one lock around every call. Each engine owns one; nothing is shared.
#ifndef QORLDAP_BINDING_OPENLDAPIF_H
#define QORLDAP_BINDING_OPENLDAPIF_H

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>
#include <sys/time.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "binding/LdapNames.h"
#include "binding/ScopeLock.h"

typedef LDAP ldap;
typedef LDAPMessage ldapmsg;
typedef LDAPMod ldapmod;
typedef BerElement berelement;
typedef LDAPControl ldapcontrol;

class COpenLdapIF {
  public:
    COpenLdapIF();
    virtual ~COpenLdapIF();
    COpenLdapIF(COpenLdapIF const&) = delete;
    COpenLdapIF& operator=(COpenLdapIF const&) = delete;

    // Hands out the handle of the first successful "ldap_init" from then on, whatever host
    // and port it is given. Null when the library or the function cannot be had.
    ldap* LdapInit(char const* host, int port);
    // When the library or the function cannot be had: 0 for int results, null for pointers,
    // and the releasing wrappers do nothing.
    int LdapSetOption(ldap* ld, int option, void const* value);
    int LdapSimpleBindS(ldap* ld, char const* who, char const* passwd);
    int LdapGetLastErr();
    char const* LdapErr2String(int err);
    int LdapSearchExtS(ldap* ld, char const* base, int scope, char const* filter, char** attrs,
                       int attrsonly, ldapcontrol** serverctrls, ldapcontrol** clientctrls,
                       timeval* timeout, int sizelimit, ldapmsg** res);
    ldapmsg* LdapFirstEnry(ldap* ld, ldapmsg* chain);
    ldapmsg* LdapNextEntry(ldap* ld, ldapmsg* entry);
    char* LdapGetDN(ldap* ld, ldapmsg* entry);
    int LdapCountEntries(ldap* ld, ldapmsg* chain);
    char* LdapFirstAttribute(ldap* ld, ldapmsg* entry, berelement** ber);
    char* LdapNextAttribute(ldap* ld, ldapmsg* entry, berelement* ber);
    int LdapMsgFree(ldapmsg* msg);
    char** LdapGetValues(ldap* ld, ldapmsg* entry, char const* target);
    berval** LdapGetValuesLen(ldap* ld, ldapmsg* entry, char const* target);
    void LdapValueFree(char** vals);
    void LdapValueFreeLen(berval** vals);
    void LdapMemFree(void* p);
    int LdapAddS(ldap* ld, char const* dn, ldapmod** attrs);
    int LdapDeleteS(ldap* ld, char const* dn);
    int LdapModifyS(ldap* ld, char const* dn, ldapmod** mods);
    int LdapAdd(ldap* ld, char const* dn, ldapmod** attrs);
    // Releases the cursor of an attribute walk (liblber's ber_free with freebuf 0).
    void BerFree(berelement* ber, int freebuf);

    // The simple paged results control (RFC 2696). LdapCreatePageControl: 0 with *ctrl to be
    // released by LdapControlFree, LDAP_NOT_SUPPORTED (-12) when the function cannot be had.
    // LdapParseResult reads the final result of a chain without releasing it (LDAP_NOT_SUPPORTED
    // when it cannot be had); LdapControlFind gives the control of that OID or null; the cookie
    // LdapParsePageResponse fills is released with LdapMemFree.
    int LdapCreatePageControl(ldap* ld, int pageSize, berval* cookie, int critical,
                              ldapcontrol** ctrl);
    int LdapParseResult(ldap* ld, ldapmsg* chain, int* code, ldapcontrol*** serverctrls);
    ldapcontrol* LdapControlFind(char const* oid, ldapcontrol** ctrls);
    int LdapParsePageResponse(ldap* ld, ldapcontrol* ctrl, int* count, berval* cookie);
    void LdapControlFree(ldapcontrol* ctrl);
    void LdapControlsFree(ldapcontrol** ctrls);

    // Like LdapInit, from a URI list ("ldaps://host:port ..."): hands out the cached handle
    // when there is one. Null when the library or the function cannot be had, or init failed.
    ldap* LdapInitialize(char const* uri);
    // LDAP_UNAVAILABLE (52) when the function cannot be had: StartTLS never passes for lack of it.
    int LdapStartTlsS(ldap* ld);
    // Unbinds the cached handle, if any, and forgets it, so that the next init makes a new one.
    void DropHandle();

    // When on, an int result of LDAP_SERVER_DOWN, LDAP_CONNECT_ERROR or LDAP_TIMEOUT from any
    // call marks the connection as lost; the engine then drops the handle at its next
    // connection. A server that has stopped answering is treated like one that has gone.
    void WatchConnection(bool on) { watch_.store(on); }
    bool ConnectionLost() const { return lost_.load(); }
    // When on, a call that talks to the server (bind, StartTLS, search, add, modify, delete)
    // and had to wait for the lock while another such call failed with LDAP_SERVER_DOWN,
    // LDAP_CONNECT_ERROR or LDAP_TIMEOUT returns that code at once, without sending anything:
    // callers queued behind a dead or silent server then fail together instead of each waiting
    // out its own timeout.
    //
    // With fail-fast on, the calls that only read a result already received (first and next
    // entry, DN, attributes, values, the releases) take a lock of their own instead of the one
    // server calls hold: a read that has its answer never waits behind a request that waits
    // on a silent server. libldap lets threads read distinct results of one handle at once.
    void FailFast(bool on) { failFast_.store(on); }
    // Puts a connection callback on ld that notes each new connection's socket, so that a
    // HandshakeWatch can cut it. libldap bounds its own waits, but not the reads of an LDAPS
    // handshake on a blocking socket: without this, a server that accepts and never answers
    // holds the first call for ever. The callback lives as long as the binding.
    int BoundSockets(ldap* ld, int seconds);
    // Held around the call that opens a connection bound by BoundSockets: when that call has
    // not returned after the seconds given there, the socket is shut down, which ends the
    // handshake's read and the call with a lost connection. Does nothing otherwise.
    class HandshakeWatch {
      public:
        explicit HandshakeWatch(COpenLdapIF& binding);
        ~HandshakeWatch();
        HandshakeWatch(HandshakeWatch const&) = delete;
        HandshakeWatch& operator=(HandshakeWatch const&) = delete;

      private:
        COpenLdapIF& binding_;
        std::mutex lock_;
        std::condition_variable returned_;
        bool done_ = false;
        std::thread watcher_;
    };

  private:
    // One pointer type per bound function, from the table in binding/LdapNames.h.
#define QORLDAP_LDAP_FN_TYPE(slot, Type, name, function, result, parameters) \
    typedef result(*Type##Fn) parameters;
    QORLDAP_LDAP_FUNCTIONS(QORLDAP_LDAP_FN_TYPE)
#undef QORLDAP_LDAP_FN_TYPE

    // Loads the library and resolves one entry point; false when either cannot be had.
    // Called with the lock held. A failure is not remembered, so the next call tries again.
    template <typename Fn>
    bool Resolve(Fn& slot, char const* name);
    template <typename R, typename Fn, typename... Args>
    R Call(Fn& slot, char const* name, R unavailable, Args... args);
    template <typename Fn, typename... Args>
    void CallVoid(Fn& slot, char const* name, Args... args);
    // Call and CallVoid for the reads of results already received; see FailFast.
    template <typename R, typename Fn, typename... Args>
    R CallLocal(Fn& slot, char const* name, R unavailable, Args... args);
    template <typename Fn, typename... Args>
    void CallLocalVoid(Fn& slot, char const* name, Args... args);
    static int OnConnect(LDAP* ld, Sockbuf* sb, LDAPURLDesc* srv, sockaddr* addr, ldap_conncb* ctx);
    static void OnDisconnect(LDAP* ld, Sockbuf* sb, ldap_conncb* ctx);
    // With fail-fast on: takes the lock (true), or gives up (false) once a link failure has been
    // counted since seen.
    bool WaitForLock(unsigned long seen);
    // Call for the functions that talk to the server; see FailFast.
    // Each such call notes its result for the calling thread (qorldap/LastResult.h).
    template <typename Fn, typename... Args>
    int CallServer(Fn& slot, char const* name, char const* operation, int unavailable, ldap* ld,
                   Args... args);
    void NoteResult(char const* operation, int result, ldap* ld);

    std::atomic<void*> library_;
    std::mutex loadLock_;   // the library is loaded once, whichever lock a first call holds
    std::mutex localLock_;  // the reads of received results, with fail-fast on
    // One slot per bound function, null until resolved, from the same table.
#define QORLDAP_LDAP_SLOT(slot, Type, name, function, result, parameters) Type##Fn slot = nullptr;
    QORLDAP_LDAP_FUNCTIONS(QORLDAP_LDAP_SLOT)
#undef QORLDAP_LDAP_SLOT
    ldap_conncb connectCallback_{};
    int socketSeconds_ = 0;
    // The socket of the connection libldap has open, -1 when none; written by the connection
    // callbacks, and read to shut it down, under socketLock_, so that a socket libldap has
    // closed (and whose number may be in use again) is never touched.
    std::mutex socketLock_;
    int socket_ = -1;
    LockPair lock_;
    LDAP* handle_;
    std::atomic<bool> watch_{false};
    std::atomic<bool> lost_{false};
    std::atomic<bool> failFast_{false};
    // Counts the link failures of server calls; lastFailure_ (under the lock) is the latest code.
    std::atomic<unsigned long> failures_{0};
    std::atomic<int> lastFailure_{0};
};

#endif
