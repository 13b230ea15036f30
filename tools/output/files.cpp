// Reading input files, and writing results to a file or standard output.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "tools/cli.h"
#include "tools/output/output.h"

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

// Reads what fd holds, up to limit bytes, and closes it.
std::string ReadOpened(std::string const& what, std::string const& path, int fd, size_t limit) {
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

// Why path cannot be opened or looked at, errno err.
[[noreturn]] void FailOpen(std::string const& what, std::string const& path, int err) {
    if (err == ELOOP)
        Fail(what, path + ": symlink loop");
    if (err == EACCES || err == EPERM)
        Fail(what, path + ": unreadable (" + std::strerror(err) + ")");
    Fail(what, "cannot read " + path + ": " + std::strerror(err));
}

char const* FileKind(mode_t mode) {
    if (S_ISDIR(mode))
        return "a folder";
    if (S_ISFIFO(mode))
        return "a FIFO";
    if (S_ISSOCK(mode))
        return "a socket";
    if (S_ISCHR(mode))
        return "a character device";
    if (S_ISBLK(mode))
        return "a block device";
    return "a special file";
}

}  // namespace

std::string ReadFile(std::string const& what, std::string const& path, size_t limit) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        Fail(what, "cannot read " + path + ": " + std::strerror(errno));
    }
    return ReadOpened(what, path, fd, limit);
}

std::string ReadRegularFile(std::string const& what, std::string const& path, size_t limit) {
    // Looked at before it is opened: opening a FIFO waits for a writer, and opening a device
    // may do something. O_NONBLOCK keeps a FIFO put in its place meanwhile from blocking the
    // open, and the second look refuses it.
    struct stat before;
    if (::stat(path.c_str(), &before) != 0)
        FailOpen(what, path, errno);
    if (!S_ISREG(before.st_mode))
        Fail(what, path + ": not a regular file (" + FileKind(before.st_mode) + ")");
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        FailOpen(what, path, errno);
    struct stat after;
    if (::fstat(fd, &after) != 0 || !S_ISREG(after.st_mode) || after.st_dev != before.st_dev ||
        after.st_ino != before.st_ino) {
        ::close(fd);
        Fail(what, path + ": not a regular file (it changed while it was opened)");
    }
    return ReadOpened(what, path, fd, limit);
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
    // A key is never written through a symbolic link: one planted in a folder others may write
    // to would have it written over a file of the caller's own choosing by another user.
    int fd = ::open(path.c_str(),
                    O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | (privateFile ? O_NOFOLLOW : 0),
                    privateFile ? 0600 : 0644);
    if (fd < 0 && privateFile && errno == ELOOP) {
        Fail(what,
             "cannot write " + path + ": a symbolic link (a key goes into a file of its own)");
    }
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
