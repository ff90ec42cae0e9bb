// The frame pre-passes of motion blur and displacement against the image time of the same frame
// in the same run, and the cosine spectrum against FFTW's REDFT10 / REDFT01 pair.
//
//   vaporix_prepass_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
//
// Ratios to report: BM_MotionBlurPrepass/1 over BM_Image/128x128x192 (blur 0); threads 2 over 1;
// BM_Image with blur over without; BM_SpectrumPair over BM_FftwPair; BM_DisplacementPrepass over
// BM_Image/demo.
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "render/Spectrum.h"
#include "standalone/DemoSequence.h"
#include "standalone/GridObject.h"
#include "standalone/Renderer.h"

using namespace vaporix;

namespace {

/// A demo frame of the given size (frame 12 of the built-in sequence), with the demo's look.
struct BenchFrame {
    VaporixFrameData frame;
    GridObject object;
    RenderSettings settings;

    BenchFrame(int nx, int ny, int nz) {
        DemoSettings d;
        d.size[0] = nx, d.size[1] = ny, d.size[2] = nz;
        DemoSequence demo(d);
        demo.start();
        for (int f = 2; f <= 12; ++f) demo.advance();
        if (!demo.fillFrame(frame)) std::fprintf(stderr, "bench: the frame failed\n");
        object.setFrame(&frame, 12);
        std::string error;
        for (const char* s : {"smoketransp=0.35", "simple_color=0.12,0.12,0.12", "emult=0.05"})
            object.applySetting(s, error);
        object.threads = 1;
        settings.width = 640;
        settings.height = 360;
        settings.threads = 1;
        prepare(false);
        std::vector<GridObject*> objects{&object};
        applyDefaultView(settings, objects);
    }
    void prepare(bool blur) {
        object.motionBlur = blur;
        std::string error;
        if (!object.prepare(error)) std::fprintf(stderr, "bench: %s\n", error.c_str());
    }
    void render(bool blur) {
        RenderSettings s = settings;
        s.motionBlur = blur;
        std::vector<GridObject*> objects{&object};
        Image image;
        renderImage(s, objects, image);
        benchmark::DoNotOptimize(image.rgba.data());
    }
};

BenchFrame& big() {
    static BenchFrame f(128, 128, 192);
    return f;
}

BenchFrame& demoFrame() {
    static BenchFrame f(96, 96, 128);
    return f;
}

/// Image of the 128x128x192 frame at 640x360 on one thread; arg 1: with motion blur (one camera
/// ray a pixel, each at its own time).
void BM_Image(benchmark::State& state) {
    BenchFrame& f = big();
    const bool blur = state.range(0) != 0;
    f.prepare(blur);
    for (auto _ : state) f.render(blur);
}
BENCHMARK(BM_Image)->ArgName("blur")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

/// The motion path field of the 128x128x192 frame on 1 and 2 threads.
void BM_MotionBlurPrepass(benchmark::State& state) {
    BenchFrame& f = big();
    f.prepare(true);
    MotionBlurSettings s;
    s.mbSmooth = f.object.shader().mbSmooth;
    s.threads = static_cast<int>(state.range(0));
    VolumeShader& shader = f.object.shader();
    for (auto _ : state) {
        shader.motionBlur.BuildMotionBlur(shader, s);
        benchmark::DoNotOptimize(shader.motionBlur.field());
    }
}
BENCHMARK(BM_MotionBlurPrepass)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

std::vector<float> box128() {
    std::vector<float> v(size_t(128) * 128 * 128);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(std::sin(0.001 * double(i)));
    return v;
}

/// Forward and inverse cosine spectrum of a 128^3 box, one thread.
void BM_SpectrumPair(benchmark::State& state) {
    const std::vector<float> in = box128();
    std::vector<float> out(in.size());
    const int n[3] = {128, 128, 128};
    const int64_t stride[3] = {1, 128, 128 * 128};
    CosSpectrum<3> spectrum;
    for (auto _ : state) {
        spectrum.load(in.data(), n, stride);
        spectrum.forward(1);
        spectrum.inverse(out.data(), n, stride, 1);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_SpectrumPair)->Unit(benchmark::kMillisecond)->UseRealTime();

/// FFTW's REDFT10 and REDFT01 on the same box (single precision, measured plans, one thread),
/// with the same copy in and the scaling out.
void BM_FftwPair(benchmark::State& state) {
    const std::vector<float> in = box128();
    std::vector<float> out(in.size());
    float* work = fftwf_alloc_real(in.size());
    fftwf_plan pf = fftwf_plan_r2r_3d(128, 128, 128, work, work, FFTW_REDFT10, FFTW_REDFT10,
                                      FFTW_REDFT10, FFTW_MEASURE);
    fftwf_plan pi = fftwf_plan_r2r_3d(128, 128, 128, work, work, FFTW_REDFT01, FFTW_REDFT01,
                                      FFTW_REDFT01, FFTW_MEASURE);
    const float scale = 1.0f / (256.0f * 256.0f * 256.0f);
    for (auto _ : state) {
        std::copy(in.begin(), in.end(), work);
        fftwf_execute(pf);
        fftwf_execute(pi);
        for (size_t i = 0; i < out.size(); ++i) out[i] = work[i] * scale;
        benchmark::DoNotOptimize(out.data());
    }
    fftwf_destroy_plan(pf);
    fftwf_destroy_plan(pi);
    fftwf_free(work);
}
BENCHMARK(BM_FftwPair)->Unit(benchmark::kMillisecond)->UseRealTime();

/// The demo frame (96x96x128) at 640x360 on one thread, with displacement on (arg 1) or off.
void BM_DemoImage(benchmark::State& state) {
    BenchFrame& f = demoFrame();
    std::string error;
    f.object.applySetting(state.range(0) ? "displacement=on" : "displacement=off", error);
    f.prepare(false);
    for (auto _ : state) f.render(false);
}

/// The displacement pre-pass of the demo frame, one thread: a resampling level (displ0) and the
/// render-time level (displ2), surface driven.
void BM_DisplacementPrepass(benchmark::State& state) {
    BenchFrame& f = demoFrame();
    std::string error;
    for (const char* s : {"displacement=on", "displ2d=1", "displmul=2",
                          "displ0=noise:scale=0.15,octaves=3,low=-1,high=1",
                          "displ2=noise:scale=0.4,octaves=2,low=-0.5,high=0.5"})
        f.object.applySetting(s, error);
    f.prepare(false);
    VolumeShader& shader = f.object.shader();
    for (auto _ : state) {
        state.PauseTiming();
        f.prepare(false);  // fresh channels
        state.ResumeTiming();
        shader.displacement.threads = 1;
        shader.displacement.PrepareDisplacement(shader, false);
        benchmark::DoNotOptimize(shader.displacement.surfaceNormal());
    }
}
BENCHMARK(BM_DisplacementPrepass)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DemoImage)->ArgName("displaced")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
