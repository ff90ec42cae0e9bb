// Expansion of 1,000,000 particles per compression kind, and ID lookups.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "cache/PGroup.h"

using namespace vaporix;

namespace {

constexpr int COUNT = 1000000;
constexpr int CHANNELS[5] = {PRT_POSITION, PRT_VELOCITY, PRT_SIZE, PRT_AGE, PRT_ID};

/// A group with the five usual channels of a liquid simulation, all compressed in `kind`
/// (IDs always in `idKind`).
PGroup makeGroup(int kind, int idKind) {
    PGroup g;
    g.count = COUNT;
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    auto* pos = static_cast<float*>(g.allocChannel(PRT_POSITION));
    auto* vel = static_cast<float*>(g.allocChannel(PRT_VELOCITY));
    auto* size = static_cast<float*>(g.allocChannel(PRT_SIZE));
    auto* age = static_cast<float*>(g.allocChannel(PRT_AGE));
    auto* id = static_cast<int64_t*>(g.allocChannel(PRT_ID));
    for (int i = 0; i < COUNT; ++i) {
        // A splash: particles spread over a 200-cell grid with smooth velocities.
        const float t = static_cast<float>(i) / COUNT;
        pos[3 * i] = 200.0f * u(rng);
        pos[3 * i + 1] = 200.0f * u(rng);
        pos[3 * i + 2] = 50.0f * t + u(rng);
        vel[3 * i] = 0.1f * pos[3 * i + 1] - 10.0f;
        vel[3 * i + 1] = -0.1f * pos[3 * i] + 10.0f;
        vel[3 * i + 2] = 5.0f - 10.0f * t;
        size[i] = 0.05f + 0.01f * u(rng);
        age[i] = 2.0f * t;
        id[i] = 100000 + i * 3 + (i % 5 == 0 ? 1 : 0);
    }
    std::swap(id[10], id[20000]);  // slightly out of order, as after a re-emission
    for (int c : CHANNELS) g.CompressChannel(c, c == PRT_ID ? idKind : kind);
    return g;
}

void expand(benchmark::State& state, int kind) {
    PGroup g = makeGroup(kind, kind);
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
void expandChannel(benchmark::State& state, int kind, int channel) {
    PGroup g = makeGroup(kind, kind);
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

BENCHMARK_CAPTURE(expand, kind0_raw, PRT_KIND_RAW)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(expand, kind1_zlib, PRT_KIND_ZLIB)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(expand, kind2_stream, PRT_KIND_SG)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(expand, kind3_components, PRT_KIND_SG_COMPONENTS)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(expand, kind4_bitplanes, PRT_KIND_BITPLANES)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(expandChannel, ids_kind4, PRT_KIND_BITPLANES, PRT_ID)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(expandChannel, ids_kind1, PRT_KIND_ZLIB, PRT_ID)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(expandChannel, positions_kind3, PRT_KIND_SG_COMPONENTS, PRT_POSITION)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(expandChannel, positions_kind1, PRT_KIND_ZLIB, PRT_POSITION)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(findById);

int main(int argc, char** argv) {
    // Figures are for one core unless the caller sets the thread count.
    setenv("LUMO_NUM_THREADS", "1", 0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
