// GB2312 <-> UTF-8 text conversion over iconv. GB18030, a superset of GB2312, is used on the
// GB side, so names with characters outside GB2312 survive instead of failing.
#ifndef QORLDAP_PLATFORM_CHINESECODE_H
#define QORLDAP_PLATFORM_CHINESECODE_H

#include <string>

class CChineseCode {
  public:
    CChineseCode() = default;
    CChineseCode(CChineseCode const&) = delete;
    CChineseCode& operator=(CChineseCode const&) = delete;

    // Convert length bytes of in. On success out points at the NUL-terminated result, which
    // the converter owns and keeps until it is destroyed or converts again, and the result is
    // its length. On failure (invalid input, null in, negative length) out is null and the
    // result is -1.
    int GB2312ToUTF_8(char*& out, char* in, int length);
    int UTF_8ToGB2312(char*& out, char* in, int length);

  private:
    int Convert(char const* from, char const* to, char*& out, char const* in, int length);
    std::string buffer_;
};

#endif
