// Passwords: from a file named by an option, from the environment, or typed at the terminal
// without echo. Never from the command line itself, where every user of the machine sees it.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "tools/checks/checks.h"
#include "tools/output/output.h"

namespace qortool {

namespace {

// What a signal during a prompt restores before the signal takes its usual course.
int gTtyFd = -1;
termios gSaved;

extern "C" void RestoreAndRaise(int sig) {
    if (gTtyFd >= 0) {
        ::tcsetattr(gTtyFd, TCSANOW, &gSaved);
        ssize_t n = ::write(gTtyFd, "\n", 1);
        (void)n;
    }
    ::signal(sig, SIG_DFL);
    ::raise(sig);
}

int const kSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP};

// The controlling terminal, opened for one password; echo off while it is read.
class Terminal {
  public:
    Terminal() : fd_(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)) {}
    ~Terminal() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Terminal(Terminal const&) = delete;
    Terminal& operator=(Terminal const&) = delete;

    bool Open() const { return fd_ >= 0; }

    // false on end of input or a read error.
    bool Ask(std::string const& prompt, std::string& answer) {
        termios saved;
        bool quiet = ::tcgetattr(fd_, &saved) == 0;
        struct sigaction previous[sizeof kSignals / sizeof kSignals[0]];
        if (quiet) {
            // Ctrl-C while echo is off must not leave the terminal silent.
            gSaved = saved;
            gTtyFd = fd_;
            struct sigaction action;
            std::memset(&action, 0, sizeof action);
            action.sa_handler = RestoreAndRaise;
            sigemptyset(&action.sa_mask);
            for (size_t i = 0; i < sizeof kSignals / sizeof kSignals[0]; ++i) {
                ::sigaction(kSignals[i], &action, &previous[i]);
            }
            termios silent = saved;
            silent.c_lflag &= static_cast<tcflag_t>(~(ECHO | ECHOE | ECHOK | ECHONL));
            // Echo goes off before the prompt shows, and what was typed ahead is kept.
            ::tcsetattr(fd_, TCSANOW, &silent);
        }
        Say(prompt);
        answer.clear();
        bool ok = false;
        for (;;) {
            char c;
            ssize_t n = ::read(fd_, &c, 1);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            if (c == '\n' || c == '\r') {
                ok = true;
                break;
            }
            answer += c;
        }
        if (quiet) {
            ::tcsetattr(fd_, TCSANOW, &saved);
            for (size_t i = 0; i < sizeof kSignals / sizeof kSignals[0]; ++i) {
                ::sigaction(kSignals[i], &previous[i], nullptr);
            }
            gTtyFd = -1;
        }
        Say("\n");
        return ok;
    }

  private:
    void Say(std::string const& text) {
        ssize_t n = ::write(fd_, text.data(), text.size());
        (void)n;
    }

    int fd_;
};

std::string FirstLine(std::string const& text) {
    std::string line = text.substr(0, text.find('\n'));
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

}  // namespace

std::string GetPassword(Args const& args, PasswordSource const& source) {
    std::string password;
    std::string origin;
    if (args.HasValue(source.fileOption)) {
        std::string const path = args.Value(source.fileOption);
        password = FirstLine(ReadFile(args.command, path, 64 * 1024));
        origin = path;
    } else if (char const* env = std::getenv(source.envName.c_str())) {
        password = env;
        origin = source.envName;
    } else {
        Terminal tty;
        if (!tty.Open()) {
            Usage(args.command, "no terminal to ask for the password; set " + source.envName +
                                    " or use " + source.fileOption + " FILE");
        }
        if (!tty.Ask(source.prompt, password)) {
            Fail(args.command, "no password was typed");
        }
        if (source.confirm) {
            std::string again;
            if (!tty.Ask("Type it again: ", again) || again != password) {
                Fail(args.command, "the two passwords differ");
            }
        }
        origin = "the prompt";
    }
    if (password.empty() && !source.mayBeEmpty) {
        Usage(args.command, "the password from " + origin + " is empty");
    }
    return password;
}

}  // namespace qortool
