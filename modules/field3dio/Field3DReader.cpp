// Field3D on HDF5: partitions, mappings and dense, sparse and MAC layers read with the HDF5 C API.
#include "field3dio/Field3DReader.h"

#include <hdf5.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "abi/SideModuleAbi.h"
#include "cache/VaporixFrameData.h"
#include "foundation/MTJobs.h"
#include "foundation/log.h"
#include "foundation/sys/Files.h"

namespace vaporix::field3dio {

namespace {

using CacheIO::AvaiableChannels;
using CacheIO::GridMapping;

constexpr int STATUS_READ_FAILED = sidemodule::F3D_READ_FAILED;
constexpr int STATUS_OUT_OF_MEMORY = sidemodule::F3D_OUT_OF_MEMORY;

// A deflate stream expands at most about 1032 times; with HDF5's fill values a data set may claim
// more than it stores, and such a claim is what a damaged file makes. Data sets larger than this
// many times their stored bytes (plus a small allowance) are refused before anything is
// allocated.
constexpr double MAX_EXPANSION = 1100.0;
constexpr int64_t EXPANSION_ALLOWANCE = 1 << 20;
// Strings of the layout are short names; anything longer is damage.
constexpr size_t MAX_STRING = 4096;
constexpr int MAX_TIME_SAMPLES = 4096;
constexpr int MAX_BLOCK_ORDER = 10;

int64_t gMaxCells = sidemodule::MAX_IMPORT_CELLS;

// HDF5 is built without thread safety: one reader at a time in the process.
std::mutex& hdf5Lock() {
    static std::mutex lock;
    return lock;
}

/// Thrown inside the reader; turned into a status by the export's handler.
struct ReadError {
    int status;
};

[[noreturn]] void fail(const char* what) {
    lumoLog("Field3D read failed: %s\n", what);
    throw ReadError{STATUS_READ_FAILED};
}

/// An HDF5 identifier closed by its own function.
class Handle {
public:
    using Closer = herr_t (*)(hid_t);
    Handle() = default;
    Handle(hid_t id, Closer closer) : mId(id), mCloser(closer) {}
    ~Handle() {
        if (mId >= 0 && mCloser) mCloser(mId);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    Handle(Handle&& o) noexcept : mId(o.mId), mCloser(o.mCloser) { o.mId = -1; }
    hid_t get() const { return mId; }
    bool valid() const { return mId >= 0; }

private:
    hid_t mId = -1;
    Closer mCloser = nullptr;
};

Handle openGroup(hid_t parent, const char* name) {
    if (H5Lexists(parent, name, H5P_DEFAULT) <= 0) return {};
    const hid_t obj = H5Oopen(parent, name, H5P_DEFAULT);
    if (obj < 0) return {};
    if (H5Iget_type(obj) != H5I_GROUP) {
        H5Oclose(obj);
        return {};
    }
    return Handle(obj, H5Oclose);
}

bool hasAttribute(hid_t obj, const char* name) { return H5Aexists(obj, name) > 0; }

/// Reads a string attribute of fixed or variable length.
bool readString(hid_t obj, const char* name, std::string& out) {
    if (!hasAttribute(obj, name)) return false;
    Handle attr(H5Aopen(obj, name, H5P_DEFAULT), H5Aclose);
    if (!attr.valid()) return false;
    Handle type(H5Aget_type(attr.get()), H5Tclose);
    if (!type.valid() || H5Tget_class(type.get()) != H5T_STRING) return false;
    Handle space(H5Aget_space(attr.get()), H5Sclose);
    if (!space.valid() || H5Sget_simple_extent_npoints(space.get()) != 1) return false;
    if (H5Tis_variable_str(type.get()) > 0) {
        char* text = nullptr;
        if (H5Aread(attr.get(), type.get(), &text) < 0 || !text) return false;
        out.assign(text, strnlen(text, MAX_STRING));
        H5free_memory(text);
        return true;
    }
    const size_t size = H5Tget_size(type.get());
    if (size == 0 || size > MAX_STRING) return false;
    // The stored type has no room for a terminator: read with it into a zeroed buffer.
    std::vector<char> buffer(size + 1, 0);
    if (H5Aread(attr.get(), type.get(), buffer.data()) < 0) return false;
    out.assign(buffer.data(), strnlen(buffer.data(), size));
    return true;
}

/// Reads exactly `n` numbers of an attribute, converted to the memory type.
bool readNumbers(hid_t obj, const char* name, hid_t memType, void* out, hssize_t n) {
    if (!hasAttribute(obj, name)) return false;
    Handle attr(H5Aopen(obj, name, H5P_DEFAULT), H5Aclose);
    if (!attr.valid()) return false;
    Handle type(H5Aget_type(attr.get()), H5Tclose);
    if (!type.valid()) return false;
    const H5T_class_t cls = H5Tget_class(type.get());
    if (cls != H5T_INTEGER && cls != H5T_FLOAT) return false;
    Handle space(H5Aget_space(attr.get()), H5Sclose);
    if (!space.valid() || H5Sget_simple_extent_npoints(space.get()) != n) return false;
    return H5Aread(attr.get(), memType, out) >= 0;
}

std::vector<std::string> childNames(hid_t group) {
    std::vector<std::string> names;
    auto visit = [](hid_t, const char* name, const H5L_info_t*, void* data) -> herr_t {
        auto* list = static_cast<std::vector<std::string>*>(data);
        if (list->size() > 100000) return 1;  // a damaged file's endless listing
        list->emplace_back(name);
        return 0;
    };
    hsize_t index = 0;
    H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, &index, visit, &names);
    return names;
}

/// IEEE binary16 bits to float.
float halfToFloat(uint16_t h) {
    const uint32_t sign = static_cast<uint32_t>(h & 0x8000u) << 16;
    const uint32_t exponent = (h >> 10) & 0x1fu;
    uint32_t mantissa = h & 0x3ffu;
    uint32_t bits;
    if (exponent == 0) {
        if (mantissa == 0) {
            bits = sign;
        } else {
            // Subnormal: normalise into a float exponent.
            int e = -1;
            do {
                ++e;
                mantissa <<= 1;
            } while ((mantissa & 0x400u) == 0);
            bits = sign | static_cast<uint32_t>(127 - 15 - e) << 23 | (mantissa & 0x3ffu) << 13;
        }
    } else if (exponent == 31) {
        bits = sign | 0x7f800000u | mantissa << 13;
    } else {
        bits = sign | (exponent + 127 - 15) << 23 | mantissa << 13;
    }
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

/// One layer of the file, as its attributes describe it.
struct Layer {
    std::string partitionGroup;
    std::string name;
    std::string className;
    int extents[6] = {};
    int window[6] = {};
    int components = 1;
    int bits = 32;
    /// Voxel-to-world of the layer (row vectors, 4x4), from its partition's mapping.
    double voxelToWorld[16] = {};
    bool mappingValid = false;

    int64_t size(int axis) const {
        return static_cast<int64_t>(window[axis + 3]) - window[axis] + 1;
    }
    int64_t cells() const { return size(0) * size(1) * size(2); }
};

/// The partition's local-to-world matrix at time 0 (legacy form first, then the sampled one).
bool readMapping(hid_t partition, double localToWorld[16], bool& isMatrix) {
    Handle mapping = openGroup(partition, "mapping");
    if (!mapping.valid()) return false;
    std::string type;
    if (!readString(mapping.get(), "mapping_type", type)) return false;
    for (int i = 0; i < 16; ++i) localToWorld[i] = (i % 5 == 0) ? 1.0 : 0.0;
    if (type == "NullFieldMapping") {
        isMatrix = false;
        return true;
    }
    if (type != "MatrixFieldMapping") return false;
    isMatrix = true;
    if (readNumbers(mapping.get(), "MatrixFieldMapping data", H5T_NATIVE_DOUBLE, localToWorld,
                    16))
        return true;
    int samples = 0;
    if (!readNumbers(mapping.get(), "num_time_samples", H5T_NATIVE_INT, &samples, 1)) return false;
    if (samples <= 0) return true;  // an empty curve is the identity
    if (samples > MAX_TIME_SAMPLES) return false;
    std::vector<float> times(static_cast<size_t>(samples));
    std::vector<double> matrices(static_cast<size_t>(samples) * 16);
    for (int s = 0; s < samples; ++s) {
        char name[32];
        std::snprintf(name, sizeof name, "time_%d", s);
        if (!readNumbers(mapping.get(), name, H5T_NATIVE_FLOAT, &times[s], 1)) return false;
        std::snprintf(name, sizeof name, "matrix_%d", s);
        if (!readNumbers(mapping.get(), name, H5T_NATIVE_DOUBLE, &matrices[s * 16], 16))
            return false;
    }
    // The matrix at time 0: the neighbouring samples blended, clamped at the ends.
    int hi = 0;
    while (hi < samples && times[hi] < 0.0f) ++hi;
    if (hi == 0 || hi == samples) {
        const int s = hi == 0 ? 0 : samples - 1;
        std::memcpy(localToWorld, &matrices[s * 16], 16 * sizeof(double));
        return true;
    }
    const double t0 = times[hi - 1], t1 = times[hi];
    const double f = t1 > t0 ? (0.0 - t0) / (t1 - t0) : 0.0;
    for (int i = 0; i < 16; ++i)
        localToWorld[i] = (1.0 - f) * matrices[(hi - 1) * 16 + i] + f * matrices[hi * 16 + i];
    return true;
}

/// Voxel-to-world = T(-extents.min) * S(1 / res) * localToWorld, row vectors.
void voxelToWorldOf(const int extents[6], const double localToWorld[16], double out[16]) {
    double pre[16] = {};
    for (int a = 0; a < 3; ++a) {
        // Empty extents give no usable mapping; the inverse then fails on its zero scale.
        const double res = std::max(static_cast<double>(extents[a + 3]) - extents[a] + 1.0, 0.0);
        pre[a * 5] = res > 0.0 ? 1.0 / res : 0.0;
        pre[12 + a] = res > 0.0 ? -static_cast<double>(extents[a]) / res : 0.0;
    }
    pre[15] = 1.0;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            double s = 0.0;
            for (int k = 0; k < 4; ++k) s += pre[r * 4 + k] * localToWorld[k * 4 + c];
            out[r * 4 + c] = s;
        }
}

/// Every layer of the file, in iteration order (partitions, then layers, by name).
std::vector<Layer> readLayers(hid_t file) {
    std::vector<Layer> layers;
    Handle root(H5Gopen2(file, "/", H5P_DEFAULT), H5Gclose);
    if (!root.valid()) fail("no root group");
    for (const std::string& partName : childNames(root.get())) {
        if (partName == "field3d_global_metadata" || partName == "field3d_group_membership")
            continue;
        Handle partition = openGroup(root.get(), partName.c_str());
        if (!partition.valid()) continue;
        double localToWorld[16];
        bool isMatrix = false;
        const bool mappingValid = readMapping(partition.get(), localToWorld, isMatrix);
        for (const std::string& layerName : childNames(partition.get())) {
            if (layerName == "mapping") continue;
            Handle group = openGroup(partition.get(), layerName.c_str());
            if (!group.valid()) continue;
            std::string classType;
            if (!readString(group.get(), "class_type", classType) ||
                classType != "field3d_layer")
                continue;
            Layer layer;
            layer.partitionGroup = partName;
            layer.name = layerName;
            if (!readString(group.get(), "class_name", layer.className))
                fail("a layer without a class name");
            if (!readNumbers(group.get(), "extents", H5T_NATIVE_INT, layer.extents, 6) ||
                !readNumbers(group.get(), "data_window", H5T_NATIVE_INT, layer.window, 6) ||
                !readNumbers(group.get(), "components", H5T_NATIVE_INT, &layer.components, 1))
                fail("a layer without extents, data window or components");
            if (!readNumbers(group.get(), "bits_per_component", H5T_NATIVE_INT, &layer.bits, 1))
                layer.bits = 32;
            layer.mappingValid = mappingValid;
            if (mappingValid) voxelToWorldOf(layer.extents, localToWorld, layer.voxelToWorld);
            layers.push_back(std::move(layer));
        }
    }
    return layers;
}

/// One channel of the frame: which layer and component fill which ordinal.
struct Target {
    int layer;
    int component;
    int channel;
    float scale;
};

/// Finds the layer and component a mapped name stands for. A vector layer L answers to
/// "L(x)" (the component letter in either case) and to "L.x".
bool findChannel(const std::vector<Layer>& layers, const std::string& name, Target& t) {
    for (size_t i = 0; i < layers.size(); ++i) {
        const Layer& l = layers[i];
        if (l.components == 1 && l.name == name) {
            t.layer = static_cast<int>(i);
            t.component = 0;
            return true;
        }
    }
    for (size_t i = 0; i < layers.size(); ++i) {
        const Layer& l = layers[i];
        if (l.components != 3 || name.size() < l.name.size() + 2) continue;
        if (name.compare(0, l.name.size(), l.name) != 0) continue;
        const std::string rest = name.substr(l.name.size());
        char letter = 0;
        if (rest.size() == 3 && rest[0] == '(' && rest[2] == ')')
            letter = rest[1];
        else if (rest.size() == 2 && rest[0] == '.')
            letter = rest[1];
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        if (letter < 'x' || letter > 'z') continue;
        t.layer = static_cast<int>(i);
        t.component = letter - 'x';
        return true;
    }
    return false;
}

/// Reads a whole data set as floats, converting half and double. Checks the element count and
/// the claimed size against the stored bytes first.
std::vector<float> readDataSet(hid_t group, const char* name, int64_t expected, int bits) {
    if (H5Lexists(group, name, H5P_DEFAULT) <= 0) fail("a data set is missing");
    Handle set(H5Dopen2(group, name, H5P_DEFAULT), H5Dclose);
    if (!set.valid()) fail("a data set can't be opened");
    Handle space(H5Dget_space(set.get()), H5Sclose);
    if (!space.valid() || H5Sget_simple_extent_npoints(space.get()) != expected)
        fail("a data set of the wrong size");
    Handle type(H5Dget_type(set.get()), H5Tclose);
    if (!type.valid()) fail("a data set without a type");
    const H5T_class_t cls = H5Tget_class(type.get());
    if (cls != H5T_INTEGER && cls != H5T_FLOAT) fail("a data set of another element type");
    const size_t elementSize = H5Tget_size(type.get());
    const bool half = (cls == H5T_INTEGER && elementSize == 2) || (cls != H5T_FLOAT && bits == 16);
    if (cls == H5T_INTEGER && !half) fail("a data set of integers");
    const double claimed = static_cast<double>(expected) * static_cast<double>(elementSize);
    const double stored = static_cast<double>(H5Dget_storage_size(set.get()));
    if (claimed > stored * MAX_EXPANSION + EXPANSION_ALLOWANCE)
        fail("a data set claims more than the file holds");

    std::vector<float> values;
    values.resize(static_cast<size_t>(expected));
    if (half) {
        // Signed, as stored: an unsigned memory type would clamp negative halves to zero.
        std::vector<int16_t> raw(static_cast<size_t>(expected));
        if (H5Dread(set.get(), H5T_NATIVE_SHORT, H5S_ALL, H5S_ALL, H5P_DEFAULT, raw.data()) < 0)
            fail("a data set fails to read");
        for (size_t i = 0; i < raw.size(); ++i)
            values[i] = halfToFloat(static_cast<uint16_t>(raw[i]));
    } else if (H5Dread(set.get(), H5T_NATIVE_FLOAT, H5S_ALL, H5S_ALL, H5P_DEFAULT,
                       values.data()) < 0) {
        fail("a data set fails to read");
    }
    return values;
}

/// The values of one layer over its data window, x fastest, components interleaved.
std::vector<float> readLayerValues(hid_t file, const Layer& l) {
    Handle partition = openGroup(file, l.partitionGroup.c_str());
    if (!partition.valid()) fail("a partition can't be opened");
    Handle group = openGroup(partition.get(), l.name.c_str());
    if (!group.valid()) fail("a layer can't be opened");
    const int64_t nx = l.size(0), ny = l.size(1), nz = l.size(2);
    const int64_t cells = l.cells();
    const int comps = l.components;

    if (l.className == "DenseField") return readDataSet(group.get(), "data", cells * comps, l.bits);

    if (l.className == "MACField") {
        // Faces per axis; the cell value is the mean of its two faces.
        const std::vector<float> u = readDataSet(group.get(), "u_data", (nx + 1) * ny * nz, l.bits);
        const std::vector<float> v = readDataSet(group.get(), "v_data", nx * (ny + 1) * nz, l.bits);
        const std::vector<float> w = readDataSet(group.get(), "w_data", nx * ny * (nz + 1), l.bits);
        std::vector<float> out(static_cast<size_t>(cells * 3));
        for (int64_t k = 0; k < nz; ++k)
            for (int64_t j = 0; j < ny; ++j)
                for (int64_t i = 0; i < nx; ++i) {
                    const int64_t cell = (k * ny + j) * nx + i;
                    const int64_t ui = (k * ny + j) * (nx + 1) + i;
                    const int64_t vi = (k * (ny + 1) + j) * nx + i;
                    const int64_t wi = (k * ny + j) * nx + i;
                    out[cell * 3 + 0] = (u[ui] + u[ui + 1]) * 0.5f;
                    out[cell * 3 + 1] = (v[vi] + v[vi + nx]) * 0.5f;
                    out[cell * 3 + 2] = (w[wi] + w[wi + nx * ny]) * 0.5f;
                }
        return out;
    }

    if (l.className == "SparseField") {
        int order = 4;
        if (!readNumbers(group.get(), "block_order", H5T_NATIVE_INT, &order, 1))
            fail("a sparse layer without block order");
        if (order < 0 || order > MAX_BLOCK_ORDER) fail("a sparse layer's block order");
        const int64_t b = int64_t{1} << order;
        int res[3];
        if (!readNumbers(group.get(), "block_res", H5T_NATIVE_INT, res, 3))
            fail("a sparse layer without block counts");
        const int64_t n[3] = {nx, ny, nz};
        for (int a = 0; a < 3; ++a)
            if (res[a] != (n[a] + b - 1) / b) fail("a sparse layer's block counts");
        const int64_t blocks = static_cast<int64_t>(res[0]) * res[1] * res[2];
        const int64_t blockValues = b * b * b * comps;

        Handle allocatedSet;
        std::vector<int8_t> allocated(static_cast<size_t>(blocks));
        {
            if (H5Lexists(group.get(), "block_is_allocated_data", H5P_DEFAULT) <= 0)
                fail("a sparse layer without its block table");
            Handle set(H5Dopen2(group.get(), "block_is_allocated_data", H5P_DEFAULT), H5Dclose);
            Handle space(set.valid() ? H5Dget_space(set.get()) : -1, H5Sclose);
            if (!space.valid() || H5Sget_simple_extent_npoints(space.get()) != blocks)
                fail("a sparse layer's block table");
            if (H5Dread(set.get(), H5T_NATIVE_SCHAR, H5S_ALL, H5S_ALL, H5P_DEFAULT,
                        allocated.data()) < 0)
                fail("a sparse layer's block table fails to read");
        }
        const std::vector<float> empty =
            readDataSet(group.get(), "block_empty_value_data", blocks * comps, l.bits);
        int64_t occupied = 0;
        for (int8_t a : allocated)
            if (a) ++occupied;
        std::vector<float> data;
        if (occupied > 0) data = readDataSet(group.get(), "data", occupied * blockValues, l.bits);

        std::vector<float> out(static_cast<size_t>(cells * comps));
        int64_t row = 0;
        for (int64_t bk = 0; bk < res[2]; ++bk)
            for (int64_t bj = 0; bj < res[1]; ++bj)
                for (int64_t bi = 0; bi < res[0]; ++bi) {
                    const int64_t id = (bk * res[1] + bj) * res[0] + bi;
                    const float* block = allocated[id] ? &data[row * blockValues] : nullptr;
                    if (allocated[id]) ++row;
                    for (int64_t vz = 0; vz < b && bk * b + vz < nz; ++vz)
                        for (int64_t vy = 0; vy < b && bj * b + vy < ny; ++vy)
                            for (int64_t vx = 0; vx < b && bi * b + vx < nx; ++vx) {
                                const int64_t cell =
                                    ((bk * b + vz) * ny + (bj * b + vy)) * nx + (bi * b + vx);
                                for (int c = 0; c < comps; ++c)
                                    out[cell * comps + c] =
                                        block ? block[((vz * b + vy) * b + vx) * comps + c]
                                              : empty[id * comps + c];
                            }
                }
        return out;
    }
    fail("a layer of an unsupported class");
}

bool sameMapping(const Layer& a, const Layer& b) {
    return std::memcmp(a.voxelToWorld, b.voxelToWorld, sizeof a.voxelToWorld) == 0;
}

/// gridTransform: world to grid, the inverse of T(box.min) * voxelToWorld, rounded to float.
bool worldToGrid(const double voxelToWorld[16], const int64_t boxMin[3], GridTransform& out) {
    // Affine only: the last column must be (0, 0, 0, 1).
    if (voxelToWorld[3] != 0.0 || voxelToWorld[7] != 0.0 || voxelToWorld[11] != 0.0 ||
        voxelToWorld[15] == 0.0)
        return false;
    double m[3][3], t[3];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) m[r][c] = voxelToWorld[r * 4 + c] / voxelToWorld[15];
    for (int c = 0; c < 3; ++c) {
        t[c] = voxelToWorld[12 + c] / voxelToWorld[15];
        for (int k = 0; k < 3; ++k) t[c] += static_cast<double>(boxMin[k]) * m[k][c];
    }
    const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                       m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                       m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    if (!std::isfinite(det) || det == 0.0) return false;
    double inv[3][3];
    inv[0][0] = (m[1][1] * m[2][2] - m[1][2] * m[2][1]) / det;
    inv[0][1] = (m[0][2] * m[2][1] - m[0][1] * m[2][2]) / det;
    inv[0][2] = (m[0][1] * m[1][2] - m[0][2] * m[1][1]) / det;
    inv[1][0] = (m[1][2] * m[2][0] - m[1][0] * m[2][2]) / det;
    inv[1][1] = (m[0][0] * m[2][2] - m[0][2] * m[2][0]) / det;
    inv[1][2] = (m[0][2] * m[1][0] - m[0][0] * m[1][2]) / det;
    inv[2][0] = (m[1][0] * m[2][1] - m[1][1] * m[2][0]) / det;
    inv[2][1] = (m[0][1] * m[2][0] - m[0][0] * m[2][1]) / det;
    inv[2][2] = (m[0][0] * m[1][1] - m[0][1] * m[1][0]) / det;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) out.m[r * 3 + c] = static_cast<float>(inv[r][c]);
    for (int c = 0; c < 3; ++c) {
        double s = 0.0;
        for (int k = 0; k < 3; ++k) s -= t[k] * inv[k][c];
        out.m[9 + c] = static_cast<float>(s);
    }
    for (float v : out.m)
        if (!std::isfinite(v)) return false;
    return true;
}

/// The reading itself; throws ReadError.
int readFrame(const char* path,
              VaporixFrameData& frame,
              bool headerOnly,
              const GridMapping* mappings,
              int count,
              LUtils::ThreadManager* threads) {
    // The container: Ogawa files and anything that is not HDF5 are refused before HDF5 opens.
    if (!sys::isFile(path)) return LOAD_NO_FILE;
    {
        char magic[5] = {};
        FILE* f = std::fopen(path, "rb");
        if (!f) return LOAD_NO_FILE;
        const size_t got = std::fread(magic, 1, sizeof magic, f);
        std::fclose(f);
        if (got == sizeof magic && std::memcmp(magic, "Ogawa", 5) == 0)
            fail("the Ogawa container is not supported, only HDF5");
    }
    if (H5Fis_hdf5(path) <= 0) fail("not an HDF5 file");
    Handle file(H5Fopen(path, H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    if (!file.valid()) fail("the file can't be opened");
    const std::vector<Layer> layers = readLayers(file.get());

    // The layers the mappings name; the first mapped layer's partition sets the transform.
    std::vector<Target> targets;
    for (int i = 0; i < count; ++i) {
        Target t{};
        if (!findChannel(layers, mappings[i].name, t)) continue;
        if (mappings[i].channel < 0 || mappings[i].channel >= CHANNEL_COUNT ||
            mappings[i].channel == CH_PACKED_RGB)
            continue;
        t.channel = mappings[i].channel;
        t.scale = mappings[i].scale;
        const Layer& l = layers[t.layer];
        if (!l.mappingValid) fail("a layer's mapping is missing or not a matrix");
        // Sizes are checked in floating point before any product of them is formed.
        double layerCells = 1.0;
        for (int a = 0; a < 3; ++a) {
            if (l.window[a + 3] < l.window[a]) fail("a layer with an empty data window");
            layerCells *= static_cast<double>(l.window[a + 3]) - l.window[a] + 1.0;
        }
        if (layerCells > static_cast<double>(gMaxCells)) fail("a layer has too many cells");
        if (l.components != 1 && l.components != 3) fail("a layer of neither 1 nor 3 components");
        if (l.className == "MACField" && l.components != 3) fail("a MAC layer that is not a vector");
        if (!targets.empty() && !sameMapping(layers[targets[0].layer], l)) {
            lumoLog("Field3D layer %s skipped: its mapping differs from the first layer's\n",
                    l.name.c_str());
            continue;
        }
        targets.push_back(t);
    }
    if (targets.empty()) fail("none of the mapped channels is in the file");

    // The frame box: the union of the data windows.
    int64_t boxMin[3], boxMax[3];
    int64_t storedCells = 0;
    for (int a = 0; a < 3; ++a) {
        boxMin[a] = INT64_MAX;
        boxMax[a] = INT64_MIN;
    }
    for (const Target& t : targets) {
        const Layer& l = layers[t.layer];
        storedCells += l.cells();
        for (int a = 0; a < 3; ++a) {
            boxMin[a] = std::min<int64_t>(boxMin[a], l.window[a]);
            boxMax[a] = std::max<int64_t>(boxMax[a], l.window[a + 3]);
        }
    }
    int64_t size[3];
    for (int a = 0; a < 3; ++a) size[a] = boxMax[a] - boxMin[a] + 1;
    const double cells = static_cast<double>(size[0]) * size[1] * size[2];
    if (cells > static_cast<double>(gMaxCells)) fail("the grid has too many cells");
    // Layers far apart make a box much bigger than their data: that is damage, not a cache.
    if (cells > 8.0 * static_cast<double>(storedCells) + EXPANSION_ALLOWANCE)
        fail("the layers' data windows lie far apart");

    frame.gridSize[0] = static_cast<int32_t>(size[0]);
    frame.gridSize[1] = static_cast<int32_t>(size[1]);
    frame.gridSize[2] = static_cast<int32_t>(size[2]);
    if (!worldToGrid(layers[targets[0].layer].voxelToWorld, boxMin, frame.gridTransform))
        fail("the mapping can't be inverted");
    for (const Target& t : targets) frame.channelMask |= 1u << t.channel;
    if (headerOnly) return LOAD_OK;

    // The values, one layer read at a time, scattered into the channels it feeds.
    const int64_t frameCells = size[0] * size[1] * size[2];
    for (size_t i = 0; i < targets.size(); ++i) {
        const Target& t = targets[i];
        if (frame.channels[t.channel]) {
            internal::arrayRelease(frame.channels[t.channel]);
            frame.channels[t.channel] = nullptr;
        }
    }
    MTFunction engine(threads);
    std::vector<bool> done(targets.size(), false);
    for (size_t i = 0; i < targets.size(); ++i) {
        if (done[i]) continue;
        const Layer& l = layers[targets[i].layer];
        const std::vector<float> values = readLayerValues(file.get(), l);
        for (size_t j = i; j < targets.size(); ++j) {
            if (targets[j].layer != targets[i].layer) continue;
            done[j] = true;
            const Target& t = targets[j];
            auto* out = static_cast<float*>(internal::arrayAllocate(
                static_cast<size_t>(frameCells + 4) * sizeof(float)));
            if (!out) throw ReadError{STATUS_OUT_OF_MEMORY};
            internal::arrayRelease(frame.channels[t.channel]);
            frame.channels[t.channel] = out;
            const int64_t off[3] = {l.window[0] - boxMin[0], l.window[1] - boxMin[1],
                                    l.window[2] - boxMin[2]};
            const int64_t nx = l.size(0), ny = l.size(1);
            const int comps = l.components;
            // Rows of the frame: each one is zero outside the layer and copied inside it.
            engine.forRange(static_cast<uint64_t>(size[1] * size[2]),
                            [&](uint64_t first, uint64_t last, Job&) {
                                for (uint64_t r = first; r < last; ++r) {
                                    const int64_t y = static_cast<int64_t>(r) % size[1];
                                    const int64_t z = static_cast<int64_t>(r) / size[1];
                                    float* row = out + static_cast<int64_t>(r) * size[0];
                                    const int64_t ly = y - off[1], lz = z - off[2];
                                    if (ly < 0 || ly >= ny || lz < 0 || lz >= l.size(2)) {
                                        std::fill(row, row + size[0], 0.0f);
                                        continue;
                                    }
                                    const float* src = values.data() + (lz * ny + ly) * nx * comps;
                                    for (int64_t x = 0; x < size[0]; ++x) {
                                        const int64_t lx = x - off[0];
                                        row[x] = (lx >= 0 && lx < nx)
                                                     ? src[lx * comps + t.component] * t.scale
                                                     : 0.0f;
                                    }
                                }
                            });
            std::fill(out + frameCells, out + frameCells + 4, 0.0f);
        }
    }
    return LOAD_OK;
}

}  // namespace

void setMaxCellsForTesting(int64_t cells) {
    gMaxCells = cells > 0 ? cells : sidemodule::MAX_IMPORT_CELLS;
}

void listChannels(const char* path, iArray<AvaiableChannels>& out) {
    std::lock_guard<std::mutex> lock(hdf5Lock());
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    try {
        if (!path || !sys::isFile(path)) return;
        char magic[5] = {};
        if (FILE* f = std::fopen(path, "rb")) {
            const size_t got = std::fread(magic, 1, sizeof magic, f);
            std::fclose(f);
            if (got == sizeof magic && std::memcmp(magic, "Ogawa", 5) == 0) return;
        }
        if (H5Fis_hdf5(path) <= 0) return;
        Handle file(H5Fopen(path, H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
        if (!file.valid()) return;
        const std::vector<Layer> layers = readLayers(file.get());
        auto add = [&](const std::string& name, uint8_t kind) {
            for (const auto& have : out)
                if (have.name == name) return;
            AvaiableChannels ch;
            ch.name = iString(name);
            ch.kind = kind;
            out.append(ch);
        };
        for (const Layer& l : layers) {
            if (l.components == 1) {
                add(l.name, CacheIO::KIND_SCALAR);
            } else if (l.components == 3) {
                for (const char* axis : {"(x)", "(y)", "(z)"})
                    add(l.name + axis, CacheIO::KIND_VECTOR_COMPONENT);
            }
        }
    } catch (const ReadError&) {
    } catch (const std::bad_alloc&) {
    }
}

int importFrame(const char* path,
                VaporixFrameData& frame,
                bool headerOnly,
                const GridMapping* mappings,
                int count,
                LUtils::ThreadManager* threads) {
    if (!path || !*path) return LOAD_NO_FILE;
    std::lock_guard<std::mutex> lock(hdf5Lock());
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    int status;
    try {
        status = readFrame(path, frame, headerOnly, mappings, count, threads);
    } catch (const ReadError& e) {
        status = e.status;
    } catch (const std::bad_alloc&) {
        lumoLog("Field3D read failed: out of memory\n");
        status = STATUS_OUT_OF_MEMORY;
    } catch (const std::length_error&) {
        status = STATUS_OUT_OF_MEMORY;
    }
    if (status != LOAD_OK) {
        for (auto*& c : frame.channels) {
            internal::arrayRelease(c);
            c = nullptr;
        }
        frame.channelMask = 0;
        frame.gridSize[0] = frame.gridSize[1] = frame.gridSize[2] = 0;
    }
    return status;
}

}  // namespace vaporix::field3dio
