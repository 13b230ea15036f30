// DN and name arguments. The library splits a DN on every comma and takes the text between as
// type=value, with no escaping: what it cannot express is refused here, before it is sent.
#include <cctype>
#include <cstdio>

#include "qorldap/records.h"
#include "tools/checks/checks.h"

namespace qortool {

bool IsAttributeType(std::string const& type) {
    if (type.empty())
        return false;
    bool const oid = std::isdigit(static_cast<unsigned char>(type[0])) != 0;
    for (char c : type) {
        bool const ok = oid ? (std::isdigit(static_cast<unsigned char>(c)) || c == '.')
                            : (std::isalnum(static_cast<unsigned char>(c)) || c == '-');
        if (!ok)
            return false;
    }
    return oid || std::isalpha(static_cast<unsigned char>(type[0]));
}

std::string CharacterName(char c) {
    unsigned char const byte = static_cast<unsigned char>(c);
    char code[8];
    std::snprintf(code, sizeof code, " (0x%02X)", byte);
    switch (byte) {
        case 0x00:
            return std::string("a NUL") + code;
        case '\t':
            return std::string("a tab") + code;
        case '\n':
            return std::string("a line feed") + code;
        case '\r':
            return std::string("a carriage return") + code;
        case 0x7F:
            return std::string("a delete character") + code;
        default:
            break;
    }
    if (byte < 0x20)
        return std::string("a control character") + code;
    return std::string("\"") + c + "\"" + code;
}

std::string ControlIn(std::string const& value) {
    for (char c : value) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            return CharacterName(c);
    }
    return "";
}

std::string Printable(std::string const& text) {
    std::string out;
    for (char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            char code[8];
            std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned char>(c));
            out += code;
        } else {
            out += c;
        }
    }
    return out;
}

std::string UnsafeInValue(std::string const& value) {
    if (value.empty())
        return "is empty";
    std::string const control = ControlIn(value);
    if (!control.empty())
        return "holds " + control;
    if (value[0] == ' ')
        return "starts with a blank";
    if (value.back() == ' ')
        return "ends with a blank";
    if (value[0] == '#')
        return "starts with \"#\"";
    for (char c : value) {
        if (std::string("+\"\\<>;=,").find(c) != std::string::npos)
            return "holds " + CharacterName(c);
    }
    // The directory compares names with runs of blanks folded into one.
    if (value.find("  ") != std::string::npos)
        return "holds two blanks in a row";
    return "";
}

std::vector<std::string> DnParts(std::string const& dn) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t comma = dn.find(',', start);
        parts.push_back(dn.substr(start, comma == std::string::npos ? comma : comma - start));
        if (comma == std::string::npos)
            return parts;
        start = comma + 1;
    }
}

std::string LibraryDn(std::string const& what, std::string const& dn) {
    std::string out;
    for (std::string const& part : DnParts(dn)) {
        // The blank after a comma only separates ("cn=li lei, ou=sales").
        size_t const lead = part.find_first_not_of(" \t");
        size_t const eq = part.find('=');
        if (lead == std::string::npos || eq == std::string::npos || eq < lead) {
            Usage(what, "\"" + Trimmed(part) + "\" in \"" + dn +
                            "\" is not attr=value (a comma always separates: a value cannot "
                            "hold one)");
        }
        std::string const type = part.substr(lead, eq - lead);
        std::string const value = part.substr(eq + 1);
        if (!IsAttributeType(type))
            Usage(what, "\"" + type + "\" in \"" + dn + "\" is not an attribute type");
        std::string const unsafe = UnsafeInValue(value);
        if (!unsafe.empty()) {
            Usage(what, "the value \"" + Printable(value) + "\" of " + type + " in \"" +
                            Printable(dn) + "\" " + unsafe +
                            ", which the directory library cannot store unescaped");
        }
        // A blank before the first part would be taken as part of its type.
        out += out.empty() ? "" : "," + part.substr(0, lead);
        out += Lower(type) + "=" + value;
    }
    return out;
}

std::string CheckedDn(Args const& args) {
    std::string const& given = args.positional[0];
    if (given.empty())
        Usage(args.command, "the DN is empty");
    std::string const dn = LibraryDn(args.command, given);
    if (dn.size() >= sizeof(tagAtt::dn)) {
        Usage(args.command,
              "the DN is longer than " + std::to_string(sizeof(tagAtt::dn) - 1) + " characters");
    }
    return dn;
}

std::string DnKey(std::string const& dn) {
    std::string key;
    for (std::string const& part : DnParts(dn))
        key += (key.empty() ? "" : ",") + Lower(Trimmed(part));
    return key;
}

}  // namespace qortool
