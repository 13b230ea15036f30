// Creating, level by level, the organisational path that a certificate subject names.
#include "engine/OrgPath.h"

#include <algorithm>
#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/Naming.h"
#include "engine/Records.h"
#include "platform/ChineseCode.h"
#include "qorldap/result_codes.h"

namespace {

// UTF-8 text in the interface's GB18030, in place; false when it is not UTF-8.
bool ToInterfaceText(std::string& text) {
    if (std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; })) {
        return true;  // ASCII reads the same in both
    }
    CChineseCode code;
    char* converted = nullptr;
    int const length = code.UTF_8ToGB2312(converted, const_cast<char*>(text.c_str()),
                                          static_cast<int>(text.size()));
    if (length < 0 || converted == nullptr) {
        return false;
    }
    text.assign(converted, static_cast<std::size_t>(length));
    return true;
}

}  // namespace

// Each level puts "attr=value, " in front of the path so far, values unescaped. A path that
// would not fit the 255 characters of a record's dn field is refused with 0x16000010: it is
// never cut, since a cut path would name some other entry.
int PathBuilder::InsertOrganization(char const* subject, std::string& dn) {
    char path[512];
    if (!qor::FitCopy(path, settings_.Get().basedn)) {
        return QORLDAP_E_FAILED;
    }
    if (templates_.Empty()) {
        return QORLDAP_OK;
    }
    for (int i = 0; i < templates_.Count(); ++i) {
        tagAtt level = templates_[i];
        std::string value;
        bool known = subject != nullptr && Naming::ParseSubject(subject, level.namingAtt, value);
        char composed[512];
        if (!qor::Format(composed, sizeof composed, LDAP_DN_COMPOSE, level.namingAtt,
                         known ? value.c_str() : LDAP_OTHER_DEPARTMENT, path) ||
            std::strlen(composed) >= sizeof(tagAtt::dn)) {
            return QORLDAP_E_FAILED;
        }
        std::memcpy(path, composed, sizeof path);
        level.items = nullptr;
        level.itemCount = 0;
        int rc = entries_.SelectLdapAtt(path, level);
        if (rc != QORLDAP_OK) {
            return rc;
        }
        if (level.itemCount > 0) {
            qor::FreeAtt(&level);
            dn = path;
            continue;
        }
        // The lookup left the record zeroed: the level is built from the template again.
        tagAtt created = templates_[i];
        tagAttItem* item = new tagAttItem[1]();
        qor::CutCopy(item->type, created.namingAtt);
        // A subject value longer than the 1023 characters of an item could not be part of a
        // 255-character path, which was refused above.
        //
        // The subject's values are UTF-8 (as the certificate holds them), while an item's value
        // is the interface's GB18030 text, which the insert converts to UTF-8. So the value
        // goes into the item as GB18030: the insert turns it back into the very bytes the DN
        // holds, and the level is stored with one value, the certificate's. Handed over as it
        // is, a Chinese value would be converted a second time and stored twice, once from the
        // DN and once garbled. ASCII reads the same in both, so ASCII subjects are unchanged.
        std::string itemValue = known ? value : std::string(LDAP_OTHER_DEPARTMENT);
        if (!ToInterfaceText(itemValue)) {
            delete[] item;
            return QORLDAP_E_FAILED;
        }
        qor::CutCopy(item->value, itemValue.c_str());
        qor::CutCopy(item->syntax, LDAP_TEXT_SYNTAX);
        item->valueKnown = known ? 1 : 0;
        created.items = item;
        created.itemCount = 1;
        rc = writer_.InsertLdap(path, created, true, nullptr, 0, nullptr, 0, nullptr, 0);
        qor::FreeAtt(&created);
        if (rc != QORLDAP_OK) {
            return rc;
        }
        dn = path;
    }
    return QORLDAP_OK;
}
