// Test-only Field3D writer on the HDF5 C API, laid out as the library writes its files.
#include "Field3DWriter.h"

#include <hdf5.h>

#include <cstring>

namespace vaporix::test {

namespace {

void stringAttr(hid_t obj, const char* name, const std::string& value) {
    const hid_t type = H5Tcopy(H5T_C_S1);
    H5Tset_size(type, value.size());
    H5Tset_strpad(type, H5T_STR_NULLTERM);
    const hid_t space = H5Screate(H5S_SCALAR);
    const hid_t attr = H5Acreate2(obj, name, type, space, H5P_DEFAULT, H5P_DEFAULT);
    H5Awrite(attr, type, value.data());
    H5Aclose(attr);
    H5Sclose(space);
    H5Tclose(type);
}

void intAttr(hid_t obj, const char* name, const int* values, hsize_t n) {
    const hid_t space = H5Screate_simple(1, &n, nullptr);
    const hid_t attr = H5Acreate2(obj, name, H5T_NATIVE_INT, space, H5P_DEFAULT, H5P_DEFAULT);
    H5Awrite(attr, H5T_NATIVE_INT, values);
    H5Aclose(attr);
    H5Sclose(space);
}

void floatDataSet(hid_t group, const char* name, const std::vector<float>& values, int rank,
                  const hsize_t* dims) {
    const hid_t space = H5Screate_simple(rank, dims, nullptr);
    const hid_t set = H5Dcreate2(group, name, H5T_NATIVE_FLOAT, space, H5P_DEFAULT, H5P_DEFAULT,
                                 H5P_DEFAULT);
    if (!values.empty())
        H5Dwrite(set, H5T_NATIVE_FLOAT, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
    H5Dclose(set);
    H5Sclose(space);
}

}  // namespace

bool writeField3D(const std::string& path,
                  const std::string& partition,
                  const double localToWorld[16],
                  const std::vector<F3DLayer>& layers) {
    const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
    if (file < 0) return false;
    const hid_t part =
        H5Gcreate2(file, (partition + ".0").c_str(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    stringAttr(part, "is_field3d_partition", "1");

    const hid_t mapping = H5Gcreate2(part, "mapping", H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    stringAttr(mapping, "mapping_type", "MatrixFieldMapping");
    const int one = 1;
    intAttr(mapping, "num_time_samples", &one, 1);
    {
        const hsize_t n = 1;
        const float t = 0.0f;
        const hid_t space = H5Screate_simple(1, &n, nullptr);
        const hid_t attr =
            H5Acreate2(mapping, "time_0", H5T_NATIVE_FLOAT, space, H5P_DEFAULT, H5P_DEFAULT);
        H5Awrite(attr, H5T_NATIVE_FLOAT, &t);
        H5Aclose(attr);
        H5Sclose(space);
        const hsize_t dims[2] = {4, 4};
        const hid_t mspace = H5Screate_simple(2, dims, nullptr);
        const hid_t mattr =
            H5Acreate2(mapping, "matrix_0", H5T_NATIVE_DOUBLE, mspace, H5P_DEFAULT, H5P_DEFAULT);
        H5Awrite(mattr, H5T_NATIVE_DOUBLE, localToWorld);
        H5Aclose(mattr);
        H5Sclose(mspace);
    }
    H5Gclose(mapping);

    for (const F3DLayer& l : layers) {
        const hid_t g = H5Gcreate2(part, l.name.c_str(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
        stringAttr(g, "class_type", "field3d_layer");
        stringAttr(g, "class_name", l.className);
        intAttr(g, "version", &one, 1);
        intAttr(g, "extents", l.extents, 6);
        intAttr(g, "data_window", l.window, 6);
        intAttr(g, "components", &l.components, 1);
        const int bits = 32;
        intAttr(g, "bits_per_component", &bits, 1);
        const int n[3] = {l.window[3] - l.window[0] + 1, l.window[4] - l.window[1] + 1,
                          l.window[5] - l.window[2] + 1};
        const int comps = l.components;
        if (l.className == "DenseField") {
            const hsize_t count = l.denseCountOverride >= 0
                                      ? static_cast<hsize_t>(l.denseCountOverride)
                                      : static_cast<hsize_t>(n[0]) * n[1] * n[2] * comps;
            std::vector<float> values;
            if (l.denseCountOverride < 0) {
                values = l.values;
                values.resize(count, 0.0f);
            }
            floatDataSet(g, "data", values, 1, &count);
        } else {
            const int b = 1 << l.blockOrder;
            int res[3] = {(n[0] + b - 1) / b, (n[1] + b - 1) / b, (n[2] + b - 1) / b};
            if (l.blockResOverride.size() == 3)
                for (int a = 0; a < 3; ++a) res[a] = l.blockResOverride[a];
            intAttr(g, "block_order", &l.blockOrder, 1);
            intAttr(g, "block_res", res, 3);
            const int blocks = res[0] * res[1] * res[2];
            intAttr(g, "num_blocks", &blocks, 1);
            // A block is allocated unless every voxel in it equals the empty value.
            std::vector<char> allocated(static_cast<size_t>(blocks), 0);
            std::vector<float> empty(static_cast<size_t>(blocks) * comps, l.emptyValue);
            std::vector<float> data;
            const int bv = b * b * b * comps;
            for (int bk = 0; bk < res[2]; ++bk)
                for (int bj = 0; bj < res[1]; ++bj)
                    for (int bi = 0; bi < res[0]; ++bi) {
                        const int id = (bk * res[1] + bj) * res[0] + bi;
                        std::vector<float> block(static_cast<size_t>(bv), l.emptyValue);
                        bool any = false;
                        for (int z = 0; z < b; ++z)
                            for (int y = 0; y < b; ++y)
                                for (int x = 0; x < b; ++x) {
                                    const int gx = bi * b + x, gy = bj * b + y, gz = bk * b + z;
                                    if (gx >= n[0] || gy >= n[1] || gz >= n[2]) continue;
                                    for (int c = 0; c < comps; ++c) {
                                        const size_t src =
                                            ((static_cast<size_t>(gz) * n[1] + gy) * n[0] + gx) *
                                                comps + c;
                                        const float v = src < l.values.size() ? l.values[src] : 0;
                                        block[((z * b + y) * b + x) * comps + c] = v;
                                        if (v != l.emptyValue) any = true;
                                    }
                                }
                        if (any) {
                            allocated[id] = 1;
                            data.insert(data.end(), block.begin(), block.end());
                        }
                    }
            const int occupied = static_cast<int>(data.size() / bv);
            intAttr(g, "num_occupied_blocks", &occupied, 1);
            const hsize_t nb = static_cast<hsize_t>(blocks);
            const hid_t space = H5Screate_simple(1, &nb, nullptr);
            const hid_t set = H5Dcreate2(g, "block_is_allocated_data", H5T_NATIVE_CHAR, space,
                                         H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
            H5Dwrite(set, H5T_NATIVE_CHAR, H5S_ALL, H5S_ALL, H5P_DEFAULT, allocated.data());
            H5Dclose(set);
            H5Sclose(space);
            const hsize_t ne = static_cast<hsize_t>(blocks) * comps;
            floatDataSet(g, "block_empty_value_data", empty, 1, &ne);
            if (occupied > 0) {
                const hsize_t dims[2] = {static_cast<hsize_t>(occupied),
                                         static_cast<hsize_t>(bv)};
                floatDataSet(g, "data", data, 2, dims);
            }
        }
        H5Gclose(g);
    }
    H5Gclose(part);
    H5Fclose(file);
    return true;
}

}  // namespace vaporix::test
