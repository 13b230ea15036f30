// The config command: the settings in force and where they came from.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "cli.h"
#include "qorldap/qorldap.h"

namespace qortool {

namespace {

std::string Shown(char const* text) {
    return text[0] == '\0' ? "(not set)" : text;
}

int RunConfig(Args const& args) {
    CLdap ldap;
    LdapInfo info;
    ldap.GetLdapAtt(info);

    char const* dir = std::getenv("QORLDAP_CONF_DIR");
    if (dir != nullptr && dir[0] != '\0') {
        std::printf("files looked for in %s (QORLDAP_CONF_DIR%s)\n", dir,
                    gConfFromOption ? ", from --conf" : "");
    } else {
        char here[4096];
        std::printf("files looked for in the current directory %s (QORLDAP_CONF_DIR is not set)\n",
                    ::getcwd(here, sizeof here) != nullptr ? here : ".");
    }
    for (char const* file : {"soap.ini", "ldap.ini"}) {
        std::string const path = ConfigPath(file);
        std::printf("  %s  %s%s\n", file, path.c_str(), FileReadable(path) ? "" : " (not found)");
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
    if (args.Has("--check")) {
        std::fflush(stdout);
        Connect(ldap);
        std::printf("connection: ok, bound as %s\n", Shown(info.managerdn).c_str());
    }
    return kExitOk;
}

char const kConfigHelp[] =
    "usage: qorldap config [--check]\n"
    "\n"
    "Shows where soap.ini and ldap.ini are looked for (the folder named by --conf or\n"
    "QORLDAP_CONF_DIR, else the current directory) and the settings in force. The\n"
    "password is never shown.\n"
    "\n"
    "  --check  also connect and bind, and say whether that worked\n";

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
