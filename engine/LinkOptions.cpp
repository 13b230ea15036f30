#include "engine/LinkOptions.h"

#include <sstream>
#include <vector>

#include "engine/Constants.h"
#include "platform/IniFile.h"
#include "platform/Trim.h"

namespace {

bool OneOf(std::string const& value, std::initializer_list<char const*> spellings) {
    for (char const* s : spellings) {
        if (value == s) {
            return true;
        }
    }
    return false;
}

// A yes/no key: true or false into out; false as the result when the value is neither.
bool ReadSwitch(std::string const& value, bool empty, std::initializer_list<char const*> yes,
                std::initializer_list<char const*> no, bool& out) {
    if (value.empty()) {
        out = empty;
    } else if (OneOf(value, yes)) {
        out = true;
    } else if (OneOf(value, no)) {
        out = false;
    } else {
        return false;
    }
    return true;
}

std::vector<std::string> Hosts(char const* hosts) {
    std::istringstream in(hosts != nullptr ? hosts : "");
    std::vector<std::string> list;
    for (std::string host; in >> host;) {
        list.push_back(host);
    }
    return list;
}

}  // namespace

void LinkOptions::Read(IniFile const& soap, std::string const& section) {
    std::string raw;
    auto fail = [this](char const* key, std::string const& value) {
        if (fault.empty()) {
            fault = std::string(key) + "=" + value;
        }
    };
    if (soap.Get(section, SECTION_LDAP_TLS, raw)) {
        std::string const value = qor::Folded(raw);
        if (value.empty() || OneOf(value, {"none", "no", "off"})) {
            tls = Tls::kNone;
        } else if (OneOf(value, {"starttls", "start_tls"})) {
            tls = Tls::kStartTls;
        } else if (value == "ldaps") {
            tls = Tls::kLdaps;
        } else {
            fail(SECTION_LDAP_TLS, raw);
        }
    }
    if (soap.Get(section, SECTION_LDAP_TLS_CACERT, raw)) {
        caCert = raw;
    }
    verifySet = soap.Get(section, SECTION_LDAP_TLS_VERIFY, raw) && !raw.empty();
    if (soap.Get(section, SECTION_LDAP_TLS_VERIFY, raw) &&
        !ReadSwitch(qor::Folded(raw), true, {"yes", "true", "on", "1", "demand"},
                    {"no", "false", "off", "0", "never"}, verify)) {
        fail(SECTION_LDAP_TLS_VERIFY, raw);
    }
    if (soap.Get(section, SECTION_LDAP_TIMEOUT, raw)) {
        // Whole seconds only: "5s" or "1.5" are refused rather than read as something else.
        bool digits = !raw.empty() && raw.size() <= 5 &&
                      raw.find_first_not_of("0123456789") == std::string::npos;
        long seconds = digits ? std::stol(raw) : -1;
        if (raw.empty()) {
            timeout = 0;
        } else if (seconds >= 0 && seconds <= 86400) {
            timeout = static_cast<int>(seconds);
        } else {
            fail(SECTION_LDAP_TIMEOUT, raw);
        }
    }
    if (soap.Get(section, SECTION_LDAP_BIND_DN, raw)) {
        bindDn = raw;
    }
    if (soap.Get(section, SECTION_LDAP_BIND_PASSWORD, raw)) {
        bindPassword = raw;
    }
    if (soap.Get(section, SECTION_LDAP_FAST_LOOKUP, raw) &&
        !ReadSwitch(qor::Folded(raw), false, {"yes", "true", "on", "1"},
                    {"no", "false", "off", "0"}, fastLookup)) {
        fail(SECTION_LDAP_FAST_LOOKUP, raw);
    }
    if (soap.Get(section, SECTION_LDAP_ATOMIC_PUBLISH, raw) &&
        !ReadSwitch(qor::Folded(raw), false, {"yes", "true", "on", "1"},
                    {"no", "false", "off", "0"}, atomicPublish)) {
        fail(SECTION_LDAP_ATOMIC_PUBLISH, raw);
    }
    if (soap.Get(section, SECTION_LDAP_REFUSE_WEAK_KEYS, raw) &&
        !ReadSwitch(qor::Folded(raw), false, {"yes", "true", "on", "1"},
                    {"no", "false", "off", "0"}, refuseWeakKeys)) {
        fail(SECTION_LDAP_REFUSE_WEAK_KEYS, raw);
    }
    if (soap.Get(section, SECTION_LDAP_GB18030_DNS, raw) &&
        !ReadSwitch(qor::Folded(raw), false, {"yes", "true", "on", "1"},
                    {"no", "false", "off", "0"}, gb18030Dns)) {
        fail(SECTION_LDAP_GB18030_DNS, raw);
    }
    if (soap.Get(section, SECTION_LDAP_USER_CERTIFICATE, raw) &&
        !ReadSwitch(qor::Folded(raw), false, {"yes", "true", "on", "1"},
                    {"no", "false", "off", "0"}, userCertificate)) {
        fail(SECTION_LDAP_USER_CERTIFICATE, raw);
    }
    if (soap.Get(section, SECTION_LDAP_RECONNECT, raw) &&
        !ReadSwitch(qor::Folded(raw), false, {"yes", "true", "on", "1"},
                    {"no", "false", "off", "0"}, reconnect)) {
        fail(SECTION_LDAP_RECONNECT, raw);
    }
}

bool LinkOptions::HasUri(char const* hosts) {
    return hosts != nullptr && std::string(hosts).find("://") != std::string::npos;
}

bool LinkOptions::HasLdapsUri(char const* hosts) {
    return hosts != nullptr && qor::Folded(hosts).find("ldaps://") != std::string::npos;
}

std::string LinkOptions::Uris(char const* hosts, int port, char const* scheme) {
    std::string uris;
    for (std::string const& host : Hosts(hosts)) {
        if (!uris.empty()) {
            uris += ' ';
        }
        if (host.find("://") != std::string::npos) {
            uris += host;
        } else {
            uris += std::string(scheme) + "://" + host;
            if (host.find(':') == std::string::npos && port > 0) {
                uris += ':' + std::to_string(port);
            }
        }
    }
    return uris.empty() ? std::string(scheme) + "://localhost" : uris;
}

std::string LinkOptions::RotateHosts(char const* hosts, unsigned shift) {
    std::vector<std::string> list = Hosts(hosts);
    if (list.size() < 2 || shift % list.size() == 0) {
        return hosts != nullptr ? hosts : "";
    }
    std::string rotated;
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (i > 0) {
            rotated += ' ';
        }
        rotated += list[(i + shift) % list.size()];
    }
    return rotated;
}

std::string LinkOptions::Describe() const {
    if (!Valid()) {
        return "refused: " + fault + " is not a spelling the library knows";
    }
    std::string text = tls == Tls::kNone       ? "none (clear text)"
                       : tls == Tls::kStartTls ? "starttls"
                                               : "ldaps";
    if (tls != Tls::kNone) {
        text += verify ? ", server certificate verified" : ", server certificate NOT verified";
        text += caCert.empty() ? " (system CAs)" : " against " + caCert;
    }
    return text;
}
