// The free functions' engines: taken, made on demand, given back; reads routed to read hosts.
#include "engine/Pool.h"

#include <chrono>
#include <utility>

#include "engine/Constants.h"
#include "engine/LdapOp.h"

namespace {

using Clock = std::chrono::steady_clock;

// When the calling thread last gave back an engine it wrote on (read_after_write).
thread_local Clock::time_point lastWrite{};

}  // namespace

Pool::Lease::Lease(Lease&& other) noexcept
    : pool_(std::exchange(other.pool_, nullptr)),
      shelf_(other.shelf_),
      engine_(std::exchange(other.engine_, nullptr)),
      wrote_(other.wrote_) {}

Pool::Lease& Pool::Lease::operator=(Lease&& other) noexcept {
    if (this != &other) {
        Release();
        pool_ = std::exchange(other.pool_, nullptr);
        shelf_ = other.shelf_;
        engine_ = std::exchange(other.engine_, nullptr);
        wrote_ = other.wrote_;
    }
    return *this;
}

Pool::Lease::~Lease() {
    Release();
}

void Pool::Lease::Release() {
    if (engine_ == nullptr) {
        return;
    }
    if (wrote_) {
        lastWrite = Clock::now();
    }
    pool_->GiveBack(shelf_, engine_);
    engine_ = nullptr;
}

Pool::Pool() : settings_(SECTION_LDAP) {
    PoolOptions const& options = settings_.Pool();
    shelves_[kProviders].hosts = std::make_unique<HostSet>(
        settings_.Get().host, HostSet::Choice::kInOrder, options.failback);
    shelves_[kReaders].hosts =
        std::make_unique<HostSet>(options.readHosts, HostSet::Choice::kLeastBusy, 0);
}

Pool::~Pool() = default;

std::size_t Pool::Made(std::size_t shelf) const {
    std::lock_guard<std::mutex> guard(lock_);
    return shelves_[shelf].engines.size();
}

void Pool::SetRecord(LdapInfo const& info) {
    std::lock_guard<std::mutex> guard(lock_);
    settings_.Set(info);
    recordSet_ = true;
    for (Shelf& shelf : shelves_) {
        for (auto& engine : shelf.engines) {
            engine->SetLdapAtt(info);
        }
    }
}

Pool::Lease Pool::Take(Use use) {
    PoolOptions const& options = settings_.Pool();
    bool const write = use == Use::kWrite;
    bool const readHere =
        use == Use::kRead && shelves_[kReaders].hosts->Size() > 0 &&
        !(options.readAfterWrite > 0 &&
          Clock::now() - lastWrite < std::chrono::seconds(options.readAfterWrite));
    if (readHere) {
        return ReadLease(TakeFrom(kReaders, false));
    }
    return TakeFrom(kProviders, write);
}

Pool::Lease Pool::ReadLease(Lease lease) {
    if (lease.Engine() == nullptr || lease.Engine()->ConnectLdap() == QORLDAP_OK) {
        return lease;
    }
    // No read host answers (all in quarantine, or each refused just now): the providers take
    // the read.
    lease = Lease();
    return TakeFrom(kProviders, false);
}

bool Pool::Again(Lease& lease) {
    // The engine is this lease's alone: a lost mark on it is the failed call's own.
    if (lease.wrote_ || lease.Engine() == nullptr || !lease.Engine()->NeedsReconnect()) {
        return false;
    }
    if (lease.shelf_ == kReaders) {
        // Connecting drops the lost handle, which puts its host in quarantine, and dials the
        // least busy read host left.
        lease = ReadLease(std::move(lease));
    }
    return true;
}

Pool::Lease Pool::TakeFrom(std::size_t index, bool write) {
    Shelf& shelf = shelves_[index];
    std::size_t const size = static_cast<std::size_t>(settings_.Pool().poolSize);
    std::unique_lock<std::mutex> guard(lock_);
    auto ready = [&] { return !shelf.free.empty() || shelf.engines.size() + shelf.making < size; };
    int const timeout = settings_.Link().timeout;
    if (timeout > 0) {
        if (!returned_.wait_for(guard, std::chrono::seconds(timeout), ready)) {
            return Lease();
        }
    } else {
        returned_.wait(guard, ready);
    }
    if (!shelf.free.empty()) {
        // The engine given back last: its connection is the one most recently used.
        CLdapOp* engine = shelf.free.back();
        shelf.free.pop_back();
        return Lease(this, index, engine, write);
    }
    ++shelf.making;
    guard.unlock();
    // Reading the settings and templates takes a while; other threads take and give back
    // meanwhile. Should the engine not be made (out of memory), its place is given back, so
    // that the pool does not shrink for good and a waiter may make it.
    std::unique_ptr<CLdapOp> engine;
    try {
        engine = std::make_unique<CLdapOp>();
        engine->JoinPool(*shelf.hosts);
        guard.lock();
        if (recordSet_) {
            engine->SetLdapAtt(settings_.Get());
        }
        shelf.engines.push_back(std::move(engine));
    } catch (...) {
        if (!guard.owns_lock()) {
            guard.lock();
        }
        --shelf.making;
        guard.unlock();
        returned_.notify_all();
        throw;
    }
    --shelf.making;
    return Lease(this, index, shelf.engines.back().get(), write);
}

void Pool::GiveBack(std::size_t shelf, CLdapOp* engine) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        shelves_[shelf].free.push_back(engine);
    }
    // Waiters of both shelves share the condition: each looks at its own shelf again.
    returned_.notify_all();
}
