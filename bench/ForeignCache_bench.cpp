// Foreign caches: loading a 256^3 OpenVDB frame (density, temperature, velocity) through the
// module's reader against OpenVDB's own read + copyToDense; converting a frame to OpenVDB against
// copyFromDense + write; and a Field3D frame of the same content against the OpenVDB load.
#include <benchmark/benchmark.h>
#include <openvdb/io/File.h>
#include <openvdb/openvdb.h>
#include <openvdb/tools/Dense.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "../tests/modules/Field3DWriter.h"
#include "ProceduralFields.h"
#include "cache/VaporixFrameData.h"
#include "field3dio/Field3DReader.h"
#include "foundation/ThreadManager.h"
#include "openvdbio/OpenVDBIO.h"

using namespace vaporix;

namespace {

constexpr int N = 256;

/// The frame of the benchmarks and its files, made once.
struct Data {
    bench::ProceduralField density, temperature;
    std::vector<float> vel[3];
    std::vector<openvdb::Vec3s> velInterleaved;
    std::string vdbPath, f3dPath, outPath;
    VaporixFrameData frame;

    Data() {
        openvdb::initialize();
        density = bench::smokeDensity(N, N, N);
        temperature = bench::fireTemperature(N, N, N);
        const size_t cells = density.values.size();
        for (auto& v : vel) v.assign(cells, 0.0f);
        velInterleaved.assign(cells, openvdb::Vec3s(0.0f));
        // A swirl inside the smoke, rising; zero outside it, as a solver leaves it.
        for (int z = 0; z < N; ++z)
            for (int y = 0; y < N; ++y)
                for (int x = 0; x < N; ++x) {
                    const size_t i = static_cast<size_t>(x) + N * (y + static_cast<size_t>(N) * z);
                    if (density.values[i] == 0.0f) continue;
                    const float dx = x - N * 0.5f, dy = y - N * 0.5f;
                    vel[0][i] = -dy * 0.05f;
                    vel[1][i] = dx * 0.05f;
                    vel[2][i] = 2.0f + 0.01f * z;
                    velInterleaved[i] = openvdb::Vec3s(vel[0][i], vel[1][i], vel[2][i]);
                }
        const std::string base = "/tmp/vaporix_foreign_bench_" + std::to_string(getpid());
        vdbPath = base + ".vdb";
        f3dPath = base + ".f3d";
        outPath = base + "_out.vdb";

        frame.gridSize[0] = frame.gridSize[1] = frame.gridSize[2] = N;
        const int channels[5] = {CH_SMOKE, CH_TEMPERATURE, CH_VELOCITY_X, CH_VELOCITY_Y,
                                 CH_VELOCITY_Z};
        const std::vector<float>* sources[5] = {&density.values, &temperature.values, &vel[0],
                                                &vel[1], &vel[2]};
        for (int k = 0; k < 5; ++k) {
            float* a = static_cast<float*>(internal::arrayAllocate((cells + 4) * sizeof(float)));
            std::copy(sources[k]->begin(), sources[k]->end(), a);
            frame.channels[channels[k]] = a;
            frame.channelMask |= 1u << channels[k];
        }
        frame.gridTransform.m[0] = frame.gridTransform.m[4] = frame.gridTransform.m[8] = 10.0f;
        std::string error;
        if (openvdbio::exportFrame(vdbPath.c_str(), frame, 0.0f, error, processThreadManager()) != 0)
            std::abort();

        // The same content as Field3D: three dense float layers of one partition.
        test::F3DLayer d, t, v;
        d.name = "density";
        t.name = "temperature";
        v.name = "velocity";
        v.components = 3;
        for (test::F3DLayer* l : {&d, &t, &v}) {
            const int box[6] = {0, 0, 0, N - 1, N - 1, N - 1};
            std::copy(box, box + 6, l->extents);
            std::copy(box, box + 6, l->window);
        }
        d.values = density.values;
        t.values = temperature.values;
        v.values.resize(cells * 3);
        for (size_t i = 0; i < cells; ++i)
            for (int c = 0; c < 3; ++c) v.values[i * 3 + c] = vel[c][i];
        const double scale[16] = {25.6, 0, 0, 0, 0, 25.6, 0, 0, 0, 0, 25.6, 0, 0, 0, 0, 1};
        if (!test::writeField3D(f3dPath, "fluid", scale, {d, t, v})) std::abort();
    }
    ~Data() {
        std::remove(vdbPath.c_str());
        std::remove(f3dPath.c_str());
        std::remove(outPath.c_str());
    }
};

Data& data() {
    static Data d;
    return d;
}

iArray<CacheIO::GridMapping> vdbMap() {
    iArray<CacheIO::GridMapping> maps;
    const std::pair<int, const char*> items[] = {
        {2, "density"}, {1, "temperature"}, {4, "vel.x"}, {5, "vel.y"}, {6, "vel.z"}};
    for (const auto& [c, n] : items) {
        CacheIO::GridMapping m;
        m.channel = c;
        m.name = n;
        maps.append(m);
    }
    return maps;
}

// Floor: OpenVDB reads the three grids and copies them into dense arrays over their union box.
void BM_VdbLoadFloor(benchmark::State& state) {
    Data& d = data();
    for (auto _ : state) {
        openvdb::io::File file(d.vdbPath);
        file.open(false);
        openvdb::GridBase::Ptr grids[3] = {file.readGrid("density"), file.readGrid("temperature"),
                                           file.readGrid("vel")};
        openvdb::CoordBBox box;
        for (auto& g : grids) box.expand(g->evalActiveVoxelBoundingBox());
        openvdb::tools::Dense<float, openvdb::tools::LayoutXYZ> dd(box), dt(box);
        openvdb::tools::Dense<openvdb::Vec3s, openvdb::tools::LayoutXYZ> dv(box);
        openvdb::tools::copyToDense(*openvdb::gridPtrCast<openvdb::FloatGrid>(grids[0]), dd);
        openvdb::tools::copyToDense(*openvdb::gridPtrCast<openvdb::FloatGrid>(grids[1]), dt);
        openvdb::tools::copyToDense(*openvdb::gridPtrCast<openvdb::Vec3SGrid>(grids[2]), dv);
        benchmark::DoNotOptimize(dd.data());
        benchmark::DoNotOptimize(dv.data());
    }
}

void BM_VdbLoad(benchmark::State& state) {
    Data& d = data();
    const auto maps = vdbMap();
    for (auto _ : state) {
        VaporixFrameData frame;
        frame.resetHeader(false);
        if (openvdbio::importFrame(d.vdbPath.c_str(), frame, false, maps.data, maps.count,
                                   processThreadManager()) != 0)
            state.SkipWithError("import failed");
        benchmark::DoNotOptimize(frame.channels[2]);
    }
}

void BM_F3dLoad(benchmark::State& state) {
    Data& d = data();
    iArray<CacheIO::GridMapping> maps;
    const std::pair<int, const char*> items[] = {{2, "density"},
                                                 {1, "temperature"},
                                                 {4, "velocity(x)"},
                                                 {5, "velocity(y)"},
                                                 {6, "velocity(z)"}};
    for (const auto& [c, n] : items) {
        CacheIO::GridMapping m;
        m.channel = c;
        m.name = n;
        maps.append(m);
    }
    for (auto _ : state) {
        VaporixFrameData frame;
        frame.resetHeader(false);
        if (field3dio::importFrame(d.f3dPath.c_str(), frame, false, maps.data, maps.count,
                                   processThreadManager()) != 0)
            state.SkipWithError("import failed");
        benchmark::DoNotOptimize(frame.channels[2]);
    }
}

// Floor: OpenVDB builds the three grids from dense arrays and writes them.
void BM_VdbWriteFloor(benchmark::State& state) {
    Data& d = data();
    const openvdb::CoordBBox box(openvdb::Coord(0), openvdb::Coord(N - 1));
    for (auto _ : state) {
        openvdb::tools::Dense<float, openvdb::tools::LayoutXYZ> dd(box, d.density.values.data());
        openvdb::tools::Dense<float, openvdb::tools::LayoutXYZ> dt(box, d.temperature.values.data());
        openvdb::tools::Dense<openvdb::Vec3s, openvdb::tools::LayoutXYZ> dv(box,
                                                                           d.velInterleaved.data());
        auto gd = openvdb::FloatGrid::create(0.0f);
        auto gt = openvdb::FloatGrid::create(0.0f);
        auto gv = openvdb::Vec3SGrid::create(openvdb::Vec3s(0.0f));
        openvdb::tools::copyFromDense(dd, *gd, 0.0f);
        openvdb::tools::copyFromDense(dt, *gt, 0.0f);
        openvdb::tools::copyFromDense(dv, *gv, openvdb::Vec3s(0.0f));
        gd->setName("density");
        gt->setName("temperature");
        gv->setName("vel");
        openvdb::io::File out(d.outPath);
        out.write({gd, gt, gv});
        out.close();
    }
}

void BM_VdbConvert(benchmark::State& state) {
    Data& d = data();
    std::string error;
    for (auto _ : state)
        if (openvdbio::exportFrame(d.outPath.c_str(), d.frame, 0.0f, error,
                                   processThreadManager()) != 0)
            state.SkipWithError(error.c_str());
}

}  // namespace

BENCHMARK(BM_VdbLoadFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_VdbLoad)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_F3dLoad)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_VdbWriteFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_VdbConvert)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
