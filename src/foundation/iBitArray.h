// A packed array of bits on top of iArray; fails without throwing like its base.
#pragma once

#include <cstdint>

#include "foundation/iArray.h"

namespace vaporix {

/// Bits packed 32 to a word. `Initial` is the value new bits take when the array grows.
template <bool Initial = false>
class iBitArray {
public:
    iBitArray() = default;
    explicit iBitArray(int64_t n) { resize(n); }

    /// @return 1 on success, 0 when allocation failed (the array is then empty).
    int resize(int64_t n) {
        if (n < 0) n = 0;
        const int64_t oldBits = mBits;
        const uint32_t fill = Initial ? 0xFFFFFFFFu : 0u;
        if (!mWords.resize(static_cast<long long>((n + 31) / 32), &fill)) {
            mBits = 0;
            return 0;
        }
        // Bits between the old end and the end of its last word take the initial value too.
        for (int64_t i = oldBits; i < n && (i & 31) != 0; ++i) set(i, Initial);
        mBits = n;
        return 1;
    }
    int64_t size() const { return mBits; }
    bool get(int64_t i) const { return (mWords.data[i >> 5] >> (i & 31)) & 1u; }
    bool operator[](int64_t i) const { return get(i); }
    void set(int64_t i, bool value = true) {
        const uint32_t bit = 1u << (i & 31);
        if (value)
            mWords.data[i >> 5] |= bit;
        else
            mWords.data[i >> 5] &= ~bit;
    }
    void clear(int64_t i) { set(i, false); }
    void setAll(bool value) {
        for (auto& w : mWords) w = value ? 0xFFFFFFFFu : 0u;
    }
    /// Number of set bits.
    int64_t countSet() const {
        int64_t n = 0;
        for (int64_t i = 0; i < mBits; ++i) n += get(i);
        return n;
    }
    void free() {
        mWords.free();
        mBits = 0;
    }

private:
    iArray<uint32_t, long long> mWords;
    int64_t mBits = 0;
};

}  // namespace vaporix
