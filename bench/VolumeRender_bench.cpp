// Volume rendering speed: the stand-alone renderer on procedural smoke against a naive dense
// fixed-step marcher (the practical ceiling of samples per second) and, when it is built in,
// OpenVDB's VolumeRender on the same field, camera and light, all in one run. A summary of
// ratios against the baselines of the same run follows the table.
//
// Extra option: --images=DIR writes the image of each render to DIR/bench-*.png once.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ProceduralFields.h"
#include "cache/SGCompressor.h"
#include "cache/VaporixFrameData.h"
#include "foundation/MTJobs.h"
#include "standalone/ImageIO.h"
#include "standalone/Renderer.h"
#include "standalone/StandaloneIlluminator.h"
#ifdef VAPORIX_BENCH_OPENVDB
#include "VolumeRender_openvdb.h"
#endif

using namespace vaporix;

namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;
/// Ray steps in cells: `rendstep` 50 and `rendshadstep` 100.
constexpr float PRIMARY_STEP = 0.5f;
constexpr float SHADOW_STEP = 1.0f;

/// CPU seconds of the whole process (all threads). Other processes share this machine's two
/// cores; a render's CPU time, unlike its wall time, does not grow while it waits for a core.
double processCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

/// CPU seconds of every thread of the process, by thread id. The render threads of the job
/// engine and of TBB live in pools, so the same ids come back render after render.
std::map<int, double> threadCpuSeconds() {
    std::map<int, double> out;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) return out;
    while (dirent* entry = readdir(dir)) {
        const int tid = std::atoi(entry->d_name);
        if (tid <= 0) continue;
        // The CPU clock of another thread of this process, as pthread_getcpuclockid makes it.
        const clockid_t clock = static_cast<clockid_t>((~unsigned(tid) << 3) | 6u);
        timespec t{};
        if (clock_gettime(clock, &t) == 0) out[tid] = double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
    }
    closedir(dir);
    return out;
}

/// Measures the CPU time of a piece of work: in all, and on its busiest thread.
class CpuMeter {
public:
    void start() {
        mProcess = processCpuSeconds();
        mThreads = threadCpuSeconds();
    }
    void stop() {
        total += processCpuSeconds() - mProcess;
        double most = 0.0;
        for (const auto& [tid, seconds] : threadCpuSeconds()) {
            const auto it = mThreads.find(tid);
            most = std::max(most, seconds - (it == mThreads.end() ? 0.0 : it->second));
        }
        busiest += most;
    }
    double total = 0.0;
    double busiest = 0.0;

private:
    double mProcess = 0.0;
    std::map<int, double> mThreads;
};

/// Sets the counters every render benchmark reports: samples per image and their rate, the CPU
/// seconds per image of all threads and of the busiest thread.
void setCounters(benchmark::State& state, uint64_t samples, const CpuMeter& cpu) {
    const double n = static_cast<double>(state.iterations());
    state.counters["samples"] = static_cast<double>(samples);
    state.counters["samples_per_s"] =
        benchmark::Counter(static_cast<double>(samples) * n, benchmark::Counter::kIsRate);
    state.counters["cpu_s"] = n > 0 ? cpu.total / n : 0.0;
    state.counters["busiest_s"] = n > 0 ? cpu.busiest / n : 0.0;
}

// ---------------------------------------------------------------------------------------------
// The scene: 128x128x192 procedural smoke in a frame built in memory, one world unit a cell
// ---------------------------------------------------------------------------------------------

struct Scene {
    bench::ProceduralField field;
    VaporixFrameData frame;
    GridObject object;
    std::vector<GridObject*> objects;
    RenderSettings settings;
    /// World = grid + this (the frame's grid transform moves the grid's floor centre to 0).
    double gridToWorld[3] = {0.0, 0.0, 0.0};
    /// Extinction per world unit at density 1, from the shader.
    float sigma = 0.0f;
    /// What a fully lit step returns per unit of its opacity: light colour x diffuse colour.
    float albedo[3] = {1.0f, 1.0f, 1.0f};
    /// Unit world direction towards the light.
    double toLight[3] = {0.0, 0.0, 1.0};
    float stopTransparency = 0.001f;
    std::string error;

    Scene() : field(bench::smokeDensity(128, 128, 192)) { build(); }

    VolumeShader& shader() { return object.shader(); }

    /// Empties the light cache, as the set-up of every frame does.
    void resetLightCache() {
        VolumeShader& sh = shader();
        if (!sh.lightCache) return;
        const uint64_t cells =
            uint64_t(sh.gridSize[0]) * uint64_t(sh.gridSize[1]) * uint64_t(sh.gridSize[2]);
        std::fill(sh.lightCache, sh.lightCache + 3 * cells, -1.0f);
    }

private:
    void build() {
        // The frame: one raw smoke stream, the grid's floor centred on the world origin.
        const int n[3] = {field.nx, field.ny, field.nz};
        for (int a = 0; a < 3; ++a) frame.gridSize[a] = n[a];
        frame.gridTransform = GridTransform::identity();
        frame.gridTransform.m[9] = 0.5f * static_cast<float>(n[0]);
        frame.gridTransform.m[10] = 0.5f * static_cast<float>(n[1]);
        gridToWorld[0] = -0.5 * n[0];
        gridToWorld[1] = -0.5 * n[1];
        SGCompressor<3> codec;
        if (!codec.encodeRaw(field.values.data(), static_cast<int64_t>(field.cells())) ||
            !frame.appendStreamBlock(CH_SMOKE, codec.output.data,
                                     static_cast<uint64_t>(codec.output.count))) {
            error = "can't build the frame";
            return;
        }
        frame.channelMask = 1u << CH_SMOKE;

        // Smoke only (no fire, simple smoke opacity) at the benchmark's steps; every other
        // parameter keeps its default, the light cache included.
        object.setFrame(&frame);
        for (const char* setting : {"earg=0", "targ=0", "rendstep=50", "rendshadstep=100"})
            if (!object.applySetting(setting, error)) return;
        if (!object.prepare(error)) return;
        objects = {&object};

        // The renderer's default view, keeping only its directional key light.
        settings.width = WIDTH;
        settings.height = HEIGHT;
        if (!applyDefaultView(settings, objects)) {
            error = "no default view";
            return;
        }
        std::vector<Light> keep;
        for (const Light& light : settings.lights)
            if (light.kind == LightKind::Directional) keep.push_back(light);
        if (keep.size() != 1) {
            error = "the default view has no single directional light";
            return;
        }
        settings.lights = keep;
        settings.ground.enabled = false;

        // The numbers the other renders take from ours.
        const VolumeShader& sh = shader();
        if (sh.remapOffset[2] != 0.0f || sh.opacityTable ||
            !(sh.flags & VolumeShader::hasDiffuse) || (sh.flags & VolumeShader::hasEmission)) {
            error = "the shader is not simple smoke";
            return;
        }
        sigma = -sh.smokeExtinction * sh.remapScale[2];
        const Light& key = settings.lights[0];
        for (int c = 0; c < 3; ++c) {
            albedo[c] = key.color[c] * key.intensity * sh.simpleColor[c] * sh.diffuseMult;
            toLight[c] = -key.direction[c];
        }
        stopTransparency = sh.stopTransparency;
    }
};

Scene& benchScene() {
    static Scene* s = new Scene;
    return *s;
}

// ---------------------------------------------------------------------------------------------
// Our renderer, and a pass that counts its grid samples
// ---------------------------------------------------------------------------------------------

struct OurCount {
    RenderStats stats;
    uint64_t lightCacheFills = 0;
    uint64_t total() const { return stats.samples(); }
    uint64_t steps() const { return stats.steps(); }
};

/// Renders the scene once (one thread, empty light cache) and keeps what the renderer counted:
/// step positions and grid samples, on camera and on shadow rays.
OurCount countOurSamples(Image& rendered) {
    Scene& sc = benchScene();
    OurCount count;
    RenderSettings settings = sc.settings;
    settings.threads = 1;
    sc.resetLightCache();
    if (renderImage(settings, sc.objects, rendered, nullptr, nullptr, &count.stats) != RENDER_OK)
        return count;
    const VolumeShader& sh = sc.shader();
    const uint64_t cells =
        uint64_t(sh.gridSize[0]) * uint64_t(sh.gridSize[1]) * uint64_t(sh.gridSize[2]);
    for (uint64_t i = 0; sh.lightCache && i < cells; ++i)
        if (sh.lightCache[3 * i] != -1.0f) ++count.lightCacheFills;
    return count;
}

const OurCount& ourCount() {
    static const OurCount count = [] {
        Image image;
        return countOurSamples(image);
    }();
    return count;
}

void BM_Ours(benchmark::State& state) {
    Scene& sc = benchScene();
    if (!sc.error.empty()) {
        state.SkipWithError(sc.error.c_str());
        return;
    }
    const OurCount& count = ourCount();
    RenderSettings settings = sc.settings;
    settings.threads = static_cast<int>(state.range(0));
    static Image image;
    CpuMeter cpu;
    for (auto _ : state) {
        // Each frame's set-up starts the light cache empty; that set-up is not image time.
        state.PauseTiming();
        sc.resetLightCache();
        state.ResumeTiming();
        cpu.start();
        std::string error;
        if (renderImage(settings, sc.objects, image, nullptr, &error) != RENDER_OK) {
            state.SkipWithError(error.c_str());
            break;
        }
        cpu.stop();
    }
    setCounters(state, count.total(), cpu);
    state.SetLabel("threads " + std::to_string(settings.threads));
}

// ---------------------------------------------------------------------------------------------
// The ceiling: a naive dense fixed-step trilinear marcher
// ---------------------------------------------------------------------------------------------

/// Straight Beer-Lambert marching over the dense array, with the steps our marcher takes (so
/// many cells along the ray's dominant axis) and a shadow ray toward the light from every
/// sample with density.
class DenseMarcher {
public:
    explicit DenseMarcher(const Scene& sc)
        : mData(sc.field.values.data()),
          mSize{sc.field.nx, sc.field.ny, sc.field.nz},
          mStrideY(sc.field.nx),
          mStrideZ(int64_t(sc.field.nx) * sc.field.ny),
          mSigma(sc.sigma),
          mStopTransparency(sc.stopTransparency),
          mStopDepth(-std::log(sc.stopTransparency)) {
        double m = 0.0;
        for (int a = 0; a < 3; ++a) {
            mToLight[a] = static_cast<float>(sc.toLight[a]);
            mAlbedo[a] = sc.albedo[a];
            m = std::max(m, std::fabs(sc.toLight[a]));
        }
        mShadowStep = static_cast<float>(SHADOW_STEP / m);
    }

    /// Samples taken; with DETAIL also split into camera and shadow samples and the empty ones.
    struct Tally {
        uint64_t samples = 0;
        uint64_t primary = 0, primaryEmpty = 0, shadow = 0, shadowEmpty = 0;
    };

    /// One camera ray in grid space (unit direction).
    template <bool DETAIL = false>
    void trace(const double origin[3],
               const double dir[3],
               float rgb[3],
               float& transparency,
               Tally& tally) const {
        // Clip to the grid box [0, n].
        double t0 = 0.0, t1 = 1e30, m = 0.0;
        for (int a = 0; a < 3; ++a) {
            m = std::max(m, std::fabs(dir[a]));
            if (dir[a] == 0.0) {
                if (origin[a] < 0.0 || origin[a] > mSize[a]) return;
                continue;
            }
            double ta = (0.0 - origin[a]) / dir[a], tb = (mSize[a] - origin[a]) / dir[a];
            if (ta > tb) std::swap(ta, tb);
            t0 = std::max(t0, ta);
            t1 = std::min(t1, tb);
        }
        if (!(t0 < t1)) return;
        const double step = PRIMARY_STEP / m;
        const float stepLength = static_cast<float>(step);
        float T = 1.0f;
        for (double t = t0 + 0.5 * step; t <= t1; t += step) {
            const float p[3] = {static_cast<float>(origin[0] + dir[0] * t),
                                static_cast<float>(origin[1] + dir[1] * t),
                                static_cast<float>(origin[2] + dir[2] * t)};
            const float d = sample(p);
            ++tally.samples;
            if constexpr (DETAIL) {
                ++tally.primary;
                if (!(d > 0.0f)) ++tally.primaryEmpty;
            }
            if (!(d > 0.0f)) continue;
            const float alpha = 1.0f - std::exp(-mSigma * d * stepLength);
            const float lit = std::exp(-shadowDepth<DETAIL>(p, tally));
            for (int c = 0; c < 3; ++c) rgb[c] += T * alpha * mAlbedo[c] * lit;
            T *= 1.0f - alpha;
            if (T < mStopTransparency) {
                T = 0.0f;
                break;
            }
        }
        transparency = T;
    }

private:
    /// Trilinear, a cell's value at its integer position, clamped at the faces.
    float sample(const float p[3]) const {
        const float fx = std::floor(p[0]), fy = std::floor(p[1]), fz = std::floor(p[2]);
        const int ix = static_cast<int>(fx), iy = static_cast<int>(fy), iz = static_cast<int>(fz);
        const float tx = p[0] - fx, ty = p[1] - fy, tz = p[2] - fz;
        if (ix >= 0 && iy >= 0 && iz >= 0 && ix + 1 < mSize[0] && iy + 1 < mSize[1] &&
            iz + 1 < mSize[2]) {
            const float* c = mData + ix + mStrideY * iy + mStrideZ * iz;
            const int64_t sy = mStrideY, sz = mStrideZ;
            const float c00 = c[0] + (c[1] - c[0]) * tx;
            const float c10 = c[sy] + (c[sy + 1] - c[sy]) * tx;
            const float c01 = c[sz] + (c[sz + 1] - c[sz]) * tx;
            const float c11 = c[sz + sy] + (c[sz + sy + 1] - c[sz + sy]) * tx;
            const float c0 = c00 + (c10 - c00) * ty;
            const float c1 = c01 + (c11 - c01) * ty;
            return c0 + (c1 - c0) * tz;
        }
        auto clampTo = [](int i, int n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); };
        const int x0 = clampTo(ix, mSize[0]), x1 = clampTo(ix + 1, mSize[0]);
        const int y0 = clampTo(iy, mSize[1]), y1 = clampTo(iy + 1, mSize[1]);
        const int z0 = clampTo(iz, mSize[2]), z1 = clampTo(iz + 1, mSize[2]);
        auto at = [&](int x, int y, int z) { return mData[x + mStrideY * y + mStrideZ * z]; };
        const float c00 = at(x0, y0, z0) + (at(x1, y0, z0) - at(x0, y0, z0)) * tx;
        const float c10 = at(x0, y1, z0) + (at(x1, y1, z0) - at(x0, y1, z0)) * tx;
        const float c01 = at(x0, y0, z1) + (at(x1, y0, z1) - at(x0, y0, z1)) * tx;
        const float c11 = at(x0, y1, z1) + (at(x1, y1, z1) - at(x0, y1, z1)) * tx;
        const float c0 = c00 + (c10 - c00) * ty;
        const float c1 = c01 + (c11 - c01) * ty;
        return c0 + (c1 - c0) * tz;
    }

    /// Optical depth from `p` to where the ray toward the light leaves the grid; it stops
    /// once the light is below the stop transparency.
    template <bool DETAIL>
    float shadowDepth(const float p[3], Tally& tally) const {
        float tExit = 1e30f;
        for (int a = 0; a < 3; ++a) {
            if (mToLight[a] > 0.0f)
                tExit = std::min(tExit, (static_cast<float>(mSize[a]) - p[a]) / mToLight[a]);
            else if (mToLight[a] < 0.0f)
                tExit = std::min(tExit, -p[a] / mToLight[a]);
        }
        const float perStep = mSigma * mShadowStep;
        float depth = 0.0f;
        for (float t = mShadowStep; t <= tExit; t += mShadowStep) {
            const float q[3] = {p[0] + mToLight[0] * t, p[1] + mToLight[1] * t,
                                p[2] + mToLight[2] * t};
            const float d = sample(q);
            depth += d * perStep;
            ++tally.samples;
            if constexpr (DETAIL) {
                ++tally.shadow;
                if (!(d > 0.0f)) ++tally.shadowEmpty;
            }
            if (depth > mStopDepth) break;
        }
        return depth;
    }

    const float* mData;
    int mSize[3];
    int64_t mStrideY, mStrideZ;
    float mSigma;
    float mStopTransparency;
    float mStopDepth;
    float mToLight[3];
    float mAlbedo[3];
    float mShadowStep = 1.0f;
};

/// Renders the ceiling's image (RGBA, premultiplied, over black) on `threads` job engine
/// threads, rows taken a few at a time. @return the samples taken.
const DenseMarcher& ceilingMarcher(const Scene& sc) {
    static const DenseMarcher marcher(sc);
    return marcher;
}

uint64_t renderCeiling(const Scene& sc, int threads, std::vector<float>& rgba) {
    const DenseMarcher& marcher = ceilingMarcher(sc);
    Camera camera = sc.settings.camera;
    camera.prepare(WIDTH, HEIGHT);
    rgba.resize(size_t(WIDTH) * HEIGHT * 4);
    const double origin[3] = {camera.position[0] - sc.gridToWorld[0],
                              camera.position[1] - sc.gridToWorld[1],
                              camera.position[2] - sc.gridToWorld[2]};
    constexpr int ROWS = 4;
    std::atomic<int> nextRow{0};
    std::atomic<uint64_t> total{0};
    MTFunction engine(nullptr, threads);
    engine.init(threads);
    engine.forRange(static_cast<uint64_t>(std::max(engine.numJobs, 1)),
                    [&](uint64_t, uint64_t, Job&) {
                        DenseMarcher::Tally tally;
                        for (;;) {
                            const int y0 = nextRow.fetch_add(ROWS);
                            if (y0 >= HEIGHT) break;
                            for (int y = y0; y < std::min(y0 + ROWS, HEIGHT); ++y)
                                for (int x = 0; x < WIDTH; ++x) {
                                    double dir[3];
                                    camera.rayDirection(x + 0.5, y + 0.5, dir);
                                    float rgb[3] = {0.0f, 0.0f, 0.0f}, T = 1.0f;
                                    marcher.trace(origin, dir, rgb, T, tally);
                                    float* px = &rgba[4 * (size_t(y) * WIDTH + x)];
                                    px[0] = rgb[0];
                                    px[1] = rgb[1];
                                    px[2] = rgb[2];
                                    px[3] = 1.0f - T;
                                }
                        }
                        total.fetch_add(tally.samples);
                    });
    return total.load();
}

/// The ceiling's samples of one image split into camera and shadow samples, and how many of
/// them read only empty cells (one thread, not timed).
DenseMarcher::Tally ceilingDetail(const Scene& sc) {
    const DenseMarcher& marcher = ceilingMarcher(sc);
    Camera camera = sc.settings.camera;
    camera.prepare(WIDTH, HEIGHT);
    const double origin[3] = {camera.position[0] - sc.gridToWorld[0],
                              camera.position[1] - sc.gridToWorld[1],
                              camera.position[2] - sc.gridToWorld[2]};
    DenseMarcher::Tally tally;
    for (int y = 0; y < HEIGHT; ++y)
        for (int x = 0; x < WIDTH; ++x) {
            double dir[3];
            camera.rayDirection(x + 0.5, y + 0.5, dir);
            float rgb[3] = {0.0f, 0.0f, 0.0f}, T = 1.0f;
            marcher.trace<true>(origin, dir, rgb, T, tally);
        }
    return tally;
}

void BM_Ceiling(benchmark::State& state) {
    Scene& sc = benchScene();
    if (!sc.error.empty()) {
        state.SkipWithError(sc.error.c_str());
        return;
    }
    const int threads = static_cast<int>(state.range(0));
    static std::vector<float> rgba;
    uint64_t samples = 0;
    CpuMeter cpu;
    for (auto _ : state) {
        cpu.start();
        samples = renderCeiling(sc, threads, rgba);
        benchmark::ClobberMemory();
        cpu.stop();
    }
    setCounters(state, samples, cpu);
    state.SetLabel("threads " + std::to_string(threads));
}

// ---------------------------------------------------------------------------------------------
// OpenVDB's VolumeRender
// ---------------------------------------------------------------------------------------------

/// Mean euclidean length, in cells, of our primary steps over the image's rays: a step of
/// PRIMARY_STEP cells along the ray's dominant axis.
double meanPrimaryStepLength(const Scene& sc) {
    Camera camera = sc.settings.camera;
    camera.prepare(WIDTH, HEIGHT);
    double sum = 0.0;
    for (int y = 0; y < HEIGHT; ++y)
        for (int x = 0; x < WIDTH; ++x) {
            double d[3];
            camera.rayDirection(x + 0.5, y + 0.5, d);
            sum += PRIMARY_STEP / std::max({std::fabs(d[0]), std::fabs(d[1]), std::fabs(d[2])});
        }
    return sum / (double(WIDTH) * HEIGHT);
}

double shadowStepLength(const Scene& sc) {
    return SHADOW_STEP /
           std::max({std::fabs(sc.toLight[0]), std::fabs(sc.toLight[1]), std::fabs(sc.toLight[2])});
}

#ifdef VAPORIX_BENCH_OPENVDB

/// VolumeRender's one cut-off stops a ray when 3 T^2 falls under it (grey light): chosen so
/// that it stops where ours does, T = stoptransp. Its density skip is then far under ours.
double vdbCutoff(const Scene& sc) {
    return 3.0 * double(sc.stopTransparency) * double(sc.stopTransparency);
}

bench::VdbVolumeRender& vdb() {
    static bench::VdbVolumeRender* renderer = [] {
        const Scene& sc = benchScene();
        bench::VdbSceneDesc d;
        d.density = sc.field.values.data();
        d.size[0] = sc.field.nx;
        d.size[1] = sc.field.ny;
        d.size[2] = sc.field.nz;
        const Camera& cam = sc.settings.camera;
        for (int a = 0; a < 3; ++a) {
            d.worldOffset[a] = sc.gridToWorld[a];
            d.eye[a] = cam.position[a];
            d.target[a] = cam.target[a];
            d.up[a] = cam.up[a];
            d.toLight[a] = sc.toLight[a];
            d.lightColor[a] = sc.albedo[a];
        }
        d.fovY = cam.fov;
        d.width = WIDTH;
        d.height = HEIGHT;
        d.extinction = sc.sigma;
        d.primaryStep = PRIMARY_STEP;
        d.shadowStep = SHADOW_STEP;
        d.cutoff = vdbCutoff(sc);
        return new bench::VdbVolumeRender(d);
    }();
    return *renderer;
}

/// VolumeRender's own default cut-off.
constexpr double VDB_DEFAULT_CUTOFF = 0.005;

/// How each VolumeRender variant marches: 0 as asked (steps of 0.5 and 1 voxel along the ray,
/// the cut-off where ours stops), 1 with the euclidean step lengths ours have in this view
/// (about as many samples per ray as ours), 2 as 0 with VolumeRender's default cut-off.
struct VdbMarching {
    double primary = PRIMARY_STEP, shadow = SHADOW_STEP, cutoff = 0.0;
};

VdbMarching vdbMarching(int variant) {
    VdbMarching m;
    m.cutoff = vdbCutoff(benchScene());
    if (variant == 1) {
        static const double p = meanPrimaryStepLength(benchScene());
        m.primary = p;
        m.shadow = shadowStepLength(benchScene());
    } else if (variant == 2) {
        m.cutoff = VDB_DEFAULT_CUTOFF;
    }
    return m;
}

void useMarching(int variant) {
    const VdbMarching m = vdbMarching(variant);
    vdb().setMarching(m.primary, m.shadow, m.cutoff);
}

uint64_t vdbSamples(int variant) {
    static std::map<int, uint64_t> counts;
    auto it = counts.find(variant);
    if (it != counts.end()) return it->second;
    useMarching(variant);
    return counts[variant] = vdb().countSamples();
}

void BM_VolumeRender(benchmark::State& state) {
    Scene& sc = benchScene();
    if (!sc.error.empty()) {
        state.SkipWithError(sc.error.c_str());
        return;
    }
    const int variant = static_cast<int>(state.range(0));
    const int threads = static_cast<int>(state.range(1));
    const uint64_t samples = vdbSamples(variant);
    useMarching(variant);
    CpuMeter cpu;
    for (auto _ : state) {
        cpu.start();
        vdb().render(threads);
        cpu.stop();
    }
    setCounters(state, samples, cpu);
    const VdbMarching m = vdbMarching(variant);
    char label[96];
    std::snprintf(label, sizeof label, "steps %.3f/%.3f voxel, cut-off %.2g, threads %d", m.primary,
                  m.shadow, m.cutoff, threads);
    state.SetLabel(label);
}

#endif

// ---------------------------------------------------------------------------------------------
// Registration, images and the summary
// ---------------------------------------------------------------------------------------------

BENCHMARK(BM_Ours)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Ceiling)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef VAPORIX_BENCH_OPENVDB
// variant, threads
BENCHMARK(BM_VolumeRender)
    ->Args({0, 1})
    ->Args({0, 2})
    ->Args({1, 1})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
#endif

/// Keeps the real time per image of every repetition, for medians.
class Recorder : public benchmark::ConsoleReporter {
public:
    std::map<std::string, std::vector<double>> seconds, cpuSeconds, busiestSeconds;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0)
                continue;
            const std::string key = run.run_name.function_name + "/" + run.run_name.args;
            seconds[key].push_back(run.real_accumulated_time / static_cast<double>(run.iterations));
            const auto cpu = run.counters.find("cpu_s");
            if (cpu != run.counters.end()) cpuSeconds[key].push_back(cpu->second.value);
            const auto busiest = run.counters.find("busiest_s");
            if (busiest != run.counters.end()) busiestSeconds[key].push_back(busiest->second.value);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    /// Median wall seconds per image; 0 when the benchmark did not run.
    double median(const std::string& key) const { return medianOf(seconds, key); }
    /// Median CPU seconds per image, all threads together.
    double cpuMedian(const std::string& key) const { return medianOf(cpuSeconds, key); }
    /// Median CPU seconds per image of the busiest thread.
    double busiestMedian(const std::string& key) const { return medianOf(busiestSeconds, key); }

private:
    static double medianOf(const std::map<std::string, std::vector<double>>& m,
                           const std::string& key) {
        const auto it = m.find(key);
        if (it == m.end() || it->second.empty()) return 0.0;
        std::vector<double> v = it->second;
        std::sort(v.begin(), v.end());
        const size_t n = v.size();
        return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
    }
};

/// Writes an RGBA image (premultiplied, over black) as an opaque PNG, so that the smoke's own
/// shading shows rather than the viewer's backdrop through its alpha.
bool writeOpaque(const std::string& path, const std::vector<float>& rgba) {
    Image image;
    if (!image.resize(WIDTH, HEIGHT) || rgba.size() != image.rgba.size()) return false;
    image.rgba = rgba;
    for (size_t i = 3; i < image.rgba.size(); i += 4) image.rgba[i] = 1.0f;
    std::string error;
    if (!writePng(path, image, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return false;
    }
    std::printf("wrote %s\n", path.c_str());
    return true;
}

void writeImages(const std::string& dir) {
    Scene& sc = benchScene();
    if (!sc.error.empty()) return;
    Image ours;
    RenderSettings settings = sc.settings;
    settings.threads = 1;
    sc.resetLightCache();
    if (renderImage(settings, sc.objects, ours) == RENDER_OK)
        writeOpaque(dir + "/bench-ours.png", ours.rgba);
    std::vector<float> rgba;
    renderCeiling(sc, 1, rgba);
    writeOpaque(dir + "/bench-ceiling.png", rgba);
#ifdef VAPORIX_BENCH_OPENVDB
    useMarching(0);
    vdb().render(2);
    vdb().pixels(rgba);
    writeOpaque(dir + "/bench-openvdb.png", rgba);
#endif
}

/// Mean and largest absolute difference of two RGBA images' colours.
void compareImages(const std::vector<float>& a,
                   const std::vector<float>& b,
                   double& mean,
                   double& largest) {
    mean = largest = 0.0;
    if (a.size() != b.size() || a.empty()) return;
    double sum = 0.0;
    size_t n = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        if (i % 4 == 3) continue;
        const double d = std::fabs(double(a[i]) - double(b[i]));
        sum += d;
        largest = std::max(largest, d);
        ++n;
    }
    mean = sum / double(n);
}

/// One row of the summary table: wall and CPU milliseconds per image and the sample rates.
struct Row {
    double wall = 0.0, cpu = 0.0, busiest = 0.0;
    uint64_t samples = 0;
    double rate() const { return wall > 0.0 ? double(samples) / wall : 0.0; }
    double cpuRate() const { return cpu > 0.0 ? double(samples) / cpu : 0.0; }
};

Row row(const Recorder& r, const std::string& key, uint64_t samples) {
    return Row{r.median(key), r.cpuMedian(key), r.busiestMedian(key), samples};
}

void printRow(const char* name, const Row& row) {
    if (row.wall <= 0.0) return;
    std::printf("%-32s %9.1f %9.1f %9.1f %9.2f %10.1f %10.1f\n", name, row.wall * 1e3,
                row.cpu * 1e3, row.busiest * 1e3, double(row.samples) / 1e6, row.rate() / 1e6,
                row.cpuRate() / 1e6);
}

double ratioOf(uint64_t a, uint64_t b) { return b ? double(a) / double(b) : 0.0; }

/// "a / b" as "1.23x", or "n/a" when either did not run.
std::string ratio(double a, double b) {
    if (!(a > 0.0 && b > 0.0)) return "n/a";
    char text[32];
    std::snprintf(text, sizeof text, "%.2fx", a / b);
    return text;
}

void printSummary(const Recorder& r) {
    Scene& sc = benchScene();
    if (!sc.error.empty()) {
        std::printf("\nThe scene could not be set up: %s\n", sc.error.c_str());
        return;
    }
    const OurCount& count = ourCount();
    const VolumeShader& sh = sc.shader();
    std::printf(
        "\nScene: %dx%dx%d procedural smoke (%.1f%% of cells non-zero), %dx%d image, steps %.2f "
        "and %.2f cell along the ray's dominant axis (mean euclidean %.3f and %.3f), light cache "
        "%s, jitter %s, sampler %d, extinction %.4f per cell at density 1, stop transparency "
        "%.4g\n",
        sc.field.nx, sc.field.ny, sc.field.nz,
        100.0 *
            double(std::count_if(sc.field.values.begin(), sc.field.values.end(),
                                 [](float v) { return v > 0.0f; })) /
            double(sc.field.cells()),
        WIDTH, HEIGHT, double(sh.stepShade), double(sh.stepShadow), meanPrimaryStepLength(sc),
        shadowStepLength(sc), (sh.flags & VolumeShader::lightCacheOn) ? "on" : "off",
        (sh.flags & VolumeShader::jitter) ? "on" : "off", sh.sampler, double(sc.sigma),
        double(sc.stopTransparency));
    std::printf(
        "Ours, per image: %.2f M step positions (camera rays %.2f M, light cache shadow rays "
        "%.2f M for %llu filled corners), of which %.2f M read the grid (camera %.2f M, shadow "
        "%.2f M); the others lay in blocks known to be empty\n",
        double(count.steps()) / 1e6, double(count.stats.cameraSteps) / 1e6,
        double(count.stats.shadowSteps) / 1e6,
        static_cast<unsigned long long>(count.lightCacheFills), double(count.total()) / 1e6,
        double(count.stats.cameraSamples) / 1e6, double(count.stats.shadowSamples) / 1e6);

    // The images side by side: ours (2 threads), the ceiling and VolumeRender.
    Image ours;
    {
        RenderSettings settings = sc.settings;
        settings.threads = 2;
        sc.resetLightCache();
        renderImage(settings, sc.objects, ours);
    }
    std::vector<float> ceilingImage;
    const uint64_t ceilSamples = renderCeiling(sc, 1, ceilingImage);
    double mean, largest;
    compareImages(ours.rgba, ceilingImage, mean, largest);
    std::printf("Image of ours vs ceiling: mean |difference| %.4f, largest %.3f (linear colour)\n",
                mean, largest);
    const DenseMarcher::Tally detail = ceilingDetail(sc);
    std::printf(
        "Ceiling, samples per image: %.2f M camera (%.0f%% empty), %.2f M shadow (%.0f%% "
        "empty)\n",
        double(detail.primary) / 1e6, 100.0 * ratioOf(detail.primaryEmpty, detail.primary),
        double(detail.shadow) / 1e6, 100.0 * ratioOf(detail.shadowEmpty, detail.shadow));

    const Row ours1 = row(r, "BM_Ours/1", count.total()),
              ours2 = row(r, "BM_Ours/2", count.total());
    const Row ceil1 = row(r, "BM_Ceiling/1", ceilSamples),
              ceil2 = row(r, "BM_Ceiling/2", ceilSamples);
#ifdef VAPORIX_BENCH_OPENVDB
    const Row vdb1 = row(r, "BM_VolumeRender/0/1", vdbSamples(0)),
              vdb2 = row(r, "BM_VolumeRender/0/2", vdbSamples(0)),
              vdbMatched = row(r, "BM_VolumeRender/1/1", vdbSamples(1)),
              vdbDefault = row(r, "BM_VolumeRender/2/1", vdbSamples(2));
    // Same view: VolumeRender's camera rays against ours at the corners and the centre.
    double worst = 0.0;
    Camera cam = sc.settings.camera;
    cam.prepare(WIDTH, HEIGHT);
    const int probes[5][2] = {
        {0, 0}, {WIDTH - 1, 0}, {0, HEIGHT - 1}, {WIDTH - 1, HEIGHT - 1}, {WIDTH / 2, HEIGHT / 2}};
    for (const auto& p : probes) {
        double a[3], b[3];
        cam.rayDirection(p[0] + 0.5, p[1] + 0.5, a);
        vdb().rayDirection(p[0], p[1], b);
        const double dot = std::clamp(a[0] * b[0] + a[1] * b[1] + a[2] * b[2], -1.0, 1.0);
        worst = std::max(worst, std::acos(dot));
    }
    std::vector<float> vdbImage;
    useMarching(0);
    vdb().render(2);
    vdb().pixels(vdbImage);
    compareImages(ours.rgba, vdbImage, mean, largest);
    std::printf(
        "VolumeRender (cut-off %.2g, %llu active voxels): camera rays vs ours, largest angle "
        "%.2g rad; image vs ours: mean |difference| %.4f, largest %.3f\n",
        vdbCutoff(sc), static_cast<unsigned long long>(vdb().activeVoxels()), worst, mean, largest);
#endif

    std::printf(
        "\nSummary: medians of the repetitions; wall = real time per image, cpu = CPU time of "
        "all threads per image\n");
    std::printf("%-32s %9s %9s %9s %9s %10s %10s\n", "", "wall ms", "cpu ms", "busiest",
                "M samples", "M/s wall", "M/s cpu");
    printRow("ours, 1 thread", ours1);
    printRow("ours, 2 threads", ours2);
    printRow("ceiling, 1 thread", ceil1);
    printRow("ceiling, 2 threads", ceil2);
#ifdef VAPORIX_BENCH_OPENVDB
    printRow("VolumeRender, 1 thread", vdb1);
    printRow("VolumeRender, 2 threads", vdb2);
    printRow("VolumeRender our steps, 1 thread", vdbMatched);
    printRow("VolumeRender cut-off 0.005, 1 th.", vdbDefault);
#endif
    std::printf("\nRatios (wall clock; from CPU times in brackets):\n");
    std::printf("  ours / ceiling samples per second (grid reads), 1 thread: %s (%s)  target >= 0.6x\n",
                ratio(ours1.rate(), ceil1.rate()).c_str(),
                ratio(ours1.cpuRate(), ceil1.cpuRate()).c_str());
    std::printf(
        "  ours / ceiling step positions per second, 1 thread: %s (%s)  (every position our "
        "steps look at, read or known empty)\n",
        ratio(double(count.steps()) / ours1.wall, ceil1.rate()).c_str(),
        ratio(double(count.steps()) / ours1.cpu, ceil1.cpuRate()).c_str());
    std::printf("  ours / ceiling image time, 1 thread: %s (%s)\n",
                ratio(ours1.wall, ceil1.wall).c_str(), ratio(ours1.cpu, ceil1.cpu).c_str());
#ifdef VAPORIX_BENCH_OPENVDB
    std::printf(
        "  ours / VolumeRender image time: 1 thread %s (%s), 2 threads %s (%s, busiest "
        "threads)  target <= 0.4x\n",
        ratio(ours1.wall, vdb1.wall).c_str(), ratio(ours1.cpu, vdb1.cpu).c_str(),
        ratio(ours2.wall, vdb2.wall).c_str(), ratio(ours2.busiest, vdb2.busiest).c_str());
    std::printf("  ours / VolumeRender with our step lengths, image time, 1 thread: %s (%s)\n",
                ratio(ours1.wall, vdbMatched.wall).c_str(),
                ratio(ours1.cpu, vdbMatched.cpu).c_str());
    std::printf("  ours / VolumeRender with its default cut-off, image time, 1 thread: %s (%s)\n",
                ratio(ours1.wall, vdbDefault.wall).c_str(),
                ratio(ours1.cpu, vdbDefault.cpu).c_str());
#else
    std::printf(
        "  VolumeRender: not built (OpenVDB was not found; scripts/setup-deps.sh --bench "
        "installs it)\n");
#endif
    std::printf("  ours 2 threads / 1 thread speed-up: %s  target >= 1.7x; the ceiling's: %s\n",
                ratio(ours1.wall, ours2.wall).c_str(), ratio(ceil1.wall, ceil2.wall).c_str());
    // On a busy machine: the work the second thread adds (CPU time of all threads) and how the
    // work splits (the busiest thread's CPU time) bound the speed-up a quiet machine would show.
    std::printf(
        "  ours 2 threads from CPU times: all threads %s of one thread's; speed-up between %s "
        "(one thread / busiest thread) and %s (2 x one thread / all threads)\n",
        ratio(ours2.cpu, ours1.cpu).c_str(), ratio(ours1.cpu, ours2.busiest).c_str(),
        ratio(2.0 * ours1.cpu, ours2.cpu).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    // Our one option goes before Google Benchmark sees the command line.
    std::string imageDir;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--images=", 0) == 0)
            imageDir = arg.substr(9);
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (!imageDir.empty()) writeImages(imageDir);
    Recorder recorder;
    benchmark::RunSpecifiedBenchmarks(&recorder);
    benchmark::Shutdown();
    printSummary(recorder);
    return 0;
}
