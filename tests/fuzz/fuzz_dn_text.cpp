// Fuzzes the engine's name and subject text: GetFilter, GetParentDN, ParseSubject, MakeLower,
// CompareNameSame and FromCNToName. The input is the DN (up to its first NUL); for
// ParseSubject the first byte's low nibble is a key length, the key follows, the rest is the
// subject. Checked: refusals leave outputs untouched, outputs are pieces of the input.

#include "engine/LdapOp.h"
#include "tests/fuzz/FuzzCheck.h"

using qorfuzz::kUntouched;

namespace {

bool Holds(std::string const& whole, std::string const& part) {
    return whole.find(part) != std::string::npos;
}

bool EndsWith(std::string const& whole, std::string const& part) {
    return part.size() <= whole.size() &&
           whole.compare(whole.size() - part.size(), part.size(), part) == 0;
}

std::string Lowered(std::string text) {
    CLdapOp::MakeLower(text);
    return text;
}

void CheckDn(std::string const& dn) {
    for (int index = -1; index <= 52; ++index) {
        std::string value = kUntouched, type = kUntouched;
        bool const ok = CLdapOp::GetFilter(dn.c_str(), index, value, type);
        FUZZ_CHECK(!ok || (index >= 0 && index <= 50));
        if (!ok || value == kUntouched) {  // refused, or fewer components than index
            FUZZ_CHECK(value == kUntouched && type == kUntouched);
            continue;
        }
        // One component: "type=value", or a bare text given as both.
        FUZZ_CHECK(!Holds(type, ",") && !Holds(value, ",") && !Holds(type, "="));
        FUZZ_CHECK(type == value ? Holds(dn, type) : Holds(dn, type + "=" + value));
    }
    std::string value = kUntouched, type = kUntouched;
    FUZZ_CHECK(!CLdapOp::GetFilter(nullptr, 0, value, type) && value == kUntouched);

    // The parent is what follows a comma of the DN (one component is its own parent).
    std::string parent = kUntouched;
    if (!CLdapOp::GetParentDN(dn.c_str(), parent))
        return FUZZ_CHECK(parent == kUntouched);
    FUZZ_CHECK(EndsWith(dn, parent) && (parent == dn || dn[dn.size() - parent.size() - 1] == ','));
}

void CheckLower(std::string const& raw) {
    std::string const once = Lowered(raw);
    FUZZ_CHECK(once.size() == raw.size() && Lowered(once) == once);
    for (size_t i = 0; i < raw.size(); ++i)  // only A-Z change; GB and UTF-8 bytes stay
        FUZZ_CHECK(once[i] == (raw[i] >= 'A' && raw[i] <= 'Z' ? raw[i] + 'a' - 'A' : raw[i]));
}

void CheckSubject(std::string const& subject, std::string const& key) {
    std::string value = kUntouched;
    if (!CLdapOp::ParseSubject(subject.c_str(), key.c_str(), value))
        return FUZZ_CHECK(value == kUntouched);
    FUZZ_CHECK(Lowered(value) == value && Holds(Lowered(subject), value));
}

void CheckNames(std::string const& a, std::string const& b) {
    bool const same = CLdapOp::CompareNameSame(a.c_str(), b.c_str());
    FUZZ_CHECK(same == CLdapOp::CompareNameSame(b.c_str(), a.c_str()) &&
               same == (Lowered(a) == Lowered(b)) && !CLdapOp::CompareNameSame(nullptr, a.c_str()));
    std::string value;
    if (CLdapOp::FromCNToName(a.c_str(), "cn", b.c_str(), value))
        FUZZ_CHECK(Lowered(b) == "cn" && a.compare(0, 2, "cn") == 0 && EndsWith(a, value));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string const raw(reinterpret_cast<char const*>(data), size);
    std::string const dn(raw.c_str());  // what a C caller passes: up to the first NUL
    CheckDn(dn);
    CheckLower(raw);
    if (size > 0) {
        size_t const keyLen = std::min<size_t>(data[0] & 0x0f, size - 1);
        std::string const key(raw.substr(1, keyLen).c_str());
        std::string const subject(raw.substr(1 + keyLen).c_str());
        CheckSubject(subject, key);
        CheckSubject(subject, subject.substr(0, subject.find('=')));  // a key that matches
        CheckNames(key, subject);
        CheckNames(subject, "cN");
    }
    return 0;
}
