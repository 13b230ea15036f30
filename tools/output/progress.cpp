// A progress bar, or progress lines: done/total, the rate and the time left.
#include "tools/output/progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace qortool {

namespace {

using Clock = std::chrono::steady_clock;

size_t const kBarWidth = 30;

std::string Duration(double seconds) {
    long s = static_cast<long>(seconds + 0.5);
    char text[32];
    if (s >= 3600) {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    } else {
        std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    }
    return text;
}

}  // namespace

Progress::Progress(std::string label, size_t total)
    : label_(std::move(label)),
      total_(total),
      bar_(::isatty(STDERR_FILENO) != 0),
      start_(Clock::now()),
      shown_(start_) {}

double Progress::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

std::string Progress::State() const {
    double const seconds = Seconds();
    double const rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
    char text[128];
    std::snprintf(text, sizeof text, "%zu/%zu  %.1f/s", done_, total_, rate);
    std::string state = text;
    if (done_ < total_)
        state += rate > 0 ? "  " + Duration(static_cast<double>(total_ - done_) / rate) + " left"
                          : "  time left unknown";
    return state;
}

void Progress::Show(bool final) {
    Clock::time_point const now = Clock::now();
    size_t const tenth = total_ == 0 ? 10 : done_ * 10 / total_;
    if (bar_) {
        // Redrawn at most ten times a second.
        if (!final && drawn_ && now - shown_ < std::chrono::milliseconds(100))
            return;
        size_t const filled = total_ == 0 ? kBarWidth : done_ * kBarWidth / total_;
        std::fprintf(stderr, "\r\033[K[%s%s] %s", std::string(filled, '#').c_str(),
                     std::string(kBarWidth - filled, '.').c_str(), State().c_str());
        drawn_ = true;
    } else {
        // A line each tenth of the way, at most one a second, and the last one.
        if (!final && (tenth == shownTenth_ || now - shown_ < std::chrono::seconds(1)))
            return;
        std::fprintf(stderr, "%s%s\n", label_.c_str(), State().c_str());
    }
    std::fflush(stderr);
    shown_ = now;
    shownTenth_ = tenth;
}

void Progress::Step() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++done_;
    Show(false);
}

void Progress::Line(std::string const& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (bar_ && drawn_)
        std::fputs("\r\033[K", stderr);
    std::fprintf(stderr, "%s\n", text.c_str());
    if (bar_ && drawn_) {
        drawn_ = false;
        Show(true);
    }
    std::fflush(stderr);
}

void Progress::Finish() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (bar_) {
        Show(true);
        std::fputs("\n", stderr);
    } else if (shownTenth_ < 10) {
        Show(true);
    }
    std::fflush(stderr);
}

}  // namespace qortool
