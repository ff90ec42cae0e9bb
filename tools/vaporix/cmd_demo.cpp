// vaporix demo: the built-in fire-and-smoke sample, written as a cache sequence and rendered.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "Command.h"
#include "FileOut.h"
#include "foundation/FramePattern.h"
#include "playback/ParamJson.h"
#include "standalone/DemoSequence.h"
#include "standalone/GridObject.h"
#include "standalone/ImageIO.h"
#include "standalone/Renderer.h"
#include "standalone/TerminalProgress.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix demo [--out DIR] [--frames N] [--size X Y Z] [--image-size W H]\n"
    "                    [--threads N] [--no-render] [-q]\n"
    "\n"
    "Writes the built-in sample, a procedural and deterministic fire-and-smoke sequence, as\n"
    "DIR/fire_####.vxg (frames 1 to N): fuel burning over a burner into heat and smoke, carried\n"
    "by a rising, swirling flow. Channels: temperature (1), smoke (2), velocity (4, 5, 6, in\n"
    "cells per second) and fuel (10); cells of one world unit, the grid centred on the origin\n"
    "and standing on z = 0, frames 1/30 s apart. Then renders a third of the way, two thirds\n"
    "and the last frame to DIR/fire_####.png (and the last also to DIR/fire_####.exr), with\n"
    "the look saved in DIR/fire_look.json; then the last frame once more with motion blur along\n"
    "its velocity to DIR/fire_####_blur.png; and prints the paths of the images.\n"
    "  --out DIR          output folder (default out/demo)\n"
    "  --frames N         frames to write (default 12)\n"
    "  --size X Y Z       cells along x, y and z, z up (default 96 96 128)\n"
    "  --image-size W H   image size in pixels (default 480 640)\n"
    "  --threads N        threads (default: all; the files and images are the same for any count)\n"
    "  --no-render        write the sequence only\n"
    "  -q                 quiet: no progress bar\n";

/// The look of the sample: dark smoke, dense enough to shadow itself; physically based fire
/// (black-body colour and brightness, the defaults) scaled down to keep its hot core from
/// burning out to white. Everything else keeps its default.
const char* const DEMO_LOOK[] = {
    "smoketransp=0.35",
    "simple_color=0.12,0.12,0.12",
    "emult=0.05",
};

/// A key light from the left of the default view (which looks from the front right, above),
/// a little above the horizon, so that the smoke is lit on one side and shadowed on the other;
/// and a little cool ambient light in the shadows.
const char* const DEMO_LIGHTS[] = {
    "directional:0.87,0.48,-0.3:1,0.96,0.9:2.5",
    "ambient:0.6,0.7,1:0.1",
};

/// A dull blue-grey sky behind the sample (linear), against which the smoke reads as dark.
constexpr float DEMO_BACKGROUND[3] = {0.1f, 0.115f, 0.145f};

/// Camera rays per pixel of the motion-blurred image: each takes its own time in the shutter.
constexpr int DEMO_BLUR_SAMPLES = 8;

/// The frames to render: a third of the way, two thirds, and the last (12 frames: 4, 8, 12).
std::vector<int> framesToRender(int frames) {
    std::vector<int> out;
    for (int k = 1; k <= 3; ++k) {
        const int f = (frames * k + 2) / 3;
        if (f >= 1 && (out.empty() || out.back() != f)) out.push_back(f);
    }
    return out;
}

/// Renders frame `f` of the written sequence. PNG images get an opaque alpha, as the
/// background is part of the picture; the OpenEXR image keeps the volume's alpha.
int renderFrame(const std::string& pattern,
                int f,
                int width,
                int height,
                int threads,
                bool quiet,
                const std::vector<std::string>& images,
                std::string& lookFile,
                bool motionBlur = false) {
    const char* CMD = "demo";
    std::string error;
    GridObject object;
    if (object.loadFrame(pattern, f, error) != LOAD_OK) return failure(CMD, error);
    for (const char* setting : DEMO_LOOK)
        if (!object.applySetting(setting, error)) return failure(CMD, error);
    // Motion blur: the frame's own velocity over half a frame (the default shutter), each pixel
    // taking eight times spread over it.
    object.motionBlur = motionBlur;
    object.threads = threads > 0 ? threads : -1;
    if (!object.prepare(error))
        return failure(CMD, error == "cancelled" ? "interrupted; no image written" : error);
    if (!lookFile.empty()) {
        const std::string doc = writeParamsDocument(object.storage(), true);
        if (!writeFileAtomically(lookFile, doc.data(), doc.size()))
            return failure(CMD, "can't write " + lookFile);
        lookFile.clear();
    }

    RenderSettings settings;
    settings.width = width;
    settings.height = height;
    settings.threads = threads > 0 ? threads : 0;
    settings.frameSeed = static_cast<uint32_t>(f);
    settings.motionBlur = motionBlur;
    if (motionBlur) settings.samples = DEMO_BLUR_SAMPLES;
    for (int c = 0; c < 3; ++c) settings.background[c] = DEMO_BACKGROUND[c];
    for (const char* text : DEMO_LIGHTS) {
        Light light;
        if (!parseLight(text, light, error)) return failure(CMD, error);
        settings.lights.push_back(light);
    }
    std::vector<GridObject*> objects{&object};
    if (!applyDefaultView(settings, objects)) return failure(CMD, "the sample grid is empty");

    Image image;
    int result;
    {
        TerminalProgress progress(static_cast<uint64_t>(width) * height,
                                  !quiet && TerminalProgress::isTerminal(stderr));
        result = renderImage(settings, objects, image, &progress, &error);
    }
    if (result == RENDER_ABORTED) return failure(CMD, "interrupted; no image written");
    if (result != RENDER_OK) return failure(CMD, error);
    for (const std::string& path : images)
        if (!writeImage(path, image, error, true)) return failure(CMD, error);
    return EXIT_OK;
}

int run(int argc, char** argv) {
    const char* CMD = "demo";
    InterruptGuard interrupt;
    Args args;
    std::string error;
    if (!args.parse(argc, argv, 2,
                    {{"--out", 1},
                     {"--frames", 1},
                     {"--size", 3},
                     {"--image-size", 2},
                     {"--threads", 1},
                     {"--no-render"},
                     {"-q"},
                     {"--help"},
                     {"-h"}},
                    error))
        return usageError(CMD, error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (!args.positional.empty()) return usageError(CMD, "unexpected " + args.positional[0]);

    DemoSettings demo;
    long long number;
    if (args.has("--frames")) {
        if (!parseInt(args.value("--frames"), number) || number < 1 || number > 1000)
            return usageError(CMD, "--frames takes a whole number from 1 to 1000");
        demo.frames = static_cast<int>(number);
    }
    for (int a = 0; a < 3 && args.has("--size"); ++a) {
        if (!parseInt(args.values("--size")[a], number) || number < DEMO_MIN_AXIS ||
            number > DEMO_MAX_AXIS)
            return usageError(CMD, "--size takes three whole numbers from " +
                                       std::to_string(DEMO_MIN_AXIS) + " to " +
                                       std::to_string(DEMO_MAX_AXIS));
        demo.size[a] = static_cast<int>(number);
    }
    int width = 480, height = 640;
    if (args.has("--image-size")) {
        long long w = 0, h = 0;
        if (!parseInt(args.values("--image-size")[0], w) ||
            !parseInt(args.values("--image-size")[1], h) || w < 1 || h < 1 || w > Image::MAX_SIZE ||
            h > Image::MAX_SIZE)
            return usageError(CMD, "--image-size takes two whole numbers from 1 to " +
                                       std::to_string(Image::MAX_SIZE));
        width = static_cast<int>(w);
        height = static_cast<int>(h);
    }
    if (args.has("--threads")) {
        if (!parseInt(args.value("--threads"), number) || number < 1 || number > 1024)
            return usageError(CMD, "--threads takes a whole number from 1 to 1024");
        demo.threads = static_cast<int>(number);
    }
    const bool quiet = args.has("-q");
    std::string dir = args.value("--out", "out/demo");
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();

    // The sequence.
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::string> paths;
    struct Stop : ProgressCallback {
        int checkAbort() override { return InterruptGuard::interruptRequested() ? 1 : 0; }
    } stop;
    if (!DemoSequence::writeSequence(demo, dir, paths, error, &stop))
        return failure(CMD, error == "stopped" ? "interrupted" : error);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("Wrote %d frames of %dx%dx%d cells in %.1f s: %s\n", demo.frames, demo.size[0],
                demo.size[1], demo.size[2], seconds, (dir + "/" + DEMO_FILE_PATTERN).c_str());
    std::fflush(stdout);
    if (args.has("--no-render")) return EXIT_OK;

    // The images.
    const std::string pattern = dir + "/" + DEMO_FILE_PATTERN;
    const std::vector<int> frames = framesToRender(demo.frames);
    std::string lookFile = dir + "/fire_look.json";
    const std::string lookPath = lookFile;
    std::vector<std::string> written;
    for (int f : frames) {
        std::vector<std::string> images{expandFramePattern(dir + "/fire_####.png", f)};
        if (f == frames.back()) images.push_back(expandFramePattern(dir + "/fire_####.exr", f));
        const auto t0 = std::chrono::steady_clock::now();
        if (int status =
                renderFrame(pattern, f, width, height, demo.threads, quiet, images, lookFile);
            status != EXIT_OK)
            return status;
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        for (const std::string& path : images) {
            std::printf("Rendered frame %d (%dx%d, %.1f s): %s\n", f, width, height, s,
                        path.c_str());
            written.push_back(path);
        }
        std::fflush(stdout);
    }
    // The last frame once more, blurred along the flow's own motion.
    {
        const int f = frames.back();
        const std::vector<std::string> images{expandFramePattern(dir + "/fire_####_blur.png", f)};
        const auto t0 = std::chrono::steady_clock::now();
        if (int status = renderFrame(pattern, f, width, height, demo.threads, quiet, images,
                                     lookFile, true);
            status != EXIT_OK)
            return status;
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        std::printf("Rendered frame %d with motion blur (%dx%d, %.1f s): %s\n", f, width, height,
                    s, images[0].c_str());
        std::fflush(stdout);
    }
    std::printf("Look of the images: %s (vaporix render %s --frame N --params %s -o OUT.png)\n",
                lookPath.c_str(), pattern.c_str(), lookPath.c_str());
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("demo", "write and render the built-in fire-and-smoke sample", run);

}  // namespace vaporix::cli
