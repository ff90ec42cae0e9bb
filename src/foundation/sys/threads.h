// Threads of the platform: start and join, names, priority, processor affinity, sleeping.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vaporix::sys {

/// A started thread. Only valid handles may be joined or detached, each once.
struct ThreadHandle {
    pthread_t id{};
    bool valid = false;
};

using ThreadFunction = void (*)(void* argument);

/// Starts `function(argument)` on a new joinable thread. `stackSize` 0 keeps the platform's
/// default. @return false when the thread could not be created.
bool startThread(ThreadFunction function, void* argument, size_t stackSize, ThreadHandle& handle);
/// Waits for the thread to end and invalidates the handle.
void joinThread(ThreadHandle& handle);
/// Lets the thread end on its own and invalidates the handle.
void detachThread(ThreadHandle& handle);

/// The kernel's id of the calling thread.
int currentThreadId();
/// Names the calling thread for debuggers and `top` (cut to the platform's 15 characters).
void setCurrentThreadName(const char* name);
std::string currentThreadName();
/// Lowers (`low`) or restores the scheduling priority of the thread with kernel id `tid`.
/// Raising a priority back may be refused to unprivileged processes; that is ignored.
void setThreadPriority(int tid, bool low);

/// Processors as bit masks of 64, one word per group of 64 processors (word g holds processors
/// 64g to 64g+63), the way machines with processor groups count them.
using ProcessorMask = std::vector<uint64_t>;

/// Processors the process may run on (those of its main thread, whatever the calling thread
/// is pinned to). @return false (and an empty mask) if unknown.
bool getProcessAffinity(ProcessorMask& mask);
/// Processors the calling thread may run on. @return false (and an empty mask) if unknown.
bool getCurrentThreadAffinity(ProcessorMask& mask);
/// Pins the calling thread to the processors of `mask` (`sched_setaffinity`).
/// @return false for an empty mask or if the platform refused.
bool setCurrentThreadAffinity(const ProcessorMask& mask);
/// Pins the thread to the processors of `mask`. @return false if the platform refused.
bool setThreadAffinity(const ThreadHandle& thread, const ProcessorMask& mask);
/// Pins the thread to the processors `mask` of group `group`.
bool setThreadGroupAffinity(const ThreadHandle& thread, int group, uint64_t mask);
/// Number of processors in a mask.
int countProcessors(const ProcessorMask& mask);
/// Processors online in the machine (at least 1).
int processorCount();

void sleepMilliseconds(int ms);
/// Gives the rest of the time slice to other threads.
void yieldThread();

}  // namespace vaporix::sys
