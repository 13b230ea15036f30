// Progress of a long run on standard error: a bar redrawn in place on a terminal, otherwise a
// plain line now and then. Safe to use from several threads.
#ifndef QORLDAP_TOOLS_OUTPUT_PROGRESS_H
#define QORLDAP_TOOLS_OUTPUT_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>

namespace qortool {

class Progress {
  public:
    // label starts each plain line: "qorldap: publish: ".
    Progress(std::string label, size_t total);
    // One more item done.
    void Step();
    // A line of its own on standard error, which the bar does not overwrite.
    void Line(std::string const& text);
    // The last state, and the bar's line ended.
    void Finish();
    double Seconds() const;

  private:
    void Show(bool final);  // with mutex_ held
    std::string State() const;

    std::mutex mutex_;
    std::string const label_;
    size_t const total_;
    size_t done_ = 0;
    bool const bar_;  // standard error is a terminal
    bool drawn_ = false;
    std::chrono::steady_clock::time_point const start_;
    std::chrono::steady_clock::time_point shown_;
    size_t shownTenth_ = 0;
};

}  // namespace qortool

#endif
