// The library's result codes. Codes only ever grow; a number is never reused.
// Any other non-zero value is the directory's own result code, passed on unchanged.
#ifndef QORLDAP_RESULT_CODES_H
#define QORLDAP_RESULT_CODES_H

#define QORLDAP_OK 0
// General failure: no connection, a missing argument, a refused name, a failed search or insert.
#define QORLDAP_E_FAILED 0x16000010
// The base entry named by "basedn" is missing and could not be created (connect only).
#define QORLDAP_E_ROOT 0x16000011
// The old password does not open a stored private key.
#define QORLDAP_E_OLD_PASSWORD 0x16000012
// A private key cannot be converted into its password-protected stored form.
#define QORLDAP_E_KEY_CONVERT 0x16000013
// A PKCS#12 bundle cannot be opened, or its certificate cannot be read.
#define QORLDAP_E_PKCS12 0x16000014
// The search of a key read failed (for example, the entry does not exist).
#define QORLDAP_E_KEY_SEARCH 0x16000015

#endif
