// Triangle meshes in and out: PLY and OBJ writers into memory, the OBJ reader of gizmo meshes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/iKDTree.h"

namespace vaporix {

/// A plain triangle mesh: three floats a vertex (and a normal, when there are normals), three
/// vertex indices a triangle.
struct TriangleMesh {
    std::vector<float> positions;
    std::vector<float> normals;  // empty, or one a vertex
    std::vector<int32_t> triangles;

    int vertexCount() const { return static_cast<int>(positions.size() / 3); }
    int triangleCount() const { return static_cast<int>(triangles.size() / 3); }
    /// Edges held by one triangle only, and edges held by more than two.
    void countBadEdges(int& open, int& overused) const;
};

/// Binary little-endian PLY: x y z (nx ny nz) float vertices, uchar-counted int faces.
bool writePly(const TriangleMesh& mesh, std::string& out);
/// Wavefront OBJ text: `v`, `vn` and `f a//a b//b c//c` lines (1-based).
bool writeObj(const TriangleMesh& mesh, std::string& out);

/// Status of the OBJ reader.
enum ObjStatus : int { OBJ_OK = 0, OBJ_EMPTY = 1, OBJ_BAD_INDEX = 2, OBJ_BAD_NUMBER = 3, OBJ_TOO_BIG = 4 };

/// Reads the vertices and faces of OBJ text; polygons become fans, negative indices count back
/// from the last vertex, other statements are ignored. @return OBJ_OK, or a status with
/// `error` saying where the text went wrong (the mesh is then empty).
int readObj(const char* text, size_t length, TriangleMesh& mesh, std::string& error);

/// A KD tree over the triangles of a mesh (which must outlive it).
class MeshTree : public iKDTree {
public:
    explicit MeshTree(const TriangleMesh& mesh);
    void getTriangle(int id, float corners[3][3]) const override;
    bool isBuilt() const { return mBuilt; }

private:
    const TriangleMesh& mMesh;
    bool mBuilt = false;
};

}  // namespace vaporix
