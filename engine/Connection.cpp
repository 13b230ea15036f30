// The connection sequence: dial, secure, bind, check the root; and the search every read uses.
#include "engine/Connection.h"

#include <chrono>

#include "engine/RootCheck.h"
#include "qorldap/result_codes.h"

Connection::Connection(ServerSettings const& settings)
    : settings_(settings), link_(settings.Link()) {
    binding_.WatchConnection(link_.reconnect);
    binding_.FailFast(link_.timeout > 0);
}

int Connection::Connect(RootCheck& root) {
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
    int rc = Dial(root);
    if (rc != QORLDAP_OK) {
        failedConnects_.fetch_add(1, std::memory_order_release);
    }
    return rc;
}

int Connection::Dial(RootCheck& root) {
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
    bool rootOk = root.ValidateRootAtt();
    connecting_ = nullptr;
    if (!rootOk) {
        return QORLDAP_E_ROOT;
    }
    handle_.store(ld, std::memory_order_release);
    return QORLDAP_OK;
}

ldap* Connection::OpenHandle(LdapInfo const& settings) {
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
bool Connection::SecureHandle(ldap* ld, LdapInfo const& settings) {
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

int Connection::Search(char const* base, int scope, char const* filter, SearchResult& result,
                       char** attributes) {
    int rc = binding_.LdapSearchExtS(result.Handle(), base, scope, filter, attributes, 0, nullptr,
                                     nullptr, nullptr, 0, result.Out());
    if (rc != 0) {
        result.Reset();
    }
    return rc;
}
