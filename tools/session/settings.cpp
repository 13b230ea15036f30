// Which settings the library reads. The library reads soap.ini and ldap.ini by itself, each
// engine when it is built (the free functions' engine on their first call), from the folder
// the program names with QorLdapSet("conf_dir", ...), else $QORLDAP_CONF_DIR, else the current
// directory. The tool names the folder (--conf, the environment or the current directory) and
// hands the library the keys it insists on through qorldap/Settings.h: atomic_publish = yes
// always, and a timeout when soap.ini sets none or --timeout asks for another. The files
// themselves are neither changed nor copied, and everything runs in this one process.
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "qorldap/Inspect.h"
#include "qorldap/Settings.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

int const kDefaultTimeout = 10;

Settings gSettings;

std::string Absolute(std::string const& dir) {
    char resolved[PATH_MAX];
    struct stat st;
    if (::realpath(dir.c_str(), resolved) == nullptr || ::stat(resolved, &st) != 0 ||
        !S_ISDIR(st.st_mode)) {
        return "";
    }
    return resolved;
}

int TimeoutOption(Args const& args) {
    std::string const text = args.Value("--timeout");
    char* end = nullptr;
    long n = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || n < 0 || n > 86400)
        Usage("--timeout", "takes whole seconds from 0 (none) to 86400, not \"" + text + "\"");
    return static_cast<int>(n);
}

void Give(char const* key, std::string const& value) {
    if (QorLdapSet(key, value.c_str()) != 0)
        Fail("config", std::string("the library does not take the setting ") + key);
}

}  // namespace

Settings const& CurrentSettings() {
    return gSettings;
}

std::string Setting(char const* key, int* state) {
    char const* value = nullptr;
    int const rc = QorLdapSetting(key, &value);
    if (state != nullptr)
        *state = rc;
    return value != nullptr ? value : "";
}

bool WholeNumber(std::string const& text) {
    size_t const first = text.find_first_not_of(" \t"), last = text.find_last_not_of(" \t");
    return first != std::string::npos && text.find_first_not_of("0123456789", first) > last;
}

Link CurrentLink() {
    Link link;
    // In the order the library reads them, so that the fault named is the one it names. The
    // keys of the connection pool come last; a library without them calls them unknown, which
    // is no fault.
    for (char const* key : {"tls", "tls_verify", "timeout", "fast_lookup", "atomic_publish",
                            "refuse_weak_keys", "gb18030_dns", "user_certificate", "reconnect",
                            "pool_size", "read_after_write", "failback", "idle_check"}) {
        int state = QORLDAP_SETTING_DEFAULT;
        std::string const value = Setting(key, &state);
        if (state == QORLDAP_SETTING_UNREAD && link.fault.empty())
            link.fault = std::string(key) + "=" + value;
    }
    if (!link.Valid())
        return link;
    link.tls = Setting("tls");
    link.verify = Setting("tls_verify") == "yes";
    link.caCert = Setting("tls_cacert");
    link.timeout = std::atoi(Setting("timeout").c_str());
    link.reconnect = Setting("reconnect") == "yes";
    link.fastLookup = Setting("fast_lookup") == "yes";
    link.atomicPublish = Setting("atomic_publish") == "yes";
    link.bindDn = Setting("bind_dn");
    link.bindPassword = Setting("bind_password");
    return link;
}

std::string Link::Describe() const {
    if (!Valid())
        return "refused: " + fault + " is not a spelling the library knows";
    if (tls == "none")
        return "none (clear text)";
    return tls + (verify ? ", server certificate verified" : ", server certificate NOT verified") +
           (caCert.empty() ? " (system CAs)" : " against " + caCert);
}

void PrepareSettings(Args const& args, char** /*argv*/) {
    char const* libraryDir = std::getenv("QORLDAP_CONF_DIR");
    if (args.HasValue("--conf")) {
        gSettings.folder = Absolute(args.Value("--conf"));
        if (gSettings.folder.empty())
            Usage("--conf", "no such directory: " + args.Value("--conf"));
        gSettings.origin = "option";
    } else if (libraryDir != nullptr && libraryDir[0] != '\0') {
        gSettings.folder = libraryDir;
        gSettings.origin = "environment";
    } else {
        char here[PATH_MAX];
        gSettings.folder = ::getcwd(here, sizeof here) != nullptr ? here : ".";
        gSettings.origin = "current";
    }
    Give("conf_dir", gSettings.folder);
    int fileTimeout = QORLDAP_SETTING_DEFAULT;
    Setting("timeout", &fileTimeout);
    bool const fileSets = fileTimeout != QORLDAP_SETTING_DEFAULT;
    // Every publication writes a certificate and its protected key in one request, so that the
    // directory keeps both or neither: never a key beside a certificate it does not belong to.
    Give("atomic_publish", "yes");
    gSettings.copied = true;
    // A bundle whose key gives less than 112-bit security is refused by the library itself,
    // before anything is written, naming the key; --allow-weak-key leaves soap.ini's choice.
    gSettings.weakKeysRefused = !args.Has("--allow-weak-key");
    if (gSettings.weakKeysRefused)
        Give("refuse_weak_keys", "yes");
    // An import decides what to add from what the directory holds and ends by reading back what
    // it wrote: both must come from the providers it writes to, never from a replica that may
    // lag behind them.
    if (args.command == "import")
        Give("read_host", "");
    bool const option = args.HasValue("--timeout");
    gSettings.timeoutAdded = option || !fileSets;
    gSettings.timeoutFromOption = option;
    gSettings.timeout = option ? TimeoutOption(args) : kDefaultTimeout;
    if (gSettings.timeoutAdded)
        Give("timeout", std::to_string(gSettings.timeout));
}

}  // namespace qortool
