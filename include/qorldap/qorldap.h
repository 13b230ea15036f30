// Everything a caller of libqorldap needs.
#ifndef QORLDAP_QORLDAP_H
#define QORLDAP_QORLDAP_H

#include "qorldap/CLdap.h"
#include "qorldap/LdapIF.h"
#include "qorldap/records.h"
#include "qorldap/result_codes.h"
#include "qorldap/Entry.h"
#include "qorldap/Outcome.h"
#include "qorldap/Settings.h"

#endif
