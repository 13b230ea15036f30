// Distinguished-name and certificate-subject text. Names are plain text: every comma separates
// (no escaping is recognised), the first "=" splits type from value, blanks are never trimmed.
#include "engine/Naming.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "engine/Constants.h"
#include "platform/NameText.h"
#include "platform/Trim.h"

namespace {

int const kMaxComponent = 50;

struct SubjectLine {
    std::string type;
    std::string::size_type start;  // where the line begins in the subject text
};

std::vector<SubjectLine> SplitLines(std::string const& subject) {
    std::vector<SubjectLine> lines;
    std::string::size_type start = 0;
    while (start <= subject.size()) {
        std::string::size_type const end = std::min(subject.find('\n', start), subject.size());
        std::string const line = subject.substr(start, end - start);
        lines.push_back({line.substr(0, line.find('=')), start});
        start = end + 1;
    }
    return lines;
}

// The line ParseSubject reads the key's value from: the first line after the first that
// starts with the key, else the first line when it does. Null when none does.
SubjectLine const* ChosenLine(std::vector<SubjectLine> const& lines, std::string const& key) {
    for (std::size_t i = 1; i < lines.size(); ++i) {
        if (strncasecmp(lines[i].type.c_str(), key.c_str(), key.size()) == 0 &&
            lines[i].type.size() >= key.size()) {
            return &lines[i];
        }
    }
    if (!lines.empty() && strncasecmp(lines[0].type.c_str(), key.c_str(), key.size()) == 0 &&
        lines[0].type.size() >= key.size()) {
        return &lines[0];
    }
    return nullptr;
}

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

// The path is composed from the subject's values without escaping, and the directory compares
// names after normalising them. So a subject is taken only when each level's value is one
// plain value of exactly that level's type:
// - the line a level's value comes from is of the naming attribute itself, not one that merely
//   begins like it ("ou=..." for "o"), and the subject names that attribute once only (two
//   "CN" values leave it to the order of encoding which one names the entry);
// - the value holds nothing that the directory would read as a separator or an escape, no
//   blanks it would drop or fold, no character it folds into another (NFKC), nothing
//   invisible. Any of these lets a subject that reads as one person's name another's entry.
// The lines themselves cannot be forged: a value holding a control character never becomes
// subject text (platform/Crypto.cpp).
bool Naming::CheckSubject(char const* subject, std::string* fault) const {
    if (subject == nullptr) {
        return false;
    }
    std::vector<SubjectLine> const lines = SplitLines(subject);
    for (int i = 0; i < templates_.Count(); ++i) {
        std::string const key = templates_[i].namingAtt;
        if (key.empty()) {
            continue;  // the path creation refuses such a template on its own
        }
        int named = 0;
        for (SubjectLine const& line : lines) {
            named += strcasecmp(line.type.c_str(), key.c_str()) == 0 ? 1 : 0;
        }
        SubjectLine const* chosen = ChosenLine(lines, key);
        if (chosen == nullptr) {
            continue;  // the level takes the placeholder value
        }
        if (named != 1 || strcasecmp(chosen->type.c_str(), key.c_str()) != 0) {
            if (fault != nullptr) {
                *fault = named > 1 ? "the subject names " + key + " more than once"
                                   : "the subject's " + chosen->type + " would name the " + key +
                                         " level";
            }
            return false;
        }
        std::string value;
        if (!ParseSubject(subject, key.c_str(), value)) {
            continue;
        }
        std::size_t at = 0;
        qor::NameFault const problem = qor::CheckNameValue(value, &at);
        if (problem != qor::NameFault::kNone) {
            if (fault != nullptr) {
                *fault = "subject attribute " + chosen->type + " holds " +
                         qor::DescribeNameFault(value, problem, at);
            }
            return false;
        }
    }
    return true;
}
