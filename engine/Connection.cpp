// The connection sequence: dial, secure, bind, check the root; and the search every read uses.
#include "engine/Connection.h"

#include <chrono>

#include "binding/LastResult.h"
#include "engine/RootCheck.h"
#include "qorldap/result_codes.h"

namespace {

long long Ticks() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

// The codes of a link that failed, as opposed to a server that answered with a refusal.
bool LinkFailure(int code) {
    return code == LDAP_SERVER_DOWN || code == LDAP_TIMEOUT || code == LDAP_CONNECT_ERROR;
}

}  // namespace

Connection::Connection(ServerSettings const& settings)
    : settings_(settings), link_(settings.Link()), pool_(settings.Pool()) {
    binding_.WatchConnection(Redials());
    binding_.FailFast(link_.timeout > 0);
}

Connection::~Connection() {
    HostSet* hosts = hosts_.load();
    if (hosts != nullptr && handle_.load() != nullptr) {
        hosts->Closed(connected_.load());
    }
}

void Connection::Join(HostSet& hosts) {
    joined_ = true;
    hosts_.store(&hosts);
    binding_.WatchConnection(true);
}

bool Connection::IdleDue() const {
    if (pool_.idleCheck <= 0) {
        return false;
    }
    auto const idle = std::chrono::steady_clock::duration(Ticks() - lastUse_.load());
    return idle > std::chrono::seconds(pool_.idleCheck);
}

void Connection::Touch() {
    // Only idle_check reads it: without it no thread writes the shared word.
    if (pool_.idleCheck > 0) {
        lastUse_.store(Ticks(), std::memory_order_relaxed);
    }
}

bool Connection::FailbackDue() {
    HostSet* hosts = hosts_.load(std::memory_order_acquire);
    if (hosts == nullptr || pool_.failback <= 0) {
        return false;
    }
    int const port = Settings().port;
    return hosts->FailbackDue(connected_.load(), [&](std::string const& host) {
        return probe_.Answers(host, port, link_);
    });
}

bool Connection::BalanceDue(bool limited) {
    HostSet* hosts = hosts_.load(std::memory_order_acquire);
    if (hosts == nullptr || hosts->Order() != HostSet::Choice::kLeastBusy) {
        return false;
    }
    if (limited) {
        long long const now = Ticks();
        if (now < nextBalance_.load(std::memory_order_relaxed)) {
            return false;
        }
        nextBalance_.store(
            now + std::chrono::steady_clock::duration(std::chrono::seconds(1)).count(),
            std::memory_order_relaxed);
    }
    return hosts->Crowded(connected_.load());
}

bool Connection::CheckDue() {
    return IdleDue() || FailbackDue() || BalanceDue(true);
}

int Connection::Connect(RootCheck& root) {
    if (handle_.load(std::memory_order_acquire) != nullptr && !NeedsReconnect() && !CheckDue()) {
        Touch();
        return QORLDAP_OK;
    }
    // Link keys that do not read refuse every connection before anything is sent.
    if (!link_.Valid() || !pool_.Valid()) {
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
        // The slices are timed on the system clock: the steady-clock wait of try_lock_for goes
        // to pthread_mutex_clocklock, which ThreadSanitizer does not follow, so that every
        // unlock after it was reported as the unlock of a mutex not held.
        auto slice = [] {
            return std::chrono::system_clock::now() + std::chrono::milliseconds(10);
        };
        while (!guard.try_lock_until(slice())) {
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
    } else {
        Touch();
    }
    return rc;
}

void Connection::Drop(bool failed, std::unique_lock<std::shared_mutex>& quiet) {
    // The lost handle is released once no operation uses it any more, and no operation
    // starts until the steps after this have dialled and bound afresh. The call that met the
    // loss has already returned its code.
    quiet = std::unique_lock<std::shared_mutex>(operations_);
    bool const held = handle_.load(std::memory_order_acquire) != nullptr;
    binding_.DropHandle();
    handle_.store(nullptr, std::memory_order_release);
    HostSet* hosts = hosts_.load(std::memory_order_acquire);
    if (hosts == nullptr) {
        // The next dial starts the host list one further on. A server that has gone refuses
        // the connection and libldap moves down the list by itself; one that has stopped
        // answering still accepts it, and only starting elsewhere gets past it.
        ++hostShift_;
        return;
    }
    if (held) {
        hosts->Closed(connected_.load());
    }
    if (failed) {
        hosts->Failed(connected_.load());
    }
}

int Connection::Dial(RootCheck& root) {
    std::unique_lock<std::shared_mutex> quiet;
    if (NeedsReconnect()) {
        Drop(true, quiet);
    } else if (handle_.load(std::memory_order_acquire) != nullptr) {
        // Another thread may have checked or redialled while this one waited.
        if (IdleDue()) {
            // A connection a firewall has cut answers nothing: it is dialled afresh here rather
            // than left to fail the call that comes with it.
            // The connection was cut, not necessarily its host: the host is tried first again,
            // and passed over only if it refuses the new connection.
            if (!Answers(handle_.load())) {
                Drop(false, quiet);
            }
            Touch();
        }
        if (handle_.load(std::memory_order_acquire) != nullptr &&
            (FailbackDue() || BalanceDue(false))) {
            Drop(false, quiet);
        }
    }
    if (handle_.load(std::memory_order_acquire) != nullptr) {
        return QORLDAP_OK;
    }
    LdapInfo const settings = Settings();
    if (hosts_.load() == nullptr && pool_.failback > 0) {
        // Failback needs to know which host holds the connection: the hosts are dialled one
        // at a time from now on. The list is the one in force at the first dial.
        ownHosts_ =
            std::make_unique<HostSet>(settings.host, HostSet::Choice::kInOrder, pool_.failback);
        hosts_.store(ownHosts_.get(), std::memory_order_release);
    }
    if (hosts_.load() != nullptr) {
        return AttemptEach(root, settings);
    }
    // Without reconnection the shift stays 0 and the host text goes to libldap as it was set.
    return Attempt(root, settings, LinkOptions::RotateHosts(settings.host, hostShift_));
}

int Connection::AttemptEach(RootCheck& root, LdapInfo const& settings) {
    HostSet& hosts = *hosts_.load();
    int rc = QORLDAP_E_FAILED;
    for (std::size_t i : hosts.Candidates()) {
        // The binding hands back the handle it holds whatever host it is asked for: each host
        // starts on a fresh one.
        binding_.DropHandle();
        rc = Attempt(root, settings, hosts.Host(i));
        if (rc == QORLDAP_OK) {
            connected_.store(i);
            hosts.Opened(i);
            return rc;
        }
        binding_.DropHandle();
        // A refused bind or a missing base is the providers' answer, the same on every one of
        // them. A read host that gives it is only one replica out of step: the next one is
        // asked, and this one passed over for a while.
        bool const linkFailed =
            rc == QORLDAP_E_FAILED && LinkFailure(qor::LastResult::OfThread().code);
        if (!linkFailed && hosts.Order() == HostSet::Choice::kInOrder) {
            return rc;
        }
        hosts.Failed(i);
    }
    return rc;
}

int Connection::Attempt(RootCheck& root, LdapInfo const& settings, std::string const& hosts) {
    // After a refused bind the binding hands back the very same handle, and the option and the
    // bind are repeated on it with the settings in force now.
    ldap* ld = OpenHandle(hosts, settings.port);
    if (ld == nullptr) {
        return QORLDAP_E_FAILED;
    }
    int version = LDAP_VERSION3;
    binding_.LdapSetOption(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (!SecureHandle(ld, hosts.c_str())) {
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

ldap* Connection::OpenHandle(std::string const& hosts, int port) {
    if (link_.tls == LinkOptions::Tls::kLdaps) {
        return binding_.LdapInitialize(LinkOptions::LdapsUris(hosts.c_str(), port).c_str());
    }
    // ldap_init takes host names only; a list that holds URIs (ldap://, ldaps://, ldapi://)
    // goes to ldap_initialize, with the hosts written without a scheme made ldap:// URIs.
    if (LinkOptions::HasUri(hosts.c_str())) {
        return binding_.LdapInitialize(LinkOptions::Uris(hosts.c_str(), port, "ldap").c_str());
    }
    return binding_.LdapInit(hosts.c_str(), port);
}

bool Connection::Answers(ldap* ld) {
    NoAttributes none;
    SearchResult result(binding_, ld);
    return Search("", LDAP_SCOPE_BASE, "(objectClass=*)", result, none.List()) == LDAP_SUCCESS;
}

void Connection::TlsOptions(COpenLdapIF& binding, ldap* ld, LinkOptions const& link) {
    if (!link.caCert.empty()) {
        binding.LdapSetOption(ld, LDAP_OPT_X_TLS_CACERTFILE, link.caCert.c_str());
    }
    int require = link.verify ? LDAP_OPT_X_TLS_DEMAND : LDAP_OPT_X_TLS_NEVER;
    binding.LdapSetOption(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &require);
    int server = 0;
    binding.LdapSetOption(ld, LDAP_OPT_X_TLS_NEWCTX, &server);
}

// Options are set on the handle before anything is sent. A failed StartTLS drops the handle, so
// that nothing is ever bound in the clear over a link that was meant to be protected.
bool Connection::SecureHandle(ldap* ld, char const* hosts) {
    if (link_.timeout > 0) {
        timeval limit = {link_.timeout, 0};
        binding_.LdapSetOption(ld, LDAP_OPT_NETWORK_TIMEOUT, &limit);
        binding_.LdapSetOption(ld, LDAP_OPT_TIMEOUT, &limit);
        // An LDAPS handshake reads from a blocking socket, which neither option bounds.
        if (link_.tls == LinkOptions::Tls::kLdaps || LinkOptions::HasLdapsUri(hosts)) {
            binding_.BoundSockets(ld, link_.timeout);
        }
    }
    // An ldaps:// host asks for TLS by itself. When soap.ini names a CA file or the
    // verification, they apply to it as they do with tls = ldaps; otherwise libldap's own
    // defaults (ldap.conf) stay in force, as they always did.
    if (link_.tls == LinkOptions::Tls::kNone &&
        !(LinkOptions::HasLdapsUri(hosts) && (!link_.caCert.empty() || link_.verifySet))) {
        return true;
    }
    TlsOptions(binding_, ld, link_);
    if (link_.tls == LinkOptions::Tls::kStartTls) {
        int const rc = binding_.LdapStartTlsS(ld);
        if (rc != LDAP_SUCCESS) {
            binding_.DropHandle();
            // Dropping the handle forgets that the link failed; a server that is gone or silent
            // is still passed over by the next attempt, as after any other lost connection.
            if (link_.reconnect && hosts_.load() == nullptr && LinkFailure(rc)) {
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
