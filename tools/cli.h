// qorldap, the command-line tool over libqorldap: what the source files share.
#ifndef QORLDAP_TOOLS_CLI_H
#define QORLDAP_TOOLS_CLI_H

#include <map>
#include <set>
#include <string>
#include <vector>

class CLdap;

namespace qortool {

// Exit statuses.
int const kExitOk = 0;
int const kExitFailed = 1;
int const kExitUsage = 2;

// Thrown to end a command; main prints the one line "qorldap: <message>" on stderr.
struct Stop {
    int status;
    std::string message;
};

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

std::vector<Command> const& Commands();
// The commands of each file, in the order the overview lists them.
std::vector<Command> KeyCommands();
std::vector<Command> EntryCommands();
std::vector<Command> ConfigCommands();
// Whether --conf chose the configuration folder (for "config").
extern bool gConfFromOption;

// --- the library ---

// Where the library looks for a bare file name: $QORLDAP_CONF_DIR/NAME, or NAME in the current
// directory. The second form is made absolute for messages.
std::string ConfigPath(std::string const& file);
bool FileReadable(std::string const& path);
// Fails when soap.ini holds a managerdn or psw longer than the library's record keeps: the
// library would cut it and bind as somebody else, or fail to bind for no visible reason.
void RefuseCutSettings();
// Connects ldap, or Fail("connect", ...), after RefuseCutSettings.
void Connect(CLdap& ldap);
// A hint for a refused name or a failed build of entries: where ldap.ini was looked for when it
// is missing, else empty.
std::string MissingTemplatesHint();
// The message for a connection that failed with code, given the settings in force.
[[noreturn]] void FailConnect(int code, std::string const& host, int port,
                              std::string const& basedn);

// --- files and output (output.cpp) ---

std::string ReadFile(std::string const& what, std::string const& path, size_t limit);
std::string Base64Encode(std::string const& data);
bool Base64Decode(std::string const& text, std::string& out);
std::string PemEncode(std::string const& label, std::string const& der);
// Decodes the first PEM block of text: its label and its data as DER. False, with error set,
// for a broken block.
bool PemDecode(std::string const& text, std::string& label, std::string& der, std::string& error);
bool LooksLikePem(std::string const& text);
// Usage error when binary data would go to a terminal.
void RefuseBinaryOnTerminal(std::string const& what, std::string const& path, bool binary);
// Writes data to path ("-" or empty: standard output). binary data is refused on a terminal.
// privateFile leaves the file readable by its owner only.
void WriteOutput(std::string const& what, std::string const& data, std::string const& path,
                 bool binary, bool privateFile);
// The DER element at offset: its tag, header length and content length; false when the
// element does not fit in der.
bool DerHeader(std::string const& der, size_t offset, unsigned char& tag, size_t& headerLength,
               size_t& contentLength);

// --- passwords (password.cpp) ---

struct PasswordSource {
    std::string fileOption;  // the option naming a file, "--key-pass-file"
    std::string envName;     // "QORLDAP_KEY_PASSWORD"
    std::string prompt;      // "Key password: "
    bool confirm;            // ask twice at the prompt
    bool mayBeEmpty;
};
std::string GetPassword(Args const& args, PasswordSource const& source);

// --- text ---

// UTF-8 (what the command line holds) into the GB18030 text the library expects for values.
std::string ToLibraryText(std::string const& what, std::string const& utf8);

}  // namespace qortool

#endif
