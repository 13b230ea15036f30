#include "platform/ChineseCode.h"

#include <errno.h>
#include <iconv.h>

namespace {

char const* const kGbCharset = "GB18030";
char const* const kUtf8Charset = "UTF-8";

}  // namespace

int CChineseCode::GB2312ToUTF_8(char*& out, char* in, int length) {
    return Convert(kGbCharset, kUtf8Charset, out, in, length);
}

int CChineseCode::UTF_8ToGB2312(char*& out, char* in, int length) {
    return Convert(kUtf8Charset, kGbCharset, out, in, length);
}

int CChineseCode::Convert(char const* from, char const* to, char*& out, char const* in,
                          int length) {
    out = nullptr;
    if (in == nullptr || length < 0) {
        return -1;
    }
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return -1;
    }
    // A GB18030 character takes up to 4 bytes and its UTF-8 form up to 4 as well; a
    // two-byte GB2312 character takes 3 in UTF-8. Twice the input plus a little always fits.
    std::string result(static_cast<std::string::size_type>(length) * 2 + 8, '\0');
    char* src = const_cast<char*>(in);
    size_t srcLeft = static_cast<size_t>(length);
    char* dst = &result[0];
    size_t dstLeft = result.size() - 1;
    size_t rc = iconv(cd, &src, &srcLeft, &dst, &dstLeft);
    if (rc != static_cast<size_t>(-1)) {
        rc = iconv(cd, nullptr, nullptr, &dst, &dstLeft);
    }
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1) || srcLeft != 0) {
        return -1;
    }
    result.resize(static_cast<std::string::size_type>(dst - &result[0]));
    buffer_.swap(result);
    out = &buffer_[0];
    return static_cast<int>(buffer_.size());
}
