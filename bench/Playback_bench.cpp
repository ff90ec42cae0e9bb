// Playback costs: the repeated frame request, channel smoothing, and baking a retimed sequence.
//
// Baselines in the same run:
//  - BM_LoadFrameRepeat: requests per second (items/s) of a repeated LoadFrame; target >= 1e6.
//  - BM_Smooth / BM_Stencil27: one channel of 128x128x192 cells smoothed with threshold 0 (every
//    inner cell works) against one plain 27-point stencil pass over the same grid; target
//    <= 8x. BM_Smooth at 2 threads against 1: target >= 1.7x. Random 0 measures the filter
//    itself; random 0.1 (the default) adds the per-cell noise generator.
//  - BM_Retime / BM_Pack: frames written per second by a retime of the demo sequence at
//    play_speed 0.5 (every other frame a blend) against packing the same cache frames
//    (read, encode, write).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "cache/ChannelSmoothing.h"
#include "foundation/FramePattern.h"
#include "foundation/MTJobs.h"
#include "foundation/ThreadManager.h"
#include "playback/FrameBake.h"
#include "playback/FramePlayback.h"
#include "playback/MemoryParamStorage.h"
#include "standalone/DemoSequence.h"

using namespace vaporix;

namespace {

constexpr int SMOOTH_SIZE[3] = {128, 128, 192};

/// A host on parameters in memory playing one cache pattern at 30 frames a second.
struct BenchHost : IPlaybackHost {
    MemoryParamStorage storage;
    VaporixParamsMax p{storage};
    std::string pattern;
    bool hasNode() const override { return true; }
    int ticksPerFrame() const override { return TICKS_PER_SECOND / 30; }
    VaporixParams& params() override { return p; }
    std::string getCachePath(int) const override { return pattern; }
    bool hasCache(int) const override { return true; }
};

/// The demo sequence written once to a temporary folder, removed at exit.
class DemoFolder {
public:
    static DemoFolder& get() {
        static DemoFolder folder;
        return folder;
    }
    std::string pattern() const { return mPath + "/demo_####.vxg"; }
    std::string outPattern() const { return mPath + "/out/o_####.vxg"; }
    int frames() const { return mFrames; }
    ~DemoFolder() {
        std::error_code ec;
        std::filesystem::remove_all(mPath, ec);
    }

private:
    DemoFolder() {
        char base[] = "/tmp/vaporix_playback_bench_XXXXXX";
        if (!mkdtemp(base)) std::abort();
        mPath = base;
        std::filesystem::create_directories(mPath + "/out");
        DemoSettings s;
        s.size[0] = s.size[1] = 64;
        s.size[2] = 96;
        s.frames = mFrames;
        s.warmupFrames = 4;
        DemoSequence demo(s);
        if (!demo.start()) std::abort();
        for (int f = 1; f <= mFrames; ++f) {
            if (f > 1 && !demo.advance()) std::abort();
            VaporixFrameData frame;
            if (!demo.fillFrame(frame)) std::abort();
            frame.frameNumber = f;
            if (frame.WriteVxg(expandFramePattern(pattern(), f).c_str(), frame.channelMask) != 0)
                std::abort();
        }
    }
    std::string mPath;
    int mFrames = 8;
};

/// A smooth blob with noise: edges everywhere, background near 0.
std::vector<float> smokeField() {
    const int nx = SMOOTH_SIZE[0], ny = SMOOTH_SIZE[1], nz = SMOOTH_SIZE[2];
    std::vector<float> v(size_t(nx) * ny * nz);
    uint32_t state = 1;
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                state = state * 1664525u + 1013904223u;
                const float d = std::hypot(x - nx / 2.0f, y - ny / 2.0f, z - nz / 2.0f);
                v[x + size_t(nx) * (y + size_t(ny) * z)] =
                    std::fmax(0.0f, 1.0f - d / 60.0f) + float(state >> 8) * 1e-8f;
            }
    return v;
}

}  // namespace

void BM_LoadFrameRepeat(benchmark::State& state) {
    DemoFolder& demo = DemoFolder::get();
    BenchHost host;
    host.pattern = demo.pattern();
    FramePlayback playback(host);
    LoadFrameResult result;
    playback.LoadFrame(&result, 3 * 160, LOAD_MODE_NORMAL);
    if (result.code != FRAME_RESULT_NEW) state.SkipWithError("first load failed");
    for (auto _ : state) {
        playback.LoadFrame(&result, 3 * 160, LOAD_MODE_NORMAL);
        benchmark::DoNotOptimize(result.code);
    }
    if (result.code != 1) state.SkipWithError("the repeated request was not a hit");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LoadFrameRepeat)->Repetitions(5)->ReportAggregatesOnly(true);

/// Baseline: one 27-point stencil pass (weights 1, interior cells) into a kept output array.
void BM_Stencil27(benchmark::State& state) {
    const std::vector<float> in = smokeField();
    std::vector<float> out(in.size(), 0.0f);
    const int nx = SMOOTH_SIZE[0], ny = SMOOTH_SIZE[1], nz = SMOOTH_SIZE[2];
    const int64_t sy = nx, sz = int64_t(nx) * ny;
    for (auto _ : state) {
        for (int z = 1; z < nz - 1; ++z)
            for (int y = 1; y < ny - 1; ++y) {
                const float* c = in.data() + z * sz + y * sy;
                float* o = out.data() + z * sz + y * sy;
                for (int x = 1; x < nx - 1; ++x) {
                    float s = 0.0f;
                    for (int dz = -1; dz <= 1; ++dz)
                        for (int dy = -1; dy <= 1; ++dy)
                            for (int dx = -1; dx <= 1; ++dx) s += c[x + dx + dy * sy + dz * sz];
                    o[x] = s * (1.0f / 27.0f);
                }
            }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(in.size()));
}
BENCHMARK(BM_Stencil27)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)
    ->ReportAggregatesOnly(true);

/// The same stencil pass run by one job of the job engine, as the smoothing's passes run:
/// pool threads run below normal priority, so on a busy machine this is the fair baseline.
void BM_Stencil27Engine(benchmark::State& state) {
    static PosixThreadManager manager;
    const std::vector<float> in = smokeField();
    std::vector<float> out(in.size(), 0.0f);
    const int nx = SMOOTH_SIZE[0], ny = SMOOTH_SIZE[1], nz = SMOOTH_SIZE[2];
    const int64_t sy = nx, sz = int64_t(nx) * ny;
    MTFunction engine(&manager, 1);
    for (auto _ : state) {
        engine.forRange(uint64_t(nz - 2), [&](uint64_t first, uint64_t last, Job&) {
            for (uint64_t p = first; p < last; ++p) {
                const int z = int(p) + 1;
                for (int y = 1; y < ny - 1; ++y) {
                    const float* c = in.data() + z * sz + y * sy;
                    float* o = out.data() + z * sz + y * sy;
                    for (int x = 1; x < nx - 1; ++x) {
                        float s = 0.0f;
                        for (int dz = -1; dz <= 1; ++dz)
                            for (int dy = -1; dy <= 1; ++dy)
                                for (int dx = -1; dx <= 1; ++dx)
                                    s += c[x + dx + dy * sy + dz * sz];
                        o[x] = s * (1.0f / 27.0f);
                    }
                }
            }
        });
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(in.size()));
}
BENCHMARK(BM_Stencil27Engine)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)
    ->ReportAggregatesOnly(true);

/// Args: threads, random * 10.
void BM_Smooth(benchmark::State& state) {
    static PosixThreadManager manager;
    const std::vector<float> field = smokeField();
    std::vector<float> work(field.size());
    ChannelSmoother smoother(&manager, static_cast<int>(state.range(0)));
    SmoothSettings s;
    s.threshold = 0.0f;
    s.similarity = 0.5f;
    s.random = static_cast<float>(state.range(1)) / 10.0f;
    GridTransform tm;
    for (auto _ : state) {
        state.PauseTiming();
        std::copy(field.begin(), field.end(), work.begin());
        state.ResumeTiming();
        smoother.smooth(work.data(), SMOOTH_SIZE, tm, s);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(field.size()));
}
BENCHMARK(BM_Smooth)
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({1, 1})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

/// Retime at half speed: scene frames 2..2N-1 are cache frames 1..N-0.5, every other a blend.
void BM_Retime(benchmark::State& state) {
    DemoFolder& demo = DemoFolder::get();
    int64_t written = 0;
    for (auto _ : state) {
        BenchHost host;
        host.pattern = demo.pattern();
        host.p.setFloat("play_speed", 0, 0.5f);
        FramePlayback playback(host);
        for (int f = 2; f < 2 * demo.frames(); ++f) {
            LoadFrameResult result;
            playback.LoadFrame(&result, f * 160, LOAD_MODE_NORMAL);
            VaporixFrameData* shown = playback.frame.getFrame(0);
            if (!shown) {
                state.SkipWithError("no frame");
                return;
            }
            VaporixFrameData out;
            uint32_t mask;
            std::string error;
            if (!bakeFrame(*shown, f, EncodeSettings{}, out, mask, error) ||
                out.WriteVxg(expandFramePattern(demo.outPattern(), f).c_str(), mask) != 0) {
                state.SkipWithError("write failed");
                return;
            }
            ++written;
        }
    }
    state.SetItemsProcessed(written);
}
BENCHMARK(BM_Retime)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(3)
    ->ReportAggregatesOnly(true);

/// Baseline: the cache frames read, encoded and written as pack writes them.
void BM_Pack(benchmark::State& state) {
    DemoFolder& demo = DemoFolder::get();
    int64_t written = 0;
    for (auto _ : state) {
        for (int f = 1; f <= demo.frames(); ++f) {
            VaporixFrameData in;
            if (in.loadByFrame(f, demo.pattern().c_str(), "", true, true, false) != 0) {
                state.SkipWithError("read failed");
                return;
            }
            VaporixFrameData out;
            uint32_t mask;
            std::string error;
            if (!bakeFrame(in, f, EncodeSettings{}, out, mask, error) ||
                out.WriteVxg(expandFramePattern(demo.outPattern(), 100 + f).c_str(), mask) != 0) {
                state.SkipWithError("write failed");
                return;
            }
            ++written;
        }
    }
    state.SetItemsProcessed(written);
}
BENCHMARK(BM_Pack)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(3)
    ->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
