// The growable array of the whole system: fails without throwing and leaves itself empty.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

namespace vaporix {

namespace internal {
/// Raw, uninitialised storage for `bytes` bytes, or null. Large blocks ask for huge pages, since
/// first touch of fresh memory is the dominant cost of big channel arrays on these machines.
void* arrayAllocate(size_t bytes) noexcept;
void arrayRelease(void* block) noexcept;
}  // namespace internal

/// Test hook: allocations of more than `bytes` bytes through iArray fail (0 turns the limit off).
void setArrayAllocationLimit(size_t bytes) noexcept;
/// Test hook: allocations through iArray fail once they add up to more than `bytes` from now on,
/// freed blocks not counting back (a negative value turns the budget off).
void setArrayAllocationBudget(int64_t bytes) noexcept;
/// Test hook: the `n`-th allocation through iArray from now on fails (1: the next one), and
/// only that one; 0 turns it off.
void setArrayAllocationFailure(int64_t n) noexcept;
/// Number of allocations asked of iArray since the start of the process.
int64_t arrayAllocationCount() noexcept;

/// A growable array for large numeric data. `I` is the index type (int, or a 64-bit type for
/// arrays that may pass two thousand million elements). Growth adds `count / growth` elements
/// (at least 8) beyond what is asked for, unless `exact` is set. A failed allocation empties the
/// array and is reported only through the result.
template <typename T, typename I = int, int Flags = 0>
class iArray {
public:
    T* data = nullptr;
    I count = 0;
    I capacity = 0;
    int growth = 4;

    explicit iArray(I initialCapacity = 0, int growthDivisor = 4) : growth(growthDivisor) {
        if (initialCapacity > 0 && !reallocate(initialCapacity)) capacity = 0;
    }
    iArray(const iArray& other) : growth(other.growth) { appendArray(other); }
    iArray(iArray&& other) noexcept { swap(other); }
    iArray& operator=(const iArray& other) {
        if (this != &other) {
            resize(0);
            growth = other.growth;
            appendArray(other);
        }
        return *this;
    }
    iArray& operator=(iArray&& other) noexcept {
        if (this != &other) {
            free();
            swap(other);
        }
        return *this;
    }
    virtual ~iArray() { free(); }

    void swap(iArray& other) noexcept {
        std::swap(data, other.data);
        std::swap(count, other.count);
        std::swap(capacity, other.capacity);
        std::swap(growth, other.growth);
    }

    /// Sets the count to `newCount`; new elements are copies of `*fill` or default-constructed.
    /// @return 1 on success, 0 when allocation failed (the array is then empty).
    int resize(I newCount, const T* fill = nullptr, bool exact = false) {
        if (newCount < 0) newCount = 0;
        if (newCount == count) return 1;
        if (newCount < count) {
            destroyRange(newCount, count);
            count = newCount;
            return 1;
        }
        if (newCount > capacity && !grow(newCount, exact)) return 0;
        if constexpr (std::is_trivially_default_constructible_v<T> &&
                      std::is_trivially_copyable_v<T>) {
            // Plain elements: zero in one block write (what T() gives them), which is many times
            // faster than an element loop on channel-sized arrays.
            if (!fill) {
                std::memset(static_cast<void*>(data + count), 0,
                            static_cast<size_t>(newCount - count) * sizeof(T));
                count = newCount;
                return 1;
            }
        }
        for (I i = count; i < newCount; ++i) {
            if (fill)
                new (data + i) T(*fill);
            else
                new (data + i) T();
        }
        count = newCount;
        return 1;
    }
    int resize(I newCount, bool exact) { return resize(newCount, nullptr, exact); }

    int append(const T& value) {
        T copy(value);  // value may live inside this array
        if (!resize(count + 1)) return 0;
        data[count - 1] = std::move(copy);
        return 1;
    }

    int appendArray(const iArray& other) {
        if (&other == this) {
            iArray copy(other);
            return appendArray(copy);
        }
        const I base = count;
        if (!resize(count + other.count)) return 0;
        for (I i = 0; i < other.count; ++i) data[base + i] = other.data[i];
        return 1;
    }

    /// Frees the contents, then allocates room for exactly n elements (count stays 0).
    int reserveExact(I n) {
        free();
        if (n < 1) return 0;
        return reallocate(n) ? 1 : 0;
    }

    void removeRange(I index, I n, bool keepOrder) {
        if (index < 0 || n <= 0 || index >= count) return;
        if (n > count - index) n = count - index;
        if (keepOrder) {
            for (I i = index; i + n < count; ++i) data[i] = std::move(data[i + n]);
        } else {
            // The last n elements fill the hole (those that are not inside it already).
            I src = count - n;
            if (src < index + n) src = index + n;
            for (I i = index; src < count; ++i, ++src) data[i] = std::move(data[src]);
        }
        resize(count - n, nullptr, true);
    }

    I find(const T& value) const {
        for (I i = 0; i < count; ++i)
            if (data[i] == value) return i;
        return -1;
    }

    void free() {
        destroyRange(0, count);
        internal::arrayRelease(data);
        data = nullptr;
        count = 0;
        capacity = 0;
    }

    T& operator[](I i) { return data[i]; }
    const T& operator[](I i) const { return data[i]; }
    T* begin() { return data; }
    T* end() { return data + count; }
    const T* begin() const { return data; }
    const T* end() const { return data + count; }
    I size() const { return count; }
    bool empty() const { return count == 0; }
    T& last() { return data[count - 1]; }

private:
    /// Makes room for `newCount` elements by the growth rule.
    bool grow(I newCount, bool exact) {
        I newCapacity = newCount;
        if (!exact) {
            I extra = growth > 0 ? newCount / growth : 0;
            if (extra < 8) extra = 8;
            // Near the top of the index type the extra room shrinks to what still fits.
            const I room = std::numeric_limits<I>::max() - newCount;
            newCapacity = newCount + (extra < room ? extra : room);
        }
        return reallocate(newCapacity);
    }

    void destroyRange(I from, I to) {
        if constexpr (!std::is_trivially_destructible_v<T>) {
            for (I i = from; i < to; ++i) data[i].~T();
        }
    }

    bool reallocate(I newCapacity) {
        const unsigned long long n = static_cast<unsigned long long>(newCapacity);
        T* block = nullptr;
        if (n <= SIZE_MAX / sizeof(T))
            block = static_cast<T*>(internal::arrayAllocate(static_cast<size_t>(n) * sizeof(T)));
        if (!block) {
            free();
            return false;
        }
        if constexpr (std::is_trivially_copyable_v<T>) {
            if (count > 0) std::memcpy(block, data, static_cast<size_t>(count) * sizeof(T));
        } else {
            for (I i = 0; i < count; ++i) {
                new (block + i) T(std::move(data[i]));
                data[i].~T();
            }
        }
        internal::arrayRelease(data);
        data = block;
        capacity = newCapacity;
        return true;
    }
};

}  // namespace vaporix
