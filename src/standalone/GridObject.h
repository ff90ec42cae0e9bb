// One grid object of a stand-alone render: a cache frame, its parameters, its shading tables and
// its volume shader, with the steps that prepare them for a frame.
#pragma once

#include <string>
#include <vector>

#include "cache/GridTransform.h"
#include "cache/VaporixFrameData.h"
#include "playback/MemoryParamStorage.h"
#include "playback/VaporixParams.h"
#include "render/ShadingTables.h"
#include "render/VolumeShader.h"

namespace vaporix {

/// A grid object as the stand-alone renderer sees it. Typical use:
///
///     GridObject object;
///     object.loadFrame("smoke_####.vxg", 12, error);     // or setFrame(frameInMemory)
///     object.loadParams("look.json", warnings, error);   // optional
///     object.applySetting("smoketransp=0.3", error);     // optional, repeatable
///     object.prepare(error);                             // tables and shader for the frame
///
/// Parameters start at their defaults.
class GridObject {
public:
    GridObject();
    ~GridObject();
    GridObject(const GridObject&) = delete;
    GridObject& operator=(const GridObject&) = delete;

    /// Loads frame `frame` of a cache file or frame pattern through the process's shared frame
    /// list (a plain file name is taken as it is). The parameter time becomes that frame's.
    /// @return a load status (LOAD_OK or another LOAD_ value) with `error` set on failure.
    int loadFrame(const std::string& pattern, int frame, std::string& error);
    /// Renders a frame made elsewhere (a frame built in memory). The object does not own it; it
    /// must outlive the object. `frameNumber` sets the parameter time.
    void setFrame(VaporixFrameData* frame, int frameNumber = 0);
    VaporixFrameData* frame() const { return mFrame; }

    MemoryParamStorage& storage() { return mStorage; }
    VaporixParamsMax& params() { return mParams; }
    const VaporixParamsMax& params() const { return mParams; }

    /// Reads a parameter set ({"params": {...}}, as `vaporix params --save` writes it); an older
    /// set is upgraded. Unknown names go to `warnings`. @return false with `error`.
    bool loadParams(const std::string& path,
                    std::vector<std::string>& warnings,
                    std::string& error);
    /// Applies one NAME[i]@TICK=VALUE assignment (see `applyParamAssignment`).
    bool applySetting(const std::string& assignment, std::string& error);

    /// The channel map of a foreign cache (.vdb, .f3d); empty for .vxg.
    std::string channelMap;

    /// The object's node transform, object to world (row vectors).
    GridTransform objectToWorld;

    /// Motion blur of the render: set before `prepare`. With it the velocity channels are read
    /// and the motion path field is built (a warning when the frame has no velocity).
    bool motionBlur = false;
    /// The shutter as fractions of a frame (open <= close).
    float shutterOpen = 0.0f;
    float shutterClose = 0.5f;
    /// Threads of the pre-passes (-1: all); their results do not depend on it.
    int threads = -1;
    /// Progress texts and abort of the pre-passes (may be null).
    ProgressCallback* progress = nullptr;
    /// Warnings of the last `prepare` (a frame without velocity under motion blur, ...).
    std::vector<std::string> prepareWarnings;
    /// The object's name in messages (the cache path once a frame is loaded).
    std::string displayName = "grid";

    /// Parameter time of the frame, in host ticks.
    double time() const { return mTime; }

    /// Builds the shading tables from the frame's channel ranges, reads the textures of the
    /// slots (`etxt` ... `displ2`, the displacement ones only with `displacement` on), sets the
    /// shader up and runs the frame's pre-passes (motion blur, displacement).
    /// @return false with `error` when there is no frame, the grid is empty, a texture
    /// description doesn't parse, or a pre-pass was cancelled.
    bool prepare(std::string& error);

    /// The shader, ready after `prepare`.
    const VolumeShader& shader() const { return mShader; }
    VolumeShader& shader() { return mShader; }
    const ShadingTables& tables() const { return mTables; }

    /// World box of the grid (min x, y, z, max x, y, z), through `objectToWorld`.
    /// @return false when the object has no frame or an empty grid.
    bool worldBox(float box[6]) const;

private:
    void releaseFrame();

    MemoryParamStorage mStorage;
    VaporixParamsMax mParams;
    ShadingTables mTables;
    VolumeShader mShader;
    VaporixFrameData* mFrame = nullptr;
    bool mShared = false;
    double mTime = 0.0;
};

}  // namespace vaporix
