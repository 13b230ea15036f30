#include "platform/System.h"

#include "platform/ConfigPath.h"
#include "platform/IniFile.h"

#include <dlfcn.h>

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
    return qor::ResolveConfigPath(file);
}

bool CSystem::GetProfileStrValue(std::string const& section, std::string const& key,
                                 std::string const& file, std::string& value) {
    return IniFile::Load(file).Get(section, key, value);
}
