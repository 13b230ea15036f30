// The audit command: who read or wrote which key attribute of which entry, and when, from the
// directory's own trail. OpenLDAP keeps it in the accesslog overlay's database, read over LDAP
// through the library (qorldap/Walk.h); 389 Directory Server in its access log (reads) and
// audit log (writes), read as files.
#include <strings.h>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <set>

#include "qorldap/Walk.h"
#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/output/entry_view.h"
#include "tools/output/output.h"
#include "tools/session/hints.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

// A decimal digit, for any byte a log holds (isdigit takes only unsigned char values or EOF).
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// The largest log file read.
size_t const kMaxLog = size_t{1} << 30;
int const kPage = 500;

// One access to key attributes.
struct Access {
    std::string time;                     // UTC, "2026-11-25T18:30:30Z"
    long long when = 0;                   // seconds since the epoch, for --since
    std::string operation;                // read, compare, add, modify, delete
    std::string entry;                    // the entry, or a search's base
    std::string scope;                    // a search's: base, one, sub; else empty
    std::vector<std::string> attributes;  // the key attributes, "*" for all of them
    std::string by;                       // the bind DN; empty when anonymous
    std::string result;                   // the directory's code, as logged
    std::string entries;                  // a search's count of entries sent, as logged
    std::string flag;                     // why it is flagged; empty when it is not
};

// The attribute name without its options, in lower case.
std::string BaseName(std::string const& name) {
    return Lower(name.substr(0, name.find(';')));
}

// The key attribute name stands for, with its options: by name, or by the OID of
// schema/qorldap.schema ("1.3.6.1.4.1.32473.1.1.1;binary", also written "OID.1.3..."), which a
// client may ask for in its place and gets the same values; empty when it is none.
std::string KeyName(std::string const& name) {
    static char const* const kByArc[] = {"signPrikey",  "signPubcer",  "signPubkey", "cryptPrikey",
                                         "cryptPubcer", "cryptPubkey", "userPsw"};
    static std::string const kArc = "1.3.6.1.4.1.32473.1.1.";
    size_t const semi = name.find(';');
    std::string type = name.substr(0, semi);
    if (strncasecmp(type.c_str(), "oid.", 4) == 0)
        type.erase(0, 4);
    if (type.size() == kArc.size() + 1 && type.compare(0, kArc.size(), kArc) == 0 &&
        type.back() >= '1' && type.back() <= '7') {
        return kByArc[type.back() - '1'] + (semi == std::string::npos ? "" : name.substr(semi));
    }
    return KeyAttribute(name) ? name : "";
}

// What only the key service may read or write (README, "Security model").
bool PrivateAttribute(std::string const& name) {
    std::string const base = BaseName(name);
    return base == "signprikey" || base == "cryptprikey" || base == "userpsw";
}

// The key attributes a search filter tests: "(signPrikey;binary=*)" reads signPrikey.
std::vector<std::string> KeysTested(std::string const& filter) {
    std::vector<std::string> keys;
    for (size_t at = filter.find('('); at != std::string::npos; at = filter.find('(', at + 1)) {
        size_t const start = std::min(filter.find_first_not_of(' ', at + 1), filter.size());
        size_t const end = filter.find_first_of("=~<>:() ", start);
        std::string const name =
            KeyName(filter.substr(start, end == std::string::npos ? end : end - start));
        if (!name.empty() && std::find(keys.begin(), keys.end(), name) == keys.end())
            keys.push_back(name);
    }
    return keys;
}

// The key attributes a search read: those it asked for by name or OID, and those its filter
// tests (a filter alone, "(signPrikey;binary=0*)" asking for no attribute, probes a key's
// bytes). When it asked for every user attribute (no list, or "*" in it) "*" stands first:
// that is how the library reads a key.
std::vector<std::string> KeysAsked(std::vector<std::string> const& asked,
                                   std::string const& filter) {
    std::vector<std::string> keys;
    bool all = asked.empty();
    for (std::string const& a : asked) {
        std::string const name = KeyName(a);
        if (a == "*")
            all = true;
        else if (!name.empty() && std::find(keys.begin(), keys.end(), name) == keys.end())
            keys.push_back(name);
    }
    for (std::string const& name : KeysTested(filter)) {
        if (std::find(keys.begin(), keys.end(), name) == keys.end())
            keys.push_back(name);
    }
    if (all)
        keys.insert(keys.begin(), "*");
    return keys;
}

// --- time ----------------------------------------------------------------------------------

std::string IsoTime(long long when) {
    std::time_t t = static_cast<std::time_t>(when);
    std::tm parts{};
    gmtime_r(&t, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

// YYYYMMDDhhmmss (the rest ignored) as seconds since the epoch, UTC; -1 when it is not.
long long FromCompact(std::string const& text) {
    if (text.size() < 14 || !std::all_of(text.begin(), text.begin() + 14, IsDigit))
        return -1;
    std::tm parts{};
    parts.tm_year = std::stoi(text.substr(0, 4)) - 1900;
    parts.tm_mon = std::stoi(text.substr(4, 2)) - 1;
    parts.tm_mday = std::stoi(text.substr(6, 2));
    parts.tm_hour = std::stoi(text.substr(8, 2));
    parts.tm_min = std::stoi(text.substr(10, 2));
    parts.tm_sec = std::stoi(text.substr(12, 2));
    return static_cast<long long>(timegm(&parts));
}

// --since: "2026-11-25", "2026-11-25T18:00:00Z" (or with a blank), "20261125180000Z", or an age
// ("90s", "30m", "12h", "7d"). Seconds since the epoch.
long long SinceOption(Args const& args) {
    std::string const text = args.Value("--since");
    if (!text.empty() && std::all_of(text.begin(), text.end() - 1, IsDigit) &&
        std::strchr("smhd", text.back()) != nullptr && text.size() > 1 && text.size() < 9) {
        long long const unit = text.back() == 's'   ? 1
                               : text.back() == 'm' ? 60
                               : text.back() == 'h' ? 3600
                                                    : 86400;
        return static_cast<long long>(std::time(nullptr)) -
               std::stoll(text.substr(0, text.size() - 1)) * unit;
    }
    std::string digits;
    for (char c : text) {
        if (::isdigit(static_cast<unsigned char>(c)))
            digits += c;
        else if (std::strchr("-: TZ", c) == nullptr)
            digits = "x";
    }
    if (digits.size() == 8)
        digits += "000000";
    long long const when = digits.size() == 14 ? FromCompact(digits) : -1;
    if (when < 0) {
        Usage(args.command,
              "--since takes a date (2026-11-25), a time (2026-11-25T18:00:00Z) "
              "or an age (30m, 12h, 7d), not \"" +
                  Printable(text) + "\"");
    }
    return when;
}

// --- OpenLDAP: the accesslog database --------------------------------------------------------

struct Walked {
    std::vector<Access> accesses;
};

std::string First(QorLdapEntry const* entry, char const* name) {
    for (int i = 0; i < entry->attributeCount; ++i) {
        QorLdapAttribute const& a = entry->attributes[i];
        if (strcasecmp(a.name, name) == 0 && a.valueCount > 0)
            return std::string(reinterpret_cast<char const*>(a.values[0].bytes),
                               a.values[0].length);
    }
    return "";
}

std::vector<std::string> All(QorLdapEntry const* entry, char const* name) {
    std::vector<std::string> out;
    for (int i = 0; i < entry->attributeCount; ++i) {
        QorLdapAttribute const& a = entry->attributes[i];
        if (strcasecmp(a.name, name) != 0)
            continue;
        for (int k = 0; k < a.valueCount; ++k)
            out.emplace_back(reinterpret_cast<char const*>(a.values[k].bytes), a.values[k].length);
    }
    return out;
}

// The attribute a reqMod value ("signPrikey;binary:= ...", "cn:+ x") or a reqAssertion
// ("signPrikey;binary=...") is about.
std::string NameBefore(std::string const& text, char stop) {
    return text.substr(0, text.find(stop));
}

int VisitLogEntry(QorLdapEntry const* entry, void* context) {
    Access a;
    std::string const type = First(entry, "reqType");
    std::string const start = First(entry, "reqStart");
    a.when = FromCompact(start);
    a.entry = First(entry, "reqDN");
    a.by = First(entry, "reqAuthzID");
    a.result = First(entry, "reqResult");
    if (type == "search") {
        a.operation = "read";
        a.scope = First(entry, "reqScope");
        a.entries = First(entry, "reqEntries");
        a.attributes = KeysAsked(All(entry, "reqAttr"), First(entry, "reqFilter"));
    } else if (type == "compare") {
        a.operation = "compare";
        std::string const name = KeyName(NameBefore(First(entry, "reqAssertion"), '='));
        if (!name.empty())
            a.attributes.push_back(name);
    } else if (type == "add" || type == "modify") {
        a.operation = type;
        for (std::string const& mod : All(entry, "reqMod")) {
            std::string const name = KeyName(NameBefore(mod, ':'));
            if (!name.empty() &&
                std::find(a.attributes.begin(), a.attributes.end(), name) == a.attributes.end())
                a.attributes.push_back(name);
        }
    } else if (type == "delete") {
        a.operation = "delete";
        a.attributes.push_back("*");
    } else {
        return 0;
    }
    if (a.attributes.empty() || a.when < 0)
        return 0;
    static_cast<Walked*>(context)->accesses.push_back(std::move(a));
    return 0;
}

std::vector<Access> FromAccessLogDatabase(Args const& args, long long since) {
    std::string const logBase = args.Value("--logdb", "cn=accesslog");
    std::string filter =
        "(|(objectClass=auditSearch)(objectClass=auditCompare)(objectClass=auditAdd)"
        "(objectClass=auditModify)(objectClass=auditDelete))";
    if (since > 0) {
        std::string const compact = IsoTime(since);
        std::string generalized;
        for (char c : compact) {
            if (::isdigit(static_cast<unsigned char>(c)))
                generalized += c;
        }
        filter = "(&" + filter + "(reqStart>=" + generalized + "Z))";
    }
    char const* const wanted[] = {"reqType",   "reqStart", "reqDN",        "reqAuthzID",
                                  "reqResult", "reqScope", "reqEntries",   "reqAttr",
                                  "reqFilter", "reqMod",   "reqAssertion", nullptr};
    ConnectShared();
    Walked walked;
    int const rc =
        QorLdapWalk(logBase.c_str(), filter.c_str(), wanted, kPage, VisitLogEntry, &walked);
    if (rc == kNoSuchObject) {
        Fail(args.command, "no audit log at " + logBase +
                               " (not there, or the library's identity may not read it; "
                               "see README, \"Audit\"; for 389 give its log with --log)");
    }
    if (rc != QORLDAP_OK)
        FailCode(args.command, rc, "reading the audit log at " + logBase + ": " + CodeMeaning(rc));
    return walked.accesses;
}

// --- 389 Directory Server: the access and audit logs -------------------------------------------

// The value of key="..." or key=word in a line of the access log.
std::string Field389(std::string const& line, std::string const& key) {
    size_t at = line.find(" " + key + "=");
    if (at == std::string::npos)
        return "";
    at += key.size() + 2;
    if (at < line.size() && line[at] == '"') {
        size_t const end = line.find('"', at + 1);
        return line.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
    }
    return line.substr(at, line.find(' ', at) - at);
}

// "[25/Nov/2026:18:30:41.696814787 +0000]" as seconds since the epoch; -1 when it is not.
long long Time389(std::string const& line) {
    static char const* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    char month[4] = {};
    char sign = '+';
    int zone = 0;
    if (std::sscanf(line.c_str(), "[%2d/%3s/%4d:%2d:%2d:%2d.%*d %c%4d]", &day, month, &year, &hour,
                    &minute, &second, &sign, &zone) != 8) {
        return -1;
    }
    int mon = -1;
    for (int i = 0; i < 12; ++i) {
        if (std::strcmp(month, kMonths[i]) == 0)
            mon = i;
    }
    if (mon < 0)
        return -1;
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = mon;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    long long const offset = (zone / 100) * 3600 + (zone % 100) * 60;
    return static_cast<long long>(timegm(&parts)) - (sign == '-' ? -offset : offset);
}

std::vector<std::string> Words(std::string const& text) {
    std::vector<std::string> out;
    size_t at = 0;
    while (at < text.size()) {
        size_t const end = std::min(text.find(' ', at), text.size());
        if (end > at)
            out.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return out;
}

// Reads from the access log: searches and compares of key attributes (each with the bind of
// its connection at the time, and its result when logged) and deletes (who removed which
// entry). Adds and modifies come from the audit log, which names the attributes.
char const kForged[] = ": a client may have written lines into the log (a line feed in a DN)";

void FromAccess389(std::string const& text, std::vector<Access>& out) {
    std::map<std::string, std::string> bound;  // the bind DN, by connection
    std::map<std::string, size_t> pending;     // by "conn op": index in out
    // By connection: the accesses logged after a BIND line and before its RESULT, which are
    // credited by that result (a client may send a search right behind a bind as the key
    // service that then fails).
    std::map<std::string, std::vector<size_t>> binding;
    // 389 writes the DNs clients send as they come, line feeds and quotes included: a client
    // can write whole lines into the log (a bind as the key service and its result, say).
    // Such lines show as a line the server did not begin, or as a request number a connection
    // used twice or far ahead of its others (the server numbers requests as they arrive and may
    // log a few out of order), or as a request with no result once its connection closed; each
    // of those is flagged. Connections that began in an earlier log are not looked at so.
    struct Requests {
        std::set<long> seen;
        long highest = -1;
        std::map<std::string, size_t> open;  // op -> index in out, or kNone
        bool closed = false;
    };
    size_t const kNone = std::string::npos;
    long const kAhead = 16;
    std::map<std::string, Requests> requests;  // by connection, from its "connection from"
    long long lastTime = 0;
    bool begun = false;
    auto forged = [&](std::string const& line, std::string const& conn, std::string const& why) {
        Access a;
        long long const when = Time389(line);
        a.when = when >= 0 ? when : lastTime;
        a.operation = "log";
        a.entry = line.substr(0, 100);
        a.attributes.push_back("*");
        a.by = conn.empty() ? "" : bound[conn];
        a.flag = why + kForged;
        out.push_back(std::move(a));
    };
    static char const* const kAnswered[] = {" SRCH base=", " CMP dn=", " DEL dn=",    " BIND dn=",
                                            " ADD dn=",    " MOD dn=", " MODRDN dn=", " EXT oid="};
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        std::string const line = text.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line[0] == '[') {
            begun = true;
            lastTime = std::max(lastTime, Time389(line));
        } else if (begun) {
            forged(line, "", "a line the server did not begin");
            continue;
        }
        std::string const conn = Field389(line, "conn");
        std::string const op = Field389(line, "op");
        if (conn.empty() || !::isdigit(static_cast<unsigned char>(conn[0])))
            continue;  // internal operations
        std::string const key = conn + " " + op;
        bool const answered = std::any_of(std::begin(kAnswered), std::end(kAnswered),
                                          [&](char const* r) { return line.find(r) != kNone; });
        auto const known = requests.find(conn);
        if (known != requests.end() &&
            (answered || line.find(" UNBIND") != kNone || line.find(" ABANDON ") != kNone)) {
            Requests& r = known->second;
            long const number = !op.empty() && std::all_of(op.begin(), op.end(), IsDigit)
                                    ? std::strtol(op.c_str(), nullptr, 10)
                                    : -1;
            if (number < 0 || r.seen.count(number) != 0)
                forged(line, conn, "request op=" + op + " twice on its connection");
            else if (number > r.highest + kAhead)
                forged(line, conn, "request op=" + op + " after op=" + std::to_string(r.highest));
            r.seen.insert(number);
            r.highest = std::max(r.highest, number);
            if (answered)
                r.open.emplace(op, kNone);
        }
        if (line.find(" connection from ") != std::string::npos) {
            requests[conn] = Requests();
            bound[conn].clear();
        } else if (!answered && line.find(" fd=") != kNone &&
                   (line.find(" Disconnect") != kNone || line.find(" closed") != kNone)) {
            if (known != requests.end())
                known->second.closed = true;
        } else if (line.find(" AUTOBIND dn=") != std::string::npos) {
            bound[conn] = Field389(line, "dn");
        } else if (line.find(" BIND dn=") != std::string::npos) {
            // The server runs nothing else on the connection while it binds, but may log the
            // bind's result after the next request: the bind counts from here, and a refused
            // one makes the connection anonymous again, for what was logged since too.
            bound[conn] = Field389(line, "dn");
            binding[conn].clear();
        } else if (line.find(" RESULT ") != std::string::npos) {
            if (known != requests.end())
                known->second.open.erase(op);
            std::string const err = Field389(line, "err");
            if (Field389(line, "tag") == "97") {
                // The result names the DN as the server took it ("dn=" last on the line).
                size_t const named = line.rfind(" dn=\"");
                if (err != "0")
                    bound[conn].clear();
                else if (named != std::string::npos && line.back() == '"')
                    bound[conn] = line.substr(named + 5, line.size() - named - 6);
                for (size_t const i : binding[conn])
                    out[i].by = bound[conn];
                binding.erase(conn);
            }
            auto const it = pending.find(key);
            if (it != pending.end()) {
                out[it->second].result = err;
                if (out[it->second].operation == "read")
                    out[it->second].entries = Field389(line, "nentries");
                pending.erase(it);
            }
        } else if (line.find(" SRCH base=") != std::string::npos ||
                   line.find(" CMP dn=") != std::string::npos ||
                   line.find(" DEL dn=") != std::string::npos) {
            Access a;
            a.when = Time389(line);
            a.by = bound[conn];
            if (line.find(" SRCH base=") != std::string::npos) {
                static char const* const kScopes[] = {"base", "one", "sub"};
                std::string const scope = Field389(line, "scope");
                a.operation = "read";
                a.entry = Field389(line, "base");
                a.scope = scope.size() == 1 && scope[0] >= '0' && scope[0] <= '2'
                              ? kScopes[scope[0] - '0']
                              : scope;
                // 389 writes the client's filter values and attribute names between quotes
                // without escaping a quote: filter="(cn= attrs="cn")" attrs="signprikey" would
                // hide the real list behind a false one. Every word after filter= counts, as an
                // attribute asked for or one the filter tests.
                size_t const from = line.find(" filter=");
                std::string rest = from == std::string::npos ? "" : line.substr(from + 8);
                std::replace_if(
                    rest.begin(), rest.end(),
                    [](char c) { return std::strchr("\"()=~<>:&|!", c) != nullptr; }, ' ');
                // The list the server wrote last says whether every attribute was asked for.
                size_t const list = line.rfind(" attrs=");
                std::string const attrs = list == std::string::npos ? "" : line.substr(list + 7);
                std::vector<std::string> const listed = Words(
                    attrs.size() > 1 && attrs[0] == '"' ? attrs.substr(1, attrs.find('"', 1) - 1)
                                                        : attrs);
                bool const all = attrs.compare(0, 3, "ALL") == 0 ||
                                 std::find(listed.begin(), listed.end(), "*") != listed.end();
                std::vector<std::string> asked;
                for (std::string const& word : Words(rest)) {
                    if (word != "*")
                        asked.push_back(word);
                }
                if (all)
                    asked.push_back("*");
                a.attributes = KeysAsked(asked, "");
            } else if (line.find(" CMP dn=") != std::string::npos) {
                a.operation = "compare";
                a.entry = Field389(line, "dn");
                std::string const name = KeyName(Field389(line, "attr"));
                if (!name.empty())
                    a.attributes.push_back(name);
            } else {
                a.operation = "delete";
                a.entry = Field389(line, "dn");
                a.attributes.push_back("*");
            }
            if (a.attributes.empty() || a.when < 0)
                continue;
            pending[key] = out.size();
            if (known != requests.end())
                known->second.open[op] = out.size();
            if (binding.count(conn) != 0)
                binding[conn].push_back(out.size());
            out.push_back(std::move(a));
        }
    }
    for (auto const& [conn, r] : requests) {
        for (auto const& [number, index] : r.open) {
            if (!r.closed)
                continue;  // still running when the log was read
            std::string const why =
                "request op=" + number + " had no result once its connection closed";
            if (index == kNone)
                forged("conn=" + conn + " op=" + number, conn, why);
            else
                out[index].flag = why + kForged;
        }
    }
}

// Writes from the audit log: records of "time:", "dn:", "result:", "changetype:" and the
// changes, a blank line between records, long lines folded.
void FromAudit389(std::string const& text, std::vector<Access>& out) {
    std::vector<std::string> lines;
    size_t at = 0;
    while (at <= text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(at, end - at);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty() && line[0] == ' ' && !lines.empty() && !lines.back().empty())
            lines.back() += line.substr(1);
        else
            lines.push_back(line);
        at = end + 1;
    }
    lines.push_back("");
    Access a;
    std::string creator, modifier, change;
    bool changes = false;
    for (std::string const& line : lines) {
        if (line.empty()) {
            std::string const by = change == "add" ? creator : modifier;
            if ((change == "add" || change == "modify") && !a.attributes.empty() && a.when >= 0) {
                a.operation = change;
                a.by = by;
                out.push_back(a);
            }
            a = Access();
            creator.clear();
            modifier.clear();
            change.clear();
            changes = false;
            continue;
        }
        size_t const colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        std::string const name = line.substr(0, colon);
        std::string value = line.substr(colon + 1);
        bool const encoded = !value.empty() && value[0] == ':';
        value = Trimmed(encoded ? value.substr(1) : value);
        std::string const lower = Lower(name);
        if (lower == "time" && a.when == 0) {
            a.when = FromCompact(value);
        } else if (lower == "dn" && a.entry.empty()) {
            std::string decoded;
            a.entry = encoded && Base64Decode(value, decoded) ? decoded : value;
        } else if (lower == "result") {
            a.result = value;
        } else if (lower == "changetype") {
            change = value;
            changes = true;
        } else if (lower == "creatorsname") {
            creator = value;
        } else if (lower == "modifiersname") {
            modifier = value;
        } else if (changes && change == "modify" &&
                   (lower == "add" || lower == "replace" || lower == "delete")) {
            if (!KeyName(value).empty())
                a.attributes.push_back(KeyName(value));
        } else if (changes && change == "add" && !KeyName(name).empty() &&
                   std::find(a.attributes.begin(), a.attributes.end(), KeyName(name)) ==
                       a.attributes.end()) {
            a.attributes.push_back(KeyName(name));
        }
    }
}

std::vector<Access> FromLogFiles(Args const& args) {
    std::string const path = args.Value("--log");
    std::vector<std::string> files;
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        for (char const* name : {"access", "audit"}) {
            std::string const file = path + "/" + name;
            if (::access(file.c_str(), F_OK) == 0)
                files.push_back(file);
        }
        if (files.empty())
            Fail(args.command, path + ": no access or audit log in this folder");
    } else {
        files.push_back(path);
    }
    std::vector<Access> accesses;
    for (std::string const& file : files) {
        std::string const text = ReadRegularFile(args.command, file, kMaxLog);
        // Both begin with the server's name and version; then the access log's lines name
        // their connection, the audit log's records begin with their time.
        size_t const line = text.find(" conn=");
        size_t const record = text.compare(0, 6, "time: ") == 0 ? 0 : text.find("\ntime: ");
        if (line != std::string::npos && line < record) {
            FromAccess389(text, accesses);
        } else if (record != std::string::npos) {
            FromAudit389(text, accesses);
        } else if (!text.empty()) {
            Fail(args.command, file + ": neither a 389 access log nor an audit log");
        }
    }
    return accesses;
}

// --- judging and showing --------------------------------------------------------------------

void Judge(Access& a, std::string const& service) {
    if (!a.flag.empty())
        return;
    bool const byService = !a.by.empty() && DnKey(a.by) == service;
    if (byService)
        return;
    for (std::string const& name : a.attributes) {
        if (name != "*" && PrivateAttribute(name)) {
            bool const read = a.operation == "read" || a.operation == "compare";
            a.flag =
                std::string("private key ") + (read ? "read" : "written") + " by " +
                (a.by.empty() ? "an anonymous client" : "another identity than the key service");
            return;
        }
    }
}

// Whether a touched the entry dn (DnKey form): dn itself, or a search whose base and scope
// reach it.
bool Touches(Access const& a, std::string const& dn) {
    std::string const entry = DnKey(a.entry);
    if (entry == dn)
        return true;
    if (a.operation != "read" || a.scope == "base")
        return false;
    if (entry.empty())
        return a.scope == "sub";
    std::string const suffix = "," + entry;
    if (dn.size() <= suffix.size() ||
        dn.compare(dn.size() - suffix.size(), suffix.size(), suffix) != 0)
        return false;
    // One level: a direct child only.
    return a.scope != "one" ||
           dn.substr(0, dn.size() - suffix.size()).find(',') == std::string::npos;
}

std::string Joined(std::vector<std::string> const& names) {
    std::string out;
    for (std::string const& n : names)
        out += (out.empty() ? "" : " ") + (n == "*" ? std::string("*(all)") : n);
    return out;
}

void PrintText(std::vector<Access> const& accesses, int flagged) {
    for (Access const& a : accesses) {
        std::string what = a.operation;
        if (!a.scope.empty() && a.scope != "base")
            what += " (" + a.scope + ")";
        std::printf("%s  %-8s %s  %s  by %s  result %s%s%s\n", a.time.c_str(), what.c_str(),
                    a.entry.empty() ? "(root)" : Printable(a.entry).c_str(),
                    Printable(Joined(a.attributes)).c_str(),
                    a.by.empty() ? "(anonymous)" : Printable(a.by).c_str(),
                    a.result.empty() ? "?" : Printable(a.result).c_str(),
                    a.entries.empty() ? "" : (", " + Printable(a.entries) + " entries").c_str(),
                    a.flag.empty() ? "" : ("  FLAGGED: " + a.flag).c_str());
    }
    std::printf("%zu access%s to key attributes, %d flagged\n", accesses.size(),
                accesses.size() == 1 ? "" : "es", flagged);
}

// A count or code from the log as a JSON number, or a string when it is none (a line a client
// wrote into a 389 log may hold anything there); null when there is none.
std::string JsonNumber(std::string const& text) {
    if (text.empty())
        return "null";
    bool const digits = std::all_of(text.begin() + (text[0] == '-' ? 1 : 0), text.end(), IsDigit);
    return digits && text != "-" ? text : JsonString(text);
}

void PrintJson(std::vector<Access> const& accesses) {
    std::printf("[");
    char const* separator = "\n";
    for (Access const& a : accesses) {
        std::string names;
        for (std::string const& n : a.attributes)
            names += (names.empty() ? "" : ", ") + JsonString(n);
        std::printf(
            "%s  {\"time\": %s, \"operation\": %s, \"entry\": %s, \"scope\": %s, "
            "\"attributes\": [%s], \"by\": %s, \"result\": %s, \"entries\": %s, "
            "\"flagged\": %s, \"reason\": %s}",
            separator, JsonString(a.time).c_str(), JsonString(a.operation).c_str(),
            JsonString(a.entry).c_str(), JsonString(a.scope).c_str(), names.c_str(),
            JsonString(a.by).c_str(), JsonNumber(a.result).c_str(), JsonNumber(a.entries).c_str(),
            a.flag.empty() ? "false" : "true", JsonString(a.flag).c_str());
        separator = ",\n";
    }
    std::printf("%s]\n", accesses.empty() ? "" : "\n");
}

int RunAudit(Args const& args) {
    long long const since = args.HasValue("--since") ? SinceOption(args) : 0;
    std::string const entry =
        args.HasValue("--entry") ? DnKey(LibraryDn(args.command, args.Value("--entry"))) : "";
    if (args.HasValue("--log") && args.HasValue("--logdb"))
        Usage(args.command, "--log and --logdb exclude each other");
    std::vector<Access> all =
        args.HasValue("--log") ? FromLogFiles(args) : FromAccessLogDatabase(args, since);
    // The key service: the identity the library binds as.
    std::string service = Setting("bind_dn");
    service = DnKey(service.empty() ? Setting("managerdn") : service);
    std::vector<Access> shown;
    int flagged = 0;
    for (Access& a : all) {
        if (a.when < since || (!entry.empty() && !Touches(a, entry) && a.operation != "log"))
            continue;
        a.time = IsoTime(a.when);
        Judge(a, service);
        // The key service reads whole entries all the time (the library's own reads); only
        // what it asked for by name is listed.
        if (a.operation == "read" && a.attributes == std::vector<std::string>{"*"} &&
            DnKey(a.by) == service && a.flag.empty())
            continue;
        flagged += a.flag.empty() ? 0 : 1;
        shown.push_back(std::move(a));
    }
    std::stable_sort(shown.begin(), shown.end(),
                     [](Access const& x, Access const& y) { return x.when < y.when; });
    if (args.Has("--json"))
        PrintJson(shown);
    else
        PrintText(shown, flagged);
    return kExitOk;
}

char const kAuditHelp[] =
    "usage: qorldap audit [--since T] [--entry DN] [--json] [--log PATH | --logdb DN]\n"
    "\n"
    "Lists who (the bind DN) read or wrote which key attribute (signPubcer, signPubkey,\n"
    "signPrikey, cryptPubcer, cryptPubkey, cryptPrikey, userPsw) of which entry, and when,\n"
    "from the directory's audit trail, oldest first, and ends with a count. A read or a\n"
    "write of a private key (signPrikey, cryptPrikey, userPsw) by anyone but the key\n"
    "service (the identity the library binds as, managerdn or bind_dn) is FLAGGED. A\n"
    "search shows the attributes it asked for (\"*(all)\": every attribute, which the\n"
    "access rules then cut down) and its base and scope; the log does not say which\n"
    "entries of a subtree it returned, only how many.\n"
    "\n"
    "  --since T    only accesses from T on: 2026-11-25, 2026-11-25T18:00:00Z (UTC), or an\n"
    "               age: 90s, 30m, 12h, 7d\n"
    "  --entry DN   only accesses to DN: the entry itself, or a search whose base and\n"
    "               scope reach it\n"
    "  --json       a JSON array, one object per access\n"
    "  --log PATH   389 Directory Server: its log folder (the files access and audit in\n"
    "               it) or one of those files; reads come from the access log, adds and\n"
    "               modifies from the audit log, deletes from the access log\n"
    "  --logdb DN   OpenLDAP: the accesslog overlay's database (default cn=accesslog),\n"
    "               read through the library as its identity\n"
    "\n"
    "Without --log the log is read over LDAP. Exit status 1, one line on stderr, when the\n"
    "log cannot be read. README, \"Audit\", turns the trail on in a server.\n";

}  // namespace

Command AuditCommand() {
    return {"audit",
            "who read or wrote which key, from the directory's audit trail",
            kAuditHelp,
            {{"--since", nullptr, true},
             {"--entry", nullptr, true},
             {"--json", nullptr, false},
             {"--log", nullptr, true},
             {"--logdb", nullptr, true}},
            0,
            0,
            RunAudit};
}

}  // namespace qortool
