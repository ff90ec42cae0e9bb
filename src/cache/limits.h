// Bounds on what a file may make us allocate.
#pragma once

#include <cstdint>

namespace vaporix {

/// Largest grid the readers accept: stream counts are int32, so no channel can hold more cells.
constexpr int64_t MAX_GRID_CELLS = 0x7FFFFFFF;

/// Whether a grid size read from a file is one this system can hold: no axis negative and at
/// most MAX_GRID_CELLS cells. The product is formed so that no size can overflow it.
inline bool gridSizeAcceptable(const int32_t size[3]) {
    if (size[0] < 0 || size[1] < 0 || size[2] < 0) return false;
    if (size[0] == 0 || size[1] == 0 || size[2] == 0) return true;
    const int64_t xy = int64_t(size[0]) * size[1];  // below 2^62
    return xy <= MAX_GRID_CELLS / size[2];
}

/// Whether expanding `inBytes` of compressed data into `outBytes` is something a real file could
/// ask for. Up to 1 GiB is always allowed (a constant channel of a big grid is a few bytes); above
/// that the ratio must stay under 65536:1, beyond what run collapsing gives on real fields, so a
/// small damaged file can't make us allocate and fill many gigabytes.
inline bool expansionJustified(uint64_t outBytes, uint64_t inBytes) {
    constexpr uint64_t ALWAYS_OK = uint64_t(1) << 30;
    return outBytes <= ALWAYS_OK || outBytes / 65536 <= inBytes;
}

}  // namespace vaporix
