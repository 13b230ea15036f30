// Helpers shared by the two benchmark programs: entry records for populating the directory and
// the process's resident size.
#ifndef QORLDAP_BENCH_BENCHCOMMON_H
#define QORLDAP_BENCH_BENCHCOMMON_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qorldap/records.h"

namespace qorbench {

// One entry of one text attribute (its naming attribute) and one object class, in the form
// InsertLdap takes. The record points into itself, so it is neither copied nor moved.
struct EntryRecord {
    tagAttItem item;
    tagAtt att;

    EntryRecord(char const* objectClass, char const* type, std::string const& value) {
        std::memset(&item, 0, sizeof item);
        std::memset(&att, 0, sizeof att);
        std::snprintf(item.type, sizeof item.type, "%s", type);
        std::snprintf(item.value, sizeof item.value, "%s", value.c_str());
        std::snprintf(item.syntax, sizeof item.syntax, "s");
        std::snprintf(att.objectClass, sizeof att.objectClass, "%s", objectClass);
        att.items = &item;
        att.itemCount = 1;
    }
    EntryRecord(EntryRecord const&) = delete;
    EntryRecord& operator=(EntryRecord const&) = delete;
};

// Adds an entry through the library's own InsertLdap (Api is CLdap or the engine). An entry
// that is already there (a second run against the same directory) counts as added; with a
// certificate, its value is then written again so that every run reads the same bytes.
template <typename Api>
bool AddEntry(Api& api, std::string const& dn, char const* objectClass, char const* type,
              std::string const& value, unsigned char* cert = nullptr,
              unsigned int certLength = 0) {
    EntryRecord record(objectClass, type, value);
    if (api.InsertLdap(dn.c_str(), record.att, false, nullptr, 0, cert, certLength, nullptr, 0) ==
        0) {
        return true;
    }
    tagAtt found;
    std::memset(&found, 0, sizeof found);
    bool there = api.SelectLdap(dn.c_str(), found) == 0 && found.itemCount > 0;
    api.FreeAtt(&found);
    if (!there) {
        std::fprintf(stderr, "bench: cannot add %s\n", dn.c_str());
        return false;
    }
    if (cert != nullptr && api.ModifySignPublicKey(dn.c_str(), cert, certLength) != 0) {
        std::fprintf(stderr, "bench: cannot write the certificate of %s\n", dn.c_str());
        return false;
    }
    return true;
}

// VmRSS of this process in KiB, from /proc/self/status; -1 when it cannot be read.
inline long ResidentKiB() {
    std::FILE* f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) {
        return -1;
    }
    char line[256];
    long kib = -1;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::strncmp(line, "VmRSS:", 6) == 0) {
            kib = std::strtol(line + 6, nullptr, 10);
            break;
        }
    }
    std::fclose(f);
    return kib;
}

}  // namespace qorbench

#endif
