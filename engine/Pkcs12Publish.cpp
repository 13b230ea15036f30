// Publishing a PKCS#12 bundle: the path its certificate subject names, then the certificate and
// the password-protected private key in the deepest entry.
#include "engine/Pkcs12Publish.h"

#include <climits>
#include <cstring>
#include <memory>

#include "engine/Constants.h"
#include "engine/KeyProtect.h"
#include "engine/Outcome.h"
#include "platform/Crypto.h"
#include "platform/WipedBuffer.h"
#include "qorldap/result_codes.h"

namespace {

// Empties the thread's slot of an opened bundle on every way out of a publication, so the
// private key the size query kept there never outlives the call.
struct ForgetBundleOnReturn {
    ForgetBundleOnReturn() = default;
    ~ForgetBundleOnReturn() { ForgetOpenedBundle(); }
    ForgetBundleOnReturn(ForgetBundleOnReturn const&) = delete;
    ForgetBundleOnReturn& operator=(ForgetBundleOnReturn const&) = delete;
};

}  // namespace

int Publisher::PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw,
                          char const* keyPsw, bool sign, bool publicOnly) {
    std::unique_ptr<tagCERT> info(new tagCERT());
    std::string dn;
    qor::Outcome& outcome = qor::Outcome::OfThread();
    outcome.Reset();
    if (pfx == nullptr || pfxPsw == nullptr || pfxLength == 0 || pfxLength > INT_MAX) {
        outcome.Refuse(
            pfxLength > INT_MAX ? QORLDAP_REFUSED_OVER_BOUND : QORLDAP_REFUSED_NOT_BUNDLE,
            pfxPsw == nullptr ? "no bundle password" : "no bundle");
        return QORLDAP_E_PKCS12;
    }
    // The size query opens the bundle and keeps the result for the fill call that follows.
    ForgetBundleOnReturn forget;
    unsigned char const* bundle = reinterpret_cast<unsigned char const*>(pfx);
    int bundleLength = static_cast<int>(pfxLength);
    unsigned int certLength = 0;
    unsigned int keyLength = 0;
    if (!GetKeyFromPfx(bundle, bundleLength, pfxPsw, nullptr, certLength, nullptr, keyLength,
                       true) ||
        certLength == 0 || keyLength == 0) {
        outcome.RefuseBundle(LastBundleFault());
        return QORLDAP_E_PKCS12;
    }
    std::unique_ptr<unsigned char[]> cert(new unsigned char[certLength]);
    WipedBuffer key(keyLength);  // the bundle's private key in the clear
    if (!GetKeyFromPfx(bundle, bundleLength, pfxPsw, cert.get(), certLength, key.Data(), keyLength,
                       true)) {
        outcome.RefuseBundle(LastBundleFault());
        return QORLDAP_E_PKCS12;
    }
    if (!GetCertInfo(cert.get(), static_cast<int>(certLength), *info)) {
        outcome.Refuse(QORLDAP_REFUSED_SUBJECT, LastCertInfoFault());
        return QORLDAP_E_PKCS12;
    }
    // Refusals come before anything is written: a subject that would name some other entry
    // than the one it spells, and (when asked for) a key too weak to be worth keeping.
    std::string fault;
    if (!naming_.CheckSubject(info->subject, &fault)) {
        outcome.Refuse(QORLDAP_REFUSED_SUBJECT, fault);
        return QORLDAP_E_PKCS12;
    }
    if (link_.refuseWeakKeys) {
        std::string const weak = WeakKeyReason(key.Data(), keyLength);
        if (!weak.empty()) {
            outcome.Refuse(QORLDAP_REFUSED_WEAK_KEY, weak);
            return QORLDAP_E_PKCS12;
        }
    }
    int rc = paths_.InsertOrganization(info->subject, dn);
    if (rc != QORLDAP_OK) {
        return rc;
    }
    outcome.dn = dn;
    WipedBuffer stored;
    if (!publicOnly) {
        rc = qor::ProtectKey(key.Data(), keyLength, keyPsw, stored);
        if (rc != QORLDAP_OK) {
            outcome.Refuse(QORLDAP_REFUSED_EMPTY_PASSWORD, "the key password is missing or empty");
            return rc;
        }
    }
    if (link_.userCertificate && !sign) {
        return copies_.Publish(dn.c_str(), keys_.PublicKeyAttribute(false), cert.get(), certLength,
                               publicOnly ? nullptr : stored.Data(),
                               publicOnly ? 0 : static_cast<unsigned int>(stored.Size()));
    }
    if (link_.atomicPublish && !publicOnly) {
        return keys_.ReplacePair(dn.c_str(), keys_.PublicKeyAttribute(sign), cert.get(), certLength,
                                 sign ? LDAP_PERSON_SIGN_PRI : LDAP_PERSON_EN_PRI, stored.Data(),
                                 static_cast<unsigned int>(stored.Size()));
    }
    // The certificate before the private key; a failed key store leaves the certificate.
    rc = sign ? keys_.ModifySignPublicKey(dn.c_str(), cert.get(), certLength)
              : keys_.ModifyCryptPublicKey(dn.c_str(), cert.get(), certLength);
    if (rc != QORLDAP_OK || publicOnly) {
        return rc;
    }
    auto const storedLength = static_cast<unsigned int>(stored.Size());
    return sign ? keys_.ModifySignPrivateKey(dn.c_str(), stored.Data(), storedLength)
                : keys_.ModifyCryptPrivateKey(dn.c_str(), stored.Data(), storedLength);
}
