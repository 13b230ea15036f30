// TemplateTable: the entry templates of "ldap.ini", one per level of the tree from the top down;
// the last one is the level of the entries that hold keys.
// Owns: the table (array new) and its count.
// Promises: Load replaces the table whole, or leaves it as it was when the file cannot be used
// at all (no count, a count below 1 or over 1000), or empty once a template in it is broken.
// A template's items are null and its itemCount 0; namingAtt is its last naming definition.
// Needs: the INI reader (platform/IniFile.h); nothing else of the engine.
#ifndef QORLDAP_ENGINE_TEMPLATETABLE_H
#define QORLDAP_ENGINE_TEMPLATETABLE_H

#include <string>

#include "qorldap/records.h"

class IniFile;

class TemplateTable {
  public:
    TemplateTable() = default;
    ~TemplateTable();
    TemplateTable(TemplateTable const&) = delete;
    TemplateTable& operator=(TemplateTable const&) = delete;

    // Reads "ldap.ini"; see above. true with the table replaced.
    bool Load();
    // One template's definitions from section of file: true with tmpl.namingAtt set from the
    // last naming definition; false for a broken template (tmpl.namingAtt may then hold an
    // earlier naming attribute).
    static bool ReadEachConfig(std::string const& section, std::string const& file, tagAtt& tmpl);
    // Splits "name,code,role"; false, outputs untouched, for text that does not split.
    static bool SeparateData(std::string const& text, std::string& name, std::string& code,
                             int& role);
    // Copies the template whose object class is name into out; out untouched when none is.
    void Find(char const* name, tagAtt& out) const;

    int Count() const { return count_; }
    tagAtt const* Data() const { return table_; }
    tagAtt const& operator[](int i) const { return table_[i]; }
    // true when there is no template (and so no last one to measure names against).
    bool Empty() const { return count_ < 1 || table_ == nullptr; }

  private:
    // One template's definitions from a schema file already read; see ReadEachConfig.
    static bool ReadTemplate(IniFile const& file, std::string const& section, tagAtt& tmpl);

    tagAtt* table_ = nullptr;
    int count_ = 0;
};

#endif
