// The grid stream codec: quantise, difference, collapse runs, prefix-code.
#pragma once

#include <cstdint>

#include "foundation/iArray.h"

namespace vaporix {

/// Stream magics and kinds.
constexpr uint16_t SG_MAGIC_SINGLE = 64513;
constexpr uint16_t SG_MAGIC_ZONED = 64514;
constexpr uint8_t SG_KIND_RAW = 0;
constexpr uint8_t SG_KIND_CONSTANT = 1;
constexpr uint8_t SG_KIND_CODED = 2;

/// Codec of N-dimensional float fields (N = 3 for grid channels, 1 for particle channels).
template <int N>
class SGCompressor {
public:
    SGCompressor() = default;
    virtual ~SGCompressor() = default;

    /// Decodes one stream (single or zoned) of `sizeBytes` bytes into `out`, which must receive
    /// exactly `outCount` values. Every size in the stream is checked against `sizeBytes` and
    /// `outCount`. @return false for a malformed or mismatched stream (`out` is then undefined).
    bool decode(const uint8_t* data, uint64_t sizeBytes, float* out, uint64_t outCount);

    /// Writes a raw stream (kind 0) of `count` values into `output`. @return false on failure.
    bool encodeRaw(const float* values, int64_t count);

    /// The encoded stream of the last encode call.
    iArray<uint8_t, long long> output;
};

extern template class SGCompressor<1>;
extern template class SGCompressor<3>;

}  // namespace vaporix
