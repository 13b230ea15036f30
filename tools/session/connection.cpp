// Where the configuration comes from, and connecting to the directory.
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include "qorldap/LastResult.h"
#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/session/hints.h"
#include "tools/session/session.h"

namespace qortool {

// Where the library looks for file, made absolute so that messages say exactly which file: the
// folder the tool named to the library before any command ran.
std::string ConfigPath(std::string const& file) {
    std::string folder = CurrentSettings().folder;
    char cwd[4096];
    if (folder.empty() && ::getcwd(cwd, sizeof cwd) != nullptr)
        folder = cwd;
    return folder + "/" + file;
}

bool FileReadable(std::string const& path) {
    std::ifstream in(path);
    return static_cast<bool>(in);
}

std::string MissingTemplatesHint() {
    HintWords words;
    words.path = ConfigPath("ldap.ini");
    if (!FileReadable(words.path))
        return Hint(QORLDAP_E_FAILED, Situation::kTemplatesMissing, words);
    if (Levels().empty())
        return Hint(QORLDAP_E_FAILED, Situation::kTemplatesUnread, words);
    return "";
}

namespace {

enum class Probe { kAnswers, kRefused, kUnknown };

// A TCP connection to host:port, given up after a few seconds.
Probe Dial(std::string const& host, std::string const& port) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0)
        return Probe::kUnknown;
    Probe result = Probe::kRefused;
    for (addrinfo* a = found; a != nullptr && result == Probe::kRefused; a = a->ai_next) {
        int fd =
            ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            result = Probe::kUnknown;
            break;
        }
        int err = ::connect(fd, a->ai_addr, a->ai_addrlen) == 0 ? 0 : errno;
        if (err == EINPROGRESS) {
            pollfd p = {fd, POLLOUT, 0};
            socklen_t length = sizeof err;
            err = ::poll(&p, 1, 3000) == 1 &&
                          ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &length) == 0
                      ? err
                      : ETIMEDOUT;
        }
        ::close(fd);
        result = err == 0              ? Probe::kAnswers
                 : err == ECONNREFUSED ? Probe::kRefused
                                       : Probe::kUnknown;
    }
    ::freeaddrinfo(found);
    return result;
}

// One word of the host list as host and port; the port is the word's own, else defaultPort.
void SplitHost(std::string const& word, int defaultPort, std::string& host, std::string& service) {
    host = word;
    service = std::to_string(defaultPort);
    size_t const colon = word.rfind(':');
    if (!word.empty() && word[0] == '[') {  // [::1]:389
        size_t const close = word.find(']');
        host = word.substr(1, close == std::string::npos ? std::string::npos : close - 1);
        if (close != std::string::npos && colon == close + 1)
            service = word.substr(colon + 1);
    } else if (colon != std::string::npos && word.find(':') == colon) {  // a bare IPv6 has more
        host = word.substr(0, colon);
        service = word.substr(colon + 1);
    }
}

// "127.0.0.1:1, ldap2:389" when every host of the list refuses a TCP connection: nothing
// listens there, whatever libldap's code for it suggests (TLS included). Empty when any host
// answers or cannot be told: no host (libldap's default), an ldapi:// socket, a timeout.
std::string NothingAnswers(std::string const& hosts, int port, Link const& link) {
    std::istringstream words(hosts);
    std::string where;
    for (std::string word; words >> word;) {
        std::string const folded = Lower(word);
        bool ldaps = link.tls == "ldaps";
        int defaultPort = port;
        size_t const scheme = folded.find("://");
        if (scheme != std::string::npos) {
            if (folded.compare(0, scheme, "ldap") != 0 && folded.compare(0, scheme, "ldaps") != 0)
                return "";
            ldaps = scheme == 5;
            word = word.substr(scheme + 3);
            word = word.substr(0, word.find('/'));
            defaultPort = 0;  // a URI's host stands as written
        }
        std::string host;
        std::string service;
        SplitHost(word, defaultPort > 0 ? defaultPort : ldaps ? 636 : 389, host, service);
        if (host.empty() || Dial(host, service) != Probe::kRefused)
            return "";
        bool const v6 = host.find(':') != std::string::npos;
        where += (where.empty() ? "" : ", ") + (v6 ? "[" + host + "]" : host) + ":" + service;
    }
    return where;
}

}  // namespace

void FailConnect(int code, std::string const& host, int port, std::string const& basedn) {
    HintWords words;
    words.soap = ConfigPath("soap.ini");
    words.dn = basedn;
    if (code != QORLDAP_E_FAILED)
        FailCode("connect", code, Hint(code, Situation::kConnect, words));
    if (!FileReadable(words.soap))
        FailCode("connect", code, Hint(code, Situation::kConnectNoSettings, words));
    Link const link = CurrentLink();
    if (!link.Valid()) {
        words.fault = link.fault;
        FailCode("connect", code, Hint(code, Situation::kConnectBadLink, words));
    }
    QorLdapResult last = {};
    QorLdapLastResult(&last);
    // For the codes that may mean a port where nothing listens, a TCP connection of the tool's
    // own tells that apart from a TLS handshake that failed.
    if (HasHint(last.code, Situation::kConnectRefused)) {
        words.hosts = NothingAnswers(host, port, link);
        if (!words.hosts.empty())
            FailCode("connect", code, Hint(last.code, Situation::kConnectRefused, words));
    }
    words.where = host.empty() ? "" : " at " + host + " port " + std::to_string(port);
    words.who = (link.bindDn.empty() ? "managerdn" : "bind_dn") +
                std::string(link.bindPassword.empty() ? " and psw" : " and bind_password");
    bool const tls = link.tls != "none" || host.find("ldaps://") != std::string::npos;
    if (tls) {
        bool const startTls = std::string(last.operation) == "starttls";
        std::string const hint =
            Hint(last.code, startTls ? Situation::kStartTls : Situation::kConnectTls, words);
        if (!hint.empty())
            FailCode("connect", code, hint);
    }
    FailCode("connect", code, Hint(code, Situation::kConnect, words));
}

void RefuseCutSettings() {
    std::string const soap = ConfigPath("soap.ini");
    struct Field {
        char const* key;
        size_t room;
        char const* instead;
    };
    for (Field const& f : {Field{"managerdn", sizeof(LdapInfo::managerdn) - 1, "bind_dn"},
                           Field{"psw", sizeof(LdapInfo::psw) - 1, "bind_password"}}) {
        if (!Setting(f.instead).empty())
            continue;  // the record's field is not used for binding
        std::string const value = Setting(f.key);
        if (value.size() > f.room) {
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
    Link const link = CurrentLink();
    LdapInfo info;
    GetLdapAtt(info);
    std::istringstream hosts(info.host);
    int extra = -1;
    for (std::string host; hosts >> host;)
        ++extra;
    for (int i = 0; rc == QORLDAP_E_FAILED && link.reconnect && i < extra; ++i) {
        QorLdapResult last = {};
        QorLdapLastResult(&last);
        if (!Unreachable(last.code))
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

void ConnectShared() {
    RefuseCutSettings();
    int rc = ConnectWithFailover([] { return ConnectLdap(); });
    if (rc != QORLDAP_OK) {
        LdapInfo info;
        GetLdapAtt(info);
        FailConnect(rc, info.host, info.port, info.basedn);
    }
}

}  // namespace qortool
