// Publishing many bundles: the list, the worker threads, progress, summary and report.
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

#include "platform/Trim.h"
#include "progress.h"
#include "publish.h"

namespace qortool {

namespace {

namespace fs = std::filesystem;

int const kMaxJobs = 64;

bool IsBundleName(fs::path const& path) {
    std::string const ext = qor::Folded(path.extension().string());
    return ext == ".p12" || ext == ".pfx";
}

void AddFolder(Args const& args, std::string const& folder, std::vector<std::string>& paths) {
    std::vector<std::string> found;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        if (IsBundleName(it->path()) && it->is_regular_file())
            found.push_back(it->path().string());
    }
    if (error)
        Fail(args.command, "cannot list " + folder + ": " + error.message());
    std::sort(found.begin(), found.end());
    paths.insert(paths.end(), found.begin(), found.end());
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

bool ManyBundles(Args const& args) {
    if (args.positional.size() != 1 || args.Has("--from-stdin") || args.HasValue("--jobs") ||
        args.HasValue("--report") || args.positional[0] == "-") {
        return true;
    }
    std::error_code error;
    return fs::is_directory(args.positional[0], error);
}

std::vector<std::string> BundlePaths(Args const& args) {
    std::vector<std::string> paths;
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
                paths.push_back(line);
        }
    };
    for (std::string const& word : args.positional) {
        std::error_code error;
        if (word == "-") {
            readStdin();
        } else if (fs::is_directory(word, error)) {
            AddFolder(args, word, paths);
        } else {
            paths.push_back(word);
        }
    }
    if (args.Has("--from-stdin"))
        readStdin();
    if (paths.empty())
        Fail(args.command, "no bundles to publish (a folder gives its *.p12 and *.pfx files)");
    return paths;
}

int PublishMany(Args const& args, PublishSetup const& setup,
                std::vector<std::string> const& paths) {
    // A report that cannot be written is found out before the run, not after it.
    if (args.HasValue("--report")) {
        std::FILE* report = std::fopen(args.Value("--report").c_str(), "a");
        if (report == nullptr)
            Fail(args.command, "cannot write the report " + args.Value("--report") + ": " +
                                   std::strerror(errno) + "; nothing was published");
        std::fclose(report);
    }
    int const jobs = std::min(Jobs(args), static_cast<int>(paths.size()));
    std::vector<std::string> failures(paths.size());
    std::atomic<size_t> next(0);
    std::atomic<size_t> failed(0);
    Progress progress("qorldap: publish: ", paths.size());
    auto work = [&] {
        for (size_t i = next++; i < paths.size(); i = next++) {
            try {
                PublishBundle(setup, paths[i], ReadFile(args.command, paths[i], kMaxInput));
            } catch (Stop const& stop) {
                failures[i] = Reason(stop.message, paths[i]);
            } catch (std::exception const& e) {
                failures[i] = paths[i] + ": " + e.what();
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

    if (args.HasValue("--report")) {
        std::string report;
        for (std::string const& f : failures) {
            if (!f.empty())
                report += f + "\n";
        }
        WriteOutput(args.command, report, args.Value("--report"), false, false);
    }
    std::printf("%zu published, %zu failed in %.1f s\n", paths.size() - failed, failed.load(),
                progress.Seconds());
    return failed > 0 ? kExitFailed : kExitOk;
}

}  // namespace qortool
