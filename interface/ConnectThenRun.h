// The step every exported operation starts with: connect the engine, then run the operation
// under the engine's operations guard.
#ifndef QORLDAP_INTERFACE_CONNECTTHENRUN_H
#define QORLDAP_INTERFACE_CONNECTTHENRUN_H

#include "engine/LdapOp.h"

namespace qor {

// Whether the operation looks again, under the guard, that the engine still holds a connection.
// The free functions' engine is shared: with reconnection on, another thread may have found the
// connection lost and failed to redial between the connect step and the guard. A CLdap object is
// used by one thread at a time, so nothing can drop the connection it has just made.
enum class Recheck { kNo, kYes };

// connect() gives a QORLDAP code; anything but 0 gives 0x16000010 and the operation is not run.
// The guard (free when reconnection is off) keeps the connection from being released under the
// running operation.
template <typename Connect, typename Operation>
int ConnectThenRun(CLdapOp& engine, Connect connect, Recheck recheck, Operation operation) {
    if (connect() != QORLDAP_OK) {
        return QORLDAP_E_FAILED;
    }
    auto inUse = engine.GuardOperation();
    if (recheck == Recheck::kYes && !engine.HasConnection()) {
        return QORLDAP_E_FAILED;
    }
    return operation();
}

}  // namespace qor

#endif
