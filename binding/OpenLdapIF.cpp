#include "binding/OpenLdapIF.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <type_traits>

#include "binding/LastResult.h"
#include "binding/LdapNames.h"
#include "platform/System.h"

namespace {

// "libldap.so" comes only with the development package. Where only the run-time library is
// installed, the versioned names that distributions ship are tried after it, in this order.
char const* const kLibraryNames[] = {
    LDAP_LIBRARY_FILE,  "libldap.so.2",     "libldap-2.5.so.0",
    "libldap-2.6.so.0", "libldap-2.4.so.2", "libldap_r-2.4.so.2",
};

void* LoadDirectoryLibrary() {
    char const* chosen = std::getenv(LDAP_LIBRARY_ENV);
    if (chosen != nullptr && chosen[0] != '\0') {
        return CSystem::LoadLib(chosen);
    }
    for (char const* name : kLibraryNames) {
        if (void* handle = CSystem::LoadLib(name)) {
            return handle;
        }
    }
    return nullptr;
}

// libldap sets up its process-wide defaults on first use without a lock of its own, and every
// new handle copies them; two engines making their first handles at once would race on them.
// So the defaults are set up once per process, before any binding hands out its first entry
// point: reading an option of the global defaults does exactly that and sends nothing.
void InitialiseGlobalDefaults(void* library) {
    static std::once_flag once;
    std::call_once(once, [library] {
        using GetOptionFn = int (*)(LDAP*, int, void*);
        auto getOption =
            reinterpret_cast<GetOptionFn>(CSystem::GetProcAddr(library, LDAP_GET_OPTION_N));
        if (getOption != nullptr) {
            int version = 0;
            getOption(nullptr, LDAP_OPT_PROTOCOL_VERSION, &version);
        }
    });
}

// Whether two texts are the same, at compile time.
constexpr bool SameText(char const* a, char const* b) {
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

bool MeansLinkFailure(int rc) {
    return rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR || rc == LDAP_TIMEOUT;
}

}  // namespace

// LdapGetLastError belongs to other makers' client libraries, and libldap has none (the call
// then answers 0). Declared only so that its row is checked like the others; never called.
extern "C" int LdapGetLastError();

// Every row of the table: its name spells its function, and its type is the one <ldap.h> gives.
#define QORLDAP_LDAP_CHECK(slot, Type, name, function, result, parameters)          \
    static_assert(SameText(name, #function), #slot ": " name " is not " #function); \
    static_assert(std::is_same<result(*) parameters, decltype(&function)>::value,   \
                  #slot ": not the type <ldap.h> gives " #function);
QORLDAP_LDAP_FUNCTIONS(QORLDAP_LDAP_CHECK)
#undef QORLDAP_LDAP_CHECK

// The function slots start null by their own initialisers (binding/OpenLdapIF.h).
COpenLdapIF::COpenLdapIF() : library_{nullptr}, handle_(nullptr) {
    pthread_mutex_init(&lock_.mutex, nullptr);
}

// The library stays loaded and the connection open: nothing here ends a connection.
COpenLdapIF::~COpenLdapIF() {
    pthread_mutex_destroy(&lock_.mutex);
}

template <typename Fn>
bool COpenLdapIF::Resolve(Fn& slot, char const* name) {
    void* library = library_.load(std::memory_order_acquire);
    if (library == nullptr) {
        std::lock_guard<std::mutex> guard(loadLock_);
        library = library_.load(std::memory_order_acquire);
        if (library == nullptr) {
            library = LoadDirectoryLibrary();
            if (library == nullptr) {
                return false;
            }
            InitialiseGlobalDefaults(library);
            library_.store(library, std::memory_order_release);
        }
    }
    if (slot == nullptr) {
        slot = reinterpret_cast<Fn>(CSystem::GetProcAddr(library, name));
    }
    return slot != nullptr;
}

namespace {

template <typename R>
bool MeansConnectionLost(R) {
    return false;
}
template <>
bool MeansConnectionLost<int>(int rc) {
    return MeansLinkFailure(rc);
}

}  // namespace

template <typename R, typename Fn, typename... Args>
R COpenLdapIF::Call(Fn& slot, char const* name, R unavailable, Args... args) {
    ScopeLock lock(&lock_);
    if (!Resolve(slot, name)) {
        return unavailable;
    }
    R result = slot(args...);
    if (MeansConnectionLost(result) && watch_.load(std::memory_order_relaxed)) {
        lost_.store(true);
    }
    return result;
}

// The mutex does not hand itself over in arrival order: a thread that fails fast and calls again
// at once can take it ahead of the threads already waiting, again and again. So a waiter does
// not leave its turn to the mutex alone: it looks at the failure count every few milliseconds
// and gives up as soon as a failure has come in since it started to wait.
bool COpenLdapIF::WaitForLock(unsigned long seen) {
    pthread_t const self = pthread_self();
    if (pthread_equal(lock_.owner.load(), self)) {
        return true;  // re-entered from inside a call: ScopeLock goes on without locking
    }
    while (failures_.load(std::memory_order_acquire) == seen) {
        timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += 10 * 1000 * 1000;
        if (until.tv_nsec >= 1000 * 1000 * 1000) {
            until.tv_nsec -= 1000 * 1000 * 1000;
            ++until.tv_sec;
        }
        if (pthread_mutex_timedlock(&lock_.mutex, &until) == 0) {
            if (failures_.load(std::memory_order_acquire) != seen) {
                pthread_mutex_unlock(&lock_.mutex);  // the failure came as the lock was freed
                return false;
            }
            // Held now; the ScopeLock that follows finds us the owner and releases it at its end.
            lock_.owner.store(self);
            return true;
        }
    }
    return false;
}

// Notes a request's result for the calling thread. The server's texts are read only when asked
// for, and only after a failure, so that by default no call is added to the sequence.
void COpenLdapIF::NoteResult(char const* operation, int result, ldap* ld) {
    qor::LastResult& last = qor::LastResult::OfThread();
    last.code = result;
    last.operation = operation;
    last.matchedDn.clear();
    last.diagnostic.clear();
    if (result == LDAP_SUCCESS || ld == nullptr ||
        !qor::LastResult::KeepDiagnostics().load(std::memory_order_relaxed) ||
        !Resolve(getOption_, LDAP_GET_OPTION_N) || !Resolve(memFree_, LDAP_MEMFREE_N)) {
        return;
    }
    auto read = [&](int option, std::string& into) {
        char* text = nullptr;
        if (getOption_(ld, option, &text) == LDAP_OPT_SUCCESS && text != nullptr) {
            into = text;
            memFree_(text);
        }
    };
    read(LDAP_OPT_MATCHED_DN, last.matchedDn);
    read(LDAP_OPT_DIAGNOSTIC_MESSAGE, last.diagnostic);
}

template <typename Fn, typename... Args>
int COpenLdapIF::CallServer(Fn& slot, char const* name, char const* operation, int unavailable,
                            ldap* ld, Args... args) {
    unsigned long const seen = failures_.load(std::memory_order_acquire);
    if (failFast_.load(std::memory_order_relaxed) && !WaitForLock(seen)) {
        int const failure = lastFailure_.load(std::memory_order_relaxed);
        NoteResult(operation, failure, nullptr);
        return failure;
    }
    ScopeLock lock(&lock_);
    if (!Resolve(slot, name)) {
        NoteResult(operation, unavailable, nullptr);
        return unavailable;
    }
    // With reconnection on, a handle known to be lost is about to be dropped: nothing more is
    // sent on it, so no call waits out the timeout again on a server already found silent
    // while the next connection is being made.
    if (watch_.load(std::memory_order_relaxed) && lost_.load() && ld == handle_) {
        NoteResult(operation, LDAP_SERVER_DOWN, nullptr);
        return LDAP_SERVER_DOWN;
    }
    int const result = slot(ld, args...);
    NoteResult(operation, result, ld);
    if (MeansLinkFailure(result)) {
        if (watch_.load(std::memory_order_relaxed)) {
            lost_.store(true);
        }
        lastFailure_.store(result, std::memory_order_relaxed);
        failures_.fetch_add(1, std::memory_order_release);
    }
    return result;
}

template <typename Fn, typename... Args>
void COpenLdapIF::CallVoid(Fn& slot, char const* name, Args... args) {
    ScopeLock lock(&lock_);
    if (Resolve(slot, name)) {
        slot(args...);
    }
}

template <typename R, typename Fn, typename... Args>
R COpenLdapIF::CallLocal(Fn& slot, char const* name, R unavailable, Args... args) {
    if (!failFast_.load(std::memory_order_relaxed)) {
        return Call<R>(slot, name, unavailable, args...);
    }
    std::lock_guard<std::mutex> guard(localLock_);
    return Resolve(slot, name) ? slot(args...) : unavailable;
}

template <typename Fn, typename... Args>
void COpenLdapIF::CallLocalVoid(Fn& slot, char const* name, Args... args) {
    if (!failFast_.load(std::memory_order_relaxed)) {
        CallVoid(slot, name, args...);
        return;
    }
    std::lock_guard<std::mutex> guard(localLock_);
    if (Resolve(slot, name)) {
        slot(args...);
    }
}

ldap* COpenLdapIF::LdapInit(char const* host, int port) {
    ScopeLock lock(&lock_);
    if (!Resolve(init_, LDAP_INIT_N)) {
        return nullptr;
    }
    if (handle_ == nullptr) {
        handle_ = init_(host, port);
    }
    return handle_;
}

int COpenLdapIF::LdapSetOption(ldap* ld, int option, void const* value) {
    return Call<int>(setOption_, LDAP_SET_OPTION_N, 0, ld, option, value);
}

int COpenLdapIF::LdapSimpleBindS(ldap* ld, char const* who, char const* passwd) {
    return CallServer(simpleBindS_, LDAP_SIMPLE_BIND_S_N, "bind", 0, ld, who, passwd);
}

int COpenLdapIF::LdapGetLastErr() {
    return Call<int>(getLastError_, LDAP_GET_LAST_ERROR, 0);
}

char const* COpenLdapIF::LdapErr2String(int err) {
    return Call<char const*>(err2String_, LDAP_ERR2STRING_N, nullptr, err);
}

int COpenLdapIF::LdapSearchExtS(ldap* ld, char const* base, int scope, char const* filter,
                                char** attrs, int attrsonly, ldapcontrol** serverctrls,
                                ldapcontrol** clientctrls, timeval* timeout, int sizelimit,
                                ldapmsg** res) {
    return CallServer(searchExtS_, LDAP_SEARCH_EXT_S_N, "search", 0, ld, base, scope, filter, attrs,
                      attrsonly, serverctrls, clientctrls, timeout, sizelimit, res);
}

ldapmsg* COpenLdapIF::LdapFirstEnry(ldap* ld, ldapmsg* chain) {
    return CallLocal<ldapmsg*>(firstEntry_, LDAP_FIRST_ENTRY_N, nullptr, ld, chain);
}

ldapmsg* COpenLdapIF::LdapNextEntry(ldap* ld, ldapmsg* entry) {
    return CallLocal<ldapmsg*>(nextEntry_, LDAP_NEXT_ENTRY_N, nullptr, ld, entry);
}

char* COpenLdapIF::LdapGetDN(ldap* ld, ldapmsg* entry) {
    return CallLocal<char*>(getDn_, LDAP_GET_DN_N, nullptr, ld, entry);
}

int COpenLdapIF::LdapCountEntries(ldap* ld, ldapmsg* chain) {
    return CallLocal<int>(countEntries_, LDAP_COUNT_ENTRIES_N, 0, ld, chain);
}

char* COpenLdapIF::LdapFirstAttribute(ldap* ld, ldapmsg* entry, berelement** ber) {
    return CallLocal<char*>(firstAttribute_, LDAP_FIRST_ATTRIBUTE_N, nullptr, ld, entry, ber);
}

char* COpenLdapIF::LdapNextAttribute(ldap* ld, ldapmsg* entry, berelement* ber) {
    return CallLocal<char*>(nextAttribute_, LDAP_NEXT_ATTRIBUTE_N, nullptr, ld, entry, ber);
}

int COpenLdapIF::LdapMsgFree(ldapmsg* msg) {
    return CallLocal<int>(msgFree_, LDAP_MSGFREE_N, 0, msg);
}

char** COpenLdapIF::LdapGetValues(ldap* ld, ldapmsg* entry, char const* target) {
    return CallLocal<char**>(getValues_, LDAP_GET_VALUES_N, nullptr, ld, entry, target);
}

berval** COpenLdapIF::LdapGetValuesLen(ldap* ld, ldapmsg* entry, char const* target) {
    return CallLocal<berval**>(getValuesLen_, LDAP_GET_VALUES_LEN_N, nullptr, ld, entry, target);
}

void COpenLdapIF::LdapValueFree(char** vals) {
    CallLocalVoid(valueFree_, LDAP_VALUE_FREE_N, vals);
}

void COpenLdapIF::LdapValueFreeLen(berval** vals) {
    CallLocalVoid(valueFreeLen_, LDAP_VALUE_FREE_LEN_N, vals);
}

void COpenLdapIF::LdapMemFree(void* p) {
    CallLocalVoid(memFree_, LDAP_MEMFREE_N, p);
}

int COpenLdapIF::LdapAddS(ldap* ld, char const* dn, ldapmod** attrs) {
    return CallServer(addS_, LDAP_ADD_S_N, "add", 0, ld, dn, attrs);
}

int COpenLdapIF::LdapDeleteS(ldap* ld, char const* dn) {
    return CallServer(deleteS_, LDAP_DELETE_S_N, "delete", 0, ld, dn);
}

int COpenLdapIF::LdapModifyS(ldap* ld, char const* dn, ldapmod** mods) {
    return CallServer(modifyS_, LDAP_MODIFY_S_N, "modify", 0, ld, dn, mods);
}

int COpenLdapIF::LdapAdd(ldap* ld, char const* dn, ldapmod** attrs) {
    return CallServer(add_, LDAP_ADD_N, "add", 0, ld, dn, attrs);
}

void COpenLdapIF::BerFree(berelement* ber, int freebuf) {
    if (ber != nullptr) {
        CallLocalVoid(berFree_, BER_FREE_N, ber, freebuf);
    }
}

int COpenLdapIF::LdapCreatePageControl(ldap* ld, int pageSize, berval* cookie, int critical,
                                       ldapcontrol** ctrl) {
    return CallLocal<int>(pageControl_, LDAP_CREATE_PAGE_CONTROL_N, LDAP_NOT_SUPPORTED, ld,
                          static_cast<ber_int_t>(pageSize), cookie, critical, ctrl);
}

int COpenLdapIF::LdapParseResult(ldap* ld, ldapmsg* chain, int* code, ldapcontrol*** serverctrls) {
    return CallLocal<int>(parseResult_, LDAP_PARSE_RESULT_N, LDAP_NOT_SUPPORTED, ld, chain, code,
                          static_cast<char**>(nullptr), static_cast<char**>(nullptr),
                          static_cast<char***>(nullptr), serverctrls, 0);
}

ldapcontrol* COpenLdapIF::LdapControlFind(char const* oid, ldapcontrol** ctrls) {
    return CallLocal<ldapcontrol*>(controlFind_, LDAP_CONTROL_FIND_N, nullptr, oid, ctrls,
                                   static_cast<ldapcontrol***>(nullptr));
}

int COpenLdapIF::LdapParsePageResponse(ldap* ld, ldapcontrol* ctrl, int* count, berval* cookie) {
    ber_int_t pages = 0;
    int const rc = CallLocal<int>(parsePageResponse_, LDAP_PARSE_PAGERESPONSE_CONTROL_N,
                                  LDAP_NOT_SUPPORTED, ld, ctrl, &pages, cookie);
    *count = static_cast<int>(pages);
    return rc;
}

void COpenLdapIF::LdapControlFree(ldapcontrol* ctrl) {
    if (ctrl != nullptr) {
        CallLocalVoid(controlFree_, LDAP_CONTROL_FREE_N, ctrl);
    }
}

void COpenLdapIF::LdapControlsFree(ldapcontrol** ctrls) {
    if (ctrls != nullptr) {
        CallLocalVoid(controlsFree_, LDAP_CONTROLS_FREE_N, ctrls);
    }
}

ldap* COpenLdapIF::LdapInitialize(char const* uri) {
    ScopeLock lock(&lock_);
    if (!Resolve(initialize_, LDAP_INITIALIZE_N)) {
        return nullptr;
    }
    if (handle_ == nullptr) {
        LDAP* ld = nullptr;
        if (initialize_(&ld, uri) == LDAP_SUCCESS) {
            handle_ = ld;
        }
    }
    return handle_;
}

int COpenLdapIF::LdapStartTlsS(ldap* ld) {
    return CallServer(startTlsS_, LDAP_START_TLS_S_N, "starttls", LDAP_UNAVAILABLE, ld,
                      static_cast<LDAPControl**>(nullptr), static_cast<LDAPControl**>(nullptr));
}

void COpenLdapIF::DropHandle() {
    ScopeLock lock(&lock_);
    if (handle_ != nullptr && Resolve(unbindExtS_, LDAP_UNBIND_EXT_S_N)) {
        unbindExtS_(handle_, nullptr, nullptr);
    }
    handle_ = nullptr;
    lost_.store(false);
}

int COpenLdapIF::OnConnect(LDAP*, Sockbuf* sb, LDAPURLDesc*, sockaddr*, ldap_conncb* ctx) {
    auto* self = static_cast<COpenLdapIF*>(ctx->lc_arg);
    ber_socket_t fd = -1;
    if (self->sockbufCtrl_ != nullptr && self->sockbufCtrl_(sb, LBER_SB_OPT_GET_FD, &fd) == 1) {
        std::lock_guard<std::mutex> guard(self->socketLock_);
        self->socket_ = fd;
    }
    return 0;  // the connection goes ahead either way
}

// Called before libldap closes a connection's socket.
void COpenLdapIF::OnDisconnect(LDAP*, Sockbuf*, ldap_conncb* ctx) {
    auto* self = static_cast<COpenLdapIF*>(ctx->lc_arg);
    std::lock_guard<std::mutex> guard(self->socketLock_);
    self->socket_ = -1;
}

int COpenLdapIF::BoundSockets(ldap* ld, int seconds) {
    {
        ScopeLock lock(&lock_);
        if (seconds <= 0 || !Resolve(sockbufCtrl_, BER_SOCKBUF_CTRL_N)) {
            return LDAP_OPT_ERROR;
        }
    }
    socketSeconds_ = seconds;
    connectCallback_.lc_add = &COpenLdapIF::OnConnect;
    connectCallback_.lc_del = &COpenLdapIF::OnDisconnect;
    connectCallback_.lc_arg = this;
    return LdapSetOption(ld, LDAP_OPT_CONNECT_CB, &connectCallback_);
}

COpenLdapIF::HandshakeWatch::HandshakeWatch(COpenLdapIF& binding) : binding_(binding) {
    int const seconds = binding_.socketSeconds_;
    if (seconds <= 0) {
        return;
    }
    watcher_ = std::thread([this, seconds] {
        std::unique_lock<std::mutex> wait(lock_);
        if (returned_.wait_for(wait, std::chrono::seconds(seconds), [this] { return done_; })) {
            return;
        }
        std::lock_guard<std::mutex> guard(binding_.socketLock_);
        if (binding_.socket_ >= 0) {
            shutdown(binding_.socket_, SHUT_RDWR);
        }
    });
}

COpenLdapIF::HandshakeWatch::~HandshakeWatch() {
    if (!watcher_.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        done_ = true;
    }
    returned_.notify_one();
    watcher_.join();
}
