// PLY and OBJ writers into memory, and the OBJ reader of gizmo meshes with its bounds checks.
#include "mesh/MeshIO.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

namespace vaporix {

void TriangleMesh::countBadEdges(int& open, int& overused) const {
    std::map<std::pair<int, int>, int> edges;
    for (size_t t = 0; t + 2 < triangles.size(); t += 3)
        for (int k = 0; k < 3; ++k) {
            const int a = triangles[t + k], b = triangles[t + (k + 1) % 3];
            ++edges[{std::min(a, b), std::max(a, b)}];
        }
    open = overused = 0;
    for (const auto& [edge, n] : edges) {
        open += n == 1;
        overused += n > 2;
    }
}

namespace {
void appendBytes(std::string& out, const void* p, size_t n) {
    out.append(static_cast<const char*>(p), n);
}
}  // namespace

bool writePly(const TriangleMesh& mesh, std::string& out) {
    const bool withNormals = mesh.normals.size() == mesh.positions.size() && !mesh.normals.empty();
    const int nv = mesh.vertexCount(), nt = mesh.triangleCount();
    char header[512];
    std::snprintf(header, sizeof header,
                  "ply\nformat binary_little_endian 1.0\ncomment vaporix mesh\n"
                  "element vertex %d\nproperty float x\nproperty float y\nproperty float z\n%s"
                  "element face %d\nproperty list uchar int vertex_indices\nend_header\n",
                  nv, withNormals ? "property float nx\nproperty float ny\nproperty float nz\n" : "",
                  nt);
    out.clear();
    try {
        out.reserve(std::strlen(header) + static_cast<size_t>(nv) * (withNormals ? 24 : 12) +
                    static_cast<size_t>(nt) * 13);
        out += header;
        for (int i = 0; i < nv; ++i) {
            appendBytes(out, &mesh.positions[3 * static_cast<size_t>(i)], 12);
            if (withNormals) appendBytes(out, &mesh.normals[3 * static_cast<size_t>(i)], 12);
        }
        for (int t = 0; t < nt; ++t) {
            const uint8_t three = 3;
            appendBytes(out, &three, 1);
            appendBytes(out, &mesh.triangles[3 * static_cast<size_t>(t)], 12);
        }
    } catch (const std::bad_alloc&) {
        out.clear();
        return false;
    }
    return true;
}

bool writeObj(const TriangleMesh& mesh, std::string& out) {
    const bool withNormals = mesh.normals.size() == mesh.positions.size() && !mesh.normals.empty();
    out.clear();
    try {
        char line[160];
        out += "# vaporix mesh\n";
        for (int i = 0; i < mesh.vertexCount(); ++i) {
            const float* p = &mesh.positions[3 * static_cast<size_t>(i)];
            std::snprintf(line, sizeof line, "v %.9g %.9g %.9g\n", p[0], p[1], p[2]);
            out += line;
        }
        if (withNormals)
            for (int i = 0; i < mesh.vertexCount(); ++i) {
                const float* n = &mesh.normals[3 * static_cast<size_t>(i)];
                std::snprintf(line, sizeof line, "vn %.6g %.6g %.6g\n", n[0], n[1], n[2]);
                out += line;
            }
        for (int t = 0; t < mesh.triangleCount(); ++t) {
            const int32_t* v = &mesh.triangles[3 * static_cast<size_t>(t)];
            if (withNormals)
                std::snprintf(line, sizeof line, "f %d//%d %d//%d %d//%d\n", v[0] + 1, v[0] + 1,
                              v[1] + 1, v[1] + 1, v[2] + 1, v[2] + 1);
            else
                std::snprintf(line, sizeof line, "f %d %d %d\n", v[0] + 1, v[1] + 1, v[2] + 1);
            out += line;
        }
    } catch (const std::bad_alloc&) {
        out.clear();
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// OBJ reader

namespace {

// A cursor over one line; numbers are parsed from a bounded local copy, never past the line.
struct LineReader {
    const char* p;
    const char* end;

    void skipSpace() {
        while (p < end && (*p == ' ' || *p == '\t' || *p == '\r')) ++p;
    }
    bool atEnd() {
        skipSpace();
        return p >= end;
    }
    // The next whitespace-separated token.
    bool token(const char*& start, size_t& n) {
        skipSpace();
        start = p;
        while (p < end && *p != ' ' && *p != '\t' && *p != '\r') ++p;
        n = static_cast<size_t>(p - start);
        return n > 0;
    }
};

bool parseFloat(const char* s, size_t n, float& out) {
    char buf[64];
    if (n == 0 || n >= sizeof buf) return false;
    std::memcpy(buf, s, n);
    buf[n] = 0;
    char* stop = nullptr;
    errno = 0;
    const double v = std::strtod(buf, &stop);
    if (stop != buf + n || !std::isfinite(v) || std::fabs(v) > 3e38) return false;
    out = static_cast<float>(v);
    return true;
}

bool parseIndex(const char* s, size_t n, long long& out) {
    // The vertex index is the part before any '/'.
    size_t k = 0;
    while (k < n && s[k] != '/') ++k;
    char buf[32];
    if (k == 0 || k >= sizeof buf) return false;
    std::memcpy(buf, s, k);
    buf[k] = 0;
    char* stop = nullptr;
    errno = 0;
    const long long v = std::strtoll(buf, &stop, 10);
    if (stop != buf + k || errno == ERANGE) return false;
    out = v;
    return true;
}

}  // namespace

int readObj(const char* text, size_t length, TriangleMesh& mesh, std::string& error) {
    mesh.positions.clear();
    mesh.normals.clear();
    mesh.triangles.clear();
    error.clear();
    // Each vertex takes at least 7 bytes of text and each face corner 2: nothing read can
    // outgrow the text, and meshes past the index range are refused.
    if (length > (size_t(1) << 33)) {
        error = "the file is too large";
        return OBJ_TOO_BIG;
    }
    auto fail = [&](int status, long long lineNo, const char* what) {
        mesh.positions.clear();
        mesh.triangles.clear();
        error = "line " + std::to_string(lineNo) + ": " + what;
        return status;
    };
    long long lineNo = 0;
    std::vector<int32_t> face;
    size_t pos = 0;
    try {
        while (pos < length) {
            size_t eol = pos;
            while (eol < length && text[eol] != '\n') ++eol;
            ++lineNo;
            LineReader line{text + pos, text + eol};
            pos = eol + 1;
            const char* tok;
            size_t n;
            if (!line.token(tok, n)) continue;
            if (n == 1 && tok[0] == 'v') {
                float v[3];
                for (float& c : v) {
                    const char* s;
                    size_t k;
                    if (!line.token(s, k) || !parseFloat(s, k, c))
                        return fail(OBJ_BAD_NUMBER, lineNo, "a vertex needs three numbers");
                }
                if (mesh.positions.size() / 3 >= 0x7FFFFFFF)
                    return fail(OBJ_TOO_BIG, lineNo, "too many vertices");
                mesh.positions.insert(mesh.positions.end(), v, v + 3);
            } else if (n == 1 && tok[0] == 'f') {
                face.clear();
                const long long count = static_cast<long long>(mesh.positions.size() / 3);
                while (!line.atEnd()) {
                    const char* s;
                    size_t k;
                    long long idx;
                    line.token(s, k);
                    if (!parseIndex(s, k, idx)) return fail(OBJ_BAD_NUMBER, lineNo, "bad face index");
                    // 1-based, or negative: counted back from the last vertex so far.
                    const long long zero = idx > 0 ? idx - 1 : count + idx;
                    if (idx == 0 || zero < 0 || zero >= count)
                        return fail(OBJ_BAD_INDEX, lineNo, "face index out of range");
                    face.push_back(static_cast<int32_t>(zero));
                }
                if (face.size() < 3) return fail(OBJ_BAD_INDEX, lineNo, "a face needs three corners");
                if (mesh.triangles.size() / 3 + face.size() >= 0x7FFFFFFF)
                    return fail(OBJ_TOO_BIG, lineNo, "too many faces");
                for (size_t i = 1; i + 1 < face.size(); ++i)
                    mesh.triangles.insert(mesh.triangles.end(), {face[0], face[i], face[i + 1]});
            }
        }
    } catch (const std::bad_alloc&) {
        return fail(OBJ_TOO_BIG, lineNo, "out of memory");
    }
    if (mesh.triangles.empty()) {
        error = "no faces";
        mesh.positions.clear();
        return OBJ_EMPTY;
    }
    return OBJ_OK;
}

// ---------------------------------------------------------------------------------------------
// MeshTree

MeshTree::MeshTree(const TriangleMesh& mesh) : mMesh(mesh) {
    bool ok = true;
    for (int t = 0; t < mesh.triangleCount() && ok; ++t) ok = AddObject(t);
    mBuilt = ok && Divide();
}

void MeshTree::getTriangle(int id, float corners[3][3]) const {
    for (int k = 0; k < 3; ++k) {
        const int v = mMesh.triangles[3 * static_cast<size_t>(id) + k];
        for (int j = 0; j < 3; ++j) corners[k][j] = mMesh.positions[3 * static_cast<size_t>(v) + j];
    }
}

}  // namespace vaporix
