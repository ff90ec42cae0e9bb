// libFuzzer target of the Field3D reader: Field3D files whose attributes, data sets and mapping
// come from the input (sizes, windows, block tables, counts, classes, matrices), sometimes cut
// short, read with a map of every channel and listed. The HDF5 structure itself stays well
// formed: what is tested is how the reader takes hostile Field3D content.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "../modules/Field3DWriter.h"
#include "cache/VaporixFrameData.h"
#include "field3dio/Field3DReader.h"

using namespace vaporix;

namespace {

std::string scratchPath() {
    return "/tmp/fuzz_field3dio_" + std::to_string(getpid()) + ".f3d";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool limited = [] {
        // Frames of a few megabytes at most: the reader's own limit is 2^31-1 cells.
        field3dio::setMaxCellsForTesting(1 << 20);
        return true;
    }();
    (void)limited;
    FuzzedDataProvider in(data, size);
    const char* names[] = {"density", "vel", "Cd", "temperature"};
    const char* classes[] = {"DenseField", "SparseField", "MACField", "Other"};
    std::vector<test::F3DLayer> layers;
    const int count = in.ConsumeIntegralInRange(1, 3);
    for (int i = 0; i < count; ++i) {
        test::F3DLayer l;
        l.name = names[in.ConsumeIntegralInRange(0, 3)];
        l.className = classes[in.ConsumeIntegralInRange(0, 3)];
        if (l.className == "MACField" || l.className == "Other") l.className = "DenseField";
        for (int a = 0; a < 6; ++a) l.extents[a] = in.ConsumeIntegralInRange(-6, 24);
        for (int a = 0; a < 6; ++a) l.window[a] = in.ConsumeIntegralInRange(-6, 24);
        l.components = in.ConsumeIntegralInRange(0, 4);
        l.blockOrder = in.ConsumeIntegralInRange(-1, 12);
        l.emptyValue = in.ConsumeFloatingPoint<float>();
        if (in.ConsumeBool())
            l.blockResOverride = {in.ConsumeIntegralInRange(1, 8), in.ConsumeIntegralInRange(1, 8),
                                  in.ConsumeIntegralInRange(1, 8)};
        if (in.ConsumeBool()) l.denseCountOverride = in.ConsumeIntegralInRange<long long>(0, 1 << 24);
        const int values = in.ConsumeIntegralInRange(0, 4096);
        for (int v = 0; v < values && in.remaining_bytes() > 0; ++v)
            l.values.push_back(in.ConsumeFloatingPoint<float>());
        layers.push_back(std::move(l));
    }
    double matrix[16];
    for (double& m : matrix) m = in.ConsumeFloatingPointInRange<double>(-100.0, 100.0);
    if (in.ConsumeBool())
        for (int k = 0; k < 16; ++k) matrix[k] = (k % 5 == 0) ? 1.0 : (k == 3 || k == 7 ? 0.0 : matrix[k]);
    const bool cut = in.ConsumeBool();
    const uint32_t cutAt = in.ConsumeIntegral<uint32_t>();

    // Layer blocks of bad orders or sizes the writer can't lay out are written as dense.
    for (auto& l : layers) {
        long long cells = 1;
        for (int a = 0; a < 3; ++a) cells *= std::max(0, l.window[a + 3] - l.window[a] + 1);
        if (l.className == "SparseField" && (l.blockOrder < 0 || l.blockOrder > 4 || cells <= 0 ||
                                             l.components <= 0 || l.components > 3))
            l.className = "DenseField";
        if (cells <= 0 || l.components <= 0) l.denseCountOverride = 4;
    }
    const std::string path = scratchPath();
    if (!test::writeField3D(path, "fluid", matrix, layers)) return 0;
    if (cut) {
        if (FILE* f = std::fopen(path.c_str(), "rb+")) {
            std::fseek(f, 0, SEEK_END);
            const long length = std::ftell(f);
            std::fclose(f);
            if (length > 0 && truncate(path.c_str(), static_cast<off_t>(cutAt % length)) != 0)
                return 0;
        }
    }

    iArray<CacheIO::GridMapping> maps;
    int ordinal = 1;
    for (const char* n : names)
        for (const std::string& suffix : {std::string(), std::string("(x)"), std::string("(y)"),
                                           std::string("(Z)")}) {
            CacheIO::GridMapping m;
            m.name = std::string(n) + suffix;
            m.channel = ordinal++ % 31;
            maps.append(m);
        }
    for (bool headerOnly : {true, false}) {
        VaporixFrameData frame;
        frame.resetHeader(headerOnly);
        field3dio::importFrame(path.c_str(), frame, headerOnly, maps.data, maps.count, nullptr);
    }
    iArray<CacheIO::AvaiableChannels> list;
    field3dio::listChannels(path.c_str(), list);
    std::remove(path.c_str());
    return 0;
}
