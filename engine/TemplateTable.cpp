// Loading "ldap.ini" into the table of entry templates.
#include "engine/TemplateTable.h"

#include <cstdlib>
#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "platform/IniFile.h"

namespace {

// Counts and roles read as strtol with base 10: leading blanks and a sign allowed, reading stops
// at the first non-digit, text without digits is 0.
long ReadNumber(std::string const& text) {
    return std::strtol(text.c_str(), nullptr, 10);
}

std::string KeyName(long index) {
    char key[32];
    qor::Format(key, sizeof key, ATT_SENTENCE_S_D, LDAP_ATT, static_cast<int>(index));
    return key;
}

// A template may name its entries by at most three role-2 definitions; the last one counts.
int const kMaxNamingDefinitions = 3;
int const kNamingRole = 2;

}  // namespace

TemplateTable::~TemplateTable() {
    delete[] table_;
    table_ = nullptr;
    count_ = 0;
}

bool TemplateTable::Load() {
    // One read of the file for every template and definition in it.
    IniFile const schema = IniFile::Load(LDAP_INI);
    std::string text;
    if (!schema.Get(LDAP_BASE, LDAP_SUM, text)) {
        return false;
    }
    long count = ReadNumber(text);
    // A count beyond what any tree needs is a broken file, not a reason to allocate.
    if (count < 1 || count > 1000) {
        return false;
    }
    delete[] table_;
    table_ = nullptr;
    count_ = 0;
    tagAtt* table = new tagAtt[count];
    for (long i = 0; i < count; ++i) {
        std::string name;
        tagAtt record;
        std::memset(&record, 0, sizeof record);
        // A template name that does not fit its 255 characters could never match an entry's
        // object class: the file is refused rather than cut.
        if (!schema.Get(LDAP_BASE, KeyName(i), name) || !ReadTemplate(schema, name, record) ||
            !qor::FitCopy(record.objectClass, name.c_str())) {
            delete[] table;
            return false;
        }
        record.templateIndex = static_cast<int>(i);
        record.templateCount = static_cast<int>(count);
        table[i] = record;
    }
    table_ = table;
    count_ = static_cast<int>(count);
    return true;
}

// A definition that does not split, or a naming attribute longer than 255 characters, makes
// the template invalid and so the whole file: a schema file with a broken line is refused
// whole rather than loaded without the attribute that line meant to name.
bool TemplateTable::ReadEachConfig(std::string const& section, std::string const& file,
                                   tagAtt& tmpl) {
    if (section.empty() || file.empty()) {
        return false;
    }
    return ReadTemplate(IniFile::Load(file), section, tmpl);
}

bool TemplateTable::ReadTemplate(IniFile const& file, std::string const& section, tagAtt& tmpl) {
    if (section.empty()) {
        return false;
    }
    std::string text;
    if (!file.Get(section, LDAP_SUM, text)) {
        return false;
    }
    long count = ReadNumber(text);
    if (count < 1) {
        return false;
    }
    int naming = 0;
    for (long j = 0; j < count; ++j) {
        std::string definition;
        if (!file.Get(section, KeyName(j), definition)) {
            return false;
        }
        std::string name;
        std::string code;
        int role = 0;
        if (!SeparateData(definition, name, code, role)) {
            return false;
        }
        if (role == kNamingRole) {
            if (naming == kMaxNamingDefinitions) {
                return false;
            }
            ++naming;
            if (!qor::FitCopy(tmpl.namingAtt, name.c_str())) {
                return false;
            }
        }
    }
    tmpl.items = nullptr;
    tmpl.itemCount = 0;
    return true;
}

bool TemplateTable::SeparateData(std::string const& text, std::string& name, std::string& code,
                                 int& role) {
    std::string::size_type first = text.find(ATT_SEPARATE);
    if (text.empty() || first == 0 || (first != std::string::npos && first + 1 == text.size())) {
        return false;
    }
    if (first == std::string::npos) {
        // No comma: the whole text is name, code and role text; "cn" reads as role 0.
        name = text;
        code = text;
        role = static_cast<int>(ReadNumber(text));
        return true;
    }
    std::string::size_type second = text.find(ATT_SEPARATE, first + 1);
    name = text.substr(0, first);
    if (second == std::string::npos) {
        code = text.substr(first + 1);
        role = static_cast<int>(ReadNumber(text.substr(first + 1)));
    } else {
        code = text.substr(first + 1, second - first - 1);
        role = static_cast<int>(ReadNumber(text.substr(second + 1)));
    }
    return true;
}

void TemplateTable::Find(char const* name, tagAtt& out) const {
    if (name == nullptr) {
        return;
    }
    for (int i = 0; i < count_; ++i) {
        if (std::strcmp(table_[i].objectClass, name) == 0) {
            out = table_[i];
            return;
        }
    }
}
