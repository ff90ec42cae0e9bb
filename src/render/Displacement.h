// Displacement of a grid's surface by textures: the field of directions and weights around the
// iso-surface (classified, banded, smoothed in the frequency domain, normalised), the arguments
// resampled at displaced points before the render, and the offset of a sample at render time.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "foundation/ProgressCallback.h"
#include "render/Spectrum.h"

namespace vaporix {

class VolumeShader;

/// One cell of the classification (20 bytes).
struct SurfaceCell {
    uint8_t border = 0;       ///< bits 0..2: at the low face of x, y, z; 3..5: at the high face
    uint8_t insideLinks = 0;  ///< bit d set: the neighbour in direction d is not inside
    uint8_t inside = 0;       ///< the value is above the surface level
    uint8_t flags = 0;        ///< bit 0: near the surface
    float weight = 0.0f;      ///< crossing fraction toward the surface
    float normal[3] = {0.0f, 0.0f, 0.0f};
};
static_assert(sizeof(SurfaceCell) == 20, "a surface cell is 20 bytes");

/// Scratch arrays of the build; bits of `Displacement::failAllocations` (a test hook).
enum DisplacementScratch : uint32_t {
    DS_SCRATCH_CELLS = 1u << 0,     ///< the SurfaceCell array
    DS_SCRATCH_OFFSETS = 1u << 1,   ///< `surfaceOffset` and `surfaceNormal`
    DS_SCRATCH_SPECTRUM = 1u << 2,  ///< the spectrum box
    DS_SCRATCH_VALUES = 1u << 3,    ///< the surface values and one component's field
    DS_SCRATCH_CHANNELS = 1u << 4   ///< `displacedChannels`
};

/// The result of reading the displacement at a point.
struct DisplacementRead {
    float offset[3] = {0.0f, 0.0f, 0.0f};
    float moved[3] = {0.0f, 0.0f, 0.0f};
    float vector[3] = {0.0f, 0.0f, 0.0f};
    float weight = 0.0f;
};

/// The displacement of one shader for one frame. The shader owns one; `InitVolume` releases it.
/// Textures are the shader's kinds 4, 5, 6 (`displ0`, `displ1`, `displ2`); modes are the
/// shader's `displaceMode`: 0 gradient driven, 1 surface driven, 2 vector, 3 advection.
class Displacement {
public:
    Displacement() = default;
    Displacement(const Displacement&) = delete;
    Displacement& operator=(const Displacement&) = delete;

    /// Without a surface texture: level 4, then 5, each resampling the arguments; then always
    /// level 6 for the render-time road, which sets the shader's `hasDisplacement`. A level
    /// whose texture slot is empty is passed over. @return 1 when cancelled, else 0.
    int PrepareDisplacement(VolumeShader& shader, bool preview);

    /// One level. @return 1 on success, 0 when there is nothing to displace (no cell above the
    /// surface level), out of memory or cancelled (`cancelled()` tells which).
    int BuildDisplacement(VolumeShader& shader, int level, bool surfaceOnly, bool quiet);

    /// The render-time offset: moves `position` by the displacement at it.
    void apply(const VolumeShader& shader, float position[3]) const;
    /// Blended normal and offset at a point, the texture read and the resulting vector.
    void ReadDisplacement(const VolumeShader& shader,
                          const float position[3],
                          DisplacementRead& out) const;

    /// Moves the shader's argument values to points displaced by `level`'s texture and points the
    /// shader's channels at them. @return false when out of memory or cancelled.
    bool ResampleDisplaced(VolumeShader& shader, int level);

    void release();

    /// Vector from a cell toward the surface and the smoothed outward normal, one per cell;
    /// null outside a build.
    const float* surfaceOffset() const { return mOffset.get(); }
    const float* surfaceNormal() const { return mNormal.get(); }
    /// The four resampled argument arrays (one block); null when not resampled.
    const float* displacedChannels() const { return mChannels.get(); }
    bool cancelled() const { return mCancelled.load(); }

    /// Threads of the passes (-1: all) and the progress texts and abort (may be null).
    int threads = -1;
    ProgressCallback* progress = nullptr;

    /// Test hook: scratch arrays (DisplacementScratch bits) whose allocation fails.
    static std::atomic<uint32_t> failAllocations;

private:
    bool aborted();
    bool smooth(float* field, int components, bool surfaceOnly, const int n[3]);
    bool smoothOrCancel(float* field, int components, bool surfaceOnly, const int n[3]);

    std::unique_ptr<float[]> mOffset;
    std::unique_ptr<float[]> mNormal;
    std::unique_ptr<float[]> mChannels;
    CosSpectrum<3> mSpectrum;
    int mSize[3] = {0, 0, 0};
    std::atomic<bool> mCancelled{false};
};

}  // namespace vaporix
