// Builds the marching-cubes triangle table once from the cube's faces, so that it is watertight.
//
// Each face of the cube with crossings gets segments between its crossing edges; a face whose
// marked corners lie on a diagonal cuts each marked corner off on its own. Since that choice
// depends only on the face's four corners, two cubes that share a face agree on its segments and
// the surface has no cracks. The segments of a cube close into loops, each wound so that its
// normal faces the marked corners, turned to start at its lowest edge and cut into triangles
// whose inner cuts never lie on a face.
#include "mesh/MarchingTable.h"

#include <algorithm>
#include <array>

namespace vaporix::mesh {

namespace {

// Room for more triangles than a row can hold, so that a wrong loop would show in the tests.
constexpr int ROW_SIZE = 28;

// The six faces, corners in cyclic order.
constexpr int8_t FACES[6][4] = {{0, 1, 2, 3}, {4, 5, 6, 7}, {0, 1, 5, 4},
                                {3, 2, 6, 7}, {0, 3, 7, 4}, {1, 2, 6, 5}};

int edgeBetween(int a, int b) {
    for (int e = 0; e < 12; ++e)
        if ((EDGE_CORNERS[e][0] == a && EDGE_CORNERS[e][1] == b) ||
            (EDGE_CORNERS[e][0] == b && EDGE_CORNERS[e][1] == a))
            return e;
    return -1;
}

struct Table {
    std::array<std::array<int8_t, ROW_SIZE>, 256> rows;

    Table() {
        for (int index = 0; index < 256; ++index) buildRow(index);
    }

    void buildRow(int index) {
        auto& row = rows[index];
        row.fill(-1);
        auto marked = [&](int corner) { return (index >> corner) & 1; };

        // Segments of every face: each crossing edge gets two neighbours, one per face.
        int link[12][2];
        int links[12] = {};
        for (int f = 0; f < 6; ++f) {
            int crossing[4], cornerAt[4], n = 0;
            for (int k = 0; k < 4; ++k) {
                const int a = FACES[f][k], b = FACES[f][(k + 1) % 4];
                if (marked(a) != marked(b)) {
                    crossing[n] = edgeBetween(a, b);
                    cornerAt[n] = k;
                    ++n;
                }
            }
            auto connect = [&](int e0, int e1) {
                link[e0][links[e0]++] = e1;
                link[e1][links[e1]++] = e0;
            };
            if (n == 2) {
                connect(crossing[0], crossing[1]);
            } else if (n == 4) {
                // Diagonal marks: the two edges around each marked corner make a segment.
                for (int k = 0; k < 4; ++k) {
                    const int corner = FACES[f][k];
                    if (!marked(corner)) continue;
                    const int before = edgeBetween(FACES[f][(k + 3) % 4], corner);
                    const int after = edgeBetween(corner, FACES[f][(k + 1) % 4]);
                    connect(before, after);
                }
            }
            (void)cornerAt;
        }

        // Loops, each oriented towards the marked corners and fanned from its lowest edge.
        bool used[12] = {};
        int out = 0;
        for (int start = 0; start < 12; ++start) {
            if (used[start] || links[start] != 2) continue;
            int loop[12], n = 0;
            int prev = -1, cur = start;
            do {
                used[cur] = true;
                loop[n++] = cur;
                const int next = link[cur][0] != prev ? link[cur][0] : link[cur][1];
                prev = cur;
                cur = next;
            } while (cur != start && n < 12);
            if (!orientedTowardsMarks(loop, n, index)) {
                for (int i = 1, j = n - 1; i < j; ++i, --j) std::swap(loop[i], loop[j]);
            }
            // Start at the lowest edge.
            int lowest = 0;
            for (int i = 1; i < n; ++i)
                if (loop[i] < loop[lowest]) lowest = i;
            std::rotate(loop, loop + lowest, loop + n);
            int polygon[12];
            for (int i = 0; i < n; ++i) polygon[i] = loop[i];
            triangulate(polygon, n, row.data(), out);
        }
    }

    // Whether the segment between the vertices of edges e and f lies on a face of the cube.
    static bool onCommonFace(int e, int f) {
        const int corners[4] = {EDGE_CORNERS[e][0], EDGE_CORNERS[e][1], EDGE_CORNERS[f][0],
                                EDGE_CORNERS[f][1]};
        for (const auto& face : FACES) {
            bool all = true;
            for (int c : corners)
                all = all && (face[0] == c || face[1] == c || face[2] == c || face[3] == c);
            if (all) return true;
        }
        return false;
    }

    // Cuts ears off the loop, keeping its winding. A cut between two vertices on one face would
    // coincide with a cut or segment of the neighbouring cube, so such ears are passed over.
    static bool triangulate(const int* polygon, int n, int8_t* row, int& out) {
        if (n == 3) {
            for (int k = 0; k < 3; ++k) row[out++] = static_cast<int8_t>(polygon[k]);
            return true;
        }
        for (int i = 0; i < n; ++i) {
            const int prev = polygon[(i + n - 1) % n], next = polygon[(i + 1) % n];
            if (onCommonFace(prev, next)) continue;
            int rest[12], m = 0;
            for (int k = 0; k < n; ++k)
                if (k != i) rest[m++] = polygon[k];
            const int mark = out;
            row[out++] = static_cast<int8_t>(prev);
            row[out++] = static_cast<int8_t>(polygon[i]);
            row[out++] = static_cast<int8_t>(next);
            // Keep the rest starting where it did, so that small rows stay in loop order.
            if (triangulate(rest, m, row, out)) return true;
            for (int k = mark; k < out; ++k) row[k] = -1;
            out = mark;
        }
        return false;
    }

    // Newell normal of the loop over edge midpoints, against the pull towards the marked ends.
    static bool orientedTowardsMarks(const int* loop, int n, int index) {
        double normal[3] = {0, 0, 0}, pull[3] = {0, 0, 0};
        auto mid = [](int e, int a) {
            return 0.5 * (CORNER_OFFSET[EDGE_CORNERS[e][0]][a] + CORNER_OFFSET[EDGE_CORNERS[e][1]][a]);
        };
        for (int i = 0; i < n; ++i) {
            const int e = loop[i], f = loop[(i + 1) % n];
            for (int a = 0; a < 3; ++a) {
                const int b = (a + 1) % 3, c = (a + 2) % 3;
                normal[a] += (mid(e, b) - mid(f, b)) * (mid(e, c) + mid(f, c));
            }
            const int c0 = EDGE_CORNERS[e][0], c1 = EDGE_CORNERS[e][1];
            const int toMarked = ((index >> c1) & 1) ? 1 : -1;
            for (int a = 0; a < 3; ++a)
                pull[a] += toMarked * (CORNER_OFFSET[c1][a] - CORNER_OFFSET[c0][a]);
        }
        return normal[0] * pull[0] + normal[1] * pull[1] + normal[2] * pull[2] > 0;
    }
};

}  // namespace

const int8_t* triangleRow(int cubeIndex) {
    static const Table table;
    return table.rows[static_cast<unsigned>(cubeIndex) & 255u].data();
}

}  // namespace vaporix::mesh
