#include "engine/Outcome.h"

namespace qor {

void Outcome::RefuseBundle(BundleFault fault) {
    switch (fault) {
        case BundleFault::kPassword:
            Refuse(QORLDAP_REFUSED_PASSWORD, "the bundle's password does not open it");
            return;
        case BundleFault::kOverBound:
            Refuse(QORLDAP_REFUSED_OVER_BOUND,
                   "the bundle is over the bound on its size or on the work of opening it");
            return;
        case BundleFault::kNoKey:
            Refuse(QORLDAP_REFUSED_NO_KEY, "the bundle holds no private key");
            return;
        case BundleFault::kNoCertificate:
            Refuse(QORLDAP_REFUSED_NO_CERTIFICATE, "the bundle holds no certificate");
            return;
        case BundleFault::kKeyMismatch:
            Refuse(QORLDAP_REFUSED_KEY_MISMATCH,
                   "no certificate in the bundle belongs to its private key");
            return;
        case BundleFault::kNone:
        case BundleFault::kNotBundle:
            Refuse(QORLDAP_REFUSED_NOT_BUNDLE, "not a PKCS#12 bundle");
            return;
    }
}

}  // namespace qor
