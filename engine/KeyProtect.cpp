// Protecting a private key in the clear under a key password, for storing it in the directory.
#include "engine/KeyProtect.h"

#include <utility>

#include "platform/Crypto.h"
#include "platform/WipedBuffer.h"
#include "qorldap/result_codes.h"

namespace qor {

// The conversion is asked for the room it needs first, then run into a buffer of that size;
// out receives what it wrote. A null or empty password, or a key the conversion does not take,
// gives 0x16000013 with out empty.
int ProtectKey(unsigned char const* key, unsigned int length, char const* psw, WipedBuffer& out) {
    out.Reset();
    if (psw == nullptr) {
        return QORLDAP_E_KEY_CONVERT;
    }
    unsigned int size = 0;
    if (!Convert2Key(key, length, psw, nullptr, size) || size == 0) {
        return QORLDAP_E_KEY_CONVERT;
    }
    WipedBuffer converted(size);
    if (!Convert2Key(key, length, psw, converted.Data(), size)) {
        return QORLDAP_E_KEY_CONVERT;
    }
    converted.Shrink(size);
    out = std::move(converted);
    return QORLDAP_OK;
}

}  // namespace qor
