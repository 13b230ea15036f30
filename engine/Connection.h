// Connection: the engine's link to the directory. Dials (the host list turned after each loss,
// LDAPS or StartTLS, timeouts), binds, runs the root check on the bound handle, and redials
// after a loss when reconnection is on.
// Owns: the binding (COpenLdapIF), the connection handle, the lock that lets one thread at a
// time connect, and the guard that keeps a lost handle until no operation uses it.
// Promises: Connect gives what CLdapOp::ConnectLdap documents; Handle is the handle every
// operation runs on; Search releases whatever a failed search handed back.
// Needs: the server settings and link options (ServerSettings), read at each dial, and the root
// check (RootCheck), run on the freshly bound handle before the engine counts as connected.
// With a host set (a pooled engine, or failback on) the hosts are dialled one at a time in the
// set's order instead of handed to libldap as a list, so that the connection knows which host
// holds it; with idle_check a connection unused for that long is checked before it is used.
#ifndef QORLDAP_ENGINE_CONNECTION_H
#define QORLDAP_ENGINE_CONNECTION_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "binding/OpenLdapIF.h"
#include "engine/HostProbe.h"
#include "engine/HostSet.h"
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
    ~Connection();

    // Makes the connection dial the hosts of hosts (shared with the other engines of a pool)
    // and redial a lost connection, whatever "reconnect" says. Called once, before the first
    // Connect.
    void Join(HostSet& hosts);

    // 0 connected (at once when already connected); 0x16000010 no handle, a refused bind or
    // StartTLS, link keys that do not read, or (with a timeout) another thread's attempt failed
    // while this one waited; 0x16000011 the root check failed.
    int Connect(RootCheck& root);
    // Whether the connection held is to be checked (idle_check) or moved back to the first host
    // (failback) by the next Connect. Cheap unless a failback probe is due, which it runs.
    bool CheckDue();
    // True when reconnection is on and the connection was lost: the next Connect redials.
    bool NeedsReconnect() const { return Redials() && binding_.ConnectionLost(); }
    // Held by the caller for the span of one operation when reconnection is on, so that a lost
    // handle is released only once no operation still uses it. Empty (free) otherwise.
    std::shared_lock<std::shared_mutex> GuardOperation() {
        return Redials() ? std::shared_lock<std::shared_mutex>(operations_)
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

    // The CA file and verification of link on ld, and a new TLS context to take them.
    static void TlsOptions(COpenLdapIF& binding, ldap* ld, LinkOptions const& link);

  private:
    // Whether a lost, stale or failed-over connection is dropped and dialled again: with
    // "reconnect", in a pool, and with failback or idle checks.
    bool Redials() const {
        return link_.reconnect || joined_ || pool_.failback > 0 || pool_.idleCheck > 0;
    }
    bool IdleDue() const;
    // Notes that the connection is used now, for idle_check.
    void Touch();
    bool FailbackDue();
    // A read connection on a replica holding more than its share (HostSet::Crowded); limited,
    // only once a second for each connection.
    bool BalanceDue(bool limited);
    // The connection sequence proper, run under connectLock_: drops a lost handle, checks an
    // idle one, then opens, secures and binds a new one and checks the root. A QORLDAP code.
    int Dial(RootCheck& root);
    // Drops the handle held, quiet then holding off every operation until the caller has
    // dialled again; quarantine for its host when it failed.
    void Drop(bool failed, std::unique_lock<std::shared_mutex>& quiet);
    // One attempt on the host text hosts (a list, or one host of the set). A QORLDAP code.
    int Attempt(RootCheck& root, LdapInfo const& settings, std::string const& hosts);
    // The hosts of the set one at a time, in its order, until one connects.
    int AttemptEach(RootCheck& root, LdapInfo const& settings);
    // Opens the handle as the link options say; null when none can be had.
    ldap* OpenHandle(std::string const& hosts, int port);
    // Timeouts and TLS settings, only those configured. false when StartTLS failed.
    bool SecureHandle(ldap* ld, char const* hosts);
    // The base search of the root entry that tells a live connection from one cut off.
    bool Answers(ldap* ld);
    LdapInfo Settings() const { return settings_.Get(); }

    ServerSettings const& settings_;
    LinkOptions const& link_;
    PoolOptions const& pool_;
    COpenLdapIF binding_;
    // Set only by Connect. Atomic, and the connection sequence serialised by connectLock_, so
    // that threads sharing one engine may all connect on demand at once.
    std::atomic<ldap*> handle_{nullptr};
    std::timed_mutex connectLock_;
    ldap* connecting_ = nullptr;  // written and read only under connectLock_
    std::shared_mutex operations_;
    std::atomic<unsigned long> failedConnects_{0};
    unsigned hostShift_ = 0;  // written and read only under connectLock_
    // The host set dialled (null: the settings' host list handed to libldap, as always), one of
    // its own when failback is on outside a pool; and the index of the host connected.
    std::atomic<HostSet*> hosts_{nullptr};
    std::unique_ptr<HostSet> ownHosts_;
    std::atomic<std::size_t> connected_{0};
    bool joined_ = false;
    // When the connection was last used, in steady-clock ticks; read for idle_check.
    std::atomic<long long> lastUse_{0};
    // When BalanceDue looks next, in steady-clock ticks.
    std::atomic<long long> nextBalance_{0};
    HostProbe probe_;
};

#endif
