// Holds a binding's mutex for the span of one call into the directory library.
#ifndef QORLDAP_BINDING_SCOPELOCK_H
#define QORLDAP_BINDING_SCOPELOCK_H

#include <pthread.h>

#include <atomic>

// A mutex and the thread that holds it. The owner word is written only by the holder: set
// right after locking, cleared right before unlocking, so a thread finds its own id there only
// while it holds the lock. That lets a thread that re-enters the binding from inside a library
// call go on instead of locking the non-recursive mutex a second time.
struct LockPair {
    pthread_mutex_t mutex;
    std::atomic<pthread_t> owner{0};
};

class ScopeLock {
  public:
    explicit ScopeLock(LockPair* pair) : pair_(pair) {
        pthread_t self = pthread_self();
        if (!pthread_equal(pair_->owner.load(), self)) {
            pthread_mutex_lock(&pair_->mutex);
            pair_->owner.store(self);
        }
    }
    ~ScopeLock() {
        if (pthread_equal(pair_->owner.load(), pthread_self())) {
            pair_->owner.store(0);
            pthread_mutex_unlock(&pair_->mutex);
        }
    }
    ScopeLock(ScopeLock const&) = delete;
    ScopeLock& operator=(ScopeLock const&) = delete;

  private:
    LockPair* pair_;
};

#endif
