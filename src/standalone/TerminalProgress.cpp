// A progress bar with the remaining time on a terminal, and Ctrl-C as a stop request.
#include "standalone/TerminalProgress.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace vaporix {

namespace {

// Set by the SIGINT handler, read by render threads. Lock-free, so safe in a handler.
std::atomic<int> gInterrupt{0};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void onInterrupt(int) { gInterrupt.store(1); }

// The bar is redrawn at most this often.
constexpr double REDRAW_SECONDS = 0.2;
constexpr int BAR_CELLS = 30;

}  // namespace

TerminalProgress::TerminalProgress(uint64_t total, bool enabled, FILE* out)
    : mTotal(total), mEnabled(enabled && out), mOut(out) {
    mStart = mLastDraw = std::chrono::steady_clock::now();
}

TerminalProgress::~TerminalProgress() { end(); }

bool TerminalProgress::isTerminal(FILE* out) { return out && isatty(fileno(out)) == 1; }

void TerminalProgress::begin() {
    mStart = mLastDraw = std::chrono::steady_clock::now();
    draw(0, true);
}

void TerminalProgress::end() {
    if (!mDrawn) return;
    // Clears the line, so that the next message starts clean.
    std::fprintf(mOut, "\r%*s\r", BAR_CELLS + 40, "");
    std::fflush(mOut);
    mDrawn = false;
}

void TerminalProgress::setProgress(uint64_t value) { draw(value, false); }

int TerminalProgress::checkAbort() { return InterruptGuard::interruptRequested() ? 1 : 0; }

void TerminalProgress::formatBar(char* buf, size_t size, double fraction, double secondsLeft) {
    if (!(fraction >= 0.0)) fraction = 0.0;
    if (fraction > 1.0) fraction = 1.0;
    char cells[BAR_CELLS + 1];
    const int full = static_cast<int>(fraction * BAR_CELLS);
    for (int i = 0; i < BAR_CELLS; ++i) cells[i] = i < full ? '#' : '.';
    cells[BAR_CELLS] = '\0';
    char left[32] = "";
    if (secondsLeft >= 0.0) {
        const long s = static_cast<long>(secondsLeft + 0.5);
        if (s >= 3600)
            std::snprintf(left, sizeof left, "%ldh%02ldm left", s / 3600, (s / 60) % 60);
        else
            std::snprintf(left, sizeof left, "%ld:%02ld left", s / 60, s % 60);
    }
    std::snprintf(buf, size, "[%s] %3d%% %s", cells, static_cast<int>(fraction * 100.0), left);
}

void TerminalProgress::draw(uint64_t value, bool force) {
    if (!mEnabled) return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && std::chrono::duration<double>(now - mLastDraw).count() < REDRAW_SECONDS) return;
    mLastDraw = now;
    const double fraction = mTotal ? static_cast<double>(value) / static_cast<double>(mTotal) : 0.0;
    const double elapsed = std::chrono::duration<double>(now - mStart).count();
    // The remaining time is guessed only once there is something to guess it from.
    const double left =
        fraction > 0.01 && elapsed > 0.5 ? elapsed * (1.0 - fraction) / fraction : -1.0;
    char line[128];
    formatBar(line, sizeof line, fraction, left);
    std::fprintf(mOut, "\r%-*s", BAR_CELLS + 30, line);
    std::fflush(mOut);
    mDrawn = true;
}

// ---------------------------------------------------------------------------------------------
// InterruptGuard

struct InterruptGuard::Saved {
    struct sigaction previous;
};

InterruptGuard::InterruptGuard() : mSaved(new Saved) {
    gInterrupt.store(0);
    sigaction(SIGINT, nullptr, &mSaved->previous);
    // A process started with SIGINT ignored (a background job of a script) keeps ignoring it,
    // as command-line programs do.
    if (mSaved->previous.sa_handler == SIG_IGN && !(mSaved->previous.sa_flags & SA_SIGINFO)) return;
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    // After the first Ctrl-C the default action is back: a second one ends the process.
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &action, nullptr);
}

InterruptGuard::~InterruptGuard() {
    sigaction(SIGINT, &mSaved->previous, nullptr);
    delete mSaved;
}

bool InterruptGuard::interruptRequested() { return gInterrupt.load() != 0; }

void InterruptGuard::setInterruptRequested(bool on) { gInterrupt.store(on ? 1 : 0); }

}  // namespace vaporix
