// Marching-cubes mesher of one scalar grid: padded border, interest map, gizmo cutter, smoothing,
// normals, displacement and the screen-adaptive subdivision of the ocean.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/MTJobs.h"
#include "foundation/iArray.h"
#include "foundation/iKDTree.h"

namespace vaporix {

/// Turns one scalar grid into a triangle mesh in grid index space (cell (i, j, k) at (i, j, k)).
///
///     Mesher::MesherParams params;            // or a subclass with its own displace()
///     params.gridSize = {nx, ny, nz};
///     params.level = Mesher::closedLevel(false);
///     Mesher mesher;
///     mesher.build(field, size, 0.5f, params, false, 2, true, nullptr, nullptr);
///     // mesher.vertices, mesher.triangles
///
/// Merges of per-job lists follow the order of the jobs' spans, so the mesh (vertex order
/// included) is the same for any number of threads.
class Mesher : public MTJobs {
public:
    struct UVertex {
        float pos[3];
        /// The normal; scratch for the new position while smoothing.
        float normal[3];
        int32_t sharp;
        /// The triangles around the vertex, in the adjacency pool.
        int32_t* triangles;
        int32_t numTriangles;
    };
    struct UTriangle {
        int32_t v[3];
    };

    /// Camera of the frame, in grid index space; camera space looks along +z, x right, y up.
    struct View {
        int32_t width = 0, height = 0;
        float position[3] = {0, 0, 0};
        float direction[3] = {0, 0, -1};
        float axis2[3] = {0, 1, 0};
        bool spherical = false;
        float fov = 1.0f;
        float cx = 0, cy = 0;
        /// World-to-camera: 3 x 3 rows and a translation row (row vectors: q = p * M + t).
        float worldToCam[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};
        float camToWorld[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};

        /// Pixel position and depth of point `p`. @return whether it is in view.
        bool project(const float p[3], float out[3]) const;
        /// The (unnormalised) direction of the camera ray through pixel (x, y).
        void pixelRay(float x, float y, float dir[3]) const;
    };

    /// What the caller sets for one build; `displace` is the displacement map.
    class MesherParams {
    public:
        virtual ~MesherParams() = default;
        /// Displacement at `point` (index space) into `result`; job `jobIndex` calls it.
        virtual void displace(float result[3], const float point[3], int jobIndex);

        View view;
        bool uwGlasses = true;
        bool ocean = false;
        /// Extension of the ocean to the horizon; its hook runs but adds nothing yet.
        bool extend = false;
        int32_t gridSize[3] = {0, 0, 0};
        int32_t clampBox[6] = {2147483647, 2147483647, 2147483647,
                               -2147483647 - 1, -2147483647 - 1, -2147483647 - 1};
        int32_t upAxis = 2;
        /// Water level along `upAxis` in index units.
        float level = -10000.0f;
        float gridToWorld[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};
        float worldToGrid[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};
        float objToWorld[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};
        float worldToObj[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};
        /// Largest edge on screen in pixels.
        float edgePixels = 1.0f;
        bool hasDisplacement = true;
        bool scalarDisplacement = false;
        float displMul = 0.0f;
    };

    struct MesherParticles {
        const float* points = nullptr;  // three floats a particle, grid coordinates
        float offset = 0.0f;
        int64_t count = 0;
    };

    /// A closed mesh that cuts the field; the tree holds its triangles in gizmo space.
    struct Gizmo {
        const iKDTree* tree = nullptr;
        bool invert = false;
        float gizmoToWorld[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};
        float gridObjToWorld[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};
        float indexToObject[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}};
    };

    /// The level that closes a non-ocean surface at the grid's borders.
    static float closedLevel(bool invert) { return invert ? 10000.0f : -10000.0f; }

    // State carried between the passes.
    iArray<uint8_t, long long> smap{0, 4};
    iArray<int32_t, long long> cellConn{0, 4};
    iArray<int32_t> conn{0, 4};
    int32_t padDims[3] = {0, 0, 0};
    int32_t padStrides[3] = {0, 0, 0};
    int32_t dims[3] = {0, 0, 0};
    const float* grid = nullptr;
    float iso = 0.0f;
    bool invert = false;
    MesherParams* params = nullptr;
    const MesherParticles* particles = nullptr;
    const Gizmo* gizmo = nullptr;
    int32_t smoothIterations = 0;
    float displFactor = 0.0f;
    iArray<UVertex> vertices{0, 4};
    iArray<UTriangle> triangles{0, 4};
    iArray<int32_t> adjacency{0, 4};
    iArray<float> undisplaced{0, 4};  // three floats a vertex
    iArray<int32_t> active{0, 4};
    iArray<int32_t> edgeSplits{0, 4};
    int32_t firstNewVertex = 0;
    iArray<int32_t, long long> particleHeads{0, 4};
    iArray<int32_t> particleNext{0, 4};
    int64_t particleCount = 0;

    /// Room the result lists are created with.
    int32_t vertexReserve = 2000000;
    int32_t triangleReserve = 4000000;
    /// Keep the padded-cell scratch allocated between builds (for repeated meshing).
    bool keepScratch = false;
    /// Why the last build gave no mesh, when it failed; empty otherwise.
    std::string error;

    explicit Mesher(ThreadManager* manager = nullptr, int threads = -1);
    ~Mesher() override;
    const char* getName() const override { return "Mesher"; }
    Job* createJob() override;
    void jobProc(Job& job) override;

    /// Meshes `field` (`size`, x fastest) at level `surflevel`. @return false when memory ran
    /// out or the input is unusable (`error` says why); the mesh is then empty.
    bool build(const float* field,
               const int32_t size[3],
               float surflevel,
               MesherParams& params,
               bool solidbelow,
               int smoothmesh,
               bool computeNormals,
               const MesherParticles* particles,
               const Gizmo* gizmo);

    /// Gives up the results and scratch lists.
    void clearAll();

    /// Seconds of the passes of the last build: map, vertices, interest, triangles.
    double passSeconds[4] = {0, 0, 0, 0};

private:
    int mThreads;
    iArray<uint8_t, long long> mInterest{0, 4};
    iArray<float> mGridCopy{0, 4};
    iArray<float> mScratch{0, 4};
    double mIndexToGizmo[4][3];
    double mNormalToIndex[3][3];
    bool mNormalize = false;
    bool mNormalsFilter = false;
    bool mMadeNormals = false;
    int mAddedTriangles = 0;

    bool reserveScratch(long long padded);
    void freeScratch();
    bool mergeVertexLists();
    bool mergeTriangleLists();
    bool mergeSplitLists();
    bool buildAdjacency();
    void runCutter();
    void smooth();
    void buildParticleGrid();
    void computeNormals(bool normalize);
    void filterNormals();
    void measureDisplFactor();
    void displacedNormal(const float p[3], const float e[3], float n[3], int jobIndex);
    bool subdivide();
    void retriangulate();
    void addUnderwaterQuad();

    void passMap(Job& job);
    void passVertices(Job& job);
    void passInterest(Job& job, const uint8_t* from, uint8_t* to, bool first);
    void passTriangles(Job& job);
    void passCutter(Job& job);
    void passSmooth(Job& job);
    void passCopyScratch(Job& job);
    void passParticles(Job& job);
    void passNormals(Job& job);
    void passFilter(Job& job);
    void passDisplace(Job& job);
    void passOceanNormals(Job& job);
    void passSplit(Job& job);

    void readClamped(int32_t g[3]) const;
};

/// Normalises `v` when 1e18 times its length exceeds its largest component. @return whether it
/// did.
bool safeNormalize(float v[3]);

}  // namespace vaporix
