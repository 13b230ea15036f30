#include "platform/System.h"

#include <dlfcn.h>

#include <cstdlib>
#include <fstream>

namespace {

char const* const kConfDirEnv = "QORLDAP_CONF_DIR";

std::string Trim(std::string const& text) {
    std::string::size_type first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return std::string();
    }
    std::string::size_type last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

bool SameName(std::string const& a, std::string const& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::string::size_type i = 0; i < a.size(); ++i) {
        char x = a[i];
        char y = b[i];
        if (x >= 'A' && x <= 'Z')
            x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z')
            y = static_cast<char>(y - 'A' + 'a');
        if (x != y) {
            return false;
        }
    }
    return true;
}

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
    if (file.empty()) {
        return false;
    }
    std::ifstream in(ResolveConfigPath(file));
    if (!in) {
        return false;
    }
    std::string const wantedSection = Trim(section);
    std::string const wantedKey = Trim(key);
    bool inSection = false;
    std::string line;
    while (std::getline(in, line)) {
        std::string text = Trim(line);
        if (text.empty() || text[0] == ';' || text[0] == '#') {
            continue;
        }
        if (text[0] == '[') {
            std::string::size_type close = text.find(']');
            inSection = close != std::string::npos &&
                        SameName(Trim(text.substr(1, close - 1)), wantedSection);
            continue;
        }
        if (!inSection) {
            continue;
        }
        std::string::size_type eq = text.find('=');
        if (eq == std::string::npos || !SameName(Trim(text.substr(0, eq)), wantedKey)) {
            continue;
        }
        value = Trim(text.substr(eq + 1));
        return true;
    }
    return false;
}
