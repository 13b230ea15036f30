// Small helpers for tests: a scratch folder, files written into it, commands run.
#ifndef QORLDAP_TESTS_TESTFILES_H
#define QORLDAP_TESTS_TESTFILES_H

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

namespace qortest {

class ScratchDir {
  public:
    ScratchDir() {
        char pattern[] = "/tmp/qorldap-test-XXXXXX";
        char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "/tmp";
    }
    ~ScratchDir() {
        std::string cmd = "rm -rf '" + path_ + "'";
        int rc = std::system(cmd.c_str());
        (void)rc;
    }
    ScratchDir(ScratchDir const&) = delete;
    ScratchDir& operator=(ScratchDir const&) = delete;

    std::string const& Path() const { return path_; }
    std::string File(std::string const& name) const { return path_ + "/" + name; }
    std::string Write(std::string const& name, std::string const& text) const {
        std::ofstream out(File(name), std::ios::binary);
        out << text;
        return File(name);
    }

  private:
    std::string path_;
};

// Points the INI reader at a folder for the life of the object.
class ConfDir {
  public:
    explicit ConfDir(std::string const& dir) {
        char const* old = getenv("QORLDAP_CONF_DIR");
        had_ = old != nullptr;
        if (had_)
            old_ = old;
        setenv("QORLDAP_CONF_DIR", dir.c_str(), 1);
    }
    ~ConfDir() {
        if (had_) {
            setenv("QORLDAP_CONF_DIR", old_.c_str(), 1);
        } else {
            unsetenv("QORLDAP_CONF_DIR");
        }
    }

  private:
    bool had_ = false;
    std::string old_;
};

// Runs a shell command; returns its standard output, exit status in *status.
inline std::string Run(std::string const& cmd, int* status = nullptr) {
    std::string out;
    FILE* pipe = popen(cmd.c_str(), "r");
    if (pipe == nullptr) {
        if (status)
            *status = -1;
        return out;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) {
        out.append(buf, n);
    }
    int rc = pclose(pipe);
    if (status)
        *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

inline std::string ReadFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace qortest

#endif
