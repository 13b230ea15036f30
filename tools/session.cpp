// Where the configuration comes from, and connecting to the directory.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include "cli.h"
#include "engine/LinkOptions.h"
#include "platform/IniFile.h"
#include "platform/System.h"
#include "qorldap/LastResult.h"
#include "qorldap/qorldap.h"

namespace qortool {

// Where the library looks for file, made absolute so that messages say exactly which file.
std::string ConfigPath(std::string const& file) {
    if (!CurrentSettings().folder.empty())
        return CurrentSettings().folder + "/" + file;
    std::string path = CSystem::ResolveConfigPath(file);
    char cwd[4096];
    if (path[0] != '/' && ::getcwd(cwd, sizeof cwd) != nullptr) {
        path = std::string(cwd) + "/" + path;
    }
    return path;
}

bool FileReadable(std::string const& path) {
    std::ifstream in(path);
    return static_cast<bool>(in);
}

std::string MissingTemplatesHint() {
    std::string const path = ConfigPath("ldap.ini");
    if (!FileReadable(path))
        return "no ldap.ini at " + path + "; use --conf DIR or set QORLDAP_CONF_DIR";
    if (Levels().empty())
        return "ldap.ini at " + path + " does not read (a level or a key is missing), so the " +
               "library has no templates";
    return "";
}

void FailConnect(int code, std::string const& host, int port, std::string const& basedn) {
    std::string const soap = ConfigPath("soap.ini");
    if (code == QORLDAP_E_FAILED) {
        if (!FileReadable(soap)) {
            FailCode("connect", code,
                     "cannot connect to the directory (no soap.ini at " + soap +
                         "; use --conf DIR or set QORLDAP_CONF_DIR)");
        }
        LinkOptions link;
        link.Read(IniFile::Load(soap), "ldap");
        if (!link.Valid()) {
            FailCode("connect", code,
                     "no connection attempted: " + link.fault + " in " + soap +
                         " is not a spelling the library knows (see qorldap config --help)");
        }
        std::string where = host.empty() ? "" : " at " + host + " port " + std::to_string(port);
        std::string const who =
            (link.bindDn.empty() ? "managerdn" : "bind_dn") +
            std::string(link.bindPassword.empty() ? " and psw" : " and bind_password");
        QorLdapResult last = {};
        QorLdapLastResult(&last);
        bool const tls =
            link.tls != LinkOptions::Tls::kNone || host.find("ldaps://") != std::string::npos;
        if (tls && (last.code == LDAP_CONNECT_ERROR_CODE || last.code == LDAP_SERVER_DOWN_CODE ||
                    std::string(last.operation) == "starttls")) {
            FailCode("connect", code,
                     "cannot set up TLS with the directory" + where +
                         " (check tls_cacert and that the server's certificate names the host "
                         "as written in " +
                         soap + ")");
        }
        FailCode("connect", code,
                 "cannot connect to the directory" + where + " (check host, port, " + who + " in " +
                     soap + ")");
    }
    if (code == QORLDAP_E_ROOT) {
        FailCode("connect", code,
                 "the base entry " + basedn +
                     " is missing and cannot be created (check basedn in " + soap + ")");
    }
    FailCode("connect", code);
}

void RefuseCutSettings() {
    std::string const soap = ConfigPath("soap.ini");
    IniFile const ini = IniFile::Load(soap);
    struct Field {
        char const* key;
        size_t room;
        char const* instead;
    };
    for (Field const& f : {Field{"managerdn", sizeof(LdapInfo::managerdn) - 1, "bind_dn"},
                           Field{"psw", sizeof(LdapInfo::psw) - 1, "bind_password"}}) {
        std::string value;
        std::string instead;
        if (ini.Get("ldap", f.instead, instead) && !instead.empty())
            continue;  // the record's field is not used for binding
        if (ini.Get("ldap", f.key, value) && value.size() > f.room) {
            Fail("config",
                 std::string(f.key) + " in " + soap + " has " + std::to_string(value.size()) +
                     " characters; the library keeps " + std::to_string(f.room) +
                     " and would bind with a cut value (write it as " + f.instead + " instead)");
        }
    }
}

// With reconnect = yes a host that is down or silent costs one failed attempt, after which the
// next attempt starts one host further down the list; the tool makes those attempts, one per
// further host, rather than fail on the first.
int ConnectWithFailover(std::function<int()> const& connect) {
    int rc = connect();
    LinkOptions link;
    link.Read(IniFile::Load(ConfigPath("soap.ini")), "ldap");
    LdapInfo info;
    GetLdapAtt(info);
    std::istringstream hosts(info.host);
    int extra = -1;
    for (std::string host; hosts >> host;)
        ++extra;
    for (int i = 0; rc == QORLDAP_E_FAILED && link.reconnect && i < extra; ++i) {
        QorLdapResult last = {};
        QorLdapLastResult(&last);
        if (last.code != LDAP_SERVER_DOWN_CODE && last.code != LDAP_TIMEOUT_CODE &&
            last.code != LDAP_CONNECT_ERROR_CODE)
            break;
        rc = connect();
    }
    return rc;
}

void Connect(CLdap& ldap) {
    RefuseCutSettings();
    int rc = ConnectWithFailover([&] { return ldap.ConnectLdap(); });
    if (rc != QORLDAP_OK) {
        LdapInfo info;
        ldap.GetLdapAtt(info);
        FailConnect(rc, info.host, info.port, info.basedn);
    }
}

}  // namespace qortool
