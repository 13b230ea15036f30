// The exported view of the calling thread's last directory result.
#include "qorldap/LastResult.h"

#include "binding/LastResult.h"
#include "binding/OpenLdapIF.h"

void QorLdapLastResult(QorLdapResult* out) {
    if (out == nullptr) {
        return;
    }
    qor::LastResult const& last = qor::LastResult::OfThread();
    out->code = last.code;
    out->operation = last.operation;
    out->matchedDn = last.matchedDn.c_str();
    out->diagnostic = last.diagnostic.c_str();
}

void QorLdapKeepDiagnostics(int on) {
    qor::LastResult::KeepDiagnostics().store(on != 0);
}

char const* QorLdapResultText(int code) {
    // A binding of its own, made once: it loads libldap and asks for nothing but texts.
    static COpenLdapIF* const texts = new COpenLdapIF;
    char const* text = texts->LdapErr2String(code);
    return text != nullptr ? text : "";
}
