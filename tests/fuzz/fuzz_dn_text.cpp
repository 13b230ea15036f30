// Fuzzes the engine's name and subject text: GetFilter, GetParentDN, ParseSubject, MakeLower
// (and CompareNameSame, FromCNToName). All of them are static and pure, so each input is checked
// against what the text rules say the answer must be, not only for crashes.
//
// Input: the whole input is the DN (as a C string it ends at the first NUL). For ParseSubject,
// the first byte's low nibble is a key length, the key follows, the rest is the subject; a
// second key is the text before the first '=' of one of the subject's lines.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "engine/LdapOp.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

// No output of these functions can hold this text unless the input does, and the model below
// decides exactly when an output is written, so an untouched output is told apart exactly.
std::string const kUntouched = "\x01<untouched>\x02";

bool IsSubstring(std::string const& part, std::string const& whole) {
    return whole.find(part) != std::string::npos;
}

bool IsSuffix(std::string const& part, std::string const& whole) {
    return part.size() <= whole.size() &&
           whole.compare(whole.size() - part.size(), part.size(), part) == 0;
}

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c + ('a' - 'A'));
    }
    return text;
}

// Components split at every comma, no escaping; "" is one empty component.
std::vector<std::string> Components(std::string const& dn) {
    std::vector<std::string> parts;
    std::string::size_type start = 0;
    for (;;) {
        std::string::size_type comma = dn.find(',', start);
        if (comma == std::string::npos) {
            parts.push_back(dn.substr(start));
            return parts;
        }
        parts.push_back(dn.substr(start, comma - start));
        start = comma + 1;
    }
}

void CheckGetFilter(std::string const& dn) {
    std::vector<std::string> const parts = Components(dn);
    for (int index = -1; index <= 52; ++index) {
        std::string value = kUntouched;
        std::string type = kUntouched;
        bool const ok = CLdapOp::GetFilter(dn.c_str(), index, value, type);
        bool const inRange = index >= 0 && index <= 50;
        if (!ok) {
            FUZZ_CHECK(value == kUntouched && type == kUntouched);
            // Refused only out of range, or for a component that starts with "=".
            FUZZ_CHECK(!inRange || (static_cast<size_t>(index) < parts.size() &&
                                    !parts[static_cast<size_t>(index)].empty() &&
                                    parts[static_cast<size_t>(index)][0] == '='));
            continue;
        }
        FUZZ_CHECK(inRange);
        if (static_cast<size_t>(index) >= parts.size()) {
            // Fewer components than asked for: true with both outputs untouched.
            FUZZ_CHECK(value == kUntouched && type == kUntouched);
            continue;
        }
        std::string const& component = parts[static_cast<size_t>(index)];
        FUZZ_CHECK(IsSubstring(type, dn) && IsSubstring(value, dn));
        std::string::size_type eq = component.find('=');
        if (eq == std::string::npos) {
            FUZZ_CHECK(type == component && value == component);
        } else {
            FUZZ_CHECK(eq != 0);
            FUZZ_CHECK(type.find('=') == std::string::npos);
            FUZZ_CHECK(type + "=" + value == component);
        }
        FUZZ_CHECK(type.find(',') == std::string::npos && value.find(',') == std::string::npos);
    }
    std::string value = kUntouched;
    std::string type = kUntouched;
    FUZZ_CHECK(!CLdapOp::GetFilter(nullptr, 0, value, type));
    FUZZ_CHECK(value == kUntouched && type == kUntouched);
}

void CheckGetParentDN(std::string const& dn) {
    std::string parent = kUntouched;
    bool const ok = CLdapOp::GetParentDN(dn.c_str(), parent);
    if (!dn.empty() && dn[0] == ',') {
        FUZZ_CHECK(!ok && parent == kUntouched);
        return;
    }
    FUZZ_CHECK(ok);
    FUZZ_CHECK(IsSuffix(parent, dn));
    std::string::size_type comma = dn.find(',');
    // One component is its own parent; otherwise exactly the first component and its comma go.
    FUZZ_CHECK(parent == (comma == std::string::npos ? dn : dn.substr(comma + 1)));
}

void CheckParseSubject(std::string const& subject, std::string const& key) {
    std::string value = kUntouched;
    bool const ok = CLdapOp::ParseSubject(subject.c_str(), key.c_str(), value);
    std::string const text = Lower(subject);
    std::string const wanted = Lower(key);
    bool const present = text.compare(0, wanted.size(), wanted) == 0 ||
                         text.find("\n" + wanted) != std::string::npos;
    if (!ok) {
        FUZZ_CHECK(value == kUntouched);
        FUZZ_CHECK(!present);
        return;
    }
    FUZZ_CHECK(present);
    for (char c : value) {
        FUZZ_CHECK(!(c >= 'A' && c <= 'Z'));
    }
    FUZZ_CHECK(IsSubstring(value, text));
    // A value is one line's text after "=", or the whole text when no "=" follows the match.
    FUZZ_CHECK(value.find('\n') == std::string::npos || value == text);
}

void CheckMakeLower(std::string const& raw) {
    std::string once = raw;
    CLdapOp::MakeLower(once);
    FUZZ_CHECK(once.size() == raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        unsigned char const in = static_cast<unsigned char>(raw[i]);
        unsigned char const out = static_cast<unsigned char>(once[i]);
        if (in >= 'A' && in <= 'Z') {
            FUZZ_CHECK(out == in + ('a' - 'A'));
        } else {
            // Everything else, bytes >= 0x80 (GB and UTF-8 text) included, stays as it was.
            FUZZ_CHECK(out == in);
        }
    }
    std::string twice = once;
    CLdapOp::MakeLower(twice);
    FUZZ_CHECK(twice == once);
}

void CheckNames(std::string const& a, std::string const& b) {
    FUZZ_CHECK(CLdapOp::CompareNameSame(a.c_str(), a.c_str()));
    bool const same = CLdapOp::CompareNameSame(a.c_str(), b.c_str());
    FUZZ_CHECK(same == CLdapOp::CompareNameSame(b.c_str(), a.c_str()));
    FUZZ_CHECK(same == (Lower(a) == Lower(b)));
    FUZZ_CHECK(!CLdapOp::CompareNameSame(nullptr, a.c_str()));

    std::string value = kUntouched;
    if (CLdapOp::FromCNToName(a.c_str(), "cn", b.c_str(), value)) {
        // The component's type is exactly "cn", the naming attribute is cn in any case, and
        // the value is what follows the first "=".
        FUZZ_CHECK(Lower(b) == "cn");
        std::string::size_type eq = a.find('=');
        FUZZ_CHECK(eq == std::string::npos ? a == "cn" : a.compare(0, 3, "cn=") == 0);
        FUZZ_CHECK(value == (eq == std::string::npos ? a : a.substr(eq + 1)));
        FUZZ_CHECK(IsSuffix(value, a));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string const raw(reinterpret_cast<char const*>(data), size);
    std::string const dn(raw.c_str());  // what a C caller passes: up to the first NUL

    CheckGetFilter(dn);
    CheckGetParentDN(dn);
    CheckMakeLower(raw);

    if (size > 0) {
        size_t const keyLen = std::min<size_t>(data[0] & 0x0f, size - 1);
        std::string const key(std::string(raw, 1, keyLen).c_str());
        std::string const subject(std::string(raw, 1 + keyLen).c_str());
        CheckParseSubject(subject, key);
        // A key that names one of the subject's own lines, so that matches are common.
        std::vector<std::string> const lines = [&] {
            std::vector<std::string> out;
            std::string::size_type start = 0;
            while (start <= subject.size()) {
                std::string::size_type lf = subject.find('\n', start);
                out.push_back(subject.substr(
                    start, lf == std::string::npos ? std::string::npos : lf - start));
                if (lf == std::string::npos)
                    break;
                start = lf + 1;
            }
            return out;
        }();
        std::string const& line = lines[data[0] >> 4 < lines.size() ? data[0] >> 4 : 0];
        CheckParseSubject(subject, line.substr(0, line.find('=')));
        CheckNames(key, subject);
        CheckNames(subject, "cN");
    }
    return 0;
}
