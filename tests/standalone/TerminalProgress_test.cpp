// Tests of the progress bar and of Ctrl-C as a stop request.
#include "standalone/TerminalProgress.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace vaporix {
namespace {

std::string bar(double fraction, double secondsLeft) {
    char buf[128];
    TerminalProgress::formatBar(buf, sizeof buf, fraction, secondsLeft);
    return buf;
}

TEST(TerminalProgress, BarShowsTheShareDoneAndTheTimeLeft) {
    const std::string half = bar(0.5, 90.0);
    EXPECT_NE(half.find(" 50%"), std::string::npos) << half;
    EXPECT_NE(half.find("1:30 left"), std::string::npos) << half;
    EXPECT_EQ(std::count(half.begin(), half.end(), '#'), 15);
    const std::string start = bar(0.0, -1.0);
    EXPECT_EQ(start.find("left"), std::string::npos) << start;
    EXPECT_EQ(std::count(start.begin(), start.end(), '#'), 0);
    EXPECT_NE(bar(1.0, 0.0).find("100%"), std::string::npos);
    EXPECT_NE(bar(0.1, 7322.0).find("2h02m left"), std::string::npos);
    // Out-of-range fractions are held to 0..1.
    EXPECT_NE(bar(3.0, 1.0).find("100%"), std::string::npos);
    EXPECT_NE(bar(-1.0, 1.0).find("  0%"), std::string::npos);
}

TEST(TerminalProgress, DrawsOnlyWhenEnabledAndClearsItsLineAtTheEnd) {
    FILE* out = std::tmpfile();
    ASSERT_NE(out, nullptr);
    {
        TerminalProgress quiet(100, false, out);
        quiet.begin();
        quiet.setProgress(50);
        quiet.end();
    }
    EXPECT_EQ(std::ftell(out), 0L);
    EXPECT_FALSE(TerminalProgress::isTerminal(out));

    {
        TerminalProgress shown(200, true, out);
        shown.begin();  // draws at once
        shown.end();
    }
    std::rewind(out);
    char text[512] = {};
    const size_t n = std::fread(text, 1, sizeof text - 1, out);
    std::fclose(out);
    const std::string written(text, n);
    EXPECT_NE(written.find("  0%"), std::string::npos) << written;
    // The last thing written blanks the line and returns to its start.
    ASSERT_GE(written.size(), 2u);
    EXPECT_EQ(written.back(), '\r');
    EXPECT_EQ(written[written.size() - 2], ' ');
}

/// Keeps SIGINT's disposition as the test found it.
struct SigintState {
    struct sigaction saved;
    SigintState() { sigaction(SIGINT, nullptr, &saved); }
    ~SigintState() {
        sigaction(SIGINT, &saved, nullptr);
        InterruptGuard::setInterruptRequested(false);
    }
};

TEST(InterruptGuard, CtrlCBecomesAStopRequestUntilTheGuardEnds) {
    SigintState keep;
    signal(SIGINT, SIG_DFL);
    {
        InterruptGuard guard;
        TerminalProgress progress(10, false);
        EXPECT_FALSE(InterruptGuard::interruptRequested());
        EXPECT_EQ(progress.checkAbort(), 0);
        ASSERT_EQ(raise(SIGINT), 0);  // would end the process without the guard
        EXPECT_TRUE(InterruptGuard::interruptRequested());
        EXPECT_EQ(progress.checkAbort(), 1);
        // The next Ctrl-C has its default action back.
        struct sigaction now;
        sigaction(SIGINT, nullptr, &now);
        EXPECT_EQ(now.sa_handler, SIG_DFL);
    }
    // A new guard starts with no request.
    InterruptGuard again;
    EXPECT_FALSE(InterruptGuard::interruptRequested());
}

TEST(InterruptGuard, RestoresThePreviousHandlerAndKeepsAnIgnoredSigintIgnored) {
    SigintState keep;
    signal(SIGINT, SIG_IGN);
    {
        InterruptGuard guard;
        ASSERT_EQ(raise(SIGINT), 0);
        EXPECT_FALSE(InterruptGuard::interruptRequested());
    }
    struct sigaction now;
    sigaction(SIGINT, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);

    signal(SIGINT, SIG_DFL);
    {
        InterruptGuard guard;
        struct sigaction during;
        sigaction(SIGINT, nullptr, &during);
        EXPECT_NE(during.sa_handler, SIG_DFL);
    }
    sigaction(SIGINT, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

}  // namespace
}  // namespace vaporix
