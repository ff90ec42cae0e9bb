// vaporix blend: writes the in-between frame of two cache frames.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "CacheArg.h"
#include "Command.h"
#include "cache/SGCompressor.h"
#include "cache/VaporixFrameData.h"
#include "foundation/log.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix blend A B --weight T [--method linear|velocity|header]\n"
    "                     [--particles id|age|none] [--overlap SECONDS]\n"
    "                     [--frame N] [--frame-b M] [--quant-bits B] [--quant-step S]\n"
    "                     [--passes P] [--zones Z] [--channel-map MAP] -o OUT.vxg\n"
    "\n"
    "Writes the frame between A and B at weight T of B (0 gives A, 1 gives B's place with A's\n"
    "content moved or mixed). The grids may differ in size and position but not in cell size\n"
    "or orientation; the result covers both.\n"
    "\n"
    "--method linear (default) mixes cell by cell; velocity traces each cell back along A's\n"
    "velocity; header only mixes the header values and particles.\n"
    "--particles id (default) matches particles by their ID and mixes them; age cross-fades a\n"
    "loop: A's particles younger than (1 - T) * --overlap seconds and B's older ones; none\n"
    "drops them. A group named Liquid rebuilds the liquid channel from its particles.\n"
    "\n"
    "A and B are files, or frame patterns (smoke_####.vxg) with --frame N for A and --frame-b M\n"
    "for B (default N + 1). OUT may be a pattern too: it names the blended frame's number.\n"
    "Grid channels are stored as with pack: --quant-bits 20 or more keeps the floats exactly\n"
    "(defaults: B 16, S 0, P 2, Z 1).\n"
    "OpenVDB (.vdb) and Field3D (.f3d) frames are read with --channel-map MAP\n"
    "(\"2,density;1,temperature;\") or each sequence's default map (see 'vaporix channels').\n";

struct EncodeSettings {
    int quantBits = 16;
    float quantStep = 0;
    int passes = 2;
    int zones = 1;
};

/// Reads one frame, a foreign cache with `map`; @return EXIT_OK or the exit status after a
/// message.
int loadFrame(VaporixFrameData& frame, const std::string& file, const std::string& map) {
    const int status = frame.importFile(file.c_str(), map.c_str(), 0, true, false, false);
    if (status != LOAD_OK) return failure("blend", loadFailureText(file, status));
    reportFrameWarnings("blend", frame);
    return EXIT_OK;
}

/// Replaces the blended frame's placeholder stream by codec streams of its channels, and
/// compresses its particle channels, so that the writer stores them. @return the channel mask,
/// or false through `ok`.
uint32_t encodeFrame(VaporixFrameData& frame, const EncodeSettings& settings, bool& ok) {
    internal::arrayRelease(frame.comprData);
    frame.comprData = nullptr;
    frame.comprDataSzInts = 0;
    uint32_t mask = 0;
    const bool hasVelocity = frame.channels[CH_VELOCITY_X] && frame.channels[CH_VELOCITY_Y] &&
                             frame.channels[CH_VELOCITY_Z];
    const int dims[3] = {frame.gridSize[0], frame.gridSize[1], frame.gridSize[2]};
    ok = true;
    for (int c = 0; c < CHANNEL_COUNT && ok; ++c) {
        // Speed comes back from the velocity on load.
        if (!frame.channels[c] || (c == CH_SPEED && hasVelocity)) continue;
        SGCompressor<3> codec;
        ok = codec.encodeZoned(frame.channels[c], dims, settings.quantBits, settings.quantStep,
                               settings.passes, settings.zones) > 0 &&
             frame.appendStreamBlock(c, codec.output.data,
                                     static_cast<uint64_t>(codec.output.count));
        mask |= 1u << c;
    }
    for (PGroup& g : frame.groups)
        for (int c = 0; c < PRT_CHANNELS && ok; ++c) {
            if (g.channelData[c].expanded.count == 0) continue;
            ok = g.CompressChannel(c, c == PRT_ID ? PRT_KIND_BITPLANES : PRT_KIND_SG_COMPONENTS);
        }
    frame.channelMask = mask;
    return mask;
}

int parseChoice(const Args& args,
                const char* option,
                const std::vector<std::pair<std::string, int>>& choices,
                int fallback,
                int& out) {
    out = fallback;
    if (!args.has(option)) return EXIT_OK;
    std::string names;
    for (const auto& [name, value] : choices) {
        if (args.value(option) == name) {
            out = value;
            return EXIT_OK;
        }
        names += (names.empty() ? "" : "|") + name;
    }
    return usageError("blend", std::string(option) + " takes " + names);
}

int run(int argc, char** argv) {
    Args args;
    std::string error;
    const std::vector<OptionSpec> specs = {
        {"--weight", 1},     {"--method", 1},     {"--particles", 1}, {"--overlap", 1},
        frameOption(),       {"--frame-b", 1},    {"-o", 1},          {"--help"},
        {"-h"},              {"--quant-bits", 1}, {"--quant-step", 1}, {"--passes", 1},
        {"--zones", 1},      channelMapOption()};
    if (!args.parse(argc, argv, 2, specs, error)) return usageError("blend", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (args.positional.size() != 2) return usageError("blend", "give two frames, A and B");
    if (!args.has("-o")) return usageError("blend", "-o OUT.vxg is required");
    if (!args.has("--weight")) return usageError("blend", "--weight T is required");
    double d;
    if (!parseFloat(args.value("--weight"), d) || !(d >= 0.0 && d <= 1.0))
        return usageError("blend", "--weight takes a number from 0 to 1");
    const float t = static_cast<float>(d);
    double overlap = 0;
    if (args.has("--overlap") &&
        (!parseFloat(args.value("--overlap"), overlap) || !(overlap >= 0.0 && overlap <= 1e30)))
        return usageError("blend", "--overlap takes a number of seconds, 0 or more");
    int gridMethod, particleMethod;
    if (int rc = parseChoice(args, "--method",
                             {{"linear", BLEND_GRID_INTERPOLATION},
                              {"velocity", BLEND_GRID_VELOCITY},
                              {"header", 0xFF}},
                             BLEND_GRID_INTERPOLATION, gridMethod);
        rc != EXIT_OK)
        return rc;
    if (int rc = parseChoice(args, "--particles",
                             {{"id", BLEND_PARTICLES_BY_ID}, {"age", BLEND_PARTICLES_BY_AGE},
                              {"none", 0xFF}},
                             BLEND_PARTICLES_BY_ID, particleMethod);
        rc != EXIT_OK)
        return rc;

    EncodeSettings settings;
    long long number;
    if (args.has("--quant-bits")) {
        if (!parseInt(args.value("--quant-bits"), number) || number < -1000 || number > 1000)
            return usageError("blend", "--quant-bits takes a whole number");
        settings.quantBits = static_cast<int>(number);
    }
    if (args.has("--quant-step")) {
        if (!parseFloat(args.value("--quant-step"), d) || !(d >= 0) || d > 1e30)
            return usageError("blend", "--quant-step takes a number of 0 or more");
        settings.quantStep = static_cast<float>(d);
    }
    if (settings.quantBits <= 0 && !(settings.quantStep > 0))
        return usageError("blend", "--quant-bits of 0 or below needs a --quant-step above 0");
    if (args.has("--passes")) {
        if (!parseInt(args.value("--passes"), number) || number < 0 || number > 255)
            return usageError("blend", "--passes takes a whole number from 0 to 255");
        settings.passes = static_cast<int>(number);
    }
    if (args.has("--zones")) {
        if (!parseInt(args.value("--zones"), number) || number < 1 || number > 65535)
            return usageError("blend", "--zones takes a whole number from 1 to 65535");
        settings.zones = static_cast<int>(number);
    }

    // A with --frame; B with --frame-b, else the frame after A's.
    std::string fileA, fileB;
    if (int rc = resolveCacheArg("blend", args.positional[0], args, fileA); rc != EXIT_OK)
        return rc;
    Args argsB;
    {
        std::string frameB;
        if (args.has("--frame-b")) {
            frameB = args.value("--frame-b");
        } else if (args.has("--frame") && parseInt(args.value("--frame"), number)) {
            frameB = std::to_string(number + 1);
        }
        std::vector<std::string> words = {"vaporix", "blend"};
        if (!frameB.empty()) words.insert(words.end(), {"--frame", frameB});
        std::vector<char*> argvB;
        for (auto& w : words) argvB.push_back(w.data());
        if (!argsB.parse(static_cast<int>(argvB.size()), argvB.data(), 2, {frameOption()}, error))
            return usageError("blend", "--frame-b takes a whole number");
    }
    if (int rc = resolveCacheArg("blend", args.positional[1], argsB, fileB); rc != EXIT_OK)
        return rc;

    VaporixFrameData a, b, out;
    if (int rc = loadFrame(a, fileA, channelMapFor(args, args.positional[0])); rc != EXIT_OK)
        return rc;
    if (int rc = loadFrame(b, fileB, channelMapFor(args, args.positional[1])); rc != EXIT_OK)
        return rc;

    // The blend says why it failed in the log; the same text is this command's message.
    std::mutex logMutex;
    std::string logText;
    setLogSink([&](const std::string& text) {
        std::lock_guard<std::mutex> lock(logMutex);
        logText += text;
    });
    const LoadFrameResult result = out.Blend(a, b, t, gridMethod | particleMethod << 8, true,
                                             static_cast<float>(overlap));
    setLogSink({});
    if (result.code == FRAME_RESULT_NONE) {
        // Its last line: an expansion that failed first has logged a line of its own.
        while (!logText.empty() && logText.back() == '\n') logText.pop_back();
        logText.erase(0, logText.rfind('\n') + 1);
        return failure("blend", logText.empty() ? "the frames can't be blended (out of memory)"
                                                : logText);
    }
    if (result.code == FRAME_RESULT_NO_ID)
        std::fprintf(stderr, "vaporix blend: warning: particle groups without IDs, left empty: %s\n",
                     result.text.c_str());
    if (result.code == FRAME_RESULT_NO_AGE)
        std::fprintf(stderr, "vaporix blend: warning: particle groups without ages, left empty: %s\n",
                     result.text.c_str());

    bool ok;
    const uint32_t mask = encodeFrame(out, settings, ok);
    if (!ok) return failure("blend", "encoding the blended frame failed");
    const std::string target = cacheOutputPath(args.value("-o"), out.frameNumber);
    if (out.WriteVxg(target.c_str(), mask) != LOAD_OK)
        return failure("blend", "can't write " + target);
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("blend", "write the in-between frame of two cache frames", run);

}  // namespace vaporix::cli
