// The exported view of the calling thread's last publication or password change.
#include "qorldap/Outcome.h"

#include "engine/Outcome.h"
#include "qorldap/LastResult.h"
#include "qorldap/result_codes.h"

void QorLdapLastOutcome(QorLdapOutcome* out) {
    if (out == nullptr) {
        return;
    }
    qor::Outcome const& outcome = qor::Outcome::OfThread();
    out->refusal = outcome.refusal;
    out->reason = outcome.reason.c_str();
    out->dn = outcome.dn.c_str();
}

char const* QorLdapCodeText(int code) {
    switch (code) {
        case QORLDAP_OK:
            return "success";
        case QORLDAP_E_FAILED:
            return "general failure: no connection, a missing argument, a refused name, or a "
                   "failed search or insert";
        case QORLDAP_E_ROOT:
            return "the base entry is missing and cannot be created";
        case QORLDAP_E_OLD_PASSWORD:
            return "the old password does not open a stored private key";
        case QORLDAP_E_KEY_CONVERT:
            return "a private key cannot be converted into its protected stored form";
        case QORLDAP_E_PKCS12:
            return "a PKCS#12 bundle is refused: it does not open, its certificate cannot be "
                   "read, or its subject or key is refused";
        case QORLDAP_E_KEY_SEARCH:
            return "the search of a key read failed";
        default:
            return QorLdapResultText(code);
    }
}
