// The expiring command: every certificate below a base that has expired or expires within a
// window, soonest first, and optionally a Prometheus textfile with every certificate's end.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/commands/subtree.h"
#include "tools/output/entry_view.h"
#include "tools/output/output.h"

namespace qortool {

namespace {

long long const kDay = 86400;

struct Role {
    char const* attribute;
    char const* name;
};
Role const kRoles[] = {{"signPubcer;binary", "sign"}, {"cryptPubcer;binary", "encrypt"}};
char const kCertificateFilter[] = "(|(signPubcer;binary=*)(cryptPubcer;binary=*))";

struct Row {
    std::string dn;
    char const* role;
    CertificateFacts facts;
    long long daysLeft;  // whole days to notAfter, rounded down: -1 the day after it passed
};

// "30d", "12h", "2w" or a bare number of days, into seconds; false for anything else.
bool ReadWindow(std::string const& text, long long& seconds) {
    if (text.empty() || text.size() > 12)
        return false;
    size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9')
        ++digits;
    std::string const unit = text.substr(digits);
    if (digits == 0 || unit.size() > 1)
        return false;
    long long const n = std::stoll(text.substr(0, digits));
    long long const scale = unit.empty() || unit == "d" ? kDay
                            : unit == "h"               ? 3600
                            : unit == "w"               ? 7 * kDay
                                                        : 0;
    if (scale == 0 || n > 100000LL * 365)
        return false;
    seconds = n * scale;
    return true;
}

long long FloorDays(long long seconds) {
    return seconds >= 0 ? seconds / kDay : -((-seconds + kDay - 1) / kDay);
}

// A label value as the text exposition format takes it: \, " and line feeds escaped.
std::string LabelValue(std::string const& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '"')
            out += '\\';
        out += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return out;
}

std::string CsvField(std::string const& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string out = "\"";
    for (char c : text)
        out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

// The Prometheus textfile, written beside its final name and renamed over it once complete,
// so that node_exporter never reads half a file.
class MetricsFile {
  public:
    MetricsFile(std::string const& command, std::string const& path)
        : command_(command), path_(path) {
        temp_ = path + ".tmp.XXXXXX";
        int const fd = mkstemp(&temp_[0]);
        if (fd < 0)
            Fail(command, path + ": cannot write beside it: " + std::strerror(errno));
        fchmod(fd, 0644);
        out_ = fdopen(fd, "w");
        std::fputs(
            "# HELP qorldap_certificate_not_after_timestamp_seconds The end of a certificate's "
            "validity (notAfter), in seconds since the epoch.\n"
            "# TYPE qorldap_certificate_not_after_timestamp_seconds gauge\n",
            out_);
    }
    ~MetricsFile() {
        if (out_ != nullptr) {
            std::fclose(out_);
            unlink(temp_.c_str());
        }
    }
    MetricsFile(MetricsFile const&) = delete;
    MetricsFile& operator=(MetricsFile const&) = delete;

    void Add(std::string const& dn, char const* role, CertificateFacts const& facts) {
        std::fprintf(out_,
                     "qorldap_certificate_not_after_timestamp_seconds{dn=\"%s\",role=\"%s\","
                     "serial=\"%s\"} %lld\n",
                     LabelValue(dn).c_str(), role, LabelValue(facts.serial).c_str(),
                     facts.notAfterTime);
    }
    void Commit(long long scanned, size_t expiring, size_t expired, long long window) {
        std::fprintf(out_,
                     "# HELP qorldap_certificates_expiring Certificates that expire within the "
                     "window and have not expired.\n"
                     "# TYPE qorldap_certificates_expiring gauge\n"
                     "qorldap_certificates_expiring{within_seconds=\"%lld\"} %zu\n"
                     "# HELP qorldap_certificates_expired Certificates whose notAfter has "
                     "passed.\n"
                     "# TYPE qorldap_certificates_expired gauge\n"
                     "qorldap_certificates_expired %zu\n"
                     "# HELP qorldap_certificates_scanned Certificates read by the last run.\n"
                     "# TYPE qorldap_certificates_scanned gauge\n"
                     "qorldap_certificates_scanned %lld\n",
                     window, expiring, expired, scanned);
        bool const written = std::fflush(out_) == 0 && fsync(fileno(out_)) == 0;
        bool const closed = std::fclose(out_) == 0;
        out_ = nullptr;
        if (!written || !closed || std::rename(temp_.c_str(), path_.c_str()) != 0) {
            int const error = errno;
            unlink(temp_.c_str());
            Fail(command_, path_ + ": " + std::strerror(error));
        }
    }

  private:
    std::string command_;
    std::string path_;
    std::string temp_;
    std::FILE* out_ = nullptr;
};

int RunExpiring(Args const& args) {
    long long window = 30 * kDay;
    if (args.HasValue("--within") && !ReadWindow(args.Value("--within"), window))
        Usage(args.command, "--within takes a span such as 30d, 12h or 2w, not \"" +
                                args.Value("--within") + "\"");
    if (args.Has("--json") && args.Has("--csv"))
        Usage(args.command, "--json and --csv exclude each other");
    std::unique_ptr<MetricsFile> metrics;
    if (args.HasValue("--prometheus"))
        metrics.reset(new MetricsFile(args.command, args.Value("--prometheus")));
    long long const now = static_cast<long long>(std::time(nullptr));
    // Only the rows to report are held; every other certificate is looked at and let go.
    std::vector<Row> rows;
    long long scanned = 0;
    size_t unreadable = 0;
    WalkSubtree(args, kCertificateFilter, {kRoles[0].attribute, kRoles[1].attribute},
                [&](QorLdapEntry const& entry) {
                    for (Role const& role : kRoles) {
                        for (std::string const& der : ValuesOf(entry, role.attribute)) {
                            CertificateFacts facts;
                            if (!ReadCertificateFacts(der, facts)) {
                                // A public key stored in place of a certificate has no end.
                                unreadable += Classify(der) != DerKind::kPublicKey;
                                continue;
                            }
                            ++scanned;
                            if (metrics)
                                metrics->Add(entry.dn, role.name, facts);
                            if (facts.notAfterTime - now <= window)
                                rows.push_back({entry.dn, role.name, facts,
                                                FloorDays(facts.notAfterTime - now)});
                        }
                    }
                });
    std::stable_sort(rows.begin(), rows.end(), [](Row const& a, Row const& b) {
        return a.facts.notAfterTime < b.facts.notAfterTime;
    });
    size_t const expired = static_cast<size_t>(std::count_if(
        rows.begin(), rows.end(), [now](Row const& r) { return r.facts.notAfterTime < now; }));
    if (metrics)
        metrics->Commit(scanned, rows.size() - expired, expired, window);
    if (args.Has("--json")) {
        std::printf("[");
        for (size_t i = 0; i < rows.size(); ++i) {
            Row const& r = rows[i];
            std::printf(
                "%s\n  {\"dn\": %s, \"role\": \"%s\", \"subject\": %s, \"serial\": \"%s\", "
                "\"notAfter\": \"%s\", \"daysLeft\": %lld, \"expired\": %s}",
                i == 0 ? "" : ",", JsonString(r.dn).c_str(), r.role,
                JsonString(r.facts.subject).c_str(), r.facts.serial.c_str(),
                r.facts.notAfter.c_str(), r.daysLeft,
                r.facts.notAfterTime < now ? "true" : "false");
        }
        std::printf("%s]\n", rows.empty() ? "" : "\n");
    } else if (args.Has("--csv")) {
        std::printf("dn,role,subject,serial,notAfter,daysLeft\n");
        for (Row const& r : rows)
            std::printf("%s,%s,%s,%s,%s,%lld\n", CsvField(r.dn).c_str(), r.role,
                        CsvField(r.facts.subject).c_str(), r.facts.serial.c_str(),
                        r.facts.notAfter.c_str(), r.daysLeft);
    } else {
        for (Row const& r : rows)
            std::printf("%6lld  %s  %-7s  %s  %s  %s\n", r.daysLeft, r.facts.notAfter.c_str(),
                        r.role, r.facts.serial.c_str(), r.facts.subject.c_str(), r.dn.c_str());
        std::printf(
            "%zu expired, %zu expiring within %lld days, of %lld certificates%s\n", expired,
            rows.size() - expired, window / kDay, scanned,
            unreadable > 0
                ? ("; " + std::to_string(unreadable) + " unreadable (see qorldap verify)").c_str()
                : "");
    }
    return expired > 0 ? 2 : !rows.empty() ? 1 : kExitOk;
}

char const kExpiringHelp[] =
    "usage: qorldap expiring [BASE] [--within SPAN] [--json|--csv] [--prometheus FILE]\n"
    "\n"
    "Lists every signing and encryption certificate stored at or below BASE (default: the\n"
    "base DN of soap.ini) that has expired or expires within SPAN, soonest first: days left\n"
    "(negative once expired), notAfter, role (sign or encrypt), serial, subject and the\n"
    "entry's DN, then a count. The subtree is read in pages of 500 entries through the\n"
    "library's paged walk, one page at a time; only the rows listed are kept, so memory does\n"
    "not grow with the directory. On a terminal, standard error counts the entries read.\n"
    "\n"
    "  --within SPAN      the window: a number with d (days, the default unit), h or w;\n"
    "                     default 30d; 0 lists the expired ones only\n"
    "  --json             the rows as a JSON array (dn, role, subject, serial, notAfter,\n"
    "                     daysLeft, expired)\n"
    "  --csv              the rows as CSV with a header line\n"
    "  --prometheus FILE  also write FILE for node_exporter's textfile collector: a gauge\n"
    "                     qorldap_certificate_not_after_timestamp_seconds{dn,role,serial}\n"
    "                     per certificate read (listed or not), and the counts; written to a\n"
    "                     temporary file beside FILE and renamed over it, never half written\n"
    "\n"
    "Exit status: 0 none expiring, 1 some expiring (none expired), 2 some expired,\n"
    "3 no report (one line on stderr says why: bad input, no such BASE, no directory).\n";

}  // namespace

Command ExpiringCommand() {
    return {"expiring",
            "list the certificates that have expired or expire soon",
            kExpiringHelp,
            {{"--within", nullptr, true},
             {"--json", nullptr, false},
             {"--csv", nullptr, false},
             {"--prometheus", nullptr, true}},
            0,
            1,
            [](Args const& args) { return RunReport(args, RunExpiring); }};
}

}  // namespace qortool
