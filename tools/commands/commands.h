// The commands: each file gives its own, with their option tables and help texts, and
// commands.cpp puts them in the order the overview lists them.
#ifndef QORLDAP_TOOLS_COMMANDS_COMMANDS_H
#define QORLDAP_TOOLS_COMMANDS_COMMANDS_H

#include <string>
#include <vector>

#include "tools/cli.h"

class CLdap;

namespace qortool {

class Entry;
struct ShownKey;

// The commands of each file.
std::vector<Command> KeyCommands();     // keys.cpp: publish, the key commands, passwd
Command PublishCommand();               // publish.cpp
Command PasswdCommand();                // passwd.cpp
Command ShowCommand();                  // show.cpp
Command TreeCommand();                  // tree.cpp
std::vector<Command> EntryCommands();   // entries.cpp: show, tree, ls, add, modify, delete
std::vector<Command> ConfigCommands();  // config.cpp
Command ExpiringCommand();              // expiring.cpp
Command VerifyCommand();                // verify.cpp
Command AuditCommand();                 // audit.cpp
Command ExportCommand();                // migrate.cpp
Command ImportCommand();                // migrate.cpp

// Selects the entry dn into entry: 0 when it is missing, else its number of attributes
// (entries.cpp).
int Lookup(Args const& args, CLdap& ldap, std::string const& dn, Entry& entry);
// The certificates and keys of the user dn, in the order signing certificate, signing key,
// encryption certificate, encryption key; false when dn is not a user's, whose keys the
// library does not read (show.cpp).
bool ReadKeys(CLdap& ldap, std::string const& dn, std::vector<ShownKey>& keys);

}  // namespace qortool

#endif
