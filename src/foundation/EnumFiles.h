// The files of a cache sequence: frame lookup, frame range, delete, copy and move.
//
// Entry points, most used first:
//   findFrameFile(pattern, frame, exact, path)   the file of one frame, as playback looks it up
//   listSequence(pattern)                        all files of a sequence with their frames
//   transferSequence(...)                        copy or move a whole sequence, all or nothing
//   enumerateSequence(visitor, pattern, strict)  the walk under all of them
//
// Listings are read from the folder on every call (no caching), in the file system's order.
// A missing or unreadable folder is simply a sequence without files: nothing is logged.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "foundation/FramePattern.h"

namespace vaporix {

/// Resolves the file of one frame of a cache, exactly as frame loading does.
///
/// `pattern` is a cache path, with or without a frame pattern (`cache_####.vxg`, `%04d`,
/// `<frame04>`); `\` separators are accepted.
/// - With a frame pattern the folder of the pattern is listed and every file whose name the
///   pattern produces for the file's own frame number is a candidate (a strict search: under
///   `a_####.vxg`, `a_0012.vxg` is one and `a_x_0012.vxg` or `a_012.vxg` are not). For a `.vxg`
///   pattern where this gives nothing, a second pass takes every frame pattern as a single `#`,
///   so `a_####.vxg` also finds `a_12.vxg`.
///   - `exact`: the candidate whose number equals `frame`.
///   - not `exact`: the candidate nearest to `frame`; on equal distance (frames 1 and 5 for 3)
///     the one listed first by the file system wins.
/// - Without a frame pattern: the file `pattern` itself whenever it exists, whatever `frame`
///   (a single-file cache serves every frame).
///
/// @return true with `outPath` set to the file (its folder written as in the pattern, `/`
///         separators) and, when given, `*outFrame` to the frame number in its name
///         (`NO_FRAME_NUMBER` for a name without one); false with `outPath` empty when no file
///         qualifies, the folder is missing or can't be read.
bool findFrameFile(const std::string& pattern,
                   int32_t frame,
                   bool exact,
                   std::string& outPath,
                   int32_t* outFrame = nullptr);

/// One file of a sequence.
struct SequenceFile {
    std::string path;
    int32_t frame = NO_FRAME_NUMBER;
};

/// Every file of the sequence `pattern` as the strict search sees it (both passes for `.vxg`),
/// each once, in listing order. A path without a frame pattern gives the file itself if it
/// exists.
std::vector<SequenceFile> listSequence(const std::string& pattern);

/// Paths of the files (not folders) that match `mask`: its folder part is literal, its name
/// part may hold the wildcards `*` (any run of characters) and `?` (one character); case
/// matters. The paths keep the folder as written in `mask`.
std::vector<std::string> listMatchingFiles(const std::string& mask);

/// Copies or moves every file of `pattern` to the name `destPattern` gives for its frame, the
/// folders of `destPattern` made as needed. All is checked before anything is written: a
/// source without files, a file without a frame number (unless it is the only file and
/// `destPattern` has no frame pattern), two files landing on one name, a target that is a
/// source file or a folder, and (without `overwrite`) a target that exists are refused with
/// nothing done. When a copy or move fails half way the work is undone: copies made are
/// removed, moved files are moved back, targets that `overwrite` was replacing are put back
/// (they are renamed aside until the end) and folders made are removed again, so the source
/// sequence and the destination are left as they were.
/// @return true on success; false with `error` saying why.
bool transferSequence(const std::string& pattern,
                      const std::string& destPattern,
                      bool move,
                      bool overwrite,
                      std::string& error,
                      size_t* fileCount = nullptr);

namespace VaporixEnum {

/// Base of the sequence visitors: `enumerateSequence` calls `begin` once, then `process` for
/// each file. On its own it keeps the file of frame `target` or, when `exact` is false, the
/// nearest one.
class EnumFiles {
public:
    EnumFiles() = default;
    EnumFiles(int32_t target_, bool exact_) : target(target_), exact(exact_) {}
    virtual ~EnumFiles() = default;

    /// Called before a walk over `path`; does nothing here.
    virtual void begin(const std::string& path, bool strict);
    /// A file of the sequence. Names without a frame number are ignored. With `exact` only
    /// frame `target` passes; otherwise a file no nearer to `target` than `best` is ignored
    /// once something was found, so on equal distance the file seen first stays. A second file
    /// of the same number never replaces `found`.
    virtual void process(const std::string& fileName);

    std::string found;
    int32_t best = FRAME_NOT_SET;
    int32_t target = 0;
    bool exact = true;
};

/// The smallest and largest frame numbers of a sequence. A name without a number sets
/// `maxFrame` to `NO_FRAME_NUMBER`.
class MinMaxFrameSearch : public EnumFiles {
public:
    void process(const std::string& fileName) override;

    int32_t minFrame = INT32_MAX;
    int32_t maxFrame = FRAME_NOT_SET;
};

/// Deletes every file it is given; failures are silent.
class EraseFiles : public EnumFiles {
public:
    void process(const std::string& fileName) override;
};

/// Moves (without replacing) or copies (replacing) every file with a frame number to the name
/// `destPattern` gives for that number; files without a number are skipped, failures are
/// silent. The constructor makes the folders of `destPattern`.
class MoveFiles : public EnumFiles {
public:
    MoveFiles(const std::string& destPattern_, bool copy_);
    void process(const std::string& fileName) override;

    std::string destPattern;
    bool copy = false;
};

/// `MoveFiles` in its copying form.
class CopyFiles : public MoveFiles {
public:
    explicit CopyFiles(const std::string& destPattern_) : MoveFiles(destPattern_, true) {}
};

/// Gathers the files it is given, each path once, with its frame number.
class CollectFiles : public EnumFiles {
public:
    void process(const std::string& fileName) override;

    std::vector<SequenceFile> files;

private:
    std::unordered_set<std::string> mSeen;
};

}  // namespace VaporixEnum

/// Walks the files of a sequence with a visitor:
/// - With a frame pattern: lists the files matching the pattern expanded with "*" for the frame,
///   clears `found`, and calls `process` for each, unless `strict` is set and the pattern
///   expanded for the file's own number differs from its name. If `found` is still empty and
///   the extension is exactly "vxg", a second pass over the same listing uses the pattern with
///   each frame pattern reduced to a single `#`.
/// - Without: if the file `path` exists, sets `found` to it and calls `process` with it.
/// `\` separators in `path` become `/` first.
/// @return 1 when at least one candidate file existed, else 0.
int enumerateSequence(VaporixEnum::EnumFiles& visitor, const std::string& path, bool strict);

}  // namespace vaporix
