#include "interface/CallerDn.h"

#include <algorithm>
#include <cstdio>

#include "engine/LdapOp.h"
#include "platform/ChineseCode.h"

namespace qor {

namespace {

bool Ascii(char const* text) {
    for (; *text != '\0'; ++text) {
        if ((static_cast<unsigned char>(*text) & 0x80) != 0) {
            return false;
        }
    }
    return true;
}

// text converted in place to GB18030 (to_caller) or to UTF-8; false when it does not convert.
bool Convert(std::string& text, bool toCaller) {
    CChineseCode code;
    char* converted = nullptr;
    char* in = const_cast<char*>(text.c_str());
    int const length = static_cast<int>(text.size());
    int const out = toCaller ? code.UTF_8ToGB2312(converted, in, length)
                             : code.GB2312ToUTF_8(converted, in, length);
    if (out < 0 || converted == nullptr) {
        return false;
    }
    text.assign(converted, static_cast<std::size_t>(out));
    return true;
}

// A fixed field (256 characters) in GB18030. GB18030 never needs more bytes than UTF-8 for the
// same text, so the converted DN always fits where the directory's did.
template <std::size_t N>
void FieldToCaller(char (&field)[N]) {
    if (Ascii(field)) {
        return;
    }
    std::string text(field);
    if (Convert(text, true) && text.size() < N) {
        std::snprintf(field, N, "%s", text.c_str());
    }
}

}  // namespace

DirectoryDn::DirectoryDn(CLdapOp const& engine, char const* dn) : dn_(dn) {
    if (dn == nullptr || !engine.Gb18030Dns() || Ascii(dn)) {
        return;
    }
    converted_ = dn;
    dn_ = Convert(converted_, false) ? converted_.c_str() : nullptr;
}

void ToCaller(CLdapOp const& engine, tagDN* list, int count) {
    if (list == nullptr || !engine.Gb18030Dns()) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        FieldToCaller(list[i].dn);
        FieldToCaller(list[i].baseDn);
    }
}

void ToCaller(CLdapOp const& engine, tagAtt& att) {
    if (!engine.Gb18030Dns()) {
        return;
    }
    FieldToCaller(att.dn);
    FieldToCaller(att.parentDn);
}

void ToCaller(CLdapOp const& engine, std::string& dn) {
    if (engine.Gb18030Dns() && !Ascii(dn.c_str())) {
        std::string text = dn;
        if (Convert(text, true)) {
            dn = text;
        }
    }
}

}  // namespace qor
