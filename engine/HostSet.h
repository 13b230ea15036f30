// HostSet: the hosts of one role, the providers of "host" or the read hosts of "read_host", as
// the connections that dial them share them: which host a new connection tries first, which
// host failed lately (quarantine), how many connections each holds, and whether connections
// that failed over to a later provider may go back to the first one (failback).
// Owns: the list, and the state of each host under a lock of its own.
// Promises: every member may be called from any thread.
// Needs: a probe that tells whether a host answers (engine/HostProbe.h), for failback only.
#ifndef QORLDAP_ENGINE_HOSTSET_H
#define QORLDAP_ENGINE_HOSTSET_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

class HostSet {
  public:
    using Clock = std::chrono::steady_clock;
    // How a new connection picks its host.
    //  kInOrder    providers: the list's order, so that every connection is on the first host
    //              while it answers (the others are standbys).
    //  kLeastBusy  read hosts: the host holding the fewest of the set's connections, ties taken
    //              in turn. A pooled connection stays on its host for as long as it lives, so
    //              the choice that spreads the reads is the one made when it is dialled. Round
    //              robin at that moment would hand a replica that comes back from quarantine
    //              only every n-th new connection, and leave the others carrying its share for
    //              as long as their connections live; counting the connections each host holds
    //              gives it the next ones until the load is even again.
    enum class Choice { kInOrder, kLeastBusy };
    // A host that failed is passed over for this long before it is tried again.
    static constexpr std::chrono::seconds kQuarantine{10};
    // The first host is probed at most this often while connections are on a later one.
    static constexpr std::chrono::seconds kProbeEvery{1};

    // hosts: blank-separated, each as "host", "host:port" or a URI; for kInOrder, none at all is
    // one host written as nothing (libldap's default). failbackSeconds 0: none.
    HostSet(std::string const& hosts, Choice choice, int failbackSeconds);
    HostSet(HostSet const&) = delete;
    HostSet& operator=(HostSet const&) = delete;

    Choice Order() const { return choice_; }
    std::size_t Size() const { return hosts_.size(); }
    std::string const& Host(std::size_t i) const { return hosts_[i].name; }
    // The hosts a new connection tries, best first. kInOrder: every host, those in quarantine
    // last (a provider is never left out: when all failed they are all tried again);
    // kLeastBusy: only the hosts out of quarantine, so empty when every one failed lately.
    std::vector<std::size_t> Candidates();
    // A connection was made on host i, or one on host i was closed.
    void Opened(std::size_t i);
    void Closed(std::size_t i);
    // Host i refused a connection or lost one: quarantine from now.
    void Failed(std::size_t i);
    // For a connection on host i: true when it is to be redialled on the first host, because
    // failback is on, i is a later host, and the first host has answered every probe for the
    // failback seconds. Probes the first host (answers(host) true when it answered) when the
    // last probe is kProbeEvery old and no other thread is probing; otherwise it reads what
    // the last probe found.
    bool FailbackDue(std::size_t i, std::function<bool(std::string const&)> const& answers);
    // For a connection on host i of a kLeastBusy set: true when host i holds two connections
    // more than a host out of quarantine that holds the fewest, so that moving this one evens
    // them out. That is how a replica back from quarantine gets its share again: connections
    // live long, and the least busy choice alone would give it only those dialled from now on.
    bool Crowded(std::size_t i) const;
    // The connections host i holds now (for tests and benchmarks).
    int Connections(std::size_t i) const;

  private:
    struct Entry {
        std::string name;
        int connections = 0;
        Clock::time_point retryAt{};  // in quarantine until then
    };
    bool InQuarantine(Entry const& host, Clock::time_point now) const { return now < host.retryAt; }

    Choice const choice_;
    std::chrono::seconds const failback_;
    std::vector<Entry> hosts_;
    mutable std::mutex lock_;
    std::size_t turn_ = 0;  // the tie-break of kLeastBusy
    // Failback: when the first host began to answer every probe (epoch when it has not), and
    // when it was last probed.
    Clock::time_point answeringSince_{};
    Clock::time_point lastProbe_{};
    bool probing_ = false;
};

#endif
