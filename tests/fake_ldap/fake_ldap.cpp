// Fake libldap for the tests: the functions the binding resolves, as <ldap.h> declares them. Each
// call adds a line to the log, a search answers with the scripted entries, a call may be made to
// fail. What it hands out is really allocated; releasing anything else is a misuse.
#define LDAP_DEPRECATED 1
#include "tests/fake_ldap/fake_ldap.h"

#include <lber.h>
#include <ldap.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#define EXPORT extern "C" FAKE_LDAP_API
#define P(pointer) ((pointer) != nullptr ? "ptr" : "null")

struct ldap {};
// A search result is one array: its entries, then the final result (entry null).
struct ldapmsg {
    ldapmsg* next;
    fakeldap::Entry const* entry;
};
struct berelement {
    fakeldap::Entry const* entry;
    size_t next;  // the attribute to hand out next
};

namespace {

fakeldap::State& state = *new fakeldap::State;  // never destroyed: it outlives every handle

void out(char const* fmt, ...) __attribute__((format(printf, 1, 2)));
void out(char const* fmt, ...) {
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    state.log += line;
}

template <typename T>
T* keep(T* p, char kind) {
    state.live[p] = kind;
    return p;
}

// Frees p, handed out as kind (value arrays with their values); null is no misuse.
void release(void* p, char kind) {
    auto it = state.live.find(p);
    if (p != nullptr && (it == state.live.end() || it->second != kind)) {
        out("ERROR release of an object not handed out, or of another kind\n");
        ++state.errors;
    } else if (p != nullptr) {
        state.live.erase(it);
        for (void** v = static_cast<void**>(p); (kind == 'v' || kind == 'b') && *v != nullptr; ++v)
            free(*v);
        free(p);
    }
}

// The code of fn's next call: the first queued for it, else 0.
int call(char const* fn) {
    auto it = state.fails.find(fn);
    int const rc = it != state.fails.end() ? it->second : 0;
    if (it != state.fails.end())
        state.fails.erase(it);
    return rc;
}

LDAPMessage* entry(LDAPMessage* m, char const* fn) {
    m = m->entry != nullptr ? m : nullptr;
    out("%s -> %s\n", fn, m != nullptr ? m->entry->dn.c_str() : "null");
    return m;
}

char* next_name(BerElement* ber, char const* fn) {
    auto const* attributes = ber != nullptr ? &ber->entry->attributes : nullptr;
    char* name = attributes != nullptr && ber->next < attributes->size()
                     ? keep(strdup((*attributes)[ber->next++].first.c_str()), 's')
                     : nullptr;
    out("%s -> %s\n", fn, name != nullptr ? name : "null");
    return name;
}

// The values of attr: texts, or bervals of exactly bv_len bytes (a read past one is caught).
void* values(LDAPMessage* m, char const* fn, char const* attr, char kind) {
    std::vector<void*> found;
    for (auto const& a : m->entry->attributes) {
        for (size_t i = 0; a.first == attr && i < a.second.size(); ++i) {
            std::string const& v = a.second[i];
            if (kind == 'v') {
                found.push_back(strdup(v.c_str()));
                continue;
            }
            auto* b = static_cast<berval*>(malloc(sizeof(berval) + v.size()));
            *b = {v.size(), static_cast<char*>(memcpy(b + 1, v.data(), v.size()))};
            found.push_back(b);
        }
    }
    out("%s attr=%s -> %zu\n", fn, attr, found.size());
    found.push_back(nullptr);
    size_t const size = found.size() * sizeof(void*);
    return found.size() > 1 ? keep(memcpy(malloc(size), found.data(), size), kind) : nullptr;
}

// Logs "FN dn=D mods=[op=0x82 type=T vals=V1|V2]...", each value byte for byte.
int request(char const* fn, char const* dn, LDAPMod** mods) {
    out("%s dn=%s mods=%s", fn, dn, mods[0] == nullptr ? "(empty)" : "");
    for (LDAPMod** m = mods; *m != nullptr; ++m) {
        bool const binary = ((*m)->mod_op & LDAP_MOD_BVALUES) != 0;
        out("[op=0x%x type=%s vals=", static_cast<unsigned>((*m)->mod_op), (*m)->mod_type);
        for (int i = 0; binary ? (*m)->mod_bvalues[i] != nullptr : (*m)->mod_values[i] != nullptr;
             ++i) {
            char const* p = binary ? (*m)->mod_bvalues[i]->bv_val : (*m)->mod_values[i];
            state.log += i > 0 ? "|" : "";
            state.log.append(p, binary ? (*m)->mod_bvalues[i]->bv_len : strlen(p));
        }
        out("]");
    }
    out("\n");
    return call(fn);
}

}  // namespace

fakeldap::State& fakeldap::Fake() {
    return state;
}

EXPORT char const* fake_ldap_log() {
    return state.log.c_str();
}

EXPORT LDAP* ldap_init(LDAP_CONST char* host, int port) {
    out("ldap_init host=%s port=%d\n", host, port);
    return call(__func__) != 0 ? nullptr : static_cast<LDAP*>(malloc(1));
}

EXPORT int ldap_initialize(LDAP** ld, LDAP_CONST char* uri) {
    out("ldap_initialize uri=%s\n", uri);
    *ld = static_cast<LDAP*>(malloc(1));
    return 0;
}

EXPORT int ldap_set_option(LDAP*, int opt, LDAP_CONST void* value) {
    auto const* limit = static_cast<timeval const*>(value);
    if (opt == LDAP_OPT_TIMEOUT || opt == LDAP_OPT_NETWORK_TIMEOUT)
        out("ldap_set_option opt=%d value={%ld,%ld}\n", opt, static_cast<long>(limit->tv_sec),
            static_cast<long>(limit->tv_usec));
    else if (opt == LDAP_OPT_X_TLS_CACERTFILE)
        out("ldap_set_option opt=%d value=%s\n", opt, static_cast<char const*>(value));
    else
        out("ldap_set_option opt=%d value=%d\n", opt, *static_cast<int const*>(value));
    return call(__func__);
}

EXPORT int ldap_simple_bind_s(LDAP*, LDAP_CONST char* dn, LDAP_CONST char* pw) {
    out("ldap_simple_bind_s dn=%s pw=%s\n", dn, pw);
    return call(__func__);
}

EXPORT int ldap_start_tls_s(LDAP*, LDAPControl** sctrls, LDAPControl** cctrls) {
    out("ldap_start_tls_s ctrls=%s,%s\n", P(sctrls), P(cctrls));
    return call(__func__);
}

EXPORT int ldap_unbind_ext_s(LDAP* ld, LDAPControl** sctrls, LDAPControl** cctrls) {
    out("ldap_unbind_ext_s ctrls=%s,%s\n", P(sctrls), P(cctrls));
    free(ld);
    return 0;
}

#ifndef FAKE_LDAP_OMIT_SEARCH_EXT_S
EXPORT int ldap_search_ext_s(LDAP*, LDAP_CONST char* base, int scope, LDAP_CONST char* filter,
                             char** attrs, int attrsonly, LDAPControl** sctrls,
                             LDAPControl** cctrls, timeval* timeout, int sizelimit,
                             LDAPMessage** res) {
    out("ldap_search_ext_s base=%s scope=%d filter=%s attrs=%s attrsonly=%d ctrls=%s,%s "
        "timeout=%s sizelimit=%d\n",
        base, scope, filter, P(attrs), attrsonly, P(sctrls), P(cctrls), P(timeout), sizelimit);
    int const rc = call(__func__);
    auto const& entries = state.entries;
    // a server's code (positive) still comes with a result to free, a local failure without
    *res = rc < 0 ? nullptr
                  : keep(static_cast<LDAPMessage*>(calloc(entries.size() + 1, sizeof **res)), 'm');
    for (size_t i = 0; *res != nullptr && i < entries.size(); ++i)
        (*res)[i] = {&(*res)[i + 1], &entries[i]};
    return rc;
}
#endif

EXPORT LDAPMessage* ldap_first_entry(LDAP*, LDAPMessage* m) {
    return entry(m, __func__);
}

EXPORT LDAPMessage* ldap_next_entry(LDAP*, LDAPMessage* m) {
    return entry(m->next, __func__);
}

EXPORT int ldap_count_entries(LDAP*, LDAPMessage*) {
    out("ldap_count_entries -> %zu\n", state.entries.size());
    return static_cast<int>(state.entries.size());
}

EXPORT char* ldap_get_dn(LDAP*, LDAPMessage* m) {
    out("ldap_get_dn -> %s\n", m->entry->dn.c_str());
    return keep(strdup(m->entry->dn.c_str()), 's');
}

// On a search's final result (nothing found) libldap answers null and hands out no cursor.
EXPORT char* ldap_first_attribute(LDAP*, LDAPMessage* m, BerElement** ber) {
    *ber =
        m->entry != nullptr ? keep(static_cast<BerElement*>(malloc(sizeof **ber)), 'r') : nullptr;
    if (*ber != nullptr)
        **ber = {m->entry, 0};
    return next_name(*ber, __func__);
}

EXPORT char* ldap_next_attribute(LDAP*, LDAPMessage*, BerElement* ber) {
    return next_name(ber, __func__);
}

EXPORT char** ldap_get_values(LDAP*, LDAPMessage* m, LDAP_CONST char* attr) {
    return static_cast<char**>(values(m, __func__, attr, 'v'));
}

EXPORT berval** ldap_get_values_len(LDAP*, LDAPMessage* m, LDAP_CONST char* attr) {
    return static_cast<berval**>(values(m, __func__, attr, 'b'));
}

EXPORT int ldap_msgfree(LDAPMessage* m) {
    out("ldap_msgfree\n");
    release(m, 'm');
    return LDAP_RES_SEARCH_RESULT;
}

// A release function: logs its name and frees what it is handed, as `kind`.
#define RELEASE(name, type, kind) \
    EXPORT void name(type p) {    \
        out(#name "\n");          \
        release(p, kind);         \
    }
RELEASE(ldap_value_free, char**, 'v')
RELEASE(ldap_value_free_len, berval**, 'b')
RELEASE(ldap_memfree, void*, 's')

// freebuf shows in the log: the buffer belongs to the entry, and freeing it would break the result.
EXPORT void ber_free(BerElement* ber, int freebuf) {
    out("ber_free %s freebuf=%d\n", P(ber), freebuf);
    release(ber, 'r');
}

EXPORT int ldap_add_s(LDAP*, LDAP_CONST char* dn, LDAPMod** mods) {
    return request(__func__, dn, mods);
}

EXPORT int ldap_modify_s(LDAP*, LDAP_CONST char* dn, LDAPMod** mods) {
    return request(__func__, dn, mods);
}

EXPORT int ldap_delete_s(LDAP*, LDAP_CONST char* dn) {
    out("ldap_delete_s dn=%s\n", dn);
    return call(__func__);
}
