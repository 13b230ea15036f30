// Walking a subtree for the report commands.
#include "tools/commands/subtree.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "qorldap/Walk.h"
#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

struct WalkState {
    std::function<void(QorLdapEntry const&)> const* visit;
    size_t entries = 0;
    bool terminal = false;
    std::exception_ptr failure;  // a failure inside visit, thrown again once the walk is over
};

// A failure must not cross the library's C interface: it stops the walk and is thrown again
// from the tool's side.
int const kStopped = -1000;

int VisitOne(QorLdapEntry const* entry, void* context) {
    WalkState& state = *static_cast<WalkState*>(context);
    try {
        (*state.visit)(*entry);
    } catch (...) {
        state.failure = std::current_exception();
        return kStopped;
    }
    ++state.entries;
    if (state.terminal && state.entries % kWalkPageSize == 0)
        std::fprintf(stderr, "\r%zu entries read", state.entries);
    return 0;
}

}  // namespace

std::vector<std::string> ValuesOf(QorLdapEntry const& entry, char const* attribute) {
    std::vector<std::string> values;
    for (int i = 0; i < entry.attributeCount; ++i) {
        QorLdapAttribute const& a = entry.attributes[i];
        if (strcasecmp(a.name, attribute) != 0)
            continue;
        for (int v = 0; v < a.valueCount; ++v)
            values.emplace_back(reinterpret_cast<char const*>(a.values[v].bytes),
                                a.values[v].length);
    }
    return values;
}

size_t WalkSubtree(Args const& args, char const* filter, std::vector<char const*> const& attributes,
                   std::function<void(QorLdapEntry const&)> const& visit) {
    std::string base = args.positional.empty() ? "" : CheckedDn(args);
    ConnectShared();
    if (base.empty()) {
        LdapInfo info;
        GetLdapAtt(info);
        base = info.basedn;
    }
    std::vector<char const*> wanted = attributes;
    wanted.push_back(nullptr);
    WalkState state;
    state.visit = &visit;
    state.terminal = isatty(STDERR_FILENO) == 1;
    int const rc =
        QorLdapWalk(base.c_str(), filter, wanted.data(), kWalkPageSize, VisitOne, &state);
    if (state.terminal && state.entries >= static_cast<size_t>(kWalkPageSize))
        std::fprintf(stderr, "\r%*s\r", 40, "");
    if (state.failure)
        std::rethrow_exception(state.failure);
    if (rc == 32)
        Fail(args.command, "no such entry: " + base);
    if (rc != QORLDAP_OK)
        FailCode(args.command, rc, DirectoryCause());
    return state.entries;
}

int RunReport(Args const& args, int (*report)(Args const&)) {
    try {
        return report(args);
    } catch (Stop& stop) {
        if (stop.status != kExitOk)
            stop.status = kExitNoReport;
        throw;
    }
}

}  // namespace qortool
