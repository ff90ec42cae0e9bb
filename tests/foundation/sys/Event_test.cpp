// Events, the recursive lock and the thread-local slot of the platform layer.
#include "foundation/sys/Event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "foundation/sys/CriticalSection.h"
#include "foundation/sys/ThreadLocalSlot.h"

using namespace vaporix::sys;

TEST(Event, AutoResetLetsOneWaitThrough) {
    Event e(false);
    EXPECT_FALSE(e.wait(0));
    e.set();
    EXPECT_TRUE(e.wait(0));
    EXPECT_FALSE(e.wait(0));  // reset by the successful wait
    e.set();
    e.set();  // two signals before a wait are one
    EXPECT_TRUE(e.wait(0));
    EXPECT_FALSE(e.wait(0));
}

TEST(Event, ManualResetStaysSignalledUntilReset) {
    Event e(true, true);
    EXPECT_TRUE(e.isManualReset());
    EXPECT_TRUE(e.wait(0));
    EXPECT_TRUE(e.wait(10));
    e.reset();
    EXPECT_FALSE(e.wait(0));
}

TEST(Event, TimedWaitGivesUpAfterItsTime) {
    Event e;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(e.wait(30));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(30));
}

TEST(Event, SetWakesAWaiterOnAnotherThread) {
    Event go(false), back(true);
    std::atomic<int> woken{0};
    std::thread t([&] {
        if (go.wait(Event::INFINITE_WAIT)) woken.store(1);
        back.set();
    });
    go.set();
    EXPECT_TRUE(back.wait(60000));  // a guard against a hang, not a time limit
    t.join();
    EXPECT_EQ(woken.load(), 1);

    // A manual-reset event releases every waiter.
    Event gate(true);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            gate.wait();
            passed.fetch_add(1);
        });
    gate.set();
    for (auto& w : waiters) w.join();
    EXPECT_EQ(passed.load(), 4);
}

TEST(CriticalSection, IsRecursiveAndTryLockFailsElsewhere) {
    CriticalSection section;
    section.lock();
    EXPECT_TRUE(section.tryLock());  // the owner may take it again
    std::atomic<int> other{-1};
    std::thread t([&] { other.store(section.tryLock() ? 1 : 0); });
    t.join();
    EXPECT_EQ(other.load(), 0);
    section.unlock();
    section.unlock();
    std::thread t2([&] {
        ScopedSpinLock hold(section);
        other.store(2);
    });
    t2.join();
    EXPECT_EQ(other.load(), 2);
}

TEST(ThreadLocalSlot, EachThreadSeesItsOwnValue) {
    ThreadLocalSlot slot;
    ASSERT_TRUE(slot.isValid());
    int mine = 1, theirs = 2;
    slot.set(&mine);
    void* seen = &mine;
    std::thread t([&] {
        seen = slot.get();  // null: never set on this thread
        slot.set(&theirs);
    });
    t.join();
    EXPECT_EQ(seen, nullptr);
    EXPECT_EQ(slot.get(), &mine);
}
