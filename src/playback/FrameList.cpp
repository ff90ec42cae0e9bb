// Parser of frame lists: numbers, ranges with an optional step, comma separated.
#include "playback/FrameList.h"

#include <cmath>
#include <cstdlib>

namespace vaporix {

namespace {

/// Reads a number at `pos` (an optional minus, digits, an optional fraction); no exponent, no
/// sign other than '-', no hex, so "1e5" or "inf" are refused.
bool readNumber(const std::string& s, size_t& pos, double& out) {
    const size_t start = pos;
    if (pos < s.size() && s[pos] == '-') ++pos;
    const size_t digits = pos;
    while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') ++pos;
    bool any = pos > digits;
    if (pos < s.size() && s[pos] == '.') {
        ++pos;
        const size_t fraction = pos;
        while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') ++pos;
        any = any || pos > fraction;
    }
    if (!any || pos - start > 32) return false;
    out = std::strtod(s.substr(start, pos - start).c_str(), nullptr);
    return std::isfinite(out) && std::fabs(out) <= FRAME_LIST_LIMIT;
}

void skipSpaces(const std::string& s, size_t& pos) {
    while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t')) ++pos;
}

}  // namespace

bool parseFrameList(const std::string& text, std::vector<double>& frames, std::string& error) {
    frames.clear();
    size_t pos = 0;
    while (true) {
        skipSpaces(text, pos);
        double a;
        if (!readNumber(text, pos, a)) {
            error = "expected a frame number at position " + std::to_string(pos + 1);
            return false;
        }
        skipSpaces(text, pos);
        if (pos < text.size() && text[pos] == '-') {
            ++pos;
            skipSpaces(text, pos);
            double b, step = 1.0;
            if (!readNumber(text, pos, b)) {
                error = "expected the end of a range at position " + std::to_string(pos + 1);
                return false;
            }
            skipSpaces(text, pos);
            if (pos < text.size() && (text[pos] == 'x' || text[pos] == 'X')) {
                ++pos;
                skipSpaces(text, pos);
                if (!readNumber(text, pos, step) || !(step > 0.0)) {
                    error = "a range step must be a number above 0";
                    return false;
                }
            }
            if (b < a) {
                error = "a range must not end below its start";
                return false;
            }
            // Count first: the list's size is checked before anything is added.
            const double n = std::floor((b - a) / step + 1e-9) + 1.0;
            if (n + static_cast<double>(frames.size()) > static_cast<double>(FRAME_LIST_MAX)) {
                error = "the list names more than " + std::to_string(FRAME_LIST_MAX) + " frames";
                return false;
            }
            for (size_t i = 0; i < static_cast<size_t>(n); ++i)
                frames.push_back(a + static_cast<double>(i) * step);
        } else {
            if (frames.size() >= FRAME_LIST_MAX) {
                error = "the list names more than " + std::to_string(FRAME_LIST_MAX) + " frames";
                return false;
            }
            frames.push_back(a);
        }
        skipSpaces(text, pos);
        if (pos == text.size()) return true;
        if (text[pos] != ',') {
            error = "unexpected '" + std::string(1, text[pos]) + "' at position " +
                    std::to_string(pos + 1);
            return false;
        }
        ++pos;
    }
}

}  // namespace vaporix
