// qorldap, the command-line tool over libqorldap: what the source files share.
#ifndef QORLDAP_TOOLS_CLI_H
#define QORLDAP_TOOLS_CLI_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
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

std::vector<Command> const& Commands();
// Reads words with getopt_long against options (-h, --help among them when wanted): values and
// flags into args, other words into args.positional. untilWord stops at the first word that is
// not an option and returns its index (what comes before the command); otherwise every word is
// read and options may follow other words. Usage errors name what.
size_t ReadOptions(std::string const& what, std::vector<Option> const& options,
                   std::vector<std::string> const& words, bool untilWord, Args& args);
// The commands of each file, in the order the overview lists them.
std::vector<Command> KeyCommands();
Command PublishCommand();
Command PasswdCommand();
Command ShowCommand();
Command TreeCommand();
std::vector<Command> EntryCommands();
std::vector<Command> ConfigCommands();

// --- the settings the library reads (settings.cpp) ---

struct Settings {
    std::string folder;         // the user's folder of soap.ini and ldap.ini, absolute
    std::string origin;         // "option" (--conf), "environment" (QORLDAP_CONF_DIR) or "current"
    bool copied = false;        // the tool gave the library atomic_publish = yes
    bool timeoutAdded = false;  // and the timeout below
    bool timeoutFromOption = false;
    int timeout = 0;
};
// Chooses the folder (--conf, else QORLDAP_CONF_DIR, else the current directory) and gives the
// library, through qorldap/Settings.h, that folder, atomic_publish = yes and a timeout (10 s
// unless --timeout says otherwise) when soap.ini sets none or --timeout is given. Before any
// command runs, in this process: nothing is copied, nothing started again.
void PrepareSettings(Args const& args, char** argv);
Settings const& CurrentSettings();

// --- the library ---

// The user's file NAME in the folder of the settings, absolute, for messages and for the
// tool's own reading; the library may be reading a private copy (see PrepareSettings).
std::string ConfigPath(std::string const& file);
bool FileReadable(std::string const& path);
// Fails when soap.ini holds a managerdn or psw longer than the library's record keeps: the
// library would cut it and bind as somebody else, or fail to bind for no visible reason.
void RefuseCutSettings();
// connect() once, and again once per further host of the list while it fails for a server
// that is down or silent and soap.ini has reconnect = yes.
int ConnectWithFailover(std::function<int()> const& connect);
// libldap's codes for a server that is gone, silent, or cannot be reached.
int const LDAP_SERVER_DOWN_CODE = -1;
int const LDAP_TIMEOUT_CODE = -5;
int const LDAP_CONNECT_ERROR_CODE = -11;
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
// ReadFile for a path that must name a regular file. Anything else is refused without being
// read or waited on: "PATH: not a regular file (a FIFO)", "PATH: symlink loop", "PATH:
// unreadable (Permission denied)".
std::string ReadRegularFile(std::string const& what, std::string const& path, size_t limit);
// Usage error when binary data would go to a terminal.
void RefuseBinaryOnTerminal(std::string const& what, std::string const& path, bool binary);
// Writes data to path ("-" or empty: standard output). binary data is refused on a terminal.
// privateFile leaves the file readable by its owner only.
void WriteOutput(std::string const& what, std::string const& data, std::string const& path,
                 bool binary, bool privateFile);

// --- PEM and base64 (pem.cpp) ---

std::string Base64Encode(std::string const& data);  // one line
std::string PemEncode(std::string const& label, std::string const& der);
enum class Pem { kNone, kRead, kBroken };
// Decodes the first PEM block of text: its label and its data. kNone when text holds none (it
// may be DER); kBroken, with error set, for a block that does not decode.
Pem PemDecode(std::string const& text, std::string& label, std::string& der, std::string& error);

// --- what DER holds (der.cpp, describe.cpp) ---

enum class DerKind { kCertificate, kPublicKey, kEncryptedKey, kPrivateKey, kOther };
// Decided by decoding der whole: an X.509 certificate, a SubjectPublicKeyInfo, a PKCS#8
// EncryptedPrivateKeyInfo, a clear private key (PKCS#8 or the algorithm's own form), or other.
DerKind Classify(std::string const& der);
// Whether an encrypted PKCS#8 private key (DER) opens with password.
bool OpensWith(unsigned char const* der, unsigned int length, std::string const& password);
struct Field {
    std::string name;  // "subject", "notAfter", "sha256"
    std::string value;
};
// What der is, for people: for a certificate its subject, issuer, serial, validity, key and
// SHA-256 fingerprint; for a public key its type and size; for a private key whether and how
// it is encrypted.
std::vector<Field> Describe(std::string const& der);

// --- names (dn.cpp, levels.cpp, bundle.cpp) ---

// The first positional argument as a DN the library takes, and fits its records.
std::string CheckedDn(Args const& args);
// The DN or name argument as the library takes it: attribute types in lower case, values and
// the blanks after commas as given. A usage error, naming the character, for a value the
// library cannot store unescaped, and for a part that is not type=value.
std::string LibraryDn(std::string const& what, std::string const& dn);
// Why value cannot be part of a DN the library composes: "holds a line feed (0x0A)", "holds
// \"+\" (0x2B)", "starts with a blank", "holds two blanks in a row"; empty when it can. Control
// characters (0x00-0x1F, 0x7F), the characters of DN syntax (, + " \ < > ; =), a leading #,
// blanks at either end and runs of blanks all make the directory read another name.
std::string UnsafeInValue(std::string const& value);
// The first control character of value, for people ("a tab (0x09)"); empty when none.
std::string ControlIn(std::string const& value);
// c for people: "a line feed (0x0A)", "\"+\" (0x2B)".
std::string CharacterName(char c);
// text with its control characters written as \xNN, to go into a one-line message.
std::string Printable(std::string const& text);
// The parts between commas, as given.
std::vector<std::string> DnParts(std::string const& dn);
// dn folded for comparison: blanks around the parts dropped, ASCII letters in lower case.
std::string DnKey(std::string const& dn);
// The naming attribute of each level of ldap.ini, from the top down; empty when the file does
// not read.
std::vector<std::string> NamingAttributes();
// Each level's class (the template's name) and naming attribute, from the top down.
std::vector<std::pair<std::string, std::string>> Levels();
// The value of a certificate subject ("type=value" lines) that the library takes for type;
// line receives where that line starts. Empty, line untouched, when no line matches.
std::string SubjectValue(std::string const& subject, std::string const& type, size_t& line);

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
