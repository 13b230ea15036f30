#include "platform/System.h"

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
    char const* dir = std::getenv(kConfDirEnv);
    if (dir == nullptr || dir[0] == '\0') {
        return file;
    }
    std::string path(dir);
    if (path.back() != '/') {
        path += '/';
    }
    return path + file;
}

bool CSystem::GetProfileStrValue(std::string const& section, std::string const& key,
                                 std::string const& file, std::string& value) {
    return IniFile::Load(file).Get(section, key, value);
}
