// Naming: distinguished names and certificate subjects taken apart, and a user's name turned
// into a search condition.
// Owns: nothing. The text operations are static and touch no state.
// Promises: names are read as plain text (every comma separates, the first "=" splits type from
// value, blanks are never trimmed); what each operation leaves in its outputs is said below.
// Needs: the template table, read only: the last template's naming attribute for conditions,
// every template's for subjects.
#ifndef QORLDAP_ENGINE_NAMING_H
#define QORLDAP_ENGINE_NAMING_H

#include <string>

#include "engine/TemplateTable.h"

class Naming {
  public:
    explicit Naming(TemplateTable const& templates) : templates_(templates) {}

    static void MakeLower(std::string& text);  // ASCII letters only
    // false for a null argument, else whether the texts are equal regardless of ASCII case.
    static bool CompareNameSame(char const* a, char const* b);
    // Type and value of component index of dn. true and both set; true with both untouched
    // when dn has fewer components; false (untouched) for null dn, index out of 0..50, or a
    // component starting with "=".
    static bool GetFilter(char const* dn, int index, std::string& value, std::string& type);
    // The DN after the first comma (a one-component DN is its own parent); false, parent
    // untouched, for null or a leading comma.
    static bool GetParentDN(char const* dn, std::string& parent);
    // The lower-cased value of the last subject line starting with key; false, value
    // untouched, when no line does or an argument is null.
    static bool ParseSubject(char const* subject, char const* key, std::string& value);
    // The value of component when its type is exactly type; true only when namingAtt is that
    // type regardless of case. value may be set also when the result is false.
    static bool FromCNToName(char const* component, char const* type, char const* namingAtt,
                             std::string& value);

    // Whether subject names each level of the path plainly; false, with fault (when not null)
    // saying why for people, when a value would name another entry.
    bool CheckSubject(char const* subject, std::string* fault = nullptr) const;
    // true with condition the common name and kind 1 for "cn=..." when the last template is
    // named by cn; false with kind 0 (condition untouched) otherwise or with no templates.
    bool GetCondition(char const* name, std::string& condition, int& kind) const;

  private:
    TemplateTable const& templates_;
};

#endif
