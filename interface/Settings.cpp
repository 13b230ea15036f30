// The program's own settings (qorldap/Settings.h).
#include "qorldap/Settings.h"

#include <cstring>
#include <string>

#include "engine/Constants.h"
#include "interface/FreeEngine.h"
#include "platform/CallerSettings.h"
#include "platform/Trim.h"
#include "qorldap/result_codes.h"

namespace {

// The keys an engine reads; a misspelt key must fail here rather than be kept and never read.
char const* const kKnownKeys[] = {
    "conf_dir",
    SECTION_LDAP_HOST,
    SECTION_LDAP_PORT,
    SECTION_LDAP_BASEDN,
    SECTION_LDAP_MANGERDN,
    SECTION_LDAP_PSW,
    SECTION_LDAP_TLS,
    SECTION_LDAP_TLS_CACERT,
    SECTION_LDAP_TLS_VERIFY,
    SECTION_LDAP_TIMEOUT,
    SECTION_LDAP_RECONNECT,
    SECTION_LDAP_BIND_DN,
    SECTION_LDAP_BIND_PASSWORD,
    SECTION_LDAP_FAST_LOOKUP,
    SECTION_LDAP_ATOMIC_PUBLISH,
    SECTION_LDAP_REFUSE_WEAK_KEYS,
    SECTION_LDAP_GB18030_DNS,
    SECTION_LDAP_USER_CERTIFICATE,
    SECTION_LDAP_POOL_SIZE,
    SECTION_LDAP_READ_HOST,
    SECTION_LDAP_READ_AFTER_WRITE,
    SECTION_LDAP_FAILBACK,
    SECTION_LDAP_IDLE_CHECK,
};

std::size_t const kMaxValue = 4096;

}  // namespace

int QorLdapSet(char const* key, char const* value) {
    if (key == nullptr || (value != nullptr && std::strlen(value) > kMaxValue)) {
        return QORLDAP_E_FAILED;
    }
    std::string const name = qor::Folded(key);
    bool known = false;
    for (char const* k : kKnownKeys) {
        known = known || name == k;
    }
    if (!known) {
        return QORLDAP_E_FAILED;
    }
    qor::SetCallerSetting(name, value);
    return qor::FreeEngineBuilt() ? 1 : 0;
}
