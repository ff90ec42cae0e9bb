// The time bend: scene ticks to cache ticks in 32-bit float, with the integer wrap of the floor.
#include "playback/TimeBend.h"

#include <cmath>

#include "playback/VaporixParams.h"

namespace vaporix {

int32_t truncToInt(float v) {
    // 2147483648.0f is the first float past the int range; NaN fails both tests.
    if (!(v > -2147483904.0f && v < 2147483648.0f)) return INT32_MIN;
    return static_cast<int32_t>(v);
}

TimeBendParams readTimeBendParams(const VaporixParams& params, double t) {
    TimeBendParams p;
    p.playSpeed = params.getFloat("play_speed", 0.0);
    p.cacheStart = params.getInt("inpoffset", 0.0);
    p.playStart = params.getInt("playat", 0.0);
    p.length = params.getInt("inplength", 0.0);
    // t2f is the one animatable value: it is read at the scene time, truncated to whole ticks.
    const double at = (t > -2147483648.0 && t < 2147483648.0) ? std::trunc(t) : 0.0;
    p.directIndex = params.getFloat("t2f", at);
    p.mode = params.getInt("animmode", 0.0);
    p.nearest = params.getInt("loadnearest", 0.0);
    p.loopOverlap = params.getInt("loopjnt", 0.0);
    return p;
}

const char* timeBendProblem(const TimeBendParams& p, int tpf) {
    if (tpf < 1) return "the frame rate gives no ticks per frame";
    if (!std::isfinite(p.playSpeed)) return "play_speed is not a finite number";
    if (!std::isfinite(p.directIndex)) return "t2f is not a finite number";
    return "";
}

namespace {

/// Brings `f` into 0..len by whole loop lengths, one addition or subtraction at a time: the
/// rounding of each step is part of the result. A position so far out that the steps would
/// not end (or take more than a few million rounds) is first brought near by a remainder;
/// such times never occur with sane parameters.
float wrapIntoLoop(float f, float len) {
    if (!std::isfinite(f)) return f;
    if (std::fabs(f) > len * 4194304.0f) f = static_cast<float>(std::fmod(double(f), double(len)));
    while (f < 0.0f) f += len;
    while (f > len) f -= len;
    return f;
}

}  // namespace

int computeCacheTime(int t,
                     int tpf,
                     bool bend,
                     const TimeBendParams& p,
                     float* outBlend,
                     int* outPartner) {
    if (tpf < 1) return NO_TIME;
    float f = static_cast<float>(t) / static_cast<float>(tpf);

    if (bend) {
        if (p.mode == ANIM_LINEAR) {
            f = (f - static_cast<float>(p.playStart)) * p.playSpeed;
            const float len = static_cast<float>(p.length) * p.playSpeed;
            if (len > 0.0001f && (f < 0.0f || f > len)) {
                if (p.nearest != 0) {
                    f = std::fmax(f, 0.0f);
                    f = std::fmin(f, len);
                } else {
                    // Outside the clip: a marker far below any frame (see the floor below).
                    f = -2147483648.0f;
                }
            }
            f += static_cast<float>(p.cacheStart);
        } else if (p.mode == ANIM_CACHE_INDEX) {
            f = p.directIndex;
        } else if (p.mode == ANIM_LOOP) {
            f = (f - static_cast<float>(p.playStart)) * p.playSpeed;
            const float len = static_cast<float>(p.length) * p.playSpeed;
            if (len > 0.0001f) {
                f = wrapIntoLoop(f, len);
                const float j = static_cast<float>(p.loopOverlap) * p.playSpeed;
                if (outBlend) {
                    *outBlend = (j > 0.000001f && j >= f) ? 1.0f - f / (j + 1.0f) : -1.0f;
                }
                if (outPartner) {
                    *outPartner = truncToInt(static_cast<float>(p.cacheStart) + len + f);
                }
            }
            f += static_cast<float>(p.cacheStart);
        }
        // Any other mode leaves the time as it came.
    }

    // Floor to whole ticks through the truncating conversion. Out of range it gives
    // 0x80000000, and the correction below then wraps it to 2147483647: the Linear mode's
    // out-of-clip marker lands on a frame that no file has, which is how it shows nothing.
    const float r = static_cast<float>(tpf) * f + 0.5f;
    const int32_t i = truncToInt(r);
    if (r < static_cast<float>(i))
        return static_cast<int32_t>(static_cast<uint32_t>(i) - 1u);
    return i;
}

}  // namespace vaporix
