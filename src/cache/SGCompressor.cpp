// Grid stream codec: stream framing, the encoder (quantise, difference, collapse, code), the
// decoder (slice-streaming and whole-field paths) and zoned streams on the job engine.
#include "cache/SGCompressor.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "foundation/log.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vaporix {

namespace {

// Integers written into the float destination before they become floats (the whole-field
// path needs no buffer of its own): stores and loads through this type may alias anything.
using AliasInt32 = int32_t __attribute__((may_alias));

// The encoder reserves this much output on entry, so that small streams never reallocate.
constexpr long long OUTPUT_RESERVE = 100000;
// The largest float below 2^31: quantised values must stay under it to fit an int32.
constexpr float INT32_FLOAT_LIMIT = 2147483520.0f;
// Streaming decode keeps (passes + 1) slices; above this many cells the whole-field path,
// which needs no buffer at all, is used instead.
constexpr int64_t STREAMING_CELLS = int64_t(1) << 22;
constexpr int STREAMING_PASSES = 16;
// Bytes of a single stream before its payload: magic, kind.
constexpr uint64_t SINGLE_PREFIX = 3;

template <typename T>
bool readAt(const uint8_t* data, uint64_t size, uint64_t pos, T& out) {
    if (pos > size || size - pos < sizeof(T)) return false;
    std::memcpy(&out, data + pos, sizeof(T));
    return true;
}

template <typename T>
void writeAt(uint8_t* data, uint64_t pos, const T& value) {
    std::memcpy(data + pos, &value, sizeof(T));
}

// Wrapping integer arithmetic: the differences of the encoder may pass the int32 range, and
// the decoder gets the integers back exactly because both sides wrap the same way.
inline int32_t wrapAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t wrapSub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// Product of sizes that must not pass `limit`. @return false when one is negative or the
// product passes the limit.
bool cellProduct(const int32_t* dims, int n, uint64_t limit, uint64_t& product) {
    product = 1;
    bool zero = false;
    for (int a = 0; a < n; ++a) {
        if (dims[a] < 0) return false;
        if (dims[a] == 0) zero = true;
    }
    if (zero) {
        product = 0;
        return true;
    }
    for (int a = 0; a < n; ++a) {
        const uint64_t d = static_cast<uint64_t>(dims[a]);
        if (product > limit / d) return false;
        product *= d;
    }
    return true;
}

// The field's sizes as three axes (missing ones are 1).
template <int N>
void threeAxes(const int32_t* dims, int64_t out[3]) {
    for (int a = 0; a < 3; ++a) out[a] = a < N ? dims[a] : 1;
}

// Smallest and largest value, each the first of its kind as a plain scan would keep it; a value
// that is not finite makes both 0. @return false for a non-finite value.
bool findRange(const float* v, uint64_t count, float& lo, float& hi) {
    lo = hi = count ? v[0] : 0.0f;
    uint64_t i = 0;
    bool finite = true;
#if defined(__SSE2__)
    if (count >= 8) {
        const __m128i exponent = _mm_set1_epi32(0x7F800000);
        __m128 vlo = _mm_set1_ps(lo), vhi = _mm_set1_ps(hi);
        for (; i + 4 <= count; i += 4) {
            const __m128 x = _mm_loadu_ps(v + i);
            const __m128i bits = _mm_and_si128(_mm_castps_si128(x), exponent);
            if (_mm_movemask_epi8(_mm_cmpeq_epi32(bits, exponent))) {
                finite = false;
                break;
            }
            vlo = _mm_min_ps(x, vlo);
            vhi = _mm_max_ps(x, vhi);
        }
        if (finite) {
            alignas(16) float l[4], h[4];
            _mm_store_ps(l, vlo);
            _mm_store_ps(h, vhi);
            for (int k = 0; k < 4; ++k) {
                if (l[k] < lo) lo = l[k];
                if (h[k] > hi) hi = h[k];
            }
        }
    }
#endif
    for (; finite && i < count; ++i) {
        const float x = v[i];
        if (!std::isfinite(x)) {
            finite = false;
            break;
        }
        if (x < lo) lo = x;
        if (x > hi) hi = x;
    }
    if (!finite) {
        lo = hi = 0.0f;
        return false;
    }
    // Equal zeros may differ in sign; a scan keeps the first one it meets.
    if (lo == 0.0f)
        for (uint64_t k = 0; k < count; ++k)
            if (v[k] == 0.0f) {
                lo = v[k];
                break;
            }
    if (hi == 0.0f)
        for (uint64_t k = 0; k < count; ++k)
            if (v[k] == 0.0f) {
                hi = v[k];
                break;
            }
    return true;
}

// Cell count of a single stream from its header, without decoding it. @return false when the
// header is malformed or the count passes `limit`.
template <int N>
bool singleStreamCells(const uint8_t* data, uint64_t size, uint64_t limit, uint64_t& cells) {
    uint16_t magic = 0;
    uint8_t kind = 0;
    if (!readAt(data, size, 0, magic) || magic != SG_MAGIC_SINGLE || !readAt(data, size, 2, kind))
        return false;
    if (kind == SG_KIND_RAW || kind == SG_KIND_CONSTANT) {
        int32_t count = 0;
        if (!readAt(data, size, SINGLE_PREFIX, count) || count < 0) return false;
        cells = static_cast<uint64_t>(count);
        return cells <= limit;
    }
    if (kind != SG_KIND_CODED) return false;
    int32_t dims[N];
    for (int a = 0; a < N; ++a)
        if (!readAt(data, size, SINGLE_PREFIX + 4 * a, dims[a])) return false;
    return cellProduct(dims, N, limit, cells);
}

// In-place running sum of n integers (wrapping): a[k] = a[0] + ... + a[k]. Four at a time in
// a register where the machine has SSE2.
inline void prefixSum(AliasInt32* a, int64_t n) {
    int64_t i = 0;
    uint32_t carry = 0;
#if defined(__SSE2__)
    __m128i c = _mm_setzero_si128();
    for (; i + 4 <= n; i += 4) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i));
        v = _mm_add_epi32(v, _mm_slli_si128(v, 4));
        v = _mm_add_epi32(v, _mm_slli_si128(v, 8));
        v = _mm_add_epi32(v, c);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(a + i), v);
        c = _mm_shuffle_epi32(v, 0xFF);
    }
    carry = static_cast<uint32_t>(_mm_cvtsi128_si32(c));
#endif
    for (; i < n; ++i) {
        carry += static_cast<uint32_t>(a[i]);
        a[i] = static_cast<int32_t>(carry);
    }
}

// Undoes difference passes `passes` down to 1 along one line: pass p keeps the first p values
// and sums from there, a running sum that starts at index p - 1.
inline void undoLine(AliasInt32* line, int64_t n, int passes) {
    for (int p = passes; p >= 1; --p)
        if (n > p) prefixSum(line + p - 1, n - p + 1);
}

// Converts integers to floats: value = integer * inverse + minimum, in float32.
inline void dequantise(const int32_t* q, float* out, uint64_t n, float inverse, float minimum) {
    for (uint64_t i = 0; i < n; ++i) out[i] = static_cast<float>(q[i]) * inverse + minimum;
}

}  // namespace

// =============================================================================================
// Life and jobs

template <int N>
SGCompressor<N>::Zone::~Zone() {
    delete compressor;
}

template <int N>
SGCompressor<N>::SGCompressor(ThreadManager* manager) : MTJobs(manager) {}

template <int N>
SGCompressor<N>::~SGCompressor() {
    // The jobs leave before the zones they read go away.
    shutdown();
    for (ZoneTask* task : mTasks) delete task;
}

template <int N>
Job* SGCompressor<N>::createJob() {
    Zone* zone = new (std::nothrow) Zone;
    if (!zone) return nullptr;
    zone->compressor = new (std::nothrow) SGCompressor<N>(nullptr);
    if (!zone->compressor) {
        delete zone;
        return nullptr;
    }
    return zone;
}

template <int N>
void SGCompressor<N>::jobProc(Job& job) {
    Zone& zone = static_cast<Zone&>(job);
    zone.compressor->mStreaming = mStreaming;
    for (uint64_t i = job.first; i < job.last; ++i) {
        ZoneTask& task = *mTasks.data[i];
        zone.destination = task.destination;
        zone.source = task.source;
        std::memcpy(zone.dimensions, task.dimensions, sizeof zone.dimensions);
        if (job.mode == 1) {
            task.ok = zone.compressor->decodeSingle(task.source, task.sourceSize, task.destination,
                                                    task.count);
        } else {
            zone.quantBits = mQuantBits;
            zone.quantStep = mQuantStep;
            zone.passes = mPasses;
            task.ok = zone.compressor->encodeInto(task.stream, task.values, task.dimensions,
                                                  mQuantBits, mQuantStep, mPasses) > 0;
        }
    }
}

template <int N>
bool SGCompressor<N>::append(const void* data, int size) {
    if (size <= 0) return true;
    const long long at = output.count;
    if (!output.resize(at + size)) return false;
    std::memcpy(output.data + at, data, static_cast<size_t>(size));
    return true;
}

template <int N>
int SGCompressor<N>::zoneJobsFor(int zones) {
    const int threads = std::max(1, defaultThreads());
    return std::min(zones, threads);
}

template <int N>
bool SGCompressor<N>::ensureZoneJobs(int count) {
    if (!jobs || numJobs != count) {
        shutdown();
        init(count);
    }
    return threadManager && numJobs == count;
}

template <int N>
void SGCompressor<N>::releaseBuffers() {
    quantised.free();
    mFileBytes.free();
    mSlice.free();
    mState.free();
    mCoder.release();
    for (ZoneTask* task : mTasks) task->stream.free();
}

// =============================================================================================
// Decoding

template <int N>
bool SGCompressor<N>::decode(const uint8_t* data,
                             uint64_t sizeBytes,
                             float* out,
                             uint64_t outCount) {
    if (!data || (!out && outCount)) return false;
    uint16_t magic = 0;
    if (!readAt(data, sizeBytes, 0, magic)) return false;
    if (magic == SG_MAGIC_SINGLE) return decodeSingle(data, sizeBytes, out, outCount);
    if (magic == SG_MAGIC_ZONED) return decodeZoned(data, sizeBytes, out, outCount);
    return false;
}

template <int N>
int SGCompressor<N>::Decompress(
    const void* source, uint64_t sourceBytes, float* destination, uint64_t cells, bool fromFile) {
    if (!source) return 0;
    if (!fromFile)
        return decode(static_cast<const uint8_t*>(source), sourceBytes, destination, cells) ? 1 : 0;
    // From a file: the stream's bytes, as far as the file holds them, are read into a buffer.
    // A file that can seek tells how much is left; one that cannot is read in growing pieces,
    // so that a long claim costs no memory up front.
    std::FILE* file = static_cast<std::FILE*>(const_cast<void*>(source));
    uint64_t limit = sourceBytes;
    uint64_t piece = uint64_t(1) << 20;
    const long at = std::ftell(file);
    if (at >= 0 && std::fseek(file, 0, SEEK_END) == 0) {
        const long end = std::ftell(file);
        if (std::fseek(file, at, SEEK_SET) != 0) return 0;
        limit = std::min<uint64_t>(limit, end > at ? static_cast<uint64_t>(end - at) : 0);
        piece = limit;
    }
    mFileBytes.resize(0);
    uint64_t got = 0;
    while (got < limit) {
        if (got == static_cast<uint64_t>(mFileBytes.count)) {
            const uint64_t size = std::min(limit, got + std::max(piece, got));
            if (!mFileBytes.resize(static_cast<long long>(size), nullptr, true)) {
                lumoLog("Can't allocate %d MB for decompression", static_cast<int>(size >> 20));
                return 0;
            }
        }
        const size_t n =
            std::fread(mFileBytes.data + got, 1, static_cast<size_t>(mFileBytes.count) - got, file);
        if (n == 0) break;
        got += n;
    }
    return decode(mFileBytes.data, got, destination, cells) ? 1 : 0;
}

template <int N>
bool SGCompressor<N>::decodeSingle(const uint8_t* data,
                                   uint64_t size,
                                   float* out,
                                   uint64_t outCount) {
    uint16_t magic = 0;
    uint8_t kind = 0;
    if (!readAt(data, size, 0, magic) || magic != SG_MAGIC_SINGLE || !readAt(data, size, 2, kind))
        return false;
    switch (kind) {
        case SG_KIND_RAW: {
            int32_t count = 0;
            if (!readAt(data, size, SINGLE_PREFIX, count) || count < 0 ||
                static_cast<uint64_t>(count) != outCount)
                return false;
            if ((size - 7) / 4 < outCount) return false;
            if (outCount) std::memcpy(out, data + 7, outCount * 4);
            return true;
        }
        case SG_KIND_CONSTANT: {
            int32_t count = 0;
            float value = 0;
            if (!readAt(data, size, SINGLE_PREFIX, count) || count < 0 ||
                static_cast<uint64_t>(count) != outCount || !readAt(data, size, 7, value))
                return false;
            std::fill_n(out, outCount, value);
            return true;
        }
        case SG_KIND_CODED:
            break;
        default:
            return false;
    }

    // Coded: dimensions, scale, minimum, integer minimum, passes, then the symbols.
    int32_t dims[N];
    uint64_t pos = SINGLE_PREFIX;
    for (int a = 0; a < N; ++a, pos += 4)
        if (!readAt(data, size, pos, dims[a])) return false;
    uint64_t cells = 0;
    if (!cellProduct(dims, N, outCount, cells) || cells != outCount) return false;
    float scale = 0, minimum = 0;
    int32_t integerMinimum = 0;
    uint8_t passes = 0;
    if (!readAt(data, size, pos, scale) || !readAt(data, size, pos + 4, minimum) ||
        !readAt(data, size, pos + 8, integerMinimum) || !readAt(data, size, pos + 12, passes))
        return false;
    pos += 13;
    // A tiny positive minimum is what a writer left of an empty field: read it as 0.
    if (minimum > 0 && static_cast<double>(minimum) < 1e-20) minimum = 0;
    if (outCount == 0) return true;
    int64_t axes[3];
    threeAxes<N>(dims, axes);
    return decodeCoded(data + pos, size - pos, out, outCount, axes, scale, minimum, integerMinimum,
                       passes);
}

template <int N>
bool SGCompressor<N>::decodeCoded(const uint8_t* data,
                                  uint64_t size,
                                  float* out,
                                  uint64_t count,
                                  const int64_t dims[3],
                                  float scale,
                                  float minimum,
                                  int32_t integerMinimum,
                                  int passes) {
    if (!mCoder.startDecoding(data, size, count)) return false;
    const float inverse = 1.0f / scale;
    const int64_t plane = dims[0] * dims[1];
    const bool streaming = mStreaming && dims[2] > 1 && passes <= STREAMING_PASSES &&
                           plane * (passes + 1) <= STREAMING_CELLS;
    if (streaming) return decodeStreaming(out, dims, inverse, minimum, integerMinimum, passes);
    return decodeWhole(out, count, dims, inverse, minimum, integerMinimum, passes);
}

// Slice by slice: expand one slice, undo its x and y differences in place, then the z ones
// against the state of the slices before, and write floats. Undoing all passes of one axis
// before the next gives the same integers as the pass-major order of the format, since
// differences along different axes commute; everything stays in cache.
template <int N>
bool SGCompressor<N>::decodeStreaming(float* out,
                                      const int64_t dims[3],
                                      float inverse,
                                      float minimum,
                                      int32_t integerMinimum,
                                      int passes) {
    const int64_t nx = dims[0], ny = dims[1], nz = dims[2];
    const int64_t plane = nx * ny;
    if (!mSlice.resize(plane, nullptr, true) ||
        !mState.resize(std::max<int64_t>(1, plane * passes), nullptr, true)) {
        lumoLog("Can't allocate %d MB for decompression", static_cast<int>(plane * nz / 1048576));
        return false;
    }
    int32_t* slice = mSlice.data;
    SymbolCoder::RunState run;
    run.total = static_cast<uint64_t>(plane * nz);
    run.base = integerMinimum;

    for (int64_t z = 0; z < nz; ++z) {
        if (!mCoder.expand(slice, static_cast<uint64_t>(plane), run)) return false;

        // x: each row, passes from the last to the first.
        if (passes > 0 && nx > 1)
            for (int64_t y = 0; y < ny; ++y) undoLine(slice + y * nx, nx, passes);
        // y: whole rows at a time.
        for (int p = passes; p >= 1; --p)
            for (int64_t y = p; y < ny; ++y) {
                int32_t* row = slice + y * nx;
                const int32_t* above = row - nx;
                for (int64_t x = 0; x < nx; ++x) row[x] = wrapAdd(row[x], above[x]);
            }

        // z, through one state slice per pass (pass p's values of the slice before), and out.
        float* o = out + z * plane;
        if (passes == 0) {
            dequantise(slice, o, static_cast<uint64_t>(plane), inverse, minimum);
        } else if (passes == 1) {
            uint32_t* s1 = reinterpret_cast<uint32_t*>(mState.data);
            const uint32_t m1 = z >= 1 ? ~0u : 0u;
            for (int64_t i = 0; i < plane; ++i) {
                const uint32_t v = static_cast<uint32_t>(slice[i]) + (s1[i] & m1);
                s1[i] = v;
                o[i] = static_cast<float>(static_cast<int32_t>(v)) * inverse + minimum;
            }
        } else if (passes == 2) {
            uint32_t* s1 = reinterpret_cast<uint32_t*>(mState.data);
            uint32_t* s2 = s1 + plane;
            const uint32_t m1 = z >= 1 ? ~0u : 0u;
            const uint32_t m2 = z >= 2 ? ~0u : 0u;
            for (int64_t i = 0; i < plane; ++i) {
                uint32_t v = static_cast<uint32_t>(slice[i]) + (s2[i] & m2);
                s2[i] = v;
                v += s1[i] & m1;
                s1[i] = v;
                o[i] = static_cast<float>(static_cast<int32_t>(v)) * inverse + minimum;
            }
        } else {
            uint32_t* state = reinterpret_cast<uint32_t*>(mState.data);
            for (int p = passes; p >= 1; --p) {
                uint32_t* sp = state + (p - 1) * plane;
                uint32_t* v = reinterpret_cast<uint32_t*>(slice);
                if (z >= p)
                    for (int64_t i = 0; i < plane; ++i) sp[i] = v[i] = v[i] + sp[i];
                else
                    std::memcpy(sp, v, static_cast<size_t>(plane) * 4);
            }
            dequantise(slice, o, static_cast<uint64_t>(plane), inverse, minimum);
        }
    }
    return true;
}

// The whole field at once, in the destination itself: expand, undo the differences in the
// format's order, convert in place.
template <int N>
bool SGCompressor<N>::decodeWhole(float* out,
                                  uint64_t count,
                                  const int64_t dims[3],
                                  float inverse,
                                  float minimum,
                                  int32_t integerMinimum,
                                  int passes) {
    AliasInt32* q = reinterpret_cast<AliasInt32*>(out);
    SymbolCoder::RunState run;
    run.total = count;
    run.base = integerMinimum;
    if (!mCoder.expand(reinterpret_cast<int32_t*>(q), count, run)) return false;

    const int64_t nx = dims[0], ny = dims[1], nz = dims[2];
    const int64_t plane = nx * ny;
    for (int p = passes; p >= 1; --p) {
        if (nx > p)
            for (int64_t r = 0; r < ny * nz; ++r) prefixSum(q + r * nx + p - 1, nx - p + 1);
        if (ny > p)
            for (int64_t z = 0; z < nz; ++z)
                for (int64_t y = p; y < ny; ++y) {
                    AliasInt32* row = q + z * plane + y * nx;
                    for (int64_t x = 0; x < nx; ++x) row[x] = wrapAdd(row[x], row[x - nx]);
                }
        if (nz > p)
            for (int64_t z = p; z < nz; ++z) {
                AliasInt32* cur = q + z * plane;
                for (int64_t i = 0; i < plane; ++i) cur[i] = wrapAdd(cur[i], cur[i - plane]);
            }
    }
    // In blocks through a small buffer, so that the conversion runs vectorised.
    int32_t block[1024];
    for (uint64_t i = 0; i < count; i += 1024) {
        const uint64_t n = std::min<uint64_t>(1024, count - i);
        std::memcpy(block, out + i, n * 4);
        dequantise(block, out + i, n, inverse, minimum);
    }
    return true;
}

template <int N>
bool SGCompressor<N>::decodeZoned(const uint8_t* data,
                                  uint64_t size,
                                  float* out,
                                  uint64_t outCount) {
    uint16_t zones = 0;
    if (!readAt(data, size, 2, zones)) return false;
    const uint64_t tableEnd = 4 + 8 * static_cast<uint64_t>(zones);
    if (size < tableEnd) return false;
    if (zones == 0) return outCount == 0;

    // Zones and their sizes; each zone's stream may run to the end of the input.
    while (mTasks.count < zones) {
        ZoneTask* task = new (std::nothrow) ZoneTask;
        if (!task || !mTasks.append(task)) {
            delete task;
            return false;
        }
    }
    iArray<int, int> order;
    if (!order.resize(zones, nullptr, true)) return false;
    for (int i = 0; i < zones; ++i) {
        int32_t destination = 0, start = 0;
        readAt(data, size, 4 + 4 * static_cast<uint64_t>(i), destination);
        readAt(data, size, 4 + 4 * static_cast<uint64_t>(zones + i), start);
        if (destination < 0 || start < 0) return false;
        const uint64_t at = tableEnd + static_cast<uint64_t>(start);
        if (at >= size) return false;
        ZoneTask& task = *mTasks.data[i];
        task.source = data + at;
        task.sourceSize = size - at;
        if (!singleStreamCells<N>(task.source, task.sourceSize, outCount, task.count)) return false;
        if (static_cast<uint64_t>(destination) > outCount - task.count) return false;
        task.destination = out + destination;
        task.ok = false;
        order.data[i] = i;
    }
    // The zones must tile the destination exactly: no gap, no overlap, nothing left over.
    std::sort(order.begin(), order.end(), [&](int a, int b) {
        return mTasks.data[a]->destination < mTasks.data[b]->destination;
    });
    uint64_t covered = 0;
    for (int i = 0; i < zones; ++i) {
        const ZoneTask& task = *mTasks.data[order.data[i]];
        if (task.destination != out + covered) return false;
        covered += task.count;
    }
    if (covered != outCount) return false;

    // In parallel when the engine has its jobs on threads, else one zone after the other here.
    const int jobsWanted = zoneJobsFor(zones);
    if (jobsWanted > 1 && ensureZoneJobs(jobsWanted)) {
        setSpan(zones);
        runJobs(1, nullptr);
    } else {
        for (int i = 0; i < zones; ++i) {
            ZoneTask& task = *mTasks.data[i];
            task.ok = decodeSingle(task.source, task.sourceSize, task.destination, task.count);
        }
    }
    for (int i = 0; i < zones; ++i)
        if (!mTasks.data[i]->ok) return false;
    return true;
}

// =============================================================================================
// Encoding

template <int N>
bool SGCompressor<N>::encodeRaw(const float* values, int64_t count) {
    output.resize(0);
    if (count < 0 || count > INT32_MAX || (!values && count)) return false;
    const uint16_t magic = SG_MAGIC_SINGLE;
    const int32_t n = static_cast<int32_t>(count);
    if (!output.resize(7 + count * 4, nullptr, true)) return false;
    writeAt(output.data, 0, magic);
    output.data[2] = SG_KIND_RAW;
    writeAt(output.data, 3, n);
    if (count) std::memcpy(output.data + 7, values, static_cast<size_t>(count) * 4);
    return true;
}

template <int N>
int64_t SGCompressor<N>::Compress(
    const float* data, const int dimensions[N], int quantBits, float quantStep, int passes) {
    int32_t d[N];
    for (int a = 0; a < N; ++a) d[a] = dimensions[a];
    return encodeInto(output, data, d, quantBits, quantStep, passes);
}

template <int N>
int64_t SGCompressor<N>::encodeInto(iArray<uint8_t, long long>& out,
                                    const float* values,
                                    const int32_t dims[N],
                                    int quantBits,
                                    float quantStep,
                                    int passes) {
    // Output reserved and emptied; the size and the settings checked.
    if (out.capacity < OUTPUT_RESERVE && !out.reserveExact(OUTPUT_RESERVE)) return 0;
    out.resize(0);
    uint64_t cells = 0;
    if (!cellProduct(dims, N, INT32_MAX, cells) || (!values && cells) || passes < 0 || passes > 255)
        return 0;
    const int64_t count = static_cast<int64_t>(cells);
    auto put = [&](const void* bytes, size_t n) {
        const long long at = out.count;
        if (!out.resize(at + static_cast<long long>(n))) return false;
        std::memcpy(out.data + at, bytes, n);
        return true;
    };
    const uint16_t magic = SG_MAGIC_SINGLE;
    const int32_t count32 = static_cast<int32_t>(count);
    auto writeRaw = [&]() -> int64_t {
        out.resize(0);
        const uint8_t kind = SG_KIND_RAW;
        if (!put(&magic, 2) || !put(&kind, 1) || !put(&count32, 4) ||
            !put(values, static_cast<size_t>(count) * 4))
            return 0;
        return out.count;
    };

    // Lossless: the floats as they are.
    if (quantBits >= 20) return writeRaw();

    // Range; a field without spread (or with a value that is not finite) is one constant.
    float lo = 0, hi = 0;
    findRange(values, cells, lo, hi);
    if (std::fabs(static_cast<double>(lo) - static_cast<double>(hi)) < 1e-20) {
        const uint8_t kind = SG_KIND_CONSTANT;
        if (!put(&magic, 2) || !put(&kind, 1) || !put(&count32, 4) || !put(&lo, 4)) return 0;
        return out.count;
    }
    if (quantBits <= 0 && !(quantStep > 0 && std::isfinite(quantStep))) return 0;
    const float spread = hi - lo;
    const float scale =
        quantBits > 0 ? static_cast<float>(1u << quantBits) / spread : 1.0f / quantStep;
    if (!std::isfinite(spread) || !std::isfinite(scale) || !(scale > 0) ||
        !(spread * scale + 0.5f < INT32_FLOAT_LIMIT)) {
        // Too many steps for 32-bit integers (or a spread that overflows): store losslessly.
        lumoLog("SGCompressor: value range too wide for the quantisation step, stored raw\n");
        return writeRaw();
    }

    // Quantise: floor((v - min) * scale + 0.5) in float32; the argument is never negative, so
    // truncation is the floor.
    if (!quantised.resize(count, nullptr, true)) {
        lumoLog("Can't allocate %d MB for compression", static_cast<int>(count / 1048576));
        return 0;
    }
    int32_t* q = quantised.data;
    for (int64_t i = 0; i < count; ++i)
        q[i] = static_cast<int32_t>((values[i] - lo) * scale + 0.5f);

    const uint8_t kind = SG_KIND_CODED;
    if (!put(&magic, 2) || !put(&kind, 1) || !put(dims, sizeof(int32_t) * N) || !put(&scale, 4) ||
        !put(&lo, 4))
        return 0;

    // Difference rounds: pass p, axes in order, each line from its end down to p + 1.
    int64_t axes[3];
    threeAxes<N>(dims, axes);
    const int64_t nx = axes[0], ny = axes[1], nz = axes[2];
    const int64_t plane = nx * ny;
    for (int p = 0; p < passes; ++p) {
        if (nx > p + 1)
            for (int64_t r = 0; r < ny * nz; ++r) {
                int32_t* row = q + r * nx;
                for (int64_t k = nx - 1; k > p; --k) row[k] = wrapSub(row[k], row[k - 1]);
            }
        if (ny > p + 1)
            for (int64_t z = 0; z < nz; ++z)
                for (int64_t y = ny - 1; y > p; --y) {
                    int32_t* row = q + z * plane + y * nx;
                    const int32_t* above = row - nx;
                    for (int64_t x = 0; x < nx; ++x) row[x] = wrapSub(row[x], above[x]);
                }
        if (nz > p + 1)
            for (int64_t z = nz - 1; z > p; --z) {
                int32_t* cur = q + z * plane;
                const int32_t* below = cur - plane;
                for (int64_t i = 0; i < plane; ++i) cur[i] = wrapSub(cur[i], below[i]);
            }
    }

    // Shift to non-negative values, so that negative numbers can mark runs.
    int32_t mi = q[0], ma = q[0];
    for (int64_t i = 1; i < count; ++i) {
        mi = std::min(mi, q[i]);
        ma = std::max(ma, q[i]);
    }
    if (int64_t(ma) - int64_t(mi) > INT32_MAX) {
        lumoLog("SGCompressor: differences too wide for 32-bit symbols, stored raw\n");
        return writeRaw();
    }
    const uint8_t passByte = static_cast<uint8_t>(passes);
    if (!put(&mi, 4) || !put(&passByte, 1)) return 0;
    for (int64_t i = 0; i < count; ++i) q[i] = wrapSub(q[i], mi);

    const int64_t written = collapseRuns(q, count);

    // Code and append.
    const int64_t coded = mCoder.encode(q, static_cast<uint64_t>(written));
    if (coded <= 0) return 0;
    if (!put(mCoder.bytes.data, static_cast<size_t>(coded))) return 0;
    return out.count;
}

template <int N>
int64_t SGCompressor<N>::encodeZoned(
    const float* values, const int dims[N], int quantBits, float quantStep, int passes, int zones) {
    if (zones <= 1) return Compress(values, dims, quantBits, quantStep, passes);
    output.resize(0);
    int32_t d[N];
    for (int a = 0; a < N; ++a) d[a] = dims[a];
    uint64_t cells = 0;
    if (!cellProduct(d, N, INT32_MAX, cells) || (!values && cells)) return 0;

    // Slabs along the last axis.
    const int64_t length = d[N - 1];
    int64_t slab = 1;
    for (int a = 0; a < N - 1; ++a) slab *= d[a];
    int count = static_cast<int>(std::min<int64_t>(zones, 65535));
    if (length >= 1) count = static_cast<int>(std::min<int64_t>(count, length));
    if (length < 1) count = 1;
    while (mTasks.count < count) {
        ZoneTask* task = new (std::nothrow) ZoneTask;
        if (!task || !mTasks.append(task)) {
            delete task;
            return 0;
        }
    }
    // Slabs of equal decoding work rather than equal thickness: a slice costs about one unit a
    // cell plus four for each cell that starts something new (a value unlike the one before
    // it), as measured on smoke and fire fields (undoing the differences costs every cell alike,
    // coded symbols cost extra).
    iArray<uint64_t, long long> work;
    if (!work.resize(length + 1, nullptr, true)) return 0;
    work.data[0] = 0;
    for (int64_t z = 0; z < length; ++z) {
        const float* v = values + z * slab;
        uint64_t changes = 0;
        for (int64_t i = 1; i < slab; ++i) changes += v[i] != v[i - 1];
        work.data[z + 1] = work.data[z] + static_cast<uint64_t>(slab) + 4 * changes;
    }
    int64_t from = 0;
    for (int i = 0; i < count; ++i) {
        ZoneTask& task = *mTasks.data[i];
        // The first slice at which the running work reaches this zone's share, leaving at least
        // one slice to each zone after it.
        int64_t to = length;
        if (i + 1 < count) {
            const uint64_t share = static_cast<uint64_t>(
                static_cast<unsigned __int128>(work.data[length]) * (i + 1) / count);
            to = std::lower_bound(work.data + from + 1, work.data + length + 1, share) - work.data;
            to = std::clamp<int64_t>(to, from + 1, length - (count - 1 - i));
        }
        std::memcpy(task.dimensions, d, sizeof d);
        task.dimensions[N - 1] = static_cast<int32_t>(to - from);
        task.values = values ? values + from * slab : nullptr;
        task.count = static_cast<uint64_t>((to - from) * slab);
        task.position = static_cast<uint64_t>(from * slab);
        task.ok = false;
        from = to;
    }

    // The zones, in parallel where the engine has threads.
    mQuantBits = quantBits;
    mQuantStep = quantStep;
    mPasses = passes;
    const int jobsWanted = zoneJobsFor(count);
    if (jobsWanted > 1 && ensureZoneJobs(jobsWanted)) {
        setSpan(static_cast<uint64_t>(count));
        runJobs(0, nullptr);
    } else {
        for (int i = 0; i < count; ++i) {
            ZoneTask& task = *mTasks.data[i];
            task.ok = encodeInto(task.stream, task.values, task.dimensions, quantBits, quantStep,
                                 passes) > 0;
        }
    }

    // The container: magic, zone count, destination and stream positions, the streams.
    uint64_t total = 4 + 8 * static_cast<uint64_t>(count);
    for (int i = 0; i < count; ++i) {
        const ZoneTask& task = *mTasks.data[i];
        if (!task.ok) return 0;
        total += static_cast<uint64_t>(task.stream.count);
    }
    if (total - (4 + 8 * static_cast<uint64_t>(count)) > INT32_MAX) return 0;
    if (!output.resize(static_cast<long long>(total), nullptr, true)) return 0;
    writeAt(output.data, 0, SG_MAGIC_ZONED);
    writeAt(output.data, 2, static_cast<uint16_t>(count));
    uint64_t at = 0;
    uint64_t pos = 4 + 8 * static_cast<uint64_t>(count);
    for (int i = 0; i < count; ++i) {
        const ZoneTask& task = *mTasks.data[i];
        writeAt(output.data, 4 + 4 * static_cast<uint64_t>(i), static_cast<int32_t>(task.position));
        writeAt(output.data, 4 + 4 * static_cast<uint64_t>(count + i), static_cast<int32_t>(at));
        std::memcpy(output.data + pos, task.stream.data, static_cast<size_t>(task.stream.count));
        pos += static_cast<uint64_t>(task.stream.count);
        at += static_cast<uint64_t>(task.stream.count);
    }
    return output.count;
}

int64_t collapseRuns(int32_t* values, int64_t count) {
    if (count <= 0) return 0;
    int64_t written = 1;
    int32_t last = values[0];
    int64_t repeats = 0;
    for (int64_t i = 1; i < count; ++i) {
        const int32_t v = values[i];
        if (v != last) {
            values[written++] = v;
            last = v;
            repeats = 0;
        } else if (++repeats < 4) {
            values[written++] = v;
        } else if (repeats == 4) {
            written -= 3;  // the three copies are taken back
            values[written++] = -4;
        } else {
            --values[written - 1];
        }
    }
    return written;
}

template class SGCompressor<1>;
template class SGCompressor<3>;

}  // namespace vaporix
