// The run-time loader; see platform/DynamicLibrary.h.
#include "platform/DynamicLibrary.h"

#include <dlfcn.h>

namespace qor {

void* OpenLibrary(char const* file) {
    if (file == nullptr || file[0] == '\0') {
        return nullptr;
    }
    return dlopen(file, RTLD_NOW | RTLD_LOCAL);
}

void* LibraryFunction(void* library, char const* name) {
    if (library == nullptr || name == nullptr) {
        return nullptr;
    }
    return dlsym(library, name);
}

}  // namespace qor
