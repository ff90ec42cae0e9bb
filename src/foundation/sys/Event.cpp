// Events on a mutex and a condition variable of the steady clock.
#include "foundation/sys/Event.h"

#include <chrono>

namespace vaporix::sys {

Event::Event(bool manualReset, bool initiallySet)
    : mSignalled(initiallySet), mManualReset(manualReset) {}

void Event::set() {
    std::lock_guard<std::mutex> lock(mMutex);
    mSignalled = true;
    // Notified under the lock: a waiter that owns the object may destroy it as soon as it
    // returns, and it cannot return before this call has released the mutex.
    if (mManualReset)
        mCondition.notify_all();
    else
        mCondition.notify_one();
}

void Event::reset() {
    std::lock_guard<std::mutex> lock(mMutex);
    mSignalled = false;
}

bool Event::wait(int timeoutMs) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mSignalled) {
        if (timeoutMs == 0) return false;
        if (timeoutMs < 0) {
            mCondition.wait(lock, [this] { return mSignalled; });
        } else {
            const auto deadline =
                std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
            if (!mCondition.wait_until(lock, deadline, [this] { return mSignalled; })) return false;
        }
    }
    if (!mManualReset) mSignalled = false;
    return true;
}

}  // namespace vaporix::sys
