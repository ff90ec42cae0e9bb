// The job engine: a fixed chain of jobs parked on pool threads that run passes over an index
// range, with barriers, turn order, a joining style and a way to run a function or lambda.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

#include "foundation/ProgressCallback.h"
#include "foundation/ThreadManager.h"
#include "foundation/iArray.h"
#include "foundation/sys/Event.h"

namespace vaporix {

class MTJobs;

/// One worker of an engine. It runs on a pool thread for the whole life of its engine and wakes
/// for each pass. Derive from it to keep per-thread state (see `MTJobs::createJob`).
class Job : public ThreadProcedure {
public:
    /// This job's span of the index range: [first, last), `count` = last - first.
    uint64_t first = 0;
    uint64_t count = 1;
    uint64_t last = 0;
    /// The pass's mode number.
    uint32_t mode = 0;
    /// Position of the job, 0 for the first created (which holds the end of the range).
    int32_t index = 0;
    MTJobs* owner = nullptr;
    /// The chain, owned: deleting a job first deletes its successor.
    Job* next = nullptr;
    /// True while a joining-style pass runs.
    bool joining = false;
    sys::Event startEvent{false};
    sys::Event doneEvent{false};
    sys::Event exitEvent{false};
    sys::Event exitedEvent{false};

    Job() = default;
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    /// The job's loop on its pool thread: wait for a pass, run it, report, until asked to leave.
    void run(void* data) override;
    /// The owner's name, or "MTJobWithoutOwner".
    const char* getName() override;
    /// Deletes the rest of the chain, then asks the job to leave and waits for it.
    ~Job() override;

    /// Blocks until it is this job's turn. @return true when the job must stop instead (abort,
    /// or the job is asked to leave).
    bool waitTurn();
    /// Gives the turn to the next job (after the last, back to job 0).
    void passTurn();

private:
    friend class MTJobs;
    // False when no pool thread could be had for the job: its passes then run on the caller.
    bool mStarted = false;
};

/// Empty base of the engines.
class MTBase {};

/// A data-parallel engine. Derive and override `jobProc`, or hand `runFunction` a function.
///
///     init(threads); setSpan(total); runJobs(mode, progress);  // any number of passes
///
/// Without a thread manager (none given and none on the global stack) the engine has one job
/// and runs it on the caller's thread.
class MTJobs : public MTBase {
public:
    /// Signature of a free function run by `runFunction`.
    using JobFunction = void (*)(void* context, Job& job, MTJobs* engine);

    std::atomic<int32_t> barrierCount{0};
    sys::Event barrierEnter{true};
    sys::Event barrierLeave{true};
    /// Units finished in this pass: workers add to it (`addDone`), the waiting caller reports it.
    std::atomic<uint32_t> doneUnits{0};
    int32_t numJobs = 0;
    JobFunction function = nullptr;
    void* functionContext = nullptr;
    ProgressCallback* progress = nullptr;
    const char* name = nullptr;
    /// Head of the chain: the job created last.
    Job* jobs = nullptr;
    std::atomic<int32_t> turn{0};
    std::atomic<uint32_t> joinRequests{0};
    std::atomic<uint32_t> joinFinished{0};
    /// Null: the jobs run on the caller's thread.
    ThreadManager* threadManager = nullptr;

    explicit MTJobs(ThreadManager* manager = nullptr);
    virtual ~MTJobs();
    MTJobs(const MTJobs&) = delete;
    MTJobs& operator=(const MTJobs&) = delete;

    /// The parallel body; does nothing by default.
    virtual void jobProc(Job& job);
    /// Class name for messages; "MTJob" by default.
    virtual const char* getName() const;
    /// Whether the progress callback asks to stop (false without one).
    virtual bool isAborted();
    /// Makes one job; override to hand out a subclass of Job with per-thread state.
    virtual Job* createJob();
    /// The body that the joining style runs on the caller's thread.
    virtual void joinJob(Job& job);
    /// Job count of `init(-1)`: the global thread count.
    virtual int defaultThreads();

    /// Creates the jobs (`threads` of them, or `defaultThreads()` for exactly -1) unless they
    /// exist. Without a thread manager the count is 1 whatever was asked.
    void init(int threads = -1);
    /// Divides [0, total) among the jobs; the job created last gets the beginning.
    void setSpan(uint64_t total);
    /// A pass in which each job calls `jobProc`.
    void runJobs(uint32_t mode, ProgressCallback* progress = nullptr);
    /// A pass in which each job calls `function(context, job, this)`; a null `context` runs
    /// `jobProc` instead (and nothing at all without a thread manager).
    void runFunction(void* context, JobFunction function, ProgressCallback* progress = nullptr);
    /// A pass in which each job calls `jobProc` and `joinJob` runs on the caller's thread,
    /// whenever a job asks for it through `syncJoin`.
    void runJoining(uint32_t mode, ProgressCallback* progress = nullptr);

    /// From `jobProc`: all jobs meet here. @return true when the pass was aborted (leave
    /// `jobProc` then: the others are freed only by their own abort checks).
    bool barrier();
    /// From `jobProc` in the joining style: has `joinJob(job)` run on the caller's thread and
    /// waits for it; `last` instead reports that this job is done with joining.
    void syncJoin(Job& job, bool last);
    /// From `jobProc`: adds finished units to the pass's progress.
    void addDone(uint32_t units) { doneUnits.fetch_add(units); }

    /// Deletes the chain (the jobs leave their threads) and forgets the manager; `init` may run
    /// again afterwards.
    void shutdown();

    /// Engines alive now (the registry's length, 0 when it does not exist).
    static int liveEngines();

private:
    // The manager given to the constructor, taken again by `init` after a shutdown.
    ThreadManager* mGivenManager = nullptr;
    void startPass(ProgressCallback* callback);
    void waitForJobs();
    bool waitSlice(sys::Event& event);
};

/// An engine that runs lambdas over index ranges. Keep one for repeated passes: its jobs and
/// threads are made once.
///
///     MTFunction engine;
///     engine.forRange(n, [&](uint64_t first, uint64_t last, Job& job) { ... });
class MTFunction : public MTJobs {
public:
    explicit MTFunction(ThreadManager* manager = nullptr, int threads = -1)
        : MTJobs(manager), mThreads(threads) {}
    const char* getName() const override { return "MTFunction"; }

    /// Runs `body(first, last, job)` for each job's span of [0, total), creating the jobs on first
    /// use. @return false when the pass was aborted.
    template <typename F>
    bool forRange(uint64_t total, F&& body, ProgressCallback* callback = nullptr) {
        using Body = std::remove_reference_t<F>;
        init(mThreads);
        setSpan(total);
        runFunction(
            const_cast<void*>(static_cast<const void*>(&body)),
            [](void* context, Job& job, MTJobs*) {
                if (job.count) (*static_cast<Body*>(context))(job.first, job.last, job);
            },
            callback);
        return !isAborted();
    }

private:
    int mThreads;
};

/// Runs `body(first, last, job)` over [0, total) on a temporary engine of `threads` jobs
/// (-1: the global count). Passes that repeat should keep an MTFunction instead.
template <typename F>
bool parallelFor(uint64_t total, F&& body, int threads = -1, ProgressCallback* callback = nullptr) {
    MTFunction engine(nullptr, threads);
    return engine.forRange(total, std::forward<F>(body), callback);
}

}  // namespace vaporix
