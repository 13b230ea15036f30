// Names of the directory library's functions, as the binding looks them up.
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
// Bound only with a timeout on an LDAPS link: reads the socket of a new connection, so that
// its TLS handshake cannot wait on a silent server for ever.
#define BER_SOCKBUF_CTRL_N "ber_sockbuf_ctrl"

// The file the binding loads. QORLDAP_LDAP_LIBRARY, when set, names the one file to load.
#define LDAP_LIBRARY_FILE "libldap.so"
#define LDAP_LIBRARY_ENV "QORLDAP_LDAP_LIBRARY"

#endif
