// NUMA nodes of the machine and the processors of each, as the kernel lists them.
#pragma once

#include <string>
#include <vector>

namespace vaporix::sys {

struct NumaNode {
    int id = 0;
    /// Processor numbers of the node, ascending.
    std::vector<int> processors;
};

/// Nodes from `<root>/node<N>/cpulist` in ascending node order (memory-only nodes have no
/// processors and are listed too). Empty when the folder is missing, as on kernels without NUMA.
std::vector<NumaNode> enumerateNumaNodes(const std::string& root = "/sys/devices/system/node");

/// Parses a kernel processor list such as "0-3,8,10-11". @return false on a malformed list.
bool parseProcessorList(const std::string& text, std::vector<int>& processors);

}  // namespace vaporix::sys
