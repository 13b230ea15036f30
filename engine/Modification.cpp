// Preparing one text modification: the value goes out as UTF-8.
#include "engine/Modification.h"

#include <cstring>

#include "platform/ChineseCode.h"

// A value that cannot be converted is refused like an empty one, so nothing is ever sent from a
// missing conversion. Converting may also leave an empty text (a value of shift bytes only):
// refused too, since an add with an empty value is a protocol error.
bool PrepareTextValue(char const* value, unsigned int op, char const* type, AttFrame& frame) {
    CChineseCode code;
    char* converted = nullptr;
    if (type == nullptr || value == nullptr || value[0] == '\0') {
        return false;
    }
    int length = code.GB2312ToUTF_8(converted, const_cast<char*>(value),
                                    static_cast<int>(std::strlen(value)));
    if (length <= 0 || converted == nullptr) {
        return false;
    }
    char* copy = new char[static_cast<std::size_t>(length) + 1];
    std::memcpy(copy, converted, static_cast<std::size_t>(length) + 1);
    frame.values[0] = copy;
    frame.values[1] = nullptr;
    frame.mod.mod_op = static_cast<int>(op);
    frame.mod.mod_type = const_cast<char*>(type);
    frame.mod.mod_values = frame.values;
    return true;
}
