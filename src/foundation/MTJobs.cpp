// The job engine: job loop, passes, spans, barrier, turn order, joining, and the registry.
#include "foundation/MTJobs.h"

#include <mutex>
#include <vector>

#include "foundation/log.h"
#include "foundation/sys/threads.h"

namespace vaporix {

namespace {

// How long an idle job sleeps between looks at its exit event.
constexpr int JOB_IDLE_WAIT_MS = 1;
// How often a caller waiting for its jobs reports progress.
constexpr int PROGRESS_POLL_MS = 10;
// How long a deleted job is given to leave its thread before that is logged.
constexpr int JOB_EXIT_WAIT_MS = 100;
// Slices of the barrier's waits, between which the abort test runs.
constexpr int BARRIER_SLICE_MS = 5;

// The registry of live engines. Engines may be made on several threads at once (a frame's
// channels expand under separate locks), so it has a lock of its own.
std::mutex& registryMutex() {
    static std::mutex* m = new std::mutex;
    return *m;
}
iArray<MTJobs*>* gRegistry = nullptr;

uint32_t jobBit(const Job& job) { return 1u << (static_cast<uint32_t>(job.index) % 32u); }

}  // namespace

namespace internal {
int enginesUsing(const ThreadManager* manager) {
    std::lock_guard<std::mutex> lock(registryMutex());
    int n = 0;
    if (gRegistry)
        for (MTJobs* engine : *gRegistry)
            n += engine->threadManager == manager && engine->numJobs > 0;
    return n;
}
}  // namespace internal

// ---------------------------------------------------------------------------------------------
// Job

void Job::run(void* /*data*/) {
    for (;;) {
        if (startEvent.wait(JOB_IDLE_WAIT_MS)) {
            MTJobs* o = owner;
            if (o->functionContext)
                o->function(o->functionContext, *this, o);
            else
                o->jobProc(*this);
            if (joining) o->joinFinished.fetch_or(jobBit(*this));
            doneEvent.set();
        }
        if (exitEvent.wait(0)) {
            exitedEvent.set();
            return;
        }
    }
}

const char* Job::getName() { return owner ? owner->getName() : "MTJobWithoutOwner"; }

Job::~Job() {
    delete next;
    next = nullptr;
    if (!owner || !owner->threadManager || !mStarted) return;
    exitEvent.set();
    if (exitedEvent.wait(JOB_EXIT_WAIT_MS)) return;
    lumoLog("#job of %s did not exit properly\n", owner->name ? owner->name : "");
    // The job's thread still runs inside this object: freeing it now would pull the memory
    // from under that thread, so wait for it however long it takes.
    exitedEvent.wait(sys::Event::INFINITE_WAIT);
}

bool Job::waitTurn() {
    if (!owner || owner->turn.load() == index) return false;
    for (;;) {
        if (exitEvent.wait(0)) {
            exitEvent.set();  // the job loop must still see it
            return true;
        }
        if (owner->isAborted()) return true;
        if (owner->turn.load() == index) return false;
        sys::yieldThread();
    }
}

void Job::passTurn() {
    if (!owner) return;
    if (owner->turn.fetch_add(1) + 1 == owner->numJobs) owner->turn.store(0);
}

// ---------------------------------------------------------------------------------------------
// MTJobs

MTJobs::MTJobs(ThreadManager* manager) : threadManager(manager), mGivenManager(manager) {
    std::lock_guard<std::mutex> lock(registryMutex());
    if (!gRegistry) gRegistry = new iArray<MTJobs*>(0, 4);
    gRegistry->append(this);
}

MTJobs::~MTJobs() {
    shutdown();
    std::lock_guard<std::mutex> lock(registryMutex());
    if (!gRegistry) return;
    const int at = gRegistry->find(this);
    if (at >= 0) gRegistry->removeRange(at, 1, true);
    if (gRegistry->count == 0) {
        delete gRegistry;
        gRegistry = nullptr;
    }
}

int MTJobs::liveEngines() {
    std::lock_guard<std::mutex> lock(registryMutex());
    return gRegistry ? gRegistry->count : 0;
}

void MTJobs::jobProc(Job& /*job*/) {}

const char* MTJobs::getName() const { return "MTJob"; }

bool MTJobs::isAborted() { return progress && progress->checkAbort() != 0; }

Job* MTJobs::createJob() { return new (std::nothrow) Job; }

void MTJobs::joinJob(Job& /*job*/) {}

int MTJobs::defaultThreads() { return globalThreadCount(); }

void MTJobs::init(int threads) {
    if (jobs) return;
    if (!threadManager) threadManager = mGivenManager ? mGivenManager : getGlobalThreadManager();
    name = getName();
    int count = 1;
    if (threadManager) {
        threadManager->setLowPriority(true);
        count = threads == -1 ? defaultThreads() : threads;
    } else {
        lumoDebugOutput(
            "Using MTJobs without a thread manager. The code will run in single threaded mode\n");
        lumoDebugOutput("Please check the %s implementation.\n", name);
        if (threads != -1)
            lumoDebugOutput(
                "Using MTJobs without threadmanager with 'threads' != -1!When the thread manager "
                "is missing 'threads' value is FORCED to 1.This may BREAK YOUR code!\n");
    }
    bool failed = false;
    for (int i = 0; i < count; ++i) {
        Job* job = createJob();
        if (!job) {
            failed = true;
            break;
        }
        job->owner = this;
        job->next = jobs;
        jobs = job;
        job->index = i;
        ++numJobs;
        if (threadManager) {
            job->mStarted = threadManager->startThread(job, nullptr);
            if (!job->mStarted) {
                failed = true;
                break;
            }
        }
    }
    if (!failed) return;

    // Threads or jobs could not be had: one job on the caller's thread still does the work.
    lumoLog("#%s could not start its jobs, running single threaded\n", name);
    shutdown();
    if (Job* job = createJob()) {
        job->owner = this;
        job->index = 0;
        jobs = job;
        numJobs = 1;
    }
}

void MTJobs::shutdown() {
    // Ask every job to leave first, so that they leave together rather than one by one.
    if (threadManager)
        for (Job* job = jobs; job; job = job->next)
            if (job->mStarted) job->exitEvent.set();
    delete jobs;
    jobs = nullptr;
    numJobs = 0;
    threadManager = nullptr;
}

void MTJobs::setSpan(uint64_t total) {
    uint64_t previous = 0;
    int32_t k = 1;
    for (Job* job = jobs; job; job = job->next, ++k) {
        // 128-bit product: k * total may pass 64 bits for very long ranges.
        const uint64_t end = k == numJobs
                                 ? total
                                 : static_cast<uint64_t>(static_cast<unsigned __int128>(k) * total /
                                                         static_cast<unsigned>(numJobs));
        job->first = previous;
        job->count = end - previous;
        job->last = end;
        previous = end;
    }
}

void MTJobs::startPass(ProgressCallback* callback) {
    progress = callback;
    turn.store(0);
    doneUnits.store(0);
    // An aborted pass may have left jobs half way through a barrier.
    barrierCount.store(0);
    barrierEnter.reset();
    barrierLeave.reset();
}

void MTJobs::waitForJobs() {
    for (Job* job = jobs; job; job = job->next) {
        if (!job->mStarted) continue;
        while (!job->doneEvent.wait(PROGRESS_POLL_MS)) {
            if (progress) {
                progress->setProgress(doneUnits.load());
                progress->pump();
            }
        }
    }
}

void MTJobs::runJobs(uint32_t mode, ProgressCallback* callback) {
    startPass(callback);
    function = nullptr;
    functionContext = nullptr;
    for (Job* job = jobs; job; job = job->next) {
        job->mode = mode;
        job->joining = false;
        if (threadManager && job->mStarted) {
            job->doneEvent.reset();
            job->startEvent.set();
        } else {
            jobProc(*job);
        }
    }
    if (threadManager) waitForJobs();
}

void MTJobs::runFunction(void* context, JobFunction fn, ProgressCallback* callback) {
    startPass(callback);
    function = fn;
    functionContext = context;
    for (Job* job = jobs; job; job = job->next) {
        job->joining = false;
        if (threadManager && job->mStarted) {
            job->doneEvent.reset();
            job->startEvent.set();
        } else if (context) {
            fn(context, *job, this);
        }
    }
    if (threadManager) waitForJobs();
}

void MTJobs::runJoining(uint32_t mode, ProgressCallback* callback) {
    startPass(callback);
    function = nullptr;
    functionContext = nullptr;
    joinRequests.store(0);
    joinFinished.store(0);
    uint32_t all = 0;
    int running = 0;
    for (Job* job = jobs; job; job = job->next) {
        job->mode = mode;
        job->joining = true;
        if (job->owner != this) job->owner = this;
        if (threadManager && job->mStarted) {
            job->doneEvent.reset();
            job->startEvent.set();
            all |= jobBit(*job);
            ++running;
        } else {
            jobProc(*job);
            joinJob(*job);
        }
    }
    if (!threadManager) return;
    // Serve join requests until every job has reported that it is done. A job reports with its
    // bit (which `syncJoin(job, true)` may set before the job has left `jobProc`) and then with
    // its done event, which alone says that it no longer touches this pass.
    std::vector<Job*> active;
    for (Job* job = jobs; job; job = job->next)
        if (job->mStarted) active.push_back(job);
    while (running > 0 || joinFinished.load() != all) {
        const uint32_t requests = joinRequests.load();
        if (requests) {
            for (Job* job = jobs; job; job = job->next) {
                const uint32_t bit = jobBit(*job);
                if (!(requests & bit)) continue;
                joinJob(*job);
                joinRequests.fetch_and(~bit);
                job->startEvent.set();
            }
            continue;
        }
        for (Job*& job : active)
            if (job && job->doneEvent.wait(0)) {
                job = nullptr;
                --running;
            }
        sys::yieldThread();
    }
}

void MTJobs::syncJoin(Job& job, bool last) {
    if (!threadManager || !job.mStarted) {
        joinJob(job);
        return;
    }
    if (last) {
        joinFinished.fetch_or(jobBit(job));
        return;
    }
    job.startEvent.reset();
    joinRequests.fetch_or(jobBit(job));
    job.startEvent.wait(sys::Event::INFINITE_WAIT);
}

bool MTJobs::waitSlice(sys::Event& event) {
    while (!event.wait(BARRIER_SLICE_MS))
        if (isAborted()) return false;
    return true;
}

bool MTJobs::barrier() {
    if (isAborted()) return true;
    if (barrierCount.fetch_add(1) + 1 == numJobs) {
        barrierLeave.reset();
        barrierEnter.set();
    }
    if (isAborted()) return true;
    if (!waitSlice(barrierEnter) || isAborted()) return true;
    if (barrierCount.fetch_sub(1) - 1 == 0) {
        barrierEnter.reset();
        barrierLeave.set();
    }
    if (isAborted()) return true;
    if (!waitSlice(barrierLeave)) return true;
    return isAborted();
}

}  // namespace vaporix
