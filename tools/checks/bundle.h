// What a PKCS#12 bundle holds, opened as the library opens it, and whether its keys are strong
// enough to keep (bundle.cpp).
#ifndef QORLDAP_TOOLS_CHECKS_BUNDLE_H
#define QORLDAP_TOOLS_CHECKS_BUNDLE_H

#include <string>
#include <utility>
#include <vector>

#include "platform/WipedBuffer.h"

namespace qortool {

// What a bundle holds, as the library reads it.
struct OpenedBundle {
    std::string cert;  // DER
    WipedBuffer key;   // unencrypted PKCS#8 DER
    // The subject's attributes in encoding order: short type name ("OU") and UTF-8 value.
    std::vector<std::pair<std::string, std::string>> attributes;
    // "type=value" lines, as the library reads the subject; empty when the library would
    // refuse it (a value holding a control character).
    std::string subject;
};
// Opens bundle with password; false when it does not open, or its certificate does not read.
bool OpenBundle(std::string const& bundle, std::string const& password, OpenedBundle& opened);
// Why the bundle's certificate key (and, unless publicOnly, its private key) is too weak to
// keep: less than 112-bit security ("the certificate's key is RSA 1024 bits, 80-bit security
// (at least 112 needed)") or a curve given by explicit parameters; empty when it is not.
std::string WeakKey(OpenedBundle const& opened, bool publicOnly);

}  // namespace qortool

#endif
