// vaporix retime: bakes what playback provides for a list of scene frames into a new sequence,
// or shows what it would load.
#include <cmath>
#include <cstdio>
#include <map>
#include <set>

#include "CacheArg.h"
#include "Command.h"
#include "Json.h"
#include "Playback.h"
#include "foundation/FramePattern.h"
#include "playback/FrameBake.h"
#include "playback/FrameList.h"
#include "standalone/TerminalProgress.h"

namespace vaporix::cli {
namespace {

const char* CMD = "retime";

const char* USAGE =
    "usage: vaporix retime PATTERN --frames LIST [--fps N] [--params FILE.json]\n"
    "                      [--set NAME=VALUE]... [--quant-bits B] [--quant-step S] [--passes P]\n"
    "                      [--zones Z] [-q] -o OUT_PATTERN\n"
    "       vaporix retime PATTERN --frames LIST [--fps N] [--params F] [--set ...]... --plan\n"
    "                      [--json]\n"
    "\n"
    "Writes, for every scene frame of LIST, the frame that playback provides at that time (a\n"
    "cache frame, two frames blended or a loop's cross-fade, smoothed when the parameters ask\n"
    "for it) to OUT_PATTERN, numbered by the scene frame (rounded). A scene frame F is the time\n"
    "round(F * 4800 / fps) ticks. LIST is A-B, A-BxSTEP (STEP may be fractional) or a comma list\n"
    "of frames and ranges. Scene frames without a frame are reported and skipped; the run goes\n"
    "on. The codec options are those of 'vaporix pack'.\n"
    "  --plan             write nothing; print what playback would load for each scene frame\n"
    "  --json             with --plan: an array of objects with frame, ticks, cacheTime, kind\n"
    "                     (plain, fraction, loop), a, b, weight, files, status and message\n"
    "  --fps N            scene frames a second (default 30)\n"
    "  --params FILE.json a parameter set, as 'vaporix params --save' writes it\n"
    "  --set NAME=VALUE   set a parameter after --params (repeatable)\n"
    "  -q                 no progress bar, no summary\n";

int parseEncodeSettings(const Args& args, EncodeSettings& s) {
    long long n;
    double d;
    if (args.has("--quant-bits")) {
        if (!parseInt(args.value("--quant-bits"), n) || n < -1000 || n > 32)
            return usageError(CMD, "--quant-bits takes a whole number up to 32");
        s.quantBits = static_cast<int>(n);
    }
    if (args.has("--quant-step")) {
        if (!parseFloat(args.value("--quant-step"), d) || !(d >= 0) || !std::isfinite(d))
            return usageError(CMD, "--quant-step takes a number of 0 or more");
        s.quantStep = static_cast<float>(d);
    }
    if (args.has("--passes")) {
        if (!parseInt(args.value("--passes"), n) || n < 0 || n > 255)
            return usageError(CMD, "--passes takes a whole number from 0 to 255");
        s.passes = static_cast<int>(n);
    }
    if (args.has("--zones")) {
        if (!parseInt(args.value("--zones"), n) || n < 1 || n > 65535)
            return usageError(CMD, "--zones takes a whole number from 1 to 65535");
        s.zones = static_cast<int>(n);
    }
    if (s.quantBits <= 0 && s.quantStep <= 0)
        return usageError(CMD, "--quant-bits 0 or below needs a --quant-step above 0");
    return EXIT_OK;
}

const char* kindName(int kind) { return kind == 1 ? "fraction" : kind == 2 ? "loop" : "plain"; }

/// What --plan says of one scene frame.
struct PlanLine {
    double frame;
    int ticks;
    CliPlayback::Plan plan;
    std::string status;
    std::string message;
};

PlanLine planFrame(CliPlayback& playback, double frame, int ticks) {
    PlanLine line{frame, ticks, playback.plan(ticks), "ok", ""};
    const auto& p = line.plan;
    const size_t wanted = p.kind == 0 ? 1 : 2;
    if (p.cacheTime == NO_TIME || p.cacheTime == INT32_MAX) {
        line.status = "none";
        line.message = "outside the clip: no frame";
    } else if (p.files.empty()) {
        line.status = "missing";
        line.message = p.kind == 0 ? "no file for cache frame " + std::to_string(p.a)
                                   : "no file for cache frames " + std::to_string(p.a) +
                                         " and " + std::to_string(p.b);
    } else if (p.files.size() < wanted) {
        line.status = "partial";
        line.message = "one side of the blend is missing: the other is shown as it is";
    }
    return line;
}

void printPlan(const std::vector<PlanLine>& lines, bool json) {
    if (json) {
        JsonWriter j;
        j.beginArray();
        for (const PlanLine& l : lines) {
            j.beginObject();
            j.key("frame").value(l.frame);
            j.key("ticks").value(l.ticks);
            j.key("cacheTime").value(l.plan.cacheTime);
            j.key("kind").value(kindName(l.plan.kind));
            j.key("a").value(l.plan.a);
            j.key("b");
            if (l.plan.kind == 0) j.null(); else j.value(l.plan.b);
            j.key("weight");
            if (l.plan.kind == 0) j.null(); else j.value(l.plan.weight);
            j.key("files").beginArray(true);
            for (const std::string& f : l.plan.files) j.value(f);
            j.endArray();
            j.key("status").value(l.status);
            j.key("message").value(l.message);
            j.endObject();
        }
        j.endArray();
        std::printf("%s\n", j.str().c_str());
        return;
    }
    for (const PlanLine& l : lines) {
        std::printf("frame %g (ticks %d): cache time %d, ", l.frame, l.ticks, l.plan.cacheTime);
        if (l.plan.kind == 0)
            std::printf("plain %d", l.plan.a);
        else
            std::printf("%s %d + %d at %g", kindName(l.plan.kind), l.plan.a, l.plan.b,
                        double(l.plan.weight));
        for (const std::string& f : l.plan.files) std::printf("  %s", f.c_str());
        std::printf("  [%s]%s%s\n", l.status.c_str(), l.message.empty() ? "" : " ",
                    l.message.c_str());
    }
}

int run(int argc, char** argv) {
    InterruptGuard interrupt;
    Args args;
    std::string error;
    std::vector<OptionSpec> specs = {{"--frames", 1},     {"--plan"},          {"--json"},
                                     {"-o", 1},           {"-q"},              {"--help"},
                                     {"-h"},              {"--quant-bits", 1}, {"--quant-step", 1},
                                     {"--passes", 1},     {"--zones", 1},      {"--fps", 1},
                                     {"--params", 1},     {"--set", 1, true}};
    if (!args.parse(argc, argv, 2, specs, error)) return usageError(CMD, error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (args.positional.size() != 1) return usageError(CMD, "expected one cache PATTERN");
    if (!args.has("--frames")) return usageError(CMD, "--frames LIST is required");
    const bool planOnly = args.has("--plan");
    if (args.has("--json") && !planOnly) return usageError(CMD, "--json goes with --plan");
    if (!planOnly && !args.has("-o")) return usageError(CMD, "-o OUT_PATTERN is required");
    EncodeSettings encode;
    if (const int rc = parseEncodeSettings(args, encode); rc != EXIT_OK) return rc;
    std::vector<double> frames;
    if (!parseFrameList(args.value("--frames"), frames, error))
        return usageError(CMD, "--frames: " + error);

    CliPlayback playback;
    const std::string pattern = args.positional[0];
    if (const int rc = playback.setup(CMD, args, pattern); rc != EXIT_OK) return rc;
    std::vector<int> ticks(frames.size());
    for (size_t i = 0; i < frames.size(); ++i)
        if (!playback.sceneTicks(frames[i], ticks[i]))
            return usageError(CMD, "scene frame " + std::to_string(frames[i]) +
                                       " is beyond the time range");

    if (planOnly) {
        std::vector<PlanLine> lines;
        for (size_t i = 0; i < frames.size(); ++i)
            lines.push_back(planFrame(playback, frames[i], ticks[i]));
        printPlan(lines, args.has("--json"));
        return EXIT_OK;
    }

    // Output names: one file a scene frame, so two frames must not round to one number.
    const std::string outPattern = args.value("-o");
    std::string outFolder, outName;
    splitPath(outFolder, toNativeSeparators(outPattern), outName);
    if (frames.size() > 1 && !hasFramePattern(outName))
        return usageError(CMD, "-o needs a frame pattern (out_####.vxg) for more than one frame");
    std::vector<int32_t> numbers(frames.size());
    std::map<int32_t, double> used;
    for (size_t i = 0; i < frames.size(); ++i) {
        numbers[i] = static_cast<int32_t>(std::lround(frames[i]));
        if (!used.emplace(numbers[i], frames[i]).second)
            return usageError(CMD, "scene frames " + std::to_string(used[numbers[i]]) + " and " +
                                       std::to_string(frames[i]) + " both name output frame " +
                                       std::to_string(numbers[i]));
    }

    const bool quiet = args.has("-q");
    size_t written = 0, missing = 0;
    std::set<int> reported;  // cache times whose failure was told already
    {
        TerminalProgress progress(frames.size(), !quiet && TerminalProgress::isTerminal(stderr));
        progress.begin();
        for (size_t i = 0; i < frames.size(); ++i) {
            if (progress.checkAbort()) return failure(CMD, "interrupted after " +
                                                               std::to_string(written) +
                                                               " frames");
            LoadFrameResult result;
            VaporixFrameData* frame = playback.load(ticks[i], LOAD_MODE_NORMAL, result);
            const int cacheTime = playback.playback().lastCacheTime;
            if (!frame) {
                ++missing;
                const int status = playback.playback().frame.failStatus;
                // The failure memory answers a repeated request without a frame: told once.
                if (result.code != 1 && reported.insert(cacheTime).second)
                    std::fprintf(stderr, "vaporix retime: scene frame %g: no frame%s%s\n",
                                 frames[i], status ? ": " : "",
                                 status ? loadStatusText(status) : "");
                progress.setProgress(i + 1);
                continue;
            }
            VaporixFrameData out;
            uint32_t mask;
            if (!bakeFrame(*frame, numbers[i], encode, out, mask, error))
                return failure(CMD, "scene frame " + std::to_string(frames[i]) + ": " + error);
            const std::string file = cacheOutputPath(outPattern, numbers[i]);
            if (out.WriteVxg(file.c_str(), mask) != LOAD_OK)
                return failure(CMD, "can't write " + file);
            ++written;
            progress.setProgress(i + 1);
        }
        progress.end();
    }
    if (written == 0) return failure(CMD, "no scene frame of the list has a frame");
    if (!quiet)
        std::fprintf(stderr, "vaporix retime: wrote %zu frames to %s (%zu without a frame)\n",
                     written, outPattern.c_str(), missing);
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("retime", "bake scene frames of playback (retimed, looped, smoothed) to a cache",
                run);

}  // namespace vaporix::cli
