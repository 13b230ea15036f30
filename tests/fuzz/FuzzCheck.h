// Shared by the fuzz targets, with the standard headers they all use: an invariant check, a
// sentinel for outputs that must stay untouched, buffers with guard bytes, a scratch folder.
#ifndef QORLDAP_TESTS_FUZZ_FUZZCHECK_H
#define QORLDAP_TESTS_FUZZ_FUZZCHECK_H

#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace qorfuzz {

// A broken invariant aborts, so libFuzzer records the input as a crash artifact.
[[noreturn]] inline void Fail(char const* file, int line, char const* what) {
    std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, what);
    std::abort();
}
#define FUZZ_CHECK(cond) ((cond) ? (void)0 : qorfuzz::Fail(__FILE__, __LINE__, #cond))

// A refusal must leave this in place. It holds a NUL, so no text taken from a C string equals it.
inline std::string const kUntouched = std::string(1, '\0') + "<untouched>";
constexpr unsigned char kFill = 0xa5;

// size usable bytes then 16 guard bytes, all kFill: a write past size changes a guard.
struct Guarded {
    explicit Guarded(size_t n) : bytes(n + 16, kFill), size(n) {}
    unsigned char* Data() { return bytes.data(); }
    bool GuardIntact() const {
        return std::all_of(bytes.begin() + size, bytes.end(), [](int b) { return b == kFill; });
    }
    std::vector<unsigned char> bytes;
    size_t size;
};

// Writes a file in a folder of this process's own under TMPDIR (or /tmp), which
// QORLDAP_CONF_DIR then names, and which is removed at exit; returns the file's path.
inline std::string WriteScratch(char const* name, void const* data, size_t size) {
    static std::string const dir = [] {
        char const* base = getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/qorldap-fuzz-XXXXXX";
        FUZZ_CHECK(mkdtemp(&pattern[0]) != nullptr);
        setenv("QORLDAP_CONF_DIR", pattern.c_str(), 1);
        return pattern;
    }();
    [[maybe_unused]] static int const removed =
        std::atexit([] { std::filesystem::remove_all(dir); });
    std::string const path = dir + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr && (size == 0 || std::fwrite(data, 1, size, f) == size));
    FUZZ_CHECK(std::fclose(f) == 0);
    return path;
}

}  // namespace qorfuzz

#endif
