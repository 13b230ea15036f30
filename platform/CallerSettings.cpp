#include "platform/CallerSettings.h"

#include <map>
#include <mutex>

#include "platform/IniFile.h"
#include "platform/Trim.h"

namespace qor {

namespace {

char const kConfDir[] = "conf_dir";

struct Store {
    std::mutex lock;
    std::map<std::string, std::string> values;
};

Store& TheStore() {
    static Store store;
    return store;
}

}  // namespace

void SetCallerSetting(std::string const& key, char const* value) {
    Store& store = TheStore();
    std::lock_guard<std::mutex> guard(store.lock);
    if (value == nullptr) {
        store.values.erase(Folded(key));
    } else {
        store.values[Folded(key)] = value;
    }
}

bool CallerSetting(std::string const& key, std::string& value) {
    Store& store = TheStore();
    std::lock_guard<std::mutex> guard(store.lock);
    auto found = store.values.find(Folded(key));
    if (found == store.values.end()) {
        return false;
    }
    value = found->second;
    return true;
}

void OverlayCallerSettings(IniFile& ini, std::string const& section) {
    Store& store = TheStore();
    std::lock_guard<std::mutex> guard(store.lock);
    for (auto const& [key, value] : store.values) {
        if (key != kConfDir) {
            ini.Set(section, key, value);
        }
    }
}

}  // namespace qor
