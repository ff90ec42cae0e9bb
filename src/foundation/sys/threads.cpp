// Linux threads: pthreads with named threads, nice levels and sched_setaffinity masks.
#include "foundation/sys/threads.h"

#include <limits.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <bit>
#include <cstring>

namespace vaporix::sys {

namespace {

struct StartBlock {
    ThreadFunction function;
    void* argument;
};

void* threadEntry(void* raw) {
    StartBlock block = *static_cast<StartBlock*>(raw);
    delete static_cast<StartBlock*>(raw);
    block.function(block.argument);
    return nullptr;
}

// Below-normal priority as a nice level, as on Windows one step below normal.
constexpr int LOW_PRIORITY_NICE = 1;

}  // namespace

bool startThread(ThreadFunction function, void* argument, size_t stackSize, ThreadHandle& handle) {
    handle.valid = false;
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    if (stackSize > 0) {
        const size_t minimum = static_cast<size_t>(PTHREAD_STACK_MIN);
        if (stackSize < minimum) stackSize = minimum;
        pthread_attr_setstacksize(&attributes, stackSize);
    }
    auto* block = new StartBlock{function, argument};
    const int rc = pthread_create(&handle.id, &attributes, threadEntry, block);
    pthread_attr_destroy(&attributes);
    if (rc != 0) {
        delete block;
        return false;
    }
    handle.valid = true;
    return true;
}

void joinThread(ThreadHandle& handle) {
    if (!handle.valid) return;
    pthread_join(handle.id, nullptr);
    handle.valid = false;
}

void detachThread(ThreadHandle& handle) {
    if (!handle.valid) return;
    pthread_detach(handle.id);
    handle.valid = false;
}

int currentThreadId() { return static_cast<int>(syscall(SYS_gettid)); }

void setCurrentThreadName(const char* name) {
    if (!name) return;
    char shortName[16];
    std::strncpy(shortName, name, sizeof shortName - 1);
    shortName[sizeof shortName - 1] = '\0';
    pthread_setname_np(pthread_self(), shortName);
}

std::string currentThreadName() {
    char name[32] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof name) != 0) return {};
    return name;
}

void setThreadPriority(int tid, bool low) {
    if (tid <= 0) return;
    const int nice = low ? LOW_PRIORITY_NICE : 0;
    if (getpriority(PRIO_PROCESS, static_cast<id_t>(tid)) == nice) return;
    setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice);
}

namespace {

bool readAffinity(pid_t tid, ProcessorMask& mask) {
    mask.clear();
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(tid, sizeof set, &set) != 0) return false;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &set)) continue;
        const size_t word = static_cast<size_t>(cpu) / 64;
        if (mask.size() <= word) mask.resize(word + 1, 0);
        mask[word] |= uint64_t(1) << (cpu % 64);
    }
    return !mask.empty();
}

// The processors of `mask` as a kernel set. @return false when it names none that fit.
bool toCpuSet(const ProcessorMask& mask, cpu_set_t& set) {
    CPU_ZERO(&set);
    bool any = false;
    for (size_t word = 0; word < mask.size(); ++word)
        for (int bit = 0; bit < 64; ++bit)
            if ((mask[word] >> bit) & 1) {
                const size_t cpu = word * 64 + static_cast<size_t>(bit);
                if (cpu >= CPU_SETSIZE) continue;
                CPU_SET(cpu, &set);
                any = true;
            }
    return any;
}

}  // namespace

// The main thread's id is the process id.
bool getProcessAffinity(ProcessorMask& mask) { return readAffinity(getpid(), mask); }

bool getCurrentThreadAffinity(ProcessorMask& mask) { return readAffinity(0, mask); }

bool setCurrentThreadAffinity(const ProcessorMask& mask) {
    cpu_set_t set;
    if (!toCpuSet(mask, set)) return false;
    return sched_setaffinity(0, sizeof set, &set) == 0;
}

bool setThreadAffinity(const ThreadHandle& thread, const ProcessorMask& mask) {
    if (!thread.valid) return false;
    cpu_set_t set;
    if (!toCpuSet(mask, set)) return false;
    return pthread_setaffinity_np(thread.id, sizeof set, &set) == 0;
}

bool setThreadGroupAffinity(const ThreadHandle& thread, int group, uint64_t mask) {
    if (group < 0) return false;
    ProcessorMask full(static_cast<size_t>(group) + 1, 0);
    full[static_cast<size_t>(group)] = mask;
    return setThreadAffinity(thread, full);
}

int countProcessors(const ProcessorMask& mask) {
    int n = 0;
    for (uint64_t word : mask) n += std::popcount(word);
    return n;
}

int processorCount() {
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<int>(n) : 1;
}

void sleepMilliseconds(int ms) {
    if (ms <= 0) {
        sched_yield();
        return;
    }
    timespec t{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0) {
    }
}

void yieldThread() { sched_yield(); }

}  // namespace vaporix::sys
