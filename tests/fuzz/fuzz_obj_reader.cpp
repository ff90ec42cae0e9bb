// libFuzzer target of the OBJ reader of gizmo meshes: any text, and a tree over what it read.
#include <cstddef>
#include <cstdint>
#include <string>

#include "mesh/MeshIO.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vaporix::TriangleMesh mesh;
    std::string error;
    if (vaporix::readObj(reinterpret_cast<const char*>(data), size, mesh, error) != vaporix::OBJ_OK)
        return 0;
    // What the reader accepts must be safe to build a tree over and to cast a ray through.
    int open, overused;
    mesh.countBadEdges(open, overused);
    vaporix::MeshTree tree(mesh);
    const double org[3] = {0, 0, -1e6};
    const float dir[3] = {0, 0, 1};
    double t;
    int facing;
    tree.intersect(vaporix::iKDTree::Ray(org, dir, 0, 1e30), t, facing);
    std::string out;
    vaporix::writePly(mesh, out);
    vaporix::writeObj(mesh, out);
    return 0;
}
