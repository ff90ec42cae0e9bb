// Grid stream codec: stream framing, raw and constant kinds.
#include "cache/SGCompressor.h"

#include <cstring>

namespace vaporix {

namespace {

template <typename T>
bool readAt(const uint8_t* data, uint64_t size, uint64_t pos, T& out) {
    if (pos > size || size - pos < sizeof(T)) return false;
    std::memcpy(&out, data + pos, sizeof(T));
    return true;
}

}  // namespace

template <int N>
bool SGCompressor<N>::decode(const uint8_t* data, uint64_t sizeBytes, float* out,
                             uint64_t outCount) {
    uint16_t magic = 0;
    uint8_t kind = 0;
    if (!data || !readAt(data, sizeBytes, 0, magic) || magic != SG_MAGIC_SINGLE) return false;
    if (!readAt(data, sizeBytes, 2, kind)) return false;
    int32_t count = 0;
    if (!readAt(data, sizeBytes, 3, count) || count < 0 ||
        static_cast<uint64_t>(count) != outCount)
        return false;
    switch (kind) {
        case SG_KIND_RAW:
            if ((sizeBytes - 7) / 4 < outCount) return false;
            if (outCount) std::memcpy(out, data + 7, outCount * 4);
            return true;
        case SG_KIND_CONSTANT: {
            float v = 0;
            if (!readAt(data, sizeBytes, 7, v)) return false;
            for (uint64_t i = 0; i < outCount; ++i) out[i] = v;
            return true;
        }
        default:
            return false;
    }
}

template <int N>
bool SGCompressor<N>::encodeRaw(const float* values, int64_t count) {
    output.resize(0);
    if (count < 0 || count > INT32_MAX) return false;
    const uint16_t magic = SG_MAGIC_SINGLE;
    const int32_t n = static_cast<int32_t>(count);
    if (!output.resize(7 + count * 4, nullptr, true)) return false;
    std::memcpy(output.data, &magic, 2);
    output.data[2] = SG_KIND_RAW;
    std::memcpy(output.data + 3, &n, 4);
    if (count) std::memcpy(output.data + 7, values, static_cast<size_t>(count) * 4);
    return true;
}

template class SGCompressor<1>;
template class SGCompressor<3>;

}  // namespace vaporix
