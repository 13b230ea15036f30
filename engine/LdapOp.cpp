// Engine object, server settings and the connection sequence.
#include "engine/LdapOp.h"

#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "platform/CallerSettings.h"
#include "platform/IniFile.h"

namespace {

// The port reads as strtol with base 10 reads it: leading blanks and a sign are accepted,
// reading stops at the first non-digit, and text without leading digits gives 0.
int ReadPort(std::string const& text) {
    long port = std::strtol(text.c_str(), nullptr, 10);
    if (port > INT_MAX)
        return INT_MAX;
    if (port < INT_MIN)
        return INT_MIN;
    return static_cast<int>(port);
}

}  // namespace

CLdapOp::CLdapOp() : handle_(nullptr), certFlag_(true) {
    std::memset(&info_, 0, sizeof info_);
    GetConfig(SECTION_LDAP);
    binding_.WatchConnection(link_.reconnect);
    binding_.FailFast(link_.timeout > 0);
    // An engine whose schema file does not load is built all the same, with no templates;
    // the operations that need templates then refuse.
    templates_.Load();
}

// The connection is neither unbound nor closed: a connection lives as long as the process.
CLdapOp::~CLdapOp() = default;

// Reads the keys in a fixed order, each on its own. A key that is missing keeps the field as it
// was. A text longer than its field is cut to the field (255 characters for host and basedn,
// 32 for managerdn and psw).
void CLdapOp::GetConfig(std::string const& section) {
    // One read of the file for all the keys.
    // The program's own settings (qorldap/Settings.h) count as lines of the file.
    IniFile soap = IniFile::Load(SOAP_INI);
    qor::OverlayCallerSettings(soap, section);
    std::string value;
    if (soap.Get(section, SECTION_LDAP_HOST, value)) {
        qor::CutCopy(info_.host, value.c_str());
    }
    if (soap.Get(section, SECTION_LDAP_PSW, value)) {
        qor::CutCopy(info_.psw, value.c_str());
    }
    if (soap.Get(section, SECTION_LDAP_BASEDN, value)) {
        qor::CutCopy(info_.basedn, value.c_str());
    }
    if (soap.Get(section, SECTION_LDAP_MANGERDN, value)) {
        qor::CutCopy(info_.managerdn, value.c_str());
    }
    if (soap.Get(section, SECTION_LDAP_PORT, value)) {
        info_.port = ReadPort(value);
    }
    link_.Read(soap, section);
}

int CLdapOp::ConnectLdap() {
    if (handle_.load(std::memory_order_acquire) != nullptr && !NeedsReconnect()) {
        return QORLDAP_OK;
    }
    // Link keys that do not read refuse every connection before anything is sent.
    if (!link_.Valid()) {
        return QORLDAP_E_FAILED;
    }
    // Threads sharing one engine connect one at a time; the others then find the handle set.
    // With a timeout, a thread that waited here while another thread's attempt failed fails
    // too, at once, rather than dialling a dead or silent server once more on its own time.
    // The mutex does not hand itself over in arrival order, so a waiter looks at the count of
    // failed attempts every few milliseconds rather than leaving its turn to the mutex alone.
    unsigned long const failedBefore = failedConnects_.load(std::memory_order_acquire);
    auto failedMeanwhile = [&] {
        return failedConnects_.load(std::memory_order_acquire) != failedBefore &&
               handle_.load(std::memory_order_acquire) == nullptr;
    };
    std::unique_lock<std::timed_mutex> guard(connectLock_, std::defer_lock);
    if (link_.timeout > 0) {
        while (!guard.try_lock_for(std::chrono::milliseconds(10))) {
            if (failedMeanwhile()) {
                return QORLDAP_E_FAILED;
            }
        }
        if (failedMeanwhile()) {
            return QORLDAP_E_FAILED;
        }
    } else {
        guard.lock();
    }
    int rc = Dial();
    if (rc != QORLDAP_OK) {
        failedConnects_.fetch_add(1, std::memory_order_release);
    }
    return rc;
}

int CLdapOp::Dial() {
    std::unique_lock<std::shared_mutex> quiet;
    if (NeedsReconnect()) {
        // The lost handle is released once no operation uses it any more, and no operation
        // starts until the steps below have dialled and bound afresh. The call that met the
        // loss has already returned its code.
        quiet = std::unique_lock<std::shared_mutex>(operations_);
        binding_.DropHandle();
        handle_.store(nullptr, std::memory_order_release);
        // The next dial starts the host list one further on. A server that has gone refuses
        // the connection and libldap moves down the list by itself; one that has stopped
        // answering still accepts it, and only starting elsewhere gets past it.
        ++hostShift_;
    }
    if (handle_.load(std::memory_order_acquire) != nullptr) {
        return QORLDAP_OK;
    }
    // After a refused bind the binding hands back the very same handle, and the option and the
    // bind are repeated on it with the settings in force now.
    LdapInfo const settings = Settings();
    ldap* ld = OpenHandle(settings);
    if (ld == nullptr) {
        return QORLDAP_E_FAILED;
    }
    int version = LDAP_VERSION3;
    binding_.LdapSetOption(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (!SecureHandle(ld, settings)) {
        return QORLDAP_E_FAILED;
    }
    char const* who = link_.bindDn.empty() ? settings.managerdn : link_.bindDn.c_str();
    char const* secret = link_.bindPassword.empty() ? settings.psw : link_.bindPassword.c_str();
    int bound = 0;
    {
        // Over LDAPS the connection, and its handshake, is made by the bind.
        COpenLdapIF::HandshakeWatch watch(binding_);
        bound = binding_.LdapSimpleBindS(ld, who, secret);
    }
    if (bound != 0) {
        // The binding would hand this handle back, TLS already running on it, and a second
        // StartTLS on it fails: with StartTLS the next attempt starts on a fresh handle.
        if (link_.tls == LinkOptions::Tls::kStartTls) {
            binding_.DropHandle();
        }
        return QORLDAP_E_FAILED;
    }
    // The root check runs on the bound handle before the engine counts as connected.
    connecting_ = ld;
    bool rootOk = ValidateRootAtt();
    connecting_ = nullptr;
    if (!rootOk) {
        return QORLDAP_E_ROOT;
    }
    handle_.store(ld, std::memory_order_release);
    return QORLDAP_OK;
}

ldap* CLdapOp::OpenHandle(LdapInfo const& settings) {
    // Without reconnection the shift stays 0 and the host text goes to libldap as it was set.
    std::string const hosts = LinkOptions::RotateHosts(settings.host, hostShift_);
    if (link_.tls == LinkOptions::Tls::kLdaps) {
        return binding_.LdapInitialize(
            LinkOptions::LdapsUris(hosts.c_str(), settings.port).c_str());
    }
    // ldap_init takes host names only; a list that holds URIs (ldap://, ldaps://, ldapi://)
    // goes to ldap_initialize, with the hosts written without a scheme made ldap:// URIs.
    if (LinkOptions::HasUri(hosts.c_str())) {
        return binding_.LdapInitialize(
            LinkOptions::Uris(hosts.c_str(), settings.port, "ldap").c_str());
    }
    return binding_.LdapInit(hostShift_ == 0 ? settings.host : hosts.c_str(), settings.port);
}

// Options are set on the handle before anything is sent. A failed StartTLS drops the handle, so
// that nothing is ever bound in the clear over a link that was meant to be protected.
bool CLdapOp::SecureHandle(ldap* ld, LdapInfo const& settings) {
    if (link_.timeout > 0) {
        timeval limit = {link_.timeout, 0};
        binding_.LdapSetOption(ld, LDAP_OPT_NETWORK_TIMEOUT, &limit);
        binding_.LdapSetOption(ld, LDAP_OPT_TIMEOUT, &limit);
        // An LDAPS handshake reads from a blocking socket, which neither option bounds.
        if (link_.tls == LinkOptions::Tls::kLdaps || LinkOptions::HasLdapsUri(settings.host)) {
            binding_.BoundSockets(ld, link_.timeout);
        }
    }
    // An ldaps:// host asks for TLS by itself. When soap.ini names a CA file or the
    // verification, they apply to it as they do with tls = ldaps; otherwise libldap's own
    // defaults (ldap.conf) stay in force, as they always did.
    if (link_.tls == LinkOptions::Tls::kNone &&
        !(LinkOptions::HasLdapsUri(settings.host) && (!link_.caCert.empty() || link_.verifySet))) {
        return true;
    }
    if (!link_.caCert.empty()) {
        binding_.LdapSetOption(ld, LDAP_OPT_X_TLS_CACERTFILE, link_.caCert.c_str());
    }
    int require = link_.verify ? LDAP_OPT_X_TLS_DEMAND : LDAP_OPT_X_TLS_NEVER;
    binding_.LdapSetOption(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &require);
    int server = 0;
    binding_.LdapSetOption(ld, LDAP_OPT_X_TLS_NEWCTX, &server);
    if (link_.tls == LinkOptions::Tls::kStartTls) {
        int const rc = binding_.LdapStartTlsS(ld);
        if (rc != LDAP_SUCCESS) {
            binding_.DropHandle();
            // Dropping the handle forgets that the link failed; a server that is gone or silent
            // is still passed over by the next attempt, as after any other lost connection.
            if (link_.reconnect &&
                (rc == LDAP_SERVER_DOWN || rc == LDAP_TIMEOUT || rc == LDAP_CONNECT_ERROR)) {
                ++hostShift_;
            }
            return false;
        }
    }
    return true;
}

int CLdapOp::Search(char const* base, int scope, char const* filter, SearchResult& result,
                    char** attributes) {
    int rc = binding_.LdapSearchExtS(result.Handle(), base, scope, filter, attributes, 0, nullptr,
                                     nullptr, nullptr, 0, result.Out());
    if (rc != 0) {
        result.Reset();
    }
    return rc;
}

void CLdapOp::GetLdapAtt(LdapInfo& info) {
    info = Settings();
}

void CLdapOp::SetLdapAtt(LdapInfo info) {
    std::lock_guard<std::mutex> guard(settingsLock_);
    info_ = info;
}

void CLdapOp::FreeKey(unsigned char*& key) {
    if (key != nullptr) {
        delete[] key;
        key = nullptr;
    }
}

void CLdapOp::FreeAtt(tagAtt* att) {
    if (att == nullptr) {
        return;
    }
    if (att->items != nullptr) {
        delete[] att->items;
        att->items = nullptr;
    }
    att->itemCount = 0;
}

void CLdapOp::FreeDN(tagDN* list, int /*count*/) {
    delete[] list;
}

bool CLdapOp::ReadConfig() {
    return templates_.Load();
}

bool CLdapOp::ReadEachConfig(std::string const& section, std::string const& file, tagAtt& tmpl) {
    return TemplateTable::ReadEachConfig(section, file, tmpl);
}

bool CLdapOp::SeparateData(std::string const& text, std::string& name, std::string& code,
                           int& role) {
    return TemplateTable::SeparateData(text, name, code, role);
}

int CLdapOp::GetLdapOpAtt(char const* name, tagAtt& out) {
    templates_.Find(name, out);
    return 1;
}

void CLdapOp::MakeLower(std::string& text) {
    Naming::MakeLower(text);
}

bool CLdapOp::CompareNameSame(char const* a, char const* b) {
    return Naming::CompareNameSame(a, b);
}

bool CLdapOp::GetFilter(char const* dn, int index, std::string& value, std::string& type) {
    return Naming::GetFilter(dn, index, value, type);
}

bool CLdapOp::GetParentDN(char const* dn, std::string& parent) {
    return Naming::GetParentDN(dn, parent);
}

bool CLdapOp::ParseSubject(char const* subject, char const* key, std::string& value) {
    return Naming::ParseSubject(subject, key, value);
}

bool CLdapOp::CheckSubject(char const* subject, std::string* fault) const {
    return naming_.CheckSubject(subject, fault);
}

bool CLdapOp::GetCondition(char const* name, std::string& condition, int& kind) {
    return naming_.GetCondition(name, condition, kind);
}

bool CLdapOp::FromCNToName(char const* component, char const* type, char const* namingAtt,
                           std::string& value) {
    return Naming::FromCNToName(component, type, namingAtt, value);
}
