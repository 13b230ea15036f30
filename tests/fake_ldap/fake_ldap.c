/*
 * Fake libldap for the tests: the client functions our binding resolves, answering from a script
 * and logging every call. See fake_ldap.h for the control functions, the log format and the
 * behaviour copied from the real library.
 *
 * Built twice: as libldap.so, and with FAKE_LDAP_OMIT_SEARCH_EXT_S defined as libldap_missing.so,
 * which lacks ldap_search_ext_s.
 *
 * One mutex guards all state; a client function holds it from the start of its log line to the
 * end. Exported functions never call each other, so a process that also has another libldap
 * loaded cannot redirect our internal calls.
 */
#define LDAP_DEPRECATED 1
#include <lber.h>
#include <ldap.h>

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "fake_ldap.h"

#define EXPORT __attribute__((visibility("default")))

/* ---- Types -------------------------------------------------------------------------------- */

struct ldap {
    int version;
    int dead; /* set by fake_ldap_server_down */
};

struct fk_attr {
    char* name;
    size_t nvals;
    struct berval* vals; /* each exactly bv_len bytes */
};

struct fk_entry {
    char* dn;
    size_t nattrs;
    struct fk_attr* attrs;
};

/* A chain is one array: its entries, then the final result (entry NULL). */
struct ldapmsg {
    struct ldapmsg* next;
    struct fk_entry* entry;
};

struct berelement {
    LDAPMessage* entry;
    size_t next_attr;
};

#define QUEUE_MAX 16

/* The answers of a function a test may script: a queued code first, then the forced one. */
struct answer {
    const char* fn;
    int forced, forced_rc;
    int queue[QUEUE_MAX];
    int queued;
};

enum kind { K_MESSAGES, K_BVALUES, K_VALUES, K_STRINGS, K_BERS, K_HANDLES };

/* An object handed out and not yet released; counted: handed out since the last reset. */
struct live {
    void* ptr;
    enum kind kind;
    int counted;
};

/* ---- State -------------------------------------------------------------------------------- */

/* Every client function this library can export, for fake_ldap_calls to tell a typo. */
static const char k_exported[] =
    " ldap_init ldap_initialize ldap_set_option ldap_simple_bind_s ldap_start_tls_s"
    " ldap_unbind_ext_s ldap_search_ext_s ldap_first_entry ldap_next_entry ldap_get_dn"
    " ldap_count_entries ldap_first_attribute ldap_next_attribute ldap_msgfree ldap_get_values"
    " ldap_get_values_len ldap_value_free ldap_value_free_len ldap_memfree ldap_add_s"
    " ldap_delete_s ldap_modify_s ldap_add ldap_err2string ber_free ";

static struct answer g_answers[] = {
    {.fn = "ldap_initialize"},  {.fn = "ldap_set_option"},   {.fn = "ldap_simple_bind_s"},
    {.fn = "ldap_start_tls_s"}, {.fn = "ldap_unbind_ext_s"}, {.fn = "ldap_search_ext_s"},
    {.fn = "ldap_add_s"},       {.fn = "ldap_delete_s"},     {.fn = "ldap_modify_s"},
    {.fn = "ldap_add"},
};
#define N_ANSWERS (sizeof g_answers / sizeof g_answers[0])

static pthread_mutex_t g_mu = PTHREAD_MUTEX_INITIALIZER;
static char* g_log; /* complete lines while the mutex is free */
static size_t g_log_len, g_log_cap;
static char* g_log_copy;
static struct live* g_live;
static size_t g_nlive, g_live_cap;

/* Scripted entries are kept until the process ends, so a chain the code under test still holds
 * after a reset points at valid entries. The script is g_entries[g_script_from .. g_nentries). */
static struct fk_entry** g_entries;
static size_t g_nentries, g_script_from;
static struct fk_entry g_written; /* the mods of the last write, as attributes */

static int g_init_null;
static int g_errors;
static int g_next_msgid = 1;

/* ---- Helpers ------------------------------------------------------------------------------ */

static void* xrealloc(void* old, size_t n) {
    void* p = realloc(old, n ? n : 1);
    if (p == NULL)
        abort();
    return p;
}

static char* xstrdup(const char* s) {
    size_t n = strlen(s) + 1;
    return memcpy(xrealloc(NULL, n), s, n);
}

static struct berval berval_copy(const void* data, size_t len) {
    struct berval b = {len, xrealloc(NULL, len)};
    if (len)
        memcpy(b.bv_val, data, len);
    return b;
}

static void out(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
static void out(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    size_t n = (size_t)vsnprintf(NULL, 0, fmt, ap);
    va_end(ap);
    if (g_log_len + n + 1 > g_log_cap) {
        g_log_cap = (g_log_len + n + 1) * 2;
        g_log = xrealloc(g_log, g_log_cap);
    }
    va_start(ap, fmt);
    vsnprintf(g_log + g_log_len, n + 1, fmt, ap);
    va_end(ap);
    g_log_len += n;
}

/* prefix, then a caller's string: "null" for NULL, control bytes as \xNN (one call, one line). */
static void out_str(const char* prefix, const char* s) {
    out("%s%s", prefix, s == NULL ? "null" : "");
    for (const unsigned char* c = (const unsigned char*)s; c != NULL && *c; ++c)
        out(*c < 0x20 || *c == 0x7f ? "\\x%02x" : "%c", *c);
}

/* Starts the log line of the client function fn, holding the mutex until end(). */
static void begin(const char* fn) {
    pthread_mutex_lock(&g_mu);
    out("%s", fn);
}

static void end(void) {
    out("\n");
    pthread_mutex_unlock(&g_mu);
}

static void misuse(const char* why) {
    out(" ERROR(%s)", why);
    ++g_errors;
}

static struct answer* answer_for(const char* fn) {
    for (size_t i = 0; fn != NULL && i < N_ANSWERS; ++i)
        if (strcmp(g_answers[i].fn, fn) == 0)
            return &g_answers[i];
    return NULL;
}

/* The code for one answered call of fn: a queued one first, then the forced one, then dflt. */
static int take_result(const char* fn, int dflt) {
    struct answer* a = answer_for(fn);
    if (a->queued > 0) {
        int rc = a->queue[0];
        memmove(a->queue, a->queue + 1, (size_t)--a->queued * sizeof a->queue[0]);
        return rc;
    }
    return a->forced ? a->forced_rc : dflt;
}

/* ---- Objects handed out ------------------------------------------------------------------- */

static void* live_add(void* p, enum kind kind) {
    if (g_nlive == g_live_cap) {
        g_live_cap = g_live_cap ? g_live_cap * 2 : 64;
        g_live = xrealloc(g_live, g_live_cap * sizeof *g_live);
    }
    g_live[g_nlive++] = (struct live){p, kind, 1};
    return p;
}

static int live_find(const void* p, enum kind kind) {
    for (size_t i = 0; p != NULL && i < g_nlive; ++i)
        if (g_live[i].ptr == p && g_live[i].kind == kind)
            return (int)i;
    return -1;
}

/* For the free functions: logs " null" for NULL, the misuse `why` for p not live as `kind`,
 * else forgets and frees p (a value array with its values). Returns whether p was freed. */
static int release(void* p, enum kind kind, const char* why) {
    int i = live_find(p, kind);
    if (p == NULL)
        out(" null");
    else if (i < 0)
        misuse(why);
    if (i < 0)
        return 0;
    g_live[i] = g_live[--g_nlive];
    for (void** v = p; (kind == K_VALUES || kind == K_BVALUES) && *v != NULL; ++v) {
        if (kind == K_BVALUES)
            free(((struct berval*)*v)->bv_val);
        free(*v);
    }
    free(p);
    return 1;
}

/* The message p if it belongs to a chain not yet freed. */
static LDAPMessage* message_live(const LDAPMessage* p) {
    for (size_t i = 0; p != NULL && i < g_nlive; ++i)
        if (g_live[i].kind == K_MESSAGES)
            for (LDAPMessage* m = g_live[i].ptr; m != NULL; m = m->next)
                if (m == p)
                    return m;
    return NULL;
}

static LDAPMessage* as_entry(LDAPMessage* m) {
    return m != NULL && m->entry != NULL ? m : NULL;
}

/* The handle ld if it is open; logs the misuse otherwise. */
static struct ldap* check_handle(LDAP* ld) {
    if (live_find(ld, K_HANDLES) >= 0)
        return ld;
    misuse(ld == NULL ? "null handle" : "not an open handle");
    return NULL;
}

/* What an operation on ld gets before the script is asked: -9 for a handle that is not open,
 * -1 on a dead one, 0 when the script decides. */
static int handle_gate(LDAP* ld) {
    struct ldap* h = check_handle(ld);
    return h == NULL ? LDAP_PARAM_ERROR : h->dead ? LDAP_SERVER_DOWN : 0;
}

/* The code of a call of fn on ld: handle_gate's, else the script's (by default success). */
static int answer(LDAP* ld, const char* fn) {
    int rc = handle_gate(ld);
    return rc != 0 ? rc : take_result(fn, LDAP_SUCCESS);
}

/* The entry message `entry` of a live chain, on an open handle; logs the misuse otherwise. */
static LDAPMessage* check_entry(LDAP* ld, LDAPMessage* entry) {
    if (check_handle(ld) == NULL)
        return NULL;
    LDAPMessage* m = message_live(entry);
    if (as_entry(m) == NULL)
        misuse(entry == NULL ? "null entry"
               : m == NULL   ? "not a message of a live chain"
                             : "not an entry");
    return as_entry(m);
}

static struct ldap* handle_new(void) {
    struct ldap* h = xrealloc(NULL, sizeof *h);
    *h = (struct ldap){LDAP_VERSION2, 0};
    return live_add(h, K_HANDLES);
}

/* ---- Entries and writes ------------------------------------------------------------------- */

static struct fk_attr* attr_find(struct fk_entry* e, const char* name) {
    for (size_t i = 0; e != NULL && name != NULL && i < e->nattrs; ++i)
        if (strcasecmp(e->attrs[i].name, name) == 0)
            return &e->attrs[i];
    return NULL;
}

static struct fk_attr* attr_add(struct fk_entry* e, const char* name) {
    e->attrs = xrealloc(e->attrs, (e->nattrs + 1) * sizeof *e->attrs);
    e->attrs[e->nattrs] = (struct fk_attr){xstrdup(name), 0, NULL};
    return &e->attrs[e->nattrs++];
}

static void value_add(struct fk_attr* a, const void* data, size_t len) {
    a->vals = xrealloc(a->vals, (a->nvals + 1) * sizeof *a->vals);
    a->vals[a->nvals++] = berval_copy(data, len);
}

static void written_free(void) {
    for (size_t i = 0; i < g_written.nattrs; ++i) {
        for (size_t v = 0; v < g_written.attrs[i].nvals; ++v)
            free(g_written.attrs[i].vals[v].bv_val);
        free(g_written.attrs[i].vals);
        free(g_written.attrs[i].name);
    }
    free(g_written.attrs);
    g_written = (struct fk_entry){NULL, 0, NULL};
}

/* Logs " dn=D mods=..." and keeps the values for fake_ldap_written_value. */
static void write_log(const char* dn, LDAPMod** mods) {
    written_free();
    out_str(" dn=", dn);
    out(" mods=%s", mods == NULL ? "null" : mods[0] == NULL ? "(empty)" : "");
    for (size_t i = 0; mods != NULL && mods[i] != NULL; ++i) {
        const LDAPMod* m = mods[i];
        struct fk_attr* rec = attr_add(&g_written, m->mod_type ? m->mod_type : "");
        out("[op=0x%x", (unsigned)m->mod_op);
        out_str(" type=", m->mod_type);
        if (m->mod_op & LDAP_MOD_BVALUES) {
            for (size_t v = 0; m->mod_bvalues != NULL && m->mod_bvalues[v] != NULL; ++v)
                value_add(rec, m->mod_bvalues[v]->bv_val, m->mod_bvalues[v]->bv_len);
            if (m->mod_bvalues == NULL)
                out(" bvals=null");
            else
                out(" bvals=%zu", rec->nvals);
            for (size_t v = 0; v < rec->nvals; ++v)
                out("%s%zu", v == 0 ? ":len=" : ",", (size_t)rec->vals[v].bv_len);
        } else {
            out(" vals=%s", m->mod_values == NULL ? "null" : m->mod_values[0] == NULL ? "[]" : "");
            for (size_t v = 0; m->mod_values != NULL && m->mod_values[v] != NULL; ++v) {
                value_add(rec, m->mod_values[v], strlen(m->mod_values[v]));
                out_str(v ? "|" : "", m->mod_values[v]);
            }
        }
        out("]");
    }
}

/* What libldap itself says about the mods of an add before anything is sent: 0 when fine,
 * LDAP_PARAM_ERROR for a NULL value array, LDAP_PROTOCOL_ERROR (the server's answer) for an
 * empty one. */
static int add_mods_check(LDAPMod** mods) {
    for (size_t i = 0; mods != NULL && mods[i] != NULL; ++i) {
        const void* const* vals = (mods[i]->mod_op & LDAP_MOD_BVALUES)
                                      ? (const void* const*)mods[i]->mod_bvalues
                                      : (const void* const*)mods[i]->mod_values;
        if (vals == NULL || vals[0] == NULL)
            return vals == NULL ? LDAP_PARAM_ERROR : LDAP_PROTOCOL_ERROR;
    }
    return mods == NULL ? LDAP_PARAM_ERROR : 0;
}

/* ---- Client functions: connection --------------------------------------------------------- */

EXPORT LDAP* ldap_init(LDAP_CONST char* host, int port) {
    begin(__func__);
    out_str(" host=", host);
    out(" port=%d", port);
    struct ldap* h = g_init_null ? NULL : handle_new();
    end();
    return h;
}

EXPORT int ldap_initialize(LDAP** ldp, LDAP_CONST char* url) {
    begin(__func__);
    out_str(" uri=", url);
    int rc = take_result(__func__, LDAP_SUCCESS);
    *ldp = rc == LDAP_SUCCESS && !g_init_null ? handle_new() : NULL;
    end();
    return rc;
}

EXPORT int ldap_set_option(LDAP* ld, int option, LDAP_CONST void* invalue) {
    begin(__func__);
    out(" opt=%d value=", option);
    const int* number = invalue;
    const struct timeval* tv = invalue;
    if (invalue == NULL)
        out("null");
    else if (option == LDAP_OPT_PROTOCOL_VERSION || option == LDAP_OPT_X_TLS_REQUIRE_CERT ||
             option == LDAP_OPT_X_TLS_NEWCTX)
        out("%d", *number);
    else if (option == LDAP_OPT_TIMEOUT || option == LDAP_OPT_NETWORK_TIMEOUT)
        out("{%ld,%ld}", (long)tv->tv_sec, (long)tv->tv_usec);
    else
        out_str("", option == LDAP_OPT_X_TLS_CACERTFILE ? invalue : "ptr");
    struct ldap* h = check_handle(ld); /* global options (NULL) are not modelled */
    int rc = h != NULL ? take_result(__func__, LDAP_OPT_SUCCESS) : LDAP_OPT_ERROR;
    if (rc == LDAP_OPT_SUCCESS && option == LDAP_OPT_PROTOCOL_VERSION && number == NULL)
        rc = LDAP_OPT_ERROR;
    else if (rc == LDAP_OPT_SUCCESS && option == LDAP_OPT_PROTOCOL_VERSION)
        h->version = *number;
    end();
    return rc;
}

EXPORT int ldap_simple_bind_s(LDAP* ld, LDAP_CONST char* who, LDAP_CONST char* passwd) {
    begin(__func__);
    out_str(" dn=", who);
    out_str(" pw=", passwd);
    int rc = handle_gate(ld);
    if (rc == 0 && ld->version < LDAP_VERSION3)
        rc = LDAP_PROTOCOL_ERROR;
    else if (rc == 0)
        rc = take_result(__func__, LDAP_SUCCESS);
    end();
    return rc;
}

EXPORT int ldap_start_tls_s(LDAP* ld, LDAPControl** serverctrls, LDAPControl** clientctrls) {
    (void)serverctrls;
    (void)clientctrls;
    begin(__func__);
    int rc = answer(ld, __func__);
    end();
    return rc;
}

EXPORT int ldap_unbind_ext_s(LDAP* ld, LDAPControl** serverctrls, LDAPControl** clientctrls) {
    (void)serverctrls;
    (void)clientctrls;
    begin(__func__);
    int rc = LDAP_PARAM_ERROR;
    if (check_handle(ld) != NULL) {
        rc = take_result(__func__, LDAP_SUCCESS);
        release(ld, K_HANDLES, "");
    }
    end();
    return rc;
}

/* ---- Client functions: search and results ------------------------------------------------- */

#ifndef FAKE_LDAP_OMIT_SEARCH_EXT_S
EXPORT int ldap_search_ext_s(LDAP* ld, LDAP_CONST char* base, int scope, LDAP_CONST char* filter,
                             char** attrs, int attrsonly, LDAPControl** serverctrls,
                             LDAPControl** clientctrls, struct timeval* timeout, int sizelimit,
                             LDAPMessage** res) {
    begin(__func__);
    out_str(" base=", base);
    out(" scope=%d", scope);
    out_str(" filter=", filter);
    out(" attrs=%s", attrs == NULL ? "null" : "[");
    for (size_t i = 0; attrs != NULL && attrs[i] != NULL; ++i)
        out_str(i ? "," : "", attrs[i]);
    out("%s attrsonly=%d", attrs == NULL ? "" : "]", attrsonly);
    out(" sctrls=%s cctrls=%s", serverctrls ? "ptr" : "null", clientctrls ? "ptr" : "null");
    if (timeout == NULL)
        out(" timeout=null");
    else
        out(" timeout={%ld,%ld}", (long)timeout->tv_sec, (long)timeout->tv_usec);
    out(" sizelimit=%d", sizelimit);
    int rc = answer(ld, __func__);
    *res = NULL;
    /* a server's result code (positive) still comes with a chain; a local failure does not */
    if (rc >= 0) {
        size_t n = g_nentries - g_script_from;
        LDAPMessage* chain = xrealloc(NULL, (n + 1) * sizeof *chain);
        for (size_t i = 0; i <= n; ++i)
            chain[i] = (struct ldapmsg){i < n ? &chain[i + 1] : NULL,
                                        i < n ? g_entries[g_script_from + i] : NULL};
        *res = live_add(chain, K_MESSAGES);
    }
    end();
    return rc;
}
#endif

/* A message of a live chain on an open handle; NULL (and no misuse) for a NULL chain. */
static LDAPMessage* check_chain(LDAP* ld, LDAPMessage* chain) {
    if (check_handle(ld) == NULL || chain == NULL)
        return NULL;
    LDAPMessage* m = message_live(chain);
    if (m == NULL)
        misuse("not a message of a live chain");
    return m;
}

EXPORT LDAPMessage* ldap_first_entry(LDAP* ld, LDAPMessage* chain) {
    begin(__func__);
    LDAPMessage* e = as_entry(check_chain(ld, chain));
    out_str(" -> ", e ? e->entry->dn : NULL);
    end();
    return e;
}

EXPORT LDAPMessage* ldap_next_entry(LDAP* ld, LDAPMessage* entry) {
    begin(__func__);
    LDAPMessage* m = check_entry(ld, entry);
    LDAPMessage* e = m != NULL ? as_entry(m->next) : NULL;
    out_str(" -> ", e ? e->entry->dn : NULL);
    end();
    return e;
}

EXPORT int ldap_count_entries(LDAP* ld, LDAPMessage* chain) {
    begin(__func__);
    LDAPMessage* m = check_chain(ld, chain);
    int n = m != NULL ? 0 : -1;
    for (; as_entry(m) != NULL; m = m->next)
        ++n;
    out(" -> %d", n);
    end();
    return n;
}

EXPORT char* ldap_get_dn(LDAP* ld, LDAPMessage* entry) {
    begin(__func__);
    LDAPMessage* m = check_entry(ld, entry);
    char* dn = m != NULL ? live_add(xstrdup(m->entry->dn), K_STRINGS) : NULL;
    out_str(" -> ", dn);
    end();
    return dn;
}

/* Hands out the name of the ber's next attribute; NULL at the end. */
static char* next_name(BerElement* ber) {
    struct fk_entry* e = ber->entry->entry;
    if (ber->next_attr >= e->nattrs)
        return NULL;
    return live_add(xstrdup(e->attrs[ber->next_attr++].name), K_STRINGS);
}

EXPORT char* ldap_first_attribute(LDAP* ld, LDAPMessage* entry, BerElement** berout) {
    begin(__func__);
    /* Handed the final result of a search that found nothing, libldap cannot decode an entry
       from it: it answers null and hands out no ber. */
    LDAPMessage* live = message_live(entry);
    LDAPMessage* m = live == NULL || live->entry != NULL ? check_entry(ld, entry) : NULL;
    char* name = NULL;
    *berout = NULL;
    if (m != NULL) {
        *berout = live_add(xrealloc(NULL, sizeof **berout), K_BERS);
        **berout = (struct berelement){m, 0};
        name = next_name(*berout);
    }
    out_str(" -> ", name);
    end();
    return name;
}

EXPORT char* ldap_next_attribute(LDAP* ld, LDAPMessage* entry, BerElement* ber) {
    begin(__func__);
    LDAPMessage* m = check_entry(ld, entry);
    char* name = NULL;
    if (m != NULL && (live_find(ber, K_BERS) < 0 || ber->entry != m))
        misuse("not the live ber of this entry");
    else if (m != NULL)
        name = next_name(ber);
    out_str(" -> ", name);
    end();
    return name;
}

/* The values of attribute `target` as a new NULL-terminated array: strings (K_VALUES) or bervals
 * of exactly bv_len bytes (K_BVALUES), so that reading past a value is caught. NULL when the
 * attribute has no value. */
static void* values_of(LDAP* ld, LDAPMessage* entry, const char* target, enum kind kind) {
    out_str(" attr=", target);
    LDAPMessage* m = check_entry(ld, entry);
    struct fk_attr* a = m != NULL ? attr_find(m->entry, target) : NULL;
    if (a == NULL || a->nvals == 0) {
        out(" -> null");
        return NULL;
    }
    out(" -> %zu", a->nvals);
    void** vals = xrealloc(NULL, (a->nvals + 1) * sizeof *vals);
    for (size_t v = 0; v < a->nvals; ++v) {
        const struct berval* b = &a->vals[v];
        if (kind == K_BVALUES) {
            struct berval* copy = vals[v] = xrealloc(NULL, sizeof *copy);
            *copy = berval_copy(b->bv_val, b->bv_len);
        } else {
            char* text = vals[v] = xrealloc(NULL, b->bv_len + 1);
            memcpy(text, b->bv_val, b->bv_len);
            text[b->bv_len] = '\0';
        }
    }
    vals[a->nvals] = NULL;
    return live_add(vals, kind);
}

EXPORT char** ldap_get_values(LDAP* ld, LDAPMessage* entry, LDAP_CONST char* target) {
    begin(__func__);
    char** vals = values_of(ld, entry, target, K_VALUES);
    end();
    return vals;
}

EXPORT struct berval** ldap_get_values_len(LDAP* ld, LDAPMessage* entry, LDAP_CONST char* target) {
    begin(__func__);
    struct berval** vals = values_of(ld, entry, target, K_BVALUES);
    end();
    return vals;
}

/* ---- Client functions: releases ----------------------------------------------------------- */

EXPORT int ldap_msgfree(LDAPMessage* lm) {
    begin(__func__);
    int type = 0; /* the type of the chain's first message; -1 for a chain not live */
    if (lm != NULL && live_find(lm, K_MESSAGES) < 0)
        type = -1;
    else if (lm != NULL)
        type = (int)(lm->entry != NULL ? LDAP_RES_SEARCH_ENTRY : LDAP_RES_SEARCH_RESULT);
    release(lm, K_MESSAGES, "not a live chain");
    end();
    return type;
}

EXPORT void ldap_value_free(char** vals) {
    begin(__func__);
    release(vals, K_VALUES, "not a live array from ldap_get_values");
    end();
}

EXPORT void ldap_value_free_len(struct berval** vals) {
    begin(__func__);
    release(vals, K_BVALUES, "not a live array from ldap_get_values_len");
    end();
}

EXPORT void ldap_memfree(void* p) {
    begin(__func__);
    release(p, K_STRINGS, "not a live string from this library");
    end();
}

EXPORT void ber_free(BerElement* ber, int freebuf) {
    begin(__func__);
    if (ber != NULL)
        out(" freebuf=%d", freebuf);
    /* the buffer belongs to the entry: freeing it would break the chain */
    if (release(ber, K_BERS, "not a live ber") && freebuf != 0)
        misuse("freebuf must be 0 for a ber from ldap_first_attribute");
    end();
}

/* ---- Client functions: writes ------------------------------------------------------------- */

EXPORT int ldap_add_s(LDAP* ld, LDAP_CONST char* dn, LDAPMod** attrs) {
    begin(__func__);
    write_log(dn, attrs);
    int rc = handle_gate(ld);
    if (rc == 0)
        rc = add_mods_check(attrs);
    if (rc == 0)
        rc = take_result(__func__, LDAP_SUCCESS);
    end();
    return rc;
}

EXPORT int ldap_add(LDAP* ld, LDAP_CONST char* dn, LDAPMod** attrs) {
    begin(__func__);
    write_log(dn, attrs);
    int msgid = -1;
    /* an empty value array is refused by the server, in a result nobody reads here */
    if (handle_gate(ld) == 0 && add_mods_check(attrs) != LDAP_PARAM_ERROR)
        msgid = take_result(__func__, g_next_msgid++);
    end();
    return msgid;
}

EXPORT int ldap_modify_s(LDAP* ld, LDAP_CONST char* dn, LDAPMod** mods) {
    begin(__func__);
    write_log(dn, mods);
    int rc = answer(ld, __func__);
    end();
    return rc;
}

EXPORT int ldap_delete_s(LDAP* ld, LDAP_CONST char* dn) {
    begin(__func__);
    out_str(" dn=", dn);
    int rc = answer(ld, __func__);
    end();
    return rc;
}

EXPORT char* ldap_err2string(int err) {
    begin(__func__);
    out(" rc=%d", err);
    end();
    /* ldap.h declares a non-const result; callers must not write to it */
    return (char*)(err == LDAP_SUCCESS ? "Success" : "Error from the fake libldap");
}

/* ---- Control functions -------------------------------------------------------------------- */

EXPORT void fake_ldap_reset(void) {
    pthread_mutex_lock(&g_mu);
    for (size_t i = 0; i < N_ANSWERS; ++i)
        g_answers[i].queued = g_answers[i].forced = 0;
    g_log_len = 0;
    g_script_from = g_nentries;
    written_free();
    g_init_null = 0;
    g_errors = 0;
    g_next_msgid = 1;
    for (size_t i = 0; i < g_nlive; ++i) {
        g_live[i].counted = 0;
        /* the code under test may keep one handle for the whole process: a later test must not
         * inherit an earlier test's outage */
        if (g_live[i].kind == K_HANDLES)
            ((struct ldap*)g_live[i].ptr)->dead = 0;
    }
    pthread_mutex_unlock(&g_mu);
}

EXPORT void fake_ldap_clear_log(void) {
    pthread_mutex_lock(&g_mu);
    g_log_len = 0;
    pthread_mutex_unlock(&g_mu);
}

EXPORT const char* fake_ldap_log(void) {
    pthread_mutex_lock(&g_mu);
    g_log_copy = xrealloc(g_log_copy, g_log_len + 1);
    memcpy(g_log_copy, g_log ? g_log : "", g_log_len);
    g_log_copy[g_log_len] = '\0';
    pthread_mutex_unlock(&g_mu);
    return g_log_copy;
}

/* Counted from the log, which is forgotten together with the counts. */
EXPORT int fake_ldap_calls(const char* function) {
    char word[64];
    if (function == NULL || (size_t)snprintf(word, sizeof word, " %s ", function) >= sizeof word ||
        strstr(k_exported, word) == NULL)
        return -1;
    size_t len = strlen(function);
    int n = 0;
    pthread_mutex_lock(&g_mu);
    for (const char* line = g_log; g_log_len > 0 && line < g_log + g_log_len;
         line = strchr(line, '\n') + 1)
        n += strncmp(line, function, len) == 0 && (line[len] == ' ' || line[len] == '\n');
    pthread_mutex_unlock(&g_mu);
    return n;
}

EXPORT int fake_ldap_set_result(const char* function, int rc) {
    pthread_mutex_lock(&g_mu);
    struct answer* a = answer_for(function);
    if (a != NULL) {
        a->forced = 1;
        a->forced_rc = rc;
    }
    pthread_mutex_unlock(&g_mu);
    return a != NULL ? 0 : -1;
}

EXPORT int fake_ldap_push_result(const char* function, int rc) {
    pthread_mutex_lock(&g_mu);
    struct answer* a = answer_for(function);
    int ok = a != NULL && a->queued < QUEUE_MAX ? 0 : -1;
    if (ok == 0)
        a->queue[a->queued++] = rc;
    pthread_mutex_unlock(&g_mu);
    return ok;
}

EXPORT void fake_ldap_set_init_null(int on) {
    pthread_mutex_lock(&g_mu);
    g_init_null = on != 0;
    pthread_mutex_unlock(&g_mu);
}

EXPORT void fake_ldap_server_down(void) {
    pthread_mutex_lock(&g_mu);
    for (size_t i = 0; i < g_nlive; ++i)
        if (g_live[i].kind == K_HANDLES)
            ((struct ldap*)g_live[i].ptr)->dead = 1;
    pthread_mutex_unlock(&g_mu);
}

EXPORT int fake_ldap_add_entry(const char* dn) {
    pthread_mutex_lock(&g_mu);
    g_entries = xrealloc(g_entries, (g_nentries + 1) * sizeof *g_entries);
    struct fk_entry* e = g_entries[g_nentries++] = xrealloc(NULL, sizeof *e);
    *e = (struct fk_entry){xstrdup(dn), 0, NULL};
    pthread_mutex_unlock(&g_mu);
    return 0;
}

EXPORT int fake_ldap_add_value(const char* attr, const void* data, unsigned len) {
    pthread_mutex_lock(&g_mu);
    struct fk_entry* e = g_nentries > g_script_from ? g_entries[g_nentries - 1] : NULL;
    if (e != NULL) {
        struct fk_attr* a = attr_find(e, attr);
        value_add(a != NULL ? a : attr_add(e, attr), data, len);
    }
    pthread_mutex_unlock(&g_mu);
    return e != NULL ? 0 : -1;
}

/* The handles (or the other objects) handed out since the last reset and not released. */
static int count_live(int handles) {
    int n = 0;
    pthread_mutex_lock(&g_mu);
    for (size_t i = 0; i < g_nlive; ++i)
        n += g_live[i].counted && (g_live[i].kind == K_HANDLES) == handles;
    pthread_mutex_unlock(&g_mu);
    return n;
}

EXPORT int fake_ldap_outstanding(void) {
    return count_live(0);
}

EXPORT int fake_ldap_open_handles(void) {
    return count_live(1);
}

EXPORT int fake_ldap_errors(void) {
    pthread_mutex_lock(&g_mu);
    int n = g_errors;
    pthread_mutex_unlock(&g_mu);
    return n;
}

EXPORT const void* fake_ldap_written_value(const char* attr, unsigned* len) {
    pthread_mutex_lock(&g_mu);
    const struct fk_attr* a = attr_find(&g_written, attr);
    const struct berval* b = a != NULL && a->nvals > 0 ? &a->vals[0] : NULL;
    if (b != NULL)
        *len = (unsigned)b->bv_len;
    pthread_mutex_unlock(&g_mu);
    return b != NULL ? b->bv_val : NULL;
}
