// Dynamic loading and INI reading.
#ifndef QORLDAP_PLATFORM_SYSTEM_H
#define QORLDAP_PLATFORM_SYSTEM_H

#include <string>

class CSystem {
  public:
    // Loads a shared library by file name; null when it cannot be loaded.
    static void* LoadLib(char const* file);
    // The address of an exported function; null when there is none (or handle is null).
    static void* GetProcAddr(void* handle, char const* name);

    // Reads key from section of an INI file. true, with value set, when found.
    //
    // The rules, the same for "soap.ini" and "ldap.ini":
    // - A bare file name (no '/') is looked for in the folder named by the environment variable
    //   QORLDAP_CONF_DIR when it is set and not empty, otherwise in the current directory.
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
    static bool GetProfileStrValue(std::string const& section, std::string const& key,
                                   std::string const& file, std::string& value);

    // Where a bare file name is looked for (see above).
    static std::string ResolveConfigPath(std::string const& file);
};

#endif
