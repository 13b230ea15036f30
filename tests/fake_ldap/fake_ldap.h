/*
 * Control interface of the fake LDAP client library used by the tests.
 *
 * The fake is a shared library named libldap.so that exports the libldap client functions our
 * binding resolves with dlsym (same C signatures as <ldap.h>). It talks to no server: every call
 * is appended to a text log, answers come from a script the test sets up, and every object it
 * hands out (result chains, value arrays, strings, BerElements) is accounted for until released.
 * The same file also exports the fake_ldap_* functions below.
 *
 * A test must drive the very copy of the library that the code under test loads. Either
 * point QORLDAP_LDAP_LIBRARY at the built file and dlopen that same path here (glibc maps one file
 * once, so both handles share one state), or use the FakeLdap helper at the end of this header,
 * which does exactly that.
 *
 * CMake: tests/fake_ldap/CMakeLists.txt defines fake_ldap_use(<target>), which adds the include
 * directory, the build dependencies and the definitions FAKE_LDAP_PATH (path of libldap.so) and
 * FAKE_LDAP_MISSING_PATH (path of libldap_missing.so, the same library without
 * ldap_search_ext_s, for a binding that must refuse a library lacking an entry point).
 *
 * ---------------------------------------------------------------------------------------------
 * Log format: one line per call, '\n' terminated, in call order. Strings given by the caller are
 * printed as they are, except bytes below 0x20 and 0x7f which appear as \xNN; a NULL string or
 * pointer prints as "null". Functions that return a status code do not log it (the test chose
 * it); functions that return data log it after " -> ".
 *
 *   ldap_init host=127.0.0.1 port=389
 *   ldap_initialize uri=ldap://127.0.0.1:389
 *   ldap_set_option opt=17 value=3             (opt in decimal; see value forms below)
 *   ldap_set_option global opt=17 value=3      ("global": the handle argument was NULL)
 *   ldap_get_option opt=49                     (also "global" for a NULL handle)
 *   ldap_simple_bind_s dn=cn=admin,o=root pw=secret
 *   ldap_start_tls_s
 *   ldap_unbind_ext_s
 *   ldap_search_ext_s base=cn=a,o=b scope=0 filter=(signPubcer;binary=*) attrs=null attrsonly=0
 *       sctrls=null cctrls=null timeout=null sizelimit=0          (all on one line)
 *       attrs=[cn,signPubcer;binary] for a list ([] when empty); sctrls/cctrls=N (count) when
 *       non-NULL; timeout={sec,usec} when non-NULL
 *   ldap_count_entries -> 2                    (-1 for a NULL or invalid chain)
 *   ldap_first_entry -> cn=a,o=b               (the entry's DN, or "null")
 *   ldap_next_entry -> null
 *   ldap_get_dn -> cn=a,o=b
 *   ldap_first_attribute -> signPubcer;binary  (or "null")
 *   ldap_next_attribute -> null
 *   ldap_get_values_len attr=signPubcer;binary -> 1   (number of values, or "null")
 *   ldap_get_values attr=cn -> 1
 *   ldap_value_free_len  /  ldap_value_free  /  ldap_memfree  /  ldap_msgfree
 *       (each followed by " null" when given a NULL pointer)
 *   ber_free freebuf=0                         ("ber_free null" for a NULL pointer)
 *   ldap_modify_s dn=cn=a,o=b mods=[op=0x82 type=signPubcer;binary bvals=1:len=5]
 *   ldap_add_s dn=cn=a,o=b mods=[op=0x0 type=objectClass vals=top|person][op=0x0 type=cn vals=a]
 *   ldap_add dn=... mods=...                   (same form as ldap_add_s)
 *   ldap_delete_s dn=cn=a,o=b
 *   ldap_err2string rc=49
 *
 * mods: each LDAPMod in array order as [op=0x%x type=T VALUES] with op the whole mod_op (so
 * 0x80 marks LDAP_MOD_BVALUES). VALUES is "bvals=N:len=A,B,..." for berval values ("bvals=0" for
 * an empty array, "bvals=null" for a NULL array) or "vals=V1|V2|..." for strings ("vals=[]" for an
 * empty array, "vals=null" for NULL). mods=(empty) when the array holds no LDAPMod at all,
 * mods=null for a NULL array. The bytes written can be read back with fake_ldap_written_value.
 *
 * set_option value forms: int options (protocol version, deref, size/time limit, result code,
 * TLS require-cert, TLS new-context) print the int; on/off options (referrals, restart) print
 * "on" or "off"; timeout options print {sec,usec}; string options (URI, host name, TLS file and
 * directory names) print the string; anything else prints "ptr" ("null" for a NULL value).
 *
 * Misuse that real libldap would punish with a crash or a leak -- a pointer that was never handed
 * out or is already released, an entry of a freed chain, a call on an unbound handle, ber_free
 * with freebuf != 0 on the BerElement of ldap_first_attribute -- is logged with " ERROR(reason)"
 * appended, counted by fake_ldap_errors(), and otherwise ignored (nothing is freed twice).
 *
 * With fake_ldap_set_log_handles(1), calls that take a handle get " ld=N" appended and
 * ldap_init/ldap_initialize get " -> ld=N". Handles are numbered in creation order, from 1 after a
 * reset when no handle is open (otherwise from one past the highest open handle).
 *
 * ---------------------------------------------------------------------------------------------
 * Behaviour beyond the script, copied from real libldap because the binding must cope with it:
 *  - A new handle speaks protocol version 2 (or the version last set with a NULL handle); a bind on
 *    a version 2 handle returns 2 (LDAP_PROTOCOL_ERROR) as slapd does.
 *  - ldap_init("", port) gives a handle on which every operation returns -1.
 *  - ldap_add/ldap_add_s refuse an LDAPMod with a NULL value array with -9 (ldap_add: -1) and one
 *    with an empty value array with 2.
 *  - A search that ends with a positive result code still hands back a result chain the caller
 *    must free with ldap_msgfree (see fake_ldap_set_search_result_on_error); a negative code
 *    gives none.
 *  - After fake_ldap_server_down(), every operation on the handles open at that moment returns -1
 *    (until the next reset), as libldap never reconnects; new handles work.
 *  - ldap_get_option answers LDAP_OPT_PROTOCOL_VERSION and LDAP_OPT_RESULT_CODE (the last code an
 *    operation on that handle returned); any other option gives -1 (LDAP_OPT_ERROR).
 *  - ldap_first_attribute always hands out a BerElement (even for an entry without attributes),
 *    to be released with ber_free(ber, 0).
 * The fake keeps no directory: writes change nothing that later searches return.
 */
#ifndef QORLDAP_TESTS_FAKE_LDAP_H
#define QORLDAP_TESTS_FAKE_LDAP_H

#ifdef __cplusplus
extern "C" {
#endif

/* Forget the log, call counts, scripted results, scripted entries, recorded writes and error
 * count, and restore the defaults (handles given out, search results on positive errors, no log
 * of handles, protocol version 2 for new handles). Handles and objects still held by the caller
 * stay valid but are no longer counted by fake_ldap_outstanding and fake_ldap_open_handles;
 * releasing them later is not an error. Handles killed by fake_ldap_server_down work again (the
 * code under test may keep one handle for the whole process); each handle keeps its protocol
 * version. */
void fake_ldap_reset(void);

/* Forget only the log and the call counts (to look at one operation after a setup). */
void fake_ldap_clear_log(void);

/* The log as text (format above). The pointer stays valid until the next fake_ldap_log or
 * fake_ldap_reset call; copy it before calling either from another thread. */
const char* fake_ldap_log(void);

/* Number of calls of the named client function since the last reset or clear_log; -1 when the
 * name is not one of the functions the fake exports. */
int fake_ldap_calls(const char* function);

/* From now on `function` returns rc. Accepted for the functions that return a status:
 * ldap_initialize, ldap_set_option, ldap_get_option, ldap_simple_bind_s, ldap_start_tls_s,
 * ldap_unbind_ext_s, ldap_search_ext_s, ldap_add_s, ldap_delete_s, ldap_modify_s and ldap_add
 * (whose value is the message id, -1 for failure; by default ids count up from 1). Returns 0, or
 * -1 for a name it does not accept. A non-zero rc for ldap_initialize also means no handle;
 * ldap_unbind_ext_s releases the handle whatever it returns. */
int fake_ldap_set_result(const char* function, int rc);

/* Queue rc for the next call of `function` only; queued codes are used up in order before the
 * code of fake_ldap_set_result applies again (e.g. bind fails once, then succeeds). A call the
 * fake refuses on its own (invalid or dead handle, bind on a version 2 handle, add with refused
 * mods) leaves the queue alone.
 * Returns 0, or -1 for a name fake_ldap_set_result does not accept or a full queue (64). */
int fake_ldap_push_result(const char* function, int rc);

/* Non-zero: ldap_init returns NULL and ldap_initialize stores NULL in *ldp (and returns the code
 * set for it, 0 by default). */
void fake_ldap_set_init_null(int on);

/* What a search ending with a non-zero code hands back in *res: 0 = nothing (NULL);
 * 1 (default) = for positive codes (server results such as 32 or 4), the same chain a success
 * would give, to be freed by the caller; 2 = for every non-zero code. A search refused because of
 * an invalid or dead handle never hands back anything. */
void fake_ldap_set_search_result_on_error(int mode);

/* Every handle open now becomes dead: all operations on it return -1 (LDAP_SERVER_DOWN), a
 * search hands back no chain; ldap_unbind_ext_s still releases it. Lasts until the handle is
 * released or fake_ldap_reset is called. */
void fake_ldap_server_down(void);

/* Non-zero: add handle numbers to the log (see above). */
void fake_ldap_set_log_handles(int on);

/* ---- Scripted search results ----------------------------------------------------------------
 * A search that succeeds returns a chain holding the scripted entries in the order they were
 * added, then the final result message. Searches are answered from result sets: the first
 * answered search (since the last reset) uses set 0, the next one set 1 and so on; once the last
 * set is reached every later search uses it again. With no entries scripted a search returns an
 * empty chain. Attribute names are matched without regard to case, as libldap does. */

/* Start a new result set; later entries go into it. Set 0 needs no call. */
void fake_ldap_new_result_set(void);

/* Append an entry with this DN to the current result set. Returns 0, -1 for a NULL dn. */
int fake_ldap_add_entry(const char* dn);

/* Make sure the last entry has attribute `attr`, possibly with no values. Returns 0, or -1 when
 * there is no entry yet or attr is NULL. */
int fake_ldap_add_attr(const char* attr);

/* Append a value of len bytes to attribute `attr` of the last entry (creating the attribute).
 * Returns 0, or -1 when there is no entry yet or attr is NULL (data may be NULL when len is 0). */
int fake_ldap_add_value(const char* attr, const void* data, unsigned len);

/* ---- Accounting -----------------------------------------------------------------------------*/

/* Objects handed out since the last reset and not released yet: result chains (ldap_msgfree),
 * value arrays (ldap_value_free / ldap_value_free_len), strings (ldap_memfree) and BerElements
 * (ber_free). Handles are not included. */
int fake_ldap_outstanding(void);

/* The same, per kind, as text: "messages=1 bvalues=0 values=0 strings=2 bers=0 handles=1".
 * Valid until the next call of this function or fake_ldap_reset. */
const char* fake_ldap_outstanding_summary(void);

/* Handles created since the last reset and not yet passed to ldap_unbind_ext_s. */
int fake_ldap_open_handles(void);

/* Misuses detected since the last reset (see ERROR above). */
int fake_ldap_errors(void);

/* ---- Recorded writes ------------------------------------------------------------------------
 * The most recent ldap_add, ldap_add_s or ldap_modify_s (whatever it returned) is kept. */

/* Number of values the first mod naming `attr` (exact spelling, case-insensitive) carried: 0 for
 * a NULL or empty value array, -1 when no mod named it or there was no write. */
int fake_ldap_written_values(const char* attr);

/* The bytes of value `index` of that mod and their length in *len (len may be NULL); NULL when
 * there is no such value. Valid until the next write call or reset. */
const void* fake_ldap_written_value(const char* attr, unsigned index, unsigned* len);

#ifdef __cplusplus
} /* extern "C" */

#include <dlfcn.h>

#include <stdexcept>
#include <string>
#include <vector>

/* Loads the fake by path and resolves its control functions, so a test writes
 *     FakeLdap fake(FAKE_LDAP_PATH);
 *     fake.reset();
 *     fake.add_entry("cn=a,o=b"); fake.add_value("cn", "a");
 *     ... run the code under test with QORLDAP_LDAP_LIBRARY=FAKE_LDAP_PATH ...
 *     EXPECT_EQ(fake.outstanding(), 0) << fake.outstanding_summary();
 * The library is opened with RTLD_NODELETE, so its state lives as long as the process even when
 * every handle on it is closed. Throws std::runtime_error when the file or a function is missing.
 */
struct FakeLdap {
    explicit FakeLdap(const char* path)
        : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {
        if (handle_ == nullptr) {
            const char* why = dlerror();
            throw std::runtime_error(std::string("cannot load fake libldap: ") +
                                     (why ? why : path));
        }
        bind(reset_, "fake_ldap_reset");
        bind(clear_log_, "fake_ldap_clear_log");
        bind(log_, "fake_ldap_log");
        bind(calls_, "fake_ldap_calls");
        bind(set_result_, "fake_ldap_set_result");
        bind(push_result_, "fake_ldap_push_result");
        bind(set_init_null_, "fake_ldap_set_init_null");
        bind(set_search_result_on_error_, "fake_ldap_set_search_result_on_error");
        bind(server_down_, "fake_ldap_server_down");
        bind(set_log_handles_, "fake_ldap_set_log_handles");
        bind(new_result_set_, "fake_ldap_new_result_set");
        bind(add_entry_, "fake_ldap_add_entry");
        bind(add_attr_, "fake_ldap_add_attr");
        bind(add_value_, "fake_ldap_add_value");
        bind(outstanding_, "fake_ldap_outstanding");
        bind(outstanding_summary_, "fake_ldap_outstanding_summary");
        bind(open_handles_, "fake_ldap_open_handles");
        bind(errors_, "fake_ldap_errors");
        bind(written_values_, "fake_ldap_written_values");
        bind(written_value_, "fake_ldap_written_value");
    }
    ~FakeLdap() { dlclose(handle_); }
    FakeLdap(const FakeLdap&) = delete;
    FakeLdap& operator=(const FakeLdap&) = delete;

    void reset() const { reset_(); }
    void clear_log() const { clear_log_(); }
    std::string log() const { return std::string(log_()); }
    /* The log split into lines, without the '\n'. */
    std::vector<std::string> log_lines() const {
        std::vector<std::string> lines;
        const std::string text = log();
        std::string::size_type start = 0;
        for (std::string::size_type nl; (nl = text.find('\n', start)) != std::string::npos;
             start = nl + 1)
            lines.push_back(text.substr(start, nl - start));
        return lines;
    }
    int calls(const char* function) const { return calls_(function); }
    /* These throw std::invalid_argument for a name the fake does not accept (a typo in a test). */
    void set_result(const char* function, int rc) const {
        check(set_result_(function, rc), function);
    }
    void push_result(const char* function, int rc) const {
        check(push_result_(function, rc), function);
    }
    void set_init_null(bool on) const { set_init_null_(on ? 1 : 0); }
    void set_search_result_on_error(int mode) const { set_search_result_on_error_(mode); }
    void server_down() const { server_down_(); }
    void set_log_handles(bool on) const { set_log_handles_(on ? 1 : 0); }
    void new_result_set() const { new_result_set_(); }
    void add_entry(const std::string& dn) const {
        check(add_entry_(dn.c_str()), "fake_ldap_add_entry");
    }
    void add_attr(const std::string& attr) const {
        check(add_attr_(attr.c_str()), "fake_ldap_add_attr");
    }
    void add_value(const std::string& attr, const std::string& bytes) const {
        check(add_value_(attr.c_str(), bytes.data(), static_cast<unsigned>(bytes.size())),
              "fake_ldap_add_value");
    }
    int outstanding() const { return outstanding_(); }
    std::string outstanding_summary() const { return std::string(outstanding_summary_()); }
    int open_handles() const { return open_handles_(); }
    int errors() const { return errors_(); }
    int written_values(const char* attr) const { return written_values_(attr); }
    /* The bytes of a recorded value; throws std::out_of_range when there is none. */
    std::string written_value(const char* attr, unsigned index = 0) const {
        unsigned len = 0;
        const void* data = written_value_(attr, index, &len);
        if (data == nullptr)
            throw std::out_of_range(std::string("no written value for ") + attr);
        return std::string(static_cast<const char*>(data), len);
    }

  private:
    template <typename F>
    void bind(F& fn, const char* name) {
        fn = reinterpret_cast<F>(dlsym(handle_, name));
        if (fn == nullptr) {
            dlclose(handle_);
            throw std::runtime_error(std::string("fake libldap lacks ") + name);
        }
    }
    static void check(int rc, const char* what) {
        if (rc != 0)
            throw std::invalid_argument(std::string("fake libldap refused ") +
                                        (what ? what : "null"));
    }

    void* handle_;
    void (*reset_)(void) = nullptr;
    void (*clear_log_)(void) = nullptr;
    const char* (*log_)(void) = nullptr;
    int (*calls_)(const char*) = nullptr;
    int (*set_result_)(const char*, int) = nullptr;
    int (*push_result_)(const char*, int) = nullptr;
    void (*set_init_null_)(int) = nullptr;
    void (*set_search_result_on_error_)(int) = nullptr;
    void (*server_down_)(void) = nullptr;
    void (*set_log_handles_)(int) = nullptr;
    void (*new_result_set_)(void) = nullptr;
    int (*add_entry_)(const char*) = nullptr;
    int (*add_attr_)(const char*) = nullptr;
    int (*add_value_)(const char*, const void*, unsigned) = nullptr;
    int (*outstanding_)(void) = nullptr;
    const char* (*outstanding_summary_)(void) = nullptr;
    int (*open_handles_)(void) = nullptr;
    int (*errors_)(void) = nullptr;
    int (*written_values_)(const char*) = nullptr;
    const void* (*written_value_)(const char*, unsigned, unsigned*) = nullptr;
};
#endif /* __cplusplus */

#endif /* QORLDAP_TESTS_FAKE_LDAP_H */
