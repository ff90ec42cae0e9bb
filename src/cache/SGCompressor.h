// The grid stream codec: quantise, difference, collapse runs, prefix-code; zoned streams decode
// in parallel on the job engine.
#pragma once

#include <cstdint>

#include "cache/SymbolCoder.h"
#include "foundation/MTJobs.h"
#include "foundation/iArray.h"

namespace vaporix {

/// Stream magics and kinds.
constexpr uint16_t SG_MAGIC_SINGLE = 64513;
constexpr uint16_t SG_MAGIC_ZONED = 64514;
constexpr uint8_t SG_KIND_RAW = 0;
constexpr uint8_t SG_KIND_CONSTANT = 1;
constexpr uint8_t SG_KIND_CODED = 2;

/// Codec of N-dimensional float fields (N = 3 for grid channels, 1 for particle channels),
/// x fastest.
///
/// A compressor may be reused for any number of streams and keeps its working buffers and its
/// zone jobs between them; one thread at a time may use it.
///
/// Encoding settings: `quantBits` of 20 or more stores the floats as they are (lossless);
/// 1 to 19 spreads 2^quantBits steps over the value range; 0 or below uses steps of
/// `quantStep`. `passes` (0 to 255) rounds of differencing run along every axis before coding;
/// one or two suit smooth fields.
template <int N>
class SGCompressor : public MTJobs {
    static_assert(N >= 1 && N <= 3, "fields of one to three axes");

public:
    /// The job of one zone: it decodes (mode 1) or encodes (mode 0) its zones, each with its own
    /// compressor. A job takes a span of zones when a stream has more zones than threads.
    class Zone : public Job {
    public:
        Zone() = default;
        ~Zone() override;
        float* destination = nullptr;
        const uint8_t* source = nullptr;
        int32_t dimensions[N] = {};
        int quantBits = 0;
        float quantStep = 0;
        int passes = 0;
        SGCompressor<N>* compressor = nullptr;
    };

    explicit SGCompressor(ThreadManager* manager = nullptr);
    ~SGCompressor() override;

    void jobProc(Job& job) override;
    const char* getName() const override { return "SGCompressor"; }
    Job* createJob() override;
    /// Adds `size` bytes to `output`. @return false when memory ran out (`output` is then empty).
    virtual bool append(const void* data, int size);

    /// Decodes one stream (single or zoned) into `destination`, which receives exactly `cells`
    /// values. Without `fromFile`, `source` points at the stream's `sourceBytes` bytes; with it,
    /// `source` is an open `std::FILE*` positioned at the stream, of which at most `sourceBytes`
    /// bytes (and no more than the file holds) are read. The stream's sizes must match `cells`.
    /// @return 1 on success, 0 for an unknown magic or kind, a malformed or mismatched stream, a
    /// failed read or a failed allocation.
    int Decompress(const void* source,
                   uint64_t sourceBytes,
                   float* destination,
                   uint64_t cells,
                   bool fromFile = false);

    /// Encodes a field of `dimensions` values into `output` as one stream (magic 64513).
    /// @return the stream's size in bytes, 0 for bad settings or when memory ran out.
    int64_t Compress(
        const float* data, const int dimensions[N], int quantBits, float quantStep, int passes);
    /// The same as `Compress`.
    int64_t encode(
        const float* values, const int dims[N], int quantBits, float quantStep, int passes) {
        return Compress(values, dims, quantBits, quantStep, passes);
    }

    /// Decodes one stream (single or zoned) of `sizeBytes` bytes into `out`, which receives
    /// exactly `outCount` values. The stream's sizes must add up to `outCount`, and zones must
    /// tile the destination without gaps or overlaps. @return false for a malformed or
    /// mismatched stream (the contents of `out` are then undefined).
    bool decode(const uint8_t* data, uint64_t sizeBytes, float* out, uint64_t outCount);

    /// Writes a raw stream (kind 0) of `count` values into `output`. @return false on failure.
    bool encodeRaw(const float* values, int64_t count);

    /// Encodes the field cut along its last axis into `zones` slabs of about equal decoding
    /// work (at least one slice each), each an independent single stream, in a zoned stream (magic
    /// 64514) that decodes in parallel. The zones are encoded in parallel too. More zones than the
    /// last axis has cells are cut down to that. @return the size in bytes, 0 on failure.
    int64_t encodeZoned(const float* values,
                        const int dims[N],
                        int quantBits,
                        float quantStep,
                        int passes,
                        int zones);

    /// The encoded stream of the last encode call.
    iArray<uint8_t, long long> output;

    /// Decoding normally streams slice by slice through small buffers; this forces the plain
    /// whole-field path instead (tests compare the two).
    void setStreamingDecode(bool on) { mStreaming = on; }
    /// Frees the working buffers (they are otherwise kept for the next stream).
    void releaseBuffers();

private:
    struct ZoneTask {
        const uint8_t* source = nullptr;
        uint64_t sourceSize = 0;
        float* destination = nullptr;
        uint64_t position = 0;  // first cell in the whole field (encoding)
        uint64_t count = 0;
        const float* values = nullptr;
        int32_t dimensions[N] = {};
        iArray<uint8_t, long long> stream;
        bool ok = false;
    };

    bool decodeSingle(const uint8_t* data, uint64_t size, float* out, uint64_t outCount);
    bool decodeZoned(const uint8_t* data, uint64_t size, float* out, uint64_t outCount);
    bool decodeCoded(const uint8_t* data,
                     uint64_t size,
                     float* out,
                     uint64_t count,
                     const int64_t dims[3],
                     float scale,
                     float minimum,
                     int32_t integerMinimum,
                     int passes);
    bool decodeStreaming(float* out,
                         const int64_t dims[3],
                         float inverse,
                         float minimum,
                         int32_t integerMinimum,
                         int passes);
    bool decodeWhole(float* out,
                     uint64_t count,
                     const int64_t dims[3],
                     float inverse,
                     float minimum,
                     int32_t integerMinimum,
                     int passes);
    int64_t encodeInto(iArray<uint8_t, long long>& out,
                       const float* values,
                       const int32_t dims[N],
                       int quantBits,
                       float quantStep,
                       int passes);
    bool ensureZoneJobs(int count);
    int zoneJobsFor(int zones);

    /// The job engine is used only for zoned streams; zones are held here between passes.
    iArray<ZoneTask*, int> mTasks;
    /// Encoder buffer of quantised integers (kept between streams: fresh memory is slow).
    iArray<int32_t, long long> quantised;
    SymbolCoder mCoder;
    // The bytes of a stream read from a file (kept between streams).
    iArray<uint8_t, long long> mFileBytes;
    // Decoder buffers of the streaming path: one slice and one state slice per pass.
    iArray<int32_t, long long> mSlice;
    iArray<int32_t, long long> mState;
    bool mStreaming = true;
    // Settings of the zoned encode in progress, read by the zone jobs.
    int mQuantBits = 0;
    float mQuantStep = 0;
    int mPasses = 0;
};

/// Collapses runs in place: a value followed by k >= 4 equal values becomes the value and -k;
/// shorter repeats stay as they are (7 7 7 7 7 5 becomes 7 -4 5). The values must not be
/// negative, so that a negative number can only be a run. @return the new length, never more
/// than `count`.
int64_t collapseRuns(int32_t* values, int64_t count);

extern template class SGCompressor<1>;
extern template class SGCompressor<3>;

}  // namespace vaporix
