// A recursive lock with try-lock, and the three-stage spinning entry the thread pool uses.
#pragma once

#include <pthread.h>

namespace vaporix::sys {

/// A lock that the owning thread may take again (as a Windows critical section).
class CriticalSection {
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void lock();
    /// @return true when the lock was taken.
    bool tryLock();
    void unlock();

    /// Takes the lock in three stages: `SPIN_TRIES` plain attempts, as many again with a yield
    /// after each, then a blocking wait. Short holds are thus taken without a sleep.
    void lockSpinning();
    static constexpr int SPIN_TRIES = 1500;

private:
    pthread_mutex_t mMutex;
};

/// Holds a CriticalSection for its lifetime, taken with `lockSpinning`.
class ScopedSpinLock {
public:
    explicit ScopedSpinLock(CriticalSection& section) : mSection(section) {
        mSection.lockSpinning();
    }
    ~ScopedSpinLock() { mSection.unlock(); }
    ScopedSpinLock(const ScopedSpinLock&) = delete;
    ScopedSpinLock& operator=(const ScopedSpinLock&) = delete;

private:
    CriticalSection& mSection;
};

}  // namespace vaporix::sys
