// The frame holder: cache test, plain, fractional and loop loads, failure memory.
#include "playback/VaporixFrame.h"

#include <cmath>
#include <cstring>

#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "foundation/log.h"
#include "playback/TimeBend.h"

namespace vaporix {

namespace {

/// A fraction below this is a whole frame (no blend).
constexpr float WHOLE_FRAME_EPSILON = 0.00001f;

const char* orEmpty(const char* s) { return s ? s : ""; }

}  // namespace

void splitCacheTime(int cacheTime, int tpf, int& frame, float& frac) {
    const float x = static_cast<float>(cacheTime) / static_cast<float>(tpf < 1 ? 1 : tpf);
    frame = truncToInt(std::floor(x));
    frac = x - static_cast<float>(frame);
}

VaporixFrame::VaporixFrame(ThreadManager* manager, int threads) : mSmoother(manager, threads) {
    for (int c = 0; c < CHANNEL_COUNT; ++c) {
        const SmoothSettings defaults;
        smoothThreshold[c] = defaults.threshold;
        smoothSimilarity[c] = defaults.similarity;
        smoothRandom[c] = defaults.random;
    }
}

VaporixFrame::~VaporixFrame() { clear(); }

void VaporixFrame::clear() {
    releaseCurrent();
    source = nullptr;
    releaseFrame(blendSourceA);
    releaseFrame(blendSourceB);
    blendSourceA = blendSourceB = nullptr;
    currentFile.clear();
}

void VaporixFrame::releaseCurrent() {
    // Frames outside the shared list (ownFrame, the header frames) are ignored by releaseFrame.
    releaseFrame(current);
    current = nullptr;
}

void VaporixFrame::recordStatus(int status,
                                int cacheTime,
                                const char* path,
                                const char* channelMap) {
    releaseCurrent();
    source = nullptr;
    currentFile.clear();
    // A missing file (3) or reader (2) is no failure to remember: the next call tries again.
    if (status != LOAD_NO_MODULE && status != LOAD_NO_FILE) {
        failStatus = status;
        failTime = cacheTime;
        failPath = orEmpty(path);
        failChannelMap = orEmpty(channelMap);
    }
}

LoadFrameResult* VaporixFrame::loadFrame(LoadFrameResult* out,
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
                                         const char* channelMap) {
    const char* pathText = orEmpty(path);
    const char* mapText = orEmpty(channelMap);
    int frame;
    float frac;
    splitCacheTime(cacheTime, tpf, frame, frac);
    const bool headerOnly = mode == LOAD_MODE_HEADER_ONLY;

    // Cache test: answer from what is held before any file is opened (only the nearest-file
    // case lists the folder).
    if (current) {
        const bool single = !hasFramePattern(pathText);
        bool sameFile = false;
        if (!exact && !single) {
            std::string nearest;
            if (findFrameFile(pathText, frame, false, nearest)) sameFile = nearest == currentFile;
        }
        // Another time that leads to the same file is the same request, unless the frame held
        // was marked for a reload (lastTime cleared after a change of smoothing settings).
        if ((single || sameFile) && cacheTime != NO_TIME && lastTime != NO_TIME)
            lastTime = cacheTime;
        if (lastTime == cacheTime && lastPath == pathText && currentChannelMap == mapText &&
            (headerOnly || !(current->frameFlags & FRAME_HEADER_ONLY))) {
            out->code = 1;
            out->text.clear();
            return out;
        }
    } else if (failTime == cacheTime && failPath == pathText && failChannelMap == mapText) {
        // The same failure is neither tried nor reported twice.
        out->code = 1;
        out->text.clear();
        return out;
    }

    LoadFrameResult result;
    if (frac > WHOLE_FRAME_EPSILON) {
        // Between two frames: blend them by the fraction.
        const int method = headerOnly ? BLEND_HEADER_ONLY : blendMethod;
        result = loadBlendedFrames(frame, frame + 1, frac, method, tpf, pathText, exact, noRetry, 0,
                                   mapText);
    } else if (loopBlend >= 0.0f) {
        // Inside a loop's overlap: the end of the clip fades into its start.
        const int method = headerOnly ? BLEND_HEADER_ONLY : BLEND_LOOP_CROSSFADE;
        result = loadBlendedFrames(frame, loopPartner, loopBlend, method, tpf, pathText, exact,
                                   noRetry, loopOverlap, mapText);
    } else {
        // The last blend's sources are let go after the load: when the frame is one of them
        // (playing on from a blend) it is taken over, not read again.
        VaporixFrameData* oldA = blendSourceA;
        VaporixFrameData* oldB = blendSourceB;
        blendSourceA = blendSourceB = nullptr;
        const bool loaded = loadPlainFrame(frame, cacheTime, pathText, emptySize, emptyScale,
                                           noRetry, keepAxes, exact, headerOnly, mapText);
        releaseFrame(oldA);
        releaseFrame(oldB);
        if (!loaded) {
            out->code = FRAME_RESULT_NONE;
            out->text.clear();
            return out;
        }
    }

    // Bookkeeping of every load that got this far.
    if (current) {
        lastTime = cacheTime;
        lastPath = pathText;
        currentChannelMap = mapText;
        failStatus = 0;
        if (!headerOnly) {
            failTime = NO_TIME;
            failPath.clear();
            failChannelMap.clear();
        }
    } else {
        recordStatus(LOAD_NO_FILE, cacheTime, pathText, mapText);
    }
    *out = result;
    return out;
}

bool VaporixFrame::loadPlainFrame(int frame,
                                  int cacheTime,
                                  const char* path,
                                  const float* emptySize,
                                  float emptyScale,
                                  bool noRetry,
                                  bool keepAxes,
                                  bool exact,
                                  bool headerOnly,
                                  const char* channelMap) {
    if (!*path) {
        // No cache: an empty frame of the size asked for (none for a size of 0).
        static const float NO_SIZE[3] = {0, 0, 0};
        releaseCurrent();
        source = nullptr;
        if (!ownFrame.initEmpty(emptySize ? emptySize : NO_SIZE, emptyScale, false)) {
            recordStatus(LOAD_NO_FILE, cacheTime, path, channelMap);
            return false;
        }
        current = source = &ownFrame;
        currentFile.clear();
        if (!keepAxes) ownFrame.toggleAxisSwap();
    } else if (headerOnly) {
        releaseCurrent();
        source = nullptr;
        const int status = ownFrame.loadByFrame(frame, path, channelMap, exact, noRetry, true);
        if (status != LOAD_OK) {
            recordStatus(status, cacheTime, path, channelMap);
            return false;
        }
        current = source = &ownFrame;
        currentFile = ownFrame.sourcePath.c_str();
    } else if (smoothMask != 0) {
        // Smoothing changes the data: the frame is read into the private copy.
        releaseCurrent();
        source = nullptr;
        const int status = ownFrame.loadByFrame(frame, path, channelMap, exact, noRetry, false);
        if (status != LOAD_OK) {
            recordStatus(status, cacheTime, path, channelMap);
            return false;
        }
        current = source = &ownFrame;
        currentFile = ownFrame.sourcePath.c_str();
        smoothChannels();
    } else {
        // The shared frame of this file and channel map; the old frame is let go only after the
        // lookup, so a frame that stays in use is never freed and read again.
        VaporixFrameData* slot = current;
        const int status = acquireShared(slot, frame, path, channelMap, exact, noRetry, true);
        current = slot;
        if (status != LOAD_OK) {
            recordStatus(status, cacheTime, path, channelMap);
            return false;
        }
        source = current;
        currentFile = current->sourcePath.c_str();
    }

    ownFrame.clearBlendScratch();
    if (!headerOnly) lumoLog("frame loaded %s, %d \n", path, cacheTime);
    return true;
}

LoadFrameResult VaporixFrame::loadBlendedFrames(int frameA,
                                                int frameB,
                                                float weight,
                                                int method,
                                                int tpf,
                                                const char* path,
                                                bool exact,
                                                bool noRetry,
                                                int loopOverlap,
                                                const char* channelMap) {
    (void)tpf;
    LoadFrameResult result;
    // The frame held is let go only after the sources are fetched: when it is one of them
    // (playing on from a whole frame into a blend) it is reused, not read again.
    VaporixFrameData* oldCurrent = current;
    current = source = nullptr;
    currentFile.clear();
    struct ReleaseAtEnd {
        VaporixFrameData* frame;
        ~ReleaseAtEnd() { releaseFrame(frame); }
    } releaseOld{oldCurrent};

    if ((method & 0xFFFF) == BLEND_HEADER_ONLY) {
        // Header-only blend: the boxes and times of both frames, no channel data.
        const bool okA =
            headerFrameA.loadByFrame(frameA, path, channelMap, exact, noRetry, true) == LOAD_OK;
        const bool okB =
            headerFrameB.loadByFrame(frameB, path, channelMap, exact, noRetry, true) == LOAD_OK;
        if (!okA && !okB) {
            result.code = FRAME_RESULT_NONE;
        } else if (!okA || !okB) {
            current = source = okA ? &headerFrameA : &headerFrameB;
        } else {
            // The header blend's own code says nothing about particles here: it is dropped.
            ownFrame.Blend(headerFrameA, headerFrameB, weight, method, true, 0.0f);
            ownFrame.frameFlags |= FRAME_HEADER_ONLY;
            source = &headerFrameA;
            current = &ownFrame;
        }
        return result;
    }

    // Both sources from the shared list; the old pair is let go only afterwards, so a source
    // that stays (the common case when playing forward) is reused, not read again.
    VaporixFrameData* oldA = blendSourceA;
    VaporixFrameData* oldB = blendSourceB;
    VaporixFrameData* newA = nullptr;
    VaporixFrameData* newB = nullptr;
    acquireShared(newA, frameA, path, channelMap, exact, noRetry, false);
    acquireShared(newB, frameB, path, channelMap, exact, noRetry, false);
    releaseFrame(oldA);
    releaseFrame(oldB);
    blendSourceA = newA;
    blendSourceB = newB;

    if (!newA && !newB) {
        result.code = FRAME_RESULT_NONE;
        return result;
    }
    if (!newA || !newB) {
        // One side only: it is shown as it is, no blend and no error.
        current = source = newA ? newA : newB;
        currentFile = current->sourcePath.c_str();
        blendSourceA = blendSourceB = nullptr;
        return result;
    }

    const bool changed = newA != oldA || newB != oldB;
    const float overlapTime = static_cast<float>(loopOverlap) * newA->timeStep;
    result = ownFrame.Blend(*newA, *newB, weight, method, changed, overlapTime);
    if (result.code == FRAME_RESULT_NO_ID) {
        lumoLog("blending - particle groups can't blend due to missing ID channel: %s\n",
                result.text.c_str());
    } else if (result.code == FRAME_RESULT_NO_AGE) {
        lumoLog("blending - particle groups can't blend due to missing AGE channel: %s\n",
                result.text.c_str());
    } else if (result.code == FRAME_RESULT_NONE) {
        // The blend logged why (scale, velocity); nothing is shown rather than a half frame.
        return result;
    }
    ownFrame.frameFlags &= static_cast<uint8_t>(~FRAME_HEADER_ONLY);
    source = newA;
    current = &ownFrame;
    if (smoothMask != 0) smoothChannels();
    return result;
}

void VaporixFrame::smoothChannels() {
    for (int c = 0; c < CHANNEL_COUNT; ++c) {
        if (!(smoothMask & (1u << c))) continue;
        float* field = ownFrame.GetChannelData(c);
        if (!field) continue;
        SmoothSettings s;
        s.threshold = smoothThreshold[c];
        s.similarity = smoothSimilarity[c];
        s.random = smoothRandom[c];
        if (!mSmoother.smooth(field, ownFrame.gridSize, ownFrame.gridTransform, s))
            lumoLog("smoothing - not enough memory for channel %d\n", c);
        else
            ownFrame.rangeMin[c] = RANGE_UNKNOWN_MIN, ownFrame.rangeMax[c] = RANGE_UNKNOWN_MAX;
    }
}

int VaporixFrame::applySmoothingSettings(uint32_t mask,
                                         const float values[CHANNEL_COUNT][3],
                                         int blendMethod,
                                         int tpf) {
    float oldThreshold[CHANNEL_COUNT], oldSimilarity[CHANNEL_COUNT], oldRandom[CHANNEL_COUNT];
    std::memcpy(oldThreshold, smoothThreshold, sizeof oldThreshold);
    std::memcpy(oldSimilarity, smoothSimilarity, sizeof oldSimilarity);
    std::memcpy(oldRandom, smoothRandom, sizeof oldRandom);
    // Settings only count as in force on a private frame.
    const uint32_t oldMask = current == &ownFrame ? smoothMask : 0;
    smoothMask = mask;
    for (int c = 0; c < CHANNEL_COUNT; ++c) {
        if (!(mask & (1u << c))) continue;
        smoothThreshold[c] = values[c][0];
        smoothSimilarity[c] = values[c][1];
        smoothRandom[c] = values[c][2];
    }
    if (!current) return 0;

    bool changed = false;
    if (oldMask != 0) {
        for (int c = 0; c < CHANNEL_COUNT && !changed; ++c) {
            const uint32_t bit = 1u << c;
            if ((oldMask & bit) != (mask & bit)) changed = true;
            else if ((mask & bit) &&
                     (oldThreshold[c] != smoothThreshold[c] ||
                      oldSimilarity[c] != smoothSimilarity[c] || oldRandom[c] != smoothRandom[c]))
                changed = true;
        }
    } else if (mask != 0) {
        releaseCurrent();
        source = nullptr;
        changed = true;
    }
    if (!changed) return 0;

    // Made again from the file: smoothing is never applied on top of a smoothed frame.
    const TimeValue saved = lastTime;
    lastTime = NO_TIME;
    const std::string path = lastPath;
    LoadFrameResult ignored;
    static const float NO_SIZE[3] = {0, 0, 0};
    loadFrame(&ignored, saved, path.c_str(), blendMethod, tpf, NO_SIZE, 1.0f, true, false, false, 0,
              LOAD_MODE_NORMAL, nullptr);
    return 1;
}

}  // namespace vaporix
