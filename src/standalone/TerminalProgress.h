// Progress of a long render on a terminal, and stopping it with Ctrl-C.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>

#include "foundation/ProgressCallback.h"

namespace vaporix {

/// A progress bar with the remaining time, redrawn on one line of `out` (stderr) at most a few
/// times a second; it draws nothing when disabled (quiet, or `out` is no terminal). The abort
/// test answers the process's interrupt request (see `InterruptGuard`).
class TerminalProgress : public ProgressCallback {
public:
    /// `total`: units of the whole task (pixels for a render). `enabled` false draws nothing.
    TerminalProgress(uint64_t total, bool enabled, FILE* out = stderr);
    ~TerminalProgress() override;

    /// Whether `out` is a terminal (the usual test for `enabled`).
    static bool isTerminal(FILE* out);

    void setProgress(uint64_t value) override;
    int checkAbort() override;
    void begin() override;
    /// Clears the bar's line.
    void end() override;

    /// The bar's text for a fraction done and the seconds that remain (< 0: not known yet).
    static void formatBar(char* buf, size_t size, double fraction, double secondsLeft);

private:
    void draw(uint64_t value, bool force);

    uint64_t mTotal;
    bool mEnabled;
    FILE* mOut;
    bool mDrawn = false;
    std::chrono::steady_clock::time_point mStart;
    std::chrono::steady_clock::time_point mLastDraw;
};

/// While it lives, SIGINT (Ctrl-C) does not end the process but asks running work to stop:
/// `interruptRequested` becomes true. A second Ctrl-C ends the process as usual. The previous
/// handler comes back on destruction. A process that was started with SIGINT ignored keeps
/// ignoring it.
class InterruptGuard {
public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

    static bool interruptRequested();
    /// Sets or clears the request, as SIGINT would (for tests and other stop buttons).
    static void setInterruptRequested(bool on);

private:
    struct Saved;
    Saved* mSaved;
};

}  // namespace vaporix
