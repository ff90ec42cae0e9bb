// The time bend: how a scene time in host ticks becomes the cache time of the frame to show.
#pragma once

#include <cstdint>

#include "playback/ParamTypes.h"

namespace vaporix {

class VaporixParams;

/// Host ticks of one second; ticks per frame are this divided by the frame rate.
constexpr int TICKS_PER_SECOND = 4800;

/// Values of `animmode`.
constexpr int ANIM_LINEAR = 0;
constexpr int ANIM_CACHE_INDEX = 1;
constexpr int ANIM_LOOP = 2;

/// The playback parameters the mapping works on, filled afresh for every mapping.
struct TimeBendParams {
    float playSpeed = 1.0f;   ///< play_speed
    int32_t cacheStart = 0;   ///< inpoffset: first cache frame
    int32_t playStart = 0;    ///< playat: scene frame where the clip starts
    int32_t length = 0;       ///< inplength: clip length in cache frames, 0 unbounded
    float directIndex = 0.f;  ///< t2f: the cache frame of the Cache Index mode (animatable)
    int32_t mode = 0;         ///< animmode
    int32_t nearest = 0;      ///< loadnearest: clamp to the clip instead of showing nothing
    int32_t loopOverlap = 0;  ///< loopjnt: frames cross-faded at the loop's seam
};

/// Reads the bend's parameters: all at time 0 except `t2f`, which is read at `t` (ticks,
/// truncated to an int).
TimeBendParams readTimeBendParams(const VaporixParams& params, double t);

/// Maps scene time `t` (ticks) to a cache time (ticks), all in 32-bit float in a fixed order so
/// that every platform lands on the same tick. Without `bend` the time passes through (floored to
/// whole ticks). In the Loop mode `outBlend` receives the cross-fade weight of the overlap (-1
/// outside it) and `outPartner` the cache frame faded in; both may be null.
///
/// An out-of-range time of the Linear mode without `nearest` comes out as 2147483647 (the
/// integer wrap of the floor), a frame no file has. A `tpf` below 1 gives NO_TIME.
int computeCacheTime(int t,
                     int tpf,
                     bool bend,
                     const TimeBendParams& p,
                     float* outBlend,
                     int* outPartner);

/// A line on why parameter values can't give a usable time (a speed that is not a finite
/// number, a frame rate of 0, ...); empty when they are fine.
const char* timeBendProblem(const TimeBendParams& p, int tpf);

/// Float to int as the x86 truncating conversion does it: values outside the int range and NaN
/// give 0x80000000 (the conversion is not undefined here, and stays the same on every compiler).
int32_t truncToInt(float v);

}  // namespace vaporix
