// vaporix render: one cache frame rendered by the stand-alone renderer to PNG or OpenEXR.
#include <chrono>
#include <algorithm>
#include <cmath>
#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "CacheArg.h"
#include "Playback.h"
#include "Command.h"
#include "foundation/FramePattern.h"
#include "render/Texture.h"
#include "standalone/GridObject.h"
#include "standalone/ImageIO.h"
#include "standalone/Renderer.h"
#include "standalone/TerminalProgress.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix render FILE|PATTERN [--frame F] [--fps N] [--params FILE.json]\n"
    "                      [--set NAME=VALUE]... [--channel-map MAP]\n"
    "                      [--camera PX PY PZ TX TY TZ FOV] [--light LIGHT]... [--size W H]\n"
    "                      [--samples N] [--threads N] [--seed N] [--ground]\n"
    "                      [--background R G B] [--motion-blur [--shutter OPEN CLOSE]]\n"
    "                      [--texture SLOT=SPEC]... [-q] -o OUT.png|OUT.exr\n"
    "\n"
    "Renders one cache frame with the volume shader. Without --camera the camera frames the\n"
    "grid's box from a three-quarter view (front right, above); without --light one white key\n"
    "light shines from the front left above, with a little ambient light. The world is Z-up.\n"
    "  --frame F          the scene frame F (may be fractional), mapped to cache frames by the\n"
    "                     playback parameters (play_speed, inpoffset, playat, inplength, t2f,\n"
    "                     animmode, loopjnt, frmblend, loadnearest, smoothing); with the\n"
    "                     defaults scene frame N is cache frame N (default: the sequence's\n"
    "                     first frame)\n"
    "  --fps N            scene frames a second (default 30)\n"
    "  --channel-map MAP  for .vdb and .f3d: \"2,density;1,temperature;\" (default: the\n"
    "                     sequence's default map, see 'vaporix channels')\n"
    "  --params FILE.json a parameter set, as 'vaporix params --save' writes it\n"
    "  --set NAME=VALUE   set a parameter after --params (repeatable; forms as in\n"
    "                     'vaporix params --help')\n"
    "  --camera PX PY PZ TX TY TZ FOV\n"
    "                     camera position, target and vertical field of view in degrees\n"
    "  --light LIGHT      a light (repeatable); numbers comma-separated, parts by colons:\n"
    "                       directional:DX,DY,DZ[:R,G,B[:I]]   DX,DY,DZ the way the light travels\n"
    "                       point:X,Y,Z[:R,G,B[:I]]\n"
    "                       spot:X,Y,Z:TX,TY,TZ:ANGLE[,FALLOFF][:R,G,B[:I]]\n"
    "                       ambient:R,G,B[:I]\n"
    "                     colour default white, intensity I default 1; point and spot lights\n"
    "                     fall off with the squared distance, and without I they deliver their\n"
    "                     colour at the centre of the grid; a spot's ANGLE is its full cone (the\n"
    "                     outer fifth soft), or with FALLOFF the hotspot inside FALLOFF\n"
    "  --size W H         image size in pixels (default 640 360)\n"
    "  --samples N        camera rays per pixel, jittered when above 1 (default 1)\n"
    "  --threads N        render threads (default: all; the image is the same for any count)\n"
    "  --seed N           seed of the pixels' random numbers (default: the frame number)\n"
    "  --ground           a grey ground plane at the bottom of the grid that catches shadows\n"
    "  --background R G B linear background colour (default 0 0 0); with it, or with --ground,\n"
    "                     the PNG is opaque\n"
    "  --motion-blur      blur the volume along its velocity channels over the shutter; each\n"
    "                     camera ray of a pixel takes its own time in it (use --samples)\n"
    "  --shutter OPEN CLOSE\n"
    "                     the shutter as fractions of a frame (default 0 0.5)\n"
    "  --texture SLOT=SPEC a procedural texture in a slot (repeatable): SLOT is etxt, dtxt,\n"
    "                     ttxt, stex, displ0, displ1 or displ2; SPEC is KIND[:KEY=VALUE,...]:\n"
    "                       noise, turbulence  scale offset drift low high octaves lacunarity\n"
    "                                          gain seed\n"
    "                       cellular           scale offset drift low high jitter seed\n"
    "                       constant           value\n"
    "                     a value of three numbers is written X,Y,Z (noise:scale=2,octaves=4,\n"
    "                     offset=0,0,1); the slot's parameter (earg 4, displacement, ...)\n"
    "                     decides what it is used for\n"
    "  -q                 quiet: no progress bar and no summary\n"
    "  -o OUT             the image: .png (8 bits, gamma 2.2, RGBA) or .exr (half floats,\n"
    "                     linear: R G B A, volume.R/G/B, transmittance.R/G/B)\n"
    "\n"
    "Ctrl-C stops the render; no image is written then (exit status 1).\n";

bool parseNumbers(const std::vector<std::string>& values, double* out) {
    for (size_t k = 0; k < values.size(); ++k)
        if (!parseFloat(values[k], out[k])) return false;
    return true;
}

int run(int argc, char** argv) {
    const char* CMD = "render";
    // From the start: a Ctrl-C while the frame loads stops the render before its first tile.
    InterruptGuard interrupt;
    Args args;
    std::string error;
    if (!args.parse(argc, argv, 2,
                    {frameOption(),
                     {"--fps", 1},
                     channelMapOption(),
                     {"--params", 1},
                     {"--set", 1, true},
                     {"--camera", 7},
                     {"--light", 1, true},
                     {"--size", 2},
                     {"--samples", 1},
                     {"--threads", 1},
                     {"--seed", 1},
                     {"--ground"},
                     {"--background", 3},
                     {"--motion-blur"},
                     {"--shutter", 2},
                     {"--texture", 1, true},
                     {"-q"},
                     {"-o", 1},
                     {"--help"},
                     {"-h"}},
                    error))
        return usageError(CMD, error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }

    // The whole command line is checked before anything is read.
    if (args.positional.empty()) return usageError(CMD, "a cache file or pattern is required");
    if (args.positional.size() > 1) return usageError(CMD, "unexpected " + args.positional[1]);
    if (!args.has("-o")) return usageError(CMD, "-o OUT.png|OUT.exr is required");
    const std::string outPath = args.value("-o");
    if (!isImageFileName(outPath)) return usageError(CMD, "-o takes a name ending in .png or .exr");

    RenderSettings settings;
    long long number = 0;
    double d[7];
    if (args.has("--size")) {
        long long w = 0, h = 0;
        if (!parseInt(args.values("--size")[0], w) || !parseInt(args.values("--size")[1], h) ||
            w < 1 || h < 1 || w > Image::MAX_SIZE || h > Image::MAX_SIZE)
            return usageError(
                CMD, "--size takes two whole numbers from 1 to " + std::to_string(Image::MAX_SIZE));
        settings.width = static_cast<int>(w);
        settings.height = static_cast<int>(h);
    }
    if (args.has("--samples")) {
        if (!parseInt(args.value("--samples"), number) || number < 1 || number > 4096)
            return usageError(CMD, "--samples takes a whole number from 1 to 4096");
        settings.samples = static_cast<int>(number);
    }
    if (args.has("--threads")) {
        if (!parseInt(args.value("--threads"), number) || number < 1 || number > 1024)
            return usageError(CMD, "--threads takes a whole number from 1 to 1024");
        settings.threads = static_cast<int>(number);
    }
    const bool haveSeed = args.has("--seed");
    if (haveSeed) {
        if (!parseInt(args.value("--seed"), number) || number < 0 || number > UINT32_MAX)
            return usageError(CMD, "--seed takes a whole number from 0 to 4294967295");
        settings.frameSeed = static_cast<uint32_t>(number);
    }
    if (args.has("--background")) {
        if (!parseNumbers(args.values("--background"), d))
            return usageError(CMD, "--background takes three numbers R G B");
        for (int c = 0; c < 3; ++c) settings.background[c] = static_cast<float>(d[c]);
    }
    settings.ground.enabled = args.has("--ground");
    for (const auto& use : args.uses("--light")) {
        Light light;
        if (!parseLight(use[0], light, error)) return usageError(CMD, error);
        settings.lights.push_back(light);
    }
    const bool haveCamera = args.has("--camera");
    if (haveCamera) {
        if (!parseNumbers(args.values("--camera"), d))
            return usageError(CMD, "--camera takes seven numbers PX PY PZ TX TY TZ FOV");
        for (int a = 0; a < 3; ++a) {
            settings.camera.position[a] = d[a];
            settings.camera.target[a] = d[3 + a];
        }
        settings.camera.fov = d[6];
        Camera probe = settings.camera;
        if (!probe.prepare(settings.width, settings.height, &error))
            return usageError(CMD, "--camera: " + error);
    }
    const bool quiet = args.has("-q");
    float shutter[2] = {0.0f, 0.5f};
    if (args.has("--shutter")) {
        if (!args.has("--motion-blur")) return usageError(CMD, "--shutter needs --motion-blur");
        if (!parseNumbers(args.values("--shutter"), d) || d[0] < -1.0 || d[1] > 1.0 ||
            d[0] > d[1])
            return usageError(CMD,
                              "--shutter takes two fractions of a frame OPEN <= CLOSE, "
                              "from -1 to 1");
        shutter[0] = static_cast<float>(d[0]);
        shutter[1] = static_cast<float>(d[1]);
    }
    // Texture descriptions are checked before the frame is read.
    std::vector<std::pair<std::string, std::string>> textures;
    for (const auto& use : args.uses("--texture")) {
        const std::string& text = use[0];
        const size_t eq = text.find('=');
        const std::string slot = text.substr(0, eq);
        if (eq == std::string::npos || textureSlotOf(slot) < 0)
            return usageError(CMD, "--texture takes SLOT=SPEC with SLOT one of etxt, dtxt, ttxt, "
                                   "stex, displ0, displ1, displ2");
        if (!parseTextureSpec(text.substr(eq + 1), error))
            return usageError(CMD, "--texture " + slot + ": " + error);
        textures.emplace_back(slot, text.substr(eq + 1));
    }
    // A texture slot set with --set is a description on the command line too.
    for (const auto& use : args.uses("--set")) {
        const std::string& text = use[0];
        const size_t eq = text.find('=');
        const std::string name = text.substr(0, std::min(eq, text.find_first_of("[@")));
        if (eq == std::string::npos || textureSlotOf(name) < 0) continue;
        const std::string description = text.substr(eq + 1);
        if (!description.empty() && !parseTextureSpec(description, error))
            return usageError(CMD, "--set " + name + ": " + error);
    }

    // The frame and its look: the parameters first, since playback maps --frame with them.
    CliPlayback playback;
    VaporixFrameData own;
    VaporixFrameData* shown = nullptr;
    std::string file;
    if (const int rc =
            loadCacheArgFrame(CMD, args.positional[0], args, false, playback, own, shown, file);
        rc != EXIT_OK)
        return rc;
    // The parameter time: the scene frame; without one, frame 0 of a sequence or the frame
    // number of a plain file.
    double sceneFrame = 0;
    std::string folder, name;
    splitPath(folder, toNativeSeparators(args.positional[0]), name);
    if (args.has("--frame"))
        parseFloat(args.value("--frame"), sceneFrame);  // checked above
    else if (!hasFramePattern(name))
        sceneFrame = shown->frameNumber;
    GridObject& object = playback.object();
    object.setFrame(shown, static_cast<int>(std::lround(sceneFrame)));
    for (const auto& [slot, description] : textures)
        object.params().setString(slot.c_str(), 0, description);
    object.motionBlur = args.has("--motion-blur");
    object.shutterOpen = shutter[0];
    object.shutterClose = shutter[1];
    object.threads = settings.threads > 0 ? settings.threads : -1;
    settings.motionBlur = object.motionBlur;
    {
        const bool bar = object.motionBlur && !quiet && TerminalProgress::isTerminal(stderr);
        TerminalProgress progress(static_cast<uint64_t>(object.frame()->getCellCount()), bar);
        object.progress = &progress;
        const bool prepared = object.prepare(error);
        object.progress = nullptr;
        if (!prepared) {
            if (error == "cancelled") return failure(CMD, "interrupted; no image written");
            return failure(CMD, file + ": " + error);
        }
    }
    for (const std::string& w : object.prepareWarnings)
        std::fprintf(stderr, "vaporix render: %s\n", w.c_str());

    // The view: what the command line leaves open comes from the default view.
    std::vector<GridObject*> objects{&object};
    RenderSettings view = settings;
    if (!applyDefaultView(view, objects)) return failure(CMD, file + ": the grid is empty");
    if (!haveCamera) settings.camera = view.camera;
    if (settings.lights.empty()) settings.lights = view.lights;
    settings.ground.height = view.ground.height;
    if (!haveSeed) settings.frameSeed = static_cast<uint32_t>(object.time() / TICKS_PER_FRAME);

    // The render, stoppable with Ctrl-C.
    const auto start = std::chrono::steady_clock::now();
    Image image;
    int result;
    {
        TerminalProgress progress(static_cast<uint64_t>(settings.width) * settings.height,
                                  !quiet && TerminalProgress::isTerminal(stderr));
        result = renderImage(settings, objects, image, &progress, &error);
    }
    if (result == RENDER_ABORTED) return failure(CMD, "interrupted; no image written");
    if (result != RENDER_OK) return failure(CMD, error);
    // A background or ground asked for is part of the picture: the PNG is opaque then.
    const bool opaque = args.has("--background") || args.has("--ground");
    if (!writeImage(outPath, image, error, opaque)) return failure(CMD, error);
    if (!quiet) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fprintf(stderr, "vaporix render: wrote %s (%dx%d, %.1f s)\n", outPath.c_str(),
                     settings.width, settings.height, seconds);
    }
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("render", "render a cache frame to a PNG or OpenEXR image", run);

}  // namespace vaporix::cli
