// Connection: the engine's link to the directory. Dials (the host list turned after each loss,
// LDAPS or StartTLS, timeouts), binds, runs the root check on the bound handle, and redials
// after a loss when reconnection is on.
// Owns: the binding (COpenLdapIF), the connection handle, the lock that lets one thread at a
// time connect, and the guard that keeps a lost handle until no operation uses it.
// Promises: Connect gives what CLdapOp::ConnectLdap documents; Handle is the handle every
// operation runs on; Search releases whatever a failed search handed back.
// Needs: the server settings and link options (ServerSettings), read at each dial, and the root
// check (RootCheck), run on the freshly bound handle before the engine counts as connected.
#ifndef QORLDAP_ENGINE_CONNECTION_H
#define QORLDAP_ENGINE_CONNECTION_H

#include <atomic>
#include <mutex>
#include <shared_mutex>

#include "binding/OpenLdapIF.h"
#include "engine/SearchResult.h"
#include "engine/ServerSettings.h"

class RootCheck;

class Connection {
  public:
    // The binding watches for a lost link when reconnection is on, and fails queued calls fast
    // when a timeout is set; both read from settings as they are now.
    explicit Connection(ServerSettings const& settings);
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    // 0 connected (at once when already connected); 0x16000010 no handle, a refused bind or
    // StartTLS, link keys that do not read, or (with a timeout) another thread's attempt failed
    // while this one waited; 0x16000011 the root check failed.
    int Connect(RootCheck& root);
    // True when reconnection is on and the connection was lost: the next Connect redials.
    bool NeedsReconnect() const { return link_.reconnect && binding_.ConnectionLost(); }
    // Held by the caller for the span of one operation when reconnection is on, so that a lost
    // handle is released only once no operation still uses it. Empty (free) otherwise.
    std::shared_lock<std::shared_mutex> GuardOperation() {
        return link_.reconnect ? std::shared_lock<std::shared_mutex>(operations_)
                               : std::shared_lock<std::shared_mutex>();
    }
    // Whether a connection is held; checked under GuardOperation, since with reconnection on
    // another thread may have found the connection lost and failed to redial.
    bool HasConnection() const { return handle_.load(std::memory_order_acquire) != nullptr; }
    // The handle operations run on: the connected one, or during the connection sequence the
    // freshly bound one that the root check uses.
    ldap* Handle() const {
        ldap* ld = handle_.load(std::memory_order_acquire);
        return ld != nullptr ? ld : connecting_;
    }
    COpenLdapIF& Binding() { return binding_; }
    // One synchronous search, no limits, on result's handle. On a non-zero code the chain the
    // library may have handed back with it is released and result is empty. attributes, when
    // given, names the attributes wanted (null: all of them).
    int Search(char const* base, int scope, char const* filter, SearchResult& result,
               char** attributes = nullptr);

  private:
    // The connection sequence proper, run under connectLock_: drops a lost handle, then
    // opens, secures and binds a new one and checks the root. A QORLDAP code.
    int Dial(RootCheck& root);
    // Opens the handle as the link options say; null when none can be had.
    ldap* OpenHandle(LdapInfo const& settings);
    // Timeouts and TLS settings, only those configured. false when StartTLS failed.
    bool SecureHandle(ldap* ld, LdapInfo const& settings);
    LdapInfo Settings() const { return settings_.Get(); }

    ServerSettings const& settings_;
    LinkOptions const& link_;
    COpenLdapIF binding_;
    // Set only by Connect. Atomic, and the connection sequence serialised by connectLock_, so
    // that threads sharing one engine may all connect on demand at once.
    std::atomic<ldap*> handle_{nullptr};
    std::timed_mutex connectLock_;
    ldap* connecting_ = nullptr;  // written and read only under connectLock_
    std::shared_mutex operations_;
    std::atomic<unsigned long> failedConnects_{0};
    unsigned hostShift_ = 0;  // written and read only under connectLock_
};

#endif
