// Distance to a mesh in constant time: a grid whose cells hold the nearest sample of the surface.
#pragma once

#include <cstdint>

#include "foundation/MTJobs.h"
#include "foundation/iArray.h"

namespace vaporix {

/// A regular grid over a mesh's bounding box; each cell stores the index of the nearest sample
/// point of the surface. Derive and supply the mesh through `getTriangle` and `getVertex`.
///
///     MyGrid g(mesh);
///     if (g.setup(triangles, vertices, spacing) && g.build()) d = g.distance(p);
///
/// Samples reach cells by waves that spread from cell to neighbour; each wave is merged in the
/// order of the jobs' spans and sorted, and equal distances keep the lower sample, so the grid is
/// the same for any number of threads.
class DistanceGrid : public MTJobs {
public:
    /// Cell values: a sample index, or these.
    static constexpr int32_t EMPTY = -1;
    static constexpr int32_t LOCKED = -2;
    /// Largest cell count; coarser spacing is chosen above it.
    static constexpr double MAX_CELLS = 1e8;

    int32_t size[3] = {0, 0, 0};
    iArray<int32_t, long long> cells{0, 4};
    iArray<float> points{0, 4};       // three floats a sample
    iArray<int32_t> pointTriangle{0, 4};
    float origin[3] = {0, 0, 0};
    float spacing = 0.0f;

    explicit DistanceGrid(ThreadManager* manager = nullptr, int threads = -1);
    ~DistanceGrid() override;
    const char* getName() const override { return "DistanceGrid"; }
    Job* createJob() override;
    void jobProc(Job& job) override;

    /// Vertex indices of triangle `index`.
    virtual void getTriangle(int index, int corners[3]) = 0;
    /// Position of vertex `index`.
    virtual void getVertex(float result[3], int index) = 0;

    /// Sizes the grid over the vertices' box, widened by two cells; a spacing that would make
    /// more than MAX_CELLS cells (or is not usable) is replaced, with a log line.
    /// @return false when there is nothing usable to cover or memory ran out.
    bool setup(int triangleCount, int vertexCount, float spacingWanted);
    /// Samples the triangles and spreads the samples over the grid. @return false when memory
    /// ran out or the pass was aborted.
    bool build();

    /// Distance from `p` to the nearest sample (1e30 when the grid is empty); a point outside
    /// the grid reads the nearest edge cell.
    float distance(const float p[3]) const;
    /// Index of the sample stored for the cell nearest to `p`, or -1.
    int32_t nearestSample(const float p[3]) const;
    /// Waves that the last build ran.
    int waves = 0;

private:
    int mThreads = -1;
    int mTriangles = 0;
    int mVertices = 0;
    uint32_t mPass = 0;
    iArray<long long> mWave{0, 4};
    iArray<int32_t> mWavePoint{0, 4};

    bool offer(long long cell, int32_t candidate);
    bool mergeChanged();
    void passSample(Job& job);
    void passCopySamples(Job& job);
    void passSeed(Job& job);
    void passSpread(Job& job);
};

/// A convex solid bounded by planes; a point is inside when it is behind every face.
class ConvexPolyhedron {
public:
    struct UPolyhedronFace {
        float normal[3];  // outward
        float d;          // the plane is normal . p = d
    };
    /// Half-size of the box a camera's solid is limited to.
    static constexpr float LIMIT = 1073741824.0f;  // 2^30

    iArray<UPolyhedronFace> faces{0, 4};

    /// The view pyramid of a camera at `camToWorld`'s translation looking along its +z row, with
    /// `tanHalfFov` the tangent of half the horizontal field of view and `aspect` height / width;
    /// the six faces of the +-2^30 box close it.
    bool fromCamera(const float camToWorld[4][3], float tanHalfFov, float aspect);
    bool addFace(const float normal[3], float d);
    bool contains(const float p[3]) const;
    /// False only when the box lies wholly outside one face.
    bool mayIntersectBox(const float lo[3], const float hi[3]) const;
};

}  // namespace vaporix
