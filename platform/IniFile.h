// An INI file read once into memory, so that looking up many keys costs one read of the file.
//
// The rules, the same for "soap.ini" and "ldap.ini":
// - A bare file name (no '/') is looked for as platform/ConfigPath.h says.
// - Section and key names match without regard to ASCII letter case.
// - Blanks (space, tab) around section names, keys and values are removed; a trailing CR is
//   removed too, so files written on Windows read the same.
// - Lines whose first non-blank character is ';' or '#' are comments. There are no inline
//   comments: ';', '#', '=' and blanks inside a value are part of it (passwords hold them).
// - The key is the text before the first '='; a line without '=' is ignored.
// - A key present with an empty value counts as found, with an empty value.
// - When a key appears twice in a section, the first one counts.
// - Lines may be of any length.
// - A missing or unreadable file is "not found".
#ifndef QORLDAP_PLATFORM_INIFILE_H
#define QORLDAP_PLATFORM_INIFILE_H

#include <string>
#include <unordered_map>

class IniFile {
  public:
    // Reads file by the rules above. A missing or unreadable file gives an object in which no
    // key is found.
    static IniFile Load(std::string const& file);

    // true, with value set, when key is found in section; value is untouched otherwise.
    bool Get(std::string const& section, std::string const& key, std::string& value) const;
    // Puts value under key in section, over what the file said.
    void Set(std::string const& section, std::string const& key, std::string const& value);

  private:
    // Section and key names folded to lower case; the first value of a key counts.
    std::unordered_map<std::string, std::unordered_map<std::string, std::string>> sections_;
};

#endif
