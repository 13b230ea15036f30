// CSystem's documented names, each passed on to the file that does the job; see platform/System.h.
#include "platform/System.h"

#include "platform/ConfigPath.h"
#include "platform/DynamicLibrary.h"
#include "platform/IniFile.h"

void* CSystem::LoadLib(char const* file) {
    return qor::OpenLibrary(file);
}

void* CSystem::GetProcAddr(void* handle, char const* name) {
    return qor::LibraryFunction(handle, name);
}

bool CSystem::GetProfileStrValue(std::string const& section, std::string const& key,
                                 std::string const& file, std::string& value) {
    return IniFile::Load(file).Get(section, key, value);
}

std::string CSystem::ResolveConfigPath(std::string const& file) {
    return qor::ResolveConfigPath(file);
}
