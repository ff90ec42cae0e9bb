// The stand-alone renderer: tiles of camera rays on the job engine, each ray through
// VolumeShader::TraceVolumes, with a background or a shadow-catching ground behind the volumes.
#include "standalone/Renderer.h"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "foundation/MTJobs.h"
#include "standalone/StandaloneIlluminator.h"

namespace vaporix {

namespace {

/// Most camera rays per pixel.
constexpr int MAX_SAMPLES = 4096;

/// Read-only state of one render, shared by all threads.
struct RenderContext {
    const RenderSettings* settings = nullptr;
    LightingScene lighting;
    std::vector<const VolumeShader*> shaders;
    Camera camera;
    /// Length of camera rays: past every volume.
    double farDistance = 1.0;
    int tilesX = 0;
    int tilesY = 0;
};

/// One camera ray: colour of the volumes, their transmittance, and what lies behind.
struct RaySample {
    float volume[3] = {0.0f, 0.0f, 0.0f};
    float transmittance[3] = {1.0f, 1.0f, 1.0f};
    float behind[3] = {0.0f, 0.0f, 0.0f};
    bool opaqueBehind = false;
};

void traceCameraRay(const RenderContext& ctx,
                    StandaloneIlluminator& illuminator,
                    double x,
                    double y,
                    float time,
                    RaySample& out) {
    const RenderSettings& s = *ctx.settings;
    double dir[3];
    ctx.camera.rayDirection(x, y, dir);
    const double* from = ctx.camera.position;

    // The ground cuts the ray short and is what the volumes are seen against.
    double tGround = 0.0;
    bool hitsGround = false;
    if (s.ground.enabled && dir[2] != 0.0) {
        tGround = (s.ground.height - from[2]) / dir[2];
        hitsGround = tGround > 0.0 && std::isfinite(tGround);
    }
    const double tFar = hitsGround ? std::min(ctx.farDistance, tGround) : ctx.farDistance;
    const double to[3] = {from[0] + dir[0] * tFar, from[1] + dir[1] * tFar,
                          from[2] + dir[2] * tFar};

    if (!ctx.shaders.empty()) {
        illuminator.mode = IM_CAMERA;
        illuminator.elements = 0;
        illuminator.jitterValue = 0.0f;
        illuminator.sampleCount = 0;
        illuminator.currentShader = nullptr;
        for (int c = 0; c < 3; ++c) illuminator.transparency[c] = 1.0f;
        illuminator.imagePosition[0] = static_cast<float>(x);
        illuminator.imagePosition[1] = static_cast<float>(y);
        VolumeShader::TraceVolumes(from, to, out.volume, out.transmittance, illuminator, time,
                                   ctx.shaders.data(), static_cast<int>(ctx.shaders.size()), true,
                                   1.0f, 0);
    }

    if (hitsGround) {
        // Lambert: the side of the plane that faces the camera, lit and shadowed.
        const double point[3] = {from[0] + dir[0] * tGround, from[1] + dir[1] * tGround,
                                 s.ground.height};
        const double normal[3] = {0.0, 0.0, from[2] >= s.ground.height ? 1.0 : -1.0};
        float light[3];
        illuminator.lightAt(point, normal, light);
        for (int c = 0; c < 3; ++c) out.behind[c] = s.ground.color[c] * light[c];
        out.opaqueBehind = true;
    } else {
        for (int c = 0; c < 3; ++c) out.behind[c] = s.background[c];
    }
}

void renderTile(const RenderContext& ctx,
                StandaloneIlluminator& illuminator,
                int tile,
                Image& out) {
    const RenderSettings& s = *ctx.settings;
    const int x0 = (tile % ctx.tilesX) * s.tileSize;
    const int y0 = (tile / ctx.tilesX) * s.tileSize;
    const int x1 = std::min(x0 + s.tileSize, s.width);
    const int y1 = std::min(y0 + s.tileSize, s.height);
    const float weight = 1.0f / static_cast<float>(s.samples);
    for (int y = y0; y < y1; ++y) {
        for (int x = x0; x < x1; ++x) {
            // Everything random in this pixel follows from its own seed.
            const uint32_t seed =
                hashSeed(static_cast<uint32_t>(x), static_cast<uint32_t>(y), s.frameSeed);
            illuminator.seed = seed;
            float beauty[3] = {0.0f, 0.0f, 0.0f}, volume[3] = {0.0f, 0.0f, 0.0f},
                  trans[3] = {0.0f, 0.0f, 0.0f}, alpha = 0.0f;
            for (int k = 0; k < s.samples; ++k) {
                double sx = 0.5, sy = 0.5;
                if (s.samples > 1) {
                    sx = illuminator.Random();
                    sy = illuminator.Random();
                }
                // Times come from a hash of their own: the positions' random numbers stay
                // those of a render without motion blur.
                float time = s.time;
                if (s.motionBlur) {
                    const uint32_t h = hashSeed(seed, static_cast<uint32_t>(k), 0x7f4a7c15u);
                    const float u = static_cast<float>(h >> 8) * (1.0f / 16777216.0f);
                    time = (static_cast<float>(k) + u) / static_cast<float>(s.samples);
                }
                RaySample ray;
                traceCameraRay(ctx, illuminator, x + sx, y + sy, time, ray);
                for (int c = 0; c < 3; ++c) {
                    beauty[c] += ray.volume[c] + ray.transmittance[c] * ray.behind[c];
                    volume[c] += ray.volume[c];
                    trans[c] += ray.transmittance[c];
                }
                alpha += ray.opaqueBehind ? 1.0f
                                          : 1.0f - (ray.transmittance[0] + ray.transmittance[1] +
                                                    ray.transmittance[2]) /
                                                       3.0f;
            }
            const size_t i = static_cast<size_t>(y) * s.width + x;
            for (int c = 0; c < 3; ++c) {
                out.rgba[4 * i + c] = beauty[c] * weight;
                out.volume[3 * i + c] = volume[c] * weight;
                out.transmittance[3 * i + c] = trans[c] * weight;
            }
            out.rgba[4 * i + 3] = std::clamp(alpha * weight, 0.0f, 1.0f);
        }
    }
}

bool fail(std::string* error, const std::string& text) {
    if (error) *error = text;
    return false;
}

bool checkSettings(const RenderSettings& s, std::string* error) {
    if (s.width < 1 || s.height < 1 || s.width > Image::MAX_SIZE || s.height > Image::MAX_SIZE)
        return fail(error,
                    "the image size must lie between 1 and " + std::to_string(Image::MAX_SIZE));
    if (s.samples < 1 || s.samples > MAX_SAMPLES)
        return fail(error, "samples must lie between 1 and " + std::to_string(MAX_SAMPLES));
    if (s.tileSize < 1) return fail(error, "the tile size must be at least 1");
    if (s.threads < 0) return fail(error, "the thread count cannot be negative");
    for (float c : s.background)
        if (!std::isfinite(c)) return fail(error, "the background colour is not a number");
    if (s.ground.enabled && !std::isfinite(s.ground.height))
        return fail(error, "the ground height is not a number");
    return true;
}

}  // namespace

bool sceneBox(const std::vector<GridObject*>& objects, float box[6]) {
    bool any = false;
    for (GridObject* object : objects) {
        float b[6];
        if (!object || !object->worldBox(b)) continue;
        for (int a = 0; a < 3; ++a) {
            box[a] = any ? std::min(box[a], b[a]) : b[a];
            box[a + 3] = any ? std::max(box[a + 3], b[a + 3]) : b[a + 3];
        }
        any = true;
    }
    return any;
}

bool applyDefaultView(RenderSettings& settings, const std::vector<GridObject*>& objects) {
    float box[6];
    if (!sceneBox(objects, box)) return false;
    settings.camera = Camera::framing(box, settings.width, settings.height, settings.camera.fov);
    if (settings.lights.empty()) {
        // The key light comes from the front-left, above: its lit side faces the camera, which
        // stands front-right, and the shadows fall to the right and back.
        Light key;
        key.kind = LightKind::Directional;
        const double from[3] = {-0.7, -0.8, 1.0};
        const double len = std::sqrt(from[0] * from[0] + from[1] * from[1] + from[2] * from[2]);
        for (int a = 0; a < 3; ++a) key.direction[a] = -from[a] / len;
        key.intensity = 2.0f;
        settings.lights.push_back(key);
        Light ambient;
        ambient.kind = LightKind::Ambient;
        ambient.intensity = 0.1f;
        settings.lights.push_back(ambient);
    }
    settings.ground.height = box[2];
    return true;
}

int renderImage(const RenderSettings& settings,
                const std::vector<GridObject*>& objects,
                Image& out,
                ProgressCallback* progress,
                std::string* error,
                RenderStats* stats) {
    if (!checkSettings(settings, error)) return RENDER_FAILED;
    RenderContext ctx;
    ctx.settings = &settings;
    ctx.camera = settings.camera;
    std::string problem;
    if (!ctx.camera.prepare(settings.width, settings.height, &problem)) {
        fail(error, problem);
        return RENDER_FAILED;
    }

    // The volumes: every object whose shader is ready.
    for (GridObject* object : objects)
        if (object && (object->shader().flags & VolumeShader::volumeReady))
            ctx.shaders.push_back(&object->shader());
    float box[6] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    const bool haveBox = sceneBox(objects, box);
    ctx.lighting.shaders = ctx.shaders.data();
    ctx.lighting.shaderCount = static_cast<int>(ctx.shaders.size());
    ctx.lighting.time = settings.time;
    for (int a = 0; a < 6; ++a) ctx.lighting.box[a] = box[a];
    const double centre[3] = {0.5 * (box[0] + box[3]), 0.5 * (box[1] + box[4]),
                              0.5 * (box[2] + box[5])};

    // Lights with no intensity given deliver their colour at the centre of the scene.
    ctx.lighting.lights = settings.lights;
    for (Light& light : ctx.lighting.lights) {
        if (!light.autoIntensity) continue;
        double d2 = 0.0;
        for (int a = 0; a < 3; ++a)
            d2 += (light.position[a] - centre[a]) * (light.position[a] - centre[a]);
        light.intensity = haveBox && d2 > 0.0 ? static_cast<float>(d2) : 1.0f;
        light.autoIntensity = false;
    }

    // Camera rays end past the farthest corner of the scene.
    double far = 1.0;
    for (int k = 0; k < 8 && haveBox; ++k) {
        const double corner[3] = {(k & 1) ? box[3] : box[0], (k & 2) ? box[4] : box[1],
                                  (k & 4) ? box[5] : box[2]};
        double d2 = 0.0;
        for (int a = 0; a < 3; ++a)
            d2 += (corner[a] - ctx.camera.position[a]) * (corner[a] - ctx.camera.position[a]);
        far = std::max(far, std::sqrt(d2) * 1.01 + 1.0);
    }
    ctx.farDistance = far;

    if (!out.resize(settings.width, settings.height)) {
        fail(error, "out of memory for a " + std::to_string(settings.width) + "x" +
                        std::to_string(settings.height) + " image");
        return RENDER_FAILED;
    }
    ctx.tilesX = (settings.width + settings.tileSize - 1) / settings.tileSize;
    ctx.tilesY = (settings.height + settings.tileSize - 1) / settings.tileSize;
    const int tileCount = ctx.tilesX * ctx.tilesY;

    // Each job takes the next free tile until none is left, so the load stays even however
    // unevenly the volumes fill the image.
    MTFunction engine(nullptr, settings.threads > 0 ? settings.threads : -1);
    engine.init(settings.threads > 0 ? settings.threads : -1);
    std::atomic<int> nextTile{0};
    std::atomic<bool> aborted{false};
    std::atomic<uint64_t> counts[4] = {0, 0, 0, 0};
    if (progress) progress->begin();
    engine.forRange(
        static_cast<uint64_t>(std::max(engine.numJobs, 1)),
        [&](uint64_t, uint64_t, Job&) {
            StandaloneIlluminator illuminator(ctx.lighting);
            for (;;) {
                if (aborted.load(std::memory_order_relaxed)) break;
                if (progress && progress->checkAbort()) {
                    aborted.store(true);
                    break;
                }
                const int tile = nextTile.fetch_add(1);
                if (tile >= tileCount) break;
                renderTile(ctx, illuminator, tile, out);
                const int x0 = (tile % ctx.tilesX) * settings.tileSize;
                const int y0 = (tile / ctx.tilesX) * settings.tileSize;
                const int w = std::min(settings.tileSize, settings.width - x0);
                const int h = std::min(settings.tileSize, settings.height - y0);
                engine.addDone(static_cast<uint32_t>(w * h));
            }
            counts[0] += illuminator.stepsTaken;
            counts[1] += illuminator.samplesTaken;
            counts[2] += illuminator.shadowSteps;
            counts[3] += illuminator.shadowSamples;
        },
        progress);
    if (progress) {
        if (!aborted.load()) progress->setProgress(out.pixelCount());
        progress->end();
    }
    if (stats) {
        stats->cameraSteps = counts[0];
        stats->cameraSamples = counts[1];
        stats->shadowSteps = counts[2];
        stats->shadowSamples = counts[3];
    }
    return aborted.load() ? RENDER_ABORTED : RENDER_OK;
}

}  // namespace vaporix
