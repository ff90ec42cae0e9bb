// The thread pool of the job engine, the global stack of managers and the global thread count.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/ProgressCallback.h"

namespace vaporix {
namespace LUtils {

/// What a pool thread runs in the long-running style.
class ThreadProcedure {
public:
    /// The thread's body; `data` is what `startThread` was given.
    virtual void run(void* data) = 0;
    /// Name announced for the thread while it runs this procedure, or null.
    virtual const char* getName() { return nullptr; }
    virtual ~ThreadProcedure() = default;
};

/// The shared block of a bulk run: one procedure run by N threads at once.
class ThreadShared {
public:
    virtual ~ThreadShared() = default;
    /// Body of thread `index` of `threadCount`. `counter` is this thread's own unit counter,
    /// reported (with `units`) while the caller waits.
    virtual void procedure(int index, int threadCount, std::atomic<uint32_t>& counter) = 0;
    /// Name announced for the threads, or null.
    virtual const char* getName() { return nullptr; }

    /// Units done, shared by all threads; zeroed by `run`.
    std::atomic<uint32_t> units{0};
    /// Non-zero once the run was aborted; threads that have not started yet then skip the body.
    std::atomic<int> result{0};
};

/// A pool of threads. Pool threads are made on demand and kept for later use.
class ThreadManager {
public:
    virtual ~ThreadManager() = default;
    /// Asks every pool thread to leave and forgets them. With `force`, threads that do not leave
    /// in time are abandoned without waiting for them again.
    virtual void terminateAll(bool force) = 0;
    /// Runs `shared->procedure` on `threads` pool threads (0: the global thread count) and waits
    /// for all of them. @return the shared result word (non-zero when aborted).
    virtual int run(int threads,
                    ThreadShared* shared,
                    ProgressCallback* progress,
                    bool reportTotal) = 0;
    /// Threads taken from now on run below normal priority.
    virtual void setLowPriority(bool flag) = 0;
    /// Runs `procedure->run(data)` on a pool thread and returns at once.
    /// @return false when no thread could be had.
    virtual bool startThread(ThreadProcedure* procedure, void* data) = 0;
    /// Stack size of new pool threads; 0 keeps the platform's default.
    virtual void setStackSize(size_t bytes) = 0;
    /// Index of the calling pool thread in its bulk run, 0 in the long-running style, -1 for a
    /// thread outside the pool.
    virtual int currentThreadIndex() = 0;
};

/// The thread pool on POSIX threads. Bulk runs pin their threads node by node on NUMA machines
/// (when thread affinity is in use); long-running threads run on the whole process mask.
class PosixThreadManager : public ThreadManager {
public:
    PosixThreadManager();
    /// A manager that reads the machine's NUMA nodes from `numaRoot` (a folder laid out as
    /// `/sys/devices/system/node`) instead of the kernel's.
    explicit PosixThreadManager(const std::string& numaRoot);
    ~PosixThreadManager() override;
    PosixThreadManager(const PosixThreadManager&) = delete;
    PosixThreadManager& operator=(const PosixThreadManager&) = delete;

    void terminateAll(bool force) override;
    int run(int threads,
            ThreadShared* shared,
            ProgressCallback* progress,
            bool reportTotal) override;
    void setLowPriority(bool flag) override;
    bool startThread(ThreadProcedure* procedure, void* data) override;
    void setStackSize(size_t bytes) override;
    int currentThreadIndex() override;

    /// One row of the NUMA node table: a node's processors within one group of 64.
    struct NodeRow {
        uint16_t group = 0;
        uint64_t mask = 0;
        /// Processors of this row and all rows before it.
        uint32_t runningTotal = 0;
    };
    /// Number of pool threads (busy or idle).
    int poolSize();
    /// Number of pool threads that are idle.
    int idleThreads();
    /// Waits until at least `count` pool threads are idle: woken by each thread that goes idle,
    /// never by polling. False when `timeoutMs` passed first (a guard against a hang only).
    bool waitForIdleThreads(int count, int timeoutMs = 60000);

    struct Impl;

private:
    std::unique_ptr<Impl> mImpl;
};

}  // namespace LUtils

using LUtils::PosixThreadManager;
using LUtils::ThreadManager;
using LUtils::ThreadProcedure;
using LUtils::ThreadShared;

/// Pushes `manager` on the global stack; it is what engines made from now on use.
void setGlobalThreadManager(ThreadManager* manager);
/// Top of the global stack, or null. The first call in a process that has never pushed a
/// manager sets up the process-wide manager (see `processThreadManager`) and pushes it.
ThreadManager* getGlobalThreadManager();
/// Pops the top of the global stack (the manager itself lives on).
void releaseGlobalThreadManager();
/// The process-wide manager, made on first call. It is taken off the stack and destroyed at
/// exit, unless a live engine still uses it.
ThreadManager* processThreadManager();

/// The global thread count, worked out once per process (`computeThreadCount`).
int globalThreadCount();
/// The smaller of the global thread count and the processors of the process affinity mask.
int effectiveThreadCount();
/// Works the thread count out now: "LUMO_NUM_THREADS" when it is 1 or more, else the processors
/// of all NUMA nodes when thread affinity is in use, else the processors online.
int computeThreadCount();
/// Thread affinity is in use unless "LUMO_USE_THREAD_AFFINITY" is set to a value that is 0 in
/// its low 32 bits.
bool threadAffinityInUse();

}  // namespace vaporix
