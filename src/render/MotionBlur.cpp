// Motion blur: the motion path field (splat of each cell's path over the shutter, normalised,
// blurred along each axis) and the offset of a sample point at its time.
#include "render/MotionBlur.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "cache/VaporixFrameData.h"
#include "foundation/MTJobs.h"
#include "foundation/log.h"
#include "render/VolumeShader.h"

namespace vaporix {

const char* const MOTION_BLUR_NO_VELOCITY_WARNING =
    "%s: There is no grid velocity channel in the cache, Motion Blur in the container will be "
    "disabled for this frame!\nPlease enable Velocity export from the Output rollout and "
    "simulate again before rendering.";

std::atomic<uint32_t> MotionBlur::failAllocations{0};

IMotionGizmo::~IMotionGizmo() = default;

namespace {

/// The cancel test runs every this many cells.
constexpr uint64_t CANCEL_EVERY = 4096;
/// The largest smoothing radius: a kernel costs r^2 to make, and a radius past the grid blurs
/// no more than one as long as the grid.
constexpr int MAX_SMOOTH = 2048;

std::unique_ptr<float[]> allocScratch(uint64_t count, uint32_t which) {
    if (MotionBlur::failAllocations.load(std::memory_order_relaxed) & which) return nullptr;
    if (count == 0 || count > (uint64_t(1) << 40)) return nullptr;
    return std::unique_ptr<float[]>(new (std::nothrow) float[static_cast<size_t>(count)]);
}

/// Trilinear read of a vector field (three floats a cell), clamped at the grid's edge.
void readField(const float* field, const int n[3], const float p[3], float out[3]) {
    int i0[3], i1[3];
    float f[3];
    for (int a = 0; a < 3; ++a) {
        float x = p[a];
        if (!(x == x)) x = 0.0f;  // not a number: the first cell
        const float lim = static_cast<float>(n[a] - 1);
        x = x < 0.0f ? 0.0f : (x > lim ? lim : x);
        const float fl = std::floor(x);
        i0[a] = static_cast<int>(fl);
        i1[a] = std::min(i0[a] + 1, n[a] - 1);
        f[a] = x - fl;
    }
    const int64_t nx = n[0], nxy = nx * n[1];
    out[0] = out[1] = out[2] = 0.0f;
    for (int c = 0; c < 8; ++c) {
        const int ix = (c & 1) ? i1[0] : i0[0];
        const int iy = (c & 2) ? i1[1] : i0[1];
        const int iz = (c & 4) ? i1[2] : i0[2];
        const float w = ((c & 1) ? f[0] : 1.0f - f[0]) * ((c & 2) ? f[1] : 1.0f - f[1]) *
                        ((c & 4) ? f[2] : 1.0f - f[2]);
        const float* v = field + 3 * (ix + nx * iy + nxy * iz);
        for (int k = 0; k < 3; ++k) out[k] += w * v[k];
    }
}

/// Splat of the cells' motion paths. Cells go in slabs of whole z layers, thick enough that
/// the paths of two slabs of the same parity never reach one cell: each pass (mode 0 the even
/// slabs, mode 1 the odd ones) adds into every cell from at most one slab, whose cells are taken
/// in order by one job. So the sums come out the same for any number of threads, without locks.
class MTSplatVelPaths : public MTJobs {
public:
    const VolumeShader* shader = nullptr;
    const MotionBlur* motion = nullptr;
    float* field = nullptr;
    float* weight = nullptr;
    int n[3] = {0, 0, 0};
    int slabDepth = 1;
    int slabCount = 0;
    float tStart = 0.0f;
    float tEnd = 0.0f;
    std::atomic<bool> cancelled{false};

    const char* getName() const override { return "MTSplatVelPaths"; }

    void jobProc(Job& job) override {
        const int64_t nx = n[0], nxy = nx * n[1];
        uint64_t sinceTest = 0;
        for (uint64_t k = job.first; k < job.last; ++k) {
            const int slab = static_cast<int>(2 * k + job.mode);
            const int z0 = slab * slabDepth;
            const int z1 = std::min(z0 + slabDepth, n[2]);
            for (int z = z0; z < z1; ++z) {
                for (int y = 0; y < n[1]; ++y) {
                    for (int x = 0; x < n[0]; ++x) splatCell(x, y, z, nx, nxy);
                    sinceTest += static_cast<uint64_t>(n[0]);
                    if (sinceTest >= CANCEL_EVERY) {
                        if (job.index == 0) addDone(static_cast<uint32_t>(sinceTest));
                        sinceTest = 0;
                        if (cancelled.load(std::memory_order_relaxed)) return;
                        if (isAborted()) {
                            cancelled.store(true);
                            return;
                        }
                    }
                }
            }
        }
    }

private:
    void splatCell(int x, int y, int z, int64_t nx, int64_t nxy) {
        const float cell[3] = {static_cast<float>(x), static_cast<float>(y),
                               static_cast<float>(z)};
        float v[3];
        motionOf(cell, v);
        const float len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        if (len <= 1e-6f) {
            weight[x + nx * y + nxy * z] += 1.0f;
            return;
        }
        // One cell of travel a step; a shutter shorter than the step takes its start only.
        float ds = std::min(1.0f / len, tEnd - 1e-6f - tStart);
        if (!(ds > 0.0f)) ds = 1e30f;
        for (int i = 0;; ++i) {
            const float s = tStart + static_cast<float>(i) * ds;
            if (!(s <= tEnd) || i > 1 << 24) break;
            float p[3];
            for (int a = 0; a < 3; ++a) p[a] = cell[a] - v[a] * s;
            int i0[3];
            float f[3];
            for (int a = 0; a < 3; ++a) {
                const float fl = std::floor(p[a]);
                i0[a] = static_cast<int>(fl);
                f[a] = p[a] - fl;
            }
            const float vs[3] = {v[0] * s, v[1] * s, v[2] * s};
            for (int c = 0; c < 8; ++c) {
                const int ix = i0[0] + (c & 1), iy = i0[1] + ((c >> 1) & 1),
                          iz = i0[2] + ((c >> 2) & 1);
                if (ix < 0 || iy < 0 || iz < 0 || ix >= n[0] || iy >= n[1] || iz >= n[2])
                    continue;
                const float w = ((c & 1) ? f[0] : 1.0f - f[0]) *
                                ((c & 2) ? f[1] : 1.0f - f[1]) * ((c & 4) ? f[2] : 1.0f - f[2]);
                const int64_t at = ix + nx * iy + nxy * iz;
                float* out = field + 3 * at;
                out[0] += vs[0] * w;
                out[1] += vs[1] * w;
                out[2] += vs[2] * w;
                weight[at] += w;
            }
        }
    }

    void motionOf(const float cell[3], float v[3]) const;
};

/// One blur pass along `axis`: jobs take whole slices of the third axis; each line keeps a ring
/// of the last 2r + 1 input vectors, so the line is filtered in place.
class MTGaussBlurVelAxis : public MTJobs {
public:
    float* field = nullptr;
    int n[3] = {0, 0, 0};
    int axis = 0;
    const float* kernel = nullptr;
    int radius = 0;
    std::atomic<bool> failed{false};
    std::atomic<bool> cancelled{false};

    const char* getName() const override { return "MTGaussBlurVelAxis"; }

    void jobProc(Job& job) override {
        const int width = 2 * radius + 1;
        std::unique_ptr<float[]> ring = allocScratch(uint64_t(6) * width, MB_SCRATCH_RING);
        if (!ring) {
            failed.store(true);
            return;
        }
        const int a0 = axis, a1 = (axis + 1) % 3, a2 = (axis + 2) % 3;
        int64_t stride[3];
        stride[0] = 1;
        stride[1] = n[0];
        stride[2] = int64_t(n[0]) * n[1];
        const int64_t step = stride[a0];
        const int len = n[a0];
        for (uint64_t slice = job.first; slice < job.last; ++slice) {
            for (int j = 0; j < n[a1]; ++j) {
                float* line = field + 3 * (stride[a2] * int64_t(slice) + stride[a1] * j);
                filterLine(line, step, len, ring.get(), width);
            }
            if (job.index == 0) addDone(1);
            if (cancelled.load(std::memory_order_relaxed)) return;
            if (isAborted()) {
                cancelled.store(true);
                return;
            }
        }
    }

private:
    /// out[i] = sum over j of in[i - r + j] * kernel[j], inputs outside the line being 0. The
    /// ring holds each input twice (slots s and s + width), so that every window of it is
    /// contiguous.
    void filterLine(float* line, int64_t step, int len, float* ring, int width) const {
        auto put = [&](int i) {
            float* a = ring + 3 * (((i % width) + width) % width);
            float* b = a + 3 * width;
            if (i < 0 || i >= len) {
                a[0] = a[1] = a[2] = b[0] = b[1] = b[2] = 0.0f;
            } else {
                const float* in = line + 3 * step * i;
                a[0] = b[0] = in[0];
                a[1] = b[1] = in[1];
                a[2] = b[2] = in[2];
            }
        };
        for (int i = -radius; i < radius; ++i) put(i);
        int start = ((-radius % width) + width) % width;  // slot of input i - r
        for (int i = 0; i < len; ++i) {
            put(i + radius);
            const float* in = ring + 3 * start;
            float s0 = 0.0f, s1 = 0.0f, s2 = 0.0f;
            for (int j = 0; j < width; ++j) {
                const float k = kernel[j];
                s0 += in[3 * j] * k;
                s1 += in[3 * j + 1] * k;
                s2 += in[3 * j + 2] * k;
            }
            float* out = line + 3 * step * i;
            out[0] = s0;
            out[1] = s1;
            out[2] = s2;
            if (++start == width) start = 0;
        }
    }
};

/// Sanitised motion of a velocity read: components that are not numbers count as 0.
void sanitise(float v[3], float scale, float maxSpeed) {
    for (int a = 0; a < 3; ++a) {
        v[a] *= scale;
        if (!std::isfinite(v[a])) v[a] = 0.0f;
    }
    const double x = v[0], y = v[1], z = v[2], m = maxSpeed;
    const double len2 = x * x + y * y + z * z;
    if (len2 > m * m) {
        const float k = static_cast<float>(m / std::sqrt(len2));
        for (int a = 0; a < 3; ++a) v[a] *= k;
    }
}

float speedLimit(const MotionBlur& m, float tStart, float tEnd) {
    const float span = std::max({std::fabs(tStart), std::fabs(tEnd), tEnd - tStart, 1e-3f});
    return m.maxTravel / span;
}

}  // namespace

void MTSplatVelPaths::motionOf(const float cell[3], float v[3]) const {
    shader->EvalVelocity(v, cell);
    sanitise(v, motion->motionScale, speedLimit(*motion, tStart, tEnd));
}

std::vector<float> motionBlurKernel(int r) {
    std::vector<float> k;
    if (r <= 0) return k;
    r = std::min(r, MAX_SMOOTH);
    k.assign(static_cast<size_t>(2 * r + 1), 0.0f);
    for (int i = 0; i < r; ++i)
        for (int j = -i; j <= i; ++j)
            for (int d = -1; d <= 1; ++d) k[static_cast<size_t>(r + j + d)] += 1.0f;
    double sum = 0.0;
    for (float v : k) sum += static_cast<double>(v);
    for (float& v : k) v = static_cast<float>(static_cast<double>(v) / sum);
    return k;
}

void MotionBlur::release() {
    mField.reset();
    mSize[0] = mSize[1] = mSize[2] = 0;
}

void MotionBlur::velocityAt(const VolumeShader& shader, const float p[3], float v[3]) const {
    shader.EvalVelocity(v, p);
    sanitise(v, motionScale, 1e30f);
}

int MotionBlur::BuildMotionBlur(const VolumeShader& shader, const MotionBlurSettings& s) {
    release();
    ProgressCallback* progress = s.progress;
    int n[3];
    for (int a = 0; a < 3; ++a) n[a] = shader.gridSize[a];
    if (n[0] <= 0 || n[1] <= 0 || n[2] <= 0 || !velocityAvailable) return 0;
    const uint64_t cells = uint64_t(n[0]) * uint64_t(n[1]) * uint64_t(n[2]);
    float tStart = std::isfinite(s.tStart) ? s.tStart : 0.0f;
    float tEnd = std::isfinite(s.tEnd) ? s.tEnd : 0.0f;
    if (tEnd < tStart) std::swap(tStart, tEnd);
    // No cell travels further than the grid is long: that bounds every path's walk.
    maxTravel = static_cast<float>(std::max({n[0], n[1], n[2]}));

    // Pass 1: the splat of the paths.
    if (progress) progress->info(0, 0, "Calculating motion blur, pass %d", 1);
    std::unique_ptr<float[]> weight = allocScratch(cells, MB_SCRATCH_WEIGHT);
    std::unique_ptr<float[]> field = weight ? allocScratch(cells * 3, MB_SCRATCH_FIELD) : nullptr;
    if (!weight || !field) {
        lumoLog("BuildMotionBlur: not enough memory for %.0f cells\n", double(cells));
        return 0;
    }
    std::fill(weight.get(), weight.get() + cells, 0.0f);
    std::fill(field.get(), field.get() + cells * 3, 0.0f);

    MTSplatVelPaths splat;
    splat.shader = &shader;
    splat.motion = this;
    splat.field = field.get();
    splat.weight = weight.get();
    std::memcpy(splat.n, n, sizeof n);
    splat.tStart = tStart;
    splat.tEnd = tEnd;
    // The slab depth comes from the farthest any path reaches along z: it depends on the data
    // alone, never on the threads.
    {
        const float limit = speedLimit(*this, tStart, tEnd);
        const float reachTime = std::max(std::fabs(tStart), std::fabs(tEnd));
        std::vector<float> reach(static_cast<size_t>(n[2]), 0.0f);
        MTFunction scan(nullptr, s.threads);
        scan.forRange(static_cast<uint64_t>(n[2]), [&](uint64_t first, uint64_t last, Job&) {
            for (uint64_t z = first; z < last; ++z) {
                float most = 0.0f;
                for (int y = 0; y < n[1]; ++y)
                    for (int x = 0; x < n[0]; ++x) {
                        const float cell[3] = {static_cast<float>(x), static_cast<float>(y),
                                               static_cast<float>(z)};
                        float v[3];
                        shader.EvalVelocity(v, cell);
                        sanitise(v, motionScale, limit);
                        most = std::max(most, std::fabs(v[2]));
                    }
                reach[z] = most;
            }
        });
        float most = 0.0f;
        for (float r : reach) most = std::max(most, r);
        const int r = static_cast<int>(std::ceil(most * reachTime)) + 1;
        // Two slabs of one parity lie a slab apart: their paths (r each way, and the trilinear
        // neighbour) never meet when a slab is deeper than 2r + 2.
        splat.slabDepth = std::max(2 * r + 3, 4);
        splat.slabCount = (n[2] + splat.slabDepth - 1) / splat.slabDepth;
    }
    splat.init(s.threads);
    for (uint32_t parity = 0; parity < 2; ++parity) {
        const int slabs = (splat.slabCount + 1 - static_cast<int>(parity)) / 2;
        if (slabs <= 0) continue;
        splat.setSpan(static_cast<uint64_t>(slabs));
        splat.runJobs(parity, progress);
        if (splat.cancelled.load() || splat.isAborted()) return 1;
    }

    // Normalise: the mean motion of the paths through each cell.
    MTFunction engine(nullptr, s.threads);
    engine.forRange(cells, [&](uint64_t first, uint64_t last, Job&) {
        for (uint64_t i = first; i < last; ++i) {
            float* v = field.get() + 3 * i;
            const float w = weight[i];
            if (w <= 0.001f) {
                v[0] = v[1] = v[2] = 0.0f;
            } else {
                for (int k = 0; k < 3; ++k) v[k] /= w;
            }
        }
    });
    weight.reset();

    // Passes 2 to 4: the blur along x, y and z. A radius of 0 or less blurs nothing (its
    // one-entry kernel would divide by a sum of 0).
    const int radius = std::min(s.mbSmooth, std::max({n[0], n[1], n[2]}));
    const std::vector<float> kernel = motionBlurKernel(radius);
    if (!kernel.empty()) {
        MTGaussBlurVelAxis blur;
        blur.field = field.get();
        std::memcpy(blur.n, n, sizeof n);
        blur.kernel = kernel.data();
        blur.radius = static_cast<int>(kernel.size() / 2);
        blur.init(s.threads);
        for (int axis = 0; axis < 3; ++axis) {
            if (progress) progress->info(0, 0, "Calculating motion blur, pass %d", axis + 2);
            blur.axis = axis;
            blur.setSpan(static_cast<uint64_t>(n[(axis + 2) % 3]));
            blur.runJobs(static_cast<uint32_t>(axis), progress);
            if (blur.cancelled.load() || blur.isAborted()) return 1;
            if (blur.failed.load()) {
                lumoLog("BuildMotionBlur: not enough memory for the blur\n");
                return 0;
            }
        }
    }
    mField = std::move(field);
    std::memcpy(mSize, n, sizeof n);
    return 0;
}

void MotionBlur::ApplyMotion(const VolumeShader& shader, float position[3], float tau) const {
    if (!(tau >= 1e-6f) || !velocityAvailable) return;
    const float before[3] = {position[0], position[1], position[2]};
    float d[3];
    if (mField && !perSampleRead) {
        // The field holds where what shows here came from, per unit of time.
        readField(mField.get(), mSize, position, d);
        for (int a = 0; a < 3; ++a) d[a] *= tau;
    } else {
        const float t = (tau - 0.5f) * shutterScale + 0.5f;
        float v[3];
        velocityAt(shader, position, v);
        const float travel = std::max(maxTravel, 1.0f);
        sanitise(v, 1.0f, travel / std::max(std::fabs(t), 1e-3f));
        for (int a = 0; a < 3; ++a) d[a] = -v[a] * t;
        if (secondVelocityRead && v[0] * v[0] + v[1] * v[1] + v[2] * v[2] > 0.25f) {
            // A fast flow bends within the step: the step takes the mean of the velocity here
            // and where the first read leads.
            const float ahead[3] = {position[0] + d[0], position[1] + d[1], position[2] + d[2]};
            float v2[3];
            velocityAt(shader, ahead, v2);
            sanitise(v2, playSpeed, travel / std::max(std::fabs(t), 1e-3f));
            for (int a = 0; a < 3; ++a) d[a] = -0.5f * (v[a] + v2[a]) * t;
        }
    }
    for (int a = 0; a < 3; ++a) position[a] += d[a];
    if (gizmo) gizmo->testMotion(before, position, tau);
}

bool attachVelocity(VolumeShader& shader, VaporixFrameData& frame) {
    const float* v[3];
    for (int a = 0; a < 3; ++a) v[a] = frame.GetChannelData(CH_VELOCITY_X + a);
    const bool all = v[0] && v[1] && v[2];
    for (int a = 0; a < 3; ++a) shader.velocityChannel[a] = all ? v[a] : nullptr;
    shader.motionBlur.velocityAvailable = all;
    return all;
}

}  // namespace vaporix
