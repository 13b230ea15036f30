// The exported look at the settings in force and at a stored key (qorldap/Inspect.h).
#include "qorldap/Inspect.h"

#include <cstdlib>
#include <string>

#include "engine/Constants.h"
#include "engine/LinkOptions.h"
#include "engine/PoolOptions.h"
#include "platform/CallerSettings.h"
#include "platform/IniFile.h"
#include "platform/StoredKey.h"
#include "platform/Trim.h"
#include "qorldap/result_codes.h"

namespace {

// How the library reads a key's value.
// kCount: a whole number of the pool's keys, refused (as every connection is) when out of range.
enum class Kind { kText, kTls, kYesNo, kTimeout, kCount };

struct Key {
    char const* name;
    Kind kind;
};

// Every key of QorLdapSet but conf_dir, which is not a line of soap.ini.
Key const kKeys[] = {
    {SECTION_LDAP_HOST, Kind::kText},
    {SECTION_LDAP_PORT, Kind::kText},
    {SECTION_LDAP_BASEDN, Kind::kText},
    {SECTION_LDAP_MANGERDN, Kind::kText},
    {SECTION_LDAP_PSW, Kind::kText},
    {SECTION_LDAP_BIND_DN, Kind::kText},
    {SECTION_LDAP_BIND_PASSWORD, Kind::kText},
    {SECTION_LDAP_TLS_CACERT, Kind::kText},
    {SECTION_LDAP_TLS, Kind::kTls},
    {SECTION_LDAP_TLS_VERIFY, Kind::kYesNo},
    {SECTION_LDAP_TIMEOUT, Kind::kTimeout},
    {SECTION_LDAP_RECONNECT, Kind::kYesNo},
    {SECTION_LDAP_FAST_LOOKUP, Kind::kYesNo},
    {SECTION_LDAP_ATOMIC_PUBLISH, Kind::kYesNo},
    {SECTION_LDAP_REFUSE_WEAK_KEYS, Kind::kYesNo},
    {SECTION_LDAP_GB18030_DNS, Kind::kYesNo},
    {SECTION_LDAP_USER_CERTIFICATE, Kind::kYesNo},
    {SECTION_LDAP_POOL_SIZE, Kind::kCount},
    {SECTION_LDAP_READ_HOST, Kind::kText},
    {SECTION_LDAP_READ_AFTER_WRITE, Kind::kCount},
    {SECTION_LDAP_FAILBACK, Kind::kCount},
    {SECTION_LDAP_IDLE_CHECK, Kind::kCount},
};

// The field of link that the key name fills, as the library reads it.
std::string Read(LinkOptions const& link, std::string const& name, Kind kind) {
    auto yes = [](bool on) { return std::string(on ? "yes" : "no"); };
    switch (kind) {
        case Kind::kText:
        case Kind::kCount:
            break;
        case Kind::kTls:
            return link.tls == LinkOptions::Tls::kNone       ? "none"
                   : link.tls == LinkOptions::Tls::kStartTls ? "starttls"
                                                             : "ldaps";
        case Kind::kTimeout:
            return std::to_string(link.timeout);
        case Kind::kYesNo:
            return yes(name == SECTION_LDAP_TLS_VERIFY         ? link.verify
                       : name == SECTION_LDAP_RECONNECT        ? link.reconnect
                       : name == SECTION_LDAP_FAST_LOOKUP      ? link.fastLookup
                       : name == SECTION_LDAP_ATOMIC_PUBLISH   ? link.atomicPublish
                       : name == SECTION_LDAP_REFUSE_WEAK_KEYS ? link.refuseWeakKeys
                       : name == SECTION_LDAP_USER_CERTIFICATE ? link.userCertificate
                                                               : link.gb18030Dns);
    }
    return "";
}

}  // namespace

int QorLdapSetting(char const* key, char const** value) {
    thread_local std::string held;
    if (value != nullptr)
        *value = nullptr;
    if (key == nullptr || value == nullptr)
        return QORLDAP_E_FAILED;
    std::string const name = qor::Folded(key);
    int state = QORLDAP_SETTING_GIVEN;
    if (name == "conf_dir") {
        char const* env = std::getenv("QORLDAP_CONF_DIR");
        if (!qor::CallerSetting(name, held)) {
            held = env != nullptr ? env : "";
        }
        state = held.empty() ? QORLDAP_SETTING_DEFAULT : QORLDAP_SETTING_GIVEN;
        *value = held.c_str();
        return state;
    }
    Key const* found = nullptr;
    for (Key const& k : kKeys) {
        found = name == k.name ? &k : found;
    }
    if (found == nullptr)
        return QORLDAP_E_FAILED;
    // The file and the program's values, read as an engine reads them when it is built.
    IniFile soap = IniFile::Load(SOAP_INI);
    qor::OverlayCallerSettings(soap, SECTION_LDAP);
    std::string text;
    LinkOptions link;
    if (!soap.Get(SECTION_LDAP, name, text) || qor::Trim(text).empty()) {
        held = found->kind == Kind::kText ? "" : Read(link, name, found->kind);
        *value = held.c_str();
        return QORLDAP_SETTING_DEFAULT;
    }
    // The key alone, so that another key's fault is not taken for its own.
    IniFile alone;
    alone.Set(SECTION_LDAP, name, text);
    link.Read(alone, SECTION_LDAP);
    PoolOptions pool;
    pool.Read(alone, SECTION_LDAP);
    if (found->kind == Kind::kText) {
        held = text;
    } else if (found->kind == Kind::kCount) {
        held = qor::Trim(text);
        state = pool.Valid() ? QORLDAP_SETTING_GIVEN : QORLDAP_SETTING_UNREAD;
    } else if (!link.Valid()) {
        held = text;
        state = QORLDAP_SETTING_UNREAD;
    } else {
        held = Read(link, name, found->kind);
    }
    *value = held.c_str();
    return state;
}

int QorLdapCheckStoredKey(unsigned char const* der, unsigned int length) {
    return IsProtectedKey(der, length) ? QORLDAP_OK : QORLDAP_E_FAILED;
}
