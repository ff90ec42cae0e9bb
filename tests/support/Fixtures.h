// The tiny .vxg fixtures of tests/data: one per file generation and particle section kind.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VxgBuilder.h"

namespace vaporix::test {

/// Names of the fixtures, as files in tests/data.
std::vector<std::string> fixtureNames();

/// Writes fixture `name` to `path`. @return false for an unknown name or a failed write.
bool writeFixture(const std::string& name, const std::string& path);

/// Values the fixtures hold, shared by the generator and the tests.
namespace fixture {
/// Channel 1 of every fixture grid: 0, 1, 2, ... over 2x2x2 cells (3x2x2 in the writer's file).
std::vector<float> ramp(int n);
/// Particle positions of the fixture groups: particle i at (i, 2i, 3i) + (0.5, 0.25, 0.125).
std::vector<float> positions(int count);
/// IDs of the writer's fixture group: 1000 + 7i, with particles 3 and 4 exchanged.
std::vector<int64_t> ids(int count);
/// IDs of the coded oldest fixture's group, stored as differences under an ID sub-tag.
constexpr int64_t OLD_IDS[3] = {30, 10, 20};
}  // namespace fixture

/// Bit-plane form of particle channel kind 4 before deflate: plane (k * 32 + b) of w words
/// holds bit b of component k of every particle.
std::vector<uint32_t> toBitPlanes(const std::vector<uint32_t>& values, int count, int components);
/// zlib stream of bytes.
Bytes deflateBytes(const void* data, size_t n);

}  // namespace vaporix::test
