// The text modification a write carries: one value, converted to UTF-8, in a frame of its own.
// Owns: nothing. A filled frame's values[0] is a UTF-8 copy (array new) that the sender of the
// request releases; mod.mod_values points into the same frame, so a filled frame is never moved
// or copied.
// Promises: a value is prepared only when it converts to a text that is not empty.
// Needs: the GB2312/UTF-8 conversion (platform/ChineseCode.h).
#ifndef QORLDAP_ENGINE_MODIFICATION_H
#define QORLDAP_ENGINE_MODIFICATION_H

#include "binding/OpenLdapIF.h"

struct AttFrame {
    char* values[2];
    LDAPMod mod;
};

// Fills frame with value converted to UTF-8 as the modification op of attribute type; false
// (frame untouched) for a null type, an empty or unconvertible value.
bool PrepareTextValue(char const* value, unsigned int op, char const* type, AttFrame& frame);

#endif
