// ServerSettings: the server settings of "soap.ini" (the LdapInfo record) and the link options
// read beside them, and the pool keys (PoolOptions).
// Owns: the record, read and replaced as a whole under a lock of its own, and the link and pool
// options, written only while the engine is built.
// Promises: Read keeps a field whose key is missing and cuts a text to its field; Get hands out
// a copy, so that Set from another thread never tears a text an operation is reading.
// Needs: the INI reader and the program's own settings (platform/IniFile.h,
// platform/CallerSettings.h).
#ifndef QORLDAP_ENGINE_SERVERSETTINGS_H
#define QORLDAP_ENGINE_SERVERSETTINGS_H

#include <mutex>
#include <string>

#include "engine/LinkOptions.h"
#include "engine/PoolOptions.h"
#include "qorldap/records.h"

class ServerSettings {
  public:
    // Starts all zero (texts empty, port 0) and reads section; see Read.
    explicit ServerSettings(std::string const& section);
    ServerSettings(ServerSettings const&) = delete;
    ServerSettings& operator=(ServerSettings const&) = delete;

    // Reads section of soap.ini into the record and the link options; a missing key keeps its
    // field, a text longer than its field is cut.
    void Read(std::string const& section);
    LdapInfo Get() const {
        std::lock_guard<std::mutex> guard(lock_);
        return info_;
    }
    void Set(LdapInfo const& info) {
        std::lock_guard<std::mutex> guard(lock_);
        info_ = info;
    }
    LinkOptions const& Link() const { return link_; }
    PoolOptions const& Pool() const { return pool_; }

  private:
    LdapInfo info_;
    mutable std::mutex lock_;
    LinkOptions link_;
    PoolOptions pool_;
};

#endif
