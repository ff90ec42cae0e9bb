// The built-in fire-and-smoke sample: the whole default sequence (simulation and encoding of
// every frame) on one and two threads, its parts alone, against a baseline of the same run: one
// dense semi-Lagrangian transport step of three fields over every cell, written plainly here.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "cache/VaporixFrameData.h"
#include "standalone/DemoSequence.h"

using namespace vaporix;

namespace {

DemoSettings settingsFor(int threads) {
    DemoSettings s;
    s.threads = threads;
    return s;
}

/// Simulation and encoding of every frame, as `vaporix demo` does before writing the files.
void BM_DemoSequence(benchmark::State& state) {
    const DemoSettings s = settingsFor(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        DemoSequence demo(s);
        demo.start();
        for (int f = 1; f <= s.frames; ++f) {
            if (f > 1) demo.advance();
            VaporixFrameData frame;
            benchmark::DoNotOptimize(demo.fillFrame(frame));
        }
    }
}
BENCHMARK(BM_DemoSequence)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kSecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(3);

/// The simulation alone: warm-up and frames, no encoding.
void BM_DemoSimulate(benchmark::State& state) {
    const DemoSettings s = settingsFor(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        DemoSequence demo(s);
        demo.start();
        for (int f = 2; f <= s.frames; ++f) demo.advance();
        benchmark::DoNotOptimize(demo.channel(CH_SMOKE)[0]);
    }
}
BENCHMARK(BM_DemoSimulate)
    ->Arg(1)
    ->Unit(benchmark::kSecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(3);

/// Encoding of the last frame's six channels, as many times as the sequence has frames.
void BM_DemoEncode(benchmark::State& state) {
    const DemoSettings s = settingsFor(1);
    DemoSequence demo(s);
    demo.start();
    for (int f = 2; f <= s.frames; ++f) demo.advance();
    for (auto _ : state) {
        for (int f = 1; f <= s.frames; ++f) {
            VaporixFrameData frame;
            benchmark::DoNotOptimize(demo.fillFrame(frame));
        }
    }
}
BENCHMARK(BM_DemoEncode)
    ->Unit(benchmark::kSecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(3);

/// Baseline: one transport step done the plain way, every cell traced back through the
/// velocity (midpoint rule) and three fields read trilinearly there, on one thread.
void BM_DenseTransportStep(benchmark::State& state) {
    const DemoSettings s = settingsFor(1);
    DemoSequence demo(s);
    demo.start();
    const int nx = s.size[0], ny = s.size[1], nz = s.size[2];
    const size_t cells = size_t(nx) * ny * nz;
    const float* v[3] = {demo.channel(4), demo.channel(5), demo.channel(6)};
    const float* f[3] = {demo.channel(1), demo.channel(2), demo.channel(10)};
    std::vector<float> out[3];
    for (auto& o : out) o.assign(cells, 0.0f);
    const float dt = 1.0f / 90.0f;
    auto trilinear = [&](const float* a, float x, float y, float z) {
        x = std::fmin(std::fmax(x, 0.0f), float(nx - 1) - 1e-3f);
        y = std::fmin(std::fmax(y, 0.0f), float(ny - 1) - 1e-3f);
        z = std::fmin(std::fmax(z, 0.0f), float(nz - 1) - 1e-3f);
        const int i = int(x), j = int(y), k = int(z);
        const float fx = x - i, fy = y - j, fz = z - k;
        auto at = [&](int di, int dj, int dk) {
            return a[(i + di) + size_t(nx) * ((j + dj) + size_t(ny) * (k + dk))];
        };
        const float c00 = at(0, 0, 0) * (1 - fx) + at(1, 0, 0) * fx;
        const float c10 = at(0, 1, 0) * (1 - fx) + at(1, 1, 0) * fx;
        const float c01 = at(0, 0, 1) * (1 - fx) + at(1, 0, 1) * fx;
        const float c11 = at(0, 1, 1) * (1 - fx) + at(1, 1, 1) * fx;
        return (c00 * (1 - fy) + c10 * fy) * (1 - fz) + (c01 * (1 - fy) + c11 * fy) * fz;
    };
    for (auto _ : state) {
        for (int z = 0; z < nz; ++z)
            for (int y = 0; y < ny; ++y)
                for (int x = 0; x < nx; ++x) {
                    const size_t c = x + size_t(nx) * (y + size_t(ny) * z);
                    const float mx = x - 0.5f * dt * v[0][c], my = y - 0.5f * dt * v[1][c],
                                mz = z - 0.5f * dt * v[2][c];
                    const float px = x - dt * trilinear(v[0], mx, my, mz);
                    const float py = y - dt * trilinear(v[1], mx, my, mz);
                    const float pz = z - dt * trilinear(v[2], mx, my, mz);
                    for (int a = 0; a < 3; ++a) out[a][c] = trilinear(f[a], px, py, pz);
                }
        benchmark::DoNotOptimize(out[0].data());
    }
}
BENCHMARK(BM_DenseTransportStep)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Repetitions(3);

/// Keeps the median processor time (all threads of the process) of every benchmark for the
/// summary: on a shared machine it says more than the elapsed time.
class Recorder : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> seconds;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                seconds[run.run_name.str()] =
                    run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Recorder recorder;
    benchmark::RunSpecifiedBenchmarks(&recorder);
    benchmark::Shutdown();

    auto get = [&](const std::string& name) {
        const auto it = recorder.seconds.find(name);
        return it == recorder.seconds.end() ? 0.0 : it->second;
    };
    const double step = get("BM_DenseTransportStep/repeats:3/process_time/real_time");
    const double one = get("BM_DemoSequence/1/iterations:1/repeats:3/process_time/real_time");
    const double two = get("BM_DemoSequence/2/iterations:1/repeats:3/process_time/real_time");
    const double simulate = get("BM_DemoSimulate/1/iterations:1/repeats:3/process_time/real_time");
    const double encode = get("BM_DemoEncode/iterations:1/repeats:3/process_time/real_time");
    const DemoSettings s;
    const int steps = (s.warmupFrames + s.frames - 1) * s.substeps;
    if (step > 0 && one > 0) {
        std::printf(
            "\nSummary (medians of processor time, all threads; the baseline is one dense "
            "transport step of %dx%dx%d "
            "cells on one thread, %.1f ms):\n",
            s.size[0], s.size[1], s.size[2], step * 1e3);
        std::printf(
            "  whole sequence, %d frames (%d transport steps with warm-up), 1 thread: %.2f s = "
            "%.0f dense steps\n",
            s.frames, steps, one, one / step);
        std::printf("  simulation alone: %.2f s = %.0f dense steps (%.2f a transport step)\n",
                    simulate, simulate / step, simulate / step / steps);
        std::printf("  encoding alone: %.2f s = %.0f dense steps\n", encode, encode / step);
        if (two > 0)
            std::printf(
                "  whole sequence, 2 threads: %.2f s of processor time (%.2fx that of 1 "
                "thread)\n",
                two, two / one);
    }
    return 0;
}
