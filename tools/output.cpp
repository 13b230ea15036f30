// Reading input files, and writing results to a file or standard output.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "cli.h"

namespace qortool {

namespace {

bool WriteAll(int fd, std::string const& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::string ReadFile(std::string const& what, std::string const& path, size_t limit) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        Fail(what, "cannot read " + path + ": " + std::strerror(errno));
    }
    std::string data;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            int err = errno;
            ::close(fd);
            Fail(what, "cannot read " + path + ": " + std::strerror(err));
        }
        if (n == 0)
            break;
        data.append(buffer, static_cast<size_t>(n));
        if (data.size() > limit) {
            ::close(fd);
            Fail(what, path + " is too large (more than " + std::to_string(limit) + " bytes)");
        }
    }
    ::close(fd);
    return data;
}

void RefuseBinaryOnTerminal(std::string const& what, std::string const& path, bool binary) {
    if (binary && (path.empty() || path == "-") && ::isatty(STDOUT_FILENO)) {
        Usage(what, "will not write binary DER to a terminal; use --pem or -o FILE");
    }
}

void WriteOutput(std::string const& what, std::string const& data, std::string const& path,
                 bool binary, bool privateFile) {
    RefuseBinaryOnTerminal(what, path, binary);
    if (path.empty() || path == "-") {
        if (!WriteAll(STDOUT_FILENO, data)) {
            Fail(what, std::string("cannot write to standard output: ") + std::strerror(errno));
        }
        return;
    }
    int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, privateFile ? 0600 : 0644);
    if (fd < 0) {
        Fail(what, "cannot write " + path + ": " + std::strerror(errno));
    }
    // A file that existed keeps its mode on open; a key must not stay readable by others.
    if (privateFile && ::fchmod(fd, 0600) != 0) {
        int err = errno;
        ::close(fd);
        Fail(what, "cannot restrict " + path + " to its owner: " + std::strerror(err));
    }
    bool ok = WriteAll(fd, data);
    int err = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        Fail(what, "cannot write " + path + ": " + std::strerror(err));
    }
}

}  // namespace qortool
