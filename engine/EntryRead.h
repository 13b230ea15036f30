// An entry read whole: every user attribute with every value, as the directory holds them.
#ifndef QORLDAP_ENGINE_ENTRYREAD_H
#define QORLDAP_ENGINE_ENTRYREAD_H

#include <string>
#include <utility>
#include <vector>

#include "engine/SearchResult.h"

struct WholeEntry {
    std::string dn;  // as the directory returned it
    // Each attribute's name as the directory returned it (with its options, such as
    // "signPubcer;binary") and its values, byte for byte, in the directory's order.
    std::vector<std::pair<std::string, std::vector<std::string>>> attributes;
};

// Fills entry (replaced) from one entry of result's chain: its DN and every attribute it came
// with, each value as octets, so that binary values and zero bytes come out exactly as stored.
void TakeWholeEntry(COpenLdapIF& binding, SearchResult const& result, ldapmsg* from,
                    WholeEntry& entry);

#endif
