// Creating, level by level, the organisational path that a certificate subject names.
#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/LdapOp.h"

// Each level puts "attr=value, " in front of the path so far, values unescaped. A path that
// would not fit the 255 characters of a record's dn field is refused with 0x16000010: it is
// never cut, since a cut path would name some other entry.
int CLdapOp::InsertOrganization(char const* subject, std::string& dn) {
    char path[512];
    if (!qor::FitCopy(path, Settings().basedn)) {
        return QORLDAP_E_FAILED;
    }
    if (templateCount_ < 1 || templates_ == nullptr) {
        return QORLDAP_OK;
    }
    for (int i = 0; i < templateCount_; ++i) {
        tagAtt level = templates_[i];
        std::string value;
        bool known = subject != nullptr && ParseSubject(subject, level.namingAtt, value);
        char composed[512];
        if (!qor::Format(composed, sizeof composed, LDAP_DN_COMPOSE, level.namingAtt,
                         known ? value.c_str() : LDAP_OTHER_DEPARTMENT, path) ||
            std::strlen(composed) >= sizeof(tagAtt::dn)) {
            return QORLDAP_E_FAILED;
        }
        std::memcpy(path, composed, sizeof path);
        level.items = nullptr;
        level.itemCount = 0;
        int rc = SelectLdapAtt(path, level);
        if (rc != QORLDAP_OK) {
            return rc;
        }
        if (level.itemCount > 0) {
            FreeAtt(&level);
            dn = path;
            continue;
        }
        // The lookup left the record zeroed: the level is built from the template again.
        tagAtt created = templates_[i];
        tagAttItem* item = new tagAttItem[1]();
        qor::CutCopy(item->type, created.namingAtt);
        // A subject value longer than the 1023 characters of an item could not be part of a
        // 255-character path, which was refused above.
        qor::CutCopy(item->value, known ? value.c_str() : LDAP_OTHER_DEPARTMENT);
        qor::CutCopy(item->syntax, LDAP_TEXT_SYNTAX);
        item->valueKnown = known ? 1 : 0;
        created.items = item;
        created.itemCount = 1;
        rc = InsertLdap(path, created, true, nullptr, 0, nullptr, 0, nullptr, 0);
        FreeAtt(&created);
        if (rc != QORLDAP_OK) {
            return rc;
        }
        dn = path;
    }
    return QORLDAP_OK;
}
