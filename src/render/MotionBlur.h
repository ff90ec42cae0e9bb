// Motion blur of a grid object: the motion path field built from the velocity channels before a
// frame renders (splat of each cell's path, then a separable blur), and the offset it gives a
// sample point at the sample's time.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "foundation/ProgressCallback.h"

namespace vaporix {

class VolumeShader;
class VaporixFrameData;

/// The warning of a frame without all three velocity channels (%s: the object's name).
extern const char* const MOTION_BLUR_NO_VELOCITY_WARNING;

/// The test of a moved sample point against a render gizmo. The point moved by the gizmo's own
/// motion between `tau` and the end of the interval must stay inside; a crossing shortens
/// nothing: the point stays as moved.
class IMotionGizmo {
public:
    virtual ~IMotionGizmo();
    virtual void testMotion(const float before[3], const float moved[3], float tau) const = 0;
};

/// What a motion path field is built from besides the shader.
struct MotionBlurSettings {
    /// The shutter, as fractions of a frame: the lowest and highest time of the frame's samples.
    float tStart = 0.0f;
    float tEnd = 0.5f;
    /// Radius of the smoothing in cells (`mbsmooth`); 0 or less: no smoothing.
    int mbSmooth = 3;
    /// Threads of the passes (-1: the global count). The field is the same for any count.
    int threads = -1;
    /// Progress texts, progress and the user's abort (may be null).
    ProgressCallback* progress = nullptr;
};

/// Scratch arrays of the build; bits of `MotionBlur::failAllocations` (a test hook).
enum MotionBlurScratch : uint32_t {
    MB_SCRATCH_WEIGHT = 1u << 0,  ///< `velocityWeight`
    MB_SCRATCH_FIELD = 1u << 1,   ///< `velocityField`
    MB_SCRATCH_RING = 1u << 2     ///< the rings of the blur passes
};

/// The motion of one shader for one frame. The shader owns one; `InitVolume` releases it.
class MotionBlur {
public:
    MotionBlur() = default;
    MotionBlur(const MotionBlur&) = delete;
    MotionBlur& operator=(const MotionBlur&) = delete;

    /// Builds `velocityField` from the shader's velocity (`EvalVelocity` at each cell, times
    /// `velocityScale` and `mbmult`). Out of memory builds nothing and reports success: the
    /// samples then read the velocity themselves. @return 0 when done, 1 when cancelled (all
    /// motion data is released then).
    int BuildMotionBlur(const VolumeShader& shader, const MotionBlurSettings& settings);

    /// Moves a grid space sample point by the motion at the sample's time `tau` (0..1 over the
    /// shutter). Nothing moves under tau 1e-6 or without velocity.
    void ApplyMotion(const VolumeShader& shader, float position[3], float tau) const;

    /// Frees the field and turns the offsets off.
    void release();

    /// The motion path field: one vector per cell (cells per unit of time, x fastest); null when
    /// not built.
    const float* field() const { return mField.get(); }
    const int* size() const { return mSize; }

    /// Velocity can be read: the frame has its three channels. Without it samples stay put.
    bool velocityAvailable = false;
    /// Samples read the velocity themselves even when a field exists.
    bool perSampleRead = false;
    /// The second velocity read: the offset is taken from the mean of the velocity at the
    /// sample and at the point the first read reaches (`play_speed` scales that second one).
    bool secondVelocityRead = false;
    float playSpeed = 1.0f;
    /// Length of the shutter, for the per-sample road.
    float shutterScale = 1.0f;
    /// Channel value to cells of motion per unit of time: `velocityScale` * `mbmult`.
    float motionScale = 1.0f / 30.0f;
    /// Longest motion a cell may make over the shutter, in cells; larger velocities are
    /// shortened to it (set by the build from the grid size).
    float maxTravel = 1e30f;
    const IMotionGizmo* gizmo = nullptr;

    /// Test hook: scratch arrays (MotionBlurScratch bits) whose allocation fails.
    static std::atomic<uint32_t> failAllocations;

private:
    void velocityAt(const VolumeShader& shader, const float p[3], float v[3]) const;

    std::unique_ptr<float[]> mField;
    int mSize[3] = {0, 0, 0};
};

/// The blur kernel of radius r: 2r + 1 entries, a sum of r growing boxes widened by three,
/// divided by its sum; empty for r <= 0 (no blur).
std::vector<float> motionBlurKernel(int r);

/// Points the shader's velocity reads at the frame's channels 4, 5 and 6. @return false when
/// one of them is missing (the shader then reads no velocity).
bool attachVelocity(VolumeShader& shader, VaporixFrameData& frame);

}  // namespace vaporix
