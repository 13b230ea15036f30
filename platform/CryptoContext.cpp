// The crypto layer's library contexts and shared encodings; see platform/CryptoContext.h.
#include "platform/CryptoContext.h"

#include <openssl/provider.h>

namespace qor {

namespace {

// Both contexts are kept for good: freeing them at exit could race OpenSSL's own clean-up, or a
// caller still using us from a static destructor. Two contexts rather than a property query
// excluding the legacy provider: a query string attached to a bundle object is never released
// by OpenSSL 3.0 and would leak per call.
class Contexts {
  public:
    static Contexts const& Get() {
        static Contexts const instance;
        return instance;
    }

    OSSL_LIB_CTX* const modern;
    OSSL_LIB_CTX* const full;

  private:
    Contexts() : modern(Make(false)), full(Make(true)) {}

    static OSSL_LIB_CTX* Make(bool legacy) {
        LibCtxPtr ctx(OSSL_LIB_CTX_new());
        if (ctx == nullptr || OSSL_PROVIDER_load(ctx.get(), "default") == nullptr)
            return nullptr;
        // Without the module, old bundles simply do not open.
        if (legacy)
            OSSL_PROVIDER_load(ctx.get(), "legacy");
        return ctx.release();  // kept for good, see above
    }
};

}  // namespace

OSSL_LIB_CTX* ModernCryptoContext() {
    return Contexts::Get().modern;
}

OSSL_LIB_CTX* FullCryptoContext() {
    return Contexts::Get().full;
}

OsslBytesPtr EncodeCertificate(X509 const* x509, int& len) {
    unsigned char* der = nullptr;
    len = i2d_X509(x509, &der);
    return OsslBytesPtr(der);
}

WipedBuffer EncodePrivateKey(PKCS8_PRIV_KEY_INFO const* p8) {
    int const need = i2d_PKCS8_PRIV_KEY_INFO(p8, nullptr);
    if (need <= 0)
        return WipedBuffer();
    WipedBuffer der(static_cast<size_t>(need));
    unsigned char* q = der.Data();
    int const len = i2d_PKCS8_PRIV_KEY_INFO(p8, &q);
    if (len <= 0 || len > need)
        return WipedBuffer();
    der.Shrink(static_cast<size_t>(len));
    return der;
}

}  // namespace qor
