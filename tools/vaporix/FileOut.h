// Whole-file reads and atomic writes for the tool's inputs and outputs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vaporix::cli {

/// Writes through a temporary file in the same folder, renamed into place when complete.
bool writeFileAtomically(const std::string& path, const void* data, uint64_t bytes);

/// Reads a whole file; false when it can't be read.
bool readWholeFile(const std::string& path, std::vector<uint8_t>& out);

}  // namespace vaporix::cli
