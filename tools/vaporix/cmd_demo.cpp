// vaporix demo: procedural sample data (a small rising plume of fire and smoke).
#include <cmath>
#include <cstdio>
#include <vector>

#include "Command.h"
#include "FileOut.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix demo --fields DIR [--frames N] [--size X Y Z]\n"
    "\n"
    "Writes the raw float32 channels of a small procedural fire-and-smoke plume, one file per\n"
    "frame and channel: DIR/plume_<frame>_<channel>.f32 for temperature (1), smoke (2),\n"
    "velocity (4, 5, 6) and fuel (10). `vaporix pack` turns them into cache frames.\n";

/// The channels of one frame of a plume that rises and widens with time.
void plumeFrame(int frame, const int size[3], std::vector<std::vector<float>>& out) {
    const int64_t cells = int64_t(size[0]) * size[1] * size[2];
    for (auto& ch : out) ch.assign(static_cast<size_t>(cells), 0.0f);
    const float t = static_cast<float>(frame);
    const float cx = size[0] * 0.5f, cy = size[1] * 0.5f;
    const float top = size[2] * (0.45f + 0.12f * t);
    for (int z = 0; z < size[2]; ++z) {
        const float h = z / float(size[2]);
        const float radius = size[0] * (0.12f + 0.25f * h);
        for (int y = 0; y < size[1]; ++y) {
            for (int x = 0; x < size[0]; ++x) {
                const int64_t i = x + int64_t(size[0]) * (y + int64_t(size[1]) * z);
                const float dx = x - cx, dy = y - cy;
                const float r = std::sqrt(dx * dx + dy * dy);
                // Turbulence: a few sines that drift upward with the frame.
                const float swirl = 0.15f * std::sin(0.35f * x + 0.2f * z - 0.6f * t) *
                                    std::cos(0.3f * y - 0.25f * z + 0.4f * t);
                const float radial = std::exp(-(r * r) / (radius * radius)) * (1.0f + swirl);
                const float below = z < top ? 1.0f : std::exp(-(z - top) / 4.0f);
                const float core = std::exp(-h * 3.0f);
                out[0][i] = std::max(0.0f, 1800.0f * radial * core * below);   // temperature
                out[1][i] = std::max(0.0f, radial * (0.3f + h) * below);       // smoke
                out[2][i] = -dy * 0.05f * radial;                              // velocity x
                out[3][i] = dx * 0.05f * radial;                               // velocity y
                out[4][i] = 6.0f * radial * below;                             // velocity z
                out[5][i] = h < 0.15f ? radial : 0.0f;                          // fuel
            }
        }
    }
}

int run(int argc, char** argv) {
    Args args;
    std::string error;
    if (!args.parse(argc, argv, 2, {{"--fields", 1}, {"--frames", 1}, {"--size", 3}, {"--help"},
                                    {"-h"}},
                    error))
        return usageError("demo", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (!args.has("--fields")) return usageError("demo", "--fields DIR is required");
    long long frames = 4;
    if (args.has("--frames") && (!parseInt(args.value("--frames"), frames) || frames < 1 ||
                                 frames > 1000))
        return usageError("demo", "--frames takes a number from 1 to 1000");
    int size[3] = {40, 40, 56};
    for (int a = 0; a < 3 && args.has("--size"); ++a) {
        long long v;
        if (!parseInt(args.values("--size")[a], v) || v < 2 || v > 512)
            return usageError("demo", "--size takes three numbers from 2 to 512");
        size[a] = static_cast<int>(v);
    }
    const std::string dir = args.value("--fields");
    static const int ORDINALS[6] = {1, 2, 4, 5, 6, 10};
    std::vector<std::vector<float>> channels(6);
    for (int f = 1; f <= frames; ++f) {
        plumeFrame(f, size, channels);
        for (int k = 0; k < 6; ++k) {
            char name[64];
            std::snprintf(name, sizeof name, "/plume_%04d_%d.f32", f, ORDINALS[k]);
            if (!writeFileAtomically(dir + name, channels[k].data(), channels[k].size() * 4))
                return failure("demo", "can't write into " + dir);
        }
    }
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("demo", "write procedural sample data", run);

}  // namespace vaporix::cli
