// zlib helpers of the cache readers and writers.
#pragma once

#include <cstdint>

#include "foundation/iArray.h"

namespace vaporix {

/// Inflates `srcBytes` bytes into `dst` (room for `dstBytes`). Good only when zlib reaches the end
/// of the stream within the room; the bytes written are returned in `written`.
bool inflateInto(const uint8_t* src, uint64_t srcBytes, uint8_t* dst, uint64_t dstBytes,
                 uint64_t* written = nullptr);

/// Deflates `bytes` into `out` (replacing its contents). @return false on failure.
bool deflateInto(const uint8_t* data, uint64_t bytes, iArray<uint8_t, long long>& out,
                 int level = 6);

}  // namespace vaporix
