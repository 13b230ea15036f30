// Where the configuration files (soap.ini, ldap.ini) are looked for. Both the INI reader and the
// documented CSystem::ResolveConfigPath come here, so the rule lives in one place.
//
// Contract: a name holding a '/' is taken as it is. A bare file name is looked for in the folder
// a program named through the interface (the caller setting "conf_dir", platform/CallerSettings.h),
// else in the folder named by the environment variable QORLDAP_CONF_DIR when it is set and not
// empty, else in the current directory. The path is only composed: nothing is read or checked.
#ifndef QORLDAP_PLATFORM_CONFIGPATH_H
#define QORLDAP_PLATFORM_CONFIGPATH_H

#include <string>

namespace qor {

// The path file is read from, by the rule above.
std::string ResolveConfigPath(std::string const& file);

}  // namespace qor

#endif
