// The per-object frame holder: which frame is shown, where it came from, what a repeated
// request can reuse, the blend sources and the private frame of blends and smoothing.
#pragma once

#include <cstdint>
#include <string>

#include "cache/ChannelSmoothing.h"
#include "cache/VaporixFrameData.h"
#include "playback/ParamTypes.h"

namespace vaporix {

/// Modes of a frame request.
constexpr int LOAD_MODE_NORMAL = 0;
constexpr int LOAD_MODE_SILENT = 1;       ///< no particle blend warnings
constexpr int LOAD_MODE_HEADER_ONLY = 2;  ///< the header is enough (boxes)

/// Blend method of a loop's cross-fade: cell by cell on the grid, particles by age.
constexpr int BLEND_LOOP_CROSSFADE = 256;

/// Holds the frame of one grid object between requests. Shared frames (from the process-wide
/// `FrameDataArray`) are referenced, never copied; blends and smoothed frames go to `ownFrame`.
class VaporixFrame {
public:
    explicit VaporixFrame(ThreadManager* manager = nullptr, int threads = -1);
    ~VaporixFrame();
    VaporixFrame(const VaporixFrame&) = delete;
    VaporixFrame& operator=(const VaporixFrame&) = delete;

    /// Provides the frame of `cacheTime` (ticks) of the sequence `path`:
    ///  - code 1 without touching anything when the frame held answers the request (the same
    ///    time, path and channel map; for a path without a frame pattern, or with `exact` off
    ///    when the nearest file is the one held, any time). A complete frame answers a header
    ///    request; a header-only frame does not answer a full one. The request that failed last
    ///    is answered code 1 as well: it is neither read again nor reported again.
    ///  - otherwise a fractional time blends the frames either side, a loop overlap
    ///    (`loopBlend` >= 0) cross-fades `loopPartner` in, anything else is a plain load;
    ///    code 5 (or 3, 4 for blends whose particles lacked IDs or ages) when a frame is in
    ///    place, 0 when none could be had.
    /// `emptySize`/`emptyScale` make an empty frame when `path` is empty; `noRetry` opens each
    /// file once; `keepAxes` skips the axis swap of empty frames; `exact` off takes the nearest
    /// file when a frame is missing; `mode` as the LOAD_MODE_ constants.
    LoadFrameResult* loadFrame(LoadFrameResult* out,
                               int cacheTime,
                               const char* path,
                               int blendMethod,
                               int tpf,
                               const float* emptySize,
                               float emptyScale,
                               bool noRetry,
                               bool keepAxes,
                               bool exact,
                               int loopOverlap,
                               int mode,
                               const char* channelMap);

    /// 0: the frame to show; any other value: the frame it came from.
    VaporixFrameData* getFrame(int which) const { return which == 0 ? current : source; }

    /// Takes new smoothing settings: `mask` of channel bits and, per channel ordinal, the
    /// triple threshold, similarity, random. When they differ from the settings of the frame
    /// held, the frame is made again at `lastTime` (with `blendMethod` and `tpf`).
    /// @return 1 when the frame changed, 0 otherwise.
    int applySmoothingSettings(uint32_t mask,
                               const float values[CHANNEL_COUNT][3],
                               int blendMethod,
                               int tpf);

    /// Smooths the channels of `ownFrame` that `smoothMask` selects.
    void smoothChannels();

    /// Lets go of the frame held and the blend sources.
    void clear();

    // Playback state (see the class comment).
    float loopBlend = -1.0f;
    int32_t loopPartner = 0;
    TimeValue lastTime = NO_TIME;
    std::string lastPath;
    uint32_t smoothMask = 0;
    float smoothThreshold[CHANNEL_COUNT];
    float smoothSimilarity[CHANNEL_COUNT];
    float smoothRandom[CHANNEL_COUNT];
    VaporixFrameData* blendSourceA = nullptr;
    VaporixFrameData* blendSourceB = nullptr;
    VaporixFrameData headerFrameA;
    VaporixFrameData headerFrameB;
    VaporixFrameData ownFrame;
    VaporixFrameData* current = nullptr;
    VaporixFrameData* source = nullptr;
    int32_t failStatus = 0;
    TimeValue failTime = NO_TIME;
    std::string failPath;
    std::string failChannelMap;

    /// The channel map that `current` was provided with. Kept here rather than in the frame:
    /// a shared frame's own map is its key in the shared list and must not change.
    std::string currentChannelMap;
    /// The file `current` was read from; empty for blends and empty frames.
    std::string currentFile;

private:
    /// Drops the reference of `current` (a shared frame; the private ones stay) and nulls it.
    void releaseCurrent();
    /// A failed load: nothing is held; statuses other than 2 and 3 are remembered as the
    /// failed request.
    void recordStatus(int status, int cacheTime, const char* path, const char* channelMap);
    LoadFrameResult loadBlendedFrames(int frameA,
                                      int frameB,
                                      float weight,
                                      int method,
                                      int tpf,
                                      const char* path,
                                      bool exact,
                                      bool noRetry,
                                      int loopOverlap,
                                      const char* channelMap);
    /// The plain load; false when it ended with code 0 (already recorded).
    bool loadPlainFrame(int frame,
                        int cacheTime,
                        const char* path,
                        const float* emptySize,
                        float emptyScale,
                        bool noRetry,
                        bool keepAxes,
                        bool exact,
                        bool headerOnly,
                        const char* channelMap);

    ChannelSmoother mSmoother;
};

/// Frame number of a cache time: floor(cacheTime / tpf) in 32-bit float, and the fraction
/// left over.
void splitCacheTime(int cacheTime, int tpf, int& frame, float& frac);

}  // namespace vaporix
