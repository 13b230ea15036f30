#include "platform/System.h"

#include "platform/CallerSettings.h"
#include "platform/IniFile.h"

#include <dlfcn.h>

#include <cstdlib>

namespace {

char const* const kConfDirEnv = "QORLDAP_CONF_DIR";

}  // namespace

void* CSystem::LoadLib(char const* file) {
    if (file == nullptr || file[0] == '\0') {
        return nullptr;
    }
    return dlopen(file, RTLD_NOW | RTLD_LOCAL);
}

void* CSystem::GetProcAddr(void* handle, char const* name) {
    if (handle == nullptr || name == nullptr) {
        return nullptr;
    }
    return dlsym(handle, name);
}

std::string CSystem::ResolveConfigPath(std::string const& file) {
    if (file.find('/') != std::string::npos) {
        return file;
    }
    // The folder a program named through the interface wins over the environment's.
    std::string path;
    if (!qor::CallerSetting("conf_dir", path)) {
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

bool CSystem::GetProfileStrValue(std::string const& section, std::string const& key,
                                 std::string const& file, std::string& value) {
    return IniFile::Load(file).Get(section, key, value);
}
