// The frame list of the command line: "A-B", "A-BxSTEP" or a comma list of frames and ranges.
#pragma once

#include <string>
#include <vector>

namespace vaporix {

/// Most frames one list may name; longer lists are refused rather than filling memory.
constexpr size_t FRAME_LIST_MAX = 1000000;
/// Largest magnitude of a frame in a list.
constexpr double FRAME_LIST_LIMIT = 1e7;

/// Parses a list of scene frames. Items are separated by commas; each is a number ("12",
/// "-3", "7.5"), a range "A-B" (whole steps from A up to B) or "A-BxSTEP" (steps of STEP, which
/// may be fractional). A range's frames are A + i * STEP, each computed from A (no running sum),
/// up to B inclusive. Spaces around items are allowed.
/// @return false with `error` for anything else: an empty item, B below A, a STEP that is not
///         above 0, numbers that are not finite or beyond FRAME_LIST_LIMIT, or more than
///         FRAME_LIST_MAX frames.
bool parseFrameList(const std::string& text, std::vector<double>& frames, std::string& error);

}  // namespace vaporix
