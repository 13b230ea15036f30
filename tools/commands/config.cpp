// The config command: the settings in force and where they came from.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "qorldap/Inspect.h"
#include "qorldap/qorldap.h"
#include "tools/commands/commands.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

std::string Shown(char const* text) {
    return text[0] == '\0' ? "(not set)" : text;
}

// The blank-separated names of a host list, joined by ", ".
std::string Listed(std::string const& hosts, int* count) {
    std::string out;
    *count = 0;
    for (size_t at = hosts.find_first_not_of(" \t"); at != std::string::npos;) {
        size_t const end = hosts.find_first_of(" \t", at);
        out += (out.empty() ? "" : ", ") + hosts.substr(at, end - at);
        ++*count;
        at = end == std::string::npos ? end : hosts.find_first_not_of(" \t", end);
    }
    return out;
}

// A key of the connection pool as the library reads it; empty when it is not given, or when
// this library does not know the key at all (then nothing is shown for it).
std::string Given(char const* key) {
    int state = QORLDAP_SETTING_DEFAULT;
    std::string const value = Setting(key, &state);
    return state == QORLDAP_SETTING_GIVEN ? value : "";
}

// Whether text is a whole number above 0.
bool Positive(std::string const& text) {
    return WholeNumber(text) && text.find_first_not_of("0 \t") != std::string::npos;
}

// A line for a key of the pool that takes whole numbers (seconds unless it is pool_size): what
// it does. Any other value makes the link invalid, and the topology is not shown.
void ShowCount(char const* key, std::string const& value, std::string const& zero,
               std::string const& meaning) {
    if (value.empty()) {
        return;
    } else if (!Positive(value)) {
        std::printf("  %-10s 0 (%s)\n", key, zero.c_str());
    } else {
        std::printf("  %-10s %s%s (%s)\n", key, value.c_str(),
                    std::strcmp(key, "pool_size") == 0 ? "" : " s", meaning.c_str());
    }
}

// Which servers the settings name and how calls go to them: shown when host lists more than
// one server or a key of the connection pool is given.
void ShowTopology() {
    int providers = 0, readers = 0;
    std::string const writes = Listed(Setting("host"), &providers);
    std::string const reads = Listed(Given("read_host"), &readers);
    std::string const pool = Given("pool_size"), afterWrite = Given("read_after_write");
    std::string const failback = Given("failback"), idle = Given("idle_check");
    if (providers < 2 && reads.empty() && pool.empty() && afterWrite.empty() && failback.empty() &&
        idle.empty()) {
        return;
    }
    bool const split = Positive(pool) && readers > 0;
    std::printf("topology (host, read_host and the connection pool):\n");
    std::printf("  %s %s (host: every %s%s)\n", providers > 1 ? "providers " : "provider  ",
                providers > 0 ? writes.c_str() : "(not set)", split ? "write" : "call",
                providers > 1 ? ", on the first that answers" : "");
    if (split) {
        std::printf(
            "  read hosts %s (read_host: the free functions' reads, each new\n"
            "             connection on the least busy; none answering: the providers)\n",
            reads.c_str());
    } else if (readers > 0) {
        std::printf(
            "  read hosts %s (read_host), unused: reads go to them only with\n"
            "             pool_size set\n",
            reads.c_str());
    }
    ShowCount("pool_size", pool, "the free functions share one connection",
              "the free functions share up to " + pool + " connections to the providers" +
                  (readers > 0 ? ",\n             and as many to the read hosts" : ""));
    if (split) {
        ShowCount("read_after_write", afterWrite, "reads always go to the read hosts",
                  "a thread that wrote reads from the providers for " + afterWrite + " s");
    }
    ShowCount("failback", failback, "a connection stays where it failed over to",
              "connections go back to the first provider once it\n             has answered "
              "for " +
                  failback + " s");
    ShowCount("idle_check", idle, "an idle connection is used unchecked",
              "a connection unused for " + idle + " s is checked before its next call");
}

int RunConfig(Args const& args) {
    CLdap ldap;
    LdapInfo info;
    ldap.GetLdapAtt(info);

    Settings const& settings = CurrentSettings();
    if (settings.origin == "current") {
        std::printf("files looked for in the current directory %s (QORLDAP_CONF_DIR is not set)\n",
                    settings.folder.c_str());
    } else {
        std::printf("files looked for in %s (QORLDAP_CONF_DIR%s)\n", settings.folder.c_str(),
                    settings.origin == "option" ? ", from --conf" : "");
    }
    for (char const* file : {"soap.ini", "ldap.ini"}) {
        std::string const path = ConfigPath(file);
        std::printf("  %s  %s%s\n", file, path.c_str(), FileReadable(path) ? "" : " (not found)");
    }
    if (settings.copied) {
        std::printf(
            "  (the tool gives the library %s over these files, which are left as\n"
            "  they are)\n",
            settings.timeoutAdded ? "the timeout and atomic_publish" : "atomic_publish");
    }
    std::printf("settings in force (section [ldap] of soap.ini):\n");
    std::printf("  host       %s\n", Shown(info.host).c_str());
    if (info.port == 0) {
        std::printf("  port       (not set: 389)\n");
    } else {
        std::printf("  port       %d\n", info.port);
    }
    std::printf("  basedn     %s\n", Shown(info.basedn).c_str());
    std::printf("  managerdn  %s\n", Shown(info.managerdn).c_str());
    std::printf("  psw        %s\n", info.psw[0] == '\0' ? "(not set)" : "********");
    Link const link = CurrentLink();
    if (!link.Valid()) {
        // Every connection is refused until the key is fixed; the other link lines would only
        // show defaults that are not in force.
        std::printf("  link keys  %s: every connection is refused\n", link.Describe().c_str());
    } else if (link.tls == "none" && std::string(info.host).find("ldaps://") != std::string::npos) {
        std::printf("  tls        ldaps (an ldaps:// host), server certificate %s%s\n",
                    link.verify ? "verified" : "NOT verified",
                    link.caCert.empty() ? " (system CAs)" : (" against " + link.caCert).c_str());
    } else {
        std::printf("  tls        %s\n", link.Describe().c_str());
    }
    if (!link.Valid()) {
        // the line above says it all
    } else if (settings.timeoutAdded && settings.timeoutFromOption) {
        if (settings.timeout > 0) {
            std::printf("  timeout    %d s (--timeout)\n", settings.timeout);
        } else {
            std::printf(
                "  timeout    none (--timeout 0: a silent server blocks a call for ever)\n");
        }
    } else if (settings.timeoutAdded) {
        std::printf("  timeout    %d s (the tool's default; soap.ini sets none)\n",
                    settings.timeout);
    } else if (link.timeout > 0) {
        std::printf("  timeout    %d s for connecting and for each request\n", link.timeout);
    } else {
        std::printf("  timeout    (not set: a silent server blocks a call for ever)\n");
    }
    std::printf("  reconnect  %s\n", link.reconnect ? "yes" : "no");
    // As the library takes it: the tool's own setting over the file's.
    std::printf("  atomic_publish %s\n",
                settings.copied || link.atomicPublish
                    ? "yes (a certificate and its private key go in one request; qorldap always "
                      "asks for it)"
                    : "no (the certificate first, then the private key)");
    std::printf("  refuse_weak_keys %s\n",
                settings.weakKeysRefused || Setting("refuse_weak_keys") == "yes"
                    ? "yes (publish refuses a key under 112-bit security; qorldap asks for it "
                      "unless --allow-weak-key)"
                    : "no");
    std::printf("  fast_lookup %s\n", link.fastLookup
                                          ? "yes (one indexed search per lookup by name)"
                                          : "no (the lookup by name walks the tree)");
    if (!link.bindDn.empty())
        std::printf("  bind_dn    %s (bound as, in place of managerdn)\n", link.bindDn.c_str());
    if (!link.bindPassword.empty())
        std::printf("  bind_password ******** (in place of psw)\n");
    if (link.Valid())
        ShowTopology();
    if (args.Has("--check")) {
        std::fflush(stdout);
        Connect(ldap);
        std::printf("connection: ok, bound as %s\n",
                    link.bindDn.empty() ? Shown(info.managerdn).c_str() : link.bindDn.c_str());
    }
    return kExitOk;
}

char const kConfigHelp[] =
    "usage: qorldap config [--check]\n"
    "\n"
    "Shows where soap.ini and ldap.ini are looked for (the folder named by --conf or\n"
    "QORLDAP_CONF_DIR, else the current directory) and the settings in force. The\n"
    "password is never shown. Also shown: how the link is protected (tls, tls_verify),\n"
    "its timeout and reconnection. Link keys read without regard to letter case:\n"
    "  tls         none | starttls | start_tls | ldaps\n"
    "  tls_verify  yes | true | on | 1 | demand  /  no | false | off | 0 | never\n"
    "  reconnect   yes | true | on | 1  /  no | false | off | 0\n"
    "  fast_lookup yes | true | on | 1  /  no | false | off | 0  (lookup by name: one\n"
    "              indexed search instead of the walk; see qorldap passwd --help)\n"
    "  timeout     whole seconds (0 or absent: none)\n"
    "When soap.ini sets no timeout, qorldap (not the library) uses 10 s, and --timeout N\n"
    "(before or after the command) sets another for one run, 0 for none. qorldap also\n"
    "always publishes with atomic_publish = yes: a certificate and its private key go to\n"
    "the directory in one request, which keeps both or neither. The tool gives the library\n"
    "these settings itself, in its own process, over what the files say; the files are\n"
    "never changed or copied. \"config\" shows which timeout is in force:\n"
    "  timeout    10 s (the tool's default; soap.ini sets none)\n"
    "managerdn and psw hold 32 characters each; a longer bind DN or password goes into\n"
    "bind_dn and bind_password, which take their place at every bind. Every command\n"
    "refuses a managerdn or psw that does not fit rather than bind with a cut value.\n"
    "Any other value refuses every connection: nothing is sent in clear by mistake.\n"
    "\n"
    "With more than one host, or any key of the connection pool set, config also shows\n"
    "the topology: the providers (host: writes, on the first that answers), the read\n"
    "hosts (read_host: the free functions' reads, with pool_size), and pool_size,\n"
    "read_after_write, failback and idle_check as the library takes them. Those four\n"
    "take whole numbers (pool_size a count, the others seconds, 0 for off); any other\n"
    "value refuses every connection.\n"
    "\n"
    "  --check  also connect and bind, and say whether that worked. When the connection\n"
    "           fails, a port where nothing listens (\"nothing answers at host:port\") is\n"
    "           told apart from a TLS failure and from a refused bind\n";

}  // namespace

std::vector<Command> ConfigCommands() {
    return {
        {"config",
         "show the settings in force and where they came from",
         kConfigHelp,
         {{"--check", nullptr, false}},
         0,
         0,
         RunConfig},
    };
}

}  // namespace qortool
