// The marching-cubes triangle table in the usual corner and edge numbering.
#pragma once

#include <cstdint>

namespace vaporix::mesh {

/// Corner k of the cube: bit 0 (0,0,0), 1 (1,0,0), 2 (1,1,0), 3 (0,1,0), 4 (0,0,1), 5 (1,0,1),
/// 6 (1,1,1), 7 (0,1,1). Edges 0, 2, 4, 6 run along x from corners 0, 3, 4, 7; edges 1, 3, 5, 7
/// along y from corners 1, 0, 5, 4; edges 8 to 11 along z from corners 0, 1, 2, 3.
inline constexpr int8_t CORNER_OFFSET[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                                               {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
/// For each edge: the corner that owns it (its low end) and its axis.
inline constexpr int8_t EDGE_OWNER[12] = {0, 1, 3, 0, 4, 5, 7, 4, 0, 1, 2, 3};
inline constexpr int8_t EDGE_AXIS[12] = {0, 1, 0, 1, 0, 1, 0, 1, 2, 2, 2, 2};
/// The two corners of each edge.
inline constexpr int8_t EDGE_CORNERS[12][2] = {{0, 1}, {1, 2}, {3, 2}, {0, 3}, {4, 5}, {5, 6},
                                               {7, 6}, {4, 7}, {0, 4}, {1, 5}, {2, 6}, {3, 7}};

/// Row `cubeIndex` of the triangle table: edge triples ended by -1 (at most five triangles).
/// A set bit k of the index marks corner k; each triangle (e0, e1, e2) winds so that its normal
/// (p1 - p0) x (p2 - p0) points towards the marked corners; row 1 is 0, 8, 3 and row 2 is 0, 1, 9.
const int8_t* triangleRow(int cubeIndex);

}  // namespace vaporix::mesh
