// vaporix mesh: the isosurface of a grid channel as a PLY or OBJ mesh in world space.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "CacheArg.h"
#include "Command.h"
#include "FileOut.h"
#include "cache/VaporixFrameData.h"
#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "mesh/MeshIO.h"
#include "mesh/Mesher.h"
#include "standalone/TerminalProgress.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix mesh FILE|PATTERN [--frame F] [--channel N] [--level L] [--smooth N]\n"
    "                    [--solid-below] [--subdivide PIXELS --camera PX PY PZ TX TY TZ FOV W H]\n"
    "                    [--particles GROUP [--particle-offset D]] [--gizmo MESH.obj]\n"
    "                    [--invert-gizmo] [--obj] [-q] -o OUT.ply|OUT.obj\n"
    "\n"
    "Writes the surface where grid channel N (default 1, liquid) crosses level L (default 0.1)\n"
    "as a triangle mesh in world space with vertex normals: binary PLY, or OBJ text when OUT\n"
    "ends in .obj (or with --obj). The surface closes at the grid's borders; its triangles\n"
    "face out of the liquid (values above L; with --solid-below, out of the values below L).\n"
    "Prints the vertex and triangle counts. Cells that are not a number count as outside.\n"
    "\n"
    "--smooth N: N rounds of mesh smoothing and of normal filtering (default 0).\n"
    "--subdivide PIXELS with --camera: splits edges longer than PIXELS on the screen of a\n"
    "camera at P looking at T with a horizontal field of view of FOV degrees and an image of\n"
    "W x H pixels (world units; the grid's transform should not shear).\n"
    "--particles GROUP: the surface is pulled towards the particles of GROUP (needs --smooth 2\n"
    "or more), then moved along the normal by --particle-offset D cells (default 0).\n"
    "--gizmo MESH.obj: a closed mesh in world space that cuts the liquid; only what lies\n"
    "inside it stays (--invert-gizmo: only what lies outside). Cutting uses level 0.5.\n"
    "\n"
    "With a frame pattern and no --frame, every frame of the sequence is meshed, OUT names a\n"
    "pattern too (surface_####.ply), and a progress bar shows on a terminal.\n";

struct Options {
    int channel = 1;
    float level = 0.1f;
    int smooth = 0;
    bool solidBelow = false;
    bool obj = false;
    bool quiet = false;
    float subdivide = 0;
    bool hasCamera = false;
    float camera[9] = {};
    std::string particles;
    float particleOffset = 0;
    std::string gizmoPath;
    bool invertGizmo = false;
};

// An index-space view of a world-space camera (a similarity transform keeps pixel sizes).
bool makeView(const Options& o, const GridTransform& worldToGrid, Mesher::View& view) {
    float pos[3], target[3];
    worldToGrid.apply(o.camera, pos);
    worldToGrid.apply(o.camera + 3, target);
    float fwd[3] = {target[0] - pos[0], target[1] - pos[1], target[2] - pos[2]};
    if (!safeNormalize(fwd)) return false;
    float upWorld[3] = {0, 0, 1}, up[3];
    worldToGrid.applyVector(upWorld, up);
    float right[3] = {fwd[1] * up[2] - fwd[2] * up[1], fwd[2] * up[0] - fwd[0] * up[2],
                      fwd[0] * up[1] - fwd[1] * up[0]};
    if (!safeNormalize(right)) {
        right[0] = 1;
        right[1] = right[2] = 0;
    }
    const float camUp[3] = {right[1] * fwd[2] - right[2] * fwd[1],
                            right[2] * fwd[0] - right[0] * fwd[2],
                            right[0] * fwd[1] - right[1] * fwd[0]};
    const float fovRad = o.camera[6] * 3.14159265f / 180.0f;
    view.width = static_cast<int32_t>(o.camera[7]);
    view.height = static_cast<int32_t>(o.camera[8]);
    view.cx = 0.5f * view.width;
    view.cy = 0.5f * view.height;
    view.fov = fovRad;
    const float focal = view.cx / std::tan(0.5f * fovRad);
    for (int j = 0; j < 3; ++j) {
        view.position[j] = pos[j];
        view.direction[j] = fwd[j];
        view.axis2[j] = camUp[j];
        // Camera space: x right, y up, z forward, in pixels of the focal plane.
        view.worldToCam[j][0] = right[j] * focal;
        view.worldToCam[j][1] = camUp[j] * focal;
        view.worldToCam[j][2] = fwd[j];
        view.camToWorld[0][j] = right[j] / focal;
        view.camToWorld[1][j] = camUp[j] / focal;
        view.camToWorld[2][j] = fwd[j];
        view.camToWorld[3][j] = pos[j];
    }
    for (int c = 0; c < 3; ++c)
        view.worldToCam[3][c] = -(pos[0] * view.worldToCam[0][c] + pos[1] * view.worldToCam[1][c] +
                                  pos[2] * view.worldToCam[2][c]);
    return view.width > 0 && view.height > 0 && fovRad > 0 && fovRad < 3.14f;
}

// The mesher's index-space result in world space, facing out of the liquid.
void toWorld(const Mesher& m, const GridTransform& worldToGrid, const GridTransform& gridToWorld,
             bool solidBelow, TriangleMesh& out) {
    out.positions.resize(static_cast<size_t>(m.vertices.count) * 3);
    out.normals.resize(out.positions.size());
    out.triangles.resize(static_cast<size_t>(m.triangles.count) * 3);
    const float* w = worldToGrid.m;
    const double det = w[0] * (double(w[4]) * w[8] - double(w[5]) * w[7]) -
                       w[1] * (double(w[3]) * w[8] - double(w[5]) * w[6]) +
                       w[2] * (double(w[3]) * w[7] - double(w[4]) * w[6]);
    // The mesher's triangles face away from the cells its map marks: into the liquid, or out of
    // the filled side with solid-below. A mirroring transform turns them once more.
    const bool flip = (!solidBelow) != (det < 0);
    for (int i = 0; i < m.vertices.count; ++i) {
        const auto& v = m.vertices[i];
        gridToWorld.apply(v.pos, &out.positions[3 * static_cast<size_t>(i)]);
        // Normals map with the transpose of world-to-grid's matrix.
        float n[3];
        for (int a = 0; a < 3; ++a)
            n[a] = w[3 * a] * v.normal[0] + w[3 * a + 1] * v.normal[1] + w[3 * a + 2] * v.normal[2];
        if (!safeNormalize(n)) n[0] = n[1] = 0, n[2] = 1;
        // The normal keeps its side through the transform: into the liquid, so turn it.
        const float sign = solidBelow ? 1.0f : -1.0f;
        for (int a = 0; a < 3; ++a) out.normals[3 * static_cast<size_t>(i) + a] = sign * n[a];
    }
    for (int t = 0; t < m.triangles.count; ++t) {
        const auto& tr = m.triangles[t];
        int32_t* o = &out.triangles[3 * static_cast<size_t>(t)];
        o[0] = tr.v[0];
        o[1] = flip ? tr.v[2] : tr.v[1];
        o[2] = flip ? tr.v[1] : tr.v[2];
    }
}

// The gizmo mesh, read once for the whole run.
struct GizmoData {
    TriangleMesh mesh;
    MeshTree* tree = nullptr;
    ~GizmoData() { delete tree; }
};

int meshOne(const std::string& path, const std::string& outPath, const Options& o,
            const GizmoData* gizmo, Mesher& mesher, bool printCounts) {
    VaporixFrameData frame;
    const int status = frame.importFile(path.c_str(), "", 0, true, false, false);
    if (status != LOAD_OK)
        return failure("mesh", path + ": " + loadStatusText(status) + " (status " +
                                   std::to_string(status) + ")");
    if (!frame.HasChannel(o.channel))
        return failure("mesh", path + " has no channel " + std::to_string(o.channel));
    const float* data = frame.GetChannelData(o.channel);
    if (!data)
        return failure("mesh", "channel " + std::to_string(o.channel) + " of " + path +
                                   " can't be expanded (damaged data)");
    GridTransform gridToWorld;
    if (!frame.gridTransform.inverse(gridToWorld))
        return failure("mesh", path + ": the grid's transform can't be inverted");

    Mesher::MesherParams params;
    for (int a = 0; a < 3; ++a) params.gridSize[a] = frame.gridSize[a];
    params.level = Mesher::closedLevel(o.solidBelow);
    params.hasDisplacement = false;
    params.uwGlasses = false;
    if (o.subdivide > 0) {
        // The screen-adaptive split runs on the ocean's path, with no displacement map.
        if (!makeView(o, frame.gridTransform, params.view))
            return usageError("mesh", "--camera needs a position apart from its target, a field "
                                      "of view between 0 and 180 degrees and an image size");
        params.ocean = true;
        params.hasDisplacement = true;
        params.edgePixels = o.subdivide;
    }
    Mesher::MesherParticles prt;
    if (!o.particles.empty()) {
        auto* group = static_cast<PGroup*>(frame.FindParticleGroup(o.particles));
        if (!group) return failure("mesh", path + " has no particle group " + o.particles);
        const ChannelData& cd = group->channelData[PRT_POSITION];
        if (cd.expanded.count < static_cast<long long>(group->count) * 12)
            return failure("mesh", "the positions of group " + o.particles + " can't be expanded");
        prt.points = reinterpret_cast<const float*>(cd.expanded.data);
        prt.count = group->count;
        prt.offset = o.particleOffset;
    }
    Mesher::Gizmo giz;
    if (gizmo) {
        giz.tree = gizmo->tree;
        giz.invert = o.invertGizmo;
        // Index space is the frame's grid space: grid to world, and the gizmo is in world.
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 3; ++c) giz.gridObjToWorld[r][c] = gridToWorld.m[3 * r + c];
    }
    const int size[3] = {frame.gridSize[0], frame.gridSize[1], frame.gridSize[2]};
    const float iso = gizmo ? 0.5f : o.level;
    if (!mesher.build(data, size, iso, params, o.solidBelow, o.smooth, true,
                      prt.points ? &prt : nullptr, gizmo ? &giz : nullptr))
        return failure("mesh", path + ": " + mesher.error);

    TriangleMesh out;
    try {
        toWorld(mesher, frame.gridTransform, gridToWorld, o.solidBelow, out);
    } catch (const std::bad_alloc&) {
        return failure("mesh", "out of memory");
    }
    std::string bytes;
    const bool ok = o.obj ? writeObj(out, bytes) : writePly(out, bytes);
    if (!ok) return failure("mesh", "out of memory");
    if (!writeFileAtomically(outPath, bytes.data(), bytes.size()))
        return failure("mesh", "can't write " + outPath);
    if (printCounts)
        std::printf("%s: %d vertices, %d triangles\n", outPath.c_str(), out.vertexCount(),
                    out.triangleCount());
    return EXIT_OK;
}

bool endsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

int run(int argc, char** argv) {
    Args args;
    std::string error;
    const std::vector<OptionSpec> specs = {
        frameOption(),     {"--channel", 1},   {"--level", 1},      {"--smooth", 1},
        {"--solid-below"}, {"--subdivide", 1}, {"--camera", 9},     {"--particles", 1},
        {"--particle-offset", 1}, {"--gizmo", 1}, {"--invert-gizmo"}, {"--obj"},
        {"-q"},            {"-o", 1},          {"--help"},          {"-h"}};
    if (!args.parse(argc, argv, 2, specs, error)) return usageError("mesh", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (args.positional.size() != 1) return usageError("mesh", "expected one FILE or PATTERN");
    if (!args.has("-o")) return usageError("mesh", "-o OUT.ply|OUT.obj is required");

    Options o;
    long long n;
    double d;
    if (args.has("--channel")) {
        if (!parseInt(args.value("--channel"), n) || n < 0 || n >= CHANNEL_COUNT)
            return usageError("mesh", "--channel needs an ordinal from 0 to 31");
        o.channel = static_cast<int>(n);
    }
    if (args.has("--level")) {
        if (!parseFloat(args.value("--level"), d) || !std::isfinite(d) || std::fabs(d) > 3e38)
            return usageError("mesh", "--level takes a number");
        o.level = static_cast<float>(d);
    }
    if (args.has("--smooth")) {
        if (!parseInt(args.value("--smooth"), n) || n < 0 || n > 1000)
            return usageError("mesh", "--smooth takes a whole number from 0 to 1000");
        o.smooth = static_cast<int>(n);
    }
    o.solidBelow = args.has("--solid-below");
    o.quiet = args.has("-q");
    o.obj = args.has("--obj") || endsWith(args.value("-o"), ".obj") || endsWith(args.value("-o"), ".OBJ");
    if (args.has("--subdivide")) {
        if (!parseFloat(args.value("--subdivide"), d) || !(d > 0) || d > 1e6)
            return usageError("mesh", "--subdivide takes a number of pixels above 0");
        if (!args.has("--camera")) return usageError("mesh", "--subdivide needs --camera");
        o.subdivide = static_cast<float>(d);
        // Edges above one pixel are never split: the split runs for thresholds below 1.
        if (o.subdivide >= 0.999f)
            std::fprintf(stderr, "vaporix mesh: --subdivide %s: only thresholds below 1 pixel "
                                 "split edges\n", args.value("--subdivide").c_str());
    }
    if (args.has("--camera")) {
        for (int k = 0; k < 9; ++k) {
            if (!parseFloat(args.values("--camera")[k], d) || !std::isfinite(d))
                return usageError("mesh", "--camera takes 9 numbers");
            o.camera[k] = static_cast<float>(d);
        }
        o.hasCamera = true;
    }
    o.particles = args.value("--particles");
    if (args.has("--particle-offset")) {
        if (!parseFloat(args.value("--particle-offset"), d) || !std::isfinite(d))
            return usageError("mesh", "--particle-offset takes a number");
        o.particleOffset = static_cast<float>(d);
    }
    o.invertGizmo = args.has("--invert-gizmo");

    // The gizmo: a closed mesh, or the cut has no inside to keep.
    GizmoData gizmo;
    if (args.has("--gizmo")) {
        std::vector<uint8_t> text;
        const std::string gp = args.value("--gizmo");
        if (!readWholeFile(gp, text)) return failure("mesh", "can't read " + gp);
        if (readObj(reinterpret_cast<const char*>(text.data()), text.size(), gizmo.mesh, error) != OBJ_OK)
            return failure("mesh", gp + ": " + error);
        int open, overused;
        gizmo.mesh.countBadEdges(open, overused);
        if (open || overused)
            return failure("mesh", gp + ": the gizmo mesh is not closed (" + std::to_string(open) +
                                       " open edges, " + std::to_string(overused) +
                                       " edges shared by more than two faces)");
        gizmo.tree = new MeshTree(gizmo.mesh);
        if (!gizmo.tree->isBuilt()) return failure("mesh", "out of memory for the gizmo's tree");
    }
    const GizmoData* gz = gizmo.tree ? &gizmo : nullptr;

    Mesher mesher;
    mesher.keepScratch = true;  // frames of a sequence reuse the padded map
    const std::string input = args.positional[0];
    if (!hasFramePattern(input) || args.has("--frame")) {
        std::string path;
        if (const int rc = resolveCacheArg("mesh", input, args, path); rc != EXIT_OK) return rc;
        return meshOne(path, args.value("-o"), o, gz, mesher, !o.quiet);
    }

    // A whole sequence, frame by frame.
    std::vector<SequenceFile> files = listSequence(input);
    if (files.empty()) return failure("mesh", "no files match " + input);
    if (!hasFramePattern(args.value("-o")))
        return usageError("mesh", "meshing a sequence needs an output pattern (surface_####.ply)");
    std::sort(files.begin(), files.end(), [](const SequenceFile& a, const SequenceFile& b) {
        return a.frame != b.frame ? a.frame < b.frame : a.path < b.path;
    });
    InterruptGuard guard;
    TerminalProgress progress(files.size(), !o.quiet && TerminalProgress::isTerminal(stderr));
    progress.begin();
    int done = 0;
    for (const auto& f : files) {
        if (progress.checkAbort()) {
            progress.end();
            return failure("mesh", "interrupted after " + std::to_string(done) + " frame(s)");
        }
        const int rc = meshOne(f.path, cacheOutputPath(args.value("-o"), f.frame), o, gz, mesher,
                               !o.quiet);
        if (rc != EXIT_OK) {
            progress.end();
            return rc;
        }
        progress.setProgress(++done);
    }
    progress.end();
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("mesh", "the surface of a grid channel as a PLY or OBJ mesh", run);

}  // namespace vaporix::cli
