// The hosts of one role and their state: order, quarantine, connection counts, failback.
#include "engine/HostSet.h"

#include <algorithm>
#include <sstream>

HostSet::HostSet(std::string const& hosts, Choice choice, int failbackSeconds)
    : choice_(choice), failback_(failbackSeconds) {
    std::istringstream in(hosts);
    for (std::string name; in >> name;) {
        hosts_.push_back({name});
    }
    // Providers written as nothing are libldap's default host, as without a host set.
    if (hosts_.empty() && choice_ == Choice::kInOrder) {
        hosts_.push_back({""});
    }
}

std::vector<std::size_t> HostSet::Candidates() {
    std::lock_guard<std::mutex> guard(lock_);
    Clock::time_point const now = Clock::now();
    std::vector<std::size_t> ready;
    std::vector<std::size_t> resting;
    std::size_t const n = hosts_.size();
    // kLeastBusy starts its walk one host further at each call, so that hosts holding as many
    // connections as each other take the new ones in turn.
    std::size_t const start = choice_ == Choice::kLeastBusy && n > 0 ? turn_++ % n : 0;
    for (std::size_t k = 0; k < n; ++k) {
        std::size_t const i = (start + k) % n;
        (InQuarantine(hosts_[i], now) ? resting : ready).push_back(i);
    }
    if (choice_ == Choice::kLeastBusy) {
        std::stable_sort(ready.begin(), ready.end(), [&](std::size_t a, std::size_t b) {
            return hosts_[a].connections < hosts_[b].connections;
        });
        return ready;
    }
    ready.insert(ready.end(), resting.begin(), resting.end());
    return ready;
}

void HostSet::Opened(std::size_t i) {
    std::lock_guard<std::mutex> guard(lock_);
    ++hosts_[i].connections;
}

void HostSet::Closed(std::size_t i) {
    std::lock_guard<std::mutex> guard(lock_);
    if (hosts_[i].connections > 0) {
        --hosts_[i].connections;
    }
}

void HostSet::Failed(std::size_t i) {
    std::lock_guard<std::mutex> guard(lock_);
    hosts_[i].retryAt = Clock::now() + kQuarantine;
    if (i == 0) {
        answeringSince_ = {};
    }
}

bool HostSet::Crowded(std::size_t i) const {
    if (choice_ != Choice::kLeastBusy || i >= hosts_.size()) {
        return false;
    }
    std::lock_guard<std::mutex> guard(lock_);
    Clock::time_point const now = Clock::now();
    for (Entry const& host : hosts_) {
        if (!InQuarantine(host, now) && host.connections + 1 < hosts_[i].connections) {
            return true;
        }
    }
    return false;
}

int HostSet::Connections(std::size_t i) const {
    std::lock_guard<std::mutex> guard(lock_);
    return hosts_[i].connections;
}

bool HostSet::FailbackDue(std::size_t i, std::function<bool(std::string const&)> const& answers) {
    if (i == 0 || failback_.count() == 0 || hosts_.empty()) {
        return false;
    }
    std::unique_lock<std::mutex> guard(lock_);
    Clock::time_point now = Clock::now();
    if (!probing_ && now - lastProbe_ >= kProbeEvery) {
        probing_ = true;
        lastProbe_ = now;
        std::string const first = hosts_[0].name;
        guard.unlock();
        bool const answered = answers(first);
        guard.lock();
        probing_ = false;
        now = Clock::now();
        if (!answered) {
            answeringSince_ = {};
        } else if (answeringSince_ == Clock::time_point{}) {
            answeringSince_ = now;
        }
    }
    bool const due = answeringSince_ != Clock::time_point{} && now - answeringSince_ >= failback_;
    if (due) {
        // It has answered all along: the next connection goes to it, quarantine or not.
        hosts_[0].retryAt = {};
    }
    return due;
}
