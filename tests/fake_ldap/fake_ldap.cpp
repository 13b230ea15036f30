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

// Logs fn and the rest as a line; answers the code first queued for fn, else 0.
__attribute__((format(printf, 2, 3))) int call(char const* fn, char const* fmt, ...) {
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    state.log += fn + std::string(line) + "\n";
    auto it = state.fails.find(fn);
    if (it == state.fails.end())
        return 0;
    int const rc = it->second;
    state.fails.erase(it);
    return rc;
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
        state.log += "ERROR release of an object not handed out, or of another kind\n";
        ++state.errors;
    } else if (p != nullptr) {
        state.live.erase(it);
        for (void** v = static_cast<void**>(p); (kind == 'v' || kind == 'b') && *v != nullptr; ++v)
            free(*v);
        free(p);
    }
}

LDAPMessage* entry(LDAPMessage* m, char const* fn) {
    m = m->entry != nullptr ? m : nullptr;
    call(fn, " -> %s", m != nullptr ? m->entry->dn.c_str() : "null");
    return m;
}

char* next_name(BerElement* ber, char const* fn) {
    bool const more = ber != nullptr && ber->next < ber->entry->attributes.size();
    char* name =
        more ? keep(strdup(ber->entry->attributes[ber->next++].first.c_str()), 's') : nullptr;
    call(fn, " -> %s", more ? name : "null");
    return name;
}

// The values of attr: texts, or bervals of exactly bv_len bytes (a read past one is caught).
void* values(LDAPMessage* m, char const* fn, char const* attr, char kind) {
    std::vector<void*> found;
    for (auto const& a : m->entry->attributes) {
        for (size_t i = 0; a.first == attr && i < a.second.size(); ++i) {
            std::string const& v = a.second[i];
            auto* b = static_cast<berval*>(malloc(sizeof(berval) + v.size()));
            *b = {v.size(), static_cast<char*>(memcpy(b + 1, v.data(), v.size()))};
            found.push_back(kind == 'b' ? static_cast<void*>(b) : strdup(v.c_str()));
            if (kind != 'b')
                free(b);
        }
    }
    call(fn, " attr=%s -> %zu", attr, found.size());
    found.push_back(nullptr);
    size_t const size = found.size() * sizeof(void*);
    return found.size() > 1 ? keep(memcpy(malloc(size), found.data(), size), kind) : nullptr;
}

// Logs "FN dn=D mods=[op=0x82 type=T vals=V1|V2]...", each value byte for byte.
int request(char const* fn, char const* dn, LDAPMod** mods) {
    std::string text = mods[0] == nullptr ? "(empty)" : "";
    for (LDAPMod** m = mods; *m != nullptr; ++m) {
        bool const binary = ((*m)->mod_op & LDAP_MOD_BVALUES) != 0;
        char op[8];
        snprintf(op, sizeof op, "%x", static_cast<unsigned>((*m)->mod_op));
        text += std::string("[op=0x") + op + " type=" + (*m)->mod_type + " vals=";
        for (int i = 0; binary ? (*m)->mod_bvalues[i] != nullptr : (*m)->mod_values[i] != nullptr;
             ++i) {
            char const* p = binary ? (*m)->mod_bvalues[i]->bv_val : (*m)->mod_values[i];
            text.append(i > 0 ? "|" : "")
                .append(p, binary ? (*m)->mod_bvalues[i]->bv_len : strlen(p));
        }
        text += "]";
    }
    int const rc = call(fn, " dn=%s mods=", dn);
    state.log.insert(state.log.size() - 1, text);
    return rc;
}

}  // namespace

fakeldap::State& fakeldap::Fake() {
    return state;
}

EXPORT char const* fake_ldap_log() {
    return state.log.c_str();
}

EXPORT LDAP* ldap_init(LDAP_CONST char* host, int port) {
    return call(__func__, " host=%s port=%d", host, port) != 0 ? nullptr
                                                               : static_cast<LDAP*>(malloc(1));
}

EXPORT int ldap_initialize(LDAP** ld, LDAP_CONST char* uri) {
    *ld = static_cast<LDAP*>(malloc(1));
    return call(__func__, " uri=%s", uri);
}

EXPORT int ldap_set_option(LDAP*, int opt, LDAP_CONST void* value) {
    auto const* limit = static_cast<timeval const*>(value);
    if (opt == LDAP_OPT_TIMEOUT || opt == LDAP_OPT_NETWORK_TIMEOUT)
        return call(__func__, " opt=%d value={%ld,%ld}", opt, static_cast<long>(limit->tv_sec),
                    static_cast<long>(limit->tv_usec));
    if (opt == LDAP_OPT_X_TLS_CACERTFILE)
        return call(__func__, " opt=%d value=%s", opt, static_cast<char const*>(value));
    return call(__func__, " opt=%d value=%d", opt, *static_cast<int const*>(value));
}

EXPORT int ldap_simple_bind_s(LDAP*, LDAP_CONST char* dn, LDAP_CONST char* pw) {
    return call(__func__, " dn=%s pw=%s", dn, pw);
}

EXPORT int ldap_start_tls_s(LDAP*, LDAPControl** sctrls, LDAPControl** cctrls) {
    return call(__func__, " ctrls=%s,%s", P(sctrls), P(cctrls));
}

EXPORT int ldap_unbind_ext_s(LDAP* ld, LDAPControl** sctrls, LDAPControl** cctrls) {
    free(ld);
    return call(__func__, " ctrls=%s,%s", P(sctrls), P(cctrls));
}

#ifndef FAKE_LDAP_OMIT_SEARCH_EXT_S
EXPORT int ldap_search_ext_s(LDAP*, LDAP_CONST char* base, int scope, LDAP_CONST char* filter,
                             char** attrs, int attrsonly, LDAPControl** sctrls,
                             LDAPControl** cctrls, timeval* timeout, int sizelimit,
                             LDAPMessage** res) {
    int const rc =
        call(__func__,
             " base=%s scope=%d filter=%s attrs=%s attrsonly=%d ctrls=%s,%s "
             "timeout=%s sizelimit=%d",
             base, scope, filter, P(attrs), attrsonly, P(sctrls), P(cctrls), P(timeout), sizelimit);
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
    call(__func__, " -> %zu", state.entries.size());
    return static_cast<int>(state.entries.size());
}

EXPORT char* ldap_get_dn(LDAP*, LDAPMessage* m) {
    call(__func__, " -> %s", m->entry->dn.c_str());
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
    call(__func__, "%s", "");
    release(m, 'm');
    return LDAP_RES_SEARCH_RESULT;
}

// A release function: logs its name and frees what it is handed, as `kind`.
#define RELEASE(name, type, kind) \
    EXPORT void name(type p) {    \
        call(#name, "%s", "");    \
        release(p, kind);         \
    }
RELEASE(ldap_value_free, char**, 'v')
RELEASE(ldap_value_free_len, berval**, 'b')
RELEASE(ldap_memfree, void*, 's')

// freebuf shows in the log: the buffer belongs to the entry, and freeing it would break the result.
EXPORT void ber_free(BerElement* ber, int freebuf) {
    call(__func__, " %s freebuf=%d", P(ber), freebuf);
    release(ber, 'r');
}

EXPORT int ldap_add_s(LDAP*, LDAP_CONST char* dn, LDAPMod** mods) {
    return request(__func__, dn, mods);
}

EXPORT int ldap_modify_s(LDAP*, LDAP_CONST char* dn, LDAPMod** mods) {
    return request(__func__, dn, mods);
}

EXPORT int ldap_delete_s(LDAP*, LDAP_CONST char* dn) {
    return call(__func__, " dn=%s", dn);
}
