// GB2312 in the interface, UTF-8 in the directory: conversions and the modification frames.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "engine/LdapOp.h"
#include "platform/ChineseCode.h"

namespace {

std::string const kGbZhongWen = "\xd6\xd0\xce\xc4";            // GB2312 "中文"
std::string const kUtf8ZhongWen = "\xe4\xb8\xad\xe6\x96\x87";  // UTF-8 "中文"

std::string ToUtf8(std::string gb, int* rc = nullptr) {
    CChineseCode code;
    char* out = nullptr;
    int n = code.GB2312ToUTF_8(out, &gb[0], static_cast<int>(gb.size()));
    if (rc)
        *rc = n;
    return out ? std::string(out, static_cast<size_t>(n)) : "<null>";
}

std::string ToGb(std::string utf8, int* rc = nullptr) {
    CChineseCode code;
    char* out = nullptr;
    int n = code.UTF_8ToGB2312(out, &utf8[0], static_cast<int>(utf8.size()));
    if (rc)
        *rc = n;
    return out ? std::string(out, static_cast<size_t>(n)) : "<null>";
}

TEST(TextCode, ConvertsBothWaysAndKeepsCharactersBeyondGb2312) {
    EXPECT_EQ(kUtf8ZhongWen, ToUtf8(kGbZhongWen));
    EXPECT_EQ(kGbZhongWen, ToGb(kUtf8ZhongWen));
    EXPECT_EQ("Acme Ltd", ToUtf8("Acme Ltd"));
    // U+3400, outside GB2312 (common in personal names), survives the round trip.
    std::string const rare = "\xe3\x90\x80";
    EXPECT_EQ(rare, ToUtf8(ToGb(rare)));
    int rc = 0;
    EXPECT_EQ("<null>", ToGb("\xff\xfe", &rc));  // not UTF-8
    EXPECT_EQ(-1, rc);
    EXPECT_EQ("<null>", ToUtf8("\xd6", &rc));  // truncated GB character
    EXPECT_EQ(-1, rc);
}

TEST(ModificationRecord, FramesHoldAUtf8CopyAndRefuseEmptyOrUnconvertibleValues) {
    CLdapOp::AttFrame frame;
    std::memset(&frame, 0x11, sizeof frame);
    CLdapOp::AttFrame const before = frame;
    EXPECT_FALSE(CLdapOp::GetParaAtt("", 2, "ou", frame));
    EXPECT_FALSE(CLdapOp::GetParaAtt(nullptr, 2, "ou", frame));
    EXPECT_FALSE(CLdapOp::GetParaAtt("x", 2, nullptr, frame));
    EXPECT_FALSE(CLdapOp::GetParaAtt("\xd6", 2, "ou", frame));  // cannot be converted
    EXPECT_EQ(0, std::memcmp(&before, &frame, sizeof frame));   // untouched on refusal

    char const type[] = "ou";
    ASSERT_TRUE(CLdapOp::GetParaAtt(kGbZhongWen.c_str(), 2, type, frame));
    EXPECT_EQ(kUtf8ZhongWen, frame.values[0]);  // 6 bytes from a 4-byte input
    EXPECT_EQ(nullptr, frame.values[1]);
    EXPECT_EQ(2, frame.mod.mod_op);
    EXPECT_EQ(type, frame.mod.mod_type);  // borrowed, not copied
    EXPECT_EQ(frame.values, frame.mod.mod_values);
    delete[] frame.values[0];
}

}  // namespace
