// How much work and how many bytes one input may make the crypto layer spend, and the reading of
// the iteration counts inputs name. Every bound is checked before the work it stands for.
//
// Contract: a bundle or a stored key names its own key-derivation counts, and that work is done
// before the password can be found wrong; without these bounds one crafted input holds a thread
// for hours (2^31 iterations). An input over any of them is refused (BundleFault::kOverBound for a
// bundle) and nothing is derived from it.
#ifndef QORLDAP_PLATFORM_WORKBOUNDS_H
#define QORLDAP_PLATFORM_WORKBOUNDS_H

#include <openssl/types.h>

// Limits on the bundles GetKeyFromPfx and OpenPfx open; a bundle beyond either is refused
// before the work.
// kMaxPfxBytes: exported bundles are a few kilobytes, one with a long chain some tens; 1 MiB
// leaves room for any real one and keeps the decoding of a crafted one short.
// kMaxPfxIterations: the sum of the iteration counts of every key derivation opening a bundle
// runs (its MAC, every encrypted safe, the shrouded key), see below.
constexpr int kMaxPfxBytes = 1 << 20;
constexpr long kMaxPfxIterations = 500000;

namespace qor {

// Stored keys are protected with PBKDF2-HMAC-SHA256. Measured on the development machine
// (2-core AMD EPYC, RSA-2048 key): 100000 iterations cost about 29 ms per conversion, 600000
// about 240 ms. A password change opens and re-protects two keys, so the higher count would
// hold the user for about a second each time; 100000 keeps it near a tenth of a second while
// the stored entry is, besides, behind the directory's access control.
constexpr int kPbkdf2Iterations = 100000;

// The most key-derivation iterations one piece of input may ask for. OpenSSL writes 2048,
// other exporters up to a few hundred thousand, we 100000; 2000000 costs about 0.6 s here.
constexpr long kMaxIterations = 2000000;

// A bundle is bounded as a whole besides (kMaxPfxIterations): a bundle repeats its safes at
// will, and 64 copies of one safe at a bounded count held a thread for minutes. The sum of the
// counts of every derivation opening it runs (the MAC's, counted twice under an empty password,
// which is tried as no password and then as ""; every encrypted safe's; the shrouded key's)
// must stay within 500000. Exporters' defaults need a fraction of it: openssl pkcs12 -export,
// with or without -legacy, 2048 each for the MAC, the certificate safe and the key, 6144 in
// all; Windows 2000 or 10000 each; Java keytool 10000 each, 30000 (40000 under an empty
// password). Measured here, the budget costs about 0.18 s spent on PBKDF2-HMAC-SHA256
// (0.35 us an iteration) and 0.37 s on the costliest derivations a bundle can name (about
// 0.7 us an iteration: PBKDF2-HMAC-SHA1 drawing a 32-byte key, PBKDF2-HMAC-SHA512), so no
// bundle holds a thread longer. The counts are summed before the work they stand for: the
// MAC's and the safes' before any derivation, a shrouded key's once its safe is open.
static_assert(kMaxPfxIterations <= kMaxIterations, "a bundle's budget bounds each piece too");

// How much of a bundle is looked at. Exporters write two safes (certificates, key) of a few
// bags each, one bag per certificate of the chain; other bundles hold more keys or a longer
// chain, but nothing near these. Safes inside safes (safeContents bags) go one or two deep in
// the rare bundles that have them.
constexpr int kMaxPfxSafes = 16;
constexpr int kMaxPfxBags = 256;
constexpr int kMaxPfxNesting = 3;

// The iteration count an input names, or -1 when it is out of our bound. An absent count
// (null) means one iteration.
long Iterations(ASN1_INTEGER const* iter);

// The iteration count of a password-based encryption algorithm, or -1 when it is not one we
// accept: PBES2 with PBKDF2, or a PKCS#5 v1 / PKCS#12 scheme, with a count within our bound.
// Other key derivations (scrypt among them) are refused. Nothing is derived.
long PbeIterations(X509_ALGOR const* alg);

}  // namespace qor

#endif
