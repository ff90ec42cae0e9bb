// The entry of every frame request of a grid object: scene time to cache time, the load, and
// what a new frame means to the object (stale previews, mesh, lights, messages).
#pragma once

#include <cstdint>
#include <string>

#include "playback/TimeBend.h"
#include "playback/VaporixFrame.h"
#include "playback/VaporixParams.h"

namespace vaporix {

/// Cache path kinds that playback reads (the expanded `rendinput`).
constexpr int CACHE_KIND_PLAYBACK = 100;

/// What playback needs of the host and of the object around it. The stand-alone host gives
/// ticks from a frame rate (4800 ticks a second); tests use fakes.
class IPlaybackHost {
public:
    virtual ~IPlaybackHost() = default;
    /// Whether the object sits on a scene node (without one nothing is loaded).
    virtual bool hasNode() const = 0;
    virtual int ticksPerFrame() const = 0;
    virtual VaporixParams& params() = 0;
    /// The object's cache path of `kind`, expanded; "" when it has none.
    virtual std::string getCachePath(int kind) const = 0;
    /// Whether the object has a cache of `kind` (kinds 1, 100 and 101).
    virtual bool hasCache(int kind) const = 0;

    // Listeners of a changed frame; they do nothing unless the host has such parts.
    /// The node's transform at `t` and the frame's, for the shader's matrices.
    virtual void updateShaderTransform(int t, VaporixFrameData* frame) {
        (void)t;
        (void)frame;
    }
    /// The curve-editor panels refresh their value ranges from the frame.
    virtual void refreshCurveRanges(VaporixFrameData* frame) { (void)frame; }
    /// The lights generated from the last frame are out of date.
    virtual void clearGeneratedLights() {}
};

/// The playback half of the grid object's render component: it owns the frame holder and the
/// flags that a new frame changes.
class FramePlayback {
public:
    explicit FramePlayback(IPlaybackHost& host, ThreadManager* manager = nullptr, int threads = -1)
        : frame(manager, threads), mHost(host) {}

    /// Cache time (ticks) of scene time `t` (ticks); the bend's loop weight and partner go to
    /// the frame holder. Without `bend` the time passes through.
    int mapTimeToCacheTime(double t, bool bend);
    /// The interface's form: `noBend` is the opposite of `bend`.
    int getCacheTime(double t, bool noBend) { return mapTimeToCacheTime(t, !noBend); }

    /// The frame of scene time `t` (ticks) in `mode` (LOAD_MODE_ constants). Codes: 0 no frame,
    /// 1 the frame held still answers, 3/4 a blend without particle IDs/ages, 5 a new frame.
    /// @return `out`.
    LoadFrameResult* LoadFrame(LoadFrameResult* out, int t, int mode);

    /// Shows a message through the message function, muted by bit `bit` of `dontshow`.
    void message(const std::string& text, int bit, int kind);

    VaporixFrame frame;
    bool gpuPreviewStale = false;
    bool voxelPreviewStale = false;
    bool meshValid = false;
    /// Time stamp of the last frame change (steady clock, nanoseconds).
    int64_t frameChangeStamp = 0;
    /// The cache time of the last request (ticks), for reports.
    int lastCacheTime = NO_TIME;

private:
    void readSmoothingSettings(uint32_t& mask, float values[CHANNEL_COUNT][3]);

    IPlaybackHost& mHost;
};

/// Texts of the playback messages, with their mute bits.
extern const char* const MSG_PARTICLES_PREFIX;
extern const char* const MSG_PARTICLES_NO_ID;
extern const char* const MSG_PARTICLES_NO_AGE;
extern const char* const MSG_FIELD3D_GZIP;
extern const char* const MSG_FIELD3D_MEMORY;
extern const char* const MSG_OPENVDB_MEMORY;
extern const char* const MSG_DOWNSAMPLED;

}  // namespace vaporix
