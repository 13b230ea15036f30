// The exported paged walk of a subtree.
#include "qorldap/Walk.h"

#include <mutex>
#include <string>
#include <vector>

#include "engine/EntryRead.h"
#include "engine/LdapOp.h"
#include "interface/CallerDn.h"
#include "interface/ConnectThenRun.h"
#include "interface/FreeEngine.h"

namespace {

char const kEveryEntry[] = "(objectClass=*)";

// A server keeps one paged search per connection: a second one started on the shared engine's
// connection would end the first one's pages. Walks therefore take turns for their whole
// length, and a walk started from a visit of another (on the same thread) is refused rather
// than left waiting for itself.
std::mutex walking;
thread_local bool inWalk = false;

// The attribute list as libldap takes it (char**), in storage of its own.
class AttributeList {
  public:
    explicit AttributeList(char const* const* names) {
        for (; names != nullptr && *names != nullptr; ++names) {
            text_.emplace_back(*names);
        }
        for (std::string& name : text_) {
            list_.push_back(&name[0]);
        }
        list_.push_back(nullptr);
        given_ = names != nullptr;
    }
    char** Get() { return given_ ? list_.data() : nullptr; }

  private:
    std::vector<std::string> text_;
    std::vector<char*> list_;
    bool given_ = false;
};

// Hands one entry to visit as the public record, pointing into entry.
int Visit(WholeEntry const& entry, QorLdapWalkVisit visit, void* context) {
    std::vector<std::vector<QorLdapValue>> values;
    std::vector<QorLdapAttribute> attributes;
    values.reserve(entry.attributes.size());
    attributes.reserve(entry.attributes.size());
    for (auto const& [name, texts] : entry.attributes) {
        values.emplace_back();
        for (std::string const& value : texts) {
            values.back().push_back({static_cast<unsigned int>(value.size()),
                                     reinterpret_cast<unsigned char const*>(value.data())});
        }
        attributes.push_back(
            {name.c_str(), static_cast<int>(values.back().size()), values.back().data()});
    }
    QorLdapEntry record{entry.dn.c_str(), static_cast<int>(attributes.size()), attributes.data()};
    return visit(&record, context);
}

}  // namespace

int QorLdapWalk(char const* base, char const* filter, char const* const* attributes, int pageSize,
                QorLdapWalkVisit visit, void* context) {
    if (base == nullptr || visit == nullptr || pageSize < 1 || inWalk) {
        return QORLDAP_E_FAILED;
    }
    std::lock_guard<std::mutex> turn(walking);
    inWalk = true;
    struct Leave {
        ~Leave() { inWalk = false; }
    } const leave;
    CLdapOp& engine = qor::FreeEngine();
    qor::DirectoryDn const dn(engine, base);
    if (dn.Get() == nullptr) {
        return QORLDAP_E_FAILED;
    }
    char const* const wanted = filter != nullptr ? filter : kEveryEntry;
    AttributeList list(attributes);
    std::string cookie;
    std::vector<WholeEntry> page;
    auto connect = [&] { return engine.ConnectLdap(); };
    bool first = true;
    do {
        // Each page under the guard on its own; the entries are visited outside it, so that
        // visit may call the library.
        int const rc = qor::ConnectThenRun(engine, connect, qor::Recheck::kYes, [&] {
            return engine.ReadPage(dn.Get(), wanted, list.Get(), pageSize, cookie, page);
        });
        if (rc != QORLDAP_OK) {
            return rc;
        }
        // 389 answers a paged search below a base that does not exist with success and no
        // entries; a walk that finds nothing looks at the base, so that both servers give 32.
        if (first && page.empty() && cookie.empty()) {
            WholeEntry base;
            int const found = qor::ConnectThenRun(engine, connect, qor::Recheck::kYes,
                                                  [&] { return engine.ReadEntry(dn.Get(), base); });
            return found == LDAP_NO_SUCH_OBJECT ? found : QORLDAP_OK;
        }
        first = false;
        for (WholeEntry& entry : page) {
            qor::ToCaller(engine, entry.dn);
            int const stop = Visit(entry, visit, context);
            if (stop != 0) {
                if (!cookie.empty()) {
                    qor::ConnectThenRun(engine, connect, qor::Recheck::kYes, [&] {
                        return engine.EndPages(dn.Get(), wanted, list.Get(), cookie);
                    });
                }
                return stop;
            }
        }
    } while (!cookie.empty());
    return QORLDAP_OK;
}
