// Pool: the engines that serve the free functions when soap.ini sets pool_size: up to that many
// for the providers ("host") and, with read_host, as many again for the read hosts. An engine
// is made when a call finds none free and the pool is not full, so that a single thread only
// ever makes one; a call that finds the pool full waits for an engine to come back, for the
// link timeout at most (without one, as long as it takes).
// Owns: the engines, the two host sets they dial (engine/HostSet.h), and the settings record
// GetLdapAtt shows and SetLdapAtt replaces for every engine.
// Promises: a Lease is one engine for one thread until the lease goes; every member may be
// called from any thread. Reads go to a read host when one answers, else to the providers;
// writes, and a thread's reads for read_after_write seconds after its write, go to the
// providers. A read whose connection was lost under it is run once more on a fresh one (Run).
// Needs: the pool keys (engine/PoolOptions.h), read from soap.ini when the pool is built.
#ifndef QORLDAP_ENGINE_POOL_H
#define QORLDAP_ENGINE_POOL_H

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "engine/HostSet.h"
#include "engine/ServerSettings.h"
#include "qorldap/result_codes.h"

class CLdapOp;

class Pool {
  public:
    // What a call does: a read may go to a read host, a write (or a read that writes, such as
    // a publication) only to a provider. kConnect: a provider's engine for ConnectLdap, which
    // writes nothing, so read_after_write does not start from it.
    enum class Use { kRead, kWrite, kConnect };

    // One engine, taken from the pool, given back when the lease goes. Empty (engine null) when
    // none came free within the timeout.
    class Lease {
      public:
        Lease() = default;
        Lease(Lease&& other) noexcept;
        Lease& operator=(Lease&& other) noexcept;
        ~Lease();
        Lease(Lease const&) = delete;
        Lease& operator=(Lease const&) = delete;
        CLdapOp* Engine() const { return engine_; }

      private:
        friend class Pool;
        Lease(Pool* pool, std::size_t shelf, CLdapOp* engine, bool wrote)
            : pool_(pool), shelf_(shelf), engine_(engine), wrote_(wrote) {}
        void Release();

        Pool* pool_ = nullptr;
        std::size_t shelf_ = 0;
        CLdapOp* engine_ = nullptr;
        bool wrote_ = false;
    };

    // Reads soap.ini's [ldap] section (with the program's settings) as an engine does.
    Pool();
    ~Pool();
    Pool(Pool const&) = delete;
    Pool& operator=(Pool const&) = delete;

    // An engine for use. A read lease comes connected to a read host, or (none answering, or
    // read_after_write in force for this thread) is taken from the providers unconnected, as a
    // write lease is: the caller connects it, as it connects the one shared engine.
    Lease Take(Use use);
    // call(engine) (a QORLDAP code; it connects the engine first) on an engine taken for use.
    // A read whose call failed because the connection was lost under it (the server gone, the
    // link cut or timed out) is called once more on a fresh connection: its host goes into
    // quarantine, and the read to another read host or to the providers. One failed call per
    // pooled connection is what a replica or provider that dies would cost otherwise. A write
    // is never sent twice: an add or a modification that may have been applied before the
    // link went is not idempotent, so it fails as it did, and the next call redials.
    template <typename Call>
    int Run(Use use, Call call) {
        Lease lease = Take(use);
        if (lease.Engine() == nullptr) {
            return QORLDAP_E_FAILED;
        }
        int const rc = call(*lease.Engine());
        if (rc == QORLDAP_OK || !Again(lease)) {
            return rc;
        }
        return lease.Engine() != nullptr ? call(*lease.Engine()) : QORLDAP_E_FAILED;
    }
    // For a lease whose call failed: true when it is a read and its connection was lost, with
    // the lease made ready for the one more try (the read host's engine redialled elsewhere or
    // given back for a provider's; a provider's engine redials when the call connects it).
    // false, the lease untouched, otherwise.
    bool Again(Lease& lease);
    // The record of the settings, as GetLdapAtt and SetLdapAtt of the free functions see it.
    // The pool's host sets are those of the record when the pool was built: a host set later
    // is shown but not dialled (as with the one engine, whose host counts until it connects).
    LdapInfo Record() const { return settings_.Get(); }
    void SetRecord(LdapInfo const& info);
    PoolOptions const& Options() const { return settings_.Pool(); }
    // The host sets, for tests: 0 the providers, 1 the read hosts.
    HostSet const& Hosts(std::size_t shelf) const { return *shelves_[shelf].hosts; }
    // The engines made so far on a shelf.
    std::size_t Made(std::size_t shelf) const;

  private:
    struct Shelf {
        std::unique_ptr<HostSet> hosts;
        std::vector<std::unique_ptr<CLdapOp>> engines;
        std::vector<CLdapOp*> free;
        std::size_t making = 0;  // engines being built outside the lock
    };
    static constexpr std::size_t kProviders = 0;
    static constexpr std::size_t kReaders = 1;

    Lease TakeFrom(std::size_t shelf, bool write);
    // A read host's lease connected, or when that fails (no read host answers) given back for
    // one of the providers'.
    Lease ReadLease(Lease lease);
    void GiveBack(std::size_t shelf, CLdapOp* engine);

    ServerSettings settings_;
    bool recordSet_ = false;  // SetRecord was called: new engines take the record
    Shelf shelves_[2];
    mutable std::mutex lock_;
    std::condition_variable returned_;
};

#endif
