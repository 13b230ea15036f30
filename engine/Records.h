// Releasing what the engine hands to callers: key buffers, a record's item array and entry-name
// lists, all array new. Each leaves nothing dangling behind it and ignores null.
#ifndef QORLDAP_ENGINE_RECORDS_H
#define QORLDAP_ENGINE_RECORDS_H

#include "qorldap/records.h"

namespace qor {

// Array delete; key becomes null.
inline void FreeKey(unsigned char*& key) {
    if (key != nullptr) {
        delete[] key;
        key = nullptr;
    }
}

// The items released and null, itemCount 0.
inline void FreeAtt(tagAtt* att) {
    if (att == nullptr) {
        return;
    }
    if (att->items != nullptr) {
        delete[] att->items;
        att->items = nullptr;
    }
    att->itemCount = 0;
}

inline void FreeDN(tagDN* list) {
    delete[] list;
}

}  // namespace qor

#endif
