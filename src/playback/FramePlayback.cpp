// LoadFrame: smoothing settings, the time bend, the load and its consequences for the object.
#include "playback/FramePlayback.h"

#include <chrono>

#include "foundation/iArray.h"
#include "foundation/log.h"

namespace vaporix {

const char* const MSG_PARTICLES_PREFIX =
    "Could not blend the particles of the following systems:\n   ";
const char* const MSG_PARTICLES_NO_ID =
    "\nPlease make sure they are exported with an 'ID' channel!";
const char* const MSG_PARTICLES_NO_AGE =
    "\nPlease make sure they are exported with an 'AGE' channel!";
const char* const MSG_FIELD3D_GZIP =
    "Field3D cache read failed! If the cache was exported from FumeFX, make sure that it uses "
    "gzip compression!";
const char* const MSG_FIELD3D_MEMORY = "Field3D cache read failed! Not enough memory!";
const char* const MSG_OPENVDB_MEMORY = "OpenVDB cache read failed! Not enough memory!";
const char* const MSG_DOWNSAMPLED =
    "The grid size of the imported file is too big and data was downsampled to lower the voxel "
    "count!\nPlease reduce the number of voxels below 2'147'483'647 if you want to avoid this!";

namespace {

// Mute bits of the messages in `dontshow`.
constexpr int BIT_PARTICLES = 7;
constexpr int BIT_FIELD3D_GZIP = 11;
constexpr int BIT_DOWNSAMPLED = 14;
constexpr int BIT_FIELD3D_MEMORY = 24;
constexpr int BIT_OPENVDB_MEMORY = 25;

// Load statuses of the foreign readers that have a message.
constexpr int STATUS_FIELD3D_GZIP = 5;
constexpr int STATUS_FIELD3D_MEMORY = 6;
constexpr int STATUS_OPENVDB_MEMORY = 8;

/// The smoothing switches with their channel bits and the parameter of their values.
struct SmoothSwitch {
    const char* enable;
    const char* values;
    uint32_t mask;
};
constexpr SmoothSwitch SMOOTH_SWITCHES[] = {
    {"enablesmoothtemp", "smoothtemp", 0x2},   {"enablesmoothsmoke", "smoothsmoke", 0x4},
    {"enablesmoothvel", "smoothvel", 0x70},    {"enablesmoothuvw", "smoothuvw", 0x380},
    {"enablesmoothfuel", "smoothfuel", 0x400},
};

int64_t nowStamp() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

int FramePlayback::mapTimeToCacheTime(double t, bool bend) {
    VaporixParams& params = mHost.params();
    const TimeBendParams p = readTimeBendParams(params, t);
    const int ticks = (t > -2147483648.0 && t < 2147483648.0) ? static_cast<int>(t) : NO_TIME;
    return computeCacheTime(ticks, mHost.ticksPerFrame(), bend, p, &frame.loopBlend,
                            &frame.loopPartner);
}

void FramePlayback::readSmoothingSettings(uint32_t& mask, float values[CHANNEL_COUNT][3]) {
    VaporixParams& params = mHost.params();
    mask = 0;
    for (const SmoothSwitch& s : SMOOTH_SWITCHES) {
        if (!params.getInt(s.enable)) continue;
        mask |= s.mask;
        const Vector v = params.getVector(s.values);
        for (int c = 0; c < CHANNEL_COUNT; ++c) {
            if (!(s.mask & (1u << c))) continue;
            values[c][0] = v.x;
            values[c][1] = v.y;
            values[c][2] = v.z;
        }
    }
}

void FramePlayback::message(const std::string& text, int bit, int kind) {
    VaporixParams& params = mHost.params();
    iArray<int> dontshow;
    const int words = params.getCount("dontshow");
    if (words > 0 && dontshow.resize(words))
        for (int i = 0; i < words; ++i) dontshow[i] = params.getInt("dontshow", 0.0, i);
    const int before = dontshow.count;
    showMessage(text, bit, kind, &dontshow);
    // The user muted it: the grown or changed words go back to the parameter.
    if (dontshow.count > before) params.setCount("dontshow", dontshow.count);
    for (int i = 0; i < dontshow.count; ++i)
        if (i >= before || dontshow[i] != params.getInt("dontshow", 0.0, i))
            params.setInt("dontshow", 0.0, dontshow[i], i);
}

LoadFrameResult* FramePlayback::LoadFrame(LoadFrameResult* out, int t, int mode) {
    VaporixFrame& f = frame;
    // 1. No node, no frame.
    if (!mHost.hasNode()) {
        f.clear();
        f.current = f.source = nullptr;
        out->code = FRAME_RESULT_NONE;
        out->text.clear();
        return out;
    }

    // 2. Per-call state.
    VaporixParams& params = mHost.params();
    f.loopBlend = -1.0f;
    const int frmblend = params.getInt("frmblend");
    const int tpf = mHost.ticksPerFrame();

    // 3. Smoothing settings; a change makes the frame again, which the previews must see.
    uint32_t mask;
    float values[CHANNEL_COUNT][3] = {};
    readSmoothingSettings(mask, values);
    if (f.applySmoothingSettings(mask, values, frmblend, tpf)) {
        gpuPreviewStale = true;
        voxelPreviewStale = true;
    }

    // 4. Scene time to cache time, and the path.
    const bool bend = mHost.hasCache(CACHE_KIND_PLAYBACK);
    const int cacheTime = mapTimeToCacheTime(t, bend);
    lastCacheTime = cacheTime;
    const bool hadFrame = f.current != nullptr;
    const std::string path = mHost.getCachePath(CACHE_KIND_PLAYBACK);

    // 5. Load options.
    const bool loadnearest = params.getInt("loadnearest") != 0;
    const int loopjnt = params.getInt("loopjnt");
    const std::string usrchmap = params.getString("usrchmap");

    // 6. The load.
    static const float NO_SIZE[3] = {0, 0, 0};
    LoadFrameResult result;
    f.loadFrame(&result, cacheTime, path.c_str(), frmblend, tpf, NO_SIZE, 1.0f, true, false,
                !loadnearest, loopjnt, mode, usrchmap.c_str());

    // 7. What the result means to the object.
    const int code = result.code;
    if (code == FRAME_RESULT_NONE) {
        if (hadFrame) meshValid = false;
        mHost.clearGeneratedLights();
    }
    if (code >= 2 && code <= 5) {
        frameChangeStamp = nowStamp();
        gpuPreviewStale = true;
        voxelPreviewStale = true;
        mHost.clearGeneratedLights();
        mHost.updateShaderTransform(t, f.current);
    }
    if (code >= 3 && code <= 5) meshValid = false;
    if (mode != LOAD_MODE_SILENT && (code == FRAME_RESULT_NO_ID || code == FRAME_RESULT_NO_AGE)) {
        std::string text = MSG_PARTICLES_PREFIX;
        text += result.text.c_str();
        text += code == FRAME_RESULT_NO_ID ? MSG_PARTICLES_NO_ID : MSG_PARTICLES_NO_AGE;
        message(text, BIT_PARTICLES, MESSAGE_WARNING);
    }
    if (code != 1) mHost.refreshCurveRanges(f.current);
    if (code != FRAME_RESULT_NEW && code != 1 && mode != LOAD_MODE_HEADER_ONLY) {
        if (f.failStatus == STATUS_FIELD3D_GZIP)
            message(MSG_FIELD3D_GZIP, BIT_FIELD3D_GZIP, MESSAGE_ERROR);
        else if (f.failStatus == STATUS_FIELD3D_MEMORY)
            message(MSG_FIELD3D_MEMORY, BIT_FIELD3D_MEMORY, MESSAGE_ERROR);
        else if (f.failStatus == STATUS_OPENVDB_MEMORY)
            message(MSG_OPENVDB_MEMORY, BIT_OPENVDB_MEMORY, MESSAGE_ERROR);
    }
    if (code != 1 && f.current && (f.current->frameFlags & FRAME_DOWNSAMPLED))
        message(MSG_DOWNSAMPLED, BIT_DOWNSAMPLED, MESSAGE_ERROR);

    // 8. The result out.
    *out = result;
    return out;
}

}  // namespace vaporix
