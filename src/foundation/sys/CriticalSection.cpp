// Recursive pthread mutex behind CriticalSection.
#include "foundation/sys/CriticalSection.h"

#include <sched.h>

namespace vaporix::sys {

CriticalSection::CriticalSection() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mMutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

CriticalSection::~CriticalSection() { pthread_mutex_destroy(&mMutex); }

void CriticalSection::lock() { pthread_mutex_lock(&mMutex); }

bool CriticalSection::tryLock() { return pthread_mutex_trylock(&mMutex) == 0; }

void CriticalSection::unlock() { pthread_mutex_unlock(&mMutex); }

void CriticalSection::lockSpinning() {
    for (int i = 0; i < SPIN_TRIES; ++i)
        if (tryLock()) return;
    for (int i = 0; i < SPIN_TRIES; ++i) {
        if (tryLock()) return;
        sched_yield();
    }
    lock();
}

}  // namespace vaporix::sys
