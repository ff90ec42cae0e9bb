// zlib helpers: bounded inflate and whole-buffer deflate.
#include "cache/zlibutil.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <climits>

namespace vaporix {

namespace {

/// One decompressor per thread, made on first use: its tables are kept between streams.
struct Decompressor {
    libdeflate_decompressor* d = libdeflate_alloc_decompressor();
    ~Decompressor() {
        if (d) libdeflate_free_decompressor(d);
    }
};

}  // namespace

bool inflateInto(const uint8_t* src, uint64_t srcBytes, uint8_t* dst, uint64_t dstBytes,
                 uint64_t* written) {
    if (written) *written = 0;
    // libdeflate decodes a whole buffer at about twice zlib's speed, with the same checks
    // (headers, Huffman tables, Adler-32) and the same answers: good only for a stream that
    // ends within the room; bytes after its end are ignored.
    thread_local Decompressor decompressor;
    if (!decompressor.d) return false;
    size_t in = 0, out = 0;
    const libdeflate_result rc = libdeflate_zlib_decompress_ex(
        decompressor.d, src, static_cast<size_t>(srcBytes), dst, static_cast<size_t>(dstBytes),
        &in, &out);
    if (rc != LIBDEFLATE_SUCCESS) return false;
    if (written) *written = out;
    return true;
}

bool deflateInto(const uint8_t* data, uint64_t bytes, iArray<uint8_t, long long>& out,
                 int level) {
    out.resize(0);
    if (bytes > UINT_MAX / 2) return false;
    const uLong bound = compressBound(static_cast<uLong>(bytes));
    if (!out.resize(static_cast<long long>(bound), nullptr, true)) return false;
    uLongf size = bound;
    if (compress2(out.data, &size, data, static_cast<uLong>(bytes), level) != Z_OK) {
        out.free();
        return false;
    }
    out.resize(static_cast<long long>(size));
    return true;
}

}  // namespace vaporix
