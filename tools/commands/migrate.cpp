// The migration commands: export writes a subtree as LDIF with a manifest, import loads it
// into another directory (OpenLDAP or 389 Directory Server) and checks the result against the
// manifest. Both go through the library as its identity: the walk of qorldap/Walk.h, the
// whole-entry read of qorldap/Entry.h and the write of qorldap/Write.h.
#include <fcntl.h>
#include <openssl/evp.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <set>

#include "qorldap/Walk.h"
#include "qorldap/Write.h"
#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/output/entry_view.h"
#include "tools/output/output.h"
#include "tools/session/hints.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

int const kPage = 500;
// The largest export read back.
size_t const kMaxExport = size_t{1} << 32;
char const kManifestHead[] = "# qorldap export manifest";

// A key attribute as both servers take it: with ";binary" (OpenLDAP refuses a key value
// without it, and 389 keeps a value without it apart, where the library does not see it).
std::string KeyWireName(std::string const& name) {
    return name.find(';') == std::string::npos ? name + ";binary" : name;
}

// Where the manifest of FILE lives.
std::string ManifestPath(std::string const& file) {
    return file + ".manifest";
}

// The key of a value in the manifest: the entry (DnKey) and the attribute (lower case, without
// options), so that the two servers' spellings meet.
std::string ValueKey(std::string const& dn, std::string const& attribute) {
    return DnKey(dn) + "\t" + Lower(attribute.substr(0, attribute.find(';')));
}

// --- export ----------------------------------------------------------------------------------

// What an export holds while the walk runs: the LDIF and the manifest's key lines go to their
// files entry by entry, and the LDIF into the digest, so memory does not grow with the tree.
struct Exporting {
    std::FILE* file = nullptr;
    std::FILE* manifest = nullptr;
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> digest{EVP_MD_CTX_new(), EVP_MD_CTX_free};
    long entries = 0;
    long values = 0;
    bool failed = false;
};

bool Put(std::FILE* file, std::string const& text) {
    return std::fwrite(text.data(), 1, text.size(), file) == text.size();
}

int VisitExported(QorLdapEntry const* entry, void* context) {
    Exporting& out = *static_cast<Exporting*>(context);
    EntryView const view = ViewOf(*entry);
    for (ShownAttribute const& a : view.attributes) {
        if (!KeyAttribute(a.name))
            continue;
        for (std::string const& value : a.values) {
            out.failed = out.failed || !Put(out.manifest, "key: " + Sha256Hex(value) + " " +
                                                              a.name + " " + view.dn + "\n");
            ++out.values;
        }
    }
    std::string const text = Ldif(view);
    out.failed = out.failed || !Put(out.file, text) ||
                 EVP_DigestUpdate(out.digest.get(), text.data(), text.size()) != 1;
    ++out.entries;
    return out.failed ? 1 : 0;
}

// A new file, readable by its owner only (the export holds the encrypted private keys). What
// stands at path (a .partial an earlier export left) is removed and the file made anew, never
// opened: in a folder others may write to, a symbolic link planted there would have the keys
// written into a file of another user's choosing, or over one of the caller's own.
std::FILE* CreatePrivate(std::string const& what, std::string const& path) {
    ::unlink(path.c_str());
    int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    std::FILE* file = fd < 0 ? nullptr : ::fdopen(fd, "w");
    if (file == nullptr) {
        if (fd >= 0)
            ::close(fd);
        Fail(what, "cannot write " + path + ": " + std::strerror(errno));
    }
    return file;
}

void Finish(std::string const& what, std::FILE* file, std::string const& path) {
    if (std::fflush(file) != 0 || ::fsync(::fileno(file)) != 0 || std::fclose(file) != 0) {
        ::unlink(path.c_str());
        Fail(what, "cannot write " + path + ": " + std::strerror(errno));
    }
}

int RunExport(Args const& args) {
    std::string const base = LibraryDn(args.command, args.positional[0]);
    std::string const path = args.Value("--output");
    if (path.empty() || path == "-")
        Usage(args.command, "-o FILE is needed (the manifest goes to FILE.manifest)");
    ConnectShared();
    // Written under names of their own and renamed when complete: a failed export leaves no
    // FILE that looks whole.
    Exporting out;
    std::string const ldifTemp = path + ".partial";
    std::string const manifestTemp = ManifestPath(path) + ".partial";
    if (out.digest == nullptr || EVP_DigestInit_ex(out.digest.get(), EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
    out.file = CreatePrivate(args.command, ldifTemp);
    out.manifest = CreatePrivate(args.command, manifestTemp);
    out.failed = !Put(out.manifest, std::string(kManifestHead) + "\nbase: " + base + "\n");
    int const rc = out.failed
                       ? QORLDAP_OK
                       : QorLdapWalk(base.c_str(), nullptr, nullptr, kPage, VisitExported, &out);
    if (rc != QORLDAP_OK || out.failed) {
        int const error = errno;
        std::fclose(out.file);
        std::fclose(out.manifest);
        ::unlink(ldifTemp.c_str());
        ::unlink(manifestTemp.c_str());
        if (out.failed)
            Fail(args.command, "cannot write " + path + ": " + std::strerror(error));
        if (rc == kNoSuchObject)
            Fail(args.command, "no such entry: " + base + "; nothing written");
        FailCode(args.command, rc,
                 "reading " + base + ": " + CodeMeaning(rc) + "; nothing written");
    }
    // The counts and the file's digest close the manifest: one cut short lacks them.
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(out.digest.get(), digest, &length) != 1)
        throw std::bad_alloc();
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", digest[i]);
        hex += pair;
    }
    if (!Put(out.manifest, "entries: " + std::to_string(out.entries) + "\nvalues: " +
                               std::to_string(out.values) + "\nldif-sha256: " + hex + "\n"))
        Fail(args.command, "cannot write " + manifestTemp + ": " + std::strerror(errno));
    Finish(args.command, out.file, ldifTemp);
    Finish(args.command, out.manifest, manifestTemp);
    if (std::rename(ldifTemp.c_str(), path.c_str()) != 0 ||
        std::rename(manifestTemp.c_str(), ManifestPath(path).c_str()) != 0) {
        Fail(args.command, "cannot rename into " + path + ": " + std::strerror(errno));
    }
    std::printf("exported %ld entries below %s to %s (%ld key values in %s)\n", out.entries,
                base.c_str(), path.c_str(), out.values, ManifestPath(path).c_str());
    return kExitOk;
}

// --- reading an export -----------------------------------------------------------------------

struct Manifest {
    std::string base;
    long entries = -1;
    long values = -1;
    std::string digest;
    std::multimap<std::string, std::string> keys;  // ValueKey -> SHA-256
    std::map<std::string, std::string> names;      // ValueKey -> "attribute of dn", for messages
};

Manifest ReadManifest(std::string const& what, std::string const& file) {
    std::string const path = ManifestPath(file);
    std::string const text = ReadRegularFile(what, path, kMaxExport);
    Manifest m;
    size_t at = 0;
    bool first = true;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            Fail(what, path + ": ends inside a line (truncated?); nothing written");
        std::string const line = text.substr(at, end - at);
        at = end + 1;
        if (first && line != kManifestHead)
            Fail(what, path + ": not a manifest of qorldap export; nothing written");
        first = false;
        if (line.compare(0, 6, "base: ") == 0) {
            m.base = line.substr(6);
        } else if (line.compare(0, 9, "entries: ") == 0) {
            m.entries = std::atol(line.c_str() + 9);
        } else if (line.compare(0, 8, "values: ") == 0) {
            m.values = std::atol(line.c_str() + 8);
        } else if (line.compare(0, 13, "ldif-sha256: ") == 0) {
            m.digest = line.substr(13);
        } else if (line.compare(0, 5, "key: ") == 0) {
            size_t const a = line.find(' ', 5);
            size_t const b = a == std::string::npos ? a : line.find(' ', a + 1);
            if (b == std::string::npos)
                Fail(what, path + ": a key line without its attribute and entry; nothing written");
            std::string const attribute = line.substr(a + 1, b - a - 1);
            std::string const dn = line.substr(b + 1);
            std::string const key = ValueKey(dn, attribute);
            m.keys.emplace(key, line.substr(5, a - 5));
            m.names[key] = attribute + " of " + dn;
        }
    }
    if (m.base.empty() || m.entries < 0 || m.values < 0 || m.digest.size() != 64 ||
        static_cast<long>(m.keys.size()) != m.values) {
        Fail(what, path +
                       ": incomplete (truncated?): its counts, digest or key lines are missing; "
                       "nothing written");
    }
    return m;
}

// Why the line "name:rest" of an export is not read, or empty: an export names attributes by
// type and options only, writes no change records, and gives values in the line or in base64,
// never as a URL to read ("name:< file:///etc/shadow" would bring a local file into the
// directory), nor with control characters in the line (a carriage return of a file edited
// elsewhere would end up in the value).
std::string UnreadableLine(std::string const& name, std::string const& rest) {
    std::string const type = name.substr(0, name.find(';'));
    bool options = true;
    for (size_t at = name.find(';'); at != std::string::npos; at = name.find(';', at + 1)) {
        std::string const option = name.substr(at + 1, name.find(';', at + 1) - at - 1);
        options =
            options && !option.empty() && std::all_of(option.begin(), option.end(), [](char c) {
                return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
            });
    }
    if (!IsAttributeType(type) || !options)
        return "\"" + Printable(name) + "\" is no attribute name";
    if (strcasecmp(type.c_str(), "changetype") == 0)
        return "a change record (changetype:) is no export";
    if (!rest.empty() && rest[0] == '<')
        return "the value of " + name + " is a URL (" + name + ":<), which import does not read";
    size_t const control = rest.find_first_of(std::string("\r\0", 2));
    if (control != std::string::npos && rest[0] != ':') {
        return "the value of " + name + " holds " + CharacterName(rest[control]) +
               " (an export writes such a value in base64)";
    }
    return "";
}

// The entries of an LDIF file as export writes it (and ldapsearch -LLL): "dn:" first, "name:
// value", "name:: base64", "name:" for an empty value, folded lines starting with a blank,
// a blank line after each entry, "#" comments.
std::vector<EntryView> ReadLdif(std::string const& what, std::string const& path,
                                std::string const& text) {
    // Every entry ends with a blank line: a file cut anywhere else lacks it at its end.
    if (!text.empty() && (text.size() < 2 || text.compare(text.size() - 2, 2, "\n\n") != 0))
        Fail(what, path + ": ends inside an entry (truncated?); nothing written");
    std::vector<EntryView> entries;
    EntryView current;
    bool inEntry = false;
    long number = 0;
    size_t at = 0;
    auto bad = [&](std::string const& why) {
        Fail(what, path + " line " + std::to_string(number) + ": " + why + "; nothing written");
    };
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            bad("ends inside a line (truncated?)");
        std::string line = text.substr(at, end - at);
        ++number;
        at = end + 1;
        long const lineNumber = number;
        // Folded lines continue this one.
        while (at < text.size() && text[at] == ' ') {
            size_t const next = text.find('\n', at);
            if (next == std::string::npos)
                bad("ends inside a line (truncated?)");
            line += text.substr(at + 1, next - at - 1);
            at = next + 1;
            ++number;
        }
        if (!line.empty() && line[0] == '#')
            continue;
        if (line.empty()) {
            if (inEntry)
                entries.push_back(std::move(current));
            current = EntryView();
            inEntry = false;
            continue;
        }
        size_t const colon = line.find(':');
        if (colon == std::string::npos || colon == 0) {
            number = lineNumber;
            bad("not \"name: value\"");
        }
        std::string const name = line.substr(0, colon);
        std::string const why = UnreadableLine(name, line.substr(colon + 1));
        if (!why.empty()) {
            number = lineNumber;
            bad(why);
        }
        std::string value;
        if (colon + 1 < line.size() && line[colon + 1] == ':') {
            std::string const encoded = Trimmed(line.substr(colon + 2));
            if (!Base64Decode(encoded, value)) {
                number = lineNumber;
                bad("the value of " + name + " is not base64");
            }
        } else {
            value = line.substr(colon + 1);
            if (!value.empty() && value[0] == ' ')
                value.erase(0, 1);
        }
        if (!inEntry) {
            if (strcasecmp(name.c_str(), "version") == 0 && entries.empty())
                continue;
            if (strcasecmp(name.c_str(), "dn") != 0) {
                number = lineNumber;
                bad("an entry must begin with dn:");
            }
            current.dn = value;
            inEntry = true;
            continue;
        }
        auto const same = std::find_if(current.attributes.begin(), current.attributes.end(),
                                       [&](ShownAttribute const& a) { return a.name == name; });
        if (same != current.attributes.end())
            same->values.push_back(value);
        else
            current.attributes.push_back({name, {value}});
    }
    if (inEntry)
        Fail(what,
             path + ": ends inside the entry " + current.dn + " (truncated?); nothing written");
    return entries;
}

// Why dn is no name import writes, or empty: the library takes a DN as type=value parts split
// on every comma, with no escaping, so a value holding a comma, "+" or a backslash would name
// another entry than the one checked here ("cn=x\\,o=root" is no entry below o=root).
std::string UnwritableDn(std::string const& dn) {
    for (std::string const& part : DnParts(dn)) {
        std::string const rdn = Trimmed(part);
        size_t const eq = rdn.find('=');
        if (eq == std::string::npos || !IsAttributeType(rdn.substr(0, eq)))
            return "\"" + Printable(rdn) + "\" is not type=value";
        std::string const unsafe = UnsafeInValue(rdn.substr(eq + 1));
        if (!unsafe.empty())
            return "the value of \"" + Printable(rdn) + "\" " + unsafe;
    }
    return "";
}

// Every entry of the export is named as the library can write it, once, at or below the base
// of its manifest: an LDIF changed by hand cannot reach beyond the subtree that was exported.
void CheckNames(std::string const& what, std::string const& path, std::string const& base,
                std::vector<EntryView> const& entries) {
    std::string const baseWhy = UnwritableDn(base);
    if (!baseWhy.empty())
        Fail(what, ManifestPath(path) + ": its base " + Printable(base) +
                       " is no DN import writes: " + baseWhy + "; nothing written");
    std::string const below = "," + DnKey(base);
    std::set<std::string> seen;
    for (EntryView const& e : entries) {
        std::string const why = UnwritableDn(e.dn);
        std::string const key = DnKey(e.dn);
        if (!why.empty())
            Fail(what, path + ": " + Printable(e.dn) + " is no DN import writes: " + why +
                           "; nothing written");
        if (key != DnKey(base) &&
            (key.size() <= below.size() ||
             key.compare(key.size() - below.size(), below.size(), below) != 0)) {
            Fail(what, path + ": " + e.dn + " is not below the manifest's base " + base +
                           "; nothing written");
        }
        if (!seen.insert(key).second)
            Fail(what, path + ": " + e.dn + " comes twice; nothing written");
    }
}

// The export read back and checked against its manifest before anything is sent.
std::vector<EntryView> ReadExport(std::string const& what, std::string const& path,
                                  Manifest& manifest) {
    std::string const text = ReadRegularFile(what, path, kMaxExport);
    manifest = ReadManifest(what, path);
    std::vector<EntryView> entries = ReadLdif(what, path, text);
    if (static_cast<long>(entries.size()) != manifest.entries) {
        Fail(what, path + " holds " + std::to_string(entries.size()) + " entries, its manifest " +
                       std::to_string(manifest.entries) +
                       " (truncated or changed after export); nothing written");
    }
    CheckNames(what, path, manifest.base, entries);
    std::multimap<std::string, std::string> found;
    for (EntryView const& e : entries) {
        for (ShownAttribute const& a : e.attributes) {
            if (!KeyAttribute(a.name))
                continue;
            for (std::string const& v : a.values)
                found.emplace(ValueKey(e.dn, a.name), Sha256Hex(v));
        }
    }
    for (auto const& [key, digest] : found) {
        auto const range = manifest.keys.equal_range(key);
        bool const listed = std::any_of(range.first, range.second,
                                        [&](auto const& k) { return k.second == digest; });
        if (!listed) {
            auto const name = manifest.names.find(key);
            Fail(what, path + ": " +
                           (name != manifest.names.end() ? name->second
                                                         : key.substr(key.find('\t') + 1) + " of " +
                                                               key.substr(0, key.find('\t'))) +
                           " does not match " + ManifestPath(path) + "; nothing written");
        }
    }
    if (static_cast<long>(found.size()) != manifest.values || Sha256Hex(text) != manifest.digest) {
        Fail(what, path + " does not match " + ManifestPath(path) +
                       " (changed after export); nothing written");
    }
    return entries;
}

// --- import ----------------------------------------------------------------------------------

// An entry of the directory, read whole; found false when there is none.
struct Target {
    bool found = false;
    std::map<std::string, std::multiset<std::string>> keys;  // lower-case base name -> values
};

Target ReadTarget(std::string const& what, std::string const& dn) {
    QorLdapEntry* read = nullptr;
    int const rc = QorLdapReadEntry(dn.c_str(), &read);
    std::unique_ptr<QorLdapEntry, void (*)(QorLdapEntry*)> const entry(read, QorLdapFreeEntry);
    Target t;
    if (rc == kNoSuchObject)
        return t;
    if (rc != QORLDAP_OK)
        FailCode(what, rc, "reading " + dn + ": " + CodeMeaning(rc) + "; nothing written");
    t.found = true;
    for (int i = 0; i < entry->attributeCount; ++i) {
        QorLdapAttribute const& a = entry->attributes[i];
        if (!KeyAttribute(a.name))
            continue;
        std::string const name =
            Lower(std::string(a.name).substr(0, std::string(a.name).find(';')));
        for (int k = 0; k < a.valueCount; ++k) {
            t.keys[name].emplace(reinterpret_cast<char const*>(a.values[k].bytes),
                                 a.values[k].length);
        }
    }
    return t;
}

// One request: the attributes of view as octets (key attributes with ";binary").
int Write(std::string const& dn, int how, std::vector<ShownAttribute> const& attributes) {
    std::vector<std::string> names;
    std::vector<std::vector<QorLdapValue>> values;
    for (ShownAttribute const& a : attributes) {
        names.push_back(KeyAttribute(a.name) ? KeyWireName(a.name) : a.name);
        std::vector<QorLdapValue> list;
        for (std::string const& v : a.values)
            list.push_back({static_cast<unsigned int>(v.size()),
                            reinterpret_cast<unsigned char const*>(v.data())});
        values.push_back(std::move(list));
    }
    std::vector<QorLdapAttribute> records;
    for (size_t i = 0; i < names.size(); ++i)
        records.push_back({names[i].c_str(), static_cast<int>(values[i].size()), values[i].data()});
    return QorLdapWriteEntry(dn.c_str(), how, records.data(), static_cast<int>(records.size()));
}

// The key attributes of an exported entry, merged by name without options.
std::map<std::string, ShownAttribute> KeysOf(EntryView const& e) {
    std::map<std::string, ShownAttribute> keys;
    for (ShownAttribute const& a : e.attributes) {
        if (!KeyAttribute(a.name))
            continue;
        std::string const base = Lower(a.name.substr(0, a.name.find(';')));
        ShownAttribute& k = keys[base];
        if (k.name.empty())
            k.name = KeyWireName(a.name.substr(0, a.name.find(';')));
        k.values.insert(k.values.end(), a.values.begin(), a.values.end());
    }
    return keys;
}

// The parent of dn, as written; empty at the top.
std::string ParentOf(std::string const& dn) {
    size_t const comma = dn.find(',');
    return comma == std::string::npos ? "" : Trimmed(dn.substr(comma + 1));
}

// Every key value below base in the directory against the manifest: the number checked, or a
// failure naming the first value that differs or is missing.
struct Checking {
    std::multimap<std::string, std::string> held;
};

int VisitChecked(QorLdapEntry const* entry, void* context) {
    Checking& c = *static_cast<Checking*>(context);
    for (int i = 0; i < entry->attributeCount; ++i) {
        QorLdapAttribute const& a = entry->attributes[i];
        for (int k = 0; k < a.valueCount; ++k) {
            c.held.emplace(ValueKey(entry->dn, a.name),
                           Sha256Hex(std::string(reinterpret_cast<char const*>(a.values[k].bytes),
                                                 a.values[k].length)));
        }
    }
    return 0;
}

long CheckAgainst(std::string const& what, Manifest const& manifest, std::string const& top,
                  std::string const& after) {
    char const* const wanted[] = {"signPubcer",  "signPubkey",  "signPrikey", "cryptPubcer",
                                  "cryptPubkey", "cryptPrikey", "userPsw",    nullptr};
    Checking c;
    int const rc = QorLdapWalk(top.c_str(), nullptr, wanted, kPage, VisitChecked, &c);
    if (rc != QORLDAP_OK) {
        FailCode(what, rc, "re-reading " + top + " for the check: " + CodeMeaning(rc) + after);
    }
    long checked = 0;
    for (auto const& [key, digest] : manifest.keys) {
        auto const range = c.held.equal_range(key);
        bool const there = std::any_of(range.first, range.second,
                                       [&](auto const& h) { return h.second == digest; });
        if (!there) {
            Fail(what,
                 "check against the manifest failed: " + manifest.names.at(key) +
                     (range.first == range.second ? " is missing from the directory"
                                                  : " differs from the exported value (SHA-256 " +
                                                        digest.substr(0, 16) + "...)") +
                     after);
        }
        ++checked;
    }
    return checked;
}

// Why import will not add e without --any-entry, or empty: an export of a key subtree holds the
// entries publication makes, so only the templates' classes and attributes (those of the
// shipped access rules and those of ldap.ini) and the key attributes are added. An LDIF
// changed by hand, run as an identity stronger than the key service, would otherwise plant
// a login account (posixAccount, userPassword, uidNumber), a group's members or an alias.
struct Usual {
    std::set<std::string> classes = {"top", "organization", "organizationalunit", "qorperson",
                                     "qorkeyholder"};
    std::set<std::string> attributes = {"objectclass", "ou",          "cn", "sn",
                                        "mail",        "description", "o"};
    Usual() {
        for (auto const& [klass, naming] : Levels()) {
            classes.insert(Lower(klass));
            attributes.insert(Lower(naming));
        }
    }
};

std::string UnusualEntry(Usual const& usual, EntryView const& e) {
    std::set<std::string> const& classes = usual.classes;
    std::set<std::string> const& attributes = usual.attributes;
    std::string const rdn = Trimmed(DnParts(e.dn).front());
    if (attributes.count(Lower(rdn.substr(0, rdn.find('=')))) == 0)
        return "is named by " + rdn.substr(0, rdn.find('='));
    for (ShownAttribute const& a : e.attributes) {
        std::string const type = Lower(a.name.substr(0, a.name.find(';')));
        if (KeyAttribute(a.name))
            continue;
        if (attributes.count(type) == 0)
            return "holds " + a.name;
        if (type != "objectclass")
            continue;
        for (std::string const& v : a.values) {
            if (classes.count(Lower(Trimmed(v))) == 0)
                return "has objectClass " + Printable(v);
        }
    }
    return "";
}

// The class of a level named by attribute, from ldap.ini's templates.
std::string LevelClass(std::string const& attribute) {
    for (auto const& [klass, naming] : Levels()) {
        if (strcasecmp(naming.c_str(), attribute.c_str()) == 0)
            return klass;
    }
    return "";
}

int RunImport(Args const& args) {
    std::string const path = args.positional[0];
    if (args.Has("--check") && (args.Has("--replace") || args.Has("--any-entry")))
        Usage(args.command, "--replace and --any-entry exclude --check");
    Manifest manifest;
    std::vector<EntryView> entries = ReadExport(args.command, path, manifest);
    // Parents before children, whatever order the directory sent them in.
    std::stable_sort(entries.begin(), entries.end(), [](EntryView const& a, EntryView const& b) {
        return DnParts(a.dn).size() < DnParts(b.dn).size();
    });
    ConnectShared();
    std::string const top = entries.empty() ? manifest.base : entries.front().dn;
    if (args.Has("--check")) {
        long const checked = CheckAgainst(args.command, manifest, manifest.base, "");
        std::printf("checked %ld key values below %s against %s: all match\n", checked,
                    manifest.base.c_str(), ManifestPath(path).c_str());
        return kExitOk;
    }

    // The plan, before anything is written: what is added, filled, replaced or already there.
    enum class Step { kAdd, kKeys, kSame };
    std::vector<Step> steps;
    std::vector<std::string> conflicts;
    for (EntryView const& e : entries) {
        Target const t = ReadTarget(args.command, e.dn);
        if (!t.found) {
            steps.push_back(Step::kAdd);
            continue;
        }
        bool same = true;
        for (auto const& [base, wanted] : KeysOf(e)) {
            auto const held = t.keys.find(base);
            std::multiset<std::string> const values(wanted.values.begin(), wanted.values.end());
            if (held == t.keys.end())
                same = false;  // missing there: filled in
            else if (held->second != values) {
                same = false;
                conflicts.push_back(wanted.name + " of " + e.dn);
            }
        }
        steps.push_back(same ? Step::kSame : Step::kKeys);
    }
    Usual const usual;
    for (size_t i = 0; i < entries.size() && !args.Has("--any-entry"); ++i) {
        std::string const why = steps[i] == Step::kAdd ? UnusualEntry(usual, entries[i]) : "";
        if (!why.empty()) {
            Fail(args.command, entries[i].dn + " " + why +
                                   ", which an export of keys does not hold; nothing written "
                                   "(--any-entry adds it as it is)");
        }
    }
    if (!conflicts.empty() && !args.Has("--replace")) {
        Fail(args.command,
             conflicts.front() + " differs from the directory's" +
                 (conflicts.size() > 1 ? " (and " + std::to_string(conflicts.size() - 1) + " more)"
                                       : "") +
                 "; nothing written (--replace overwrites them)");
    }
    // The levels above the export that the directory lacks, from the top down.
    std::vector<std::string> levels;
    for (std::string up = ParentOf(top); !up.empty() && !ReadTarget(args.command, up).found;
         up = ParentOf(up)) {
        levels.insert(levels.begin(), up);
    }

    long added = 0, updated = 0, made = 0;
    long const done = static_cast<long>(std::count(steps.begin(), steps.end(), Step::kSame));
    auto stopped = [&](std::string const& dn, int rc) {
        Fail(args.command,
             CodeText(rc) + " writing " + dn + ": " +
                 (DirectoryCause().empty() ? CodeMeaning(rc) : DirectoryCause()) +
                 "; import stopped after " + std::to_string(made) + " levels, " +
                 std::to_string(added) + " entries added and " + std::to_string(updated) +
                 " updated, which stay; run the same import again to go on (what is there "
                 "with the same keys is skipped)");
    };
    for (std::string const& level : levels) {
        std::string const first = DnParts(level).front();
        size_t const equals = first.find('=');
        std::string const attribute = Trimmed(first.substr(0, equals));
        std::string const klass = LevelClass(attribute);
        if (equals == std::string::npos || klass.empty()) {
            Fail(args.command, "the directory lacks " + level +
                                   ", and no template of ldap.ini "
                                   "makes a level named by " +
                                   attribute + "; nothing written");
        }
        int const rc =
            Write(level, QORLDAP_WRITE_ADD,
                  {{"objectClass", {klass}}, {attribute, {Trimmed(first.substr(equals + 1))}}});
        if (rc != QORLDAP_OK)
            stopped(level, rc);
        ++made;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        EntryView const& e = entries[i];
        if (steps[i] == Step::kSame)
            continue;
        std::vector<ShownAttribute> attributes;
        if (steps[i] == Step::kAdd) {
            // A key attribute written with and without ";binary" goes as one.
            for (ShownAttribute const& a : e.attributes) {
                if (!KeyAttribute(a.name))
                    attributes.push_back(a);
            }
        }
        for (auto const& [base, key] : KeysOf(e))
            attributes.push_back(key);
        int const rc = Write(
            e.dn, steps[i] == Step::kAdd ? QORLDAP_WRITE_ADD : QORLDAP_WRITE_REPLACE, attributes);
        if (rc != QORLDAP_OK)
            stopped(e.dn, rc);
        ++(steps[i] == Step::kAdd ? added : updated);
    }
    std::string const after = "; the " + std::to_string(added + updated) +
                              " entries written stay (import again with --replace to write the "
                              "exported keys over them)";
    long const checked = CheckAgainst(args.command, manifest, manifest.base, after);
    std::printf(
        "imported %s: %ld entries added, %ld updated, %ld already there, %ld levels "
        "made; %ld key values checked against %s\n",
        path.c_str(), added, updated, done, made, checked, ManifestPath(path).c_str());
    return kExitOk;
}

char const kExportHelp[] =
    "usage: qorldap export BASE -o FILE\n"
    "\n"
    "Writes BASE and every entry below it that the library's identity may read as LDIF to\n"
    "FILE: every attribute and value, byte for byte what ldapsearch -LLL writes for a paged\n"
    "search (pr=500/noprompt) but its closing comment, binary values in base64.\n"
    "FILE.manifest lists the number of entries, the SHA-256 of FILE and the SHA-256 of\n"
    "every key value (signPubcer, signPubkey, signPrikey, cryptPubcer, cryptPubkey,\n"
    "cryptPrikey, userPsw) with its entry; qorldap import checks both. The subtree is read\n"
    "in pages of 500 entries. Both files are written under names ending in .partial and\n"
    "renamed when complete, readable by their owner only (they hold the encrypted private\n"
    "keys). Exit status 1 when BASE does not exist.\n"
    "\n"
    "  -o, --output FILE  the LDIF file\n";

char const kImportHelp[] =
    "usage: qorldap import FILE [--replace] [--any-entry] | FILE --check\n"
    "\n"
    "Loads what qorldap export wrote into the directory of the settings in force (OpenLDAP\n"
    "or 389 Directory Server), as the library's identity. FILE is read whole and checked\n"
    "against FILE.manifest first (a truncated or changed file, or a key value that does\n"
    "not match, is refused with nothing written). Parents go before children; levels above\n"
    "the export that the directory lacks are made from ldap.ini's templates. A missing\n"
    "entry is added with every attribute; an existing one gets the key values it lacks;\n"
    "one whose keys differ is refused before anything is written, unless --replace. Key\n"
    "attributes are written with \";binary\", as both servers take them. Then every key\n"
    "value below the manifest's base is read again and its SHA-256 compared with the\n"
    "manifest.\n"
    "\n"
    "A failure while writing names the entry and what was written before it, which stays;\n"
    "running the same import again goes on from there (entries already there with the\n"
    "same keys are skipped).\n"
    "\n"
    "Every entry must be at or below the manifest's base, once, named without escapes.\n"
    "An entry to add may hold only the templates' classes and attributes (top,\n"
    "organization, organizationalUnit, qorPerson, qorKeyHolder; o, ou, cn, sn, mail,\n"
    "description; those of ldap.ini) and the key attributes, as an export of a key\n"
    "subtree does; any other (a posixAccount, a userPassword, a member) is refused before\n"
    "anything is written, unless --any-entry. Values given as URLs (name:<) and change\n"
    "records are refused.\n"
    "\n"
    "  --replace    write the exported keys over different ones\n"
    "  --any-entry  add entries of every class and attribute the file holds\n"
    "  --check      write nothing: only compare the directory's key values with the\n"
    "               manifest\n";

}  // namespace

Command ExportCommand() {
    return {"export",    "write a subtree as LDIF with a manifest",
            kExportHelp, {{"--output", "-o", true}},
            1,           1,
            RunExport};
}

Command ImportCommand() {
    return {"import",
            "load an export into a directory and check it",
            kImportHelp,
            {{"--replace", nullptr, false},
             {"--any-entry", nullptr, false},
             {"--check", nullptr, false}},
            1,
            1,
            RunImport};
}

}  // namespace qortool
