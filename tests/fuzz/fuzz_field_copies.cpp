// Fuzzes the copies into fixed-width fields (CutCopy, FitCopy, Format, IsText), the
// preparation of one text modification (GetParaAtt) and the GB/UTF-8 converter under it.
//
// Every destination sits between guard bytes; a copy that writes one byte past its field, or
// a refusal that changes anything, stops the run. Sources that need not be NUL-terminated are
// given exactly the bytes the copy may read, on the heap, so reading past them is caught too.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/LdapOp.h"
#include "platform/ChineseCode.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

size_t const kGuard = 16;
unsigned char const kFill = 0xa5;

bool AllFill(unsigned char const* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (p[i] != kFill)
            return false;
    }
    return true;
}

// A field of N bytes between guards, laid out as a record would hold it.
template <size_t N>
struct Field {
    Field() { std::memset(this, kFill, sizeof *this); }
    bool GuardsIntact() const { return AllFill(pre, kGuard) && AllFill(post, kGuard); }
    unsigned char pre[kGuard];
    char field[N];
    unsigned char post[kGuard];
};

// A source for a copy bounded by limit: either a NUL-terminated text, or (when the copy may
// read up to limit bytes and no further) exactly limit bytes without a NUL.
struct Source {
    std::vector<char> bytes;
    char const* Get() const { return bytes.empty() ? nullptr : bytes.data(); }
};

Source MakeSource(FuzzedDataProvider& in, size_t limit) {
    Source src;
    std::string text = in.ConsumeRandomLengthString(2 * limit + 8);
    if (in.ConsumeBool() && text.size() >= limit && limit > 0) {
        src.bytes.assign(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(limit));
        for (char& c : src.bytes) {
            if (c == '\0')
                c = 'x';
        }
    } else {
        src.bytes.assign(text.begin(), text.end());
        src.bytes.push_back('\0');
    }
    return src;
}

// strnlen over the source as the copy sees it.
size_t Length(Source const& src, size_t limit) {
    return strnlen(src.Get(), limit);
}

void CheckCutCopyRuntime(FuzzedDataProvider& in) {
    size_t const size = in.ConsumeIntegralInRange<size_t>(0, 1100);
    bool const null = in.ConsumeIntegralInRange<int>(0, 15) == 0;
    Source const src = null ? Source() : MakeSource(in, size);
    std::vector<unsigned char> buf(size + 2 * kGuard, kFill);
    char* dst = reinterpret_cast<char*>(buf.data() + kGuard);
    bool const ok = qor::CutCopy(dst, size, src.Get());
    FUZZ_CHECK(AllFill(buf.data(), kGuard) && AllFill(buf.data() + kGuard + size, kGuard));
    if (size == 0) {
        FUZZ_CHECK(!ok && AllFill(buf.data(), buf.size()));
        return;
    }
    if (null) {
        FUZZ_CHECK(!ok && dst[0] == '\0');
        return;
    }
    size_t const len = Length(src, size);
    FUZZ_CHECK(ok == (len < size));
    size_t const kept = len < size ? len : size - 1;
    FUZZ_CHECK(std::memcmp(dst, src.Get(), kept) == 0 && dst[kept] == '\0');
}

template <size_t N>
void CheckFixed(FuzzedDataProvider& in) {
    Source const src = MakeSource(in, N);
    {
        Field<N> f;
        bool const ok = qor::CutCopy(f.field, src.Get());
        FUZZ_CHECK(f.GuardsIntact());
        size_t const len = Length(src, N);
        FUZZ_CHECK(ok == (len < N));
        size_t const kept = len < N ? len : N - 1;
        FUZZ_CHECK(std::memcmp(f.field, src.Get(), kept) == 0 && f.field[kept] == '\0');
        FUZZ_CHECK(qor::IsText(f.field));
    }
    {
        Field<N> f;
        Field<N> const before;
        bool const ok = qor::FitCopy(f.field, src.Get());
        FUZZ_CHECK(f.GuardsIntact());
        size_t const len = Length(src, N);
        FUZZ_CHECK(ok == (len < N));
        if (ok) {
            FUZZ_CHECK(std::memcmp(f.field, src.Get(), len + 1) == 0);
        } else {
            // A text that does not fit leaves the field as it was, every byte.
            FUZZ_CHECK(std::memcmp(&f, &before, sizeof f) == 0);
        }
    }
    {
        Field<N> f;
        Field<N> const before;
        FUZZ_CHECK(!qor::FitCopy(f.field, nullptr));
        FUZZ_CHECK(std::memcmp(&f, &before, sizeof f) == 0);
    }
}

// Format: true only when the whole text fitted; the field always ends within itself.
template <typename... Args>
void CheckFormat(size_t size, char const* format, Args... args) {
    int const whole = std::snprintf(nullptr, 0, format, args...);
    FUZZ_CHECK(whole >= 0);
    std::vector<char> expected(static_cast<size_t>(whole) + 1);
    std::snprintf(expected.data(), expected.size(), format, args...);
    std::vector<unsigned char> buf(size + 2 * kGuard, kFill);
    char* dst = reinterpret_cast<char*>(buf.data() + kGuard);
    bool const ok = qor::Format(dst, size, format, args...);
    FUZZ_CHECK(AllFill(buf.data(), kGuard) && AllFill(buf.data() + kGuard + size, kGuard));
    FUZZ_CHECK(ok == (static_cast<size_t>(whole) < size));
    if (size == 0) {
        FUZZ_CHECK(AllFill(buf.data(), buf.size()));
        return;
    }
    size_t const kept = static_cast<size_t>(whole) < size ? static_cast<size_t>(whole) : size - 1;
    FUZZ_CHECK(std::memcmp(dst, expected.data(), kept) == 0 && dst[kept] == '\0');
}

// The formats the engine fills fixed buffers with.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-nonliteral"
void CheckFormats(FuzzedDataProvider& in) {
    size_t const size = in.ConsumeIntegralInRange<size_t>(0, 600);
    std::string const a = in.ConsumeRandomLengthString(300);
    std::string const b = in.ConsumeRandomLengthString(300);
    std::string const c = in.ConsumeRandomLengthString(300);
    int const n = in.ConsumeIntegral<int>();
    CheckFormat(size, ATT_SENTENCE_S_D, a.c_str(), n);
    CheckFormat(size, LDAP_QUERY_CONDITION, a.c_str(), b.c_str());
    CheckFormat(size, LDAP_DN_COMPOSE, a.c_str(), b.c_str(), c.c_str());
    CheckFormat(size, LDAP_CHILD_CONDITION, a.c_str(), b.c_str(), c.c_str(), a.c_str());
}
#pragma clang diagnostic pop

template <size_t N>
void CheckIsText(FuzzedDataProvider& in) {
    char field[N];
    std::string const bytes = in.ConsumeBytesAsString(N);
    std::memset(field, 'x', N);
    std::memcpy(field, bytes.data(), bytes.size());
    FUZZ_CHECK(qor::IsText(field) == (std::memchr(field, '\0', N) != nullptr));
    std::memset(field, 'x', N);
    FUZZ_CHECK(!qor::IsText(field));
    field[N - 1] = '\0';
    FUZZ_CHECK(qor::IsText(field));
}

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsUtf8(unsigned char const* s, size_t n) {
    size_t i = 0;
    while (i < n) {
        unsigned char const c = s[i];
        size_t extra;
        unsigned int cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xc2 && c <= 0xdf) {
            extra = 1;
            cp = c & 0x1f;
        } else if (c >= 0xe0 && c <= 0xef) {
            extra = 2;
            cp = c & 0x0f;
        } else if (c >= 0xf0 && c <= 0xf4) {
            extra = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= n)
            return false;
        for (size_t k = 1; k <= extra; ++k) {
            if ((s[i + k] & 0xc0) != 0x80)
                return false;
            cp = (cp << 6) | (s[i + k] & 0x3f);
        }
        if ((extra == 2 && cp < 0x800) || (extra == 3 && cp < 0x10000) || cp > 0x10ffff ||
            (cp >= 0xd800 && cp <= 0xdfff)) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

// A record item's value (a field of 1024 with a NUL within it) made into a modification.
void CheckGetParaAtt(FuzzedDataProvider& in) {
    tagAttItem item;
    std::memset(&item, 0, sizeof item);
    std::string const type = in.ConsumeRandomLengthString(sizeof item.type - 1);
    std::memcpy(item.type, type.data(), type.size());
    std::string const value = in.ConsumeRandomLengthString(sizeof item.value - 1);
    std::memcpy(item.value, value.data(), value.size());
    unsigned int const op = in.ConsumeIntegral<unsigned int>();
    FUZZ_CHECK(qor::IsText(item.type) && qor::IsText(item.value));

    CLdapOp::AttFrame frame;
    std::memset(&frame, 0x5a, sizeof frame);
    CLdapOp::AttFrame before;
    std::memcpy(&before, &frame, sizeof frame);
    bool const ok = CLdapOp::GetParaAtt(item.value, op, item.type, frame);

    // The converter's own answer on the same text decides whether the value may be sent.
    CChineseCode code;
    char* converted = nullptr;
    size_t const inLen = std::strlen(item.value);
    int const length = code.GB2312ToUTF_8(converted, item.value, static_cast<int>(inLen));
    bool const sendable = inLen > 0 && length > 0 && converted != nullptr;
    if (!ok) {
        FUZZ_CHECK(!sendable);
        FUZZ_CHECK(std::memcmp(&frame, &before, sizeof frame) == 0);
        return;
    }
    FUZZ_CHECK(sendable);
    FUZZ_CHECK(frame.values[0] != nullptr && frame.values[1] == nullptr);
    FUZZ_CHECK(frame.mod.mod_op == static_cast<int>(op));
    FUZZ_CHECK(frame.mod.mod_type == item.type);
    FUZZ_CHECK(frame.mod.mod_values == frame.values);
    size_t const outLen = std::strlen(frame.values[0]);
    FUZZ_CHECK(outLen == static_cast<size_t>(length));
    FUZZ_CHECK(std::memcmp(frame.values[0], converted, outLen) == 0);
    FUZZ_CHECK(IsUtf8(reinterpret_cast<unsigned char const*>(frame.values[0]), outLen));
    // Back to GB gives the record's text again: the same bytes, or (for the few characters
    // GB18030 writes two ways, such as 95 32 90 31) the other form, which reads as the same
    // UTF-8 text.
    std::string const utf8(frame.values[0], outLen);
    char* back = nullptr;
    int const backLen = code.UTF_8ToGB2312(back, frame.values[0], static_cast<int>(outLen));
    FUZZ_CHECK(backLen > 0 && back != nullptr);
    if (static_cast<size_t>(backLen) != inLen || std::memcmp(back, item.value, inLen) != 0) {
        std::string gb(back, static_cast<size_t>(backLen));
        char* again = nullptr;
        int const againLen = code.GB2312ToUTF_8(again, &gb[0], static_cast<int>(gb.size()));
        FUZZ_CHECK(againLen >= 0 && again != nullptr);
        FUZZ_CHECK(std::string(again, static_cast<size_t>(againLen)) == utf8);
    }
    // The copy belongs to the request's sender: released here as the sender would.
    delete[] frame.values[0];
}

// Arbitrary bytes as UTF-8: text that is not UTF-8 is refused, with out null and -1; text
// that converts comes back whole from GB. Valid UTF-8 may be refused too: the system's GB18030
// table leaves some private-use code points unmapped (U+E81E..U+E864 among them), and such a
// value is then kept unconverted by the callers.
void CheckConverter(FuzzedDataProvider& in) {
    std::string text = in.ConsumeRandomLengthString(2048);
    CChineseCode code;
    char* out = reinterpret_cast<char*>(&code);  // must be set either way
    FUZZ_CHECK(code.UTF_8ToGB2312(out, nullptr, 1) == -1 && out == nullptr);
    out = reinterpret_cast<char*>(&code);
    FUZZ_CHECK(code.GB2312ToUTF_8(out, &text[0], -1) == -1 && out == nullptr);
    out = reinterpret_cast<char*>(&code);
    int const len = code.UTF_8ToGB2312(out, &text[0], static_cast<int>(text.size()));
    bool const utf8 = IsUtf8(reinterpret_cast<unsigned char const*>(text.data()), text.size());
    if (len < 0) {
        FUZZ_CHECK(len == -1 && out == nullptr);
        return;
    }
    FUZZ_CHECK(utf8);
    FUZZ_CHECK(out != nullptr && out[len] == '\0');
    std::string gb(out, static_cast<size_t>(len));
    char* back = nullptr;
    int const backLen = code.GB2312ToUTF_8(back, &gb[0], static_cast<int>(gb.size()));
    FUZZ_CHECK(backLen == static_cast<int>(text.size()) && back != nullptr);
    FUZZ_CHECK(std::memcmp(back, text.data(), text.size()) == 0 && back[backLen] == '\0');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    switch (in.ConsumeIntegralInRange<int>(0, 5)) {
        case 0:
            CheckCutCopyRuntime(in);
            break;
        case 1:
            switch (in.ConsumeIntegralInRange<int>(0, 3)) {
                case 0:
                    CheckFixed<1>(in);
                    break;
                case 1:
                    CheckFixed<33>(in);
                    break;
                case 2:
                    CheckFixed<256>(in);
                    break;
                default:
                    CheckFixed<1024>(in);
                    break;
            }
            break;
        case 2:
            CheckFormats(in);
            break;
        case 3:
            CheckIsText<1>(in);
            CheckIsText<2>(in);
            CheckIsText<256>(in);
            CheckIsText<1024>(in);
            break;
        case 4:
            CheckGetParaAtt(in);
            break;
        default:
            CheckConverter(in);
            break;
    }
    return 0;
}
