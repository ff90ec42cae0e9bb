// Procedural 3D textures: hashed gradient noise with its fractal sums, cellular distance, a
// constant; and the reader of their text descriptions.
#include "render/Texture.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace vaporix {

Texture::~Texture() = default;

namespace {

const char* const SLOT_NAMES[TEXTURE_SLOTS] = {"etxt",   "dtxt",   "ttxt",   "stex",
                                               "displ0", "displ1", "displ2", nullptr};

/// The lattice repeats every 256 cells: coordinates are reduced to 0..256 first, which keeps
/// the integer parts small for any finite input.
constexpr float PERIOD = 256.0f;
constexpr int PERIOD_MASK = 255;

/// A well mixed 32-bit hash of a lattice cell and a seed.
inline uint32_t hashCell(int x, int y, int z, uint32_t seed) {
    uint32_t h = seed * 0x9E3779B9u;
    h ^= static_cast<uint32_t>(x & PERIOD_MASK) * 0x85EBCA6Bu;
    h = (h ^ (h >> 13)) * 0xC2B2AE35u;
    h ^= static_cast<uint32_t>(y & PERIOD_MASK) * 0x27D4EB2Fu;
    h = (h ^ (h >> 15)) * 0x165667B1u;
    h ^= static_cast<uint32_t>(z & PERIOD_MASK) * 0x9E3779B1u;
    h = (h ^ (h >> 16)) * 0x85EBCA77u;
    return h ^ (h >> 13);
}

/// x reduced into [0, PERIOD); false for a value that is not finite.
inline bool reduce(float x, float& out) {
    if (!std::isfinite(x)) return false;
    float r = std::fmod(x, PERIOD);
    if (r < 0.0f) r += PERIOD;
    if (r >= PERIOD) r = 0.0f;  // -tiny + 256 rounds up to 256
    out = r;
    return true;
}

/// Quintic fade: first and second derivatives vanish at the lattice.
inline float fade(float t) { return t * t * t * (t * (t * 6.0f - 15.0f) + 10.0f); }
inline float lerp(float a, float b, float t) { return a + (b - a) * t; }

/// Dot product with one of the twelve cube-edge directions picked by the hash (four repeated
/// to make sixteen, as in Perlin's improved noise).
inline float grad(uint32_t h, float x, float y, float z) {
    const uint32_t k = h & 15u;
    const float u = k < 8 ? x : y;
    const float v = k < 4 ? y : (k == 12 || k == 14 ? x : z);
    return ((k & 1u) ? -u : u) + ((k & 2u) ? -v : v);
}

enum class Kind { Noise, Turbulence, Cellular };

class ProceduralTexture final : public Texture {
public:
    ProceduralTexture(Kind kind, const ProceduralSettings& s) : mKind(kind), mS(s) {}
    void evaluate(float out[3], const float p[3], float time) const override {
        float q[3];
        for (int a = 0; a < 3; ++a) q[a] = (p[a] + mS.drift[a] * time) * mS.scale[a] + mS.offset[a];
        float v = 0.0f;
        switch (mKind) {
            case Kind::Noise:
                v = 0.5f + 0.5f * fbmNoise(q, mS.octaves, mS.lacunarity, mS.gain, mS.seed);
                break;
            case Kind::Turbulence:
                v = turbulenceNoise(q, mS.octaves, mS.lacunarity, mS.gain, mS.seed);
                break;
            case Kind::Cellular:
                v = cellularNoise(q, mS.jitter, mS.seed);
                break;
        }
        for (int c = 0; c < 3; ++c) out[c] = mS.low[c] + (mS.high[c] - mS.low[c]) * v;
    }

private:
    Kind mKind;
    ProceduralSettings mS;
};

class ConstantTexture final : public Texture {
public:
    explicit ConstantTexture(const float v[3]) { std::memcpy(mValue, v, sizeof mValue); }
    void evaluate(float out[3], const float*, float) const override {
        std::memcpy(out, mValue, sizeof mValue);
    }

private:
    float mValue[3];
};

}  // namespace

const char* textureSlotName(int slot) {
    return slot >= 0 && slot < TEXTURE_SLOTS ? SLOT_NAMES[slot] : nullptr;
}

int textureSlotOf(const std::string& name) {
    for (int k = 0; k < TEXTURE_SLOTS; ++k)
        if (SLOT_NAMES[k] && name == SLOT_NAMES[k]) return k;
    return -1;
}

float gradientNoise(const float p[3], uint32_t seed) {
    float r[3];
    for (int a = 0; a < 3; ++a)
        if (!reduce(p[a], r[a])) return 0.0f;
    const int ix = static_cast<int>(std::floor(r[0]));
    const int iy = static_cast<int>(std::floor(r[1]));
    const int iz = static_cast<int>(std::floor(r[2]));
    const float x = r[0] - static_cast<float>(ix);
    const float y = r[1] - static_cast<float>(iy);
    const float z = r[2] - static_cast<float>(iz);
    const float u = fade(x), v = fade(y), w = fade(z);
    float c[8];
    for (int k = 0; k < 8; ++k) {
        const int dx = k & 1, dy = (k >> 1) & 1, dz = (k >> 2) & 1;
        c[k] = grad(hashCell(ix + dx, iy + dy, iz + dz, seed), x - static_cast<float>(dx),
                    y - static_cast<float>(dy), z - static_cast<float>(dz));
    }
    const float n = lerp(lerp(lerp(c[0], c[1], u), lerp(c[2], c[3], u), v),
                         lerp(lerp(c[4], c[5], u), lerp(c[6], c[7], u), v), w);
    return n < -1.0f ? -1.0f : (n > 1.0f ? 1.0f : n);
}

namespace {

template <bool ABS>
float fractalSum(const float p[3], int octaves, float lacunarity, float gain, uint32_t seed) {
    if (octaves < 1) octaves = 1;
    float q[3] = {p[0], p[1], p[2]};
    float sum = 0.0f, weight = 1.0f, total = 0.0f;
    for (int o = 0; o < octaves; ++o) {
        // Each octave has a seed of its own, so that the lattices of octaves never line up.
        const float n = gradientNoise(q, seed + static_cast<uint32_t>(o) * 0x68E31DA4u);
        sum += weight * (ABS ? std::fabs(n) : n);
        total += weight;
        weight *= gain;
        for (float& c : q) c *= lacunarity;
    }
    return total > 0.0f ? sum / total : 0.0f;
}

}  // namespace

float fbmNoise(const float p[3], int octaves, float lacunarity, float gain, uint32_t seed) {
    return fractalSum<false>(p, octaves, lacunarity, gain, seed);
}

float turbulenceNoise(const float p[3], int octaves, float lacunarity, float gain, uint32_t seed) {
    return fractalSum<true>(p, octaves, lacunarity, gain, seed);
}

float cellularNoise(const float p[3], float jitter, uint32_t seed) {
    float r[3];
    for (int a = 0; a < 3; ++a)
        if (!reduce(p[a], r[a])) return 1.0f;
    int ic[3];
    for (int a = 0; a < 3; ++a) ic[a] = static_cast<int>(std::floor(r[a]));
    float best = 1e30f;
    for (int dz = -1; dz <= 1; ++dz)
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const int cx = ic[0] + dx, cy = ic[1] + dy, cz = ic[2] + dz;
                uint32_t h = hashCell(cx, cy, cz, seed ^ 0x5BD1E995u);
                float d2 = 0.0f;
                const int c[3] = {cx, cy, cz};
                for (int a = 0; a < 3; ++a) {
                    // Three bytes of the hash place the point inside its cell.
                    const float u = static_cast<float>(h & 0xffu) / 255.0f;
                    h = (h >> 8) | (h << 24);
                    const float f = static_cast<float>(c[a]) + 0.5f + jitter * (u - 0.5f);
                    d2 += (f - r[a]) * (f - r[a]);
                }
                if (d2 < best) best = d2;
            }
    const float d = std::sqrt(best);
    return d > 1.0f ? 1.0f : d;
}

// ---------------------------------------------------------------------------------------------
// Text descriptions
// ---------------------------------------------------------------------------------------------

namespace {

std::string trim(const std::string& s) {
    size_t a = 0, b = s.size();
    while (a < b && (s[a] == ' ' || s[a] == '\t')) ++a;
    while (b > a && (s[b - 1] == ' ' || s[b - 1] == '\t')) --b;
    return s.substr(a, b - a);
}

bool parseNumber(const std::string& text, double& out) {
    const std::string t = trim(text);
    if (t.empty() || t.size() > 64) return false;
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(t.c_str(), &end);
    if (end != t.c_str() + t.size() || errno == ERANGE || !std::isfinite(v)) return false;
    out = v;
    return true;
}

struct KeyValues {
    std::string key;
    std::vector<std::string> values;
};

/// One or three finite numbers into `out` (one fills all three).
bool readTriple(const KeyValues& kv, float out[3], std::string& error) {
    double v[3];
    if (kv.values.size() != 1 && kv.values.size() != 3) {
        error = kv.key + " takes one number or three (X,Y,Z)";
        return false;
    }
    for (size_t k = 0; k < kv.values.size(); ++k)
        if (!parseNumber(kv.values[k], v[k]) || std::fabs(v[k]) > 3.0e38) {
            error = kv.key + " takes numbers, not '" + kv.values[k] + "'";
            return false;
        }
    for (int a = 0; a < 3; ++a) out[a] = static_cast<float>(kv.values.size() == 1 ? v[0] : v[a]);
    return true;
}

bool readOne(const KeyValues& kv, double lo, double hi, double& out, std::string& error) {
    if (kv.values.size() != 1 || !parseNumber(kv.values[0], out) || out < lo || out > hi) {
        char range[96];
        std::snprintf(range, sizeof range, "%g to %g", lo, hi);
        error = kv.key + " takes one number from " + range;
        return false;
    }
    return true;
}

bool readWhole(const KeyValues& kv, double lo, double hi, double& out, std::string& error) {
    if (!readOne(kv, lo, hi, out, error) || out != std::floor(out)) {
        char range[96];
        std::snprintf(range, sizeof range, "%.0f to %.0f", lo, hi);
        error = kv.key + " takes a whole number from " + range;
        return false;
    }
    return true;
}

}  // namespace

std::shared_ptr<const Texture> parseTextureSpec(const std::string& text, std::string& error) {
    const size_t colon = text.find(':');
    const std::string kind = trim(text.substr(0, colon));
    const std::string rest = colon == std::string::npos ? std::string() : text.substr(colon + 1);
    if (kind.empty()) {
        error = "a texture description starts with its kind (noise, turbulence, cellular, "
                "constant)";
        return nullptr;
    }

    // KEY=VALUE items; a piece without '=' continues the value list of the item before it.
    std::vector<KeyValues> items;
    if (!trim(rest).empty()) {
        size_t start = 0;
        for (;;) {
            const size_t comma = rest.find(',', start);
            const std::string piece =
                rest.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
            const size_t eq = piece.find('=');
            if (eq != std::string::npos) {
                KeyValues kv;
                kv.key = trim(piece.substr(0, eq));
                kv.values.push_back(piece.substr(eq + 1));
                if (kv.key.empty()) {
                    error = "'" + trim(piece) + "' has no key before '='";
                    return nullptr;
                }
                for (const KeyValues& other : items)
                    if (other.key == kv.key) {
                        error = kv.key + " is given twice";
                        return nullptr;
                    }
                items.push_back(kv);
            } else if (!items.empty()) {
                items.back().values.push_back(piece);
            } else {
                error = "expected KEY=VALUE after '" + kind + ":', not '" + trim(piece) + "'";
                return nullptr;
            }
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
    }

    if (kind == "constant") {
        float value[3] = {1.0f, 1.0f, 1.0f};
        for (const KeyValues& kv : items) {
            if (kv.key != "value") {
                error = "constant: unknown key '" + kv.key + "' (value)";
                return nullptr;
            }
            if (!readTriple(kv, value, error)) {
                error = "constant: " + error;
                return nullptr;
            }
        }
        return std::make_shared<ConstantTexture>(value);
    }

    Kind k;
    if (kind == "noise")
        k = Kind::Noise;
    else if (kind == "turbulence")
        k = Kind::Turbulence;
    else if (kind == "cellular")
        k = Kind::Cellular;
    else {
        error = "unknown texture kind '" + kind + "' (noise, turbulence, cellular, constant)";
        return nullptr;
    }
    const bool fractal = k != Kind::Cellular;
    ProceduralSettings s;
    for (const KeyValues& kv : items) {
        bool ok = true;
        double v = 0.0;
        if (kv.key == "scale")
            ok = readTriple(kv, s.scale, error);
        else if (kv.key == "offset")
            ok = readTriple(kv, s.offset, error);
        else if (kv.key == "drift")
            ok = readTriple(kv, s.drift, error);
        else if (kv.key == "low")
            ok = readTriple(kv, s.low, error);
        else if (kv.key == "high")
            ok = readTriple(kv, s.high, error);
        else if (kv.key == "seed" && (ok = readWhole(kv, 0, 4294967295.0, v, error)))
            s.seed = static_cast<uint32_t>(v);
        else if (fractal && kv.key == "octaves" && (ok = readWhole(kv, 1, 16, v, error)))
            s.octaves = static_cast<int>(v);
        else if (fractal && kv.key == "lacunarity" && (ok = readOne(kv, 0.01, 64, v, error)))
            s.lacunarity = static_cast<float>(v);
        else if (fractal && kv.key == "gain" && (ok = readOne(kv, 0, 8, v, error)))
            s.gain = static_cast<float>(v);
        else if (!fractal && kv.key == "jitter" && (ok = readOne(kv, 0, 1, v, error)))
            s.jitter = static_cast<float>(v);
        else if (ok && kv.key != "seed" && kv.key != "octaves" && kv.key != "lacunarity" &&
                 kv.key != "gain" && kv.key != "jitter") {
            error = "unknown key '" + kv.key + "' (scale, offset, drift, low, high, " +
                    (fractal ? "octaves, lacunarity, gain" : "jitter") + ", seed)";
            ok = false;
        } else if (ok) {
            error = "unknown key '" + kv.key + "' for " + kind;
            ok = false;
        }
        if (!ok) {
            error = kind + ": " + error;
            return nullptr;
        }
    }
    return std::make_shared<ProceduralTexture>(k, s);
}

}  // namespace vaporix
