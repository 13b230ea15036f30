// Settings a program gives the library through its interface, process-wide, in place of the
// configuration files' own values: "conf_dir" (the folder soap.ini and ldap.ini are read from)
// and the keys of soap.ini's [ldap] section.
#ifndef QORLDAP_PLATFORM_CALLERSETTINGS_H
#define QORLDAP_PLATFORM_CALLERSETTINGS_H

#include <string>
#include <utility>
#include <vector>

class IniFile;

namespace qor {

// Sets key (folded to lower case) to value, or forgets it when value is null.
void SetCallerSetting(std::string const& key, char const* value);
// true, with value set, when the program has set key.
bool CallerSetting(std::string const& key, std::string& value);
// Every key the program has set but conf_dir, each written into section of ini over what the
// file said.
void OverlayCallerSettings(IniFile& ini, std::string const& section);

}  // namespace qor

#endif
