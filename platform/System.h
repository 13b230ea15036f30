// CSystem: the platform's calls under the names the platform interface documents. Each passes
// straight on to the file that does the job, which is where to read (and change) it:
//   LoadLib, GetProcAddr   platform/DynamicLibrary.h  (dlopen, dlsym)
//   GetProfileStrValue     platform/IniFile.h         (the INI reading rules)
//   ResolveConfigPath      platform/ConfigPath.h      (where soap.ini and ldap.ini are looked for)
// Nothing below depends on this file, so it can include them all without a cycle.
#ifndef QORLDAP_PLATFORM_SYSTEM_H
#define QORLDAP_PLATFORM_SYSTEM_H

#include <string>

class CSystem {
  public:
    // Loads a shared library by file name; null when it cannot be loaded.
    static void* LoadLib(char const* file);
    // The address of an exported function; null when there is none (or handle is null).
    static void* GetProcAddr(void* handle, char const* name);

    // Reads key from section of an INI file (platform/IniFile.h gives the rules, the same for
    // "soap.ini" and "ldap.ini"). true, with value set, when found; value is untouched otherwise.
    static bool GetProfileStrValue(std::string const& section, std::string const& key,
                                   std::string const& file, std::string& value);

    // Where a bare file name is looked for (platform/ConfigPath.h gives the rule).
    static std::string ResolveConfigPath(std::string const& file);
};

#endif
