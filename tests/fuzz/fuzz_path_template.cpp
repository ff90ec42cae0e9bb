// libFuzzer target: frame patterns and cache path templates with macros: expansion for any
// frame, frame numbers of names, patterns made from names, extensions, folder splits.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "foundation/FramePattern.h"
#include "playback/CachePaths.h"

using namespace vaporix;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4 || size > 4096) return 0;
    int32_t frame;
    std::memcpy(&frame, data, 4);
    const std::string_view text(reinterpret_cast<const char*>(data) + 4, size - 4);
    // Up to the first NUL: the template; after it, a file name.
    const size_t cut = text.find('\0');
    const std::string_view pattern = text.substr(0, cut);
    const std::string_view name = cut == std::string_view::npos ? text : text.substr(cut + 1);

    CachePathContext context;
    context.dir = "/scenes/shot 10";
    context.scene = "fire$(dir).max";  // a macro inside a value is not expanded again
    context.handle = "1234";
    context.nodename = std::string(name.substr(0, 64));
    const std::string expanded = expandCachePathMacros(std::string(pattern), context);
    if (expanded.find('\\') != std::string::npos) std::abort();

    const bool hasPattern = hasFramePattern(expanded);
    std::string out;
    expandFramePattern(out, expanded, frame, "");
    expandFramePattern(out, expanded, NO_FRAME_NUMBER, "*");
    expandFramePattern(out, expanded, frame, "#");
    if (!hasPattern && expandFramePattern(expanded, frame) != expanded) std::abort();

    const int32_t n = parseFrameNumber(name);
    std::string made;
    makePatternFromFile(made, name);
    // A name whose frame is a signed zero ("b-0.vxg", "b-00.vxg") has no pattern of its own:
    // frame 0 comes back without its sign.
    const bool signedZero = n == 0 && name.find("-0") != std::string_view::npos;
    // Pattern characters in the name itself ('#', '%', '<' that skips the next character)
    // take part in the expansion too.
    const bool patternChars = name.find_first_of("#%<") != std::string_view::npos;
    // Widths are capped at 12: a longer run of digits comes back shorter.
    const bool longRun = made.find(std::string(13, '#')) != std::string::npos;
    if (n != NO_FRAME_NUMBER && !signedZero && !patternChars && !longRun) {
        // The pattern made from a numbered name gives that name back for its own frame.
        if (expandFramePattern(made, n) != name) std::abort();
    }
    getExtension(name);
    std::string folder, file;
    splitPath(folder, name, file);
    if (folder + file != toNativeSeparators(name) && folder + file != std::string(name))
        std::abort();
    toNativeSeparators(pattern);
    cacheFileNameAt(std::string(pattern), frame, 160);
    return 0;
}
