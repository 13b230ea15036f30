// Publisher: publishing a PKCS#12 bundle. The path its certificate's subject names, then the
// certificate and the password-protected private key in the deepest entry.
// Owns: nothing; the bundle's private key lives in a wiped buffer for the span of the call, and
// the thread's slot of the opened bundle is emptied on every way out.
// Promises: every refusal (the bundle, its subject, a weak key when refuse_weak_keys is on)
// comes before anything is written; the certificate goes before the key (one request for both
// with atomic_publish, and with user_certificate for an encryption pair, whose certificate is
// then also copied to userCertificate;binary where the entry allows it). The thread's outcome
// (engine/Outcome.h) says why and where.
// Needs: the link options (atomic_publish, refuse_weak_keys), naming (the subject check), the
// path creation and the key store; the crypto layer opens the bundle and protects the key.
#ifndef QORLDAP_ENGINE_PKCS12PUBLISH_H
#define QORLDAP_ENGINE_PKCS12PUBLISH_H

#include "engine/KeyStore.h"
#include "engine/LinkOptions.h"
#include "engine/Naming.h"
#include "engine/OrgPath.h"
#include "engine/UserCertificate.h"

class Publisher {
  public:
    Publisher(LinkOptions const& link, Naming const& naming, PathBuilder& paths, KeyStore& keys,
              UserCertificate& copies)
        : link_(link), naming_(naming), paths_(paths), keys_(keys), copies_(copies) {}

    // See the free function PublishP12 (qorldap/LdapIF.h).
    int PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw, char const* keyPsw,
                   bool sign, bool publicOnly);

  private:
    LinkOptions const& link_;
    Naming const& naming_;
    PathBuilder& paths_;
    KeyStore& keys_;
    UserCertificate& copies_;
};

#endif
