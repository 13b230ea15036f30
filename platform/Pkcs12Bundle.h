// Opening a PKCS#12 bundle (.pfx, .p12) with its password: the certificate and the private key
// it holds, and why it did not open.
//
// Contract: a bundle opens to the first private key it holds and the first certificate that
// belongs to that key, or not at all; it is refused before any work beyond the bounds of
// platform/WorkBounds.h. The private key in the clear lives only in wiped memory: the caller's
// buffer, a WipedBuffer, or the calling thread's slot (below), which is wiped whenever it is
// emptied. Each call notes for the calling thread why it refused (LastBundleFault).
#ifndef QORLDAP_PLATFORM_PKCS12BUNDLE_H
#define QORLDAP_PLATFORM_PKCS12BUNDLE_H

#include <vector>

#include "platform/WipedBuffer.h"
#include "platform/WorkBounds.h"

// Why the calling thread's last GetKeyFromPfx or OpenPfx failed (kNone after a success).
enum class BundleFault {
    kNone,
    kNotBundle,      // not a PKCS#12 bundle (or one this layer cannot read)
    kPassword,       // the password does not open it
    kOverBound,      // over the size, count or key-derivation bounds
    kNoKey,          // it holds no private key
    kNoCertificate,  // it holds no certificate
    kKeyMismatch,    // no certificate in it belongs to its private key
};
BundleFault LastBundleFault();

// Opens a PKCS#12 bundle with its password. With cert and key both null, stores the sizes
// needed into certLen and keyLen. With buffers, fills them: the certificate as DER and the
// private key as unencrypted PKCS#8 DER; certLen and keyLen must hold the buffers' sizes and
// receive the lengths written. false when the bundle does not open (wrong password, not a
// bundle, no certificate or no key, over the limits of platform/WorkBounds.h) or a buffer is too
// small. legacy: also try the legacy provider's algorithms (RC2-40, 3DES), which older exporters
// use. The size query keeps what it opened in a slot of the calling thread, and the next fill
// call for the same bytes, password and legacy flag takes it from there instead of opening the
// bundle again; that call empties the slot, whatever its outcome.
bool GetKeyFromPfx(unsigned char const* pfx, int pfxLen, char const* psw, unsigned char* cert,
                   unsigned int& certLen, unsigned char* key, unsigned int& keyLen, bool legacy);

// Empties the calling thread's slot of an opened bundle, wiping the private key it holds. For a
// caller that asked for the sizes and then gives up before the fill call.
void ForgetOpenedBundle();

// Opens a PKCS#12 bundle in one call: cert receives the certificate as DER and key the private
// key as unencrypted PKCS#8 DER. Refuses exactly what GetKeyFromPfx refuses, with the same
// LastBundleFault; cert and key are then left untouched. Neither reads nor empties the slot
// GetKeyFromPfx keeps. legacy as for GetKeyFromPfx.
bool OpenPfx(unsigned char const* pfx, int pfxLen, char const* psw,
             std::vector<unsigned char>& cert, WipedBuffer& key, bool legacy = true);

#endif
