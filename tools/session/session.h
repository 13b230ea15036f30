// The session: which settings the library reads, and the connection to the directory.
#ifndef QORLDAP_TOOLS_SESSION_SESSION_H
#define QORLDAP_TOOLS_SESSION_SESSION_H

#include <functional>
#include <string>

#include "tools/cli.h"

class CLdap;

namespace qortool {

// --- the settings the library reads (settings.cpp) ---

struct Settings {
    std::string folder;   // the user's folder of soap.ini and ldap.ini, absolute
    std::string origin;   // "option" (--conf), "environment" (QORLDAP_CONF_DIR) or "current"
    bool copied = false;  // the tool gave the library atomic_publish = yes
    bool weakKeysRefused = false;  // and refuse_weak_keys = yes (no --allow-weak-key)
    bool timeoutAdded = false;     // and the timeout below
    bool timeoutFromOption = false;
    int timeout = 0;
};
// Chooses the folder (--conf, else QORLDAP_CONF_DIR, else the current directory) and gives the
// library, through qorldap/Settings.h, that folder, atomic_publish = yes, refuse_weak_keys =
// yes unless --allow-weak-key, and a timeout (10 s unless --timeout says otherwise) when
// soap.ini sets none or --timeout is given. Before any
// command runs, in this process: nothing is copied, nothing started again.
void PrepareSettings(Args const& args, char** argv);
Settings const& CurrentSettings();

// The value of a soap.ini key in force, as the library reads it (qorldap/Inspect.h): the
// tool's own settings over the file's. state, when given, receives QORLDAP_SETTING_*.
std::string Setting(char const* key, int* state = nullptr);
// Whether text (blanks around it aside) is a whole number, the only values the library takes
// for pool_size, read_after_write, failback and idle_check; an engine refuses to connect with
// any other. QorLdapSetting gives those keys as written.
bool WholeNumber(std::string const& text);

// The link as the library reads it.
struct Link {
    std::string tls = "none";  // none, starttls, ldaps
    bool verify = true;
    std::string caCert;
    int timeout = 0;
    bool reconnect = false;
    bool fastLookup = false;
    bool atomicPublish = false;
    std::string bindDn;
    std::string bindPassword;
    std::string fault;  // "tls=yes": the first key the library cannot read; empty when none

    bool Valid() const { return fault.empty(); }
    // For people: "starttls, server certificate verified (system CAs)".
    std::string Describe() const;
};
Link CurrentLink();

// --- the library (connection.cpp) ---

// The user's file NAME in the folder of the settings, absolute, for messages and for the
// tool's own reading: the library reads the same file.
std::string ConfigPath(std::string const& file);
bool FileReadable(std::string const& path);
// Fails when soap.ini holds a managerdn or psw longer than the library's record keeps: the
// library would cut it and bind as somebody else, or fail to bind for no visible reason.
void RefuseCutSettings();
// connect() once, and again once per further host of the list while it fails for a server
// that is down or silent (Unreachable) and soap.ini has reconnect = yes.
int ConnectWithFailover(std::function<int()> const& connect);
// Connects ldap, or Fail("connect", ...), after RefuseCutSettings.
void Connect(CLdap& ldap);
// The same for the free functions' engine, which publish and the whole-entry read use.
void ConnectShared();
// A hint for a refused name or a failed build of entries: where ldap.ini was looked for when it
// is missing, else empty.
std::string MissingTemplatesHint();
// The message for a connection that failed with code, given the settings in force.
[[noreturn]] void FailConnect(int code, std::string const& host, int port,
                              std::string const& basedn);

}  // namespace qortool

#endif
