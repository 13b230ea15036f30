// DNs between a caller that speaks GB18030 and a directory that requires UTF-8 (soap.ini
// gb18030_dns = yes). With the key off every DN passes unchanged, both ways.
#ifndef QORLDAP_INTERFACE_CALLERDN_H
#define QORLDAP_INTERFACE_CALLERDN_H

#include <string>

#include "qorldap/records.h"

class CLdapOp;

namespace qor {

// A DN or name a caller passes, as the engine is to use it. Get() is the caller's own text
// when the key is off or the text is ASCII, the UTF-8 conversion otherwise, and null for a null
// text or one that is not GB18030 (which every operation then refuses as it refuses a null
// name, with nothing sent).
class DirectoryDn {
  public:
    DirectoryDn(CLdapOp const& engine, char const* dn);
    char const* Get() const { return dn_; }

  private:
    std::string converted_;
    char const* dn_;
};

// The DNs a call hands back, in the caller's GB18030 when the key is on. A DN whose conversion
// fails (not UTF-8) is left as the directory gave it.
void ToCaller(CLdapOp const& engine, tagDN* list, int count);
void ToCaller(CLdapOp const& engine, tagAtt& att);
void ToCaller(CLdapOp const& engine, std::string& dn);

}  // namespace qor

#endif
