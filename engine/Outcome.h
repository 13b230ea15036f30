// The calling thread's last publication or password change, as qorldap/Outcome.h shows it.
#ifndef QORLDAP_ENGINE_OUTCOME_H
#define QORLDAP_ENGINE_OUTCOME_H

#include <string>

#include "platform/Crypto.h"
#include "qorldap/Outcome.h"

namespace qor {

struct Outcome {
    int refusal = QORLDAP_REFUSED_NONE;
    std::string reason;
    std::string dn;

    static Outcome& OfThread() {
        thread_local Outcome outcome;
        return outcome;
    }
    // Starts a new call: nothing refused, no entry reached.
    void Reset() {
        refusal = QORLDAP_REFUSED_NONE;
        reason.clear();
        dn.clear();
    }
    void Refuse(int why, std::string text) {
        refusal = why;
        reason = std::move(text);
    }
    // The refusal of a bundle that did not open.
    void RefuseBundle(BundleFault fault);
};

}  // namespace qor

#endif
