// What the commands that look at a whole subtree share (expiring, verify): the base, the walk
// in pages through qorldap/Walk.h with a progress line on a terminal, and their exit statuses.
#ifndef QORLDAP_TOOLS_COMMANDS_SUBTREE_H
#define QORLDAP_TOOLS_COMMANDS_SUBTREE_H

#include <functional>
#include <string>
#include <vector>

#include "qorldap/Entry.h"
#include "tools/cli.h"

namespace qortool {

// Entries asked for in one request of a walk: the tool holds one page of them at a time.
int const kWalkPageSize = 500;

// The values of attribute ("signPubcer;binary", matched without regard to letter case) in entry.
std::vector<std::string> ValuesOf(QorLdapEntry const& entry, char const* attribute);

// Connects the free functions' engine and walks BASE (the command's argument, else soap.ini's
// basedn) and everything below it that matches filter, visit(entry) for each entry, page by
// page. With a terminal on standard error, a line there counts the entries read. Fails with one
// line ("no such entry: BASE" for a base that does not exist). The number of entries visited.
size_t WalkSubtree(Args const& args, char const* filter, std::vector<char const*> const& attributes,
                   std::function<void(QorLdapEntry const&)> const& visit);

// Runs a report command: a failure or a usage error inside it ends with kExitNoReport.
int RunReport(Args const& args, int (*report)(Args const&));

}  // namespace qortool

#endif
