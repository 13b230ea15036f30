// The free functions' engines: the one engine all threads share, built by the first call that
// needs it, or with pool_size in soap.ini a pool of them (engine/Pool.h).
#ifndef QORLDAP_INTERFACE_FREEENGINE_H
#define QORLDAP_INTERFACE_FREEENGINE_H

#include "engine/Pool.h"
#include "interface/ConnectThenRun.h"

class CLdapOp;

namespace qor {

// The shared engine. With a pool it serves only the calls that do not go through FreeLease.
CLdapOp& FreeEngine();
// Whether the free functions' engine or pool has been built.
bool FreeEngineBuilt();
// The pool, null without pool_size (built, like the engine, by the first call).
Pool* FreePool();

// The engine one call of a free function runs on, for the span of the call: the shared engine,
// or one taken from the pool for use and given back when the lease goes.
class FreeLease {
  public:
    explicit FreeLease(Pool::Use use);
    FreeLease(FreeLease const&) = delete;
    FreeLease& operator=(FreeLease const&) = delete;
    // Null when the pool had no engine free within the timeout.
    CLdapOp* Engine() const { return engine_; }

  private:
    Pool::Lease lease_;
    CLdapOp* engine_ = nullptr;
};

// The operations of the free functions run through this: on the shared engine, or on an
// engine of the pool's, connected first and looked at again under the guard that a connection
// is left. operation(engine) gives the operation's code. In the pool a read whose connection
// was lost is run once more on a fresh one (Pool::Run).
template <typename Operation>
int FreeCall(Pool::Use use, Operation operation) {
    auto call = [&](CLdapOp& engine) {
        return ConnectThenRun(
            engine, [&engine] { return engine.ConnectLdap(); }, Recheck::kYes,
            [&] { return operation(engine); });
    };
    if (Pool* pool = FreePool()) {
        return pool->Run(use, call);
    }
    return call(FreeEngine());
}

}  // namespace qor

#endif
