// Fuzzes the copies into fixed-width fields (CutCopy, FitCopy, Format, IsText), GetParaAtt and
// the GB/UTF-8 converter under it. Destinations are followed by guard bytes; a source that need
// not end in a NUL gets exactly the bytes a copy may read, on the heap.
#include <fuzzer/FuzzedDataProvider.h>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/LdapOp.h"
#include "platform/ChineseCode.h"
#include "tests/fuzz/FuzzCheck.h"

using qorfuzz::Guarded;

namespace {

// A text for a copy bounded by limit: NUL-terminated, or exactly limit bytes without a NUL.
std::vector<char> MakeSource(FuzzedDataProvider& in, size_t limit) {
    std::string text = in.ConsumeRandomLengthString(2 * limit + 8);
    bool const unterminated = in.ConsumeBool() && limit > 0 && text.size() >= limit;
    std::vector<char> bytes(text.begin(), unterminated ? text.begin() + limit : text.end());
    std::replace(bytes.begin(), bytes.end(), '\0', 'x');
    if (!unterminated)
        bytes.push_back('\0');
    return bytes;
}

// After a copy of src into dst[size]: dst ends within its field and starts src; ok tells
// whether all of src came.
void CheckCut(Guarded const& dst, std::vector<char> const& src, bool ok) {
    char const* text = reinterpret_cast<char const*>(dst.bytes.data());
    size_t const kept = strnlen(text, dst.size);
    FUZZ_CHECK(dst.GuardIntact() && kept < dst.size && std::memcmp(text, src.data(), kept) == 0);
    FUZZ_CHECK(ok == (kept == strnlen(src.data(), src.size())));
}

// CutCopy and FitCopy into a field of N bytes. No source is refused, leaving an empty text
// (CutCopy) or the field as it was (FitCopy); no room is refused, writing nothing.
template <size_t N>
void CheckFixed(FuzzedDataProvider& in) {
    std::vector<char> const src = MakeSource(in, N);
    Guarded cut(N), fit(N), none(0);
    Guarded const fresh(N);
    char(&cutField)[N] = *reinterpret_cast<char(*)[N]>(cut.Data());
    char(&fitField)[N] = *reinterpret_cast<char(*)[N]>(fit.Data());
    FUZZ_CHECK(!qor::IsText(fitField));  // no NUL in the field
    FUZZ_CHECK(!qor::FitCopy(fitField, nullptr) && fit.bytes == fresh.bytes);
    FUZZ_CHECK(!qor::CutCopy(cutField, nullptr) && cutField[0] == '\0');
    FUZZ_CHECK(!qor::CutCopy(reinterpret_cast<char*>(none.Data()), 0, src.data()) &&
               none.GuardIntact());
    CheckCut(cut, src, qor::CutCopy(cutField, src.data()));
    FUZZ_CHECK(qor::IsText(cutField));
    if (qor::FitCopy(fitField, src.data()))  // whole, or not at all
        FUZZ_CHECK(std::strcmp(fitField, src.data()) == 0 && fit.GuardIntact());
    else
        FUZZ_CHECK(fit.bytes == fresh.bytes);
}

// Format into a field against the same text in a large one: a prefix of it, true only when
// whole; no room is refused, writing nothing.
void CheckFormat(FuzzedDataProvider& in) {
    size_t const size = in.ConsumeIntegralInRange<size_t>(0, 330);
    std::string const text = in.ConsumeRandomLengthString(300);
    int const n = in.ConsumeIntegral<int>();
    std::vector<char> whole(400);
    Guarded dst(size);
    FUZZ_CHECK(qor::Format(whole.data(), whole.size(), ATT_SENTENCE_S_D, text.c_str(), n));
    char* field = reinterpret_cast<char*>(dst.Data());
    bool const ok = qor::Format(field, size, ATT_SENTENCE_S_D, text.c_str(), n);
    if (size == 0)
        return FUZZ_CHECK(!ok && dst.GuardIntact());
    CheckCut(dst, whole, ok);
}

// A record item's value made into a modification: refused, the frame untouched, exactly when the
// converter refuses the text; else the UTF-8 comes back to the GB text, or to its other form
// (GB18030 writes a few characters two ways, such as 95 32 90 31) with the same UTF-8.
void CheckGetParaAtt(FuzzedDataProvider& in) {
    tagAttItem item = {};
    in.ConsumeRandomLengthString(sizeof item.type - 1).copy(item.type, sizeof item.type - 1);
    in.ConsumeRandomLengthString(sizeof item.value - 1).copy(item.value, sizeof item.value - 1);
    unsigned int const op = in.ConsumeIntegral<unsigned int>();
    CLdapOp::AttFrame frame, before;
    std::memset(&frame, 0x5a, sizeof frame);
    std::memcpy(&before, &frame, sizeof frame);
    bool const ok = CLdapOp::GetParaAtt(item.value, op, item.type, frame);

    CChineseCode code;
    char* out = nullptr;
    int const len = code.GB2312ToUTF_8(out, item.value, static_cast<int>(strlen(item.value)));
    FUZZ_CHECK(ok == (item.value[0] != '\0' && len > 0));
    if (!ok)
        return FUZZ_CHECK(std::memcmp(&frame, &before, sizeof frame) == 0);
    std::string const utf8(frame.values[0]);
    FUZZ_CHECK(utf8 == std::string(out, static_cast<size_t>(len)) && frame.values[1] == nullptr);
    FUZZ_CHECK(frame.mod.mod_op == static_cast<int>(op) && frame.mod.mod_type == item.type &&
               frame.mod.mod_values == frame.values);
    delete[] frame.values[0];  // the request's sender releases it
    int const gbLen = code.UTF_8ToGB2312(out, const_cast<char*>(utf8.data()), len);
    FUZZ_CHECK(gbLen > 0);
    std::string gb(out, static_cast<size_t>(gbLen));
    if (gb != item.value) {
        int const againLen = code.GB2312ToUTF_8(out, &gb[0], gbLen);
        FUZZ_CHECK(againLen > 0 && std::string(out, static_cast<size_t>(againLen)) == utf8);
    }
}

// Bytes as UTF-8: refused with out null and -1 (also some valid UTF-8: GB18030 leaves a few
// private-use code points unmapped), or made GB text that converts back to the same bytes.
void CheckConverter(FuzzedDataProvider& in) {
    std::string text = in.ConsumeRandomLengthString(2048);
    CChineseCode code;
    char* out = &text[0];
    FUZZ_CHECK(code.UTF_8ToGB2312(out, nullptr, 1) == -1 && out == nullptr);
    FUZZ_CHECK(code.GB2312ToUTF_8(out = &text[0], &text[0], -1) == -1 && out == nullptr);
    int const len = code.UTF_8ToGB2312(out = &text[0], &text[0], static_cast<int>(text.size()));
    if (len < 0)
        return FUZZ_CHECK(len == -1 && out == nullptr);
    FUZZ_CHECK(out != nullptr && out[len] == '\0');
    std::string gb(out, static_cast<size_t>(len));
    int const backLen = code.GB2312ToUTF_8(out, &gb[0], len);
    FUZZ_CHECK(backLen >= 0 && std::string(out, static_cast<size_t>(backLen)) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    using Check = void (*)(FuzzedDataProvider&);
    static Check const kFixed[] = {CheckFixed<1>, CheckFixed<33>, CheckFixed<256>,
                                   CheckFixed<1024>};
    FuzzedDataProvider in(data, size);
    int const pick = in.ConsumeIntegralInRange(0, 5);  // the last byte picks the check
    if (pick < 2)
        kFixed[in.ConsumeIntegralInRange(0, 3)](in);
    else
        (pick < 4 ? CheckFormat : pick == 4 ? CheckGetParaAtt : CheckConverter)(in);
    return 0;
}
