// One pointer per thread, under a key that the owner creates and frees.
#pragma once

#include <pthread.h>

namespace vaporix::sys {

/// A thread-local pointer slot. Each thread sees its own value, null until it sets one.
class ThreadLocalSlot {
public:
    ThreadLocalSlot() { mValid = pthread_key_create(&mKey, nullptr) == 0; }
    ~ThreadLocalSlot() {
        if (mValid) pthread_key_delete(mKey);
    }
    ThreadLocalSlot(const ThreadLocalSlot&) = delete;
    ThreadLocalSlot& operator=(const ThreadLocalSlot&) = delete;

    void* get() const { return mValid ? pthread_getspecific(mKey) : nullptr; }
    void set(void* value) {
        if (mValid) pthread_setspecific(mKey, value);
    }
    bool isValid() const { return mValid; }

private:
    pthread_key_t mKey{};
    bool mValid = false;
};

}  // namespace vaporix::sys
