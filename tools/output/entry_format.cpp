// An entry written as LDIF or as JSON.
#include <strings.h>

#include <algorithm>
#include <cstdio>

#include "qorldap/Entry.h"

#include "tools/checks/checks.h"
#include "tools/output/entry_view.h"
#include "tools/output/output.h"

namespace qortool {

namespace {

// ldapsearch's lines without -o ldif-wrap: 78 characters (with ldif-wrap=76, 76).
size_t const kLdifWidth = 78;

}  // namespace

bool LdifSafe(std::string const& value) {
    if (!value.empty() &&
        (value[0] == ' ' || value[0] == ':' || value[0] == '<' || value.back() == ' ')) {
        return false;
    }
    for (char c : value) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte > 0x7e)
            return false;
    }
    return true;
}

std::string LdifLine(std::string const& name, std::string const& value) {
    if (value.empty())
        return name + ":\n";
    // As ldapsearch decides: the option ";binary" as written, userPassword in any case.
    bool const hidden = name.find(";binary") != std::string::npos ||
                        strcasecmp(name.c_str(), "userPassword") == 0 || name == "2.5.4.35";
    bool const plain = !hidden && LdifSafe(value);
    std::string const prefix = name + (plain ? ": " : ":: ");
    std::string const text = plain ? value : Base64Encode(value);
    // The name and its colons stay whole on the first line, however long.
    std::string out = prefix;
    size_t column = prefix.size();
    for (char c : text) {
        if (column >= kLdifWidth) {
            out += "\n ";
            column = 1;
        }
        out += c;
        ++column;
    }
    return out + "\n";
}

std::string JsonString(std::string const& text) {
    std::string out = "\"";
    for (char c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

bool JsonText(std::string const& value) {
    // RFC 3629: the second byte's range rules out overlong forms, surrogates and code points
    // past U+10FFFF, which a JSON reader would refuse.
    struct Lead {
        unsigned char first, last;  // the lead bytes of the row
        size_t more;                // continuation bytes
        unsigned char low, high;    // the range of the first of them
    };
    static Lead const kLeads[] = {
        {0xc2, 0xdf, 1, 0x80, 0xbf}, {0xe0, 0xe0, 2, 0xa0, 0xbf}, {0xe1, 0xec, 2, 0x80, 0xbf},
        {0xed, 0xed, 2, 0x80, 0x9f}, {0xee, 0xef, 2, 0x80, 0xbf}, {0xf0, 0xf0, 3, 0x90, 0xbf},
        {0xf1, 0xf3, 3, 0x80, 0xbf}, {0xf4, 0xf4, 3, 0x80, 0x8f},
    };
    for (size_t i = 0; i < value.size();) {
        auto const lead = static_cast<unsigned char>(value[i]);
        if (lead < 0x80) {
            if (lead < 0x20 || lead == 0x7f)
                return false;
            ++i;
            continue;
        }
        Lead const* row = nullptr;
        for (Lead const& l : kLeads) {
            if (lead >= l.first && lead <= l.last)
                row = &l;
        }
        if (row == nullptr || value.size() - i <= row->more)
            return false;
        for (size_t k = 1; k <= row->more; ++k) {
            auto const next = static_cast<unsigned char>(value[i + k]);
            unsigned char const low = k == 1 ? row->low : 0x80;
            unsigned char const high = k == 1 ? row->high : 0xbf;
            if (next < low || next > high)
                return false;
        }
        i += row->more + 1;
    }
    return true;
}

std::string JsonValue(std::string const& name, std::string const& value) {
    bool const binary = name.find(";binary") != std::string::npos || !JsonText(value);
    return binary ? "{\"base64\": " + JsonString(Base64Encode(value)) + "}" : JsonString(value);
}

bool KeyAttribute(std::string const& name) {
    static char const* const kKeys[] = {"signpubcer",  "signpubkey",  "signprikey", "cryptpubcer",
                                        "cryptpubkey", "cryptprikey", "userpsw"};
    std::string const base = name.substr(0, name.find(';'));
    return std::any_of(std::begin(kKeys), std::end(kKeys),
                       [&](char const* k) { return strcasecmp(base.c_str(), k) == 0; });
}

EntryView ViewOf(QorLdapEntry const& entry) {
    EntryView view;
    view.dn = entry.dn;
    for (int i = 0; i < entry.attributeCount; ++i) {
        QorLdapAttribute const& a = entry.attributes[i];
        ShownAttribute shown;
        shown.name = a.name;
        for (int k = 0; k < a.valueCount; ++k) {
            shown.values.emplace_back(reinterpret_cast<char const*>(a.values[k].bytes),
                                      a.values[k].length);
        }
        view.attributes.push_back(std::move(shown));
    }
    return view;
}

std::vector<ShownKey> KeysAmong(std::vector<ShownAttribute> const& attributes) {
    struct Slot {
        char const* name;
        char const* role;
    };
    static Slot const kSlots[] = {
        {"signPubcer", "signing certificate"},    {"signPubkey", "signing public key"},
        {"signPrikey", "signing private key"},    {"cryptPubcer", "encryption certificate"},
        {"cryptPubkey", "encryption public key"}, {"cryptPrikey", "encryption private key"},
    };
    std::vector<ShownKey> keys;
    for (Slot const& slot : kSlots) {
        for (ShownAttribute const& a : attributes) {
            std::string const base = a.name.substr(0, a.name.find(';'));
            if (strcasecmp(base.c_str(), slot.name) != 0)
                continue;
            for (std::string const& value : a.values)
                keys.push_back({a.name, slot.role, value});
        }
    }
    return keys;
}

std::string Ldif(EntryView const& entry) {
    std::string out = LdifLine("dn", entry.dn);
    for (ShownAttribute const& a : entry.attributes) {
        for (std::string const& value : a.values)
            out += LdifLine(a.name, value);
    }
    return out + "\n";
}

std::string Json(EntryView const& entry) {
    std::string out = "{\n  \"dn\": " + JsonString(entry.dn) + ",\n  \"attributes\": {";
    char const* comma = "";
    for (ShownAttribute const& a : entry.attributes) {
        out += std::string(comma) + "\n    " + JsonString(a.name) + ": [";
        comma = ",";
        for (size_t i = 0; i < a.values.size(); ++i)
            out += (i > 0 ? ", " : "") + JsonValue(a.name, a.values[i]);
        out += "]";
    }
    out += std::string(entry.attributes.empty() ? "" : "\n  ") + "},\n  \"keys\": [";
    comma = "";
    for (ShownKey const& k : entry.keys) {
        out += std::string(comma) + "\n    {\"attribute\": " + JsonString(k.attribute) +
               ", \"role\": " + JsonString(k.role) + ", \"bytes\": " + std::to_string(k.der.size());
        comma = ",";
        for (Field const& f : Describe(k.der))
            out += ", " + JsonString(f.name) + ": " + JsonString(f.value);
        out += "}";
    }
    return out + std::string(entry.keys.empty() ? "" : "\n  ") + "]\n}\n";
}

}  // namespace qortool
