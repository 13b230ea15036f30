// Attribute values: the command line holds UTF-8, the library takes GB18030 text and sends it on
// to the directory as UTF-8 again. The conversion is the library's own.
#include <string>

#include "platform/ChineseCode.h"
#include "tools/checks/checks.h"

namespace qortool {

std::string ToLibraryText(std::string const& what, std::string const& utf8) {
    bool ascii = true;
    for (char c : utf8) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            ascii = false;
            break;
        }
    }
    if (ascii)
        return utf8;
    std::string in = utf8;
    char* out = nullptr;
    CChineseCode code;
    int n = code.UTF_8ToGB2312(out, &in[0], static_cast<int>(in.size()));
    if (n < 0 || out == nullptr) {
        Usage(what, "\"" + utf8 + "\" is not valid UTF-8 text");
    }
    return std::string(out, static_cast<size_t>(n));
}

}  // namespace qortool
