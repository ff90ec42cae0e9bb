// vaporix pack: writes a cache frame from raw float32 channel files.
#include <cstdio>
#include <cstring>

#include "Command.h"
#include "FileOut.h"
#include "cache/VaporixFrameData.h"
#include "cache/zlibutil.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix pack --size X Y Z --channel N=IN.f32 [--channel N=IN.f32 ...]\n"
    "                    [--frame N] [--time-step S] [--sim-time T] [--transform 12 numbers]\n"
    "                    [--comment TEXT] -o OUT.vxg\n"
    "\n"
    "Writes a version 4 cache frame. Each IN.f32 holds X*Y*Z little-endian float32 values, x\n"
    "running fastest. Channel 18 takes X*Y*Z*4 bytes of packed colour (byte 2 red, 1 green,\n"
    "0 blue). The transform maps world to grid coordinates: three matrix rows, then the offset\n"
    "row (default: identity).\n";

/// Settings of the grid stream encoder.
struct EncodeSettings {};

bool encodeChannel(VaporixFrameData& frame, int channel, const std::vector<uint8_t>& bytes,
                   const EncodeSettings&, std::string& error) {
    const int64_t cells = frame.getCellCount();
    if (channel == CH_PACKED_RGB) {
        if (bytes.size() != static_cast<uint64_t>(cells) * 4) {
            error = "channel 18 needs " + std::to_string(cells * 4) + " bytes";
            return false;
        }
        iArray<uint8_t, long long> z;
        if (!deflateInto(bytes.data(), bytes.size(), z)) {
            error = "compression failed";
            return false;
        }
        std::vector<uint8_t> payload(8 + static_cast<size_t>(z.count));
        const uint64_t n = static_cast<uint64_t>(z.count);
        std::memcpy(payload.data(), &n, 8);
        std::memcpy(payload.data() + 8, z.data, static_cast<size_t>(z.count));
        return frame.appendStreamBlock(channel, payload.data(), payload.size());
    }
    if (bytes.size() != static_cast<uint64_t>(cells) * 4) {
        error = "channel " + std::to_string(channel) + " needs " + std::to_string(cells * 4) +
                " bytes (" + std::to_string(cells) + " floats), the file has " +
                std::to_string(bytes.size());
        return false;
    }
    SGCompressor<3> codec;
    if (!codec.encodeRaw(reinterpret_cast<const float*>(bytes.data()), cells)) {
        error = "encoding failed";
        return false;
    }
    return frame.appendStreamBlock(channel, codec.output.data,
                                   static_cast<uint64_t>(codec.output.count));
}

int run(int argc, char** argv) {
    Args args;
    std::string error;
    const std::vector<OptionSpec> specs = {
        {"--size", 3},      {"--channel", 1, true}, {"--frame", 1},   {"--time-step", 1},
        {"--sim-time", 1},  {"--transform", 12},    {"--comment", 1}, {"-o", 1},
        {"--help"},         {"-h"}};
    if (!args.parse(argc, argv, 2, specs, error)) return usageError("pack", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (!args.positional.empty()) return usageError("pack", "unexpected " + args.positional[0]);
    if (!args.has("-o")) return usageError("pack", "-o OUT.vxg is required");
    if (!args.has("--size")) return usageError("pack", "--size X Y Z is required");

    VaporixFrameData frame;
    int64_t cells = 1;
    for (int a = 0; a < 3; ++a) {
        long long v;
        if (!parseInt(args.values("--size")[a], v) || v < 1 || v > 65536)
            return usageError("pack", "--size takes three whole numbers from 1 to 65536");
        frame.gridSize[a] = static_cast<int32_t>(v);
        cells *= v;
    }
    if (cells > 0x7FFFFFFF) return usageError("pack", "the grid has too many cells");
    if (args.has("--frame")) {
        long long v;
        if (!parseInt(args.value("--frame"), v) || v < INT32_MIN || v > INT32_MAX)
            return usageError("pack", "--frame takes a whole number");
        frame.frameNumber = static_cast<int32_t>(v);
    }
    double d;
    if (args.has("--time-step")) {
        if (!parseFloat(args.value("--time-step"), d) || d <= 0)
            return usageError("pack", "--time-step takes a positive number of seconds");
        frame.timeStep = static_cast<float>(d);
    }
    if (args.has("--sim-time")) {
        if (!parseFloat(args.value("--sim-time"), d))
            return usageError("pack", "--sim-time takes a number");
        frame.setSimTime(d);
    }
    if (args.has("--transform")) {
        for (int k = 0; k < 12; ++k) {
            if (!parseFloat(args.values("--transform")[k], d))
                return usageError("pack", "--transform takes 12 numbers");
            frame.gridTransform.m[k] = static_cast<float>(d);
        }
    }
    frame.comment = args.value("--comment");

    EncodeSettings settings;
    uint32_t mask = 0;
    if (args.uses("--channel").empty()) return usageError("pack", "give at least one --channel");
    for (const auto& use : args.uses("--channel")) {
        const std::string& spec = use[0];
        const size_t eq = spec.find('=');
        long long ordinal;
        if (eq == std::string::npos || !parseInt(spec.substr(0, eq), ordinal) || ordinal < 0 ||
            ordinal > 30)
            return usageError("pack", "--channel takes N=FILE with N from 0 to 30");
        const int c = static_cast<int>(ordinal);
        if ((mask >> c) & 1u) return usageError("pack", "channel " + spec.substr(0, eq) + " given twice");
        const std::string file = spec.substr(eq + 1);
        std::vector<uint8_t> bytes;
        if (!readWholeFile(file, bytes)) return failure("pack", "can't read " + file);
        if (!encodeChannel(frame, c, bytes, settings, error))
            return failure("pack", file + ": " + error);
        mask |= 1u << c;
    }
    frame.channelMask = mask;
    const std::string out = args.value("-o");
    if (frame.WriteVxg(out.c_str(), mask) != LOAD_OK) return failure("pack", "can't write " + out);
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("pack", "write a cache frame from raw float32 channels", run);

}  // namespace vaporix::cli
