#include "engine/LinkOptions.h"

#include <cstdlib>
#include <sstream>

#include "engine/Constants.h"
#include "platform/System.h"

namespace {

bool IsYes(std::string const& text) {
    return text == "yes" || text == "YES" || text == "Yes" || text == "1" || text == "true" ||
           text == "on";
}

}  // namespace

void LinkOptions::Read(std::string const& section) {
    std::string value;
    if (CSystem::GetProfileStrValue(section, SECTION_LDAP_TLS, SOAP_INI, value)) {
        if (value == "starttls" || value == "StartTLS") {
            tls = Tls::kStartTls;
        } else if (value == "ldaps" || value == "LDAPS") {
            tls = Tls::kLdaps;
        } else {
            tls = Tls::kNone;
        }
    }
    if (CSystem::GetProfileStrValue(section, SECTION_LDAP_TLS_CACERT, SOAP_INI, value)) {
        caCert = value;
    }
    if (CSystem::GetProfileStrValue(section, SECTION_LDAP_TLS_VERIFY, SOAP_INI, value)) {
        verify = value.empty() || IsYes(value);
    }
    if (CSystem::GetProfileStrValue(section, SECTION_LDAP_TIMEOUT, SOAP_INI, value)) {
        long seconds = std::strtol(value.c_str(), nullptr, 10);
        timeout = seconds > 0 && seconds < 86400 ? static_cast<int>(seconds) : 0;
    }
    if (CSystem::GetProfileStrValue(section, SECTION_LDAP_RECONNECT, SOAP_INI, value)) {
        reconnect = IsYes(value);
    }
}

std::string LinkOptions::LdapsUris(char const* hosts, int port) {
    std::istringstream in(hosts != nullptr ? hosts : "");
    std::string host;
    std::string uris;
    while (in >> host) {
        if (!uris.empty()) {
            uris += ' ';
        }
        if (host.find("://") != std::string::npos) {
            uris += host;
        } else {
            uris += "ldaps://" + host;
            if (host.find(':') == std::string::npos && port > 0) {
                uris += ':' + std::to_string(port);
            }
        }
    }
    return uris.empty() ? "ldaps://localhost" : uris;
}
