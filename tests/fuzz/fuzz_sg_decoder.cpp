// libFuzzer target: grid and particle streams (single and zoned) through the codec's decoder,
// bare symbol streams through the symbol coder, and fields built from the input through an
// encode-decode round trip. Any input must give an answer without crash, hang or stray access.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cache/SGCompressor.h"
#include "cache/SymbolCoder.h"
#include "foundation/log.h"

using namespace vaporix;

namespace {

// Large enough for every structure of the format, small enough to keep each run fast.
constexpr uint64_t MAX_CELLS = 1 << 18;

// Cell count a stream announces, so that the decoder gets past its size check.
uint64_t announcedCells(const uint8_t* s, size_t size, int axes) {
    if (size < 7) return 0;
    uint16_t magic;
    std::memcpy(&magic, s, 2);
    if (magic == SG_MAGIC_ZONED) {
        // The zones' own counts, summed.
        uint16_t zones;
        std::memcpy(&zones, s + 2, 2);
        const uint64_t table = 4 + 8 * uint64_t(zones);
        uint64_t total = 0;
        for (uint16_t i = 0; i < zones && table <= size; ++i) {
            int32_t at;
            std::memcpy(&at, s + 4 + 4 * (zones + i), 4);
            if (at < 0 || table + uint64_t(at) >= size) return 0;
            total += announcedCells(s + table + at, size - table - at, axes);
            if (total > MAX_CELLS) return 0;
        }
        return total;
    }
    if (s[2] != SG_KIND_CODED) {
        int32_t count;
        std::memcpy(&count, s + 3, 4);
        return count < 0 ? 0 : uint64_t(count);
    }
    uint64_t cells = 1;
    for (int a = 0; a < axes; ++a) {
        if (size < 7 + 4 * uint64_t(a)) return 0;
        int32_t d;
        std::memcpy(&d, s + 3 + 4 * a, 4);
        if (d < 0 || d > int32_t(MAX_CELLS)) return 0;
        cells *= uint64_t(d);
        if (cells > MAX_CELLS) return 0;
    }
    return cells;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = [] {
        setLogSink([](const std::string&) {});
        setenv("LUMO_LOG_DIR", "/dev/null/none", 1);  // no log file is written while fuzzing
        return true;
    }();
    (void)quiet;
    if (size < 4) return 0;
    // Kept between inputs, as a frame keeps its compressors.
    static SGCompressor<3> grid;
    static SGCompressor<1> particles;
    static std::vector<float> out;

    const uint8_t mode = data[0];
    uint32_t explicitCount = 0;
    std::memcpy(&explicitCount, data + 1, 3);
    const uint8_t* s = data + 4;
    const size_t n = size - 4;
    const int axes = (mode & 1) ? 1 : 3;
    uint64_t cells = (mode & 2) ? explicitCount % (MAX_CELLS + 1) : announcedCells(s, n, axes);
    if (cells > MAX_CELLS) cells = MAX_CELLS;
    if (out.size() < cells + 1) out.resize(cells + 1);

    switch ((mode >> 2) & 3) {
        case 0:
        case 1:
            grid.setStreamingDecode(!(mode & 16));
            if (axes == 3)
                grid.decode(s, n, out.data(), cells);
            else
                particles.decode(s, n, out.data(), cells);
            break;
        case 2: {
            // A bare symbol stream of a given count.
            std::vector<int32_t> symbols(explicitCount % 65536);
            SymbolCoder::decodeSymbols(s, n, symbols.data(), symbols.size());
            break;
        }
        case 3: {
            // The bytes as a field: encode, decode, and check what must hold.
            const int count = static_cast<int>(n / 4);
            if (count == 0) break;
            std::vector<float> field(static_cast<size_t>(count));
            std::memcpy(field.data(), s, size_t(count) * 4);
            const int bits = static_cast<int>(explicitCount % 24);
            const int passes = static_cast<int>((explicitCount >> 8) % 4);
            int dims[3] = {count, 1, 1};
            if ((mode & 32) && count % 4 == 0) dims[0] = 2, dims[1] = 2, dims[2] = count / 4;
            const int zones = (mode & 64) ? 3 : 1;
            const int64_t bytes =
                grid.encodeZoned(field.data(), dims, bits, 0.5f, passes, zones);
            if (bytes <= 0) break;
            std::vector<uint8_t> stream(grid.output.data, grid.output.data + grid.output.count);
            std::vector<float> back(field.size());
            if (!grid.decode(stream.data(), stream.size(), back.data(), back.size())) abort();
            if (bits >= 20 && std::memcmp(back.data(), field.data(), field.size() * 4) != 0)
                abort();
            break;
        }
    }
    return 0;
}
