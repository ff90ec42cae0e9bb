// Writes small Field3D files (HDF5 container) for the reader's tests: the layouts the fixtures do
// not cover (sparse layers) and damaged ones.
#pragma once

#include <string>
#include <vector>

namespace vaporix::test {

/// One layer to write. `values` hold the data window's values, x fastest, components
/// interleaved (dense), or are laid out by the writer into blocks (sparse).
struct F3DLayer {
    std::string name;
    std::string className = "DenseField";  // or "SparseField"
    int extents[6] = {0, 0, 0, 3, 3, 3};
    int window[6] = {0, 0, 0, 3, 3, 3};
    int components = 1;
    std::vector<float> values;
    // Sparse: block order, and the value of blocks that hold nothing but it.
    int blockOrder = 1;
    float emptyValue = 0.0f;
    /// Overrides for damaged files: block counts written as given when set.
    std::vector<int> blockResOverride;
    /// Writes the data set with this many elements instead of the right count (dense).
    long long denseCountOverride = -1;
};

/// Writes one partition `partition.0` with a MatrixFieldMapping (local-to-world, row vectors).
bool writeField3D(const std::string& path,
                  const std::string& partition,
                  const double localToWorld[16],
                  const std::vector<F3DLayer>& layers);

}  // namespace vaporix::test
