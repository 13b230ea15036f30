// Name values checked with ICU's Unicode tables: character classes and NFKC.
#include "platform/NameText.h"

#include <unicode/uchar.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace qor {

namespace {

bool IsControl(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

bool IsSeparator(char c) {
    return std::strchr(",+\"\\<>;=", c) != nullptr && c != '\0';
}

// Characters a reader cannot see or that a directory may drop or treat as blanks.
bool IsInvisible(UChar32 c) {
    switch (u_charType(c)) {
        case U_CONTROL_CHAR:
        case U_FORMAT_CHAR:
        case U_LINE_SEPARATOR:
        case U_PARAGRAPH_SEPARATOR:
        case U_SURROGATE:
        case U_PRIVATE_USE_CHAR:
        case U_UNASSIGNED:
            return true;
        default:
            return false;
    }
}

}  // namespace

NameFault CheckNameValue(std::string const& value, std::size_t* at) {
    std::size_t where = 0;
    auto fault = [&](NameFault f, std::size_t offset) {
        where = offset;
        if (at != nullptr) {
            *at = where;
        }
        return f;
    };
    if (value.empty()) {
        return fault(NameFault::kEmpty, 0);
    }
    for (std::size_t i = 0; i < value.size(); ++i) {
        unsigned char const c = static_cast<unsigned char>(value[i]);
        if (IsControl(c)) {
            return fault(NameFault::kControl, i);
        }
        if (IsSeparator(value[i]) || (i == 0 && value[i] == '#')) {
            return fault(NameFault::kSeparator, i);
        }
        if (value[i] == ' ' && (i == 0 || i + 1 == value.size() || value[i + 1] == ' ')) {
            return fault(NameFault::kBlanks, i);
        }
    }
    // Character by character, so that a fault names its place.
    char const* const text = value.data();
    int32_t const length = static_cast<int32_t>(value.size());
    if (value.size() > 65536) {
        return fault(NameFault::kNotUtf8, 0);  // no name is this long; not worth decoding
    }
    for (int32_t i = 0; i < length;) {
        int32_t const start = i;
        UChar32 c = 0;
        U8_NEXT(text, i, length, c);
        if (c < 0) {
            return fault(NameFault::kNotUtf8, static_cast<std::size_t>(start));
        }
        if (IsInvisible(c)) {
            return fault(NameFault::kInvisible, static_cast<std::size_t>(start));
        }
    }
    // The whole text at once, so that a combining accent after a plain letter (which NFKC
    // would compose into one character) counts, while text already in NFKC of any script
    // passes.
    UErrorCode error = U_ZERO_ERROR;
    UNormalizer2 const* nfkc = unorm2_getNFKCInstance(&error);
    int32_t units = 0;
    u_strFromUTF8(nullptr, 0, &units, text, length, &error);
    if (error == U_BUFFER_OVERFLOW_ERROR) {
        error = U_ZERO_ERROR;
    }
    std::vector<UChar> wide(static_cast<std::size_t>(units) + 1);
    u_strFromUTF8(wide.data(), units + 1, &units, text, length, &error);
    if (U_FAILURE(error)) {
        return fault(NameFault::kCompatibility, 0);  // no tables: nothing can be vouched for
    }
    if (unorm2_isNormalized(nfkc, wide.data(), units, &error) && U_SUCCESS(error)) {
        return NameFault::kNone;
    }
    // The fault lies at the end of the part that is surely in NFKC, or in the character just
    // before it (which a following accent would change).
    int32_t span = unorm2_spanQuickCheckYes(nfkc, wide.data(), units, &error);
    if (span > 0 && U16_IS_TRAIL(wide[static_cast<std::size_t>(span)])) {
        --span;
    }
    int32_t bytes = 0;
    error = U_ZERO_ERROR;
    u_strToUTF8(nullptr, 0, &bytes, wide.data(), span, &error);
    return fault(NameFault::kCompatibility, static_cast<std::size_t>(bytes));
    return NameFault::kNone;
}

std::string DescribeNameFault(std::string const& value, NameFault fault, std::size_t at) {
    char code[16];
    unsigned char const c = at < value.size() ? static_cast<unsigned char>(value[at]) : 0;
    switch (fault) {
        case NameFault::kNone:
            return "nothing";
        case NameFault::kEmpty:
            return "an empty value";
        case NameFault::kControl: {
            static char const* const names[] = {"a NUL", "a line feed", "a carriage return",
                                                "a tab", "a control character"};
            char const* name = c == 0      ? names[0]
                               : c == '\n' ? names[1]
                               : c == '\r' ? names[2]
                               : c == '\t' ? names[3]
                                           : names[4];
            std::snprintf(code, sizeof code, " (0x%02X)", c);
            return std::string(name) + code;
        }
        case NameFault::kSeparator:
            return std::string("the character '") + static_cast<char>(c) + "'";
        case NameFault::kBlanks:
            return at == 0                  ? "a blank at the start"
                   : at + 1 == value.size() ? "a blank at the end"
                                            : "two blanks in a row";
        case NameFault::kNotUtf8:
            return "bytes that are not UTF-8";
        case NameFault::kInvisible:
        case NameFault::kCompatibility: {
            UChar32 u = 0;
            int32_t i = static_cast<int32_t>(at);
            U8_NEXT(value.data(), i, static_cast<int32_t>(value.size()), u);
            std::snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(u < 0 ? 0 : u));
            return std::string(fault == NameFault::kInvisible ? "the invisible character "
                                                              : "the character ") +
                   code +
                   (fault == NameFault::kCompatibility ? " (the directory reads it as another)"
                                                       : "");
        }
    }
    return "an unusable value";
}

}  // namespace qor
