// Auto-reset and manual-reset events with timed waits, the wake-up primitive of the job engine.
#pragma once

#include <condition_variable>
#include <mutex>

namespace vaporix::sys {

/// A signalled / unsignalled flag that threads can wait on. An auto-reset event lets exactly one
/// waiter through per `set()` and turns itself off again; a manual-reset event stays signalled
/// and lets every waiter through until `reset()`.
class Event {
public:
    /// Waits forever.
    static constexpr int INFINITE_WAIT = -1;

    explicit Event(bool manualReset = false, bool initiallySet = false);
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void set();
    void reset();
    /// Waits at most `timeoutMs` milliseconds (0 only polls, INFINITE_WAIT never gives up).
    /// @return true when the event was signalled; an auto-reset event is then reset again.
    bool wait(int timeoutMs = INFINITE_WAIT);
    bool isManualReset() const { return mManualReset; }

private:
    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mSignalled;
    const bool mManualReset;
};

}  // namespace vaporix::sys
