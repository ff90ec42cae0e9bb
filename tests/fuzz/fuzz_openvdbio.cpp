// libFuzzer target of the OpenVDB reader: files made with OpenVDB's API from the input (grid
// types and names, voxels and active tiles anywhere, transforms, declared boxes, half
// precision), read with a map of every channel, as a header and listed. Files are not cut or
// damaged here (OpenVDB's reader trusts the sizes in its streams; cut files are tested at fixed
// points in OpenVDBIO_test, with a bounded operator new).
#include <fuzzer/FuzzedDataProvider.h>
#include <openvdb/io/File.h>
#include <openvdb/openvdb.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "cache/VaporixFrameData.h"
#include "openvdbio/OpenVDBIO.h"

using namespace vaporix;
using openvdb::Coord;

namespace {

template <typename GridT, typename MakeValue>
openvdb::GridBase::Ptr makeGrid(FuzzedDataProvider& in, MakeValue value) {
    auto grid = GridT::create(value(in));
    const int voxels = in.ConsumeIntegralInRange(0, 48);
    for (int i = 0; i < voxels; ++i) {
        const Coord ijk(in.ConsumeIntegralInRange(-300, 300), in.ConsumeIntegralInRange(-300, 300),
                        in.ConsumeIntegralInRange(-300, 300));
        grid->tree().setValueOn(ijk, value(in));
    }
    if (in.ConsumeBool())
        grid->tree().addTile(in.ConsumeIntegralInRange(1, 2),
                             Coord(in.ConsumeIntegralInRange(-200, 200),
                                   in.ConsumeIntegralInRange(-200, 200),
                                   in.ConsumeIntegralInRange(-200, 200)),
                             value(in), true);
    return grid;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = [] {
        openvdb::initialize();
        // Frames of a few megabytes at most (downsampled above): the reader's own limit is
        // 2^31-1 cells.
        openvdbio::setMaxCellsForTesting(1 << 20);
        return true;
    }();
    (void)ready;
    FuzzedDataProvider in(data, size);
    const char* names[] = {"density", "vel", "temperature"};
    openvdb::GridPtrVec grids;
    const int count = in.ConsumeIntegralInRange(1, 3);
    for (int i = 0; i < count; ++i) {
        openvdb::GridBase::Ptr g;
        switch (in.ConsumeIntegralInRange(0, 4)) {
            case 0:
                g = makeGrid<openvdb::FloatGrid>(in, [](FuzzedDataProvider& p) {
                    return p.ConsumeFloatingPoint<float>();
                });
                break;
            case 1:
                g = makeGrid<openvdb::DoubleGrid>(in, [](FuzzedDataProvider& p) {
                    return p.ConsumeFloatingPoint<double>();
                });
                break;
            case 2:
                g = makeGrid<openvdb::Vec3SGrid>(in, [](FuzzedDataProvider& p) {
                    return openvdb::Vec3s(p.ConsumeFloatingPoint<float>(),
                                          p.ConsumeFloatingPoint<float>(),
                                          p.ConsumeFloatingPoint<float>());
                });
                break;
            case 3:
                g = makeGrid<openvdb::Int32Grid>(in, [](FuzzedDataProvider& p) {
                    return p.ConsumeIntegral<int32_t>();
                });
                break;
            default:
                g = makeGrid<openvdb::FloatGrid>(in, [](FuzzedDataProvider&) { return 0.0f; });
                break;
        }
        g->setName(names[in.ConsumeIntegralInRange(0, 2)]);
        openvdb::Mat4d m = openvdb::Mat4d::identity();
        if (in.ConsumeBool())
            for (int r = 0; r < 4; ++r)
                for (int c = 0; c < 3; ++c) m(r, c) = in.ConsumeFloatingPointInRange(-10.0, 10.0);
        try {
            g->setTransform(openvdb::math::Transform::createLinearTransform(m));
        } catch (const openvdb::Exception&) {
            // A singular matrix: OpenVDB refuses it; keep the identity.
        }
        if (in.ConsumeBool()) {
            const openvdb::Vec3i lo(in.ConsumeIntegralInRange(-5000, 5000),
                                    in.ConsumeIntegralInRange(-5000, 5000),
                                    in.ConsumeIntegralInRange(-5000, 5000));
            const openvdb::Vec3i hi(in.ConsumeIntegralInRange(-5000, 5000),
                                    in.ConsumeIntegralInRange(-5000, 5000),
                                    in.ConsumeIntegralInRange(-5000, 5000));
            g->insertMeta("vaporix_dense_min", openvdb::Vec3IMetadata(lo));
            g->insertMeta("vaporix_dense_max", openvdb::Vec3IMetadata(hi));
        }
        g->setSaveFloatAsHalf(in.ConsumeBool());
        grids.push_back(g);
    }
    const std::string path = "/tmp/fuzz_openvdbio_" + std::to_string(getpid()) + ".vdb";
    try {
        openvdb::io::File file(path);
        file.write(grids);
        file.close();
    } catch (const std::exception&) {
        return 0;
    }
    iArray<CacheIO::GridMapping> maps;
    int ordinal = 1;
    for (const char* n : names)
        for (const std::string& suffix : {std::string(), std::string(".x"), std::string("(y)"),
                                           std::string("(Z)")}) {
            CacheIO::GridMapping m;
            m.name = std::string(n) + suffix;
            m.channel = ordinal++ % 31;
            maps.append(m);
        }
    for (bool headerOnly : {true, false}) {
        VaporixFrameData frame;
        frame.resetHeader(headerOnly);
        openvdbio::importFrame(path.c_str(), frame, headerOnly, maps.data, maps.count, nullptr);
    }
    iArray<CacheIO::AvaiableChannels> list;
    openvdbio::listChannels(path.c_str(), list);
    std::remove(path.c_str());
    return 0;
}
