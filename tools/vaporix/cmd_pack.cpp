// vaporix pack: writes a cache frame from raw float32 channel files.
#include <cstdio>
#include <cstring>

#include "CacheArg.h"
#include "Command.h"
#include "FileOut.h"
#include "cache/VaporixFrameData.h"
#include "cache/zlibutil.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix pack --size X Y Z --channel N=IN.f32 [--channel N=IN.f32 ...]\n"
    "                    [--frame N] [--time-step S] [--sim-time T] [--transform 12 numbers]\n"
    "                    [--comment TEXT] [--particles NAME:C=IN.bin[:KIND] ...]\n"
    "                    [--quant-bits B] [--quant-step S] [--passes P] [--zones Z] -o OUT.vxg\n"
    "\n"
    "Writes a version 4 cache frame. Each IN.f32 holds X*Y*Z little-endian float32 values, x\n"
    "running fastest. Channel 18 takes X*Y*Z*4 bytes of packed colour (byte 2 red, 1 green,\n"
    "0 blue). The transform maps world to grid coordinates: three matrix rows, then the offset\n"
    "row (default: identity). OUT may be a frame pattern (smoke_####.vxg): it names the file\n"
    "of the --frame number.\n"
    "\n"
    "Grid channels are stored as codec streams: --quant-bits B of 20 or more keeps the floats\n"
    "exactly, 1 to 19 spreads 2^B steps over each channel's range, 0 or below uses steps of\n"
    "--quant-step S; --passes P rounds of differencing (0 to 255); --zones Z > 1 cuts each\n"
    "channel into Z slabs along z that decode in parallel (defaults: B 16, S 0, P 2, Z 1).\n"
    "\n"
    "--particles adds channel C of particle group NAME from raw little-endian values, particle\n"
    "after particle: 3 float32 for position (0, in grid coordinates), velocity (1) and 4, one\n"
    "int64 for the ID (10), one float32 for the others. Every group needs positions. KIND is the\n"
    "stored compression: 0 raw, 1 zlib, 2 codec stream, 3 codec stream per component, 4 zlib\n"
    "bit planes (default: 4 for IDs, 3 otherwise). Every kind keeps the values exactly (the\n"
    "codec streams of kinds 2 and 3 are written unquantised; --quant-bits is for the grid).\n";

/// Settings of the grid stream encoder.
struct EncodeSettings {
    int quantBits = 16;
    float quantStep = 0;
    int passes = 2;
    int zones = 1;
};

bool encodeChannel(VaporixFrameData& frame, int channel, const std::vector<uint8_t>& bytes,
                   const EncodeSettings& settings, std::string& error) {
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
    const int dims[3] = {frame.gridSize[0], frame.gridSize[1], frame.gridSize[2]};
    if (codec.encodeZoned(reinterpret_cast<const float*>(bytes.data()), dims, settings.quantBits,
                          settings.quantStep, settings.passes, settings.zones) <= 0) {
        error = "encoding failed";
        return false;
    }
    return frame.appendStreamBlock(channel, codec.output.data,
                                   static_cast<uint64_t>(codec.output.count));
}

/// One --particles use: group name, channel, file and kind.
struct ParticleSpec {
    std::string group;
    int channel = 0;
    std::string file;
    int kind = -1;
};

bool parseParticleSpec(const std::string& text, ParticleSpec& out) {
    const size_t colon = text.find(':');
    const size_t eq = colon == std::string::npos ? colon : text.find('=', colon);
    if (colon == 0 || colon == std::string::npos || eq == std::string::npos) return false;
    out.group = text.substr(0, colon);
    long long c;
    if (!parseInt(text.substr(colon + 1, eq - colon - 1), c) || c < 0 || c >= PRT_CHANNELS ||
        prtComponentCount(static_cast<int>(c)) == 0)
        return false;
    out.channel = static_cast<int>(c);
    out.file = text.substr(eq + 1);
    // A trailing ":K" with K from 0 to 4 names the kind.
    const size_t last = out.file.rfind(':');
    long long k;
    if (last != std::string::npos && parseInt(out.file.substr(last + 1), k)) {
        if (k < PRT_KIND_RAW || k > PRT_KIND_BITPLANES) return false;
        out.kind = static_cast<int>(k);
        out.file.resize(last);
    }
    if (out.kind < 0) out.kind = out.channel == PRT_ID ? PRT_KIND_BITPLANES : PRT_KIND_SG_COMPONENTS;
    return !out.file.empty();
}

int addParticles(VaporixFrameData& frame, const Args& args) {
    std::vector<ParticleSpec> specs;
    for (const auto& use : args.uses("--particles")) {
        ParticleSpec spec;
        if (!parseParticleSpec(use[0], spec))
            return usageError("pack", "--particles takes NAME:C=FILE[:KIND] with a stored channel "
                                      "C and KIND from 0 to 4, not " + use[0]);
        specs.push_back(spec);
    }
    // Groups in the order they first appear; the positions give the particle count.
    for (const auto& spec : specs) {
        if (frame.FindParticleGroup(spec.group)) continue;
        const ParticleSpec* pos = nullptr;
        for (const auto& s : specs)
            if (s.group == spec.group && s.channel == PRT_POSITION) pos = &s;
        if (!pos) return usageError("pack", "group " + spec.group + " needs positions (channel 0)");
        std::vector<uint8_t> bytes;
        if (!readWholeFile(pos->file, bytes)) return failure("pack", "can't read " + pos->file);
        if (bytes.size() % 12 != 0 || bytes.size() / 12 > 0x7FFFFFFF)
            return failure("pack", pos->file + ": positions take 12 bytes a particle");
        PGroup group;
        group.name = spec.group;
        group.count = static_cast<int32_t>(bytes.size() / 12);
        if (!frame.groups.append(group)) return failure("pack", "out of memory");
        frame.groups.last().frame = &frame;
    }
    for (const auto& spec : specs) {
        auto* group = static_cast<PGroup*>(frame.FindParticleGroup(spec.group));
        std::vector<uint8_t> bytes;
        if (!readWholeFile(spec.file, bytes)) return failure("pack", "can't read " + spec.file);
        if (group->channelData[spec.channel].expanded.count > 0)
            return usageError("pack", "channel " + std::to_string(spec.channel) + " of group " +
                                          spec.group + " given twice");
        if (!group->setChannel(spec.channel, bytes.data(), bytes.size()))
            return failure("pack", spec.file + ": channel " + std::to_string(spec.channel) +
                                       " of " + std::to_string(group->count) + " particles takes " +
                                       std::to_string(int64_t(group->count) *
                                                      group->GetChannelStride(spec.channel)) +
                                       " bytes, the file has " + std::to_string(bytes.size()));
        if (!group->CompressChannel(spec.channel, spec.kind))
            return failure("pack", "can't compress " + spec.file);
        group->channelBits |= 1u << spec.channel;
    }
    if (!frame.groups.empty()) frame.computeParticleBox(frame.particleBox);
    return EXIT_OK;
}

int run(int argc, char** argv) {
    Args args;
    std::string error;
    const std::vector<OptionSpec> specs = {
        {"--size", 3},      {"--channel", 1, true}, {"--frame", 1},   {"--time-step", 1},
        {"--sim-time", 1},  {"--transform", 12},    {"--comment", 1}, {"-o", 1},
        {"--particles", 1, true}, {"--help"},       {"-h"},
        {"--quant-bits", 1}, {"--quant-step", 1}, {"--passes", 1}, {"--zones", 1}};
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
    long long number;
    if (args.has("--quant-bits")) {
        if (!parseInt(args.value("--quant-bits"), number) || number < -1000 || number > 1000)
            return usageError("pack", "--quant-bits takes a whole number");
        settings.quantBits = static_cast<int>(number);
    }
    if (args.has("--quant-step")) {
        if (!parseFloat(args.value("--quant-step"), d) || !(d >= 0) || d > 1e30)
            return usageError("pack", "--quant-step takes a number of 0 or more");
        settings.quantStep = static_cast<float>(d);
    }
    if (settings.quantBits <= 0 && !(settings.quantStep > 0))
        return usageError("pack", "--quant-bits of 0 or below needs a --quant-step above 0");
    if (args.has("--passes")) {
        if (!parseInt(args.value("--passes"), number) || number < 0 || number > 255)
            return usageError("pack", "--passes takes a whole number from 0 to 255");
        settings.passes = static_cast<int>(number);
    }
    if (args.has("--zones")) {
        if (!parseInt(args.value("--zones"), number) || number < 1 || number > 65535)
            return usageError("pack", "--zones takes a whole number from 1 to 65535");
        settings.zones = static_cast<int>(number);
    }
    uint32_t mask = 0;
    if (args.uses("--channel").empty() && args.uses("--particles").empty())
        return usageError("pack", "give at least one --channel or --particles");
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
    if (const int rc = addParticles(frame, args); rc != EXIT_OK) return rc;
    frame.channelMask = mask;
    const std::string out = cacheOutputPath(args.value("-o"), frame.frameNumber);
    if (frame.WriteVxg(out.c_str(), mask) != LOAD_OK) return failure("pack", "can't write " + out);
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("pack", "write a cache frame from raw float32 channels", run);

}  // namespace vaporix::cli
