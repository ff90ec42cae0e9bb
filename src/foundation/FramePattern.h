// Frame patterns in cache file names: detection, expansion, frame numbers and path pieces.
//
// A cache is a sequence of files, one per frame, named by a pattern such as `cache_####.vxg`,
// `cache_%04d.vxg` or `cache_<frame04>.vxg`. These functions are pure string operations (no file
// system) except `createDirectories`. Both `/` and `\` are recognised as folder separators in
// every scan; `toNativeSeparators` turns a template written with `\` into a Linux path.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vaporix {

/// Stands for "no frame number" wherever a number is parsed out of a name or handed to
/// `expandFramePattern` (which then writes its `fill` text instead of a number).
constexpr int32_t NO_FRAME_NUMBER = 2147483647;

/// The "nothing yet" value (0x80000000): start value of searches and the host's "no time".
/// `expandFramePattern` prints it as an empty text.
constexpr int32_t FRAME_NOT_SET = INT32_MIN;

/// Widths of frame numbers are capped at this many characters.
constexpr int MAX_FRAME_WIDTH = 12;

/// At most this many characters of a fill text are used.
constexpr size_t MAX_FILL_LENGTH = 15;

/// True when the path holds a frame pattern anywhere, folders included:
/// `%[0][digits](d|D|i|I|u|U)` (`%%` is skipped), `<frame[0][digits]>` (a `<` that does not begin
/// `frame` skips the character after it too), or any `#`.
bool hasFramePattern(std::string_view path);

/// Replaces every frame pattern of the file-name part of `path` (behind the last `/` or `\`;
/// patterns in folder names stay as they are) by `frame`:
/// - `%[0][width](d|D|i|I|u|U)`, `<frame[0][width]>`: the `0` turns zero padding on;
/// - a run of `#`: width = length of the run, zero padding on;
/// - `%%` stays as two characters.
/// Widths are minimums capped at `MAX_FRAME_WIDTH`; the sign counts in the width and zeros go
/// between sign and digits; without zero padding blanks go left of the sign. `u`/`U` print the
/// number unsigned. `NO_FRAME_NUMBER` writes `fill` (first 15 characters) instead of a number,
/// `FRAME_NOT_SET` writes nothing.
void expandFramePattern(std::string& out,
                        std::string_view path,
                        int32_t frame,
                        std::string_view fill = "");
std::string expandFramePattern(std::string_view path, int32_t frame, std::string_view fill = "");

/// The last run of digits of the file name before its extension, with one `-` right in front
/// of it as sign: `a_0012.vxg` gives 12, `b-7.vxg` gives -7. `NO_FRAME_NUMBER` when the name has
/// no extension, no such run, or a number outside the int32 range.
int32_t parseFrameNumber(std::string_view name);

/// Turns a file name into the pattern of its sequence: a digit run found as by
/// `parseFrameNumber` whose first digit is `0` becomes one `#` per character (the sign
/// included), any other run becomes a single `#`. `a_0012.vxg` gives `a_####.vxg`, `a_12.vxg`
/// gives `a_#.vxg`. A name without a frame number stays as it is.
void makePatternFromFile(std::string& out, std::string_view name);
std::string makePatternFromFile(std::string_view name);

/// The extension without its dot (`vxg`), as written, or "" when the file name part has none.
std::string getExtension(std::string_view path);

/// Splits a path behind its last `/` or `\`: `folder` keeps the separator ("" when the path has
/// no folder part), `name` is the rest.
void splitPath(std::string& folder, std::string_view path, std::string& name);

/// `\` becomes `/`: templates written with Windows separators are accepted on Linux.
std::string toNativeSeparators(std::string_view path);

/// Makes every folder of `path`: each prefix that ends at a separator (after `\` became `/`),
/// so `a/b/c.vxg` makes `a` and `a/b` and `a/b/c/` makes `c` too. A folder that exists is no
/// failure, nor is any other refusal of the system; only an invalid name (an embedded NUL, a
/// name or path too long) gives false.
bool createDirectories(std::string_view path);

}  // namespace vaporix
