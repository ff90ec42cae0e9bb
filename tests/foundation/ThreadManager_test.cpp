// The thread pool: bulk runs, long-running procedures, termination, the global stack and the
// thread count from the environment.
#include "foundation/ThreadManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "foundation/MTJobs.h"
#include "foundation/sys/Event.h"
#include "foundation/sys/threads.h"

using namespace vaporix;
using vaporix::test::ScopedEnv;

namespace {

struct IndexRecorder : ThreadShared {
    std::mutex mutex;
    std::vector<int> indices;
    std::vector<int> poolIndices;
    std::atomic<int> counts{0};
    ThreadManager* manager = nullptr;
    const char* getName() override { return "bulk-test"; }
    void procedure(int index, int threadCount, std::atomic<uint32_t>& counter) override {
        counter.fetch_add(5);
        units.fetch_add(1);
        std::lock_guard<std::mutex> lock(mutex);
        indices.push_back(index);
        poolIndices.push_back(manager->currentThreadIndex());
        counts.store(threadCount);
    }
};

struct Reporting : ProgressCallback {
    std::mutex mutex;
    std::vector<std::string> texts;
    std::atomic<uint64_t> progress{0};
    std::atomic<int> abort{0};
    std::atomic<int> begins{0}, ends{0};
    void info(int, int code, const char* format, ...) override {
        char buffer[256];
        va_list args;
        va_start(args, format);
        std::vsnprintf(buffer, sizeof buffer, format, args);
        va_end(args);
        std::lock_guard<std::mutex> lock(mutex);
        texts.push_back(std::to_string(code) + ":" + buffer);
    }
    void setProgress(uint64_t v) override { progress.store(v); }
    int checkAbort() override { return abort.load(); }
    void begin() override { begins.fetch_add(1); }
    void end() override { ends.fetch_add(1); }
};

}  // namespace

TEST(ThreadManager, BulkRunGivesEachThreadItsIndex) {
    PosixThreadManager manager;
    IndexRecorder shared;
    shared.manager = &manager;
    Reporting callback;
    EXPECT_EQ(manager.run(5, &shared, &callback, true), 0);
    std::vector<int> sorted = shared.indices;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, (std::vector<int>{0, 1, 2, 3, 4}));
    std::sort(shared.poolIndices.begin(), shared.poolIndices.end());
    EXPECT_EQ(shared.poolIndices, sorted);  // currentThreadIndex inside the run
    EXPECT_EQ(shared.counts.load(), 5);
    EXPECT_EQ(shared.units.load(), 5u);
    EXPECT_EQ(manager.currentThreadIndex(), -1);  // the caller is not a pool thread
    ASSERT_EQ(callback.texts.size(), 2u);
    EXPECT_EQ(callback.texts[0], "30000:Setting up 5 thread(s)\n");
    EXPECT_EQ(callback.texts[1], "30000:Threads completed\n");
    EXPECT_EQ(callback.begins.load(), 1);
    EXPECT_EQ(callback.ends.load(), 1);

    // A second run of no more threads than the pool has reuses the idle ones. (A thread that
    // finished early may serve two indices of one run, so the pool can be smaller than 5; a
    // run wider than the pool would make a new thread or not depending on timing.)
    const int pool = manager.poolSize();
    ASSERT_GE(pool, 1);
    ASSERT_LE(pool, 5);
    IndexRecorder again;
    again.manager = &manager;
    ASSERT_TRUE(manager.waitForIdleThreads(pool));
    EXPECT_EQ(manager.run(pool, &again, nullptr, false), 0);
    EXPECT_EQ(manager.poolSize(), pool);
}

TEST(ThreadManager, BulkRunReportsCountersAndStopsOnAbort) {
    PosixThreadManager manager;
    struct Slow : ThreadShared {
        void procedure(int, int, std::atomic<uint32_t>& counter) override {
            // Work until the waiting caller has seen the abort.
            while (result.load() == 0) {
                counter.fetch_add(1);
                sys::sleepMilliseconds(5);
            }
        }
    } shared;
    Reporting callback;
    std::thread aborter([&] {
        while (callback.progress.load() == 0) sys::sleepMilliseconds(5);
        callback.abort.store(3);
    });
    EXPECT_EQ(manager.run(2, &shared, &callback, true), 3);
    aborter.join();
    EXPECT_GT(callback.progress.load(), 0u);
}

TEST(ThreadManager, StartThreadRunsTheProcedureUnderItsName) {
    PosixThreadManager manager;
    struct Named : ThreadProcedure {
        sys::Event done{true};
        std::string seenName;
        void* seenData = nullptr;
        int seenIndex = -2;
        PosixThreadManager* manager = nullptr;
        const char* getName() override { return "NamedProcedure"; }
        void run(void* data) override {
            seenData = data;
            seenName = sys::currentThreadName();
            seenIndex = manager->currentThreadIndex();
            done.set();
        }
    } procedure;
    procedure.manager = &manager;
    int payload = 7;
    ASSERT_TRUE(manager.startThread(&procedure, &payload));
    ASSERT_TRUE(procedure.done.wait(60000));  // a guard against a hang, not a time limit
    EXPECT_EQ(procedure.seenData, &payload);
    EXPECT_EQ(procedure.seenName, "NamedProcedure");  // cut to 15 characters by the platform
    EXPECT_EQ(procedure.seenIndex, 0);
    EXPECT_FALSE(manager.startThread(nullptr, nullptr));
}

TEST(ThreadManager, TerminateAllEndsEveryThread) {
    PosixThreadManager manager;
    manager.setStackSize(256 * 1024);
    IndexRecorder shared;
    shared.manager = &manager;
    manager.run(4, &shared, nullptr, false);
    const int pool = manager.poolSize();  // threads that finished early may have been reused
    EXPECT_GE(pool, 1);
    setenv("LUMO_DEBUG_OUTPUT", "1", 1);
    testing::internal::CaptureStderr();
    manager.terminateAll(false);
    const std::string printed = testing::internal::GetCapturedStderr();
    unsetenv("LUMO_DEBUG_OUTPUT");
    EXPECT_EQ(manager.poolSize(), 0);
    EXPECT_NE(printed.find("[WinThreadManager] Terminating " + std::to_string(pool) + " threads\n"),
              std::string::npos);
    EXPECT_NE(printed.find("[WinThreadManager] All threads terminated\n"), std::string::npos);
    // The manager makes new threads afterwards.
    IndexRecorder again;
    again.manager = &manager;
    EXPECT_EQ(manager.run(2, &again, nullptr, false), 0);
    EXPECT_EQ(again.indices.size(), 2u);
}

TEST(ThreadManager, GlobalStackIsLastInFirstOut) {
    ThreadManager* base = getGlobalThreadManager();  // the process-wide one, on first use
    EXPECT_EQ(base, processThreadManager());
    PosixThreadManager a, b;
    setGlobalThreadManager(&a);
    setGlobalThreadManager(&b);
    EXPECT_EQ(getGlobalThreadManager(), &b);
    releaseGlobalThreadManager();
    EXPECT_EQ(getGlobalThreadManager(), &a);
    releaseGlobalThreadManager();
    EXPECT_EQ(getGlobalThreadManager(), base);
}

TEST(ThreadManager, ThreadCountComesFromTheEnvironmentOrTheMachine) {
    ScopedEnv affinity("LUMO_USE_THREAD_AFFINITY", nullptr);
    {
        ScopedEnv n("LUMO_NUM_THREADS", "3");
        EXPECT_EQ(computeThreadCount(), 3);
    }
    int detected = 0;
    {
        ScopedEnv n("LUMO_NUM_THREADS", nullptr);
        detected = computeThreadCount();
        EXPECT_GE(detected, 1);
    }
    for (const char* fallThrough : {"0", "abc", "-2", ""}) {
        ScopedEnv n("LUMO_NUM_THREADS", fallThrough);
        EXPECT_EQ(computeThreadCount(), detected) << fallThrough;
    }
    {
        ScopedEnv n("LUMO_NUM_THREADS", nullptr);
        ScopedEnv off("LUMO_USE_THREAD_AFFINITY", "0");
        EXPECT_EQ(computeThreadCount(), sys::processorCount());
    }
    EXPECT_GE(globalThreadCount(), 1);
    EXPECT_LE(effectiveThreadCount(), globalThreadCount());
}

TEST(ThreadManager, AffinityIsInUseUnlessTheVariableIsZero) {
    {
        ScopedEnv v("LUMO_USE_THREAD_AFFINITY", nullptr);
        EXPECT_TRUE(threadAffinityInUse());
    }
    {
        ScopedEnv v("LUMO_USE_THREAD_AFFINITY", "0");
        EXPECT_FALSE(threadAffinityInUse());
    }
    {
        ScopedEnv v("LUMO_USE_THREAD_AFFINITY", "4294967296");  // zero in its low 32 bits
        EXPECT_FALSE(threadAffinityInUse());
    }
    {
        ScopedEnv v("LUMO_USE_THREAD_AFFINITY", "1");
        EXPECT_TRUE(threadAffinityInUse());
    }
    {
        ScopedEnv v("LUMO_USE_THREAD_AFFINITY", "0");
        // Without affinity a manager pins nothing and still runs.
        PosixThreadManager manager;
        IndexRecorder shared;
        shared.manager = &manager;
        EXPECT_EQ(manager.run(2, &shared, nullptr, false), 0);
    }
}

namespace {

// A folder laid out like the kernel's node listing, with the given processor lists.
void writeNodes(const test::TempDir& dir, const std::vector<std::string>& lists) {
    for (size_t i = 0; i < lists.size(); ++i) {
        const std::string node = dir.file("node" + std::to_string(i));
        mkdir(node.c_str(), 0755);
        const std::string text = lists[i] + "\n";
        test::writeBytes(node + "/cpulist", std::vector<uint8_t>(text.begin(), text.end()));
    }
}

// Records the processors each thread of a bulk run may use.
struct MaskRecorder : ThreadShared {
    std::mutex mutex;
    std::vector<sys::ProcessorMask> masks = std::vector<sys::ProcessorMask>(8);
    void procedure(int index, int, std::atomic<uint32_t>&) override {
        sys::ProcessorMask mask;
        sys::getCurrentThreadAffinity(mask);
        std::lock_guard<std::mutex> lock(mutex);
        masks[static_cast<size_t>(index)] = mask;
    }
};

sys::ProcessorMask only(int processor) {
    sys::ProcessorMask mask(static_cast<size_t>(processor) / 64 + 1, 0);
    mask[static_cast<size_t>(processor) / 64] = uint64_t(1) << (processor % 64);
    return mask;
}

}  // namespace

TEST(ThreadManager, BulkThreadsFillOneNodeAfterTheOther) {
    sys::ProcessorMask process;
    ASSERT_TRUE(sys::getProcessAffinity(process));
    std::vector<int> cpus;
    for (size_t w = 0; w < process.size(); ++w)
        for (int b = 0; b < 64; ++b)
            if ((process[w] >> b) & 1) cpus.push_back(static_cast<int>(w * 64) + b);
    if (cpus.size() < 2) GTEST_SKIP() << "needs two processors";
    const std::string a = std::to_string(cpus[0]), b = std::to_string(cpus[1]);
    ScopedEnv affinity("LUMO_USE_THREAD_AFFINITY", nullptr);

    // Two nodes of one processor each: threads 0, 2, 4 on the first, 1, 3 on the second.
    // A processor the process may not use (here: beyond the machine) is left out of its node.
    test::TempDir twoNodes;
    writeNodes(twoNodes, {a + ",1000", b});
    {
        PosixThreadManager manager(twoNodes.path());
        MaskRecorder shared;
        ASSERT_EQ(manager.run(5, &shared, nullptr, false), 0);
        for (int k = 0; k < 5; ++k)
            EXPECT_EQ(shared.masks[static_cast<size_t>(k)], only(cpus[k % 2])) << k;

        // A pool thread that served a pinned run gets the whole process mask back for the
        // long-running style.
        ASSERT_TRUE(manager.waitForIdleThreads(manager.poolSize()));
        struct Probe : ThreadProcedure {
            sys::Event done{true};
            sys::ProcessorMask mask;
            void run(void*) override {
                sys::getCurrentThreadAffinity(mask);
                done.set();
            }
        } probe;
        ASSERT_TRUE(manager.startThread(&probe, nullptr));
        ASSERT_TRUE(probe.done.wait(60000));  // a guard against a hang only
        EXPECT_EQ(probe.mask, process);
        ASSERT_TRUE(manager.waitForIdleThreads(manager.poolSize()));
    }

    // One node with processors (and a memory-only one) pins nothing; neither does a manager
    // made while thread affinity is off.
    test::TempDir oneNode;
    writeNodes(oneNode, {a + "," + b, ""});
    {
        PosixThreadManager manager(oneNode.path());
        MaskRecorder shared;
        ASSERT_EQ(manager.run(3, &shared, nullptr, false), 0);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(shared.masks[static_cast<size_t>(k)], process) << k;
    }
    {
        ScopedEnv off("LUMO_USE_THREAD_AFFINITY", "0");
        PosixThreadManager manager(twoNodes.path());
        MaskRecorder shared;
        ASSERT_EQ(manager.run(3, &shared, nullptr, false), 0);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(shared.masks[static_cast<size_t>(k)], process) << k;
    }
}

TEST(ThreadManager, ProcessManagerIsReleasedAtExit) {
    // Each case runs in a fresh process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto useAndExit = [](bool keepEngine) {
        setenv("LUMO_DEBUG_OUTPUT", "1", 1);
        ThreadManager* manager = getGlobalThreadManager();
        if (manager != processThreadManager()) std::exit(3);
        MTJobs* engine = new MTJobs;
        engine->init(2);
        engine->runJobs(0);
        if (!keepEngine) delete engine;
        std::exit(0);
    };
    // The manager made on first use goes at exit, and its pool threads with it.
    EXPECT_EXIT(useAndExit(false), testing::ExitedWithCode(0),
                "Destructor.*Terminating 2 threads.*All threads terminated");
    // An engine still alive at exit keeps its threads; the process ends all the same.
    EXPECT_EXIT(useAndExit(true), testing::ExitedWithCode(0), "");
}
