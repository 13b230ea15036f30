// qorldap: keys and certificates in an LDAP directory, from the command line.
//
// The global option --conf DIR must hold before libqorldap reads its files. The engine of the
// free functions is built, and its files read, when the library is loaded, before main runs;
// so --conf sets QORLDAP_CONF_DIR and starts this program again, which then loads the library
// with the right files.
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "cli.h"
#include "qorldap/LastResult.h"

namespace qortool {

std::string Args::Value(std::string const& name, std::string const& fallback) const {
    auto it = values.find(name);
    return it == values.end() ? fallback : it->second;
}

std::vector<Command> const& Commands() {
    static std::vector<Command> const all = [] {
        std::vector<Command> list;
        for (auto part : {KeyCommands(), EntryCommands(), ConfigCommands()}) {
            list.insert(list.end(), part.begin(), part.end());
        }
        return list;
    }();
    return all;
}

namespace {

char const kVersion[] = "qorldap " QORLDAP_VERSION "\n";  // the CMake project version

void Overview(std::FILE* to) {
    std::fprintf(to,
                 "usage: qorldap [--conf DIR] COMMAND [ARGS...]\n"
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

// Points the library at dir and starts again when it is not pointed there yet.
void UseConfDir(std::string const& dir, char** argv) {
    char resolved[PATH_MAX];
    struct stat st;
    if (::realpath(dir.c_str(), resolved) == nullptr || ::stat(resolved, &st) != 0 ||
        !S_ISDIR(st.st_mode)) {
        Usage("--conf", "no such directory: " + dir);
    }
    char const* current = std::getenv("QORLDAP_CONF_DIR");
    if (current != nullptr && std::strcmp(current, resolved) == 0) {
        return;
    }
    if (::setenv("QORLDAP_CONF_DIR", resolved, 1) != 0) {
        Fail("--conf", std::string("cannot set QORLDAP_CONF_DIR: ") + std::strerror(errno));
    }
    std::fflush(nullptr);
    ::execv("/proc/self/exe", argv);
    Fail("--conf",
         std::string("cannot start again with the new settings: ") + std::strerror(errno));
}

Args Parse(Command const& command, std::vector<std::string> const& words, bool& help) {
    Args args;
    args.command = command.name;
    help = false;
    bool options = true;
    for (size_t i = 0; i < words.size(); ++i) {
        std::string const& word = words[i];
        if (!options || word.empty() || word[0] != '-' || word == "-") {
            args.positional.push_back(word);
            continue;
        }
        if (word == "--") {
            options = false;
            continue;
        }
        if (word == "--help" || word == "-h") {
            help = true;
            continue;
        }
        std::string name = word;
        std::string value;
        bool inlineValue = false;
        size_t eq = word.find('=');
        if (word.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = word.substr(0, eq);
            value = word.substr(eq + 1);
            inlineValue = true;
        }
        Option const* found = nullptr;
        for (Option const& o : command.options) {
            if (name == o.name || (o.alias != nullptr && name == o.alias))
                found = &o;
        }
        if (found == nullptr)
            Usage(args.command, "unknown option " + name);
        if (!found->takesValue) {
            if (inlineValue)
                Usage(args.command, std::string(found->name) + " takes no value");
            args.flags.insert(found->name);
            continue;
        }
        if (!inlineValue) {
            if (i + 1 >= words.size()) {
                Usage(args.command, std::string(found->name) + " needs a value");
            }
            value = words[++i];
        }
        args.values[found->name] = value;
    }
    return args;
}

int Main(int argc, char** argv) {
    std::string conf;
    bool confGiven = false;
    bool help = false;
    std::string commandName;
    std::vector<std::string> rest;
    bool options = true;
    for (int i = 1; i < argc; ++i) {
        std::string const word = argv[i];
        if (options && word == "--conf") {
            if (i + 1 >= argc)
                Usage("--conf", "needs a directory");
            conf = argv[++i];
            confGiven = true;
            continue;
        }
        if (options && word.compare(0, 7, "--conf=") == 0) {
            conf = word.substr(7);
            confGiven = true;
            continue;
        }
        if (commandName.empty()) {
            if (options && (word == "--help" || word == "-h")) {
                help = true;
                continue;
            }
            if (options && word == "--version") {
                std::fputs(kVersion, stdout);
                return kExitOk;
            }
            if (options && word == "--") {
                options = false;
                continue;
            }
            if (options && word.size() > 1 && word[0] == '-') {
                Usage("", "unknown option " + word + " before the command");
            }
            commandName = word;
            continue;
        }
        if (word == "--")
            options = false;
        rest.push_back(word);
    }
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
    bool commandHelp = false;
    Args args = Parse(*command, rest, commandHelp);
    if (help || commandHelp) {
        std::fputs(command->help, stdout);
        return kExitOk;
    }
    if (args.positional.size() < command->minPositional) {
        Usage(args.command, "missing argument");
    }
    if (args.positional.size() > command->maxPositional) {
        Usage(args.command, "too many arguments");
    }
    if (confGiven) {
        gConfFromOption = true;
        UseConfDir(conf, argv);
    }
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
