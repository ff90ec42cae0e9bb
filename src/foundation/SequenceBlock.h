// A list of fixed-size blocks for long-lived queues: elements never move once placed.
#pragma once

#include <new>
#include <stdexcept>
#include <utility>

namespace vaporix {

/// Blocks of 10 elements chained in order. Pointers to elements stay valid while the list lives,
/// which is why queues that hand out element addresses use it instead of iArray. A failed block
/// allocation throws, as the queues that use it have no way to go on without the element.
template <typename T>
class SequenceBlockList {
public:
    static constexpr int BLOCK_SIZE = 10;

    SequenceBlockList() = default;
    SequenceBlockList(const SequenceBlockList&) = delete;
    SequenceBlockList& operator=(const SequenceBlockList&) = delete;
    ~SequenceBlockList() { clear(); }

    T& push(T value) {
        if (!mTail || mTail->used == BLOCK_SIZE) {
            Block* b = new (std::nothrow) Block;
            if (!b) throw std::runtime_error("[_SequenceBlock] Could not allocate memory");
            if (mTail)
                mTail->next = b;
            else
                mHead = b;
            mTail = b;
        }
        T& slot = mTail->items[mTail->used++];
        slot = std::move(value);
        ++mCount;
        return slot;
    }
    int size() const { return mCount; }
    T& at(int i) {
        Block* b = mHead;
        while (i >= BLOCK_SIZE) {
            b = b->next;
            i -= BLOCK_SIZE;
        }
        return b->items[i];
    }
    void clear() {
        while (mHead) {
            Block* next = mHead->next;
            delete mHead;
            mHead = next;
        }
        mTail = nullptr;
        mCount = 0;
    }
    template <typename F>
    void forEach(F&& f) {
        for (Block* b = mHead; b; b = b->next)
            for (int i = 0; i < b->used; ++i) f(b->items[i]);
    }

private:
    struct Block {
        T items[BLOCK_SIZE]{};
        int used = 0;
        Block* next = nullptr;
    };
    Block* mHead = nullptr;
    Block* mTail = nullptr;
    int mCount = 0;
};

}  // namespace vaporix
