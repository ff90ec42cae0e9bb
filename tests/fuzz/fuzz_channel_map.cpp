// libFuzzer target: the channel-map text ("2,density;1,temperature;") of foreign caches. Any text
// must parse without crash or stray access, and what it parses to must print as a text that
// parses back to the same mappings.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "cache/CacheIO.h"

using vaporix::iArray;
using vaporix::CacheIO::GridMapping;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    iArray<GridMapping> first;
    const int added = vaporix::CacheIO::parseChannelMap(text.c_str(), first);
    if (added != first.count) std::abort();
    const std::string printed = vaporix::CacheIO::printChannelMap(first);
    iArray<GridMapping> again;
    vaporix::CacheIO::parseChannelMap(printed.c_str(), again);
    if (again.count != first.count) std::abort();
    for (int i = 0; i < first.count; ++i)
        if (again[i].channel != first[i].channel ||
            std::string(again[i].name.c_str()) != first[i].name.c_str())
            std::abort();
    return 0;
}
