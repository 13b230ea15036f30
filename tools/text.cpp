// Attribute values: the command line holds UTF-8, the library takes GB18030 text and sends it on
// to the directory as UTF-8 again.
#include <iconv.h>

#include <cerrno>

#include "cli.h"

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
    iconv_t cd = iconv_open("GB18030", "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        Fail(what, "this system cannot convert text to GB18030");
    }
    std::string out(utf8.size() * 2 + 8, '\0');
    char* src = const_cast<char*>(utf8.data());
    size_t srcLeft = utf8.size();
    char* dst = &out[0];
    size_t dstLeft = out.size();
    size_t rc = iconv(cd, &src, &srcLeft, &dst, &dstLeft);
    if (rc != static_cast<size_t>(-1)) {
        rc = iconv(cd, nullptr, nullptr, &dst, &dstLeft);
    }
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1) || srcLeft != 0) {
        Usage(what, "\"" + utf8 + "\" is not valid UTF-8 text");
    }
    out.resize(static_cast<size_t>(dst - &out[0]));
    return out;
}

}  // namespace qortool
