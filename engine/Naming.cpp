// Distinguished-name and certificate-subject text. Names are plain text: every comma separates
// (no escaping is recognised), the first "=" splits type from value, blanks are never trimmed.
#include "engine/Naming.h"

#include <strings.h>

#include <cstring>
#include <utility>

#include "engine/Constants.h"
#include "platform/Trim.h"

namespace {

int const kMaxComponent = 50;

}  // namespace

void Naming::MakeLower(std::string& text) {
    text = qor::Folded(std::move(text));
}

bool Naming::CompareNameSame(char const* a, char const* b) {
    if (a == nullptr || b == nullptr) {
        return false;
    }
    return strcasecmp(a, b) == 0;
}

bool Naming::GetFilter(char const* dn, int index, std::string& value, std::string& type) {
    if (dn == nullptr || index < 0 || index > kMaxComponent) {
        return false;
    }
    char const* start = dn;
    for (int i = 0; i < index; ++i) {
        char const* comma = std::strchr(start, ',');
        if (comma == nullptr) {
            // Fewer components than asked for: true, outputs untouched.
            return true;
        }
        start = comma + 1;
    }
    char const* end = std::strchr(start, ',');
    std::string component = end == nullptr ? std::string(start) : std::string(start, end);
    std::string::size_type eq = component.find(LDAP_E);
    if (eq == 0) {
        return false;
    }
    if (eq == std::string::npos) {
        type = component;
        value = component;
    } else {
        type = component.substr(0, eq);
        value = component.substr(eq + 1);
    }
    return true;
}

bool Naming::GetParentDN(char const* dn, std::string& parent) {
    if (dn == nullptr) {
        return false;
    }
    char const* comma = std::strchr(dn, ',');
    if (comma == dn) {
        return false;
    }
    // A DN of one component is its own parent.
    parent = comma == nullptr ? std::string(dn) : std::string(comma + 1);
    return true;
}

// The key matches the beginning of a line, not a whole type (key "o" also matches "ou=..."),
// and any line after the first wins over the first line. The value comes back in lower case.
bool Naming::ParseSubject(char const* subject, char const* key, std::string& value) {
    if (subject == nullptr || key == nullptr) {
        return false;
    }
    std::string text(subject);
    std::string wanted(key);
    MakeLower(text);
    MakeLower(wanted);
    std::string::size_type match = text.find("\n" + wanted);
    if (match == std::string::npos) {
        if (text.compare(0, wanted.size(), wanted) != 0) {
            return false;
        }
        match = 0;
    }
    std::string::size_type eq = text.find(LDAP_E, match);
    if (eq == std::string::npos) {
        value = text;
        return true;
    }
    std::string::size_type lf = text.find('\n', eq);
    value = lf == std::string::npos ? text.substr(eq + 1) : text.substr(eq + 1, lf - eq - 1);
    return true;
}

// Accepts a name whose first component's type is exactly "cn" when the last template names
// its entries by cn (in any letter case). With no template loaded there is no last template
// to measure against, and every name is refused.
bool Naming::GetCondition(char const* name, std::string& condition, int& kind) const {
    kind = 0;
    if (name == nullptr || name[0] == '\0' || templates_.Empty()) {
        return false;
    }
    char const* comma = std::strchr(name, ',');
    std::string first = comma == nullptr ? std::string(name) : std::string(name, comma);
    if (!FromCNToName(first.c_str(), LDAP_COMMONNAME, templates_[templates_.Count() - 1].namingAtt,
                      condition)) {
        return false;
    }
    kind = 1;
    return true;
}

bool Naming::FromCNToName(char const* component, char const* type, char const* namingAtt,
                          std::string& value) {
    if (component == nullptr || component[0] == '\0' || type == nullptr || namingAtt == nullptr) {
        return false;
    }
    char const* eq = std::strchr(component, '=');
    std::string found = eq == nullptr ? std::string(component) : std::string(component, eq);
    if (found != type) {
        return false;
    }
    value = eq == nullptr ? std::string(component) : std::string(eq + 1);
    return strcasecmp(found.c_str(), namingAtt) == 0;
}
