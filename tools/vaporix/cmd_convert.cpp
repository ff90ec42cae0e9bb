// vaporix convert: any readable cache frame or sequence to OpenVDB (.vdb) or to our own .vxg.
#include <cstdio>
#include <cstring>

#include "CacheArg.h"
#include "Command.h"
#include "cache/CacheIO.h"
#include "cache/SGCompressor.h"
#include "cache/VaporixFrameData.h"
#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "standalone/TerminalProgress.h"

namespace vaporix::cli {
namespace {

const char* CMD = "convert";

const char* USAGE =
    "usage: vaporix convert IN -o OUT [--frame N] [--channel-map MAP] [--tolerance T] [-q]\n"
    "\n"
    "Writes a cache frame (.vxg, .vdb or .f3d) as OpenVDB (OUT.vdb) or as .vxg (OUT.vxg).\n"
    "OpenVDB files get the grids density (smoke), temperature, fuel, vel (velocity, a vector\n"
    "grid) and Cd (colour, a vector grid), with the frame's transform; index voxel i is grid\n"
    "cell i, centred on it. A .vxg from a foreign cache stores its channels losslessly.\n"
    "With a frame pattern in IN and OUT (smoke_####.vdb -o out_####.vxg) and no --frame, every\n"
    "frame of the sequence is converted, with a progress bar on a terminal.\n"
    "  --frame N          convert only frame N of the pattern IN\n"
    "  --channel-map MAP  for .vdb and .f3d input: \"2,density;1,temperature;\" (default: the\n"
    "                     sequence's default map, see 'vaporix channels')\n"
    "  --tolerance T      OpenVDB output: values within T of 0 stay inactive and leaves with\n"
    "                     nothing else are left out (default 0: only exact zeros)\n"
    "  -q                 no progress bar\n";

/// A foreign frame's expanded channels as lossless streams, in place of the placeholder word.
bool encodeChannels(VaporixFrameData& frame, std::string& error) {
    internal::arrayRelease(frame.comprData);
    frame.comprData = nullptr;
    frame.comprDataSzInts = 0;
    const int64_t cells = frame.getCellCount();
    for (int c = 0; c < CHANNEL_COUNT; ++c) {
        if (!frame.channels[c]) continue;
        SGCompressor<3> codec;
        if (!codec.encodeRaw(frame.channels[c], cells) ||
            !frame.appendStreamBlock(c, codec.output.data,
                                     static_cast<uint64_t>(codec.output.count))) {
            error = "channel " + std::to_string(c) + " can't be encoded";
            return false;
        }
    }
    return true;
}

/// Converts one file. @return EXIT_OK, or EXIT_FAILED after a message.
int convertOne(const std::string& in,
               const std::string& out,
               const std::string& map,
               int32_t frameNumber,
               float tolerance) {
    VaporixFrameData frame;
    const double time = frameNumber == NO_FRAME_NUMBER ? 0.0 : frameNumber;
    const int status = frame.importFile(in.c_str(), map.c_str(), time, true, false, false);
    if (status != LOAD_OK) return failure(CMD, loadFailureText(in, status));
    reportFrameWarnings(CMD, frame);
    const iString outExt = iString(getExtension(out)).lower();
    std::string error;
    if (outExt == "vdb") {
        if (CacheIO::exportVDB(out.c_str(), frame, tolerance, error) != 0)
            return failure(CMD, out + ": " + error);
        return EXIT_OK;
    }
    // .vxg: a frame of our own keeps its streams; a foreign one gets lossless streams.
    const bool ownStreams = iString(getExtension(in)).lower() == "vxg" && frame.comprDataSzInts > 1;
    if (!ownStreams) {
        if (!encodeChannels(frame, error)) return failure(CMD, out + ": " + error);
        if (frameNumber != NO_FRAME_NUMBER) frame.frameNumber = frameNumber;
    }
    if (frame.WriteVxg(out.c_str(), frame.channelMask) != LOAD_OK)
        return failure(CMD, "can't write " + out);
    return EXIT_OK;
}

int run(int argc, char** argv) {
    Args args;
    std::string error;
    if (!args.parse(argc, argv, 2,
                    {{"-o", 1}, frameOption(), channelMapOption(), {"--tolerance", 1}, {"-q"},
                     {"--help"}, {"-h"}},
                    error))
        return usageError(CMD, error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (args.positional.size() != 1) return usageError(CMD, "expected one IN");
    if (!args.has("-o")) return usageError(CMD, "-o OUT is required");
    const std::string out = toNativeSeparators(args.value("-o"));
    const iString outExt = iString(getExtension(out)).lower();
    if (outExt != "vdb" && outExt != "vxg")
        return usageError(CMD, "OUT must end in .vdb or .vxg");
    double tolerance = 0.0;
    if (args.has("--tolerance") &&
        (!parseFloat(args.value("--tolerance"), tolerance) || !(tolerance >= 0.0)))
        return usageError(CMD, "--tolerance takes a number of 0 or more");
    if (outExt == "vdb" && !CacheIO::hasOpenVDBExport())
        return failure(CMD, "the OpenVDB module (openvdbio_lumo.so) is not available");

    const std::string in = args.positional[0];
    const std::string map = channelMapFor(args, in);
    std::string folder, name;
    splitPath(folder, toNativeSeparators(in), name);
    std::string outFolder, outName;
    splitPath(outFolder, out, outName);
    const bool sequence = hasFramePattern(name) && !args.has("--frame");

    if (!sequence) {
        std::string file;
        if (const int rc = resolveCacheArg(CMD, in, args, file); rc != EXIT_OK) return rc;
        long long frame = NO_FRAME_NUMBER;
        if (args.has("--frame")) parseInt(args.value("--frame"), frame);
        const std::string target =
            hasFramePattern(outName) && frame != NO_FRAME_NUMBER
                ? cacheOutputPath(out, static_cast<int32_t>(frame))
                : out;
        return convertOne(file, target, map, static_cast<int32_t>(frame),
                          static_cast<float>(tolerance));
    }

    // A whole sequence: one output file per frame.
    if (!hasFramePattern(outName))
        return usageError(CMD, "converting a sequence needs a frame pattern in OUT");
    const std::vector<SequenceFile> files = listSequence(toNativeSeparators(in));
    if (files.empty()) return failure(CMD, "no file matches " + in);
    InterruptGuard interrupt;
    TerminalProgress progress(files.size(), !args.has("-q") && TerminalProgress::isTerminal(stderr));
    progress.begin();
    uint64_t done = 0;
    for (const SequenceFile& f : files) {
        if (progress.checkAbort()) {
            progress.end();
            return failure(CMD, "interrupted after " + std::to_string(done) + " of " +
                                    std::to_string(files.size()) + " frames");
        }
        if (f.frame == NO_FRAME_NUMBER) continue;
        if (const int rc = convertOne(f.path, cacheOutputPath(out, f.frame), map, f.frame,
                                      static_cast<float>(tolerance));
            rc != EXIT_OK) {
            progress.end();
            return rc;
        }
        progress.setProgress(++done);
    }
    progress.end();
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("convert", "write a cache frame or sequence as OpenVDB or .vxg", run);

}  // namespace vaporix::cli
