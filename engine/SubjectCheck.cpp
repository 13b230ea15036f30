// The check that a certificate subject names exactly the entry it spells, before anything is
// written for it (Naming::CheckSubject). Kept apart from the DN text helpers of Naming.cpp so
// that the refusal is found by its name.
#include <strings.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/Naming.h"
#include "platform/NameText.h"

namespace {

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
// subject text (platform/CertInfo.cpp).
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
