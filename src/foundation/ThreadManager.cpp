// POSIX thread pool: pool threads with command queues, bulk runs with completion records,
// NUMA-aware pinning, and the process-wide manager with its global stack.
#include "foundation/ThreadManager.h"

#include <bit>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <new>
#include <stdexcept>
#include <vector>

#include "foundation/SequenceBlock.h"
#include "foundation/iArray.h"
#include "foundation/log.h"
#include "foundation/sys/CriticalSection.h"
#include "foundation/sys/Event.h"
#include "foundation/sys/ThreadLocalSlot.h"
#include "foundation/sys/numa.h"
#include "foundation/sys/threads.h"

namespace vaporix {
namespace LUtils {

namespace {

// Status of a pool thread.
enum ThreadStatus : int {
    STATUS_IDLE = 0,
    STATUS_RUNNING = 1,
    STATUS_LEFT = 2,
    STATUS_RESERVED = 3,
    STATUS_CREATING = 4,
};

// Commands of a pool thread's queue.
enum Command : int {
    COMMAND_RUN_SHARED = 4096,
    COMMAND_TERMINATE = 4097,
    COMMAND_RUN_PROCEDURE = 4098,
};

// How long terminateAll waits for one thread to leave, and how often it looks.
constexpr int TERMINATE_WAIT_MS = 2000;
// How often a waiting bulk caller wakes to report progress and test for abort.
constexpr int BULK_POLL_MS = 200;
// Code of the information texts of bulk runs.
constexpr int INFO_CODE = 30000;

// A bulk run's count of threads still running and the event the last one signals.
struct CompletionRecord {
    std::atomic<int> running{0};
    sys::Event done{true};
    bool inUse = false;
};

}  // namespace

// One pool thread. Shared by the manager and the thread itself through a reference count that
// starts at 1 (the manager's) and is raised to 2 by the thread when it starts.
struct PoolThread {
    ThreadShared* shared = nullptr;
    std::atomic<uint32_t>* counter = nullptr;
    int index = 0;
    std::atomic<int> status{STATUS_CREATING};
    sys::ThreadHandle handle;
    CompletionRecord* record = nullptr;
    int threadCount = 0;
    PosixThreadManager::Impl* manager = nullptr;
    ThreadProcedure* procedure = nullptr;
    void* data = nullptr;
    std::deque<int> commands;
    sys::Event wakeUp{false};
    sys::CriticalSection lock;
    std::atomic<int> references{1};

    // Scheduling wishes of the caller, applied by the thread itself when it takes a command.
    bool lowPriority = false;
    int pinGroup = -1;  // -1: the process mask
    uint64_t pinMask = 0;
    // What the thread has applied so far (its own business only).
    int tid = 0;
    int appliedPriority = -1;
    int appliedGroup = -2;
    uint64_t appliedMask = 0;

    void release() {
        if (references.fetch_sub(1) == 1) delete this;
    }
    void queue(int command) {
        {
            sys::ScopedSpinLock guard(lock);
            commands.push_back(command);
        }
        wakeUp.set();
    }
};

struct PosixThreadManager::Impl {
    SequenceBlockList<PoolThread*> pool;
    SequenceBlockList<CompletionRecord*> records;
    sys::CriticalSection lock;
    bool lowPriority = false;
    size_t stackSize = 0;
    sys::ThreadLocalSlot slot;
    bool useAffinity = true;
    sys::ProcessorMask processMask;
    std::string numaRoot = "/sys/devices/system/node";

    std::vector<NodeRow> nodes;
    int nodeRows = -1;  // -1 until the table was built
    int nonEmptyNodes = 0;
    uint32_t totalProcessors = 0;

    // Signalled each time a pool thread becomes idle, for waitForIdleThreads.
    std::mutex idleMutex;
    std::condition_variable idleChanged;
    void announceIdle(PoolThread& t);

    PoolThread* obtainThread(ProgressCallback* progress);
    void buildNodeTable();
    static void threadMain(void* argument);
    void applySchedule(PoolThread& t);
};

namespace {

void announceName(const char* name) {
    if (name && *name) sys::setCurrentThreadName(name);
}

// Appends to one of the manager's lists. A block that cannot be allocated is logged and
// reported as false, so that the list's exception never leaves the manager.
template <typename T>
bool pushToPool(SequenceBlockList<T>& list, T value) {
    try {
        list.push(value);
        return true;
    } catch (const std::exception& e) {
        lumoLog("#%s\n", e.what());
        return false;
    }
}

}  // namespace

void PosixThreadManager::Impl::applySchedule(PoolThread& t) {
    const int wantPriority = t.lowPriority ? 1 : 0;
    if (wantPriority != t.appliedPriority) {
        sys::setThreadPriority(t.tid, t.lowPriority);
        t.appliedPriority = wantPriority;
    }
    if (!useAffinity) return;
    if (t.pinGroup == t.appliedGroup && (t.pinGroup < 0 || t.pinMask == t.appliedMask)) return;
    // Each pool thread pins itself, when it takes its next command.
    if (t.pinGroup < 0) {
        // Only a thread that was pinned before needs its mask back.
        if (t.appliedGroup >= 0 && !processMask.empty()) sys::setCurrentThreadAffinity(processMask);
    } else {
        sys::ProcessorMask mask(static_cast<size_t>(t.pinGroup) + 1, 0);
        mask[static_cast<size_t>(t.pinGroup)] = t.pinMask;
        sys::setCurrentThreadAffinity(mask);
    }
    t.appliedGroup = t.pinGroup;
    t.appliedMask = t.pinMask;
}

void PosixThreadManager::Impl::announceIdle(PoolThread& t) {
    t.status.store(STATUS_IDLE);
    // Taking the lock orders the store before a waiter's next look at the statuses.
    { std::lock_guard<std::mutex> guard(idleMutex); }
    idleChanged.notify_all();
}

void PosixThreadManager::Impl::threadMain(void* argument) {
    PoolThread* t = static_cast<PoolThread*>(argument);
    t->references.fetch_add(1);
    t->tid = sys::currentThreadId();
    t->manager->slot.set(t);
    t->status.store(STATUS_RESERVED);
    for (;;) {
        // Take the next command; with none, sleep until one is queued.
        int command = 0;
        bool have = false;
        {
            sys::ScopedSpinLock guard(t->lock);
            if (!t->commands.empty()) {
                command = t->commands.front();
                t->commands.pop_front();
                have = true;
            } else {
                t->wakeUp.reset();
            }
        }
        if (!have) {
            t->wakeUp.wait(sys::Event::INFINITE_WAIT);
            continue;
        }
        switch (command) {
            case COMMAND_RUN_SHARED: {
                t->status.store(STATUS_RUNNING);
                t->manager->applySchedule(*t);
                ThreadShared* shared = t->shared;
                if (shared->result.load() == 0) {
                    announceName(shared->getName());
                    shared->procedure(t->index, t->threadCount, *t->counter);
                }
                CompletionRecord* record = t->record;
                t->manager->announceIdle(*t);
                if (record->running.fetch_sub(1) == 1) record->done.set();
                break;
            }
            case COMMAND_RUN_PROCEDURE: {
                t->status.store(STATUS_RUNNING);
                t->manager->applySchedule(*t);
                ThreadProcedure* procedure = t->procedure;
                announceName(procedure->getName());
                procedure->run(t->data);
                t->manager->announceIdle(*t);
                break;
            }
            case COMMAND_TERMINATE:
                lumoDebugOutput("[WinThreadManager] Terminating thread %i\n", t->index);
                t->status.store(STATUS_LEFT);
                t->release();
                lumoDebugOutput("[WinThreadManager] Thread is terminating\n");
                return;
            default:
                break;  // unknown commands are ignored
        }
    }
}

PoolThread* PosixThreadManager::Impl::obtainThread(ProgressCallback* progress) {
    PoolThread* found = nullptr;
    PoolThread* fresh = nullptr;
    {
        sys::ScopedSpinLock guard(lock);
        pool.forEach([&](PoolThread* t) {
            if (found) return;
            int idle = STATUS_IDLE;
            if (t->status.compare_exchange_strong(idle, STATUS_RESERVED)) found = t;
        });
        if (!found) {
            fresh = new (std::nothrow) PoolThread;
            if (fresh) {
                fresh->manager = this;
                fresh->index = pool.size();
                if (!pushToPool(pool, fresh)) {
                    delete fresh;
                    fresh = nullptr;
                }
            }
        }
    }
    if (found) return found;
    if (!fresh) return nullptr;
    if (!sys::startThread(&Impl::threadMain, fresh, stackSize, fresh->handle)) {
        // Leave the state in the pool as a thread that has left, so that nothing waits on it.
        fresh->status.store(STATUS_LEFT);
        return nullptr;
    }
    if (progress && progress->servesMessages()) {
        while (fresh->status.load() == STATUS_CREATING) {
            progress->pump();
            sys::sleepMilliseconds(1);
        }
    }
    return fresh;
}

void PosixThreadManager::Impl::buildNodeTable() {
    nodes.clear();
    nonEmptyNodes = 0;
    totalProcessors = 0;
    nodeRows = 0;
    if (!useAffinity) return;
    // One row per node and group of 64 processors, limited to what the process may use.
    uint32_t total = 0;
    for (const sys::NumaNode& node : sys::enumerateNumaNodes(numaRoot)) {
        bool nodeHasProcessors = false;
        std::vector<uint64_t> groups;
        for (int p : node.processors) {
            const size_t g = static_cast<size_t>(p) / 64;
            if (!processMask.empty() &&
                (g >= processMask.size() || !((processMask[g] >> (p % 64)) & 1)))
                continue;
            if (groups.size() <= g) groups.resize(g + 1, 0);
            groups[g] |= uint64_t(1) << (p % 64);
        }
        for (size_t g = 0; g < groups.size(); ++g) {
            if (!groups[g]) continue;
            total += static_cast<uint32_t>(std::popcount(groups[g]));
            nodes.push_back(NodeRow{static_cast<uint16_t>(g), groups[g], total});
            nodeHasProcessors = true;
        }
        if (nodeHasProcessors) ++nonEmptyNodes;
    }
    totalProcessors = total;
    nodeRows = static_cast<int>(nodes.size());
}

PosixThreadManager::PosixThreadManager() : PosixThreadManager(std::string()) {}

PosixThreadManager::PosixThreadManager(const std::string& numaRoot)
    : mImpl(std::make_unique<Impl>()) {
    if (!numaRoot.empty()) mImpl->numaRoot = numaRoot;
    mImpl->useAffinity = threadAffinityInUse();
    if (mImpl->useAffinity) sys::getProcessAffinity(mImpl->processMask);
    lumoDebugOutput("[WinThreadManager] Constructor.\n");
}

PosixThreadManager::~PosixThreadManager() {
    lumoDebugOutput("[WinThreadManager] Destructor.\n");
    terminateAll(false);
    mImpl->records.forEach([](CompletionRecord* r) { delete r; });
    mImpl->records.clear();
}

void PosixThreadManager::terminateAll(bool force) {
    Impl& m = *mImpl;
    std::vector<PoolThread*> threads;
    {
        sys::ScopedSpinLock guard(m.lock);
        m.pool.forEach([&](PoolThread* t) { threads.push_back(t); });
        m.pool.clear();
    }
    lumoDebugOutput("[WinThreadManager] Terminating %i threads\n",
                    static_cast<int>(threads.size()));
    for (PoolThread* t : threads) {
        sys::ThreadHandle handle = t->handle;
        if (handle.valid) {
            t->queue(COMMAND_TERMINATE);
            lumoDebugOutput("[WinThreadManager] Waiting for LGL thread to finish...\n");
            bool left = false;
            for (int waited = 0; waited < TERMINATE_WAIT_MS; ++waited) {
                if (t->status.load() == STATUS_LEFT) {
                    left = true;
                    break;
                }
                sys::sleepMilliseconds(1);
            }
            if (left) {
                sys::joinThread(handle);
            } else {
                // A thread cannot be killed safely here: it keeps its own reference to its
                // state and frees it whenever it leaves.
                lumoDebugOutput(
                    "[WinThreadManager] Thread did not terminate for the timeout interval\n");
                sys::detachThread(handle);
            }
            (void)force;
        }
        t->release();
    }
    lumoDebugOutput("[WinThreadManager] All threads terminated\n");
}

int PosixThreadManager::run(int threads,
                            ThreadShared* shared,
                            ProgressCallback* progress,
                            bool reportTotal) {
    Impl& m = *mImpl;
    if (!shared) return 0;
    shared->units.store(0);
    shared->result.store(0);
    const int n = threads > 0 ? threads : globalThreadCount();
    if (progress) {
        progress->info(0, INFO_CODE, "Setting up %i thread(s)\n", n);
        progress->begin();
    }
    const bool messages = progress && progress->servesMessages();

    // Node table, completion record and per-thread counters of this run. When memory runs out
    // for a pooled record, one of this call's own serves.
    CompletionRecord* record = nullptr;
    CompletionRecord unpooled;
    {
        sys::ScopedSpinLock guard(m.lock);
        if (m.nodeRows == -1) m.buildNodeTable();
        m.records.forEach([&](CompletionRecord* r) {
            if (!record && !r->inUse) record = r;
        });
        if (!record) {
            record = new (std::nothrow) CompletionRecord;
            if (record && !pushToPool(m.records, record)) {
                delete record;
                record = nullptr;
            }
        }
        if (!record) record = &unpooled;
        record->inUse = true;
    }
    record->running.store(n);
    record->done.reset();
    std::vector<std::atomic<uint32_t>> counters(static_cast<size_t>(n));

    // Hand out the threads; on NUMA machines they fill one node before the next.
    uint32_t processor = 0;
    int row = 0;
    for (int k = 0; k < n; ++k) {
        PoolThread* t = m.obtainThread(progress);
        if (!t) {
            // No thread: this share of the work is run here, in order.
            if (shared->result.load() == 0)
                shared->procedure(k, n, counters[static_cast<size_t>(k)]);
            if (record->running.fetch_sub(1) == 1) record->done.set();
            continue;
        }
        t->shared = shared;
        t->counter = &counters[static_cast<size_t>(k)];
        t->record = record;
        t->index = k;
        t->threadCount = n;
        t->procedure = nullptr;
        t->data = nullptr;
        t->lowPriority = m.lowPriority;
        t->pinGroup = -1;
        if (m.nonEmptyNodes > 1 && m.totalProcessors > 0) {
            while (row < m.nodeRows - 1 &&
                   processor >= m.nodes[static_cast<size_t>(row)].runningTotal)
                ++row;
            t->pinGroup = m.nodes[static_cast<size_t>(row)].group;
            t->pinMask = m.nodes[static_cast<size_t>(row)].mask;
            if (++processor >= m.totalProcessors) {
                processor = 0;
                row = 0;
            }
        }
        t->queue(COMMAND_RUN_SHARED);
    }

    // Wait, reporting and testing for abort every so often.
    while (!record->done.wait(BULK_POLL_MS)) {
        if (!progress) continue;
        if (messages) progress->pump();
        if (reportTotal) {
            uint64_t total = shared->units.load();
            for (auto& c : counters) total += c.load();
            progress->setProgress(total);
        }
        if (const int abort = progress->checkAbort()) shared->result.store(abort);
    }

    {
        sys::ScopedSpinLock guard(m.lock);
        record->inUse = false;
    }
    if (progress) {
        progress->end();
        progress->info(0, INFO_CODE, "Threads completed\n");
        if (messages) progress->pump();
    }
    return shared->result.load();
}

void PosixThreadManager::setLowPriority(bool flag) { mImpl->lowPriority = flag; }

bool PosixThreadManager::startThread(ThreadProcedure* procedure, void* data) {
    if (!procedure) return false;
    PoolThread* t = mImpl->obtainThread(nullptr);
    if (!t) return false;
    t->procedure = procedure;
    t->data = data;
    t->shared = nullptr;
    t->counter = nullptr;
    t->record = nullptr;
    t->threadCount = 1;
    t->index = 0;
    t->lowPriority = mImpl->lowPriority;
    t->pinGroup = -1;  // back to the process mask: an earlier bulk run may have pinned it
    t->queue(COMMAND_RUN_PROCEDURE);
    return true;
}

void PosixThreadManager::setStackSize(size_t bytes) { mImpl->stackSize = bytes; }

int PosixThreadManager::currentThreadIndex() {
    const PoolThread* t = static_cast<const PoolThread*>(mImpl->slot.get());
    return t ? t->index : -1;
}

int PosixThreadManager::poolSize() {
    sys::ScopedSpinLock guard(mImpl->lock);
    return mImpl->pool.size();
}

int PosixThreadManager::idleThreads() {
    sys::ScopedSpinLock guard(mImpl->lock);
    int idle = 0;
    mImpl->pool.forEach([&](PoolThread* t) { idle += t->status.load() == STATUS_IDLE; });
    return idle;
}

bool PosixThreadManager::waitForIdleThreads(int count, int timeoutMs) {
    std::unique_lock<std::mutex> guard(mImpl->idleMutex);
    return mImpl->idleChanged.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                                       [&] { return idleThreads() >= count; });
}

}  // namespace LUtils

// ---------------------------------------------------------------------------------------------
// Global state: the stack of managers, the process-wide manager, the thread count.

namespace {

// Guards the stack; engines may be made on several threads at once in this system's tools.
std::mutex& stackMutex() {
    static std::mutex* m = new std::mutex;
    return *m;
}
iArray<ThreadManager*>* gStack = nullptr;
bool gStackEverUsed = false;
ThreadManager* gProcessManager = nullptr;

}  // namespace

namespace internal {
// Live engines that use `manager` (kept in MTJobs.cpp, where the registry lives).
int enginesUsing(const ThreadManager* manager);
}  // namespace internal

namespace {

void pushLocked(ThreadManager* manager) {
    gStackEverUsed = true;
    if (!gStack) gStack = new iArray<ThreadManager*>(0, 4);
    gStack->append(manager);
}

void releaseProcessManagerAtExit() {
    ThreadManager* manager = nullptr;
    {
        std::lock_guard<std::mutex> lock(stackMutex());
        manager = gProcessManager;
        if (!manager) return;
        if (gStack) {
            for (int i = gStack->count - 1; i >= 0; --i)
                if (gStack->data[i] == manager) gStack->removeRange(i, 1, true);
            if (gStack->count == 0) {
                delete gStack;
                gStack = nullptr;
            }
        }
        // An engine that outlives main (a static object) still has threads of this manager;
        // they end with the process.
        if (internal::enginesUsing(manager) > 0) return;
        gProcessManager = nullptr;
    }
    delete manager;
}

}  // namespace

void setGlobalThreadManager(ThreadManager* manager) {
    std::lock_guard<std::mutex> lock(stackMutex());
    pushLocked(manager);
}

ThreadManager* getGlobalThreadManager() {
    {
        std::lock_guard<std::mutex> lock(stackMutex());
        if (gStackEverUsed) return gStack && gStack->count ? gStack->last() : nullptr;
    }
    ThreadManager* manager = processThreadManager();
    std::lock_guard<std::mutex> lock(stackMutex());
    if (!gStackEverUsed) pushLocked(manager);
    return gStack && gStack->count ? gStack->last() : nullptr;
}

void releaseGlobalThreadManager() {
    std::lock_guard<std::mutex> lock(stackMutex());
    if (!gStack) return;
    gStack->resize(gStack->count - 1);
    if (gStack->count == 0) {
        delete gStack;
        gStack = nullptr;
    }
}

ThreadManager* processThreadManager() {
    std::lock_guard<std::mutex> lock(stackMutex());
    if (!gProcessManager) {
        gProcessManager = new PosixThreadManager;
        std::atexit(releaseProcessManagerAtExit);
    }
    return gProcessManager;
}

bool threadAffinityInUse() {
    const char* value = std::getenv("LUMO_USE_THREAD_AFFINITY");
    if (!value) return true;
    return static_cast<uint32_t>(std::atol(value)) != 0;
}

int computeThreadCount() {
    if (const char* value = std::getenv("LUMO_NUM_THREADS")) {
        const int n = std::atoi(value);
        if (n >= 1) return n;
    }
    if (threadAffinityInUse()) {
        int sum = 0;
        for (const sys::NumaNode& node : sys::enumerateNumaNodes())
            sum += static_cast<int>(node.processors.size());
        if (sum > 0) return sum;
    }
    return sys::processorCount();
}

int globalThreadCount() {
    static const int count = computeThreadCount();
    return count;
}

namespace {
// The global thread count is fixed while the library's static data are set up, from the
// environment as the process started with it.
[[maybe_unused]] const int gThreadCountAtLoad = globalThreadCount();
}  // namespace

int effectiveThreadCount() {
    const int global = globalThreadCount();
    sys::ProcessorMask mask;
    if (!sys::getProcessAffinity(mask)) return global;
    const int allowed = sys::countProcessors(mask);
    if (allowed == 0) return global;
    return allowed < global ? allowed : global;
}

}  // namespace vaporix
