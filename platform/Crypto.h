// The crypto layer, over OpenSSL 3, for callers that want all of it in one include. Each part
// has its own file pair, by job:
//   platform/CryptoContext  the OpenSSL library contexts of our own and the error scope
//   platform/WorkBounds     how much work and how many bytes one input may ask for
//   platform/Pkcs12Bundle   opening a PKCS#12 bundle: GetKeyFromPfx, OpenPfx, BundleFault
//   platform/StoredKey      the protected form a key is stored in: Convert2Key, DecryptKey,
//                           IsProtectedKey, IsWeakKey
//   platform/CertInfo       a certificate's subject as text: GetCertInfo, tagCERT
// CryptoContext is internal to the layer and is not included here.
#ifndef QORLDAP_PLATFORM_CRYPTO_H
#define QORLDAP_PLATFORM_CRYPTO_H

#include "platform/CertInfo.h"
#include "platform/Pkcs12Bundle.h"
#include "platform/StoredKey.h"
#include "platform/WorkBounds.h"

#endif
