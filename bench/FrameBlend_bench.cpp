// Frame blending against plain loops over the same arrays: the cell-by-cell mix against a bare
// weighted sum, the velocity blend against 20 trilinear samples a cell and channel, and the
// liquid rebuilt from particles against OpenVDB's ParticlesToLevelSet (when it is installed).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "cache/PGroup.h"
#include "cache/ParticlesToGrid.h"
#include "cache/VaporixFrameData.h"
#include "foundation/iArray.h"

#ifdef VAPORIX_BENCH_OPENVDB
#include "ParticlesToLevelSet_openvdb.h"
#endif

using namespace vaporix;

namespace {

constexpr int NX = 128, NY = 128, NZ = 192;
constexpr int CHANNELS[4] = {CH_SMOKE, CH_VELOCITY_X, CH_VELOCITY_Y, CH_VELOCITY_Z};

/// A smooth smoke plume and a swirling velocity, moved along x by `shift` cells.
void fillFrame(VaporixFrameData& f, float shift) {
    f.gridSize[0] = NX;
    f.gridSize[1] = NY;
    f.gridSize[2] = NZ;
    f.timeStep = 1.0f / 30.0f;
    const int64_t n = f.getCellCount();
    for (int c : CHANNELS) {
        f.channels[c] = static_cast<float*>(internal::arrayAllocate(size_t(n + 4) * 4));
        f.channelMask |= 1u << c;
    }
    for (int z = 0; z < NZ; ++z)
        for (int y = 0; y < NY; ++y)
            for (int x = 0; x < NX; ++x) {
                const int64_t i = x + NX * (y + int64_t(NY) * z);
                const float px = (x - shift - 64.0f) / 24.0f, py = (y - 64.0f) / 24.0f,
                            pz = (z - 70.0f) / 40.0f;
                const float r2 = px * px + py * py + pz * pz;
                f.channels[CH_SMOKE][i] =
                    r2 < 4.0f ? std::exp(-r2) * (1.0f + 0.2f * std::sin(0.3f * x + 0.2f * z)) : 0.0f;
                f.channels[CH_VELOCITY_X][i] = 30.0f + 5.0f * std::sin(0.05f * z);
                f.channels[CH_VELOCITY_Y][i] = 4.0f * std::cos(0.04f * x);
                f.channels[CH_VELOCITY_Z][i] = 2.0f * std::sin(0.03f * y);
            }
}

struct Frames {
    VaporixFrameData a, b;
    Frames() {
        fillFrame(a, 0.0f);
        fillFrame(b, 1.0f);
    }
};

Frames& frames() {
    static Frames* f = new Frames;
    return *f;
}

constexpr int LINEAR = 0xFF00;
constexpr int VELOCITY = 0xFF01;

void BM_PlainWeightedSum(benchmark::State& state) {
    Frames& f = frames();
    const int64_t n = f.a.getCellCount();
    std::vector<std::unique_ptr<float[]>> out;
    for (int k = 0; k < 4; ++k) {
        out.emplace_back(new float[size_t(n)]);
        std::memset(out.back().get(), 0, size_t(n) * 4);
    }
    const float wa = 0.75f, wb = 0.25f;
    for (auto _ : state) {
        for (int k = 0; k < 4; ++k) {
            const float* a = f.a.channels[CHANNELS[k]];
            const float* b = f.b.channels[CHANNELS[k]];
            float* o = out[size_t(k)].get();
            for (int64_t i = 0; i < n; ++i) o[i] = a[i] * wa + b[i] * wb;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * n * 4 * 12);
}
BENCHMARK(BM_PlainWeightedSum)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_LinearBlend(benchmark::State& state) {
    Frames& f = frames();
    VaporixFrameData d;
    d.blendThreads = static_cast<int>(state.range(0));
    d.Blend(f.a, f.b, 0.25f, LINEAR, true, 0);  // arrays made once, as in playback
    for (auto _ : state) d.Blend(f.a, f.b, 0.25f, LINEAR, true, 0);
    // Same cell count as the plain loop: the union grows by one cell along x.
    state.SetBytesProcessed(state.iterations() * d.getCellCount() * 4 * 12);
}
BENCHMARK(BM_LinearBlend)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

/// The plain trilinear sample the velocity blend's search budget is stated in.
inline float trilinear(const float* ch, float x, float y, float z) {
    x = std::fmin(std::fmax(x, 0.0f), NX - 1.001f);
    y = std::fmin(std::fmax(y, 0.0f), NY - 1.001f);
    z = std::fmin(std::fmax(z, 0.0f), NZ - 1.001f);
    const int ix = int(x), iy = int(y), iz = int(z);
    const float fx = x - ix, fy = y - iy, fz = z - iz;
    const float* p = ch + ix + NX * (iy + int64_t(NY) * iz);
    const int64_t sy = NX, sz = int64_t(NX) * NY;
    const float c00 = p[0] + fx * (p[1] - p[0]), c10 = p[sy] + fx * (p[sy + 1] - p[sy]);
    const float c01 = p[sz] + fx * (p[sz + 1] - p[sz]),
                c11 = p[sz + sy] + fx * (p[sz + sy + 1] - p[sz + sy]);
    const float c0 = c00 + fy * (c10 - c00), c1 = c01 + fy * (c11 - c01);
    return c0 + fz * (c1 - c0);
}

void BM_Plain20TrilinearSamples(benchmark::State& state) {
    Frames& f = frames();
    const int64_t n = f.a.getCellCount();
    std::vector<float> out(static_cast<size_t>(n));
    for (auto _ : state) {
        for (int c : CHANNELS) {
            const float* ch = f.a.channels[c];
            int64_t i = 0;
            for (int z = 0; z < NZ; ++z)
                for (int y = 0; y < NY; ++y)
                    for (int x = 0; x < NX; ++x, ++i) {
                        float s = 0;
                        for (int k = 0; k < 20; ++k)
                            s += trilinear(ch, x - 0.05f * k, y + 0.03f * k, z - 0.02f * k);
                        out[size_t(i)] = s;
                    }
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["samples/s"] = benchmark::Counter(double(state.iterations()) * n * 4 * 20,
                                                     benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Plain20TrilinearSamples)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_VelocityBlendFirst(benchmark::State& state) {
    Frames& f = frames();
    VaporixFrameData d;
    d.blendThreads = static_cast<int>(state.range(0));
    d.Blend(f.a, f.b, 0.5f, VELOCITY, true, 0);
    for (auto _ : state) d.Blend(f.a, f.b, 0.5f, VELOCITY, true, 0);
}
BENCHMARK(BM_VelocityBlendFirst)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_VelocityBlendRepeat(benchmark::State& state) {
    Frames& f = frames();
    VaporixFrameData d;
    d.blendThreads = static_cast<int>(state.range(0));
    d.Blend(f.a, f.b, 0.5f, VELOCITY, true, 0);
    float t = 0.1f;
    for (auto _ : state) {
        d.Blend(f.a, f.b, t, VELOCITY, false, 0);
        t = t > 0.8f ? 0.1f : t + 0.1f;
    }
}
BENCHMARK(BM_VelocityBlendRepeat)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

/// A million particles of a liquid in a 256^3 grid: a ball of about eight a cell and a spray
/// of single ones around it.
const std::vector<float>& liquidParticles() {
    static const std::vector<float> particles = [] {
        std::vector<float> p;
        std::mt19937 rng(11);
        std::uniform_real_distribution<float> u(-1.0f, 1.0f);
        const float r = 29.0f;
        while (p.size() < 3 * 900000) {
            const float x = u(rng), y = u(rng), z = u(rng);
            if (x * x + y * y + z * z > 1.0f) continue;
            p.insert(p.end(), {128 + r * x, 128 + r * y, 100 + r * z});
        }
        while (p.size() < 3 * 1000000) {
            const float x = u(rng), y = u(rng), z = u(rng);
            p.insert(p.end(), {128 + 100 * x, 128 + 100 * y, 128 + 100 * z});
        }
        return p;
    }();
    return particles;
}

void BM_ParticlesToGrid(benchmark::State& state) {
    const std::vector<float>& p = liquidParticles();
    const int size[3] = {256, 256, 256};
    ParticlesToGrid::BasePrtHolder holder;
    holder.channels[0].resize(int64_t(p.size()), nullptr, true);
    std::memcpy(holder.channels[0].data, p.data(), p.size() * 4);
    PGroup group;
    group.count = int32_t(p.size() / 3);
    std::vector<float> target(size_t(256) * 256 * 256, 0.0f);
    for (auto _ : state) {
        ParticlesToGrid::fillGridFromParticles(group, holder, target.data(), size, nullptr,
                                               static_cast<int>(state.range(0)));
        benchmark::DoNotOptimize(target.data());
    }
}
BENCHMARK(BM_ParticlesToGrid)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef VAPORIX_BENCH_OPENVDB
void BM_OpenVdbParticlesToLevelSet(benchmark::State& state) {
    const std::vector<float>& p = liquidParticles();
    size_t active = 0;
    for (auto _ : state)
        active = bench::vdbRasterizeSpheres(p.data(), p.size() / 3, 1.0f,
                                            static_cast<int>(state.range(0)));
    state.counters["active"] = double(active);
}
BENCHMARK(BM_OpenVdbParticlesToLevelSet)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

}  // namespace

BENCHMARK_MAIN();
