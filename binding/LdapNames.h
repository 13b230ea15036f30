// The directory library's functions the binding binds: the names it looks them up by, and the one
// table, QORLDAP_LDAP_FUNCTIONS, from which binding/OpenLdapIF.h makes each function's pointer
// type and slot. A function is added by a name below and a row of the table, nothing else.
#ifndef QORLDAP_BINDING_LDAPNAMES_H
#define QORLDAP_BINDING_LDAPNAMES_H

#define LDAP_INIT_N "ldap_init"
#define LDAP_SET_OPTION_N "ldap_set_option"
#define LDAP_GET_OPTION_N "ldap_get_option"
#define LDAP_SIMPLE_BIND_S_N "ldap_simple_bind_s"
#define LDAP_GET_LAST_ERROR "LdapGetLastError"
#define LDAP_ERR2STRING_N "ldap_err2string"
#define LDAP_SEARCH_EXT_S_N "ldap_search_ext_s"
#define LDAP_FIRST_ENTRY_N "ldap_first_entry"
#define LDAP_NEXT_ENTRY_N "ldap_next_entry"
#define LDAP_GET_DN_N "ldap_get_dn"
#define LDAP_COUNT_ENTRIES_N "ldap_count_entries"
#define LDAP_FIRST_ATTRIBUTE_N "ldap_first_attribute"
#define LDAP_NEXT_ATTRIBUTE_N "ldap_next_attribute"
#define LDAP_MSGFREE_N "ldap_msgfree"
#define LDAP_GET_VALUES_N "ldap_get_values"
#define LDAP_GET_VALUES_LEN_N "ldap_get_values_len"
#define LDAP_VALUE_FREE_N "ldap_value_free"
#define LDAP_VALUE_FREE_LEN_N "ldap_value_free_len"
#define LDAP_MEMFREE_N "ldap_memfree"
#define LDAP_ADD_S_N "ldap_add_s"
#define LDAP_DELETE_S_N "ldap_delete_s"
#define LDAP_MODIFY_S_N "ldap_modify_s"
#define LDAP_ADD_N "ldap_add"
// Released after every attribute walk, so that no read leaks its cursor.
#define BER_FREE_N "ber_free"

// Bound only when a connection option of soap.ini asks for them: LDAPS needs a URI-based
// init, StartTLS its extended operation, and recovery the release of a dead handle.
#define LDAP_INITIALIZE_N "ldap_initialize"
#define LDAP_START_TLS_S_N "ldap_start_tls_s"
#define LDAP_UNBIND_EXT_S_N "ldap_unbind_ext_s"
// Bound only by a paged walk of a subtree (the simple paged results control, RFC 2696): the
// request control made and released, the cookie read back from the final result's controls.
#define LDAP_CREATE_PAGE_CONTROL_N "ldap_create_page_control"
#define LDAP_PARSE_RESULT_N "ldap_parse_result"
#define LDAP_CONTROL_FIND_N "ldap_control_find"
#define LDAP_PARSE_PAGERESPONSE_CONTROL_N "ldap_parse_pageresponse_control"
#define LDAP_CONTROL_FREE_N "ldap_control_free"
#define LDAP_CONTROLS_FREE_N "ldap_controls_free"
// Bound only with a timeout on an LDAPS link: reads the socket of a new connection, so that
// its TLS handshake cannot wait on a silent server for ever.
#define BER_SOCKBUF_CTRL_N "ber_sockbuf_ctrl"

// One row per bound function, in the order the binding keeps its slots:
//   X(slot, Type, NAME, function, result, (parameters))
// slot is COpenLdapIF's member holding the resolved address (null until the first call that
// needs it), Type##Fn its pointer type, NAME the constant above it is looked up by, function the
// C function that name stands for. The binding checks at compile time that every NAME spells its
// function and that every type is the one <ldap.h> declares, so a row cannot drift from the
// library it binds. The types name libldap's own (LDAP, LDAPMessage, BerElement, ...), so the
// table is expanded only where <ldap.h> is included. ldap_get_option is bound only when
// diagnostics are kept, ber_sockbuf_ctrl only for BoundSockets, the control functions only by a
// paged walk.
#define QORLDAP_LDAP_FUNCTIONS(X)                                                                 \
    X(init_, Init, LDAP_INIT_N, ldap_init, LDAP*, (char const*, int))                             \
    X(setOption_, SetOption, LDAP_SET_OPTION_N, ldap_set_option, int, (LDAP*, int, void const*))  \
    X(simpleBindS_, SimpleBindS, LDAP_SIMPLE_BIND_S_N, ldap_simple_bind_s, int,                   \
      (LDAP*, char const*, char const*))                                                          \
    X(getLastError_, GetLastError, LDAP_GET_LAST_ERROR, LdapGetLastError, int, ())                \
    X(err2String_, Err2String, LDAP_ERR2STRING_N, ldap_err2string, char*, (int))                  \
    X(searchExtS_, SearchExtS, LDAP_SEARCH_EXT_S_N, ldap_search_ext_s, int,                       \
      (LDAP*, char const*, int, char const*, char**, int, LDAPControl**, LDAPControl**, timeval*, \
       int, LDAPMessage**))                                                                       \
    X(firstEntry_, FirstEntry, LDAP_FIRST_ENTRY_N, ldap_first_entry, LDAPMessage*,                \
      (LDAP*, LDAPMessage*))                                                                      \
    X(nextEntry_, NextEntry, LDAP_NEXT_ENTRY_N, ldap_next_entry, LDAPMessage*,                    \
      (LDAP*, LDAPMessage*))                                                                      \
    X(getDn_, GetDn, LDAP_GET_DN_N, ldap_get_dn, char*, (LDAP*, LDAPMessage*))                    \
    X(countEntries_, CountEntries, LDAP_COUNT_ENTRIES_N, ldap_count_entries, int,                 \
      (LDAP*, LDAPMessage*))                                                                      \
    X(firstAttribute_, FirstAttribute, LDAP_FIRST_ATTRIBUTE_N, ldap_first_attribute, char*,       \
      (LDAP*, LDAPMessage*, BerElement**))                                                        \
    X(nextAttribute_, NextAttribute, LDAP_NEXT_ATTRIBUTE_N, ldap_next_attribute, char*,           \
      (LDAP*, LDAPMessage*, BerElement*))                                                         \
    X(msgFree_, MsgFree, LDAP_MSGFREE_N, ldap_msgfree, int, (LDAPMessage*))                       \
    X(getValues_, GetValues, LDAP_GET_VALUES_N, ldap_get_values, char**,                          \
      (LDAP*, LDAPMessage*, char const*))                                                         \
    X(getValuesLen_, GetValuesLen, LDAP_GET_VALUES_LEN_N, ldap_get_values_len, berval**,          \
      (LDAP*, LDAPMessage*, char const*))                                                         \
    X(valueFree_, ValueFree, LDAP_VALUE_FREE_N, ldap_value_free, void, (char**))                  \
    X(valueFreeLen_, ValueFreeLen, LDAP_VALUE_FREE_LEN_N, ldap_value_free_len, void, (berval**))  \
    X(memFree_, MemFree, LDAP_MEMFREE_N, ldap_memfree, void, (void*))                             \
    X(addS_, AddS, LDAP_ADD_S_N, ldap_add_s, int, (LDAP*, char const*, LDAPMod**))                \
    X(deleteS_, DeleteS, LDAP_DELETE_S_N, ldap_delete_s, int, (LDAP*, char const*))               \
    X(modifyS_, ModifyS, LDAP_MODIFY_S_N, ldap_modify_s, int, (LDAP*, char const*, LDAPMod**))    \
    X(add_, Add, LDAP_ADD_N, ldap_add, int, (LDAP*, char const*, LDAPMod**))                      \
    X(berFree_, BerFree, BER_FREE_N, ber_free, void, (BerElement*, int))                          \
    X(initialize_, Initialize, LDAP_INITIALIZE_N, ldap_initialize, int, (LDAP**, char const*))    \
    X(startTlsS_, StartTlsS, LDAP_START_TLS_S_N, ldap_start_tls_s, int,                           \
      (LDAP*, LDAPControl**, LDAPControl**))                                                      \
    X(unbindExtS_, UnbindExtS, LDAP_UNBIND_EXT_S_N, ldap_unbind_ext_s, int,                       \
      (LDAP*, LDAPControl**, LDAPControl**))                                                      \
    X(getOption_, GetOption, LDAP_GET_OPTION_N, ldap_get_option, int, (LDAP*, int, void*))        \
    X(sockbufCtrl_, SockbufCtrl, BER_SOCKBUF_CTRL_N, ber_sockbuf_ctrl, int,                       \
      (Sockbuf*, int, void*))                                                                     \
    X(pageControl_, PageControl, LDAP_CREATE_PAGE_CONTROL_N, ldap_create_page_control, int,       \
      (LDAP*, ber_int_t, berval*, int, LDAPControl**))                                            \
    X(parseResult_, ParseResult, LDAP_PARSE_RESULT_N, ldap_parse_result, int,                     \
      (LDAP*, LDAPMessage*, int*, char**, char**, char***, LDAPControl***, int))                  \
    X(controlFind_, ControlFind, LDAP_CONTROL_FIND_N, ldap_control_find, LDAPControl*,            \
      (char const*, LDAPControl**, LDAPControl***))                                               \
    X(parsePageResponse_, ParsePageResponse, LDAP_PARSE_PAGERESPONSE_CONTROL_N,                   \
      ldap_parse_pageresponse_control, int, (LDAP*, LDAPControl*, ber_int_t*, berval*))           \
    X(controlFree_, ControlFree, LDAP_CONTROL_FREE_N, ldap_control_free, void, (LDAPControl*))    \
    X(controlsFree_, ControlsFree, LDAP_CONTROLS_FREE_N, ldap_controls_free, void, (LDAPControl**))

// The file the binding loads. QORLDAP_LDAP_LIBRARY, when set, names the one file to load.
#define LDAP_LIBRARY_FILE "libldap.so"
#define LDAP_LIBRARY_ENV "QORLDAP_LDAP_LIBRARY"

#endif
