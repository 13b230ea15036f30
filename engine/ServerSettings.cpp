// Reading the server settings of "soap.ini".
#include "engine/ServerSettings.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "platform/CallerSettings.h"
#include "platform/IniFile.h"

namespace {

// The port reads as strtol with base 10 reads it: leading blanks and a sign are accepted,
// reading stops at the first non-digit, and text without leading digits gives 0.
int ReadPort(std::string const& text) {
    long port = std::strtol(text.c_str(), nullptr, 10);
    if (port > INT_MAX)
        return INT_MAX;
    if (port < INT_MIN)
        return INT_MIN;
    return static_cast<int>(port);
}

}  // namespace

ServerSettings::ServerSettings(std::string const& section) {
    std::memset(&info_, 0, sizeof info_);
    Read(section);
}

// Reads the keys in a fixed order, each on its own. A key that is missing keeps the field as it
// was. A text longer than its field is cut to the field (255 characters for host and basedn,
// 32 for managerdn and psw).
void ServerSettings::Read(std::string const& section) {
    // One read of the file for all the keys.
    // The program's own settings (qorldap/Settings.h) count as lines of the file.
    IniFile soap = IniFile::Load(SOAP_INI);
    qor::OverlayCallerSettings(soap, section);
    std::string value;
    std::lock_guard<std::mutex> guard(lock_);
    if (soap.Get(section, SECTION_LDAP_HOST, value)) {
        qor::CutCopy(info_.host, value.c_str());
    }
    if (soap.Get(section, SECTION_LDAP_PSW, value)) {
        qor::CutCopy(info_.psw, value.c_str());
    }
    if (soap.Get(section, SECTION_LDAP_BASEDN, value)) {
        qor::CutCopy(info_.basedn, value.c_str());
    }
    if (soap.Get(section, SECTION_LDAP_MANGERDN, value)) {
        qor::CutCopy(info_.managerdn, value.c_str());
    }
    if (soap.Get(section, SECTION_LDAP_PORT, value)) {
        info_.port = ReadPort(value);
    }
    link_.Read(soap, section);
    pool_.Read(soap, section);
}
