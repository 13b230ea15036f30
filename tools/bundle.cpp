// The certificate subject of a PKCS#12 bundle, read the way the library reads it at
// publication (same bounds on the work, same text), so that the tool can check it first.
#include "cli.h"
#include "platform/Crypto.h"
#include "platform/WipedBuffer.h"

namespace qortool {

bool BundleSubject(std::string const& bundle, std::string const& password, std::string& subject) {
    auto const* bytes = reinterpret_cast<unsigned char const*>(bundle.data());
    if (bundle.empty() || bundle.size() > static_cast<size_t>(kMaxPfxBytes))
        return false;
    int const length = static_cast<int>(bundle.size());
    unsigned int certLength = 0;
    unsigned int keyLength = 0;
    if (!GetKeyFromPfx(bytes, length, password.c_str(), nullptr, certLength, nullptr, keyLength,
                       true) ||
        certLength == 0 || keyLength == 0) {
        ForgetOpenedBundle();
        return false;
    }
    std::string cert(certLength, '\0');
    WipedBuffer key(keyLength);
    bool const opened =
        GetKeyFromPfx(bytes, length, password.c_str(), reinterpret_cast<unsigned char*>(&cert[0]),
                      certLength, key.Data(), keyLength, true);
    ForgetOpenedBundle();
    tagCERT info;
    if (!opened || !GetCertInfo(reinterpret_cast<unsigned char const*>(cert.data()),
                                static_cast<int>(certLength), info)) {
        return false;
    }
    subject = info.subject;
    return true;
}

}  // namespace qortool
