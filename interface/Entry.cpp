// The exported whole-entry read and write.
#include "qorldap/Entry.h"
#include "qorldap/Write.h"

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "engine/EntryRead.h"
#include "engine/LdapOp.h"
#include "interface/CallerDn.h"
#include "interface/ConnectThenRun.h"
#include "interface/FreeEngine.h"

namespace {

// What the record's pointers point into.
struct EntryData {
    WholeEntry data;
    std::vector<std::vector<QorLdapValue>> values;
    std::vector<QorLdapAttribute> attributes;
};

// The block handed out: the record first, so that the caller's pointer is the block's address
// (a standard-layout struct and its first member are interconvertible).
struct HeldEntry {
    QorLdapEntry record;
    EntryData* rest;
};
static_assert(std::is_standard_layout<HeldEntry>::value, "the record must start the block");

}  // namespace

int QorLdapReadEntry(char const* dn, QorLdapEntry** entry) {
    if (entry == nullptr) {
        return QORLDAP_E_FAILED;
    }
    *entry = nullptr;
    std::unique_ptr<EntryData> rest(new EntryData());
    int const rc = qor::FreeCall(Pool::Use::kRead, [&](CLdapOp& engine) {
        int const read = engine.ReadEntry(qor::DirectoryDn(engine, dn).Get(), rest->data);
        if (read == QORLDAP_OK) {
            qor::ToCaller(engine, rest->data.dn);
        }
        return read;
    });
    if (rc != QORLDAP_OK) {
        return rc;
    }
    for (auto const& [name, values] : rest->data.attributes) {
        std::vector<QorLdapValue> list;
        for (std::string const& value : values) {
            list.push_back({static_cast<unsigned int>(value.size()),
                            reinterpret_cast<unsigned char const*>(value.data())});
        }
        rest->values.push_back(std::move(list));
    }
    for (std::size_t i = 0; i < rest->data.attributes.size(); ++i) {
        rest->attributes.push_back({rest->data.attributes[i].first.c_str(),
                                    static_cast<int>(rest->values[i].size()),
                                    rest->values[i].data()});
    }
    HeldEntry* held = new HeldEntry();
    held->record.dn = rest->data.dn.c_str();
    held->record.attributeCount = static_cast<int>(rest->attributes.size());
    held->record.attributes = rest->attributes.data();
    held->rest = rest.release();
    *entry = &held->record;
    return QORLDAP_OK;
}

void QorLdapFreeEntry(QorLdapEntry* entry) {
    if (entry == nullptr) {
        return;
    }
    HeldEntry* held = reinterpret_cast<HeldEntry*>(entry);
    delete held->rest;
    delete held;
}

namespace {

int const kMostAttributes = 4096;

// The caller's attributes as the engine writes them; false for anything qorldap/Write.h
// refuses before sending.
bool TakeAttributes(QorLdapAttribute const* attributes, int count, bool add, WholeEntry& entry) {
    if (attributes == nullptr || count < 1 || count > kMostAttributes) {
        return false;
    }
    for (int i = 0; i < count; ++i) {
        QorLdapAttribute const& a = attributes[i];
        if (a.name == nullptr || a.name[0] == '\0' || a.valueCount < 0 ||
            (a.valueCount > 0 && a.values == nullptr) || (add && a.valueCount == 0)) {
            return false;
        }
        std::vector<std::string> values;
        for (int k = 0; k < a.valueCount; ++k) {
            QorLdapValue const& v = a.values[k];
            if (v.bytes == nullptr && v.length > 0) {
                return false;
            }
            values.emplace_back(reinterpret_cast<char const*>(v.bytes), v.length);
        }
        entry.attributes.emplace_back(a.name, std::move(values));
    }
    return true;
}

}  // namespace

int QorLdapWriteEntry(char const* dn, int how, QorLdapAttribute const* attributes, int count) {
    bool const add = how == QORLDAP_WRITE_ADD;
    WholeEntry entry;
    if (dn == nullptr || dn[0] == '\0' || (!add && how != QORLDAP_WRITE_REPLACE) ||
        !TakeAttributes(attributes, count, add, entry)) {
        return QORLDAP_E_FAILED;
    }
    CLdapOp& engine = qor::FreeEngine();
    return qor::ConnectThenRun(
        engine, [&] { return engine.ConnectLdap(); }, qor::Recheck::kYes,
        [&] {
            qor::DirectoryDn const target(engine, dn);
            return target.Get() == nullptr ? QORLDAP_E_FAILED
                                           : engine.WriteWhole(target.Get(), add, entry);
        });
}
