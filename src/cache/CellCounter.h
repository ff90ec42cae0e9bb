// Coordinates of a grid cell walked in index order (x fastest), for jobs that derive them once
// from their first unit and then step instead of dividing per cell.
#pragma once

#include <cstdint>

namespace vaporix::internal {

struct CellCounter {
    int64_t x = 0, y = 0, z = 0;
    int64_t sx = 1, sy = 1;
    void start(uint64_t index, const int32_t size[3]) {
        sx = size[0];
        sy = size[1];
        x = static_cast<int64_t>(index % uint64_t(sx));
        const uint64_t rest = index / uint64_t(sx);
        y = static_cast<int64_t>(rest % uint64_t(sy));
        z = static_cast<int64_t>(rest / uint64_t(sy));
    }
    /// Moves to the next cell.
    void step() {
        if (++x == sx) nextRow();
    }
    /// Moves `n` cells on.
    void step(int64_t n) {
        x += n;
        while (x >= sx) {
            x -= sx;
            if (++y == sy) {
                y = 0;
                ++z;
            }
        }
    }
    /// Moves to the start of the next row.
    void nextRow() {
        x = 0;
        if (++y == sy) {
            y = 0;
            ++z;
        }
    }
};

}  // namespace vaporix::internal
