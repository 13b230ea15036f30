// The run-time loader: a shared library opened by its file name, and its functions found by name
// (dlopen and dlsym). The binding loads the directory client library through it.
//
// Why a file of its own beside CSystem: the platform interface documents the loader as
// CSystem::LoadLib and CSystem::GetProcAddr (platform/System.h), and callers keep those names;
// they pass straight on to the two functions here. Whoever looks for dlopen lands here, whoever
// looks for CSystem lands in System.h, which names this file.
//
// Contract: a library is opened with every symbol resolved at once (a missing one fails the load,
// not some later call) and kept local, so its symbols never stand in for the application's.
// Nothing here closes a library: the binding keeps its own for the life of the process.
#ifndef QORLDAP_PLATFORM_DYNAMICLIBRARY_H
#define QORLDAP_PLATFORM_DYNAMICLIBRARY_H

namespace qor {

// Opens a shared library by file name (searched for as dlopen searches); null when file is null
// or empty, or the library cannot be loaded.
void* OpenLibrary(char const* file);

// The address of a function library exports; null when there is none, or library or name is
// null.
void* LibraryFunction(void* library, char const* name);

}  // namespace qor

#endif
