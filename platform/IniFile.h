// An INI file read once into memory, so that looking up many keys costs one read of the file.
#ifndef QORLDAP_PLATFORM_INIFILE_H
#define QORLDAP_PLATFORM_INIFILE_H

#include <string>
#include <unordered_map>

class IniFile {
  public:
    // Reads file (a bare name is looked for as CSystem::ResolveConfigPath says). A missing or
    // unreadable file gives an object in which no key is found.
    static IniFile Load(std::string const& file);

    // true, with value set, when key is found in section; value is untouched otherwise.
    // The reading rules are those of CSystem::GetProfileStrValue.
    bool Get(std::string const& section, std::string const& key, std::string& value) const;
    // Puts value under key in section, over what the file said.
    void Set(std::string const& section, std::string const& key, std::string const& value);

  private:
    // Section and key names folded to lower case; the first value of a key counts.
    std::unordered_map<std::string, std::unordered_map<std::string, std::string>> sections_;
};

#endif
