// PathBuilder: creating, level by level, the organisational path that a certificate subject
// names: one level per template, each looked up and added when missing.
// Owns: nothing; each level's record lives for the span of its step.
// Promises: a path is never cut (a cut path would name some other entry): a level that would
// not fit 255 characters is refused with 0x16000010, the levels made so far left in place.
// Needs: the settings (the base DN), the template table, the entry reads (is the level there?)
// and the entry writes (add it).
#ifndef QORLDAP_ENGINE_ORGPATH_H
#define QORLDAP_ENGINE_ORGPATH_H

#include <string>

#include "engine/EntryLookup.h"
#include "engine/EntryWrite.h"
#include "engine/ServerSettings.h"
#include "engine/TemplateTable.h"

class PathBuilder {
  public:
    PathBuilder(ServerSettings const& settings, TemplateTable const& templates,
                EntryLookup& entries, EntryWriter& writer)
        : settings_(settings), templates_(templates), entries_(entries), writer_(writer) {}

    // 0 with dn the deepest level (dn untouched with no templates); 0x16000010 when the base or
    // a composed level does not fit 255 characters; else the code of a failed lookup or add.
    int InsertOrganization(char const* subject, std::string& dn);

  private:
    ServerSettings const& settings_;
    TemplateTable const& templates_;
    EntryLookup& entries_;
    EntryWriter& writer_;
};

#endif
