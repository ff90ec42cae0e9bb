// Tests of the mesh writers and the OBJ reader: round trips and malformed input.
#include "mesh/MeshIO.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace vaporix {
namespace {

TriangleMesh tetra() {
    TriangleMesh m;
    m.positions = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
    m.triangles = {0, 2, 1, 0, 1, 3, 0, 3, 2, 1, 2, 3};
    return m;
}

int read(const std::string& text, TriangleMesh& m, std::string& error) {
    return readObj(text.data(), text.size(), m, error);
}

TEST(MeshIO, ObjRoundTrip) {
    TriangleMesh m = tetra();
    m.normals = {0, 0, 1, 1, 0, 0, 0, 1, 0, 0.5f, 0.5f, 0.5f};
    std::string text, error;
    ASSERT_TRUE(writeObj(m, text));
    TriangleMesh back;
    ASSERT_EQ(read(text, back, error), OBJ_OK) << error;
    EXPECT_EQ(back.positions, m.positions);
    EXPECT_EQ(back.triangles, m.triangles);
    int open, overused;
    back.countBadEdges(open, overused);
    EXPECT_EQ(open, 0);
    EXPECT_EQ(overused, 0);
}

TEST(MeshIO, PlyLayout) {
    TriangleMesh m = tetra();
    std::string bytes;
    ASSERT_TRUE(writePly(m, bytes));
    const size_t end = bytes.find("end_header\n");
    ASSERT_NE(end, std::string::npos);
    EXPECT_NE(bytes.find("element vertex 4\n"), std::string::npos);
    EXPECT_NE(bytes.find("element face 4\n"), std::string::npos);
    EXPECT_EQ(bytes.find("property float nx"), std::string::npos);  // no normals given
    const size_t body = end + 11;
    ASSERT_EQ(bytes.size() - body, 4u * 12 + 4u * 13);
    float x;
    std::memcpy(&x, bytes.data() + body + 12, 4);
    EXPECT_EQ(x, 1.0f);
    EXPECT_EQ(static_cast<uint8_t>(bytes[body + 48]), 3);
    int32_t i2;
    std::memcpy(&i2, bytes.data() + body + 48 + 1 + 4, 4);
    EXPECT_EQ(i2, 2);
}

TEST(MeshIO, ObjPolygonsNegativeIndicesAndSlashes) {
    TriangleMesh m;
    std::string error;
    ASSERT_EQ(read("o thing\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\n"
                   "f 1/1/1 2/1/1 3/1/1 4/1/1\nf -4 -2 -1\n",
                   m, error),
              OBJ_OK)
        << error;
    ASSERT_EQ(m.triangleCount(), 3);
    EXPECT_EQ(m.triangles, (std::vector<int32_t>{0, 1, 2, 0, 2, 3, 0, 2, 3}));
}

TEST(MeshIO, MalformedObjIsRefusedWithTheLine) {
    TriangleMesh m;
    std::string error;
    EXPECT_EQ(read("", m, error), OBJ_EMPTY);
    EXPECT_EQ(read("v 0 0 0\nv 1 0 0\nv 0 1 0\n", m, error), OBJ_EMPTY);
    EXPECT_EQ(read("v 0 0 0\nf 1 2 3\n", m, error), OBJ_BAD_INDEX);
    EXPECT_EQ(error, "line 2: face index out of range");
    EXPECT_TRUE(m.positions.empty());
    EXPECT_EQ(read("v 0 0\nf 1 1 1\n", m, error), OBJ_BAD_NUMBER);
    EXPECT_EQ(read("v 0 0 nan\nf 1 1 1\n", m, error), OBJ_BAD_NUMBER);
    EXPECT_EQ(read("v 0 0 1e300\nf 1 1 1\n", m, error), OBJ_BAD_NUMBER);
    EXPECT_EQ(read("v 0 0 0\nf 0 1 1\n", m, error), OBJ_BAD_INDEX);
    EXPECT_EQ(read("v 0 0 0\nf 1 1\n", m, error), OBJ_BAD_INDEX);
    EXPECT_EQ(read("v 0 0 0\nf 99999999999999999999 1 1\n", m, error), OBJ_BAD_NUMBER);
    // A line that ends without a newline, at the end of the buffer, is read to its end only.
    const std::string cut = "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3 4";
    EXPECT_EQ(readObj(cut.data(), cut.size() - 2, m, error), OBJ_OK);
    EXPECT_EQ(m.triangles, (std::vector<int32_t>{0, 1, 2}));
}

TEST(MeshIO, OpenEdgesAreCounted) {
    TriangleMesh m = tetra();
    m.triangles.resize(9);  // one face missing: its three edges are open
    int open, overused;
    m.countBadEdges(open, overused);
    EXPECT_EQ(open, 3);
    EXPECT_EQ(overused, 0);
}

}  // namespace
}  // namespace vaporix
