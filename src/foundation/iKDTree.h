// KD tree of triangles or points, for ray casting and sphere queries; a user supplies geometry.
#pragma once

#include <cstdint>

#include "foundation/iArray.h"

namespace vaporix {

/// A KD tree over objects given by id. Derive and supply the geometry: `getTriangle` for a
/// triangle tree (built with `Divide`), `getPoint` for a point tree (built with `DivideP`).
/// A finished tree is read-only and may be queried from any number of threads.
///
///     for (int i = 0; i < n; ++i) tree.AddObject(i);
///     tree.Divide();
///     int facing; double t;
///     int id = tree.intersect(ray, t, facing);
class iKDTree {
public:
    /// A ray: origin in double, direction in float, reciprocal directions limited to +-1e18.
    struct Ray {
        double org[3] = {0, 0, 0};
        float dir[3] = {0, 0, 1};
        float inv[3] = {0, 0, 1};
        uint8_t sign[3] = {0, 0, 0};
        double tmin = 0.0;
        double tmax = 1e300;

        Ray() = default;
        Ray(const double origin[3], const float direction[3], double t0, double t1);
    };

    /// Static tree node. A leaf has split axis 255 and lists its objects.
    struct KDNode {
        float box[6] = {0, 0, 0, 0, 0, 0};  // min x, y, z, max x, y, z
        iArray<int> objects{0, 4};
        KDNode* children = nullptr;  // block of two
        uint8_t axis = 255;
        float split = 0.0f;
        ~KDNode();
    };

    /// Filter of objects in a query: a non-zero result excludes the object.
    class OutFilter {
    public:
        virtual ~OutFilter() = default;
        virtual int skip(int id) = 0;
    };

    /// Receiver of the objects a sphere query finds, with their squared distance.
    class SphereCallback {
    public:
        virtual ~SphereCallback() = default;
        virtual void found(int id, float distance2) = 0;
    };

    /// Deepest level a build splits to.
    int maxDepth = 28;

    iKDTree() = default;
    virtual ~iKDTree();
    iKDTree(const iKDTree&) = delete;
    iKDTree& operator=(const iKDTree&) = delete;

    /// Corners of triangle `id` (three points of three floats).
    virtual void getTriangle(int id, float corners[3][3]) const;
    /// Position of point `id`.
    virtual void getPoint(int id, float point[3]) const;
    /// Called at depth 8 of a build with 0x10000 >> 8; a non-zero answer ends the build.
    virtual int progress(int value);

    /// Adds an object to the list the next build divides. @return false when out of memory.
    bool AddObject(int id);
    /// Builds the tree over the added triangles. @return false when out of memory or stopped.
    bool Divide();
    /// Builds the tree over the added points.
    bool DivideP();
    /// Forgets the tree and the added objects.
    void clear();
    bool empty() const { return !mRoot; }

    /// The nearest triangle the ray hits within its t range: its id, or -1. `t` receives the ray
    /// parameter and `facing` 1 when the ray enters through the triangle's front (against the
    /// winding normal (b - a) x (c - a)), 0 when it leaves through its back.
    int intersect(const Ray& ray, double& t, int& facing, OutFilter* filter = nullptr) const;
    /// Every hit along the ray in order of t, at most `maxHits`: ids, ts and facings.
    int intersectAll(const Ray& ray,
                     int maxHits,
                     iArray<int>& ids,
                     iArray<double>& ts,
                     iArray<int>& facings) const;

    /// Points of a point tree within `radius` of `centre`.
    void CollectSphere(const float centre[3],
                       float radius,
                       SphereCallback& callback,
                       OutFilter* filter = nullptr) const;
    /// Triangles of a triangle tree whose bounding box reaches within `radius` of `centre`.
    void CollectSphereTriangles(const float centre[3],
                                float radius,
                                SphereCallback& callback) const;

    /// The ray-triangle test: the ray parameter of the hit within [tmin, tmax] and the facing.
    static bool intersectTriangle(const Ray& ray,
                                  const float corners[3][3],
                                  double& t,
                                  int& facing);

private:
    KDNode* mRoot = nullptr;
    iArray<int> mPending{0, 4};
    bool mPoints = false;
    bool mStopped = false;

    void objectBox(int id, float box[6]) const;
    bool build(bool points);
    bool divideNode(KDNode& node, int depth);
    void rayNode(const KDNode& node,
                 const Ray& ray,
                 double t0,
                 double t1,
                 double& bestT,
                 int& bestId,
                 int& bestFacing,
                 OutFilter* filter) const;
};

}  // namespace vaporix
