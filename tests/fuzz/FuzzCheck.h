// Shared by the fuzz targets: an invariant check that stops the run as a crash, and a scratch
// folder for targets that read files.
#ifndef QORLDAP_TESTS_FUZZ_FUZZCHECK_H
#define QORLDAP_TESTS_FUZZ_FUZZCHECK_H

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>

// A broken invariant aborts, so libFuzzer records the input as a crash artifact.
#define FUZZ_CHECK(cond)                                                                      \
    do {                                                                                      \
        if (!(cond)) {                                                                        \
            std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                     \
        }                                                                                     \
    } while (0)

namespace qorfuzz {

// One folder per process, made on first use under TMPDIR (or /tmp) and removed at exit.
inline std::string const& ScratchDir() {
    static std::string const dir = [] {
        char const* base = getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") +
                              "/qorldap-fuzz-XXXXXX";
        char* made = mkdtemp(&pattern[0]);
        if (made == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        return std::string(made);
    }();
    return dir;
}

// Writes bytes to a file in the scratch folder and returns the file's path.
inline std::string WriteScratch(char const* name, void const* data, size_t size) {
    std::string path = ScratchDir() + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(size == 0 || std::fwrite(data, 1, size, f) == size);
    FUZZ_CHECK(std::fclose(f) == 0);
    return path;
}

// Removes the named files and the scratch folder; registered with atexit by the targets.
inline void RemoveScratch(char const* const* names, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        unlink((ScratchDir() + "/" + names[i]).c_str());
    }
    rmdir(ScratchDir().c_str());
}

}  // namespace qorfuzz

#endif
