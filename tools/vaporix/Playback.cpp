// Scene frames on the command line through the playback of the stand-alone host.
#include "Playback.h"

#include <cmath>

#include "CacheArg.h"
#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"

namespace vaporix::cli {

const char* const PLAYBACK_HELP =
    "  --frame F          the scene frame F (may be fractional), mapped to cache frames by the\n"
    "                     playback parameters (play_speed, inpoffset, playat, inplength, t2f,\n"
    "                     animmode, loopjnt, frmblend, loadnearest, smoothing); with the\n"
    "                     defaults scene frame N is cache frame N\n"
    "  --fps N            scene frames a second (default 30; 4800 ticks a second)\n"
    "  --params FILE.json a parameter set, as 'vaporix params --save' writes it\n"
    "  --set NAME=VALUE   set a parameter after --params (repeatable; forms as in\n"
    "                     'vaporix params --help')\n"
    "  --channel-map MAP  for .vdb and .f3d: \"2,density;1,temperature;\" (default: the\n"
    "                     sequence's default map, see 'vaporix channels')\n";

std::vector<OptionSpec> playbackOptions() {
    return {{"--frame", 1}, {"--fps", 1}, {"--params", 1}, {"--set", 1, true}, channelMapOption()};
}

CliPlayback::CliPlayback() : mPlayback(std::make_unique<FramePlayback>(*this)) {}

CliPlayback::~CliPlayback() {
    // The object may show the playback's frame: it lets go of it first.
    mObject.setFrame(nullptr);
    mPlayback.reset();
}

std::string CliPlayback::getCachePath(int kind) const {
    return (kind == 1 || kind == 100 || kind == 101) ? mPattern : std::string();
}

int CliPlayback::setup(const char* command, const Args& args, const std::string& pattern) {
    mPattern = toNativeSeparators(pattern);
    if (args.has("--fps")) {
        long long fps;
        // Whole ticks per frame: 4800 / fps must be at least 1.
        if (!parseInt(args.value("--fps"), fps) || fps < 1 || fps > TICKS_PER_SECOND)
            return usageError(command, "--fps takes a whole number from 1 to 4800");
        mFps = static_cast<int>(fps);
    }
    std::string error;
    if (args.has("--params")) {
        std::vector<std::string> warnings;
        if (!mObject.loadParams(args.value("--params"), warnings, error))
            return failure(command, error);
        for (const std::string& w : warnings)
            std::fprintf(stderr, "vaporix %s: %s\n", command, w.c_str());
    }
    for (const auto& use : args.uses("--set"))
        if (!mObject.applySetting(use[0], error)) return usageError(command, error);
    // Foreign caches are read with --channel-map or the sequence's default map.
    if (const std::string map = channelMapFor(args, pattern); !map.empty())
        params().setString("usrchmap", 0, map);
    const TimeBendParams p = readTimeBendParams(params(), 0.0);
    if (const char* problem = timeBendProblem(p, ticksPerFrame()); *problem)
        return usageError(command, problem);
    return EXIT_OK;
}

bool CliPlayback::sceneTicks(double frame, int& ticks) const {
    const double t = std::round(frame * ticksPerFrame());
    if (!std::isfinite(t) || t <= -2147483648.0 || t >= 2147483647.0) return false;
    ticks = static_cast<int>(t);
    return true;
}

VaporixFrameData* CliPlayback::load(int t, int mode, LoadFrameResult& result) {
    mPlayback->LoadFrame(&result, t, mode);
    return mPlayback->frame.getFrame(0);
}

CliPlayback::Plan CliPlayback::plan(int t) {
    Plan out;
    out.cacheTime = mPlayback->mapTimeToCacheTime(t, true);
    float frac;
    splitCacheTime(out.cacheTime, ticksPerFrame(), out.a, frac);
    const bool exact = params().getInt("loadnearest") == 0;
    auto addFile = [&](int frame) {
        std::string file;
        if (findFrameFile(mPattern, frame, exact, file)) out.files.push_back(file);
    };
    if (frac > 0.00001f) {
        out.kind = 1;
        out.b = out.a + 1;
        out.weight = frac;
        addFile(out.a);
        addFile(out.b);
    } else if (mPlayback->frame.loopBlend >= 0.0f) {
        out.kind = 2;
        out.b = mPlayback->frame.loopPartner;
        out.weight = mPlayback->frame.loopBlend;
        addFile(out.a);
        addFile(out.b);
    } else {
        addFile(out.a);
    }
    return out;
}

int loadCacheArgFrame(const char* command,
                      const std::string& pattern,
                      const Args& args,
                      bool headerOnly,
                      CliPlayback& playback,
                      VaporixFrameData& own,
                      VaporixFrameData*& frame,
                      std::string& label) {
    if (const int rc = playback.setup(command, args, pattern); rc != EXIT_OK) return rc;
    if (!args.has("--frame")) {
        // No scene time: the sequence's first frame (or the plain file), as it is.
        Args plain;
        if (const int rc = resolveCacheArg(command, pattern, plain, label); rc != EXIT_OK)
            return rc;
        const std::string map = channelMapFor(args, pattern);
        const int status = own.importFile(label.c_str(), map.c_str(), 0, true, headerOnly, false);
        if (status != LOAD_OK) return failure(command, loadFailureText(label, status));
        reportFrameWarnings(command, own);
        frame = &own;
        return EXIT_OK;
    }
    double sceneFrame;
    int t;
    if (!parseFloat(args.value("--frame"), sceneFrame) || !playback.sceneTicks(sceneFrame, t))
        return usageError(command, "--frame takes a scene frame number");
    LoadFrameResult result;
    frame = playback.load(t, headerOnly ? LOAD_MODE_HEADER_ONLY : LOAD_MODE_NORMAL, result);
    const int failStatus = playback.playback().frame.failStatus;
    if (!frame) {
        const int cacheTime = playback.playback().lastCacheTime;
        int cacheFrame;
        float frac;
        splitCacheTime(cacheTime, playback.ticksPerFrame(), cacheFrame, frac);
        std::string why;
        if (cacheTime == NO_TIME || cacheTime == INT32_MAX)
            why = "scene frame " + args.value("--frame") + " lies outside the clip of " + pattern;
        else if (failStatus != 0)
            why = loadFailureText(pattern + ": frame " + std::to_string(cacheFrame), failStatus);
        else
            why = "no file for frame " + std::to_string(cacheFrame) + " of " + pattern;
        if (args.value("--frame") != std::to_string(cacheFrame))
            why += " (scene frame " + args.value("--frame") + ")";
        return failure(command, why);
    }
    reportFrameWarnings(command, *frame);
    label = playback.playback().frame.currentFile;
    if (label.empty()) label = pattern + " (blended at scene frame " + args.value("--frame") + ")";
    return EXIT_OK;
}

}  // namespace vaporix::cli
