// RootCheck: the check, at the end of every connection, that the base entry exists; a base DN
// naming an organisation ("o=...") that is missing is created.
// Owns: nothing.
// Promises: ValidateRootAtt is true when the base entry exists or was created, or the base is
// not "o=..."; what the other two leave is said below.
// Needs: the connection's handle and search (during the connection sequence, the freshly bound
// handle), the base DN of the settings, and text modification records (Modification.h).
#ifndef QORLDAP_ENGINE_ROOTCHECK_H
#define QORLDAP_ENGINE_ROOTCHECK_H

#include "engine/Connection.h"
#include "engine/ServerSettings.h"

// What the root check reads from the base entry. Nothing reads it back; texts are cut to fit.
struct DepartementAtt {
    char name[256];
    char dn[256];
    char baseDn[256];
};

class RootCheck {
  public:
    RootCheck(Connection& connection, ServerSettings const& settings)
        : connection_(connection), settings_(settings) {}

    // true when the base entry exists or was created, or the base is not "o=..."; false when
    // the base DN is unusable or the creation failed.
    bool ValidateRootAtt();
    // true when the search succeeded (att then holds what was found, cut to fit, or zeros);
    // false when it failed, att zeroed.
    bool GetRootAtt(char const* dn, char const* filter, DepartementAtt& att);
    // true when the base entry was added.
    bool InsertRootAtt(char const* dn, char const* name);

  private:
    Connection& connection_;
    ServerSettings const& settings_;
};

#endif
