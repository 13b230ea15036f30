// qorldap: keys and certificates in an LDAP directory, from the command line. The settings the
// library reads are chosen before any command runs (session/settings.cpp).

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "qorldap/LastResult.h"
#include "tools/cli.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

char const kVersionText[] = "qorldap " QORLDAP_VERSION "\n";  // the CMake project version

void Overview(std::FILE* to) {
    std::fprintf(to,
                 "usage: qorldap [--conf DIR] [--timeout N] COMMAND [ARGS...]\n"
                 "\n"
                 "Keeps users' keys and certificates in an LDAP directory, through libqorldap.\n"
                 "\n"
                 "Commands:\n");
    for (Command const& c : Commands()) {
        std::fprintf(to, "  %-9s %s\n", c.name, c.summary);
    }
    std::fprintf(to,
                 "\n"
                 "Options (before or after the command):\n"
                 "  --conf DIR  read soap.ini and ldap.ini from DIR (default: $QORLDAP_CONF_DIR,\n"
                 "              else the current directory)\n"
                 "  --timeout N give up on a silent directory after N seconds (0: never);\n"
                 "              default: soap.ini's timeout, else 10 (see qorldap config --help)\n"
                 "  -h, --help  this text; \"qorldap COMMAND --help\" describes one command\n"
                 "  --version   the version\n"
                 "\n"
                 "Exit status: 0 done, 1 failed (one line on stderr says why), 2 usage error.\n");
}

Command const* Find(std::string const& name) {
    for (Command const& c : Commands()) {
        if (name == c.name)
            return &c;
    }
    return nullptr;
}

int Main(int argc, char** argv) {
    std::vector<std::string> const words(argv + 1, argv + argc);
    // Before the command only the global options; after it, those and the command's own.
    Args global;
    size_t at = ReadOptions("", GlobalOptions(), words, true, global);
    if (global.Has("--version")) {
        std::fputs(kVersionText, stdout);
        return kExitOk;
    }
    bool help = global.Has("--help");
    std::string commandName = at < words.size() ? words[at] : "";
    std::vector<std::string> rest;
    if (at < words.size())
        rest.assign(words.begin() + static_cast<long>(at) + 1, words.end());
    if (commandName == "help") {
        if (rest.empty()) {
            Overview(stdout);
            return kExitOk;
        }
        commandName = rest[0];
        rest.clear();
        help = true;
    }
    if (commandName.empty()) {
        Overview(help ? stdout : stderr);
        return help ? kExitOk : kExitUsage;
    }
    Command const* command = Find(commandName);
    if (command == nullptr)
        Usage("", "unknown command \"" + commandName + "\"");
    std::vector<Option> options = command->options;
    for (Option const& o : GlobalOptions()) {
        if (std::string(o.name) != "--version")
            options.push_back(o);
    }
    Args args;
    args.command = command->name;
    args.values = global.values;
    ReadOptions(args.command, options, rest, false, args);
    if (help || args.Has("--help")) {
        std::fputs(command->help, stdout);
        return kExitOk;
    }
    if (args.positional.size() < command->minPositional) {
        Usage(args.command, "missing argument");
    }
    if (args.positional.size() > command->maxPositional) {
        Usage(args.command, "too many arguments");
    }
    PrepareSettings(args, argv);
    return command->run(args);
}

}  // namespace

}  // namespace qortool

int main(int argc, char** argv) {
    using namespace qortool;
    int status;
    // Failures name the directory's own reason, which the library keeps only when asked.
    QorLdapKeepDiagnostics(1);
    try {
        status = Main(argc, argv);
    } catch (Stop const& stop) {
        std::fflush(stdout);
        std::fprintf(stderr, "qorldap: %s\n", stop.message.c_str());
        return stop.status;
    } catch (std::bad_alloc const&) {
        std::fprintf(stderr, "qorldap: out of memory\n");
        return kExitFailed;
    } catch (std::exception const& e) {
        std::fprintf(stderr, "qorldap: %s\n", e.what());
        return kExitFailed;
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "qorldap: cannot write to standard output: %s\n",
                     std::strerror(errno));
        return kExitFailed;
    }
    return status;
}
