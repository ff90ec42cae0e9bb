// Mesher against VTK's Flying Edges and OpenVDB's volumeToMesh on a 256^3 smooth field, its
// smoothing against its own marching, and DistanceGrid against OpenVDB's meshToVolume.
//
//   vaporix_mesher_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
//
// Cells per second are reported as items per second. Compare medians of one run. The distance
// baseline keeps a band of 3 voxels (a band as wide as the grid takes minutes and spreads far
// outside the mesh's box); DistanceGrid fills every cell of its box.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

#include "Mesher_baselines.h"
#include "foundation/ThreadManager.h"
#include "mesh/DistanceGrid.h"
#include "mesh/Mesher.h"

using namespace vaporix;

namespace {

constexpr int N = 256;
const int SIZE[3] = {N, N, N};
constexpr double CELLS = double(N) * N * N;

// A smooth periodic field whose zero level set crosses a few percent of the cells.
const std::vector<float>& field() {
    static const std::vector<float> f = [] {
        std::vector<float> v(static_cast<size_t>(N) * N * N);
        const double k = 2 * 3.14159265358979 / 160.0;
        for (int z = 0; z < N; ++z)
            for (int y = 0; y < N; ++y)
                for (int x = 0; x < N; ++x)
                    v[(static_cast<size_t>(z) * N + y) * N + x] =
                        static_cast<float>(std::sin(x * k) + std::sin(y * k * 1.1) + std::sin(z * k * 0.9) + 0.3);
        return v;
    }();
    return f;
}

PosixThreadManager& manager() {
    static PosixThreadManager m;
    return m;
}

Mesher::MesherParams params() {
    Mesher::MesherParams p;
    for (int a = 0; a < 3; ++a) p.gridSize[a] = N;
    p.level = Mesher::closedLevel(false);
    p.hasDisplacement = false;
    return p;
}

void BM_MarchVaporix(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const auto& f = field();
    Mesher m(&manager(), threads);
    m.keepScratch = true;  // a renderer meshing frame after frame keeps the map
    auto p = params();
    m.build(f.data(), SIZE, 0.0f, p, false, 0, false, nullptr, nullptr);  // warm the buffers
    for (auto _ : state) {
        m.build(f.data(), SIZE, 0.0f, p, false, 0, false, nullptr, nullptr);
        benchmark::DoNotOptimize(m.triangles.count);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * CELLS));
    state.counters["triangles"] = m.triangles.count;
    state.counters["crossing_cells_pct"] = 100.0 * m.vertices.count / 1.5 / CELLS;
}

void BM_MarchVtkFlyingEdges(benchmark::State& state) {
    const auto& f = field();
    bench::VtkFlyingEdges vtk(f.data(), SIZE, 0.0f, static_cast<int>(state.range(0)));
    int64_t n = vtk.run();
    for (auto _ : state) n = vtk.run();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * CELLS));
    state.counters["triangles"] = static_cast<double>(n);
}

void BM_MarchOpenVdbVolumeToMesh(benchmark::State& state) {
    const auto& f = field();
    bench::VdbVolumeToMesh vdb(f.data(), SIZE, 0.0f, static_cast<int>(state.range(0)));
    int64_t n = vdb.run();
    for (auto _ : state) n = vdb.run();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * CELLS));
    state.counters["polygons"] = static_cast<double>(n);
}

void BM_MarchAndSmooth10Vaporix(benchmark::State& state) {
    const auto& f = field();
    Mesher m(&manager(), static_cast<int>(state.range(0)));
    m.keepScratch = true;
    auto p = params();
    m.build(f.data(), SIZE, 0.0f, p, false, 0, false, nullptr, nullptr);
    for (auto _ : state) {
        m.build(f.data(), SIZE, 0.0f, p, false, 10, false, nullptr, nullptr);
        benchmark::DoNotOptimize(m.vertices.count);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * CELLS));
}

// The surface of the field as a plain mesh of about a million triangles.
struct SurfaceMesh {
    std::vector<float> points;
    std::vector<int32_t> triangles;
};
const SurfaceMesh& surface() {
    static const SurfaceMesh s = [] {
        SurfaceMesh out;
        Mesher m(&manager(), -1);
        auto p = params();
        m.build(field().data(), SIZE, 0.0f, p, false, 0, false, nullptr, nullptr);
        for (const auto& v : m.vertices) out.points.insert(out.points.end(), v.pos, v.pos + 3);
        for (const auto& t : m.triangles) out.triangles.insert(out.triangles.end(), t.v, t.v + 3);
        return out;
    }();
    return s;
}

class SurfaceGrid : public DistanceGrid {
public:
    SurfaceGrid(const SurfaceMesh& s, int threads) : DistanceGrid(&manager(), threads), mS(s) {}
    void getTriangle(int i, int c[3]) override {
        for (int k = 0; k < 3; ++k) c[k] = mS.triangles[3 * static_cast<size_t>(i) + k];
    }
    void getVertex(float r[3], int i) override {
        for (int k = 0; k < 3; ++k) r[k] = mS.points[3 * static_cast<size_t>(i) + k];
    }

private:
    const SurfaceMesh& mS;
};

void BM_DistanceGridVaporix(benchmark::State& state) {
    const auto& s = surface();
    SurfaceGrid g(s, static_cast<int>(state.range(0)));
    const int nt = static_cast<int>(s.triangles.size() / 3), nv = static_cast<int>(s.points.size() / 3);
    for (auto _ : state) {
        g.setup(nt, nv, 1.0f);
        g.build();
        benchmark::DoNotOptimize(g.cells.data);
    }
    state.counters["triangles"] = nt;
    state.counters["cells"] = static_cast<double>(g.cells.count);
    state.counters["waves"] = g.waves;
}

void BM_DistanceOpenVdbMeshToVolume(benchmark::State& state) {
    const auto& s = surface();
    bench::VdbMeshToVolume vdb(s.points, s.triangles, 1.0f, static_cast<float>(state.range(1)),
                               static_cast<int>(state.range(0)));
    int64_t n = 0;
    for (auto _ : state) n = vdb.run();
    state.counters["triangles"] = static_cast<double>(s.triangles.size() / 3);
    state.counters["active_voxels"] = static_cast<double>(n);
}

}  // namespace

BENCHMARK(BM_MarchVaporix)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MarchVtkFlyingEdges)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MarchOpenVdbVolumeToMesh)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MarchAndSmooth10Vaporix)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DistanceGridVaporix)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DistanceOpenVdbMeshToVolume)->Args({1, 3})->Args({2, 3})
    ->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
