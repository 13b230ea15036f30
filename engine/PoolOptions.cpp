#include "engine/PoolOptions.h"

#include "engine/Constants.h"
#include "platform/IniFile.h"
#include "platform/Trim.h"

namespace {

// A whole number from 0 to most into out; false (out unchanged) for anything else. "5s", "1.5"
// or "-1" are refused rather than read as something else.
bool ReadCount(std::string const& raw, int most, int& out) {
    std::string const text = qor::Trim(raw);
    if (text.empty()) {
        out = 0;
        return true;
    }
    if (text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    long const value = std::stol(text);
    if (value > most) {
        return false;
    }
    out = static_cast<int>(value);
    return true;
}

}  // namespace

void PoolOptions::Read(IniFile const& soap, std::string const& section) {
    struct Count {
        char const* key;
        int most;
        int& field;
    };
    Count const counts[] = {
        {SECTION_LDAP_POOL_SIZE, 256, poolSize},
        {SECTION_LDAP_READ_AFTER_WRITE, 86400, readAfterWrite},
        {SECTION_LDAP_FAILBACK, 86400, failback},
        {SECTION_LDAP_IDLE_CHECK, 86400, idleCheck},
    };
    std::string raw;
    for (Count const& count : counts) {
        if (soap.Get(section, count.key, raw) && !ReadCount(raw, count.most, count.field) &&
            fault.empty()) {
            fault = std::string(count.key) + "=" + raw;
        }
    }
    if (soap.Get(section, SECTION_LDAP_READ_HOST, raw)) {
        readHosts = qor::Trim(raw);
    }
}
