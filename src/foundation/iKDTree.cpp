// KD tree build by the mean-centre split with a duplicate-paying axis choice, and its queries.
#include "foundation/iKDTree.h"

#include <algorithm>
#include <cmath>

#include "foundation/log.h"

namespace vaporix {

namespace {
// Reciprocal directions are limited so that an axis-parallel ray still gives finite slabs.
constexpr float MAX_RECIPROCAL = 1e18f;
// Lists below this size take the middle of the box as split; the mean of centres is noisy there.
constexpr int MEAN_SPLIT_MIN_OBJECTS = 16;

bool boxEmpty(const float box[6]) {
    return !(box[0] <= box[3] && box[1] <= box[4] && box[2] <= box[5]);
}

// Entry and exit of the ray through a box, clipped to [t0, t1]; false when it misses.
bool clipBox(const iKDTree::Ray& ray, const float box[6], double& t0, double& t1) {
    for (int a = 0; a < 3; ++a) {
        const double lo = (static_cast<double>(box[a]) - ray.org[a]) * ray.inv[a];
        const double hi = (static_cast<double>(box[3 + a]) - ray.org[a]) * ray.inv[a];
        const double n = ray.sign[a] ? hi : lo;
        const double f = ray.sign[a] ? lo : hi;
        if (ray.dir[a] == 0.0f) {
            if (ray.org[a] < box[a] || ray.org[a] > box[3 + a]) return false;
            continue;
        }
        if (n > t0) t0 = n;
        if (f < t1) t1 = f;
        if (t0 > t1) return false;
    }
    return true;
}
}  // namespace

iKDTree::Ray::Ray(const double origin[3], const float direction[3], double t0, double t1)
    : tmin(t0), tmax(t1) {
    for (int a = 0; a < 3; ++a) {
        org[a] = origin[a];
        dir[a] = direction[a];
        float r = direction[a] != 0.0f ? 1.0f / direction[a] : MAX_RECIPROCAL;
        r = std::clamp(r, -MAX_RECIPROCAL, MAX_RECIPROCAL);
        inv[a] = r;
        sign[a] = direction[a] < 0.0f;
    }
}

iKDTree::KDNode::~KDNode() { delete[] children; }

iKDTree::~iKDTree() { delete mRoot; }

void iKDTree::getTriangle(int, float corners[3][3]) const {
    for (int k = 0; k < 3; ++k) corners[k][0] = corners[k][1] = corners[k][2] = 0.0f;
}
void iKDTree::getPoint(int, float point[3]) const { point[0] = point[1] = point[2] = 0.0f; }
int iKDTree::progress(int) { return 0; }

bool iKDTree::AddObject(int id) {
    if (mPending.append(id)) return true;
    lumoLog("#Out of memory in iKDTree::KDNode::AddObject 1\n");
    return false;
}

void iKDTree::clear() {
    delete mRoot;
    mRoot = nullptr;
    mPending.free();
}

void iKDTree::objectBox(int id, float box[6]) const {
    if (mPoints) {
        float p[3];
        getPoint(id, p);
        for (int a = 0; a < 3; ++a) box[a] = box[3 + a] = p[a];
        return;
    }
    float c[3][3];
    getTriangle(id, c);
    for (int a = 0; a < 3; ++a) {
        box[a] = std::min({c[0][a], c[1][a], c[2][a]});
        box[3 + a] = std::max({c[0][a], c[1][a], c[2][a]});
    }
}

bool iKDTree::Divide() { return build(false); }
bool iKDTree::DivideP() { return build(true); }

bool iKDTree::build(bool points) {
    delete mRoot;
    mRoot = new (std::nothrow) KDNode;
    if (!mRoot) {
        lumoLog(points ? "#Out of memory in iKDTree::KDNode::DivideP\n"
                       : "#Out of memory in iKDTree::KDNode::Divide 1\n");
        return false;
    }
    mPoints = points;
    mStopped = false;
    mRoot->objects.swap(mPending);
    mRoot->box[0] = mRoot->box[1] = mRoot->box[2] = -3e38f;
    mRoot->box[3] = mRoot->box[4] = mRoot->box[5] = 3e38f;
    return divideNode(*mRoot, 0) && !mStopped;
}

bool iKDTree::divideNode(KDNode& node, int depth) {
    const int n = node.objects.count;
    // The node's box: its objects' box, within the box its parent cut for it.
    float box[6] = {3e38f, 3e38f, 3e38f, -3e38f, -3e38f, -3e38f};
    double centre[3] = {0, 0, 0};
    for (int i = 0; i < n; ++i) {
        float b[6];
        objectBox(node.objects[i], b);
        for (int a = 0; a < 3; ++a) {
            box[a] = std::min(box[a], b[a]);
            box[3 + a] = std::max(box[3 + a], b[3 + a]);
            centre[a] += 0.5 * (static_cast<double>(b[a]) + b[3 + a]);
        }
    }
    for (int a = 0; a < 3; ++a) {
        node.box[a] = std::max(box[a], node.box[a]);
        node.box[3 + a] = std::min(box[3 + a], node.box[3 + a]);
    }
    if (n == 0 || boxEmpty(node.box)) return true;
    if (depth == 8 && progress(0x10000 >> 8) != 0) {
        mStopped = true;
        return false;
    }
    if (depth >= maxDepth || n < 2) return true;

    // Split positions and the per-axis left and right counts.
    float split[3];
    int left[3] = {0, 0, 0}, right[3] = {0, 0, 0};
    for (int a = 0; a < 3; ++a)
        split[a] = n >= MEAN_SPLIT_MIN_OBJECTS ? static_cast<float>(centre[a] / n)
                                               : 0.5f * (node.box[a] + node.box[3 + a]);
    for (int i = 0; i < n; ++i) {
        float b[6];
        objectBox(node.objects[i], b);
        for (int a = 0; a < 3; ++a) {
            left[a] += b[a] < split[a];
            right[a] += b[3 + a] >= split[a];
        }
    }

    // Axis choice: a split must pay for its duplicates; then balance and length decide.
    int best = -1;
    int bestWorst = 0;
    float bestLen = 0;
    for (int a = 0; a < 3; ++a) {
        const int worst = std::max(left[a], right[a]);
        const int dup = left[a] + right[a] - n;
        if (!(n - 2 - dup / 8 > worst)) continue;
        const float len = node.box[3 + a] - node.box[a];
        if (best < 0 || static_cast<double>(bestWorst) * len > static_cast<double>(worst) * bestLen) {
            best = a;
            bestWorst = worst;
            bestLen = len;
        }
    }
    if (best < 0) return true;

    // Children: one block of two, each with its share of the objects.
    KDNode* kids = new (std::nothrow) KDNode[2];
    if (!kids) {
        lumoLog(mPoints ? "#Out of memory in iKDTree::KDNode::DivideP\n"
                        : "#Out of memory in iKDTree::KDNode::Divide 1\n");
        return true;
    }
    if (!kids[0].objects.resize(left[best], true) || !kids[1].objects.resize(right[best], true)) {
        lumoLog(mPoints ? "#Out of memory in iKDTree::KDNode::DivideP\n"
                        : "#Out of memory in iKDTree::KDNode::Divide 2\n");
        delete[] kids;
        return true;
    }
    int l = 0, r = 0;
    for (int i = 0; i < n; ++i) {
        float b[6];
        objectBox(node.objects[i], b);
        if (b[best] < split[best]) kids[0].objects[l++] = node.objects[i];
        if (b[3 + best] >= split[best]) kids[1].objects[r++] = node.objects[i];
    }
    if (l != left[best] || r != right[best]) {
        lumoLog("#error in tree division n:%d \n", n);
        delete[] kids;
        return true;
    }
    for (int k = 0; k < 2; ++k)
        for (int a = 0; a < 6; ++a) kids[k].box[a] = node.box[a];
    kids[0].box[3 + best] = split[best];
    kids[1].box[best] = split[best];
    node.children = kids;
    node.axis = static_cast<uint8_t>(best);
    node.split = split[best];
    node.objects.free();
    return divideNode(kids[0], depth + 1) && divideNode(kids[1], depth + 1);
}

bool iKDTree::intersectTriangle(const Ray& ray, const float c[3][3], double& t, int& facing) {
    // Moller-Trumbore in double precision about the first corner.
    double e1[3], e2[3], s[3], d[3];
    for (int a = 0; a < 3; ++a) {
        e1[a] = static_cast<double>(c[1][a]) - c[0][a];
        e2[a] = static_cast<double>(c[2][a]) - c[0][a];
        s[a] = ray.org[a] - c[0][a];
        d[a] = ray.dir[a];
    }
    const double p[3] = {d[1] * e2[2] - d[2] * e2[1], d[2] * e2[0] - d[0] * e2[2],
                         d[0] * e2[1] - d[1] * e2[0]};
    const double det = e1[0] * p[0] + e1[1] * p[1] + e1[2] * p[2];
    if (det == 0.0 || !std::isfinite(det)) return false;
    const double inv = 1.0 / det;
    const double u = (s[0] * p[0] + s[1] * p[1] + s[2] * p[2]) * inv;
    if (u < 0.0 || u > 1.0) return false;
    const double q[3] = {s[1] * e1[2] - s[2] * e1[1], s[2] * e1[0] - s[0] * e1[2],
                         s[0] * e1[1] - s[1] * e1[0]};
    const double v = (d[0] * q[0] + d[1] * q[1] + d[2] * q[2]) * inv;
    if (v < 0.0 || u + v > 1.0) return false;
    const double tt = (e2[0] * q[0] + e2[1] * q[1] + e2[2] * q[2]) * inv;
    if (!(tt >= ray.tmin && tt <= ray.tmax)) return false;
    t = tt;
    // det = -(dir . ((b - a) x (c - a))): positive when the ray runs against the normal.
    facing = det > 0.0 ? 1 : 0;
    return true;
}

void iKDTree::rayNode(const KDNode& node,
                      const Ray& ray,
                      double t0,
                      double t1,
                      double& bestT,
                      int& bestId,
                      int& bestFacing,
                      OutFilter* filter) const {
    if (t1 > bestT) t1 = bestT;
    if (!clipBox(ray, node.box, t0, t1)) return;
    if (!node.children) {
        Ray local = ray;
        local.tmax = std::min(ray.tmax, bestT);
        for (int i = 0; i < node.objects.count; ++i) {
            const int id = node.objects[i];
            if (filter && filter->skip(id)) continue;
            float c[3][3];
            getTriangle(id, c);
            double t;
            int facing;
            if (intersectTriangle(local, c, t, facing) && t < bestT) {
                bestT = t;
                bestId = id;
                bestFacing = facing;
                local.tmax = t;
            }
        }
        return;
    }
    const int nearFirst = ray.sign[node.axis];
    rayNode(node.children[nearFirst], ray, t0, t1, bestT, bestId, bestFacing, filter);
    rayNode(node.children[1 - nearFirst], ray, t0, t1, bestT, bestId, bestFacing, filter);
}

int iKDTree::intersect(const Ray& ray, double& t, int& facing, OutFilter* filter) const {
    if (!mRoot || mPoints) return -1;
    double bestT = ray.tmax;
    int bestId = -1, bestFacing = 0;
    // The slab clip needs some slack: a hit exactly at tmax stays inside the range.
    rayNode(*mRoot, ray, ray.tmin, std::nextafter(ray.tmax, 1e308), bestT, bestId, bestFacing,
            filter);
    if (bestId >= 0) {
        t = bestT;
        facing = bestFacing;
    }
    return bestId;
}

int iKDTree::intersectAll(const Ray& ray,
                          int maxHits,
                          iArray<int>& ids,
                          iArray<double>& ts,
                          iArray<int>& facings) const {
    ids.resize(0);
    ts.resize(0);
    facings.resize(0);
    if (!mRoot || mPoints) return 0;
    // Walk the leaves the ray crosses and keep every hit; a triangle in several leaves once.
    iArray<const KDNode*> stack(64, 4);
    stack.append(mRoot);
    while (stack.count > 0) {
        const KDNode* node = stack.last();
        stack.resize(stack.count - 1);
        double t0 = ray.tmin, t1 = std::nextafter(ray.tmax, 1e308);
        if (!clipBox(ray, node->box, t0, t1)) continue;
        if (node->children) {
            stack.append(&node->children[0]);
            stack.append(&node->children[1]);
            continue;
        }
        for (int i = 0; i < node->objects.count; ++i) {
            const int id = node->objects[i];
            if (ids.find(id) >= 0) continue;
            float c[3][3];
            getTriangle(id, c);
            double t;
            int facing;
            if (!intersectTriangle(ray, c, t, facing)) continue;
            ids.append(id);
            ts.append(t);
            facings.append(facing);
        }
    }
    // Order by t (ties by id, so that the answer does not depend on the walk).
    const int n = ids.count;
    iArray<int> order(n, 4);
    order.resize(n);
    for (int i = 0; i < n; ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](int a, int b) {
        return ts[a] < ts[b] || (ts[a] == ts[b] && ids[a] < ids[b]);
    });
    const int kept = std::min(n, std::max(maxHits, 0));
    iArray<int> sortedIds(kept, 4), sortedFacings(kept, 4);
    iArray<double> sortedTs(kept, 4);
    for (int i = 0; i < kept; ++i) {
        sortedIds.append(ids[order[i]]);
        sortedTs.append(ts[order[i]]);
        sortedFacings.append(facings[order[i]]);
    }
    ids.swap(sortedIds);
    ts.swap(sortedTs);
    facings.swap(sortedFacings);
    return ids.count;
}

void iKDTree::CollectSphere(const float centre[3],
                            float radius,
                            SphereCallback& callback,
                            OutFilter* filter) const {
    if (!mRoot || !mPoints) return;
    const float r2 = radius * radius;
    iArray<const KDNode*> stack(64, 4);
    stack.append(mRoot);
    while (stack.count > 0) {
        const KDNode* node = stack.last();
        stack.resize(stack.count - 1);
        bool far = false;
        for (int a = 0; a < 3; ++a)
            far = far || centre[a] + radius < node->box[a] || centre[a] - radius > node->box[3 + a];
        if (far) continue;
        if (node->children) {
            stack.append(&node->children[0]);
            stack.append(&node->children[1]);
            continue;
        }
        for (int i = 0; i < node->objects.count; ++i) {
            const int id = node->objects[i];
            float p[3];
            getPoint(id, p);
            const float dx = p[0] - centre[0], dy = p[1] - centre[1], dz = p[2] - centre[2];
            const float d2 = dx * dx + dy * dy + dz * dz;
            if (d2 > r2) continue;
            if (filter && filter->skip(id)) continue;
            callback.found(id, d2);
        }
    }
}

void iKDTree::CollectSphereTriangles(const float centre[3],
                                     float radius,
                                     SphereCallback& callback) const {
    if (!mRoot || mPoints) return;
    iArray<const KDNode*> stack(64, 4);
    iArray<int> seen(0, 4);
    stack.append(mRoot);
    while (stack.count > 0) {
        const KDNode* node = stack.last();
        stack.resize(stack.count - 1);
        bool far = false;
        for (int a = 0; a < 3; ++a)
            far = far || centre[a] + radius < node->box[a] || centre[a] - radius > node->box[3 + a];
        if (far) continue;
        if (node->children) {
            stack.append(&node->children[0]);
            stack.append(&node->children[1]);
            continue;
        }
        for (int i = 0; i < node->objects.count; ++i) {
            const int id = node->objects[i];
            if (seen.find(id) >= 0) continue;
            float b[6];
            objectBox(id, b);
            float d2 = 0;
            for (int a = 0; a < 3; ++a) {
                const float e = std::max({b[a] - centre[a], 0.0f, centre[a] - b[3 + a]});
                d2 += e * e;
            }
            if (d2 > radius * radius) continue;
            seen.append(id);
            callback.found(id, d2);
        }
    }
}

}  // namespace vaporix
