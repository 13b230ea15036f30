// Publishing many bundles: the list, the worker threads, progress, summary and report.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <new>
#include <thread>

#include "qorldap/Inspect.h"
#include "qorldap/Settings.h"
#include "tools/checks/checks.h"
#include "tools/commands/publish.h"
#include "tools/output/output.h"
#include "tools/output/progress.h"

namespace qortool {

namespace {

namespace fs = std::filesystem;

int const kMaxJobs = 64;

// Set by the first Ctrl-C (or SIGTERM) of a run: the bundles in flight finish, no new one is
// started, and the summary and the report still come. A second one ends the program at once
// (the handler is reset when it first runs).
std::atomic<bool> gInterrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

extern "C" void Interrupted(int) {
    gInterrupted.store(true);
}

// The handler for the span of a run, the previous ones back after it.
class InterruptScope {
  public:
    InterruptScope() {
        struct sigaction action = {};
        action.sa_handler = Interrupted;
        action.sa_flags = SA_RESETHAND;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &int_);
        sigaction(SIGTERM, &action, &term_);
    }
    ~InterruptScope() {
        sigaction(SIGINT, &int_, nullptr);
        sigaction(SIGTERM, &term_, nullptr);
    }
    InterruptScope(InterruptScope const&) = delete;
    InterruptScope& operator=(InterruptScope const&) = delete;

  private:
    struct sigaction int_ = {};
    struct sigaction term_ = {};
};

bool IsBundleName(fs::path const& path) {
    std::string const ext = Lower(path.extension().string());
    return ext == ".p12" || ext == ".pfx";
}

// Every entry named *.p12 or *.pfx, sorted: its type is not asked here, where a symlink loop or
// an entry that went away would be an error of the listing; reading it names what it is.
void AddFolder(std::string const& folder, std::vector<BundleFile>& bundles) {
    std::vector<std::string> found;
    std::error_code error;
    fs::directory_iterator it(folder, error);
    for (fs::directory_iterator end; !error && it != end; it.increment(error)) {
        if (IsBundleName(it->path()))
            found.push_back(it->path().string());
    }
    std::sort(found.begin(), found.end());
    for (std::string const& path : found)
        bundles.push_back({path, ""});
    if (error) {
        bool const denied = error == std::errc::permission_denied;
        bundles.push_back({folder, folder + (denied ? ": unreadable (" : ": cannot list (") +
                                       error.message() + ")"});
    }
}

int Jobs(Args const& args) {
    std::string const text = args.Value("--jobs", "1");
    char* end = nullptr;
    long n = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || n < 1 || n > kMaxJobs) {
        Usage(args.command, "--jobs takes a number from 1 to " + std::to_string(kMaxJobs) +
                                ", not \"" + text + "\"");
    }
    return static_cast<int>(n);
}

// The reason of a failure, without the command's name that Fail put first.
std::string Reason(std::string const& message, std::string const& path) {
    std::string reason = message.compare(0, 9, "publish: ") == 0 ? message.substr(9) : message;
    return reason.find(path) == std::string::npos ? path + ": " + reason : reason;
}

}  // namespace

void PoolForJobs(Args const& args) {
    if (!args.HasValue("--jobs"))
        return;
    int const jobs = Jobs(args);
    char const* given = nullptr;
    int const state = QorLdapSetting("pool_size", &given);
    if (jobs < 2 || state == QORLDAP_SETTING_UNREAD ||
        (state == QORLDAP_SETTING_GIVEN && given != nullptr && std::atoi(given) >= jobs))
        return;
    QorLdapSet("pool_size", std::to_string(jobs).c_str());
}

bool ManyBundles(Args const& args) {
    if (args.positional.size() != 1 || args.Has("--from-stdin") || args.HasValue("--jobs") ||
        args.HasValue("--report") || args.positional[0] == "-") {
        return true;
    }
    std::error_code error;
    return fs::is_directory(args.positional[0], error);
}

std::vector<BundleFile> BundlePaths(Args const& args) {
    std::vector<BundleFile> bundles;
    bool stdinRead = false;
    auto readStdin = [&] {
        if (stdinRead)
            return;
        stdinRead = true;
        std::string line;
        while (std::getline(std::cin, line)) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (!line.empty())
                bundles.push_back({line, ""});
        }
    };
    for (std::string const& word : args.positional) {
        std::error_code error;
        if (word == "-") {
            readStdin();
        } else if (fs::is_directory(word, error)) {
            AddFolder(word, bundles);
        } else {
            bundles.push_back({word, ""});
        }
    }
    if (args.Has("--from-stdin"))
        readStdin();
    if (bundles.empty())
        Fail(args.command, "no bundles to publish (a folder gives its *.p12 and *.pfx files)");
    return bundles;
}

int PublishMany(Args const& args, PublishSetup const& setup,
                std::vector<BundleFile> const& bundles) {
    // A report that cannot be written is found out before the run, not after it.
    if (args.HasValue("--report")) {
        std::FILE* report = std::fopen(args.Value("--report").c_str(), "a");
        if (report == nullptr)
            Fail(args.command, "cannot write the report " + args.Value("--report") + ": " +
                                   std::strerror(errno) + "; nothing was published");
        std::fclose(report);
    }
    int const jobs = std::min(Jobs(args), static_cast<int>(bundles.size()));
    std::vector<std::string> failures(bundles.size());
    std::vector<char> attempted(bundles.size(), 0);  // each written by the worker that takes it
    std::atomic<size_t> next(0);
    std::atomic<size_t> failed(0);
    Progress progress("qorldap: publish: ", bundles.size());
    InterruptScope interrupts;
    auto work = [&] {
        for (size_t i = next++; i < bundles.size() && !gInterrupted.load(); i = next++) {
            attempted[i] = 1;
            std::string const& path = bundles[i].path;
            try {
                if (!bundles[i].refusal.empty())
                    Fail(args.command, bundles[i].refusal);
                PublishBundle(setup, path, ReadRegularFile(args.command, path, kMaxInput));
            } catch (Stop const& stop) {
                failures[i] = Reason(stop.message, path);
            } catch (std::exception const& e) {
                failures[i] = path + ": " + e.what();
            }
            if (!failures[i].empty()) {
                ++failed;
                progress.Line("qorldap: publish: " + failures[i]);
            }
            progress.Step();
        }
    };
    std::vector<std::thread> workers;
    for (int i = 1; i < jobs; ++i)
        workers.emplace_back(work);
    work();
    for (std::thread& t : workers)
        t.join();
    progress.Finish();
    // What an interruption left out is listed in the report like a failure, so that the report
    // is the list of what is still to do.
    bool const interrupted = gInterrupted.load();
    size_t skipped = 0;
    for (size_t i = 0; i < bundles.size(); ++i) {
        if (!attempted[i]) {
            failures[i] = bundles[i].path + ": not attempted (the run was interrupted)";
            ++skipped;
        }
    }
    if (args.HasValue("--report")) {
        std::string report;
        for (std::string const& f : failures) {
            if (!f.empty())
                report += f + "\n";
        }
        WriteOutput(args.command, report, args.Value("--report"), false, false);
    }
    size_t const published = bundles.size() - failed - skipped;
    if (interrupted) {
        std::printf("%zu published, %zu failed, %zu not attempted (interrupted) in %.1f s\n",
                    published, failed.load(), skipped, progress.Seconds());
        return 128 + SIGINT;
    }
    std::printf("%zu published, %zu failed in %.1f s\n", published, failed.load(),
                progress.Seconds());
    return failed > 0 ? kExitFailed : kExitOk;
}

}  // namespace qortool
