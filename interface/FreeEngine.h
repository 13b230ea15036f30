// The free functions' engine, built by the first call that needs it.
#ifndef QORLDAP_INTERFACE_FREEENGINE_H
#define QORLDAP_INTERFACE_FREEENGINE_H

class CLdapOp;

namespace qor {

CLdapOp& FreeEngine();
// Whether FreeEngine has been built.
bool FreeEngineBuilt();

}  // namespace qor

#endif
