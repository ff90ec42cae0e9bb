// zlib helpers: bounded inflate and whole-buffer deflate.
#include "cache/zlibutil.h"

#include <zlib.h>

#include <algorithm>
#include <climits>

namespace vaporix {

bool inflateInto(const uint8_t* src, uint64_t srcBytes, uint8_t* dst, uint64_t dstBytes,
                 uint64_t* written) {
    if (written) *written = 0;
    z_stream zs{};
    if (inflateInit(&zs) != Z_OK) return false;
    uint64_t inLeft = srcBytes, outLeft = dstBytes;
    zs.next_in = const_cast<Bytef*>(src);
    zs.next_out = dst;
    int rc = Z_OK;
    // zlib counts in 32-bit units: feed big buffers in slices.
    while (rc == Z_OK) {
        if (zs.avail_in == 0 && inLeft) {
            zs.avail_in = static_cast<uInt>(std::min<uint64_t>(inLeft, UINT_MAX));
            inLeft -= zs.avail_in;
        }
        if (zs.avail_out == 0 && outLeft) {
            zs.avail_out = static_cast<uInt>(std::min<uint64_t>(outLeft, UINT_MAX));
            outLeft -= zs.avail_out;
        }
        rc = inflate(&zs, Z_NO_FLUSH);
        if (rc == Z_BUF_ERROR && ((zs.avail_in == 0 && inLeft) || (zs.avail_out == 0 && outLeft)))
            rc = Z_OK;
    }
    const uint64_t produced = dstBytes - outLeft - zs.avail_out;
    inflateEnd(&zs);
    if (written) *written = produced;
    return rc == Z_STREAM_END;
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
