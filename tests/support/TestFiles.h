// Small helpers for tests: a scratch folder, files written into it, commands run.
#ifndef QORLDAP_TESTS_TESTFILES_H
#define QORLDAP_TESTS_TESTFILES_H

#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

namespace qortest {

// Runs a shell command; returns its standard output, exit status in *status.
inline std::string Run(std::string const& cmd, int* status = nullptr) {
    std::string out;
    FILE* pipe = popen(cmd.c_str(), "r");
    char buf[4096];
    for (size_t n; pipe != nullptr && (n = fread(buf, 1, sizeof buf, pipe)) > 0;)
        out.append(buf, n);
    int rc = pipe != nullptr ? pclose(pipe) : -1;
    if (status)
        *status = rc != -1 && WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

inline std::string ReadFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class ScratchDir {
  public:
    // An empty path when none was made: rm -rf '' removes nothing.
    ScratchDir() { path_ = mkdtemp(&path_[0]) != nullptr ? path_ : ""; }
    ~ScratchDir() { Run("rm -rf '" + path_ + "'"); }
    ScratchDir(ScratchDir const&) = delete;
    ScratchDir& operator=(ScratchDir const&) = delete;

    std::string const& Path() const { return path_; }
    std::string File(std::string const& name) const { return path_ + "/" + name; }
    std::string Write(std::string const& name, std::string const& text) const {
        std::ofstream(File(name), std::ios::binary) << text;
        return File(name);
    }

  private:
    std::string path_ = "/tmp/qorldap-test-XXXXXX";
};

// Points the INI reader at a folder for the life of the object.
struct ConfDir {
    char const* const was = getenv("QORLDAP_CONF_DIR");
    std::string const old = was != nullptr ? was : "";
    explicit ConfDir(std::string const& dir) { setenv("QORLDAP_CONF_DIR", dir.c_str(), 1); }
    ~ConfDir() { was ? setenv("QORLDAP_CONF_DIR", old.c_str(), 1) : unsetenv("QORLDAP_CONF_DIR"); }
};

}  // namespace qortest

#endif
