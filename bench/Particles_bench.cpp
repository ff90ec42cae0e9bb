// Expansion of 1,000,000 particles per compression kind, and ID lookups.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "cache/PGroup.h"
#include "cache/ParticleJobs.h"
#include "cache/SGCompressor.h"
#include "cache/zlibutil.h"

using namespace vaporix;

namespace {

constexpr int COUNT = 1000000;
constexpr int CHANNELS[5] = {PRT_POSITION, PRT_VELOCITY, PRT_SIZE, PRT_AGE, PRT_ID};

/// Kind 2 or 3 in the form a simulator writes: quantised to 2^16 steps, one difference pass
/// (CompressChannel writes lossless raw streams, which only measure the copy).
void compressCoded(PGroup& g, int channel, int kind) {
    ChannelData& cd = g.channelData[channel];
    const int components = prtComponentCount(channel);
    const int64_t values = int64_t(g.count) * components;
    const float* in = reinterpret_cast<const float*>(cd.expanded.data);
    std::vector<float> planar(in, in + values);
    if (kind == PRT_KIND_SG_COMPONENTS)
        for (int64_t i = 0; i < g.count; ++i)
            for (int k = 0; k < components; ++k)
                planar[size_t(k * g.count + i)] = in[i * components + k];
    SGCompressor<1> codec;
    const int dims[1] = {static_cast<int>(values)};
    if (codec.encode(planar.data(), dims, 16, 0, 1) <= 0) std::abort();
    cd.compressed.swap(codec.output);
    cd.kind = kind;
}

/// Particle order of the test group.
enum class Order {
    Cells,   // sorted by grid cell, as simulators keep particles for their neighbour searches
    Random,  // no spatial order: the worst case for the codec
};

/// A group with the five usual channels of a liquid simulation, all compressed in `kind`
/// (IDs always in `idKind`; `coded`: float channels of kinds 2 and 3 quantised).
PGroup makeGroup(int kind, int idKind, bool coded = false, Order order = Order::Cells) {
    PGroup g;
    g.count = COUNT;
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    // A splash: particles spread over a 200 x 200 x 50 cell box with smooth velocities.
    struct P {
        float x, y, z;
    };
    std::vector<P> points(COUNT);
    for (auto& p : points) p = {200.0f * u(rng), 200.0f * u(rng), 50.0f * u(rng)};
    if (order == Order::Cells) {
        auto cell = [](const P& p) { return (int(p.z) * 200 + int(p.y)) * 200 + int(p.x); };
        std::sort(points.begin(), points.end(),
                  [&](const P& a, const P& b) { return cell(a) < cell(b); });
    }
    auto* pos = static_cast<float*>(g.allocChannel(PRT_POSITION));
    auto* vel = static_cast<float*>(g.allocChannel(PRT_VELOCITY));
    auto* size = static_cast<float*>(g.allocChannel(PRT_SIZE));
    auto* age = static_cast<float*>(g.allocChannel(PRT_AGE));
    auto* id = static_cast<int64_t*>(g.allocChannel(PRT_ID));
    for (int i = 0; i < COUNT; ++i) {
        const P& p = points[size_t(i)];
        pos[3 * i] = p.x;
        pos[3 * i + 1] = p.y;
        pos[3 * i + 2] = p.z;
        vel[3 * i] = 0.1f * p.y - 10.0f;
        vel[3 * i + 1] = -0.1f * p.x + 10.0f;
        vel[3 * i + 2] = 5.0f - 0.2f * p.z;
        size[i] = 0.05f + 0.01f * u(rng);
        age[i] = 2.0f * u(rng);
        id[i] = 100000 + i * 3 + (i % 5 == 0 ? 1 : 0);
    }
    std::swap(id[10], id[20000]);  // slightly out of order, as after a re-emission
    for (int c : CHANNELS) {
        const int k = c == PRT_ID ? idKind : kind;
        if (coded && c != PRT_ID && (k == PRT_KIND_SG || k == PRT_KIND_SG_COMPONENTS))
            compressCoded(g, c, k);
        else if (!g.CompressChannel(c, k))
            std::abort();
    }
    return g;
}

void expand(benchmark::State& state, int kind, bool coded = false) {
    PGroup g = makeGroup(kind, coded ? PRT_KIND_BITPLANES : kind, coded);
    int64_t values = 0;
    for (int c : CHANNELS) values += int64_t(COUNT) * prtComponentCount(c);
    for (auto _ : state) {
        for (int c : CHANNELS) {
            g.channelData[c].expanded.resize(0);
            if (!g.DecompressChannel(c, false)) state.SkipWithError("expansion failed");
        }
        benchmark::DoNotOptimize(g.channelData[PRT_ID].expanded.data);
    }
    state.counters["Mparticles/s"] = benchmark::Counter(
        static_cast<double>(COUNT) * state.iterations() / 1e6, benchmark::Counter::kIsRate);
    state.counters["Mvalues/s"] = benchmark::Counter(
        static_cast<double>(values) * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

/// One channel alone: IDs (2 words a particle) or positions (3 floats a particle).
void expandChannel(benchmark::State& state,
                   int kind,
                   int channel,
                   bool coded = false,
                   Order order = Order::Cells) {
    PGroup g = makeGroup(kind, kind, coded, order);
    const int64_t values = int64_t(COUNT) * prtComponentCount(channel);
    for (auto _ : state) {
        g.channelData[channel].expanded.resize(0);
        if (!g.DecompressChannel(channel, false)) state.SkipWithError("expansion failed");
        benchmark::DoNotOptimize(g.channelData[channel].expanded.data);
    }
    state.counters["Mvalues/s"] = benchmark::Counter(
        static_cast<double>(values) * state.iterations() / 1e6, benchmark::Counter::kIsRate);
    state.counters["ratio"] = static_cast<double>(values * 4) /
                              static_cast<double>(g.channelData[channel].compressed.count);
}

/// Baselines of the kind 4 ID expansion, one for each half of its work: zlib alone on the same
/// stream (into a buffer that already exists), and the bit gather alone.
void idPlanesInflateOnly(benchmark::State& state) {
    PGroup g = makeGroup(PRT_KIND_RAW, PRT_KIND_BITPLANES);
    const ChannelData& cd = g.channelData[PRT_ID];
    const uint64_t planeBytes = uint64_t((COUNT + 31) / 32) * 2 * 32 * 4;
    std::vector<uint8_t> planes(planeBytes);
    for (auto _ : state) {
        if (!inflateInto(cd.compressed.data, static_cast<uint64_t>(cd.compressed.count),
                         planes.data(), planeBytes))
            state.SkipWithError("inflate failed");
        benchmark::DoNotOptimize(planes.data());
    }
    state.counters["Mvalues/s"] =
        benchmark::Counter(2.0 * COUNT * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

void idPlanesGatherOnly(benchmark::State& state) {
    PGroup g = makeGroup(PRT_KIND_RAW, PRT_KIND_BITPLANES);
    const ChannelData& cd = g.channelData[PRT_ID];
    std::vector<uint32_t> planes(size_t((COUNT + 31) / 32) * 2 * 32);
    if (!inflateInto(cd.compressed.data, static_cast<uint64_t>(cd.compressed.count),
                     reinterpret_cast<uint8_t*>(planes.data()), planes.size() * 4))
        std::abort();
    std::vector<uint32_t> out(size_t(COUNT) * 2);
    for (auto _ : state) {
        MTPrtIn gather;
        gather.gather(planes.data(), COUNT, 2, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["Mvalues/s"] =
        benchmark::Counter(2.0 * COUNT * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

void findById(benchmark::State& state) {
    PGroup g = makeGroup(PRT_KIND_RAW, PRT_KIND_RAW);
    g.DecompressChannel(PRT_ID, false);
    g.buildIdOrder();
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> pick(0, COUNT - 1);
    int64_t found = 0;
    for (auto _ : state) {
        found += g.FindById(g.idAt(static_cast<uint32_t>(pick(rng)))) >= 0;
        found += g.FindById(-5) >= 0;  // a miss
    }
    benchmark::DoNotOptimize(found);
    state.counters["lookups/s"] =
        benchmark::Counter(2.0 * state.iterations(), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK_CAPTURE(expand, kind0_raw, PRT_KIND_RAW)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expand, kind1_zlib, PRT_KIND_ZLIB)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expand, kind2_stream, PRT_KIND_SG)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expand, kind3_components, PRT_KIND_SG_COMPONENTS)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expand, kind4_bitplanes, PRT_KIND_BITPLANES)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
// What a simulator's file holds: quantised kind 3 floats and kind 4 IDs.
BENCHMARK_CAPTURE(expand, kind3_coded_ids_kind4, PRT_KIND_SG_COMPONENTS, true)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expandChannel, ids_kind4, PRT_KIND_BITPLANES, PRT_ID)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK(idPlanesInflateOnly)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(idPlanesGatherOnly)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expandChannel, ids_kind1, PRT_KIND_ZLIB, PRT_ID)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expandChannel, positions_kind3, PRT_KIND_SG_COMPONENTS, PRT_POSITION)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expandChannel, positions_kind1, PRT_KIND_ZLIB, PRT_POSITION)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expandChannel, positions_kind3_coded, PRT_KIND_SG_COMPONENTS, PRT_POSITION, true)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expandChannel, velocities_kind3_coded, PRT_KIND_SG_COMPONENTS, PRT_VELOCITY, true)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(expandChannel,
                  positions_kind3_coded_random_order,
                  PRT_KIND_SG_COMPONENTS,
                  PRT_POSITION,
                  true,
                  Order::Random)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK(findById)->MeasureProcessCPUTime();

int main(int argc, char** argv) {
    // Figures are for one core unless the caller sets the thread count. CPU time is that of the
    // whole process, pool threads included, so that rates stay honest on a busy machine.
    setenv("LUMO_NUM_THREADS", "1", 0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
