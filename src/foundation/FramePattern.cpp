// Frame pattern scanning and expansion, frame numbers in names, path pieces.
#include "foundation/FramePattern.h"

#include <climits>
#include <cstdio>

#include "foundation/sys/Files.h"

namespace vaporix {

namespace {

constexpr std::string_view FRAME_TAG = "frame";

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isSeparator(char c) { return c == '/' || c == '\\'; }
bool isConversion(char c) {
    return c == 'd' || c == 'D' || c == 'i' || c == 'I' || c == 'u' || c == 'U';
}

// One frame-pattern item found at a position of the text.
struct PatternItem {
    size_t length = 0;  // characters the item covers
    int width = 0;      // minimum width, capped
    bool zeroPad = false;
    bool isUnsigned = false;
};

// Reads `[0][digits]` at `i`; returns the position behind it. The width saturates at the cap so
// that a long digit run cannot overflow.
size_t readFlagsAndWidth(std::string_view s, size_t i, PatternItem& item) {
    if (i < s.size() && s[i] == '0') {
        item.zeroPad = true;
        ++i;
    }
    int width = 0;
    for (; i < s.size() && isDigit(s[i]); ++i)
        if (width <= MAX_FRAME_WIDTH) width = width * 10 + (s[i] - '0');
    item.width = width > MAX_FRAME_WIDTH ? MAX_FRAME_WIDTH : width;
    return i;
}

// `%[0][digits]conv` at `i` (which holds the `%`).
bool matchPercent(std::string_view s, size_t i, PatternItem& item) {
    item = PatternItem{};
    const size_t end = readFlagsAndWidth(s, i + 1, item);
    if (end >= s.size() || !isConversion(s[end])) return false;
    item.isUnsigned = s[end] == 'u' || s[end] == 'U';
    item.length = end + 1 - i;
    return true;
}

bool beginsFrameTag(std::string_view s, size_t i) {
    return s.substr(i + 1, FRAME_TAG.size()) == FRAME_TAG;
}

// `<frame[0][digits]>` at `i` (which holds the `<`).
bool matchFrameTag(std::string_view s, size_t i, PatternItem& item) {
    item = PatternItem{};
    const size_t end = readFlagsAndWidth(s, i + 1 + FRAME_TAG.size(), item);
    if (end >= s.size() || s[end] != '>') return false;
    item.length = end + 1 - i;
    return true;
}

// Appends `value` formatted like printf's %[0]<width>d (or u).
void appendNumber(std::string& out, int32_t value, const PatternItem& item) {
    char digits[24];
    int n;
    if (item.isUnsigned)
        n = std::snprintf(digits, sizeof digits, "%u", static_cast<uint32_t>(value));
    else
        n = std::snprintf(digits, sizeof digits, "%d", value);
    const bool negative = !item.isUnsigned && value < 0;
    const int pad = item.width > n ? item.width - n : 0;
    if (item.zeroPad) {
        if (negative) out += '-';
        out.append(static_cast<size_t>(pad), '0');
        out.append(digits + (negative ? 1 : 0));
    } else {
        out.append(static_cast<size_t>(pad), ' ');
        out.append(digits);
    }
}

void appendFrame(std::string& out, int32_t frame, std::string_view fill, const PatternItem& item) {
    if (frame == NO_FRAME_NUMBER)
        out.append(fill.substr(0, MAX_FILL_LENGTH));
    else if (frame != FRAME_NOT_SET)
        appendNumber(out, frame, item);
}

// Position of the last separator, or npos.
size_t lastSeparator(std::string_view s) { return s.find_last_of("/\\"); }

// Finds the digit run that carries the frame number: [begin, end) including a leading '-'.
// False when the name has none (see parseFrameNumber for the rules).
bool findFrameDigits(std::string_view name, size_t& begin, size_t& end) {
    const size_t dot = name.rfind('.');
    if (dot == std::string_view::npos) return false;
    const size_t sep = lastSeparator(name);
    if (sep != std::string_view::npos && sep > dot) return false;
    // Backwards from the dot to the first digit, never across a separator.
    size_t i = dot;
    while (i > 0 && !isDigit(name[i - 1])) {
        if (isSeparator(name[i - 1])) return false;
        --i;
    }
    if (i == 0) return false;
    end = i;
    while (i > 0 && isDigit(name[i - 1])) --i;
    if (i > 0 && name[i - 1] == '-') --i;
    begin = i;
    return true;
}

}  // namespace

bool hasFramePattern(std::string_view path) {
    PatternItem item;
    size_t i = 0;
    while (i < path.size()) {
        const char c = path[i];
        if (c == '#') return true;
        if (c == '%') {
            if (i + 1 < path.size() && path[i + 1] == '%') {
                i += 2;
                continue;
            }
            if (matchPercent(path, i, item)) return true;
        } else if (c == '<') {
            if (!beginsFrameTag(path, i)) {
                i += 2;
                continue;
            }
            if (matchFrameTag(path, i, item)) return true;
        }
        ++i;
    }
    return false;
}

void expandFramePattern(std::string& out,
                        std::string_view path,
                        int32_t frame,
                        std::string_view fill) {
    out.clear();
    const size_t sep = lastSeparator(path);
    size_t i = sep == std::string_view::npos ? 0 : sep + 1;
    out.append(path.substr(0, i));
    PatternItem item;
    while (i < path.size()) {
        const char c = path[i];
        if (c == '%') {
            if (i + 1 < path.size() && path[i + 1] == '%') {
                out += "%%";
                i += 2;
                continue;
            }
            if (matchPercent(path, i, item)) {
                appendFrame(out, frame, fill, item);
                i += item.length;
                continue;
            }
        } else if (c == '<') {
            if (!beginsFrameTag(path, i)) {
                // The character behind a stray '<' is copied without being looked at.
                out.append(path.substr(i, 2));
                i += 2;
                continue;
            }
            if (matchFrameTag(path, i, item)) {
                appendFrame(out, frame, fill, item);
                i += item.length;
                continue;
            }
        } else if (c == '#') {
            size_t run = 0;
            while (i + run < path.size() && path[i + run] == '#') ++run;
            item = PatternItem{};
            item.zeroPad = true;
            item.width = run > MAX_FRAME_WIDTH ? MAX_FRAME_WIDTH : static_cast<int>(run);
            appendFrame(out, frame, fill, item);
            i += run;
            continue;
        }
        out += c;
        ++i;
    }
}

std::string expandFramePattern(std::string_view path, int32_t frame, std::string_view fill) {
    std::string out;
    expandFramePattern(out, path, frame, fill);
    return out;
}

int32_t parseFrameNumber(std::string_view name) {
    size_t begin, end;
    if (!findFrameDigits(name, begin, end)) return NO_FRAME_NUMBER;
    // Accumulate in 64 bits and stop once the value has left the int32 range for good.
    const bool negative = name[begin] == '-';
    int64_t value = 0;
    for (size_t i = negative ? begin + 1 : begin; i < end; ++i) {
        value = value * 10 + (name[i] - '0');
        if (value > int64_t(INT32_MAX) + 1) return NO_FRAME_NUMBER;
    }
    if (negative) value = -value;
    if (value > INT32_MAX || value < INT32_MIN) return NO_FRAME_NUMBER;
    return static_cast<int32_t>(value);
}

void makePatternFromFile(std::string& out, std::string_view name) {
    out.assign(name);
    size_t begin, end;
    if (!findFrameDigits(name, begin, end)) return;
    const size_t firstDigit = name[begin] == '-' ? begin + 1 : begin;
    const size_t hashes = name[firstDigit] == '0' ? end - begin : 1;
    out.replace(begin, end - begin, hashes, '#');
}

std::string makePatternFromFile(std::string_view name) {
    std::string out;
    makePatternFromFile(out, name);
    return out;
}

std::string getExtension(std::string_view path) {
    const size_t dot = path.rfind('.');
    if (dot == std::string_view::npos) return {};
    const size_t sep = lastSeparator(path);
    if (sep != std::string_view::npos && sep > dot) return {};
    return std::string(path.substr(dot + 1));
}

void splitPath(std::string& folder, std::string_view path, std::string& name) {
    const size_t sep = lastSeparator(path);
    const size_t cut = sep == std::string_view::npos ? 0 : sep + 1;
    folder.assign(path.substr(0, cut));
    name.assign(path.substr(cut));
}

std::string toNativeSeparators(std::string_view path) {
    std::string out(path);
    for (char& c : out)
        if (c == '\\') c = '/';
    return out;
}

bool createDirectories(std::string_view path) {
    if (path.size() >= sys::MAX_PATH_LENGTH) return false;
    const std::string native = toNativeSeparators(path);
    for (size_t i = 0; i < native.size(); ++i) {
        if (native[i] != '/' || i == 0) continue;  // "/" itself always exists
        if (sys::makeFolder(native.substr(0, i)) == sys::MakeFolderResult::InvalidName)
            return false;
    }
    return true;
}

}  // namespace vaporix
