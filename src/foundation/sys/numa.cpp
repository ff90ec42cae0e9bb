// NUMA enumeration from sysfs.
#include "foundation/sys/numa.h"

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

namespace vaporix::sys {

namespace {
// No machine has more processors than this; it also bounds what a bad list can make us store.
constexpr long MAX_PROCESSOR = 1 << 16;

bool parseNumber(const std::string& s, long& out) {
    if (s.empty() || s.size() > 9) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    out = std::strtol(s.c_str(), nullptr, 10);
    return true;
}
}  // namespace

bool parseProcessorList(const std::string& text, std::vector<int>& processors) {
    processors.clear();
    std::string list = text;
    while (!list.empty() && (list.back() == '\n' || list.back() == ' ')) list.pop_back();
    if (list.empty()) return true;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        if (end == std::string::npos) end = list.size();
        const std::string item = list.substr(start, end - start);
        const size_t dash = item.find('-');
        long lo = 0, hi = 0;
        if (dash == std::string::npos) {
            if (!parseNumber(item, lo)) return false;
            hi = lo;
        } else if (!parseNumber(item.substr(0, dash), lo) ||
                   !parseNumber(item.substr(dash + 1), hi)) {
            return false;
        }
        if (lo > hi || hi >= MAX_PROCESSOR) return false;
        for (long p = lo; p <= hi; ++p) processors.push_back(static_cast<int>(p));
        start = end + 1;
    }
    std::sort(processors.begin(), processors.end());
    processors.erase(std::unique(processors.begin(), processors.end()), processors.end());
    return true;
}

std::vector<NumaNode> enumerateNumaNodes(const std::string& root) {
    std::vector<NumaNode> nodes;
    DIR* dir = opendir(root.c_str());
    if (!dir) return nodes;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        long id = 0;
        if (name.compare(0, 4, "node") != 0 || !parseNumber(name.substr(4), id)) continue;
        std::ifstream in(root + "/" + name + "/cpulist");
        std::string line;
        std::getline(in, line);
        NumaNode node;
        node.id = static_cast<int>(id);
        if (!parseProcessorList(line, node.processors)) node.processors.clear();
        nodes.push_back(std::move(node));
    }
    closedir(dir);
    std::sort(nodes.begin(), nodes.end(),
              [](const NumaNode& a, const NumaNode& b) { return a.id < b.id; });
    return nodes;
}

}  // namespace vaporix::sys
