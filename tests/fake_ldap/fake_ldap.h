/*
 * Control interface of the fake LDAP client library used by the tests. libldap.so here exports the
 * libldap client functions our binding resolves (same C signatures as <ldap.h>) and the fake_ldap_*
 * functions below; libldap_missing.so lacks ldap_search_ext_s. It talks to no server: each call is
 * logged, answers come from a script, and every object it hands out is accounted for until
 * released. Tests point QORLDAP_LDAP_LIBRARY at the file and open the same path with FakeLdap
 * (glibc maps a file once, so both share one state).
 *
 * Log: one '\n'-terminated line per call. Caller strings print as given, bytes below 0x20 and
 * 0x7f as \xNN, NULL as "null". Status codes are not logged; returned data follows " -> ".
 *   ldap_init host=127.0.0.1 port=389            ldap_initialize uri=ldap://h:389
 *   ldap_set_option opt=17 value=3 (an int, {sec,usec} for timeouts, the CA file name, or "ptr")
 *   ldap_simple_bind_s dn=cn=admin,o=root pw=secret       ldap_start_tls_s    ldap_unbind_ext_s
 *   ldap_search_ext_s base=B scope=0 filter=F attrs=null attrsonly=0 sctrls=null cctrls=null
 *       timeout=null sizelimit=0    (one line; attrs=[a,b], controls "ptr", timeout={sec,usec})
 *   ldap_count_entries -> 2      ldap_first_entry -> DN|null      ldap_next_entry -> DN|null
 *   ldap_get_dn -> DN            ldap_first_attribute -> NAME|null   ldap_next_attribute -> ...
 *   ldap_get_values_len attr=A -> N|null         ldap_get_values attr=A -> N|null
 *   ldap_value_free_len, ldap_value_free, ldap_memfree, ldap_msgfree (" null" for NULL)
 *   ber_free freebuf=0           ldap_delete_s dn=D          ldap_err2string rc=49
 *   ldap_modify_s dn=D mods=[op=0x82 type=signPubcer;binary bvals=1:len=5]
 *   ldap_add_s dn=D mods=[op=0x0 type=objectClass vals=top|person][op=0x0 type=cn vals=a]
 * mods: op is the whole mod_op (0x80 = berval values); bvals=N:len=A,B or vals=V1|V2, "null" for
 * a NULL array, bvals=0 / vals=[] for an empty one; mods=(empty) without any LDAPMod. ldap_add
 * logs as ldap_add_s.
 *
 * Misuse libldap would punish with a crash or a leak -- a pointer never handed out or already
 * released, an entry of a freed chain, a handle not open (NULL, too), ber_free with freebuf != 0
 * -- gets " ERROR(reason)" on its line, is counted by fake_ldap_errors() and frees nothing.
 *
 * Copied from real libldap because the binding must cope with it:
 *  - A new handle speaks protocol version 2: a bind before setting 3 returns 2 (protocol error).
 *  - ldap_add_s refuses a NULL value array (-9) or an empty one (2); ldap_add a NULL one (-1).
 *  - A search ending with a positive code still hands back a chain to free; a negative code none.
 *  - ldap_first_attribute hands out a BerElement (to release with ber_free(ber, 0)) for any entry;
 *    on a search's final result it answers null, with no ber and no error.
 * The fake keeps no directory: writes change nothing that later searches return.
 */
#ifndef QORLDAP_TESTS_FAKE_LDAP_H
#define QORLDAP_TESTS_FAKE_LDAP_H

#ifdef __cplusplus
extern "C" {
#endif

/* Forget everything below and restore the defaults. Objects still held stay valid but are no
 * longer counted; handles killed by fake_ldap_server_down work again. */
void fake_ldap_reset(void);
void fake_ldap_clear_log(void);            /* the log and the call counts only */
const char* fake_ldap_log(void);           /* valid until the next call */
int fake_ldap_calls(const char* function); /* since reset or clear_log; -1: no such function */

/* From now on `function` returns rc; push_result queues rc for its next call only (queued codes
 * come first; a call the fake refuses itself leaves them). For the functions returning a status,
 * and ldap_add (message ids, by default 1, 2, ...). -1 for another name or a full queue (16). */
int fake_ldap_set_result(const char* function, int rc);
int fake_ldap_push_result(const char* function, int rc);
void fake_ldap_set_init_null(int on); /* ldap_init and ldap_initialize give no handle */
void fake_ldap_server_down(void);     /* handles open now answer -1 to everything until a reset */

/* A search's chain holds the entries scripted since the last reset, then the final result.
 * Attribute names match regardless of case. add_value returns -1 when there is no entry yet. */
int fake_ldap_add_entry(const char* dn);
int fake_ldap_add_value(const char* attr, const void* data, unsigned len);

/* Since the last reset, not released: chains, value arrays, strings and BerElements; handles. */
int fake_ldap_outstanding(void);
int fake_ldap_open_handles(void);
int fake_ldap_errors(void); /* misuses (ERROR above) since the last reset */
/* The first value (length in *len) of the first mod naming attr, regardless of case, in the last
 * ldap_add, ldap_add_s or ldap_modify_s; NULL when there is none. */
const void* fake_ldap_written_value(const char* attr, unsigned* len);

#ifdef __cplusplus
} /* extern "C" */

#include <dlfcn.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

/* Opens the fake by path (RTLD_NODELETE: its state lives as long as the process) and calls its
 * control functions; throws std::runtime_error when the file or a function is missing, and
 * std::invalid_argument when the fake refuses a script call (a typo in a test). */
#define FAKE_LDAP_FN(name) fn<decltype(fake_ldap_##name)>("fake_ldap_" #name)
struct FakeLdap {
    explicit FakeLdap(const char* path) : h_(dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {
        if (h_ == nullptr)
            throw std::runtime_error(dlerror());
    }
    ~FakeLdap() { dlclose(h_); }
    FakeLdap(const FakeLdap&) = delete;
    FakeLdap& operator=(const FakeLdap&) = delete;

    void reset() const { FAKE_LDAP_FN(reset)(); }
    void clear_log() const { FAKE_LDAP_FN(clear_log)(); }
    std::string log() const { return FAKE_LDAP_FN(log)(); }
    /* The log split into lines, without the '\n'. */
    std::vector<std::string> log_lines() const {
        std::vector<std::string> lines;
        std::istringstream text(log());
        for (std::string line; std::getline(text, line);)
            lines.push_back(line);
        return lines;
    }
    int calls(const char* f) const { return FAKE_LDAP_FN(calls)(f); }
    void set_result(const char* f, int rc) const { check(FAKE_LDAP_FN(set_result)(f, rc), f); }
    void push_result(const char* f, int rc) const { check(FAKE_LDAP_FN(push_result)(f, rc), f); }
    void set_init_null(bool on) const { FAKE_LDAP_FN(set_init_null)(on); }
    void server_down() const { FAKE_LDAP_FN(server_down)(); }
    void add_entry(const std::string& dn) const {
        check(FAKE_LDAP_FN(add_entry)(dn.c_str()), "add_entry");
    }
    void add_value(const std::string& attr, const std::string& bytes) const {
        unsigned len = static_cast<unsigned>(bytes.size());
        check(FAKE_LDAP_FN(add_value)(attr.c_str(), bytes.data(), len), "add_value");
    }
    int outstanding() const { return FAKE_LDAP_FN(outstanding)(); }
    int open_handles() const { return FAKE_LDAP_FN(open_handles)(); }
    int errors() const { return FAKE_LDAP_FN(errors)(); }
    /* The bytes of a recorded value; throws std::out_of_range when there is none. */
    std::string written_value(const char* attr) const {
        unsigned len = 0;
        const void* data = FAKE_LDAP_FN(written_value)(attr, &len);
        if (data == nullptr)
            throw std::out_of_range(std::string("no written value for ") + attr);
        return std::string(static_cast<const char*>(data), len);
    }

  private:
    /* The function `name` of the file, typed as declared above (decltype: no link to it). */
    template <typename F>
    F* fn(const char* name) const {
        if (F* f = reinterpret_cast<F*>(dlsym(h_, name)))
            return f;
        throw std::runtime_error(std::string("fake libldap lacks ") + name);
    }
    static void check(int rc, const char* what) {
        if (rc != 0)
            throw std::invalid_argument(std::string("fake libldap refused ") + what);
    }
    void* h_;
};
#undef FAKE_LDAP_FN
#endif /* __cplusplus */

#endif /* QORLDAP_TESTS_FAKE_LDAP_H */
