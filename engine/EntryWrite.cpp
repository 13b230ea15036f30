// Inserting, modifying and deleting whole entries.
#include "engine/EntryWrite.h"

#include <memory>
#include <vector>

#include "engine/Bounded.h"
#include "engine/Constants.h"
#include "engine/EntryRead.h"
#include "engine/Modification.h"
#include "qorldap/result_codes.h"

namespace {

// The text modifications of one request: a frame per candidate value, and a list with room for
// every candidate, the binary values and the null slot. Frames are never moved once filled.
class Request {
  public:
    Request(int textSlots, int extraSlots)
        : frames_(new AttFrame[textSlots]), list_(new ldapmod*[textSlots + extraSlots]()) {}
    ~Request() {
        for (int i = 0; i < filled_; ++i) {
            delete[] frames_[i].values[0];
            frames_[i].values[0] = nullptr;
        }
    }
    Request(Request const&) = delete;
    Request& operator=(Request const&) = delete;

    // Offers one text value; a refused value takes no slot and its frame is offered the next.
    void OfferText(char const* value, unsigned int op, char const* type) {
        if (PrepareTextValue(value, op, type, frames_[filled_])) {
            list_[used_++] = &frames_[filled_].mod;
            ++filled_;
        }
    }
    void AddBinary(LDAPMod* mod) { list_[used_++] = mod; }
    ldapmod** List() { return list_.get(); }  // null-terminated: the list starts zero-filled

  private:
    std::unique_ptr<AttFrame[]> frames_;
    std::unique_ptr<ldapmod*[]> list_;
    int filled_ = 0;
    int used_ = 0;
};

// One binary value, in the request's own storage for the span of the synchronous call.
struct BinaryValue {
    berval value;
    berval* values[2];
    LDAPMod mod;
};

// A value takes part only with a buffer and at least 2 bytes; 0 or 1 byte counts as none.
bool PrepareBinary(BinaryValue& bin, char const* type, unsigned char* data, unsigned int length) {
    if (data == nullptr || length < 2) {
        return false;
    }
    bin.value.bv_len = length;
    bin.value.bv_val = reinterpret_cast<char*>(data);
    bin.values[0] = &bin.value;
    bin.values[1] = nullptr;
    bin.mod.mod_op = QOR_MOD_BINARY_REPLACE;
    bin.mod.mod_type = const_cast<char*>(type);
    bin.mod.mod_bvalues = bin.values;
    return true;
}

int ItemCount(tagAtt const& att) {
    return att.items == nullptr || att.itemCount < 0 ? 0 : att.itemCount;
}

// Items, then objectClass, each with the given code. A caller's field that holds no NUL within
// its width is not text and is skipped like an empty value, so nothing past a field is read.
void OfferRecord(Request& request, tagAtt const& att) {
    int count = ItemCount(att);
    for (int i = 0; i < count; ++i) {
        tagAttItem const& item = att.items[i];
        if (qor::IsText(item.type) && qor::IsText(item.value)) {
            request.OfferText(item.value, QOR_MOD_REPLACE, item.type);
        }
    }
    if (qor::IsText(att.objectClass)) {
        request.OfferText(att.objectClass, QOR_MOD_REPLACE, LDAP_DEPART_OR_PER_TYPE);
    }
}

}  // namespace

int EntryWriter::InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                            unsigned int passwordLength, unsigned char* publicKey,
                            unsigned int publicKeyLength, unsigned char* privateKey,
                            unsigned int privateKeyLength) {
    // A missing DN is a missing argument; the directory library would refuse it anyway.
    if (dn == nullptr) {
        return QORLDAP_E_FAILED;
    }
    int count = ItemCount(att);
    Request request(count + 1, 4);
    // The replace code of the text values makes an ordinary add: an add reads only the
    // binary-values flag of its records.
    OfferRecord(request, att);
    char const* privateName = crypt ? LDAP_PERSON_EN_PRI : LDAP_PERSON_SIGN_PRI;
    char const* publicName = PublicKeyAttribute(!crypt, certificates_);
    BinaryValue bins[3];
    if (PrepareBinary(bins[0], privateName, privateKey, privateKeyLength)) {
        request.AddBinary(&bins[0].mod);
    }
    if (PrepareBinary(bins[1], LDAP_PASSWORD, password, passwordLength)) {
        request.AddBinary(&bins[1].mod);
    }
    if (PrepareBinary(bins[2], publicName, publicKey, publicKeyLength)) {
        request.AddBinary(&bins[2].mod);
    }
    int rc = connection_.Binding().LdapAddS(connection_.Handle(), dn, request.List());
    return rc == 0 ? QORLDAP_OK : QORLDAP_E_FAILED;
}

int EntryWriter::ModifyLdap(char const* dn, tagAtt const& att) {
    if (dn == nullptr) {
        return QORLDAP_E_FAILED;
    }
    Request request(ItemCount(att) + 1, 1);
    OfferRecord(request, att);
    // Sent even when no value was accepted; the directory's answer is the result.
    return connection_.Binding().LdapModifyS(connection_.Handle(), dn, request.List());
}

int EntryWriter::DeleteLdap(char const* dn) {
    if (dn == nullptr) {
        return QORLDAP_E_FAILED;
    }
    return connection_.Binding().LdapDeleteS(connection_.Handle(), dn);
}

int EntryWriter::WriteWhole(char const* dn, bool add, WholeEntry const& entry) {
    if (dn == nullptr) {
        return QORLDAP_E_FAILED;
    }
    // Storage for the span of the synchronous call: a record and a null-terminated value list
    // per attribute, the values pointing into entry.
    std::size_t const count = entry.attributes.size();
    std::vector<berval> values;
    std::size_t total = 0;
    for (auto const& attribute : entry.attributes) {
        total += attribute.second.size();
    }
    values.reserve(total);
    std::vector<std::vector<berval*>> lists(count);
    std::vector<LDAPMod> mods(count);
    std::vector<ldapmod*> list(count + 1, nullptr);
    for (std::size_t i = 0; i < count; ++i) {
        auto const& [name, texts] = entry.attributes[i];
        for (std::string const& value : texts) {
            values.push_back(
                {static_cast<ber_len_t>(value.size()), const_cast<char*>(value.data())});
            lists[i].push_back(&values.back());
        }
        lists[i].push_back(nullptr);
        mods[i].mod_op = add ? (QOR_MOD_ADD | LDAP_MOD_BVALUES) : QOR_MOD_BINARY_REPLACE;
        mods[i].mod_type = const_cast<char*>(name.c_str());
        mods[i].mod_bvalues = lists[i].data();
        list[i] = &mods[i];
    }
    COpenLdapIF& binding = connection_.Binding();
    return add ? binding.LdapAddS(connection_.Handle(), dn, list.data())
               : binding.LdapModifyS(connection_.Handle(), dn, list.data());
}
