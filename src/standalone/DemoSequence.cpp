// The built-in fire-and-smoke sample: flow, transport, burning, and the frames written from it.
#include "standalone/DemoSequence.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <new>

#include "cache/SGCompressor.h"
#include "cache/VaporixFrameData.h"
#include "foundation/FramePattern.h"
#include "foundation/MTJobs.h"
#include "foundation/ProgressCallback.h"

namespace vaporix {
namespace {

constexpr double TWO_PI = 6.283185307179586;

// Shape of the flow, relative to the grid's height H (z cells) and width D (the smaller of
// the x and y cell counts), so that a small test grid behaves like the full-size sample.
constexpr float PLUME_SPEED = 2.4f;      // upward speed on the axis, in H per second
constexpr float PLUME_RADIUS = 0.2f;     // Gaussian radius of the upward core at the base, in D
constexpr float PLUME_SPREAD = 2.0f;     // growth of that radius from bottom to top
constexpr float PLUME_SLOWDOWN = 0.8f;   // loss of axis speed from bottom to top
constexpr float PLUME_BASE_FLOW = 0.3f;  // share of the axis speed at the floor
constexpr float PLUME_RAMP = 0.12f;      // height over which the rest is reached, in H
constexpr float SWIRL_STRENGTH = 0.5f;   // typical swirl speed, in axis speeds
constexpr float SWIRL_RISE = 0.55f;      // speed at which the swirls rise, in axis speeds
constexpr int SWIRL_MODES = 16;
constexpr float SWIRL_SHORTEST = 0.10f;  // wavelengths of the swirls, in H
constexpr float SWIRL_LONGEST = 0.38f;
constexpr float SWIRL_CHANGE = 1.2f;  // turns per second of a swirl's phase, at most

// The burner: a disc of fuel with a pilot flame on the floor.
constexpr float BURNER_RADIUS = 0.15f;  // in D
constexpr float BURNER_HEIGHT = 0.05f;  // in H, starting one cell above the floor
constexpr float BURNER_FUEL = 1.0f;
constexpr float PILOT_TEMPERATURE = 1200.0f;

// Burning and cooling (rates per second, temperatures in Kelvin above a cold ambient of 0).
constexpr float IGNITION_TEMPERATURE = 500.0f;
constexpr float BURN_RATE = 9.0f;             // share of the fuel of a hot cell burnt per second
constexpr float HEAT_PER_FUEL = 6000.0f;      // temperature gained per unit of fuel burnt...
constexpr float FLAME_TEMPERATURE = 2600.0f;  // ...falling to nothing as this is approached
constexpr float SMOKE_PER_FUEL = 0.2f;        // a little smoke where fuel burns...
constexpr float SMOKE_PER_HEAT = 7e-4f;       // ...most where the hot gas cools: at the flame tips
constexpr float COOLING_BOTTOM = 1.5f;
constexpr float COOLING_TOP = 10.0f;
constexpr float SMOKE_FADE = 0.1f;
// Smoke thins out fast in the top of the grid, as if it left through an open sky rather than
// being cut off flat at the grid's ceiling.
constexpr float SMOKE_VENT = 25.0f;
constexpr float VENT_START = 0.8f;         // in H
constexpr float FUEL_FADE = 1.0f;          // unburnt fuel thins out where it is cold
constexpr float TEMPERATURE_FLOOR = 1.0f;  // Kelvin
constexpr float DENSITY_FLOOR = 1e-4f;     // smoke and fuel

/// splitmix64: a small generator of well mixed bits for the swirls' random choices.
struct Random {
    uint64_t state;
    uint64_t next() {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    /// Uniform in [0, 1).
    double uniform() { return double(next() >> 11) * (1.0 / 9007199254740992.0); }
    /// A uniformly distributed unit vector.
    void direction(double out[3]) {
        const double z = 2.0 * uniform() - 1.0, a = TWO_PI * uniform();
        const double r = std::sqrt(std::max(0.0, 1.0 - z * z));
        out[0] = r * std::cos(a);
        out[1] = r * std::sin(a);
        out[2] = z;
    }
};

/// One plane wave of the swirl potential: amplitude * sin(k . x + phase + omega * t).
struct SwirlMode {
    double k[3];
    float amplitude[3];
    double phase;
    double omega;  // includes the rise: -k_z * rise speed
};

float smoothstep(float edge0, float edge1, float x) {
    const float t = std::clamp((x - edge0) / (edge1 - edge0), 0.0f, 1.0f);
    return t * t * (3.0f - 2.0f * t);
}

/// Clamps, sending NaN to the low end.
float clampf(float v, float lo, float hi) { return v > lo ? (v < hi ? v : hi) : lo; }

}  // namespace

struct DemoSequence::State {
    int n[3] = {0, 0, 0};
    int64_t cells = 0;
    // Padded node lattice of the potentials: one node more on each side of every axis.
    int p[3] = {0, 0, 0};
    int64_t nodes = 0;
    float height = 0, width = 0, centre[2] = {0, 0};

    std::vector<float> temperature, smoke, fuel;  // the state
    std::vector<float> nextTemperature, nextSmoke, nextFuel;
    std::vector<float> velocity[3], nextVelocity[3], stepVelocity[3];
    std::vector<float> plumeVelocity[3];  // the plume's flow, fixed in time
    std::vector<float> potential[3];      // swirl potential at the nodes
    std::vector<float> envelope;          // swirl strength at the nodes
    std::vector<SwirlMode> modes;
    // Per mode, exp(i (k_x x + k_y y)) over one padded node layer.
    std::vector<float> layerRe, layerIm;
    // Per substep: the burner's disc (x, y) and its height profile (z).
    std::vector<float> burnerDisc, burnerHeight;
    std::vector<float> coolingKeep, smokeKeep;  // per z
    // Per slice: the fastest velocity component of the step, the box (x0, x1, y0, y1) of cells
    // holding anything, and the box of cells whose back-trace may reach something.
    std::vector<float> sliceSpeed;
    std::vector<int> sliceBox, sliceReach;

    MTFunction engine;

    explicit State(int threads) : engine(nullptr, threads) {}

    int64_t cell(int x, int y, int z) const { return x + int64_t(n[0]) * (y + int64_t(n[1]) * z); }
    int64_t node(int x, int y, int z) const {
        return (x + 1) + int64_t(p[0]) * ((y + 1) + int64_t(p[1]) * (z + 1));
    }

    /// Upward axis speed and core radius at height z (cells).
    float axisSpeed(float z) const {
        const float base =
            PLUME_BASE_FLOW + (1.0f - PLUME_BASE_FLOW) * smoothstep(0.0f, PLUME_RAMP * height, z);
        return PLUME_SPEED * height * base / (1.0f + PLUME_SLOWDOWN * z / height);
    }
    float coreRadius(float z) const {
        return PLUME_RADIUS * width * (1.0f + PLUME_SPREAD * z / height);
    }

    /// Runs body(z) for every z in [0, count) on the engine.
    template <typename F>
    void forSlices(int count, F&& body) {
        engine.forRange(static_cast<uint64_t>(count), [&](uint64_t first, uint64_t last, Job&) {
            for (uint64_t z = first; z < last; ++z) body(static_cast<int>(z));
        });
    }

    /// Curl of the potential `a` (nodes) by central differences into `out` (cells), plus
    /// `add` times `base` when given. The differences commute, so the discrete divergence of
    /// the result is zero.
    void curl(const std::vector<float>* a,
              float* const out[3],
              const std::vector<float>* base,
              float add) {
        const int64_t dx = 1, dy = p[0], dz = int64_t(p[0]) * p[1];
        forSlices(n[2], [&](int z) {
            for (int y = 0; y < n[1]; ++y) {
                int64_t c = cell(0, y, z), q = node(0, y, z);
                for (int x = 0; x < n[0]; ++x, ++c, ++q) {
                    const float* ax = a[0].data() + q;
                    const float* ay = a[1].data() + q;
                    const float* az = a[2].data() + q;
                    float v[3] = {0.5f * ((az[dy] - az[-dy]) - (ay[dz] - ay[-dz])),
                                  0.5f * ((ax[dz] - ax[-dz]) - (az[dx] - az[-dx])),
                                  0.5f * ((ay[dx] - ay[-dx]) - (ax[dy] - ax[-dy]))};
                    for (int k = 0; k < 3; ++k) out[k][c] = base ? v[k] + add * base[k][c] : v[k];
                }
            }
        });
    }
};

DemoSequence::DemoSequence(const DemoSettings& settings) : mSettings(settings) {
    // Settings checked before anything is allocated.
    int64_t cells = 1;
    for (int a = 0; a < 3; ++a) {
        if (settings.size[a] < DEMO_MIN_AXIS || settings.size[a] > DEMO_MAX_AXIS) {
            mError = "each axis of the sample grid takes " + std::to_string(DEMO_MIN_AXIS) +
                     " to " + std::to_string(DEMO_MAX_AXIS) + " cells";
            return;
        }
        cells *= settings.size[a];
    }
    if (cells > DEMO_MAX_CELLS) {
        mError = "the sample grid may have at most " + std::to_string(DEMO_MAX_CELLS) + " cells";
        return;
    }
    if (settings.frames < 1 || settings.warmupFrames < 0 ||
        settings.frames + settings.warmupFrames > DEMO_MAX_FRAMES) {
        mError = "the sample takes 1 or more frames, and at most " +
                 std::to_string(DEMO_MAX_FRAMES) + " with its warm-up";
        return;
    }
    if (settings.substeps < 1 || settings.substeps > 64) {
        mError = "the sample takes 1 to 64 steps a frame";
        return;
    }
    mFrame = 1 - settings.warmupFrames;

    try {
        auto s = std::make_unique<State>(settings.threads);
        for (int a = 0; a < 3; ++a) {
            s->n[a] = settings.size[a];
            s->p[a] = settings.size[a] + 2;
        }
        s->cells = cells;
        s->nodes = int64_t(s->p[0]) * s->p[1] * s->p[2];
        s->height = float(s->n[2]);
        s->width = float(std::min(s->n[0], s->n[1]));
        s->centre[0] = 0.5f * float(s->n[0] - 1);
        s->centre[1] = 0.5f * float(s->n[1] - 1);
        const size_t nc = static_cast<size_t>(cells), nn = static_cast<size_t>(s->nodes);
        for (auto* f : {&s->temperature, &s->smoke, &s->fuel, &s->nextTemperature, &s->nextSmoke,
                        &s->nextFuel})
            f->assign(nc, 0.0f);
        for (int a = 0; a < 3; ++a) {
            s->velocity[a].assign(nc, 0.0f);
            s->nextVelocity[a].assign(nc, 0.0f);
            s->stepVelocity[a].assign(nc, 0.0f);
            s->plumeVelocity[a].assign(nc, 0.0f);
            s->potential[a].assign(nn, 0.0f);
        }
        s->envelope.assign(nn, 0.0f);
        s->burnerDisc.assign(size_t(s->n[0]) * s->n[1], 0.0f);
        s->burnerHeight.assign(size_t(s->n[2]), 0.0f);
        s->coolingKeep.assign(size_t(s->n[2]), 1.0f);
        s->smokeKeep.assign(size_t(s->n[2]), 1.0f);
        s->sliceSpeed.assign(size_t(s->n[2]), 0.0f);
        s->sliceBox.assign(4 * size_t(s->n[2]), 0);
        s->sliceReach.assign(4 * size_t(s->n[2]), 0);
        s->layerRe.assign(size_t(SWIRL_MODES) * s->p[0] * s->p[1], 0.0f);
        s->layerIm.assign(s->layerRe.size(), 0.0f);
        mState = std::move(s);
    } catch (const std::bad_alloc&) {
        mError = "not enough memory for the sample grid";
        return;
    }
    State& s = *mState;

    // The plume: the potential f(r, z) * (-y, x, 0) with f = W(z) / 2 * (1 - e^-u) / u,
    // u = r^2 / R(z)^2, whose curl rises at W(z) e^-u and draws air in where W grows and
    // pushes it out where R grows.
    s.forSlices(s.p[2], [&](int k) {
        const float z = float(k - 1);
        const float w = s.axisSpeed(z), r2 = s.coreRadius(z) * s.coreRadius(z);
        for (int j = 0; j < s.p[1]; ++j) {
            for (int i = 0; i < s.p[0]; ++i) {
                const float x = float(i - 1) - s.centre[0], y = float(j - 1) - s.centre[1];
                const float u = (x * x + y * y) / r2;
                const float g = u < 1e-4f ? 1.0f - 0.5f * u : -std::expm1(-u) / u;
                const float f = 0.5f * w * g;
                const int64_t q = i + int64_t(s.p[0]) * (j + int64_t(s.p[1]) * k);
                s.potential[0][q] = -y * f;
                s.potential[1][q] = x * f;
                s.potential[2][q] = 0.0f;
                // Swirls are strongest in the plume and grow with height.
                const float rs = 1.4f * s.coreRadius(z);
                const float radial = 0.3f + 0.7f * std::exp(-(x * x + y * y) / (2.0f * rs * rs));
                const float rise = 0.45f + 0.55f * smoothstep(0.0f, 0.45f * s.height, z);
                s.envelope[q] = SWIRL_STRENGTH * PLUME_SPEED * s.height * radial * rise;
            }
        }
    });
    float* plume[3] = {s.plumeVelocity[0].data(), s.plumeVelocity[1].data(),
                       s.plumeVelocity[2].data()};
    s.curl(s.potential, plume, nullptr, 0.0f);

    // The swirls: plane waves of random direction and wavelength, velocity amplitudes growing
    // as the cube root of the wavelength (as in developed turbulence), normalised to an RMS of 1.
    Random random{0x5EED0F1AE5ull};
    s.modes.resize(SWIRL_MODES);
    double sum = 0;
    for (auto& m : s.modes) {
        double d[3], e[3];
        random.direction(d);
        random.direction(e);
        const double lambda =
            SWIRL_SHORTEST * s.height * std::pow(SWIRL_LONGEST / SWIRL_SHORTEST, random.uniform());
        const double kk = TWO_PI / lambda;
        // Amplitude across the wave, so each mode is a pure swirl of speed |k| |a|.
        const double ed = e[0] * d[0] + e[1] * d[1] + e[2] * d[2];
        double a[3] = {e[0] - ed * d[0], e[1] - ed * d[1], e[2] - ed * d[2]};
        const double al = std::max(1e-9, std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]));
        const double speed = std::cbrt(lambda);
        sum += 0.5 * speed * speed;
        for (int c = 0; c < 3; ++c) {
            m.k[c] = kk * d[c];
            m.amplitude[c] = float(a[c] / al * speed / kk);
        }
        m.phase = TWO_PI * random.uniform();
        m.omega = TWO_PI * SWIRL_CHANGE * (2.0 * random.uniform() - 1.0) -
                  m.k[2] * SWIRL_RISE * PLUME_SPEED * s.height;
    }
    const float norm = float(1.0 / std::sqrt(sum));
    for (auto& m : s.modes)
        for (float& a : m.amplitude) a *= norm;
    const size_t layer = size_t(s.p[0]) * s.p[1];
    for (int m = 0; m < SWIRL_MODES; ++m) {
        for (int j = 0; j < s.p[1]; ++j) {
            for (int i = 0; i < s.p[0]; ++i) {
                const double ph = s.modes[m].k[0] * (i - 1) + s.modes[m].k[1] * (j - 1);
                s.layerRe[m * layer + j * s.p[0] + i] = float(std::cos(ph));
                s.layerIm[m * layer + j * s.p[0] + i] = float(std::sin(ph));
            }
        }
    }
    float* first[3] = {s.velocity[0].data(), s.velocity[1].data(), s.velocity[2].data()};
    computeVelocity(simTime(), first);
}

DemoSequence::~DemoSequence() = default;

bool DemoSequence::isValid() const { return mState != nullptr; }

double DemoSequence::simTime() const { return mFrame / 30.0; }

float* DemoSequence::channel(int ordinal) {
    return const_cast<float*>(static_cast<const DemoSequence*>(this)->channel(ordinal));
}

const float* DemoSequence::channel(int ordinal) const {
    if (!mState) return nullptr;
    switch (ordinal) {
        case CH_TEMPERATURE:
            return mState->temperature.data();
        case CH_SMOKE:
            return mState->smoke.data();
        case CH_VELOCITY_X:
            return mState->velocity[0].data();
        case CH_VELOCITY_Y:
            return mState->velocity[1].data();
        case CH_VELOCITY_Z:
            return mState->velocity[2].data();
        case CH_FUEL:
            return mState->fuel.data();
        default:
            return nullptr;
    }
}

void DemoSequence::computeVelocity(double time, float* const out[3]) {
    State& s = *mState;
    // The swirl potential at every node: the sum of the modes, each a product of its layer
    // table and a per-height factor, times the envelope.
    std::vector<double> zRe(size_t(SWIRL_MODES) * s.p[2]), zIm(zRe.size());
    for (int m = 0; m < SWIRL_MODES; ++m) {
        for (int k = 0; k < s.p[2]; ++k) {
            const double ph =
                s.modes[m].k[2] * (k - 1) + s.modes[m].phase + s.modes[m].omega * time;
            zRe[size_t(m) * s.p[2] + k] = std::cos(ph);
            zIm[size_t(m) * s.p[2] + k] = std::sin(ph);
        }
    }
    const int64_t layer = int64_t(s.p[0]) * s.p[1];
    s.forSlices(s.p[2], [&](int k) {
        float* ax = s.potential[0].data() + k * layer;
        float* ay = s.potential[1].data() + k * layer;
        float* az = s.potential[2].data() + k * layer;
        std::fill(ax, ax + layer, 0.0f);
        std::fill(ay, ay + layer, 0.0f);
        std::fill(az, az + layer, 0.0f);
        for (int m = 0; m < SWIRL_MODES; ++m) {
            const float zr = float(zRe[size_t(m) * s.p[2] + k]);
            const float zi = float(zIm[size_t(m) * s.p[2] + k]);
            const float* re = s.layerRe.data() + m * layer;
            const float* im = s.layerIm.data() + m * layer;
            const float* a = s.modes[m].amplitude;
            for (int64_t q = 0; q < layer; ++q) {
                const float v = re[q] * zi + im[q] * zr;  // sin(k . x + phase)
                ax[q] += a[0] * v;
                ay[q] += a[1] * v;
                az[q] += a[2] * v;
            }
        }
        const float* e = s.envelope.data() + k * layer;
        for (int64_t q = 0; q < layer; ++q) {
            ax[q] *= e[q];
            ay[q] *= e[q];
            az[q] *= e[q];
        }
    });
    // The plume breathes a little.
    const double t = time;
    const float strength =
        float(1.0 + 0.08 * std::sin(TWO_PI * 2.3 * t) + 0.05 * std::sin(TWO_PI * 3.7 * t + 1.0));
    s.curl(s.potential, out, s.plumeVelocity, strength);
}

namespace {

/// Trilinear read of three velocity arrays, clamped to the grid.
inline void sampleVelocity(
    const float* const v[3], const int n[3], float x, float y, float z, float out[3]) {
    x = clampf(x, 0.0f, float(n[0] - 1));
    y = clampf(y, 0.0f, float(n[1] - 1));
    z = clampf(z, 0.0f, float(n[2] - 1));
    const int i = std::min(int(x), n[0] - 2), j = std::min(int(y), n[1] - 2),
              k = std::min(int(z), n[2] - 2);
    const float fx = x - float(i), fy = y - float(j), fz = z - float(k);
    const int64_t sy = n[0], sz = int64_t(n[0]) * n[1];
    const int64_t c = i + sy * j + sz * k;
    const float w[8] = {(1 - fx) * (1 - fy) * (1 - fz),
                        fx * (1 - fy) * (1 - fz),
                        (1 - fx) * fy * (1 - fz),
                        fx * fy * (1 - fz),
                        (1 - fx) * (1 - fy) * fz,
                        fx * (1 - fy) * fz,
                        (1 - fx) * fy * fz,
                        fx * fy * fz};
    const int64_t o[8] = {0, 1, sy, sy + 1, sz, sz + 1, sz + sy, sz + sy + 1};
    for (int a = 0; a < 3; ++a) {
        const float* p = v[a] + c;
        float sum = 0.0f;
        for (int q = 0; q < 8; ++q) sum += w[q] * p[o[q]];
        out[a] = sum;
    }
}

/// Trilinear read of three scalar arrays; outside the grid the fields are empty (zero).
inline void sampleFields(
    const float* const f[3], const int n[3], float x, float y, float z, float out[3]) {
    // Far outside reads nothing; the clamp also keeps the floor below in int range.
    x = clampf(x, -2.0f, float(n[0] + 1));
    y = clampf(y, -2.0f, float(n[1] + 1));
    z = clampf(z, -2.0f, float(n[2] + 1));
    const int i = int(std::floor(x)), j = int(std::floor(y)), k = int(std::floor(z));
    const float fx = x - float(i), fy = y - float(j), fz = z - float(k);
    const int64_t sy = n[0], sz = int64_t(n[0]) * n[1];
    const float wx[2] = {1 - fx, fx}, wy[2] = {1 - fy, fy}, wz[2] = {1 - fz, fz};
    out[0] = out[1] = out[2] = 0.0f;
    if (i >= 0 && j >= 0 && k >= 0 && i + 1 < n[0] && j + 1 < n[1] && k + 1 < n[2]) {
        const int64_t c = i + sy * j + sz * k;
        const int64_t o[8] = {0, 1, sy, sy + 1, sz, sz + 1, sz + sy, sz + sy + 1};
        const float w[8] = {wx[0] * wy[0] * wz[0], wx[1] * wy[0] * wz[0], wx[0] * wy[1] * wz[0],
                            wx[1] * wy[1] * wz[0], wx[0] * wy[0] * wz[1], wx[1] * wy[0] * wz[1],
                            wx[0] * wy[1] * wz[1], wx[1] * wy[1] * wz[1]};
        for (int a = 0; a < 3; ++a) {
            const float* p = f[a] + c;
            float sum = 0.0f;
            for (int q = 0; q < 8; ++q) sum += w[q] * p[o[q]];
            out[a] = sum;
        }
        return;
    }
    for (int dz = 0; dz < 2; ++dz) {
        if (k + dz < 0 || k + dz >= n[2]) continue;
        for (int dy = 0; dy < 2; ++dy) {
            if (j + dy < 0 || j + dy >= n[1]) continue;
            for (int dx = 0; dx < 2; ++dx) {
                if (i + dx < 0 || i + dx >= n[0]) continue;
                const int64_t c = (i + dx) + sy * (j + dy) + sz * (k + dz);
                const float w = wx[dx] * wy[dy] * wz[dz];
                for (int a = 0; a < 3; ++a) out[a] += w * f[a][c];
            }
        }
    }
}

}  // namespace

void DemoSequence::substep(double time, float dt, float blend) {
    State& s = *mState;
    const int* n = s.n;

    // The flow of this step, between the velocities at the two ends of the frame; per slice its
    // fastest component and the box of cells that hold anything.
    s.forSlices(n[2], [&](int z) {
        const int64_t layer = int64_t(n[0]) * n[1], at = z * layer;
        float fastest = 0.0f;
        for (int a = 0; a < 3; ++a) {
            const float* v0 = s.velocity[a].data() + at;
            const float* v1 = s.nextVelocity[a].data() + at;
            float* out = s.stepVelocity[a].data() + at;
            for (int64_t q = 0; q < layer; ++q) {
                out[q] = (1.0f - blend) * v0[q] + blend * v1[q];
                fastest = std::max(fastest, std::fabs(out[q]));
            }
        }
        s.sliceSpeed[z] = std::isfinite(fastest) ? fastest : INFINITY;
        int box[4] = {n[0], -1, n[1], -1};
        const float* t = s.temperature.data() + at;
        const float* m = s.smoke.data() + at;
        const float* f = s.fuel.data() + at;
        for (int y = 0; y < n[1]; ++y) {
            for (int x = 0; x < n[0]; ++x) {
                const int64_t q = x + int64_t(n[0]) * y;
                if (t[q] != 0.0f || m[q] != 0.0f || f[q] != 0.0f) {
                    box[0] = std::min(box[0], x);
                    box[1] = std::max(box[1], x);
                    box[2] = std::min(box[2], y);
                    box[3] = std::max(box[3], y);
                }
            }
        }
        std::copy(box, box + 4, &s.sliceBox[4 * size_t(z)]);
    });

    // Where a cell's back-trace can reach anything: a trace moves at most `reach` cells, and
    // its trilinear read takes one cell more. Elsewhere transport gives exactly zero, so those
    // cells skip it (the result is the same).
    float fastest = 0.0f;
    for (int z = 0; z < n[2]; ++z) fastest = std::max(fastest, s.sliceSpeed[z]);
    const float travel = dt * fastest * 1.01f;
    const int reach = travel < float(DEMO_MAX_AXIS) ? int(std::ceil(travel)) + 2 : DEMO_MAX_AXIS;
    for (int z = 0; z < n[2]; ++z) {
        int box[4] = {n[0], -1, n[1], -1};
        for (int k = std::max(0, z - reach); k <= std::min(n[2] - 1, z + reach); ++k) {
            const int* b = &s.sliceBox[4 * size_t(k)];
            if (b[0] > b[1]) continue;
            box[0] = std::min(box[0], b[0] - reach);
            box[1] = std::max(box[1], b[1] + reach);
            box[2] = std::min(box[2], b[2] - reach);
            box[3] = std::max(box[3], b[3] + reach);
        }
        std::copy(box, box + 4, &s.sliceReach[4 * size_t(z)]);
    }

    // The burner of this moment: a disc whose rim flickers, a few cells high.
    if (mSettings.burner) {
        const float rb = BURNER_RADIUS * s.width;
        const float t = float(time);
        // The whole fire puffs a few times a second, sending up separate billows of smoke.
        const float puff = 0.9f + 0.1f * std::sin(float(TWO_PI) * 2.7f * t);
        for (int y = 0; y < n[1]; ++y) {
            for (int x = 0; x < n[0]; ++x) {
                const float dx = float(x) - s.centre[0], dy = float(y) - s.centre[1];
                const float r = std::sqrt(dx * dx + dy * dy);
                const float angle = std::atan2(dy, dx);
                const float rim = rb * (1.0f + 0.15f * std::sin(3.0f * angle + 9.0f * t) +
                                        0.10f * std::sin(5.0f * angle - 13.0f * t + 1.0f));
                // Fuel comes in patches that drift and pulse, so the flames break into tongues.
                const float level = puff * (0.68f +
                                            0.2f * std::sin(0.5f * dx + 11.0f * t) *
                                                std::sin(0.45f * dy - 8.0f * t + 2.0f) +
                                            0.12f * std::sin(0.33f * (dx + dy) + 15.0f * t));
                s.burnerDisc[size_t(y) * n[0] + x] = level * smoothstep(rim + 1.5f, rim - 1.5f, r);
            }
        }
        const float top = 1.0f + BURNER_HEIGHT * s.height;
        for (int z = 0; z < n[2]; ++z)
            s.burnerHeight[z] =
                smoothstep(0.0f, 1.0f, float(z)) * smoothstep(top + 1.0f, top, float(z));
    }
    for (int z = 0; z < n[2]; ++z) {
        const float rate = COOLING_BOTTOM + (COOLING_TOP - COOLING_BOTTOM) * float(z) / s.height;
        s.coolingKeep[z] = std::exp(-rate * dt);
        const float vent = smoothstep(VENT_START * s.height, s.height, float(z));
        s.smokeKeep[z] = std::exp(-(SMOKE_FADE + SMOKE_VENT * vent * vent) * dt);
    }
    const float burnShare = -std::expm1(-BURN_RATE * dt);
    const float fuelKeep = std::exp(-FUEL_FADE * dt);

    // Transport (semi-Lagrangian, midpoint back-trace), then burning and cooling in place.
    const float* vel[3] = {s.stepVelocity[0].data(), s.stepVelocity[1].data(),
                           s.stepVelocity[2].data()};
    const float* fields[3] = {s.temperature.data(), s.smoke.data(), s.fuel.data()};
    const bool burner = mSettings.burner;
    s.forSlices(n[2], [&](int z) {
        const float bz = burner ? s.burnerHeight[z] : 0.0f;
        const float cool = s.coolingKeep[z];
        const float smokeKeep = s.smokeKeep[z];
        const int* r = &s.sliceReach[4 * size_t(z)];
        for (int y = 0; y < n[1]; ++y) {
            int64_t c = s.cell(0, y, z);
            const bool row = r[0] <= r[1] && y >= r[2] && y <= r[3];
            if (!row && bz <= 0.0f) {
                std::fill_n(s.nextTemperature.data() + c, n[0], 0.0f);
                std::fill_n(s.nextSmoke.data() + c, n[0], 0.0f);
                std::fill_n(s.nextFuel.data() + c, n[0], 0.0f);
                continue;
            }
            for (int x = 0; x < n[0]; ++x, ++c) {
                float f[3] = {0.0f, 0.0f, 0.0f};
                if (row && x >= r[0] && x <= r[1]) {
                    const float v0[3] = {vel[0][c], vel[1][c], vel[2][c]};
                    float vm[3];
                    sampleVelocity(vel, n, float(x) - 0.5f * dt * v0[0],
                                   float(y) - 0.5f * dt * v0[1], float(z) - 0.5f * dt * v0[2], vm);
                    sampleFields(fields, n, float(x) - dt * vm[0], float(y) - dt * vm[1],
                                 float(z) - dt * vm[2], f);
                }
                float temperature = f[0], smoke = f[1], fuel = f[2];
                if (bz > 0.0f) {
                    const float b = bz * s.burnerDisc[size_t(y) * n[0] + x];
                    fuel = std::max(fuel, BURNER_FUEL * b);
                    temperature = std::max(temperature, PILOT_TEMPERATURE * b);
                }
                if (temperature > IGNITION_TEMPERATURE && fuel > 0.0f) {
                    const float burnt = fuel * burnShare;
                    fuel -= burnt;
                    temperature += HEAT_PER_FUEL * burnt *
                                   std::max(0.0f, 1.0f - temperature / FLAME_TEMPERATURE);
                    smoke += SMOKE_PER_FUEL * burnt;
                } else {
                    fuel *= fuelKeep;
                }
                smoke = (smoke + SMOKE_PER_HEAT * temperature * (1.0f - cool)) * smokeKeep;
                temperature *= cool;
                // Traces far below anything visible are cleared: the fields stay sparse, which
                // keeps transport cheap and the files small.
                s.nextTemperature[c] = temperature >= TEMPERATURE_FLOOR ? temperature : 0.0f;
                s.nextSmoke[c] = smoke >= DENSITY_FLOOR ? smoke : 0.0f;
                s.nextFuel[c] = fuel >= DENSITY_FLOOR ? fuel : 0.0f;
            }
        }
    });
    s.temperature.swap(s.nextTemperature);
    s.smoke.swap(s.nextSmoke);
    s.fuel.swap(s.nextFuel);
}

bool DemoSequence::advance() {
    if (!mState) return false;
    State& s = *mState;
    const double t0 = simTime(), t1 = (mFrame + 1) / 30.0;
    float* next[3] = {s.nextVelocity[0].data(), s.nextVelocity[1].data(), s.nextVelocity[2].data()};
    computeVelocity(t1, next);
    const int steps = mSettings.substeps;
    const float dt = float((t1 - t0) / steps);
    for (int k = 0; k < steps; ++k) {
        const float blend = (float(k) + 0.5f) / float(steps);
        substep(t0 + (t1 - t0) * blend, dt, blend);
    }
    for (int a = 0; a < 3; ++a) s.velocity[a].swap(s.nextVelocity[a]);
    ++mFrame;
    return true;
}

bool DemoSequence::start() {
    if (!mState) return false;
    while (mFrame < 1)
        if (!advance()) return false;
    return true;
}

void DemoSequence::gridTransformFor(const int size[3], float out[12]) {
    const float m[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0.5f * float(size[0]), 0.5f * float(size[1]),
                         0};
    std::copy(m, m + 12, out);
}

bool DemoSequence::fillFrame(VaporixFrameData& frame) const {
    if (!mState) return false;
    const State& s = *mState;
    for (int a = 0; a < 3; ++a) frame.gridSize[a] = s.n[a];
    gridTransformFor(s.n, frame.gridTransform.m);
    frame.frameNumber = mFrame;
    frame.timeStep = DEFAULT_TIME_STEP;
    frame.setSimTime(simTime());
    frame.comment = "vaporix demo: procedural fire and smoke";

    // The six channels are encoded side by side, each by its own compressor.
    constexpr int COUNT = int(std::size(DEMO_CHANNELS));
    std::unique_ptr<SGCompressor<3>> codecs[COUNT];
    int64_t sizes[COUNT] = {};
    try {
        for (auto& c : codecs) c = std::make_unique<SGCompressor<3>>();
    } catch (const std::bad_alloc&) {
        return false;
    }
    parallelFor(
        COUNT,
        [&](uint64_t first, uint64_t last, Job&) {
            for (uint64_t k = first; k < last; ++k)
                sizes[k] = codecs[k]->encodeZoned(channel(DEMO_CHANNELS[k]), s.n,
                                                  mSettings.quantBits, 0.0f, mSettings.passes, 1);
        },
        mSettings.threads);
    uint32_t mask = 0;
    for (int k = 0; k < COUNT; ++k) {
        if (sizes[k] <= 0 ||
            !frame.appendStreamBlock(DEMO_CHANNELS[k], codecs[k]->output.data,
                                     static_cast<uint64_t>(codecs[k]->output.count)))
            return false;
        mask |= 1u << DEMO_CHANNELS[k];
    }
    frame.channelMask = mask;
    return true;
}

bool DemoSequence::writeSequence(const DemoSettings& settings,
                                 const std::string& folder,
                                 std::vector<std::string>& paths,
                                 std::string& error,
                                 ProgressCallback* progress) {
    paths.clear();
    DemoSequence demo(settings);
    if (!demo.isValid()) {
        error = demo.error();
        return false;
    }
    std::string dir = folder.empty() ? std::string(".") : folder;
    if (dir.back() != '/') dir += '/';
    if (!createDirectories(dir)) {
        error = "can't make the folder " + folder;
        return false;
    }
    const std::string pattern = dir + DEMO_FILE_PATTERN;
    if (!demo.start()) {
        error = demo.error();
        return false;
    }
    for (int f = 1; f <= settings.frames; ++f) {
        if (progress && progress->checkAbort()) {
            error = "stopped";
            return false;
        }
        if (f > 1) demo.advance();
        VaporixFrameData frame;
        if (!demo.fillFrame(frame)) {
            error = "can't encode frame " + std::to_string(f) + " (out of memory)";
            return false;
        }
        const std::string path = expandFramePattern(pattern, f);
        if (frame.SaveFrame(pattern.c_str(), frame.channelMask) != LOAD_OK) {
            error = "can't write " + path;
            return false;
        }
        paths.push_back(path);
        if (progress) progress->setProgress(uint64_t(f));
    }
    return true;
}

}  // namespace vaporix
