// Which settings the library reads. The library reads soap.ini and ldap.ini by itself (the
// free functions' engine when it is loaded, before main runs; each CLdap when it is built),
// from $QORLDAP_CONF_DIR or the current directory, and offers no call to set a timeout or to
// publish a certificate and its key in one request. So: --conf sets QORLDAP_CONF_DIR and
// starts this program again; and the library is given a copy of the files with the keys the
// tool insists on added (atomic_publish = yes, and a timeout when soap.ini sets none or
// --timeout asks for another), in a private folder that is removed when the program ends. The
// copy is read by a child run of this program; this process waits for it and then removes the
// folder. No copy is made when soap.ini already says all of it.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "cli.h"
#include "platform/IniFile.h"
#include "platform/Trim.h"

namespace qortool {

namespace {

// Set in the child run: "<private folder>\n<origin>\n<the user's folder>\n<what was added>",
// the last "timeout" when the copy adds the timeout, else empty.
char const kMarker[] = "QORLDAP_TOOL_SETTINGS";
int const kDefaultTimeout = 10;

Settings gSettings;
pid_t gChild = 0;

extern "C" void PassOn(int sig) {
    if (gChild > 0)
        ::kill(gChild, sig);
}

std::string Absolute(std::string const& dir) {
    char resolved[PATH_MAX];
    struct stat st;
    if (::realpath(dir.c_str(), resolved) == nullptr || ::stat(resolved, &st) != 0 ||
        !S_ISDIR(st.st_mode)) {
        return "";
    }
    return resolved;
}

bool ReadText(std::string const& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    text = all.str();
    return static_cast<bool>(in);
}

void WritePrivate(std::string const& path, std::string const& text) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    bool ok = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0 && ::close(fd) != 0)
        ok = false;
    if (!ok)
        Fail("config", "cannot write " + path + ": " + std::strerror(errno));
}

// soap.ini with lines ("key=value\n" each) first in section [ldap], where the library takes
// them over any later line of the same keys.
std::string WithKeys(std::string const& soap, std::string const& line) {
    std::istringstream in(soap);
    std::string out;
    std::string text;
    bool done = false;
    while (std::getline(in, text)) {
        out += text + "\n";
        std::string const t = qor::Trim(text);
        if (!done && t.size() > 2 && t.front() == '[' && t.back() == ']' &&
            qor::Folded(qor::Trim(t.substr(1, t.size() - 2))) == "ldap") {
            out += line;
            done = true;
        }
    }
    return done ? out : out + "[ldap]\n" + line;
}

int TimeoutOption(Args const& args) {
    std::string const text = args.Value("--timeout");
    char* end = nullptr;
    long n = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || n < 0 || n > 86400)
        Usage("--timeout", "takes whole seconds from 0 (none) to 86400, not \"" + text + "\"");
    return static_cast<int>(n);
}

// Runs this program again on the private copy, waits for it, removes the copy and ends as
// the child ended.
[[noreturn]] void RunOnCopy(std::string const& folder, char** argv) {
    std::fflush(nullptr);
    gChild = ::fork();
    if (gChild == 0) {
        ::execv("/proc/self/exe", argv);
        std::fprintf(stderr, "qorldap: cannot start again with the new settings: %s\n",
                     std::strerror(errno));
        ::_exit(kExitFailed);
    }
    int status = 0;
    if (gChild > 0) {
        // Ctrl-C reaches the child as well; the folder must still go when it has ended.
        ::signal(SIGINT, SIG_IGN);
        ::signal(SIGQUIT, SIG_IGN);
        ::signal(SIGTERM, PassOn);
        ::signal(SIGHUP, PassOn);
        while (::waitpid(gChild, &status, 0) < 0 && errno == EINTR) {
        }
    }
    int const err = errno;
    for (char const* file : {"/soap.ini", "/ldap.ini"})
        ::unlink((folder + file).c_str());
    ::rmdir(folder.c_str());
    if (gChild < 0) {
        std::fprintf(stderr, "qorldap: cannot start again with the new settings: %s\n",
                     std::strerror(err));
        std::exit(kExitFailed);
    }
    if (WIFSIGNALED(status)) {
        ::signal(WTERMSIG(status), SIG_DFL);
        ::raise(WTERMSIG(status));
    }
    std::exit(WIFEXITED(status) ? WEXITSTATUS(status) : kExitFailed);
}

}  // namespace

Settings const& CurrentSettings() {
    return gSettings;
}

void PrepareSettings(Args const& args, char** argv) {
    char const* marker = std::getenv(kMarker);
    char const* libraryDir = std::getenv("QORLDAP_CONF_DIR");
    if (marker != nullptr && libraryDir != nullptr) {
        std::istringstream in(marker);
        std::string copy;
        std::getline(in, copy);
        std::getline(in, gSettings.origin);
        std::getline(in, gSettings.folder);
        std::string added;
        std::getline(in, added);
        if (copy == libraryDir) {
            gSettings.copied = true;
            gSettings.timeoutAdded = added == "timeout";
            gSettings.timeoutFromOption = gSettings.timeoutAdded && args.HasValue("--timeout");
            gSettings.timeout = gSettings.timeoutFromOption ? TimeoutOption(args) : kDefaultTimeout;
            return;
        }
    }
    ::unsetenv(kMarker);
    if (args.HasValue("--conf")) {
        gSettings.folder = Absolute(args.Value("--conf"));
        if (gSettings.folder.empty())
            Usage("--conf", "no such directory: " + args.Value("--conf"));
        gSettings.origin = "option";
    } else if (libraryDir != nullptr && libraryDir[0] != '\0') {
        gSettings.folder = libraryDir;
        gSettings.origin = "environment";
    } else {
        char here[PATH_MAX];
        gSettings.folder = ::getcwd(here, sizeof here) != nullptr ? here : ".";
        gSettings.origin = "current";
    }
    std::string soap;
    bool const readable = ReadText(gSettings.folder + "/soap.ini", soap);
    IniFile const ini = IniFile::Load(gSettings.folder + "/soap.ini");
    std::string fileTimeout;
    bool const fileSets =
        ini.Get("ldap", "timeout", fileTimeout) && !qor::Trim(fileTimeout).empty();
    // Every publication writes a certificate and its protected key in one request, so that the
    // directory keeps both or neither: never a key beside a certificate it does not belong to.
    std::string fileAtomic;
    bool const fileAtomicYes = ini.Get("ldap", "atomic_publish", fileAtomic) &&
                               qor::Folded(qor::Trim(fileAtomic)) == "yes";
    bool const option = args.HasValue("--timeout");
    int const timeout = option ? TimeoutOption(args) : kDefaultTimeout;
    bool const addTimeout = option || !fileSets;
    if (readable && (addTimeout || !fileAtomicYes)) {
        char folder[PATH_MAX];
        char const* tmp = std::getenv("TMPDIR");
        std::snprintf(folder, sizeof folder, "%s/qorldap-settings.XXXXXX",
                      tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp");
        if (::mkdtemp(folder) == nullptr)  // mode 0700
            Fail("config", std::string("cannot make a private folder for the settings: ") +
                               std::strerror(errno));
        std::string ldap;
        std::string const lines = (addTimeout ? "timeout=" + std::to_string(timeout) + "\n" : "") +
                                  "atomic_publish=yes\n";
        WritePrivate(std::string(folder) + "/soap.ini", WithKeys(soap, lines));
        if (ReadText(gSettings.folder + "/ldap.ini", ldap))
            WritePrivate(std::string(folder) + "/ldap.ini", ldap);
        std::string const value = std::string(folder) + "\n" + gSettings.origin + "\n" +
                                  gSettings.folder + "\n" + (addTimeout ? "timeout" : "");
        if (::setenv("QORLDAP_CONF_DIR", folder, 1) != 0 ||
            ::setenv(kMarker, value.c_str(), 1) != 0)
            Fail("config", std::string("cannot set QORLDAP_CONF_DIR: ") + std::strerror(errno));
        RunOnCopy(folder, argv);
    }
    if (gSettings.origin == "option" && (libraryDir == nullptr || gSettings.folder != libraryDir)) {
        if (::setenv("QORLDAP_CONF_DIR", gSettings.folder.c_str(), 1) != 0)
            Fail("--conf", std::string("cannot set QORLDAP_CONF_DIR: ") + std::strerror(errno));
        std::fflush(nullptr);
        ::execv("/proc/self/exe", argv);
        Fail("--conf",
             std::string("cannot start again with the new settings: ") + std::strerror(errno));
    }
}

}  // namespace qortool
