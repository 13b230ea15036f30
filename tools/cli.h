// qorldap, the command-line tool over libqorldap: what every part of it shares (the command
// line, the failure messages). The parts, each a folder with a header of its own:
//   commands/  one file per command (or family of commands) and the table of them all
//   checks/    what the tool refuses before the library sees it: DNs, PEM and DER,
//              passwords, the options of the command line
//   output/    files read and written, LDIF, JSON, descriptions of keys, progress
//   session/   the settings handed to the library, connecting, result codes and their hints
#ifndef QORLDAP_TOOLS_CLI_H
#define QORLDAP_TOOLS_CLI_H

#include <map>
#include <set>
#include <string>
#include <vector>

namespace qortool {

// Exit statuses.
int const kExitOk = 0;
int const kExitFailed = 1;
int const kExitUsage = 2;
// The status of a report command (expiring, verify) that could not make its report: bad input,
// a usage error, no directory. Its statuses 1 and 2 say what it found, so a usage error there
// must not look like a finding.
int const kExitNoReport = 3;

// Thrown to end a command; main prints the one line "qorldap: <message>" on stderr.
struct Stop {
    int status;
    std::string message;
};

// The failures (session/codes.cpp).

// "qorldap: <what>: <text>", exit 1.
[[noreturn]] void Fail(std::string const& what, std::string const& text);
// "qorldap: <what>: <code> <meaning>", exit 1; meaning defaults to the code's own text.
[[noreturn]] void FailCode(std::string const& what, int code, std::string const& meaning = "");
// What the directory answered to this thread's last request when it failed, for people:
// "object class violation (65): object class 'inetOrgPerson' requires attribute 'sn'";
// empty when the last request succeeded.
std::string DirectoryCause();
// "qorldap: <what>: <text> (see qorldap <what> --help)" or with no command, exit 2.
[[noreturn]] void Usage(std::string const& what, std::string const& text);

// A result code as printed: the library's own in hex (0x16000010), the directory's in decimal.
std::string CodeText(int code);
// What a result code means, in a few words.
std::string CodeMeaning(int code);

// The largest file read as a key, a certificate or a bundle.
size_t const kMaxInput = 16 * 1024 * 1024;

// --- command lines ---

struct Option {
    char const* name;   // "--crypt"
    char const* alias;  // "-o", or null
    bool takesValue;
};

struct Args {
    std::string command;
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;  // by the option's long name
    std::set<std::string> flags;

    bool Has(std::string const& name) const { return flags.count(name) != 0; }
    // The option's value, or fallback when it was not given.
    std::string Value(std::string const& name, std::string const& fallback = "") const;
    bool HasValue(std::string const& name) const { return values.count(name) != 0; }
};

struct Command {
    char const* name;
    char const* summary;  // one line for the overview
    char const* help;     // the whole text of "qorldap NAME --help"
    std::vector<Option> options;
    size_t minPositional;
    size_t maxPositional;
    int (*run)(Args const&);
};

// Every command, in the order the overview lists them (commands/commands.cpp).
std::vector<Command> const& Commands();
// The options that every command takes, before or after its name: --conf, --timeout, --help,
// and before the command only, --version.
std::vector<Option> const& GlobalOptions();
// Reads words (checks/options.cpp) with getopt_long against options (-h, --help among them when
// wanted): values and flags into args, other words into args.positional. untilWord stops at the
// first word that is not an option and returns its index (what comes before the command); otherwise
// every word is read and options may follow other words. Usage errors name what.
size_t ReadOptions(std::string const& what, std::vector<Option> const& options,
                   std::vector<std::string> const& words, bool untilWord, Args& args);

}  // namespace qortool

#endif
