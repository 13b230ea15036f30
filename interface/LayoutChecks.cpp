// The record layouts are the ABI: callers compile against their own copies of these
// definitions, so sizes and offsets are pinned here.
#include <cstddef>

#include "qorldap/records.h"

static_assert(sizeof(LdapInfo) == 584, "LdapInfo size");
static_assert(offsetof(LdapInfo, host) == 0, "LdapInfo.host");
static_assert(offsetof(LdapInfo, port) == 256, "LdapInfo.port");
static_assert(offsetof(LdapInfo, basedn) == 260, "LdapInfo.basedn");
static_assert(offsetof(LdapInfo, managerdn) == 516, "LdapInfo.managerdn");
static_assert(offsetof(LdapInfo, psw) == 549, "LdapInfo.psw");

static_assert(sizeof(tagAttItem) == 1537, "tagAttItem size");
static_assert(offsetof(tagAttItem, type) == 0, "tagAttItem.type");
static_assert(offsetof(tagAttItem, value) == 256, "tagAttItem.value");
static_assert(offsetof(tagAttItem, syntax) == 1280, "tagAttItem.syntax");
static_assert(offsetof(tagAttItem, valueKnown) == 1536, "tagAttItem.valueKnown");

static_assert(sizeof(tagAtt) == 1048, "tagAtt size");
static_assert(offsetof(tagAtt, items) == 0, "tagAtt.items");
static_assert(offsetof(tagAtt, itemCount) == 8, "tagAtt.itemCount");
static_assert(offsetof(tagAtt, objectClass) == 12, "tagAtt.objectClass");
static_assert(offsetof(tagAtt, dn) == 268, "tagAtt.dn");
static_assert(offsetof(tagAtt, parentDn) == 524, "tagAtt.parentDn");
static_assert(offsetof(tagAtt, namingAtt) == 780, "tagAtt.namingAtt");
static_assert(offsetof(tagAtt, templateIndex) == 1036, "tagAtt.templateIndex");
static_assert(offsetof(tagAtt, templateCount) == 1040, "tagAtt.templateCount");

static_assert(sizeof(tagDN) == 512, "tagDN size");
static_assert(offsetof(tagDN, dn) == 0, "tagDN.dn");
static_assert(offsetof(tagDN, baseDn) == 256, "tagDN.baseDn");
