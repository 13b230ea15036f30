// Where a configuration file is looked for; see platform/ConfigPath.h.
#include "platform/ConfigPath.h"

#include <cstdlib>

#include "platform/CallerSettings.h"

namespace qor {

namespace {

char const* const kConfDirEnv = "QORLDAP_CONF_DIR";

}  // namespace

std::string ResolveConfigPath(std::string const& file) {
    if (file.find('/') != std::string::npos) {
        return file;
    }
    // The folder a program named through the interface wins over the environment's.
    std::string path;
    if (!CallerSetting("conf_dir", path)) {
        char const* dir = std::getenv(kConfDirEnv);
        path = dir != nullptr ? dir : "";
    }
    if (path.empty()) {
        return file;
    }
    if (path.back() != '/') {
        path += '/';
    }
    return path + file;
}

}  // namespace qor
