// The stand-alone renderer: camera rays through the volumes of a scene, image tiles rendered in
// parallel on the job engine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/ProgressCallback.h"
#include "standalone/Camera.h"
#include "standalone/GridObject.h"
#include "standalone/Image.h"
#include "standalone/Light.h"

namespace vaporix {

/// An optional horizontal plane at z = `height` that catches the volumes' shadows. Camera rays
/// that hit it see its grey colour lit by the lights (Lambert) behind the volumes.
struct GroundPlane {
    bool enabled = false;
    double height = 0.0;
    float color[3] = {0.5f, 0.5f, 0.5f};
};

/// Everything a render needs besides the grid objects.
struct RenderSettings {
    int width = 640;
    int height = 360;
    Camera camera;
    std::vector<Light> lights;
    float background[3] = {0.0f, 0.0f, 0.0f};
    GroundPlane ground;
    /// Render threads; 0 for the global thread count. The image does not depend on it.
    int threads = 0;
    /// Mixed into every pixel's random numbers: different seeds give different noise.
    uint32_t frameSeed = 0;
    /// Camera rays per pixel: 1 goes through the pixel centre, more are jittered inside it.
    int samples = 1;
    /// Motion blur time of the rays (0..1 over the shutter) without `motionBlur`.
    float time = 0.0f;
    /// Camera rays take times spread over the shutter: sample k of n of a pixel at
    /// (k + u) / n, u from the pixel's own hash, so the image is the same for any thread count.
    /// The objects must have been prepared with motion blur for the volumes to move.
    bool motionBlur = false;
    /// Edge of the square tiles that threads take one at a time.
    int tileSize = 32;
};

/// Results of `renderImage`.
enum RenderStatus : int {
    RENDER_OK = 0,
    RENDER_ABORTED = 1,  ///< the progress callback asked to stop; the image is incomplete
    RENDER_FAILED = 2    ///< bad settings, no usable object, or out of memory; see `error`
};

/// What a render did: positions the marcher's steps looked at and grid samples it read, on the
/// camera rays (with their scattering) and on the shadow rays toward the lights.
struct RenderStats {
    uint64_t cameraSteps = 0;
    uint64_t cameraSamples = 0;
    uint64_t shadowSteps = 0;
    uint64_t shadowSamples = 0;
    uint64_t steps() const { return cameraSteps + shadowSteps; }
    uint64_t samples() const { return cameraSamples + shadowSamples; }
};

/// Renders the objects, which must have been prepared (`GridObject::prepare`). `progress`
/// (may be null) is told the number of finished pixels out of width * height on the calling
/// thread, and asked for aborts between tiles by the render threads, several at once. Each
/// pixel's random numbers come from a hash of (x, y, frameSeed), so the image is the same for
/// any thread count.
/// @return a RenderStatus; on RENDER_FAILED `error` (when given) says why.
int renderImage(const RenderSettings& settings,
                const std::vector<GridObject*>& objects,
                Image& out,
                ProgressCallback* progress = nullptr,
                std::string* error = nullptr,
                RenderStats* stats = nullptr);

/// World box around the objects (min x, y, z, max x, y, z). @return false when no object has a
/// grid.
bool sceneBox(const std::vector<GridObject*>& objects, float box[6]);

/// The default view of a scene: a camera that frames all objects from a three-quarter view
/// (keeping `settings.camera.fov`), and, when `settings.lights` is empty, one white key light
/// from the front-left above and a little ambient light. The ground, when enabled, goes to the
/// bottom of the box. @return false when no object has a grid.
bool applyDefaultView(RenderSettings& settings, const std::vector<GridObject*>& objects);

}  // namespace vaporix
