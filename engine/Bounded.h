// Copies into fixed-width fields. Every copy into a record field goes through here, so no
// text is ever written past a field.
#ifndef QORLDAP_ENGINE_BOUNDED_H
#define QORLDAP_ENGINE_BOUNDED_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace qor {

// Copies src into dst[size]. true when it fitted whole; false when src is null (dst becomes
// empty) or too long, in which case dst holds its first size-1 bytes.
inline bool CutCopy(char* dst, std::size_t size, char const* src) {
    if (size == 0) {
        return false;
    }
    if (src == nullptr) {
        dst[0] = '\0';
        return false;
    }
    std::size_t len = strnlen(src, size);
    bool fits = len < size;
    if (!fits) {
        len = size - 1;
    }
    std::memcpy(dst, src, len);
    dst[len] = '\0';
    return fits;
}

template <std::size_t N>
inline bool CutCopy(char (&dst)[N], char const* src) {
    return CutCopy(dst, N, src);
}

// Copies src into dst[N] only when it fits whole; otherwise dst is left untouched.
template <std::size_t N>
inline bool FitCopy(char (&dst)[N], char const* src) {
    if (src == nullptr || strnlen(src, N) >= N) {
        return false;
    }
    std::memcpy(dst, src, std::strlen(src) + 1);
    return true;
}

// True when field[N] holds a NUL, i.e. is a proper text; a caller's record may not.
template <std::size_t N>
inline bool IsText(char const (&field)[N]) {
    return std::memchr(field, '\0', N) != nullptr;
}

// snprintf that reports truncation: true only when the whole text fitted.
__attribute__((format(printf, 3, 4))) inline bool Format(char* dst, std::size_t size,
                                                         char const* format, ...) {
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(dst, size, format, args);
    va_end(args);
    return n >= 0 && static_cast<std::size_t>(n) < size;
}

}  // namespace qor

#endif
