// Topology and measure checks of triangle meshes shared by the mesh tests.
#pragma once

#include <cmath>
#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "mesh/Mesher.h"

namespace vaporix::test {

struct Topology {
    int vertices = 0;   // referenced vertices
    int edges = 0;
    int faces = 0;
    int openEdges = 0;       // held by one triangle
    int overusedEdges = 0;   // held by more than two
    int misoriented = 0;     // two triangles that run an edge the same way
    int euler() const { return vertices - edges + faces; }
    bool closed() const { return openEdges == 0 && overusedEdges == 0; }
};

inline Topology topology(const Mesher& m) {
    Topology t;
    std::map<std::pair<int, int>, std::pair<int, int>> edges;  // (lo, hi) -> (forward, backward)
    std::set<int> used;
    for (int i = 0; i < m.triangles.count; ++i) {
        const auto& tr = m.triangles[i];
        for (int k = 0; k < 3; ++k) {
            const int a = tr.v[k], b = tr.v[(k + 1) % 3];
            used.insert(a);
            auto& e = edges[{std::min(a, b), std::max(a, b)}];
            (a < b ? e.first : e.second)++;
        }
    }
    t.vertices = static_cast<int>(used.size());
    t.edges = static_cast<int>(edges.size());
    t.faces = m.triangles.count;
    for (const auto& [key, e] : edges) {
        const int n = e.first + e.second;
        if (n == 1) ++t.openEdges;
        if (n > 2) ++t.overusedEdges;
        if (n == 2 && (e.first != 1 || e.second != 1)) ++t.misoriented;
    }
    return t;
}

/// Area and signed volume (positive when the triangles wind with outward normals).
inline void measure(const Mesher& m, double& area, double& volume) {
    area = 0;
    volume = 0;
    for (int i = 0; i < m.triangles.count; ++i) {
        const float* a = m.vertices[m.triangles[i].v[0]].pos;
        const float* b = m.vertices[m.triangles[i].v[1]].pos;
        const float* c = m.vertices[m.triangles[i].v[2]].pos;
        const double e1[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
        const double e2[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
        const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                             e1[0] * e2[1] - e1[1] * e2[0]};
        area += 0.5 * std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        volume += (a[0] * n[0] + a[1] * n[1] + a[2] * n[2]) / 6.0;
    }
}

/// A field of `n` cubed cells from f(x, y, z) at the cell positions.
template <typename F>
std::vector<float> makeField(int nx, int ny, int nz, F f) {
    std::vector<float> v(static_cast<size_t>(nx) * ny * nz);
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x)
                v[(static_cast<size_t>(z) * ny + y) * nx + x] = f(float(x), float(y), float(z));
    return v;
}

}  // namespace vaporix::test
