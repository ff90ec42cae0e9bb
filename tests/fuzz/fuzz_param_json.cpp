// libFuzzer target: parameter documents (the JSON files of `vaporix params`), read into a
// parameter store; what reads back is written out and must read again, settling on one text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "playback/MemoryParamStorage.h"
#include "playback/ParamJson.h"

using namespace vaporix;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = [] {
        setLogSink([](const std::string&) {});
        return true;
    }();
    (void)quiet;
    if (size > 65536) return 0;  // documents are small; long ones only repeat the same paths
    const std::string text(reinterpret_cast<const char*>(data), size);
    MemoryParamStorage storage;
    std::vector<std::string> warnings;
    std::string error;
    if (!readParamsDocument(text, storage, warnings, error)) return 0;
    // A document that was read is written and reads again. Bytes that are not UTF-8 are
    // written as the characters of their numbers, so the text settles after one round: from
    // the second writing on it stays the same.
    const std::string once = writeParamsDocument(storage, true);
    MemoryParamStorage again;
    warnings.clear();
    if (!readParamsDocument(once, again, warnings, error)) std::abort();
    const std::string twice = writeParamsDocument(again, true);
    MemoryParamStorage third;
    if (!readParamsDocument(twice, third, warnings, error)) std::abort();
    if (writeParamsDocument(third, true) != twice) std::abort();
    return 0;
}
