// The job engine: spans, passes of all three styles, turn order, barriers, abort, the
// no-manager fallback, and results that do not depend on the number of jobs.
#include "foundation/MTJobs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "foundation/sys/threads.h"

using namespace vaporix;

namespace {

// Sets the abort flag after the caller has reported progress `after` times.
class AbortAfter : public ProgressCallback {
public:
    explicit AbortAfter(int after) : mAfter(after) {}
    void pump() override {
        if (++mPumps >= mAfter) mAbort.store(1);
    }
    int checkAbort() override { return mAbort.load(); }
    void abortNow() { mAbort.store(1); }

private:
    int mAfter;
    std::atomic<int> mPumps{0};
    std::atomic<int> mAbort{0};
};

// Records what each job saw.
class Recorder : public MTJobs {
public:
    explicit Recorder(ThreadManager* manager = nullptr) : MTJobs(manager) {}
    const char* getName() const override { return "MTRecorder"; }
    void jobProc(Job& job) override {
        std::lock_guard<std::mutex> lock(mutex);
        modes.push_back(job.mode);
        threads.push_back(std::this_thread::get_id());
    }
    std::mutex mutex;
    std::vector<uint32_t> modes;
    std::vector<std::thread::id> threads;
};

std::vector<Job*> jobsByIndex(MTJobs& engine) {
    std::vector<Job*> v(static_cast<size_t>(engine.numJobs));
    for (Job* j = engine.jobs; j; j = j->next) v[static_cast<size_t>(j->index)] = j;
    return v;
}

}  // namespace

TEST(MTJobs, SpansCoverTheRangeWithTheLastCreatedJobFirst) {
    PosixThreadManager manager;
    MTJobs engine(&manager);
    engine.init(4);
    ASSERT_EQ(engine.numJobs, 4);
    EXPECT_EQ(engine.jobs->index, 3);  // the head is the job created last

    engine.setSpan(10);
    auto jobs = jobsByIndex(engine);
    // k * 10 / 4 from the head: 2, 5, 7, 10.
    EXPECT_EQ(jobs[3]->first, 0u);
    EXPECT_EQ(jobs[3]->last, 2u);
    EXPECT_EQ(jobs[2]->first, 2u);
    EXPECT_EQ(jobs[2]->last, 5u);
    EXPECT_EQ(jobs[1]->count, 2u);
    EXPECT_EQ(jobs[0]->first, 7u);
    EXPECT_EQ(jobs[0]->last, 10u);

    engine.setSpan(2);  // fewer items than jobs: some spans are empty
    EXPECT_EQ(jobs[3]->count, 0u);
    EXPECT_EQ(jobs[2]->first, 0u);
    EXPECT_EQ(jobs[2]->count, 1u);
    EXPECT_EQ(jobs[1]->count, 0u);
    EXPECT_EQ(jobs[0]->first, 1u);
    EXPECT_EQ(jobs[0]->last, 2u);

    engine.setSpan(0);
    for (Job* j : jobs) EXPECT_EQ(j->count, 0u);

    engine.setSpan(UINT64_MAX);  // no overflow in k * total
    EXPECT_EQ(jobs[0]->last, UINT64_MAX);
    EXPECT_EQ(jobs[3]->last, UINT64_MAX / 4);
}

TEST(MTJobs, InitKeepsTheFirstChainAndZeroJobsRunNothing) {
    PosixThreadManager manager;
    MTJobs engine(&manager);
    engine.init(2);
    Job* head = engine.jobs;
    engine.init(5);
    EXPECT_EQ(engine.jobs, head);
    EXPECT_EQ(engine.numJobs, 2);
    EXPECT_STREQ(engine.name, "MTJob");
    EXPECT_STREQ(engine.jobs->getName(), "MTJob");

    Recorder empty(&manager);
    empty.init(0);
    EXPECT_EQ(empty.numJobs, 0);
    empty.setSpan(100);
    empty.runJobs(1);
    EXPECT_TRUE(empty.modes.empty());

    Job orphan;
    EXPECT_STREQ(orphan.getName(), "MTJobWithoutOwner");
}

TEST(MTJobs, RunJobsWakesEveryJobOnItsOwnThreadForEachPass) {
    PosixThreadManager manager;
    Recorder engine(&manager);
    engine.init(3);
    for (uint32_t pass = 0; pass < 20; ++pass) engine.runJobs(pass);
    ASSERT_EQ(engine.modes.size(), 60u);
    for (uint32_t pass = 0; pass < 20; ++pass)
        for (int j = 0; j < 3; ++j)
            EXPECT_EQ(engine.modes[pass * 3 + static_cast<uint32_t>(j)], pass);
    const auto caller = std::this_thread::get_id();
    for (auto id : engine.threads) EXPECT_NE(id, caller);
    // Three jobs hold three pool threads for the engine's life.
    EXPECT_EQ(manager.poolSize(), 3);
}

TEST(MTJobs, RunFunctionRunsTheFunctionOrFallsBackToJobProc) {
    PosixThreadManager manager;
    Recorder engine(&manager);
    engine.init(3);
    engine.setSpan(300);
    std::atomic<uint64_t> sum{0};
    struct Ctx {
        std::atomic<uint64_t>* sum;
    } ctx{&sum};
    engine.runFunction(&ctx, [](void* c, Job& job, MTJobs* owner) {
        EXPECT_NE(owner, nullptr);
        uint64_t s = 0;
        for (uint64_t i = job.first; i < job.last; ++i) s += i;
        static_cast<Ctx*>(c)->sum->fetch_add(s);
    });
    EXPECT_EQ(sum.load(), 299u * 300u / 2u);
    EXPECT_TRUE(engine.modes.empty());

    engine.runFunction(nullptr, nullptr);  // no context: jobProc runs
    EXPECT_EQ(engine.modes.size(), 3u);
}

TEST(MTJobs, TurnsRunInJobOrderWhichIsTheReverseOfTheSpans) {
    PosixThreadManager manager;
    struct Ordered : MTJobs {
        using MTJobs::MTJobs;
        std::vector<int> order;
        std::vector<uint64_t> firsts;
        void jobProc(Job& job) override {
            // Stagger the jobs so that the turn, not the timing, decides the order.
            sys::sleepMilliseconds((numJobs - job.index) % 3);
            if (job.waitTurn()) return;
            order.push_back(job.index);
            firsts.push_back(job.first);
            job.passTurn();
        }
    } engine(&manager);
    engine.init(5);
    engine.setSpan(50);
    for (int pass = 0; pass < 5; ++pass) {
        engine.order.clear();
        engine.firsts.clear();
        engine.runJobs(0);
        EXPECT_EQ(engine.order, (std::vector<int>{0, 1, 2, 3, 4}));
        EXPECT_EQ(engine.firsts, (std::vector<uint64_t>{40, 30, 20, 10, 0}));
        EXPECT_EQ(engine.turn.load(), 0);  // the last job hands the turn back to job 0
    }
}

TEST(MTJobs, BarrierSeparatesPhases) {
    PosixThreadManager manager;
    // Each round every job writes its own slot, then (after the barrier) reads all slots.
    struct Phased : MTJobs {
        using MTJobs::MTJobs;
        const int ROUNDS = 50;
        std::vector<std::atomic<int>> slots = std::vector<std::atomic<int>>(4);
        std::atomic<int> mismatches{0};
        void jobProc(Job& job) override {
            for (int round = 1; round <= ROUNDS; ++round) {
                slots[static_cast<size_t>(job.index)].store(round);
                if (barrier()) return;
                for (auto& s : slots)
                    if (s.load() != round) mismatches.fetch_add(1);
                if (barrier()) return;
            }
        }
    } engine(&manager);
    engine.init(4);
    engine.runJobs(0);
    EXPECT_EQ(engine.mismatches.load(), 0);
    engine.runJobs(0);  // the barrier is reusable across passes
    EXPECT_EQ(engine.mismatches.load(), 0);
}

TEST(MTJobs, AbortFreesBarriersAndTurnsAndThePassReturns) {
    PosixThreadManager manager;
    struct Stuck : MTJobs {
        using MTJobs::MTJobs;
        std::atomic<int> barrierAborts{0};
        std::atomic<int> turnAborts{0};
        void jobProc(Job& job) override {
            if (job.mode == 0) {
                // Job 0 never arrives: the others can only leave through the abort.
                if (job.index == 0) {
                    while (!isAborted()) sys::sleepMilliseconds(1);
                    return;
                }
                if (barrier()) barrierAborts.fetch_add(1);
            } else {
                // Job 0 never passes its turn.
                if (job.index == 0) {
                    while (!isAborted()) sys::sleepMilliseconds(1);
                    return;
                }
                if (job.waitTurn()) turnAborts.fetch_add(1);
            }
        }
    } engine(&manager);
    engine.init(3);
    AbortAfter abort(3);
    engine.runJobs(0, &abort);
    EXPECT_TRUE(engine.isAborted());
    EXPECT_EQ(engine.barrierAborts.load(), 2);

    AbortAfter abort2(3);
    engine.runJobs(1, &abort2);
    EXPECT_EQ(engine.turnAborts.load(), 2);

    // The engine is usable again after an aborted pass.
    std::atomic<int> ran{0};
    engine.runFunction(
        &ran, [](void* c, Job&, MTJobs*) { static_cast<std::atomic<int>*>(c)->fetch_add(1); });
    EXPECT_EQ(ran.load(), 3);
    EXPECT_FALSE(engine.isAborted());
}

TEST(MTJobs, ProgressIsReportedWhileTheCallerWaits) {
    PosixThreadManager manager;
    struct Counting : ProgressCallback {
        std::atomic<uint64_t> last{0};
        std::atomic<int> calls{0};
        void setProgress(uint64_t v) override {
            last.store(v);
            calls.fetch_add(1);
        }
    } callback;
    MTFunction engine(&manager, 2);
    engine.forRange(
        100,
        [&](uint64_t first, uint64_t last, Job&) {
            for (uint64_t i = first; i < last; ++i) {
                engine.addDone(1);
                sys::sleepMilliseconds(1);
            }
        },
        &callback);
    EXPECT_GT(callback.calls.load(), 0);
    EXPECT_LE(callback.last.load(), 100u);
    EXPECT_EQ(engine.doneUnits.load(), 100u);
}

TEST(MTJobs, JoiningRunsJoinJobOnTheCallersThread) {
    PosixThreadManager manager;
    struct Producer : MTJobs {
        using MTJobs::MTJobs;
        std::vector<int> pending = std::vector<int>(8, -1);  // one slot per job
        std::vector<int> consumed;
        std::thread::id caller;
        std::atomic<int> wrongThread{0};
        void jobProc(Job& job) override {
            for (int item = 0; item < 10; ++item) {
                pending[static_cast<size_t>(job.index)] = job.index * 100 + item;
                syncJoin(job, false);
            }
            syncJoin(job, true);
        }
        void joinJob(Job& job) override {
            if (std::this_thread::get_id() != caller) wrongThread.fetch_add(1);
            consumed.push_back(pending[static_cast<size_t>(job.index)]);
        }
    } engine(&manager);
    engine.caller = std::this_thread::get_id();
    engine.init(4);
    engine.runJoining(7);
    EXPECT_EQ(engine.wrongThread.load(), 0);
    ASSERT_EQ(engine.consumed.size(), 40u);
    std::vector<int> sorted = engine.consumed;
    std::sort(sorted.begin(), sorted.end());
    for (int j = 0; j < 4; ++j) {
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(sorted[static_cast<size_t>(j * 10 + i)], j * 100 + i);
    }
    // Items of one job arrive in order.
    for (int j = 0; j < 4; ++j) {
        int expected = j * 100;
        for (int v : engine.consumed) {
            if (v / 100 == j) {
                EXPECT_EQ(v, expected++);
            }
        }
    }
    // A plain pass after a joining one.
    engine.runJoining(1);
    EXPECT_EQ(engine.consumed.size(), 80u);
}

TEST(MTJobs, ResultsDoNotDependOnTheNumberOfJobs) {
    PosixThreadManager manager;
    // A reduction merged in turn order: per-job partial results, concatenated.
    auto run = [&](int threads) {
        struct Merge : MTJobs {
            using MTJobs::MTJobs;
            std::vector<double> merged;
            void jobProc(Job& job) override {
                std::vector<double> local;
                for (uint64_t i = job.first; i < job.last; ++i)
                    local.push_back(1.0 / static_cast<double>(i + 1));
                if (job.waitTurn()) return;
                merged.insert(merged.begin(), local.begin(), local.end());  // reverse span order
                job.passTurn();
            }
        } engine(&manager);
        engine.init(threads);
        engine.setSpan(1000);
        engine.runJobs(0);
        double sum = 0;
        for (double v : engine.merged) sum += v;
        return std::make_pair(engine.merged, sum);
    };
    const auto one = run(1);
    ASSERT_EQ(one.first.size(), 1000u);
    for (int threads : {2, 3, 7, 16}) {
        const auto many = run(threads);
        EXPECT_EQ(many.first, one.first) << threads;
        EXPECT_EQ(many.second, one.second) << threads;
    }
}

TEST(MTJobs, LambdasRunOverRanges) {
    PosixThreadManager manager;
    std::vector<int> cells(10007, 0);
    MTFunction engine(&manager, 3);
    for (int pass = 1; pass <= 3; ++pass)
        EXPECT_TRUE(engine.forRange(cells.size(), [&](uint64_t first, uint64_t last, Job&) {
            for (uint64_t i = first; i < last; ++i) cells[i] += pass;
        }));
    for (int v : cells) ASSERT_EQ(v, 6);
    EXPECT_EQ(engine.numJobs, 3);

    std::vector<uint8_t> touched(333, 0);
    EXPECT_TRUE(parallelFor(touched.size(), [&](uint64_t first, uint64_t last, Job&) {
        for (uint64_t i = first; i < last; ++i) touched[i] = 1;
    }));
    for (uint8_t t : touched) ASSERT_EQ(t, 1);
}

TEST(MTJobs, RegistryFollowsTheLiveEngines) {
    const int before = MTJobs::liveEngines();
    {
        MTJobs a;
        EXPECT_EQ(MTJobs::liveEngines(), before + 1);
        {
            MTJobs b;
            EXPECT_EQ(MTJobs::liveEngines(), before + 2);
        }
        EXPECT_EQ(MTJobs::liveEngines(), before + 1);
    }
    EXPECT_EQ(MTJobs::liveEngines(), before);
    MTJobs again;
    EXPECT_EQ(MTJobs::liveEngines(), before + 1);
}

TEST(MTJobs, ShutdownReturnsThePoolThreadsForTheNextEngine) {
    PosixThreadManager manager;
    {
        MTJobs engine(&manager);
        engine.init(3);
        engine.runJobs(0);
        engine.shutdown();
        EXPECT_EQ(engine.numJobs, 0);
        EXPECT_EQ(engine.threadManager, nullptr);
        engine.init(2);  // again, on the manager it was given
        EXPECT_EQ(engine.threadManager, &manager);
        EXPECT_EQ(engine.numJobs, 2);
    }
    // The threads go idle once their jobs have left; the next engine reuses them.
    ASSERT_TRUE(manager.waitForIdleThreads(3));
    EXPECT_EQ(manager.idleThreads(), 3);
    MTJobs next(&manager);
    next.init(3);
    EXPECT_EQ(manager.poolSize(), 3);
}

TEST(MTJobs, WithoutAManagerOneJobRunsOnTheCallersThread) {
    // Take every manager off the global stack for the duration of the test.
    std::vector<ThreadManager*> saved;
    while (ThreadManager* top = getGlobalThreadManager()) {
        saved.push_back(top);
        releaseGlobalThreadManager();
    }
    setenv("LUMO_DEBUG_OUTPUT", "1", 1);
    testing::internal::CaptureStderr();
    Recorder engine;
    engine.init(2);
    const std::string printed = testing::internal::GetCapturedStderr();
    unsetenv("LUMO_DEBUG_OUTPUT");

    EXPECT_NE(printed.find("Using MTJobs without a thread manager. The code will run in single "
                           "threaded mode\n"),
              std::string::npos);
    EXPECT_NE(printed.find("Please check the MTRecorder implementation.\n"), std::string::npos);
    EXPECT_NE(printed.find("Using MTJobs without threadmanager with 'threads' != -1!When the "
                           "thread manager is missing 'threads' value is FORCED to 1.This may "
                           "BREAK YOUR code!\n"),
              std::string::npos);
    EXPECT_EQ(engine.threadManager, nullptr);
    ASSERT_EQ(engine.numJobs, 1);

    engine.setSpan(9);
    EXPECT_EQ(engine.jobs->count, 9u);
    engine.runJobs(4);
    ASSERT_EQ(engine.modes.size(), 1u);
    EXPECT_EQ(engine.threads[0], std::this_thread::get_id());
    engine.runFunction(nullptr, nullptr);  // nothing runs without a context
    EXPECT_EQ(engine.modes.size(), 1u);
    EXPECT_FALSE(engine.barrier());
    EXPECT_FALSE(engine.jobs->waitTurn());
    engine.jobs->passTurn();
    EXPECT_EQ(engine.turn.load(), 0);

    // Lambdas still run, single threaded.
    uint64_t sum = 0;
    EXPECT_TRUE(parallelFor(10, [&](uint64_t first, uint64_t last, Job&) {
        for (uint64_t i = first; i < last; ++i) sum += i;
    }));
    EXPECT_EQ(sum, 45u);

    for (auto it = saved.rbegin(); it != saved.rend(); ++it) setGlobalThreadManager(*it);
    EXPECT_EQ(getGlobalThreadManager(), saved.empty() ? nullptr : saved.front());
}

TEST(MTJobs, DefaultEngineTakesTheProcessManager) {
    MTJobs engine;
    engine.init();
    EXPECT_EQ(engine.threadManager, getGlobalThreadManager());
    EXPECT_NE(engine.threadManager, nullptr);
    EXPECT_EQ(engine.numJobs, globalThreadCount());
}
