// DN and name arguments. The library splits a DN on every comma and takes the text between as
// type=value, with no escaping: what it cannot express is refused here, before it is sent.
#include <cctype>

#include "cli.h"
#include "platform/Trim.h"

namespace qortool {

namespace {

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

}  // namespace

std::string UnsafeInValue(std::string const& value) {
    if (value.empty())
        return "it is empty";
    if (value[0] == ' ' || value[0] == '\t')
        return "it starts with a blank";
    if (value.back() == ' ' || value.back() == '\t')
        return "it ends with a blank";
    if (value[0] == '#')
        return "it starts with \"#\"";
    for (char c : value) {
        if (std::string("+\"\\<>;=,").find(c) != std::string::npos)
            return std::string("it holds \"") + c + "\"";
    }
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
            Usage(what, "\"" + qor::Trim(part) + "\" in \"" + dn +
                            "\" is not attr=value (a comma always separates: a value cannot "
                            "hold one)");
        }
        std::string const type = part.substr(lead, eq - lead);
        std::string const value = part.substr(eq + 1);
        if (!IsAttributeType(type))
            Usage(what, "\"" + type + "\" in \"" + dn + "\" is not an attribute type");
        std::string const unsafe = UnsafeInValue(value);
        if (!unsafe.empty()) {
            Usage(what, "the value \"" + value + "\" of " + type + " in \"" + dn + "\": " + unsafe +
                            ", which the directory library cannot store unescaped");
        }
        // A blank before the first part would be taken as part of its type.
        out += out.empty() ? "" : "," + part.substr(0, lead);
        out += qor::Folded(type) + "=" + value;
    }
    return out;
}

std::string DnKey(std::string const& dn) {
    std::string key;
    for (std::string const& part : DnParts(dn))
        key += (key.empty() ? "" : ",") + qor::Folded(qor::Trim(part));
    return key;
}

}  // namespace qortool
