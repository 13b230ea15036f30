/*
 * Fake libldap for the tests: the client functions our binding resolves, answering from a script
 * and logging every call. See fake_ldap.h for the control functions, the log format and the
 * behaviour copied from the real library.
 *
 * Built twice: as libldap.so, and with FAKE_LDAP_OMIT_SEARCH_EXT_S defined as libldap_missing.so,
 * which lacks ldap_search_ext_s.
 *
 * One mutex guards all state. Exported functions never call each other, so a process that also
 * has another libldap loaded cannot redirect our internal calls.
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

#define FK_EXPORT __attribute__((visibility("default")))

/* ---- Function table ----------------------------------------------------------------------- */

/* name, whether fake_ldap_set_result accepts it */
#define FK_FUNCTIONS(X)        \
    X(ldap_init, 0)            \
    X(ldap_initialize, 1)      \
    X(ldap_set_option, 1)      \
    X(ldap_get_option, 1)      \
    X(ldap_simple_bind_s, 1)   \
    X(ldap_start_tls_s, 1)     \
    X(ldap_unbind_ext_s, 1)    \
    X(ldap_search_ext_s, 1)    \
    X(ldap_first_entry, 0)     \
    X(ldap_next_entry, 0)      \
    X(ldap_get_dn, 0)          \
    X(ldap_count_entries, 0)   \
    X(ldap_first_attribute, 0) \
    X(ldap_next_attribute, 0)  \
    X(ldap_msgfree, 0)         \
    X(ldap_get_values, 0)      \
    X(ldap_get_values_len, 0)  \
    X(ldap_value_free, 0)      \
    X(ldap_value_free_len, 0)  \
    X(ldap_memfree, 0)         \
    X(ldap_add_s, 1)           \
    X(ldap_delete_s, 1)        \
    X(ldap_modify_s, 1)        \
    X(ldap_add, 1)             \
    X(ldap_err2string, 0)      \
    X(ber_free, 0)

enum fk_fn {
#define FK_ENUM(name, settable) FN_##name,
    FK_FUNCTIONS(FK_ENUM)
#undef FK_ENUM
        FN_COUNT
};

static const char* const fn_names[FN_COUNT] = {
#define FK_NAME(name, settable) #name,
    FK_FUNCTIONS(FK_NAME)
#undef FK_NAME
};

static const unsigned char fn_settable[FN_COUNT] = {
#define FK_SETTABLE(name, settable) settable,
    FK_FUNCTIONS(FK_SETTABLE)
#undef FK_SETTABLE
};

#define FK_QUEUE_MAX 64

struct fk_answer {
    int calls;
    int forced; /* non-zero: forced_rc applies */
    int forced_rc;
    int queue[FK_QUEUE_MAX];
    int queue_head;
    int queue_len;
};

/* ---- Private types behind the opaque ldap.h types ------------------------------------------ */

enum { DEAD_BLANK_HOST = 1, DEAD_SERVER_DOWN = 2 };

struct ldap {
    int id;
    int version;
    int dead; /* 0 alive; DEAD_BLANK_HOST from ldap_init(""); DEAD_SERVER_DOWN by
                 fake_ldap_server_down */
    int last_rc;
};

struct fk_attr {
    char* name;
    size_t nvals;
    struct berval* vals; /* bv_val owned, exactly bv_len bytes (at least 1 allocated) */
};

struct fk_entry {
    char* dn;
    size_t nattrs;
    struct fk_attr* attrs;
};

struct ldapmsg {
    ber_tag_t type; /* LDAP_RES_SEARCH_ENTRY or LDAP_RES_SEARCH_RESULT */
    struct ldapmsg* next;
    struct fk_entry entry; /* only for entries */
};

struct berelement {
    LDAPMessage* entry;
    size_t next_attr;
};

/* ---- State -------------------------------------------------------------------------------- */

enum fk_kind { K_MESSAGES, K_BVALUES, K_VALUES, K_STRINGS, K_BERS, K_HANDLES, K_COUNT };
static const char* const kind_names[K_COUNT] = {"messages", "bvalues", "values",
                                                "strings",  "bers",    "handles"};

struct fk_live {
    void* ptr;
    enum fk_kind kind;
    int counted; /* handed out since the last reset */
};

struct fk_set {
    size_t n;
    struct fk_entry* entries;
};

struct fk_mod_rec {
    char* type;
    size_t nvals;
    struct berval* vals;
};

struct fk_buf {
    char* p;
    size_t n;
    size_t cap;
};

static pthread_mutex_t g_mu = PTHREAD_MUTEX_INITIALIZER;

static struct fk_answer g_answers[FN_COUNT];
static struct fk_buf g_log;
static char* g_log_snapshot;
static char* g_summary_snapshot;

static struct fk_live* g_live;
static size_t g_nlive, g_live_cap;

static struct fk_set* g_sets;
static size_t g_nsets;
static size_t g_searches_answered;

static struct fk_mod_rec* g_write;
static size_t g_nwrite;
static int g_have_write;

static int g_init_null;
static int g_result_on_error = 1;
static int g_log_handles;
static int g_default_version = LDAP_VERSION2;
static int g_errors;
static int g_next_msgid = 1;
static int g_next_handle_id = 1;

/* ---- Small helpers ------------------------------------------------------------------------ */

static void* xmalloc(size_t n) {
    void* p = malloc(n ? n : 1);
    if (p == NULL) {
        fputs("fake libldap: out of memory\n", stderr);
        abort();
    }
    return p;
}

static void* xrealloc(void* old, size_t n) {
    void* p = realloc(old, n ? n : 1);
    if (p == NULL) {
        fputs("fake libldap: out of memory\n", stderr);
        abort();
    }
    return p;
}

static char* xstrdup(const char* s) {
    size_t n = strlen(s) + 1;
    char* p = xmalloc(n);
    memcpy(p, s, n);
    return p;
}

static void buf_put(struct fk_buf* b, const char* s, size_t n) {
    if (b->n + n + 1 > b->cap) {
        size_t cap = b->cap ? b->cap : 256;
        while (b->n + n + 1 > cap)
            cap *= 2;
        b->p = xrealloc(b->p, cap);
        b->cap = cap;
    }
    memcpy(b->p + b->n, s, n);
    b->n += n;
    b->p[b->n] = '\0';
}

static void buf_printf(struct fk_buf* b, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
static void buf_printf(struct fk_buf* b, const char* fmt, ...) {
    char small[256];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(small, sizeof small, fmt, ap);
    va_end(ap);
    if (n < 0)
        return;
    if ((size_t)n < sizeof small) {
        buf_put(b, small, (size_t)n);
        return;
    }
    char* big = xmalloc((size_t)n + 1);
    va_start(ap, fmt);
    vsnprintf(big, (size_t)n + 1, fmt, ap);
    va_end(ap);
    buf_put(b, big, (size_t)n);
    free(big);
}

/* A caller's string: "null" for NULL, control bytes as \xNN so one call stays on one line. */
static void buf_str(struct fk_buf* b, const char* s) {
    if (s == NULL) {
        buf_put(b, "null", 4);
        return;
    }
    for (const unsigned char* c = (const unsigned char*)s; *c; ++c) {
        if (*c < 0x20 || *c == 0x7f)
            buf_printf(b, "\\x%02x", *c);
        else
            buf_put(b, (const char*)c, 1);
    }
}

static void buf_free(struct fk_buf* b) {
    free(b->p);
    b->p = NULL;
    b->n = b->cap = 0;
}

/* ---- Registry of objects handed out ------------------------------------------------------- */

static void live_add(void* p, enum fk_kind kind) {
    if (g_nlive == g_live_cap) {
        g_live_cap = g_live_cap ? g_live_cap * 2 : 64;
        g_live = xrealloc(g_live, g_live_cap * sizeof *g_live);
    }
    g_live[g_nlive].ptr = p;
    g_live[g_nlive].kind = kind;
    g_live[g_nlive].counted = 1;
    ++g_nlive;
}

static int live_find(const void* p, enum fk_kind kind) {
    if (p == NULL)
        return -1;
    for (size_t i = 0; i < g_nlive; ++i)
        if (g_live[i].ptr == p && g_live[i].kind == kind)
            return (int)i;
    return -1;
}

static void live_remove(int index) {
    g_live[index] = g_live[g_nlive - 1];
    --g_nlive;
}

static struct ldap* handle_live(LDAP* ld) {
    return live_find(ld, K_HANDLES) >= 0 ? ld : NULL;
}

/* The message p if it belongs to a chain not yet freed (compares addresses only). */
static LDAPMessage* message_live(const LDAPMessage* p) {
    if (p == NULL)
        return NULL;
    for (size_t i = 0; i < g_nlive; ++i) {
        if (g_live[i].kind != K_MESSAGES)
            continue;
        for (LDAPMessage* m = g_live[i].ptr; m != NULL; m = m->next)
            if (m == p)
                return m;
    }
    return NULL;
}

/* ---- Logging ------------------------------------------------------------------------------ */

static struct fk_buf line_begin(enum fk_fn fn) {
    struct fk_buf b = {NULL, 0, 0};
    ++g_answers[fn].calls;
    buf_put(&b, fn_names[fn], strlen(fn_names[fn]));
    return b;
}

static void line_error(struct fk_buf* b, const char* why) {
    buf_printf(b, " ERROR(%s)", why);
    ++g_errors;
}

/* Ends the line: " ld=N" when handles are logged and ld is known, then into the log. */
static void line_end(struct fk_buf* b, LDAP* ld) {
    if (g_log_handles && handle_live(ld) != NULL)
        buf_printf(b, " ld=%d", ld->id);
    buf_put(b, "\n", 1);
    buf_put(&g_log, b->p, b->n);
    buf_free(b);
}

/* Checks a handle argument; logs an error unless it is a live handle. */
static struct ldap* check_handle(struct fk_buf* b, LDAP* ld) {
    struct ldap* h = handle_live(ld);
    if (h == NULL)
        line_error(b, ld == NULL ? "null handle" : "not an open handle");
    return h;
}

/* The code for one answered call: a queued one first, then the forced one, then dflt. */
static int take_result(enum fk_fn fn, int dflt) {
    struct fk_answer* a = &g_answers[fn];
    if (a->queue_len > 0) {
        int rc = a->queue[a->queue_head];
        a->queue_head = (a->queue_head + 1) % FK_QUEUE_MAX;
        --a->queue_len;
        return rc;
    }
    return a->forced ? a->forced_rc : dflt;
}

static int fn_lookup(const char* name) {
    if (name == NULL)
        return -1;
    for (int i = 0; i < FN_COUNT; ++i)
        if (strcmp(fn_names[i], name) == 0)
            return i;
    return -1;
}

/* ---- Entries and messages ----------------------------------------------------------------- */

static void entry_free(struct fk_entry* e) {
    for (size_t i = 0; i < e->nattrs; ++i) {
        for (size_t v = 0; v < e->attrs[i].nvals; ++v)
            free(e->attrs[i].vals[v].bv_val);
        free(e->attrs[i].vals);
        free(e->attrs[i].name);
    }
    free(e->attrs);
    free(e->dn);
    memset(e, 0, sizeof *e);
}

static void berval_copy(struct berval* to, const void* data, size_t len) {
    to->bv_len = len;
    to->bv_val = xmalloc(len);
    if (len)
        memcpy(to->bv_val, data, len);
}

static void chain_free(LDAPMessage* m) {
    while (m != NULL) {
        LDAPMessage* next = m->next;
        entry_free(&m->entry);
        free(m);
        m = next;
    }
}

#ifndef FAKE_LDAP_OMIT_SEARCH_EXT_S /* only searches copy entries */
static void entry_copy(struct fk_entry* to, const struct fk_entry* from) {
    to->dn = xstrdup(from->dn);
    to->nattrs = from->nattrs;
    to->attrs = xmalloc(from->nattrs * sizeof *to->attrs);
    for (size_t i = 0; i < from->nattrs; ++i) {
        const struct fk_attr* fa = &from->attrs[i];
        struct fk_attr* ta = &to->attrs[i];
        ta->name = xstrdup(fa->name);
        ta->nvals = fa->nvals;
        ta->vals = xmalloc(fa->nvals * sizeof *ta->vals);
        for (size_t v = 0; v < fa->nvals; ++v)
            berval_copy(&ta->vals[v], fa->vals[v].bv_val, fa->vals[v].bv_len);
    }
}

/* A chain for the given scripted set (NULL: no entries) ending with the result message. */
static LDAPMessage* chain_build(const struct fk_set* set) {
    LDAPMessage* head = NULL;
    LDAPMessage** tail = &head;
    for (size_t i = 0; set != NULL && i < set->n; ++i) {
        LDAPMessage* m = xmalloc(sizeof *m);
        memset(m, 0, sizeof *m);
        m->type = LDAP_RES_SEARCH_ENTRY;
        entry_copy(&m->entry, &set->entries[i]);
        *tail = m;
        tail = &m->next;
    }
    LDAPMessage* done = xmalloc(sizeof *done);
    memset(done, 0, sizeof *done);
    done->type = LDAP_RES_SEARCH_RESULT;
    *tail = done;
    live_add(head, K_MESSAGES);
    return head;
}
#endif

static LDAPMessage* entry_from(LDAPMessage* m) {
    while (m != NULL && m->type != LDAP_RES_SEARCH_ENTRY)
        m = m->next;
    return m;
}

static struct fk_attr* attr_find(struct fk_entry* e, const char* name) {
    if (name == NULL)
        return NULL;
    for (size_t i = 0; i < e->nattrs; ++i)
        if (strcasecmp(e->attrs[i].name, name) == 0)
            return &e->attrs[i];
    return NULL;
}

static struct fk_attr* attr_add(struct fk_entry* e, const char* name) {
    struct fk_attr* a = attr_find(e, name);
    if (a != NULL)
        return a;
    e->attrs = xrealloc(e->attrs, (e->nattrs + 1) * sizeof *e->attrs);
    a = &e->attrs[e->nattrs++];
    a->name = xstrdup(name);
    a->nvals = 0;
    a->vals = NULL;
    return a;
}

/* Checks an entry argument (an entry message of a live chain); logs an error otherwise. */
static LDAPMessage* check_entry(struct fk_buf* b, LDAPMessage* entry) {
    LDAPMessage* m = message_live(entry);
    if (m == NULL) {
        line_error(b, entry == NULL ? "null entry" : "not a message of a live chain");
        return NULL;
    }
    if (m->type != LDAP_RES_SEARCH_ENTRY) {
        line_error(b, "not an entry");
        return NULL;
    }
    return m;
}

static void script_free(void) {
    for (size_t s = 0; s < g_nsets; ++s) {
        for (size_t i = 0; i < g_sets[s].n; ++i)
            entry_free(&g_sets[s].entries[i]);
        free(g_sets[s].entries);
    }
    free(g_sets);
    g_sets = NULL;
    g_nsets = 0;
}

static struct fk_entry* script_last_entry(void) {
    if (g_nsets == 0 || g_sets[g_nsets - 1].n == 0)
        return NULL;
    return &g_sets[g_nsets - 1].entries[g_sets[g_nsets - 1].n - 1];
}

/* ---- Writes ------------------------------------------------------------------------------- */

static void write_free(void) {
    for (size_t i = 0; i < g_nwrite; ++i) {
        for (size_t v = 0; v < g_write[i].nvals; ++v)
            free(g_write[i].vals[v].bv_val);
        free(g_write[i].vals);
        free(g_write[i].type);
    }
    free(g_write);
    g_write = NULL;
    g_nwrite = 0;
    g_have_write = 0;
}

static void write_record(LDAPMod** mods) {
    write_free();
    g_have_write = 1;
    if (mods == NULL)
        return;
    size_t n = 0;
    while (mods[n] != NULL)
        ++n;
    g_write = xmalloc(n * sizeof *g_write);
    g_nwrite = n;
    for (size_t i = 0; i < n; ++i) {
        const LDAPMod* m = mods[i];
        struct fk_mod_rec* r = &g_write[i];
        r->type = xstrdup(m->mod_type ? m->mod_type : "");
        r->nvals = 0;
        r->vals = NULL;
        if (m->mod_op & LDAP_MOD_BVALUES) {
            if (m->mod_bvalues == NULL)
                continue;
            while (m->mod_bvalues[r->nvals] != NULL)
                ++r->nvals;
            r->vals = xmalloc(r->nvals * sizeof *r->vals);
            for (size_t v = 0; v < r->nvals; ++v)
                berval_copy(&r->vals[v], m->mod_bvalues[v]->bv_val, m->mod_bvalues[v]->bv_len);
        } else {
            if (m->mod_values == NULL)
                continue;
            while (m->mod_values[r->nvals] != NULL)
                ++r->nvals;
            r->vals = xmalloc(r->nvals * sizeof *r->vals);
            for (size_t v = 0; v < r->nvals; ++v)
                berval_copy(&r->vals[v], m->mod_values[v], strlen(m->mod_values[v]));
        }
    }
}

static void log_mods(struct fk_buf* b, LDAPMod** mods) {
    buf_put(b, " mods=", 6);
    if (mods == NULL) {
        buf_put(b, "null", 4);
        return;
    }
    if (mods[0] == NULL) {
        buf_put(b, "(empty)", 7);
        return;
    }
    for (size_t i = 0; mods[i] != NULL; ++i) {
        const LDAPMod* m = mods[i];
        buf_printf(b, "[op=0x%x type=", (unsigned)m->mod_op);
        buf_str(b, m->mod_type);
        if (m->mod_op & LDAP_MOD_BVALUES) {
            buf_put(b, " bvals=", 7);
            if (m->mod_bvalues == NULL) {
                buf_put(b, "null", 4);
            } else {
                size_t n = 0;
                while (m->mod_bvalues[n] != NULL)
                    ++n;
                buf_printf(b, "%zu", n);
                for (size_t v = 0; v < n; ++v)
                    buf_printf(b, "%s%lu", v == 0 ? ":len=" : ",",
                               (unsigned long)m->mod_bvalues[v]->bv_len);
            }
        } else {
            buf_put(b, " vals=", 6);
            if (m->mod_values == NULL) {
                buf_put(b, "null", 4);
            } else if (m->mod_values[0] == NULL) {
                buf_put(b, "[]", 2);
            } else {
                for (size_t v = 0; m->mod_values[v] != NULL; ++v) {
                    if (v)
                        buf_put(b, "|", 1);
                    buf_str(b, m->mod_values[v]);
                }
            }
        }
        buf_put(b, "]", 1);
    }
}

/* What libldap itself says about the mods of an add before anything is sent: 0 when fine,
 * LDAP_PARAM_ERROR for a NULL value array, LDAP_PROTOCOL_ERROR (the server's answer) for an
 * empty one. */
static int add_mods_check(LDAPMod** mods) {
    if (mods == NULL)
        return LDAP_PARAM_ERROR;
    for (size_t i = 0; mods[i] != NULL; ++i) {
        const LDAPMod* m = mods[i];
        const void* first;
        if (m->mod_op & LDAP_MOD_BVALUES) {
            if (m->mod_bvalues == NULL)
                return LDAP_PARAM_ERROR;
            first = m->mod_bvalues[0];
        } else {
            if (m->mod_values == NULL)
                return LDAP_PARAM_ERROR;
            first = m->mod_values[0];
        }
        if (first == NULL)
            return LDAP_PROTOCOL_ERROR;
    }
    return 0;
}

/* ---- Handles ------------------------------------------------------------------------------ */

static struct ldap* handle_new(void) {
    struct ldap* h = xmalloc(sizeof *h);
    h->id = g_next_handle_id++;
    h->version = g_default_version;
    h->dead = 0;
    h->last_rc = 0;
    live_add(h, K_HANDLES);
    return h;
}

/* The code an operation on ld gets before the script is asked: -9 for an unknown handle,
 * -1 on a dead one, 0 when the script decides. */
static int handle_gate(struct fk_buf* b, LDAP* ld) {
    struct ldap* h = check_handle(b, ld);
    if (h == NULL)
        return LDAP_PARAM_ERROR;
    if (h->dead)
        return LDAP_SERVER_DOWN;
    return 0;
}

static void handle_note(LDAP* ld, int rc) {
    struct ldap* h = handle_live(ld);
    if (h != NULL)
        h->last_rc = rc;
}

/* ---- Client functions --------------------------------------------------------------------- */

FK_EXPORT LDAP* ldap_init(LDAP_CONST char* host, int port) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_init);
    buf_put(&b, " host=", 6);
    buf_str(&b, host);
    buf_printf(&b, " port=%d", port);
    struct ldap* h = NULL;
    if (!g_init_null) {
        h = handle_new();
        if (host != NULL && host[0] == '\0')
            h->dead = DEAD_BLANK_HOST;
    }
    if (g_log_handles) {
        if (h != NULL)
            buf_printf(&b, " -> ld=%d", h->id);
        else
            buf_put(&b, " -> null", 8);
    }
    line_end(&b, NULL);
    pthread_mutex_unlock(&g_mu);
    return h;
}

FK_EXPORT int ldap_initialize(LDAP** ldp, LDAP_CONST char* url) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_initialize);
    buf_put(&b, " uri=", 5);
    buf_str(&b, url);
    int rc;
    if (ldp == NULL) {
        line_error(&b, "ldp is null");
        rc = LDAP_PARAM_ERROR;
    } else {
        rc = take_result(FN_ldap_initialize, LDAP_SUCCESS);
        struct ldap* h = NULL;
        if (rc == LDAP_SUCCESS && !g_init_null)
            h = handle_new();
        *ldp = h;
        if (g_log_handles) {
            if (h != NULL)
                buf_printf(&b, " -> ld=%d", h->id);
            else
                buf_put(&b, " -> null", 8);
        }
    }
    line_end(&b, NULL);
    pthread_mutex_unlock(&g_mu);
    return rc;
}

static void log_option_value(struct fk_buf* b, int option, const void* value) {
    buf_put(b, " value=", 7);
    switch (option) {
        case LDAP_OPT_REFERRALS:
        case LDAP_OPT_RESTART:
            buf_put(b, value != NULL ? "on" : "off", value != NULL ? 2 : 3);
            return;
        default:
            break;
    }
    if (value == NULL) {
        buf_put(b, "null", 4);
        return;
    }
    switch (option) {
        case LDAP_OPT_PROTOCOL_VERSION:
        case LDAP_OPT_DEREF:
        case LDAP_OPT_SIZELIMIT:
        case LDAP_OPT_TIMELIMIT:
        case LDAP_OPT_RESULT_CODE:
        case LDAP_OPT_X_TLS_REQUIRE_CERT:
        case LDAP_OPT_X_TLS_NEWCTX:
            buf_printf(b, "%d", *(const int*)value);
            break;
        case LDAP_OPT_TIMEOUT:
        case LDAP_OPT_NETWORK_TIMEOUT: {
            const struct timeval* tv = value;
            buf_printf(b, "{%ld,%ld}", (long)tv->tv_sec, (long)tv->tv_usec);
            break;
        }
        case LDAP_OPT_URI:
        case LDAP_OPT_HOST_NAME:
        case LDAP_OPT_X_TLS_CACERTFILE:
        case LDAP_OPT_X_TLS_CACERTDIR:
        case LDAP_OPT_X_TLS_CERTFILE:
        case LDAP_OPT_X_TLS_KEYFILE:
            buf_str(b, value);
            break;
        default:
            buf_put(b, "ptr", 3);
            break;
    }
}

FK_EXPORT int ldap_set_option(LDAP* ld, int option, LDAP_CONST void* invalue) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_set_option);
    if (ld == NULL)
        buf_put(&b, " global", 7);
    buf_printf(&b, " opt=%d", option);
    log_option_value(&b, option, invalue);
    int rc;
    struct ldap* h = NULL;
    if (ld != NULL && (h = check_handle(&b, ld)) == NULL) {
        rc = LDAP_OPT_ERROR;
    } else {
        rc = take_result(FN_ldap_set_option, LDAP_OPT_SUCCESS);
        if (rc == LDAP_OPT_SUCCESS && option == LDAP_OPT_PROTOCOL_VERSION) {
            if (invalue == NULL) {
                rc = LDAP_OPT_ERROR;
            } else if (h != NULL) {
                h->version = *(const int*)invalue;
            } else {
                g_default_version = *(const int*)invalue;
            }
        }
    }
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT int ldap_get_option(LDAP* ld, int option, void* outvalue) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_get_option);
    if (ld == NULL)
        buf_put(&b, " global", 7);
    buf_printf(&b, " opt=%d", option);
    int rc;
    struct ldap* h = NULL;
    if (ld != NULL && (h = check_handle(&b, ld)) == NULL) {
        rc = LDAP_OPT_ERROR;
    } else {
        rc = take_result(FN_ldap_get_option, LDAP_OPT_SUCCESS);
        if (rc == LDAP_OPT_SUCCESS) {
            if (outvalue == NULL) {
                rc = LDAP_OPT_ERROR;
            } else if (option == LDAP_OPT_PROTOCOL_VERSION) {
                *(int*)outvalue = h != NULL ? h->version : g_default_version;
            } else if (option == LDAP_OPT_RESULT_CODE) {
                *(int*)outvalue = h != NULL ? h->last_rc : 0;
            } else {
                rc = LDAP_OPT_ERROR;
            }
        }
    }
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT int ldap_simple_bind_s(LDAP* ld, LDAP_CONST char* who, LDAP_CONST char* passwd) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_simple_bind_s);
    buf_put(&b, " dn=", 4);
    buf_str(&b, who);
    buf_put(&b, " pw=", 4);
    buf_str(&b, passwd);
    int rc = handle_gate(&b, ld);
    if (rc == 0) {
        if (ld->version < LDAP_VERSION3)
            rc = LDAP_PROTOCOL_ERROR;
        else
            rc = take_result(FN_ldap_simple_bind_s, LDAP_SUCCESS);
    }
    handle_note(ld, rc);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT int ldap_start_tls_s(LDAP* ld, LDAPControl** serverctrls, LDAPControl** clientctrls) {
    (void)serverctrls;
    (void)clientctrls;
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_start_tls_s);
    int rc = handle_gate(&b, ld);
    if (rc == 0)
        rc = take_result(FN_ldap_start_tls_s, LDAP_SUCCESS);
    handle_note(ld, rc);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT int ldap_unbind_ext_s(LDAP* ld, LDAPControl** serverctrls, LDAPControl** clientctrls) {
    (void)serverctrls;
    (void)clientctrls;
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_unbind_ext_s);
    int rc;
    if (check_handle(&b, ld) == NULL) {
        rc = LDAP_PARAM_ERROR;
        line_end(&b, NULL);
    } else {
        rc = take_result(FN_ldap_unbind_ext_s, LDAP_SUCCESS);
        line_end(&b, ld);
        live_remove(live_find(ld, K_HANDLES));
        free(ld);
    }
    pthread_mutex_unlock(&g_mu);
    return rc;
}

#ifndef FAKE_LDAP_OMIT_SEARCH_EXT_S
static size_t count_ctrls(LDAPControl** c) {
    size_t n = 0;
    while (c[n] != NULL)
        ++n;
    return n;
}

FK_EXPORT int ldap_search_ext_s(LDAP* ld, LDAP_CONST char* base, int scope, LDAP_CONST char* filter,
                                char** attrs, int attrsonly, LDAPControl** serverctrls,
                                LDAPControl** clientctrls, struct timeval* timeout, int sizelimit,
                                LDAPMessage** res) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_search_ext_s);
    buf_put(&b, " base=", 6);
    buf_str(&b, base);
    buf_printf(&b, " scope=%d filter=", scope);
    buf_str(&b, filter);
    buf_put(&b, " attrs=", 7);
    if (attrs == NULL) {
        buf_put(&b, "null", 4);
    } else {
        buf_put(&b, "[", 1);
        for (size_t i = 0; attrs[i] != NULL; ++i) {
            if (i)
                buf_put(&b, ",", 1);
            buf_str(&b, attrs[i]);
        }
        buf_put(&b, "]", 1);
    }
    buf_printf(&b, " attrsonly=%d", attrsonly);
    if (serverctrls == NULL)
        buf_put(&b, " sctrls=null", 12);
    else
        buf_printf(&b, " sctrls=%zu", count_ctrls(serverctrls));
    if (clientctrls == NULL)
        buf_put(&b, " cctrls=null", 12);
    else
        buf_printf(&b, " cctrls=%zu", count_ctrls(clientctrls));
    if (timeout == NULL)
        buf_put(&b, " timeout=null", 13);
    else
        buf_printf(&b, " timeout={%ld,%ld}", (long)timeout->tv_sec, (long)timeout->tv_usec);
    buf_printf(&b, " sizelimit=%d", sizelimit);

    int rc;
    if (res == NULL) {
        line_error(&b, "res is null");
        rc = LDAP_PARAM_ERROR;
    } else {
        *res = NULL;
        rc = handle_gate(&b, ld);
        if (rc == 0) {
            const struct fk_set* set = NULL;
            if (g_nsets > 0)
                set = &g_sets[g_searches_answered < g_nsets ? g_searches_answered : g_nsets - 1];
            ++g_searches_answered;
            rc = take_result(FN_ldap_search_ext_s, LDAP_SUCCESS);
            if (rc == LDAP_SUCCESS || (rc > 0 && g_result_on_error >= 1) ||
                (rc < 0 && g_result_on_error >= 2))
                *res = chain_build(set);
        }
    }
    handle_note(ld, rc);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return rc;
}
#endif

FK_EXPORT LDAPMessage* ldap_first_entry(LDAP* ld, LDAPMessage* chain) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_first_entry);
    LDAPMessage* e = NULL;
    if (check_handle(&b, ld) != NULL && chain != NULL) {
        LDAPMessage* m = message_live(chain);
        if (m == NULL)
            line_error(&b, "not a message of a live chain");
        else
            e = entry_from(m);
    }
    buf_put(&b, " -> ", 4);
    buf_str(&b, e ? e->entry.dn : NULL);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return e;
}

FK_EXPORT LDAPMessage* ldap_next_entry(LDAP* ld, LDAPMessage* entry) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_next_entry);
    LDAPMessage* e = NULL;
    if (check_handle(&b, ld) != NULL) {
        LDAPMessage* m = check_entry(&b, entry);
        if (m != NULL)
            e = entry_from(m->next);
    }
    buf_put(&b, " -> ", 4);
    buf_str(&b, e ? e->entry.dn : NULL);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return e;
}

FK_EXPORT int ldap_count_entries(LDAP* ld, LDAPMessage* chain) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_count_entries);
    int n = -1;
    if (check_handle(&b, ld) != NULL && chain != NULL) {
        LDAPMessage* m = message_live(chain);
        if (m == NULL) {
            line_error(&b, "not a message of a live chain");
        } else {
            n = 0;
            for (; m != NULL; m = m->next)
                if (m->type == LDAP_RES_SEARCH_ENTRY)
                    ++n;
        }
    }
    buf_printf(&b, " -> %d", n);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return n;
}

FK_EXPORT char* ldap_get_dn(LDAP* ld, LDAPMessage* entry) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_get_dn);
    char* dn = NULL;
    if (check_handle(&b, ld) != NULL) {
        LDAPMessage* m = check_entry(&b, entry);
        if (m != NULL) {
            dn = xstrdup(m->entry.dn);
            live_add(dn, K_STRINGS);
        }
    }
    buf_put(&b, " -> ", 4);
    buf_str(&b, dn);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return dn;
}

FK_EXPORT char* ldap_first_attribute(LDAP* ld, LDAPMessage* entry, BerElement** berout) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_first_attribute);
    char* name = NULL;
    if (berout == NULL) {
        line_error(&b, "ber is null");
    } else {
        *berout = NULL;
        LDAPMessage* m = NULL;
        /* Handed the final result of a search that found nothing, libldap cannot decode an
           entry from it: it answers null and hands out no ber. The fake does the same. */
        LDAPMessage* live = message_live(entry);
        int final_result = live != NULL && live->type != LDAP_RES_SEARCH_ENTRY;
        if (check_handle(&b, ld) != NULL && !final_result)
            m = check_entry(&b, entry);
        if (m != NULL) {
            BerElement* ber = xmalloc(sizeof *ber);
            ber->entry = m;
            ber->next_attr = 0;
            live_add(ber, K_BERS);
            *berout = ber;
            if (m->entry.nattrs > 0) {
                name = xstrdup(m->entry.attrs[0].name);
                live_add(name, K_STRINGS);
                ber->next_attr = 1;
            }
        }
    }
    buf_put(&b, " -> ", 4);
    buf_str(&b, name);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return name;
}

FK_EXPORT char* ldap_next_attribute(LDAP* ld, LDAPMessage* entry, BerElement* ber) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_next_attribute);
    char* name = NULL;
    LDAPMessage* m = NULL;
    if (check_handle(&b, ld) != NULL)
        m = check_entry(&b, entry);
    if (m != NULL) {
        if (live_find(ber, K_BERS) < 0) {
            line_error(&b, ber == NULL ? "ber is null" : "not a live ber");
        } else if (ber->entry != m) {
            line_error(&b, "ber belongs to another entry");
        } else if (ber->next_attr < m->entry.nattrs) {
            name = xstrdup(m->entry.attrs[ber->next_attr++].name);
            live_add(name, K_STRINGS);
        }
    }
    buf_put(&b, " -> ", 4);
    buf_str(&b, name);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return name;
}

FK_EXPORT int ldap_msgfree(LDAPMessage* lm) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_msgfree);
    int type = 0;
    if (lm == NULL) {
        buf_put(&b, " null", 5);
    } else {
        int i = live_find(lm, K_MESSAGES);
        if (i >= 0) {
            type = (int)lm->type;
            live_remove(i);
            chain_free(lm);
        } else {
            line_error(&b, message_live(lm) ? "not the head of a chain" : "not a live chain");
            type = -1;
        }
    }
    line_end(&b, NULL);
    pthread_mutex_unlock(&g_mu);
    return type;
}

FK_EXPORT char** ldap_get_values(LDAP* ld, LDAPMessage* entry, LDAP_CONST char* target) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_get_values);
    buf_put(&b, " attr=", 6);
    buf_str(&b, target);
    char** vals = NULL;
    LDAPMessage* m = NULL;
    if (check_handle(&b, ld) != NULL)
        m = check_entry(&b, entry);
    struct fk_attr* a = m ? attr_find(&m->entry, target) : NULL;
    if (a != NULL && a->nvals > 0) {
        vals = xmalloc((a->nvals + 1) * sizeof *vals);
        for (size_t v = 0; v < a->nvals; ++v) {
            vals[v] = xmalloc(a->vals[v].bv_len + 1);
            if (a->vals[v].bv_len)
                memcpy(vals[v], a->vals[v].bv_val, a->vals[v].bv_len);
            vals[v][a->vals[v].bv_len] = '\0';
        }
        vals[a->nvals] = NULL;
        live_add(vals, K_VALUES);
        buf_printf(&b, " -> %zu", a->nvals);
    } else {
        buf_put(&b, " -> null", 8);
    }
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return vals;
}

FK_EXPORT struct berval** ldap_get_values_len(LDAP* ld, LDAPMessage* entry,
                                              LDAP_CONST char* target) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_get_values_len);
    buf_put(&b, " attr=", 6);
    buf_str(&b, target);
    struct berval** vals = NULL;
    LDAPMessage* m = NULL;
    if (check_handle(&b, ld) != NULL)
        m = check_entry(&b, entry);
    struct fk_attr* a = m ? attr_find(&m->entry, target) : NULL;
    if (a != NULL && a->nvals > 0) {
        vals = xmalloc((a->nvals + 1) * sizeof *vals);
        for (size_t v = 0; v < a->nvals; ++v) {
            /* exactly bv_len bytes and no terminator, so reading past the value is caught */
            vals[v] = xmalloc(sizeof **vals);
            berval_copy(vals[v], a->vals[v].bv_val, a->vals[v].bv_len);
        }
        vals[a->nvals] = NULL;
        live_add(vals, K_BVALUES);
        buf_printf(&b, " -> %zu", a->nvals);
    } else {
        buf_put(&b, " -> null", 8);
    }
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return vals;
}

FK_EXPORT void ldap_value_free(char** vals) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_value_free);
    if (vals == NULL) {
        buf_put(&b, " null", 5);
    } else {
        int i = live_find(vals, K_VALUES);
        if (i < 0) {
            line_error(&b, "not a live array from ldap_get_values");
        } else {
            live_remove(i);
            for (size_t v = 0; vals[v] != NULL; ++v)
                free(vals[v]);
            free(vals);
        }
    }
    line_end(&b, NULL);
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT void ldap_value_free_len(struct berval** vals) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_value_free_len);
    if (vals == NULL) {
        buf_put(&b, " null", 5);
    } else {
        int i = live_find(vals, K_BVALUES);
        if (i < 0) {
            line_error(&b, "not a live array from ldap_get_values_len");
        } else {
            live_remove(i);
            for (size_t v = 0; vals[v] != NULL; ++v) {
                free(vals[v]->bv_val);
                free(vals[v]);
            }
            free(vals);
        }
    }
    line_end(&b, NULL);
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT void ldap_memfree(void* p) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_memfree);
    if (p == NULL) {
        buf_put(&b, " null", 5);
    } else {
        int i = live_find(p, K_STRINGS);
        if (i < 0) {
            line_error(&b, "not a live string from this library");
        } else {
            live_remove(i);
            free(p);
        }
    }
    line_end(&b, NULL);
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT void ber_free(BerElement* ber, int freebuf) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ber_free);
    if (ber == NULL) {
        buf_put(&b, " null", 5);
    } else {
        buf_printf(&b, " freebuf=%d", freebuf);
        int i = live_find(ber, K_BERS);
        if (i < 0) {
            line_error(&b, "not a live ber");
        } else {
            /* the buffer belongs to the entry: freeing it would break the chain */
            if (freebuf != 0)
                line_error(&b, "freebuf must be 0 for a ber from ldap_first_attribute");
            live_remove(i);
            free(ber);
        }
    }
    line_end(&b, NULL);
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT int ldap_add_s(LDAP* ld, LDAP_CONST char* dn, LDAPMod** attrs) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_add_s);
    buf_put(&b, " dn=", 4);
    buf_str(&b, dn);
    log_mods(&b, attrs);
    write_record(attrs);
    int rc = handle_gate(&b, ld);
    if (rc == 0)
        rc = add_mods_check(attrs);
    if (rc == 0)
        rc = take_result(FN_ldap_add_s, LDAP_SUCCESS);
    handle_note(ld, rc);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT int ldap_add(LDAP* ld, LDAP_CONST char* dn, LDAPMod** attrs) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_add);
    buf_put(&b, " dn=", 4);
    buf_str(&b, dn);
    log_mods(&b, attrs);
    write_record(attrs);
    int msgid;
    int rc = handle_gate(&b, ld);
    /* an empty value array is refused by the server, in a result nobody reads here */
    if (rc == 0 && add_mods_check(attrs) == LDAP_PARAM_ERROR)
        rc = LDAP_PARAM_ERROR;
    if (rc != 0) {
        handle_note(ld, rc);
        msgid = -1;
    } else {
        const struct fk_answer* a = &g_answers[FN_ldap_add];
        msgid = (a->queue_len > 0 || a->forced) ? take_result(FN_ldap_add, 0) : g_next_msgid++;
        handle_note(ld, msgid < 0 ? msgid : LDAP_SUCCESS);
    }
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return msgid;
}

FK_EXPORT int ldap_modify_s(LDAP* ld, LDAP_CONST char* dn, LDAPMod** mods) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_modify_s);
    buf_put(&b, " dn=", 4);
    buf_str(&b, dn);
    log_mods(&b, mods);
    write_record(mods);
    int rc = handle_gate(&b, ld);
    if (rc == 0)
        rc = take_result(FN_ldap_modify_s, LDAP_SUCCESS);
    handle_note(ld, rc);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT int ldap_delete_s(LDAP* ld, LDAP_CONST char* dn) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_delete_s);
    buf_put(&b, " dn=", 4);
    buf_str(&b, dn);
    int rc = handle_gate(&b, ld);
    if (rc == 0)
        rc = take_result(FN_ldap_delete_s, LDAP_SUCCESS);
    handle_note(ld, rc);
    line_end(&b, ld);
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT char* ldap_err2string(int err) {
    pthread_mutex_lock(&g_mu);
    struct fk_buf b = line_begin(FN_ldap_err2string);
    buf_printf(&b, " rc=%d", err);
    line_end(&b, NULL);
    pthread_mutex_unlock(&g_mu);
    const char* text;
    switch (err) {
        case LDAP_SUCCESS:
            text = "Success";
            break;
        case LDAP_OPERATIONS_ERROR:
            text = "Operations error";
            break;
        case LDAP_PROTOCOL_ERROR:
            text = "Protocol error";
            break;
        case LDAP_SIZELIMIT_EXCEEDED:
            text = "Size limit exceeded";
            break;
        case LDAP_UNDEFINED_TYPE:
            text = "Undefined attribute type";
            break;
        case LDAP_INVALID_SYNTAX:
            text = "Invalid syntax";
            break;
        case LDAP_NO_SUCH_OBJECT:
            text = "No such object";
            break;
        case LDAP_INVALID_DN_SYNTAX:
            text = "Invalid DN syntax";
            break;
        case LDAP_INVALID_CREDENTIALS:
            text = "Invalid credentials";
            break;
        case LDAP_INSUFFICIENT_ACCESS:
            text = "Insufficient access";
            break;
        case LDAP_UNWILLING_TO_PERFORM:
            text = "Server is unwilling to perform";
            break;
        case LDAP_OBJECT_CLASS_VIOLATION:
            text = "Object class violation";
            break;
        case LDAP_NOT_ALLOWED_ON_NONLEAF:
            text = "Operation not allowed on non-leaf";
            break;
        case LDAP_ALREADY_EXISTS:
            text = "Already exists";
            break;
        case LDAP_SERVER_DOWN:
            text = "Can't contact LDAP server";
            break;
        case LDAP_TIMEOUT:
            text = "Timed out";
            break;
        case LDAP_PARAM_ERROR:
            text = "Bad parameter to an ldap routine";
            break;
        case LDAP_CONNECT_ERROR:
            text = "Connect error";
            break;
        default:
            text = "Unknown error";
            break;
    }
    /* ldap.h declares a non-const result; callers must not write to it */
    return (char*)text;
}

/* ---- Control functions -------------------------------------------------------------------- */

FK_EXPORT void fake_ldap_reset(void) {
    pthread_mutex_lock(&g_mu);
    memset(g_answers, 0, sizeof g_answers);
    buf_free(&g_log);
    free(g_log_snapshot);
    g_log_snapshot = NULL;
    free(g_summary_snapshot);
    g_summary_snapshot = NULL;
    script_free();
    g_searches_answered = 0;
    write_free();
    g_init_null = 0;
    g_result_on_error = 1;
    g_log_handles = 0;
    g_default_version = LDAP_VERSION2;
    g_errors = 0;
    g_next_msgid = 1;
    int max_id = 0;
    for (size_t i = 0; i < g_nlive; ++i) {
        g_live[i].counted = 0;
        if (g_live[i].kind != K_HANDLES)
            continue;
        struct ldap* h = g_live[i].ptr;
        if (h->id > max_id)
            max_id = h->id;
        /* the code under test may keep one handle for the whole process: a later test must not
         * inherit an earlier test's outage */
        if (h->dead == DEAD_SERVER_DOWN)
            h->dead = 0;
    }
    g_next_handle_id = max_id + 1;
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT void fake_ldap_clear_log(void) {
    pthread_mutex_lock(&g_mu);
    buf_free(&g_log);
    for (int i = 0; i < FN_COUNT; ++i)
        g_answers[i].calls = 0;
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT const char* fake_ldap_log(void) {
    pthread_mutex_lock(&g_mu);
    free(g_log_snapshot);
    g_log_snapshot = xstrdup(g_log.p ? g_log.p : "");
    const char* s = g_log_snapshot;
    pthread_mutex_unlock(&g_mu);
    return s;
}

FK_EXPORT int fake_ldap_calls(const char* function) {
    int fn = fn_lookup(function);
    if (fn < 0)
        return -1;
    pthread_mutex_lock(&g_mu);
    int n = g_answers[fn].calls;
    pthread_mutex_unlock(&g_mu);
    return n;
}

FK_EXPORT int fake_ldap_set_result(const char* function, int rc) {
    int fn = fn_lookup(function);
    if (fn < 0 || !fn_settable[fn])
        return -1;
    pthread_mutex_lock(&g_mu);
    g_answers[fn].forced = 1;
    g_answers[fn].forced_rc = rc;
    pthread_mutex_unlock(&g_mu);
    return 0;
}

FK_EXPORT int fake_ldap_push_result(const char* function, int rc) {
    int fn = fn_lookup(function);
    if (fn < 0 || !fn_settable[fn])
        return -1;
    int ok = -1;
    pthread_mutex_lock(&g_mu);
    struct fk_answer* a = &g_answers[fn];
    if (a->queue_len < FK_QUEUE_MAX) {
        a->queue[(a->queue_head + a->queue_len) % FK_QUEUE_MAX] = rc;
        ++a->queue_len;
        ok = 0;
    }
    pthread_mutex_unlock(&g_mu);
    return ok;
}

FK_EXPORT void fake_ldap_set_init_null(int on) {
    pthread_mutex_lock(&g_mu);
    g_init_null = on != 0;
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT void fake_ldap_set_search_result_on_error(int mode) {
    pthread_mutex_lock(&g_mu);
    g_result_on_error = mode;
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT void fake_ldap_server_down(void) {
    pthread_mutex_lock(&g_mu);
    for (size_t i = 0; i < g_nlive; ++i)
        if (g_live[i].kind == K_HANDLES && ((struct ldap*)g_live[i].ptr)->dead == 0)
            ((struct ldap*)g_live[i].ptr)->dead = DEAD_SERVER_DOWN;
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT void fake_ldap_set_log_handles(int on) {
    pthread_mutex_lock(&g_mu);
    g_log_handles = on != 0;
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT void fake_ldap_new_result_set(void) {
    pthread_mutex_lock(&g_mu);
    if (g_nsets == 0) {
        /* set 0 exists implicitly; make it explicit before starting set 1 */
        g_sets = xrealloc(g_sets, sizeof *g_sets);
        g_sets[0].n = 0;
        g_sets[0].entries = NULL;
        g_nsets = 1;
    }
    g_sets = xrealloc(g_sets, (g_nsets + 1) * sizeof *g_sets);
    g_sets[g_nsets].n = 0;
    g_sets[g_nsets].entries = NULL;
    ++g_nsets;
    pthread_mutex_unlock(&g_mu);
}

FK_EXPORT int fake_ldap_add_entry(const char* dn) {
    if (dn == NULL)
        return -1;
    pthread_mutex_lock(&g_mu);
    if (g_nsets == 0) {
        g_sets = xrealloc(g_sets, sizeof *g_sets);
        g_sets[0].n = 0;
        g_sets[0].entries = NULL;
        g_nsets = 1;
    }
    struct fk_set* set = &g_sets[g_nsets - 1];
    set->entries = xrealloc(set->entries, (set->n + 1) * sizeof *set->entries);
    struct fk_entry* e = &set->entries[set->n++];
    e->dn = xstrdup(dn);
    e->nattrs = 0;
    e->attrs = NULL;
    pthread_mutex_unlock(&g_mu);
    return 0;
}

FK_EXPORT int fake_ldap_add_attr(const char* attr) {
    if (attr == NULL)
        return -1;
    int rc = -1;
    pthread_mutex_lock(&g_mu);
    struct fk_entry* e = script_last_entry();
    if (e != NULL) {
        attr_add(e, attr);
        rc = 0;
    }
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT int fake_ldap_add_value(const char* attr, const void* data, unsigned len) {
    if (attr == NULL || (data == NULL && len != 0))
        return -1;
    int rc = -1;
    pthread_mutex_lock(&g_mu);
    struct fk_entry* e = script_last_entry();
    if (e != NULL) {
        struct fk_attr* a = attr_add(e, attr);
        a->vals = xrealloc(a->vals, (a->nvals + 1) * sizeof *a->vals);
        berval_copy(&a->vals[a->nvals++], data, len);
        rc = 0;
    }
    pthread_mutex_unlock(&g_mu);
    return rc;
}

FK_EXPORT int fake_ldap_outstanding(void) {
    int n = 0;
    pthread_mutex_lock(&g_mu);
    for (size_t i = 0; i < g_nlive; ++i)
        if (g_live[i].counted && g_live[i].kind != K_HANDLES)
            ++n;
    pthread_mutex_unlock(&g_mu);
    return n;
}

FK_EXPORT const char* fake_ldap_outstanding_summary(void) {
    int n[K_COUNT] = {0};
    pthread_mutex_lock(&g_mu);
    for (size_t i = 0; i < g_nlive; ++i)
        if (g_live[i].counted)
            ++n[g_live[i].kind];
    struct fk_buf b = {NULL, 0, 0};
    for (int k = 0; k < K_COUNT; ++k)
        buf_printf(&b, "%s%s=%d", k ? " " : "", kind_names[k], n[k]);
    free(g_summary_snapshot);
    g_summary_snapshot = b.p;
    const char* s = g_summary_snapshot;
    pthread_mutex_unlock(&g_mu);
    return s;
}

FK_EXPORT int fake_ldap_open_handles(void) {
    int n = 0;
    pthread_mutex_lock(&g_mu);
    for (size_t i = 0; i < g_nlive; ++i)
        if (g_live[i].counted && g_live[i].kind == K_HANDLES)
            ++n;
    pthread_mutex_unlock(&g_mu);
    return n;
}

FK_EXPORT int fake_ldap_errors(void) {
    pthread_mutex_lock(&g_mu);
    int n = g_errors;
    pthread_mutex_unlock(&g_mu);
    return n;
}

static const struct fk_mod_rec* written_find(const char* attr) {
    if (attr == NULL || !g_have_write)
        return NULL;
    for (size_t i = 0; i < g_nwrite; ++i)
        if (strcasecmp(g_write[i].type, attr) == 0)
            return &g_write[i];
    return NULL;
}

FK_EXPORT int fake_ldap_written_values(const char* attr) {
    pthread_mutex_lock(&g_mu);
    const struct fk_mod_rec* r = written_find(attr);
    int n = r ? (int)r->nvals : -1;
    pthread_mutex_unlock(&g_mu);
    return n;
}

FK_EXPORT const void* fake_ldap_written_value(const char* attr, unsigned index, unsigned* len) {
    const void* data = NULL;
    pthread_mutex_lock(&g_mu);
    const struct fk_mod_rec* r = written_find(attr);
    if (r != NULL && index < r->nvals) {
        data = r->vals[index].bv_val;
        if (len)
            *len = (unsigned)r->vals[index].bv_len;
    }
    pthread_mutex_unlock(&g_mu);
    return data;
}
