// Particle groups: channel expansion for every compression kind, values, ID order and lookup.
#include "cache/PGroup.h"

#include <cstring>
#include <memory>
#include <new>

#include "cache/ParticleJobs.h"
#include "cache/SGCompressor.h"
#include "cache/SymbolCoder.h"
#include "cache/VaporixFrameData.h"
#include "cache/limits.h"
#include "cache/zlibutil.h"
#include "foundation/log.h"

namespace vaporix {

int prtComponentCount(int channel) {
    switch (channel) {
        case PRT_POSITION:
        case PRT_VELOCITY:
        case 4:
            return 3;
        case 6:
        case 7:
        case 8:
            return 0;  // not stored
        case PRT_ID:
            return 2;  // 64-bit integer
        default:
            return (channel >= 0 && channel < PRT_CHANNELS) ? 1 : 0;
    }
}

// ---------------------------------------------------------------------------------------------
// ID order

bool IDORD::isGreater(const uint32_t& a, const uint32_t& b) const {
    return group->idAt(a) > group->idAt(b);
}

void IDORD::mergeSort(uint32_t* items, uint32_t* scratch, int n) const {
    if (n < 7) {
        // Exchange sort: small runs are cheaper without the merge's copies.
        for (int i = 0; i < n; ++i)
            for (int j = i + 1; j < n; ++j)
                if (isGreater(items[i], items[j])) std::swap(items[i], items[j]);
        return;
    }
    const int half = n / 2;
    mergeSort(items, scratch, half);
    mergeSort(items + half, scratch, n - half);
    int i = 0, j = half, k = 0;
    while (i < half && j < n)
        scratch[k++] = isGreater(items[i], items[j]) ? items[j++] : items[i++];
    while (i < half) scratch[k++] = items[i++];
    while (j < n) scratch[k++] = items[j++];
    std::memcpy(items, scratch, sizeof(uint32_t) * static_cast<size_t>(n));
}

void IDORD::sortById() {
    if (count < 2) return;
    iArray<uint32_t> scratch;
    if (!scratch.resize(count, nullptr, true)) {
        free();
        return;
    }
    mergeSort(data, scratch.data, count);
}

// ---------------------------------------------------------------------------------------------
// Group

PGroup::PGroup(const PGroup& other)
    : IVaporixPrtGroup(other),
      idOrder(other.idOrder),
      name(other.name),
      channelBits(other.channelBits),
      flags(other.flags),
      count(other.count),
      frame(other.frame) {
    idOrder.group = this;
    std::memcpy(reserved8, other.reserved8, sizeof reserved8);
    for (int c = 0; c < PRT_CHANNELS; ++c) channelData[c] = other.channelData[c];
}

PGroup& PGroup::operator=(const PGroup& other) {
    if (this == &other) return *this;
    idOrder = other.idOrder;
    idOrder.group = this;
    name = other.name;
    channelBits = other.channelBits;
    flags = other.flags;
    count = other.count;
    std::memcpy(reserved8, other.reserved8, sizeof reserved8);
    for (int c = 0; c < PRT_CHANNELS; ++c) channelData[c] = other.channelData[c];
    frame = other.frame;
    return *this;
}

int PGroup::GetCount() {
    const ChannelData& pos = channelData[PRT_POSITION];
    return (pos.compressed.count > 0 || pos.expanded.count > 0) ? count : 0;
}

int PGroup::GetChannelStride(int channel) { return prtComponentCount(channel) * 4; }

bool PGroup::HasChannel(int channel) {
    if (channel < 0 || channel >= PRT_CHANNELS) return false;
    if (channel == PRT_VELOCITY && frame && flags == PGROUP_GRID_VELOCITY)
        return frame->HasChannel(CH_VELOCITY_X);
    const ChannelData& cd = channelData[channel];
    return cd.compressed.count > 0 || cd.expanded.count > 0;
}

bool PGroup::GetValue(int index, int channel, void* out) {
    if (channel < 0 || channel >= PRT_CHANNELS || index < 0 || index >= count) return false;
    const ChannelData& cd = channelData[channel];
    const int stride = GetChannelStride(channel);
    if (cd.expanded.count > 0) {
        const long long at = static_cast<long long>(index) * stride;
        if (at + stride > cd.expanded.count) return false;
        std::memcpy(out, cd.expanded.data + at, static_cast<size_t>(stride));
        return true;
    }
    if (channel == PRT_VELOCITY && frame && HasChannel(PRT_VELOCITY)) {
        // Velocity from the grid at the particle's position; this read never expands the grid.
        float* v = static_cast<float*>(out);
        float p[3];
        v[0] = v[1] = v[2] = 0.0f;
        if (!GetValue(index, PRT_POSITION, p) || !frame->channels[CH_VELOCITY_X]) return false;
        float* ch[16] = {};
        ch[0] = frame->channels[CH_VELOCITY_X];
        ch[1] = frame->channels[CH_VELOCITY_Y];
        ch[2] = frame->channels[CH_VELOCITY_Z];
        float sampled[16] = {};
        SampleChannels(ch, frame->gridSize, p, sampled, 0x7u, 0, 0);
        v[0] = sampled[0];
        v[1] = sampled[1];
        v[2] = sampled[2];
        return true;
    }
    return false;
}

void* PGroup::allocChannel(int channel) {
    if (channel < 0 || channel >= PRT_CHANNELS || count < 0) return nullptr;
    ChannelData& cd = channelData[channel];
    const long long bytes = static_cast<long long>(count) * GetChannelStride(channel);
    if (!cd.expanded.resize(bytes, nullptr, true)) return nullptr;
    return cd.expanded.data;
}

bool PGroup::setChannel(int channel, const void* data, uint64_t size) {
    if (channel < 0 || channel >= PRT_CHANNELS || count < 0) return false;
    const uint64_t needed = static_cast<uint64_t>(count) * GetChannelStride(channel);
    if (size == ~uint64_t(0)) size = needed;
    if (size != needed) return false;
    ChannelData& cd = channelData[channel];
    if (static_cast<uint64_t>(cd.expanded.count) != needed) {
        // Sized as a new array first, so that a failure leaves the old one as it was.
        iArray<uint8_t, long long> sized;
        if (needed && !sized.resize(static_cast<long long>(needed), nullptr, true)) return false;
        cd.expanded.swap(sized);
    }
    if (size) std::memcpy(cd.expanded.data, data, size);
    return true;
}

void* PGroup::getChannelPointer(int index, int channel) {
    if (channel < 0 || channel >= PRT_CHANNELS || index < 0 || index >= count) return nullptr;
    ChannelData& cd = channelData[channel];
    const long long at = static_cast<long long>(index) * GetChannelStride(channel);
    if (cd.expanded.count == 0 || at >= cd.expanded.count) return nullptr;
    return cd.expanded.data + at;
}

int64_t PGroup::idAt(uint32_t index) const {
    int64_t id;
    std::memcpy(&id, channelData[PRT_ID].expanded.data + static_cast<size_t>(index) * 8, 8);
    return id;
}

namespace {

/// The inverse of the gather of MTPrtIn.
void scatterBitPlanes(const uint32_t* values, int64_t count, int components, uint32_t* planes) {
    const int64_t w = (count + 31) / 32;
    std::memset(planes, 0, static_cast<size_t>(w * components * 32) * 4);
    for (int64_t i = 0; i < count; ++i) {
        const uint32_t bit = 1u << (i & 31);
        const int64_t word = i >> 5;
        for (int k = 0; k < components; ++k) {
            const uint32_t v = values[i * components + k];
            uint32_t* plane = planes + word + int64_t(k) * 32 * w;
            for (int b = 0; b < 32; ++b)
                if ((v >> b) & 1u) plane[int64_t(b) * w] |= bit;
        }
    }
}

}  // namespace

bool PGroup::CompressChannel(int channel, int kind) {
    if (channel < 0 || channel >= PRT_CHANNELS || count < 0) return false;
    ChannelData& cd = channelData[channel];
    const int components = prtComponentCount(channel);
    const int64_t values = int64_t(count) * components;
    if (components == 0 || cd.expanded.count != values * 4) return false;
    const uint8_t* src = cd.expanded.data;
    bool ok = false;
    switch (kind) {
        case PRT_KIND_RAW:
            ok = cd.compressed.resize(values * 4, nullptr, true);
            if (ok && values) std::memcpy(cd.compressed.data, src, static_cast<size_t>(values) * 4);
            break;
        case PRT_KIND_ZLIB:
            ok = deflateInto(src, static_cast<uint64_t>(values) * 4, cd.compressed);
            break;
        case PRT_KIND_SG:
        case PRT_KIND_SG_COMPONENTS: {
            iArray<float, long long> planar;
            const float* in = reinterpret_cast<const float*>(src);
            if (kind == PRT_KIND_SG_COMPONENTS) {
                if (!planar.resize(values, nullptr, true)) return false;
                for (int64_t i = 0; i < count; ++i)
                    for (int k = 0; k < components; ++k)
                        planar.data[int64_t(k) * count + i] = in[i * components + k];
                in = planar.data;
            }
            SGCompressor<1> codec;
            ok = codec.encodeRaw(in, values);
            if (ok) {
                cd.compressed.swap(codec.output);
                cd.compressed.growth = 4;
            }
            break;
        }
        case PRT_KIND_BITPLANES: {
            const int64_t w = (int64_t(count) + 31) / 32;
            iArray<uint32_t, long long> planes;
            ok = planes.resize(w * components * 32, nullptr, true);
            if (ok) {
                scatterBitPlanes(reinterpret_cast<const uint32_t*>(src), count, components,
                                 planes.data);
                ok = deflateInto(reinterpret_cast<const uint8_t*>(planes.data),
                                 static_cast<uint64_t>(planes.count) * 4, cd.compressed);
            }
            break;
        }
        default:
            return false;
    }
    if (ok) cd.kind = kind;
    return ok;
}

namespace {

/// Sizes a byte array for `n` bytes without clearing them, for expansions that write every
/// byte: clearing first would cost a second pass over arrays of many megabytes.
bool sizeForOverwrite(iArray<uint8_t, long long>& a, long long n) {
    if (n > a.capacity && !a.reserveExact(n)) return false;
    a.count = n;
    return true;
}

/// value[i * C + k] = planar[k * count + i], with the component count known to the compiler.
template <int C>
void interleave(const float* planar, int64_t count, float* out) {
    const float* in[C];
    for (int k = 0; k < C; ++k) in[k] = planar + k * count;
    for (int64_t i = 0; i < count; ++i)
        for (int k = 0; k < C; ++k) out[i * C + k] = in[k][i];
}

}  // namespace

int PGroup::DecompressChannel(int channel, bool dropCompressed) {
    if (channel < 0 || channel >= PRT_CHANNELS) return 0;
    ChannelData& cd = channelData[channel];
    if (cd.expanded.count > 0) return 1;
    if (cd.compressed.count == 0) {
        lumoLog("PGroup::DecompressChannel failed: no compression data!");
        return 0;
    }
    // A kind this reader doesn't know returns at once: its bytes stay for a writer to keep.
    if (cd.kind < 0 || cd.kind > PRT_KIND_BITPLANES) return 0;
    const int components = prtComponentCount(channel);
    const uint64_t values = static_cast<uint64_t>(count < 0 ? 0 : count) * components;
    const uint64_t bytes = values * 4;
    if (count < 0 || !expansionJustified(bytes, static_cast<uint64_t>(cd.compressed.count))) {
        cd.expanded.free();
        cd.compressed.free();
        return 0;
    }
    // Memory that fails is no fault of the channel: the reader turns it into a broken load.
    bool outOfMemory = !sizeForOverwrite(cd.expanded, static_cast<long long>(bytes));
    bool ok = !outOfMemory;
    if (ok) {
        const uint8_t* src = cd.compressed.data;
        const uint64_t srcBytes = static_cast<uint64_t>(cd.compressed.count);
        uint8_t* dst = cd.expanded.data;
        switch (cd.kind) {
            case PRT_KIND_RAW:
                ok = srcBytes >= bytes;
                if (ok && bytes) std::memcpy(dst, src, bytes);
                break;
            case PRT_KIND_ZLIB: {
                uint64_t written = 0;
                ok = inflateInto(src, srcBytes, dst, bytes, &written);
                // A stream that ends early leaves its last particles at 0, as kind 4 does.
                if (ok && written < bytes) std::memset(dst + written, 0, bytes - written);
                break;
            }
            case PRT_KIND_SG: {
                SGCompressor<1> codec;
                ok = codec.decode(src, srcBytes, reinterpret_cast<float*>(dst), values);
                break;
            }
            case PRT_KIND_SG_COMPONENTS: {
                // Decoded component after component, then interleaved per particle; one
                // component (or none) is its own interleave.
                SGCompressor<1> codec;
                float* out = reinterpret_cast<float*>(dst);
                if (components <= 1) {
                    ok = codec.decode(src, srcBytes, out, values);
                    break;
                }
                std::unique_ptr<float[]> planar(new (std::nothrow) float[values]);
                outOfMemory = !planar;
                ok = planar && codec.decode(src, srcBytes, planar.get(), values);
                if (!ok) break;
                if (components == 3)
                    interleave<3>(planar.get(), count, out);
                else
                    interleave<2>(planar.get(), count, out);
                break;
            }
            case PRT_KIND_BITPLANES: {
                // Planes of w words for every bit of every component; a stream that ends early
                // leaves the missing words 0.
                const uint64_t w = (static_cast<uint64_t>(count) + 31) / 32;
                const uint64_t planeBytes = w * components * 32 * 4;
                if (planeBytes == 0) break;
                std::unique_ptr<uint32_t[]> planes(new (std::nothrow) uint32_t[planeBytes / 4]);
                outOfMemory = !planes;
                uint64_t written = 0;
                auto* planeData = reinterpret_cast<uint8_t*>(planes.get());
                ok = planes && inflateInto(src, srcBytes, planeData, planeBytes, &written);
                if (!ok) break;
                if (written < planeBytes) std::memset(planeData + written, 0, planeBytes - written);
                MTPrtIn gather;
                gather.gather(planes.get(), count, components, reinterpret_cast<uint32_t*>(dst));
                break;
            }
        }
    }
    if (!ok) {
        cd.expanded.free();
        cd.compressed.free();
        return outOfMemory ? -1 : 0;
    }
    if (dropCompressed) cd.compressed.free();
    return 1;
}

void PGroup::buildIdOrder() {
    idOrder.free();
    idOrder.group = this;
    const ChannelData& cd = channelData[PRT_ID];
    if (count <= 0 || cd.expanded.count < static_cast<long long>(count) * 8) return;
    bool sorted = true;
    int64_t previous = 0;
    for (int i = 0; i < count && sorted; ++i) {
        const int64_t id = idAt(static_cast<uint32_t>(i));
        if (id < previous) sorted = false;
        previous = id;
    }
    if (sorted) return;
    if (!idOrder.resize(count, nullptr, true)) return;
    for (int i = 0; i < count; ++i) idOrder.data[i] = static_cast<uint32_t>(i);
    idOrder.sortById();
}

bool PGroup::expandIdDifferences(const uint8_t* data, uint64_t size) {
    ChannelData& cd = channelData[PRT_ID];
    cd.kind = PRT_KIND_RAW;
    cd.compressed.free();
    cd.expanded.free();
    idOrder.free();
    idOrder.group = this;
    if (count <= 0 || !data) return false;
    const uint64_t pairs = static_cast<uint64_t>(count);
    SymbolCoder coder;
    if (!expansionJustified(pairs * 8, size) || !coder.startDecoding(data, size, pairs * 2) ||
        !cd.expanded.resize(static_cast<long long>(pairs * 8), nullptr, true))
        return false;

    // Running sum of the differences, in unsigned arithmetic so that a damaged stream wraps
    // instead of overflowing.
    uint64_t id = 0;
    bool ascending = true;
    for (uint64_t i = 0; i < pairs; ++i) {
        const uint32_t low = static_cast<uint32_t>(coder.next());
        const uint32_t high = static_cast<uint32_t>(coder.next());
        const uint64_t difference = (uint64_t(high) << 32) | low;
        if (i > 0 && static_cast<int64_t>(difference) < 0) ascending = false;
        id = i == 0 ? difference : id + difference;
        std::memcpy(cd.expanded.data + i * 8, &id, 8);
        // A stream that ends early would otherwise be read as endless zero bits.
        if ((i & 4095) == 4095 && coder.overrun()) break;
    }
    if (coder.overrun()) {
        cd.expanded.free();
        return false;
    }
    if (!ascending && idOrder.resize(count, nullptr, true)) {
        for (int i = 0; i < count; ++i) idOrder.data[i] = static_cast<uint32_t>(i);
        idOrder.sortById();
    }
    return true;
}

int PGroup::FindById(int64_t id) {
    const ChannelData& cd = channelData[PRT_ID];
    if (count <= 0 || cd.expanded.count < static_cast<long long>(count) * 8) return -1;
    const bool ordered = idOrder.count == count;
    auto indexAt = [&](int64_t k) { return ordered ? idOrder.data[k] : static_cast<uint32_t>(k); };
    int64_t lo = 0, hi = count;
    while (hi - lo > 1) {
        const int64_t mid = (lo + hi) / 2;
        const int64_t v = idAt(indexAt(mid));
        if (v < id)
            lo = mid;
        else if (v > id)
            hi = mid;
        else
            return static_cast<int>(indexAt(mid));
    }
    return idAt(indexAt(lo)) == id ? static_cast<int>(indexAt(lo)) : -1;
}

}  // namespace vaporix
