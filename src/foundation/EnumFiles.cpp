// Walking cache sequences on disk, and the visitors that search, delete, copy and move them.
#include "foundation/EnumFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "foundation/sys/Files.h"

namespace vaporix {

namespace {

// Wildcard match of a whole name: '*' any run, '?' one character, everything else literal.
// Iterative with one backtrack point, so it is linear in practice and never recursive.
bool matchesMask(std::string_view name, std::string_view mask) {
    size_t n = 0, m = 0;
    size_t starMask = std::string_view::npos, starName = 0;
    while (n < name.size()) {
        if (m < mask.size() && (mask[m] == '?' || mask[m] == name[n])) {
            ++n;
            ++m;
        } else if (m < mask.size() && mask[m] == '*') {
            starMask = m++;
            starName = n;
        } else if (starMask != std::string_view::npos) {
            m = starMask + 1;
            n = ++starName;
        } else {
            return false;
        }
    }
    while (m < mask.size() && mask[m] == '*') ++m;
    return m == mask.size();
}

// One pass of the sequence walk over an already made listing.
void visitPass(VaporixEnum::EnumFiles& visitor,
               const std::string& pattern,
               const std::vector<std::string>& names,
               bool strict) {
    std::string candidate;
    for (const std::string& name : names) {
        if (strict) {
            expandFramePattern(candidate, pattern, parseFrameNumber(name), "");
            if (candidate != name) continue;
        }
        visitor.process(name);
    }
}

int64_t distance(int32_t a, int32_t b) { return std::llabs(int64_t(a) - int64_t(b)); }

std::string describeErrno() { return errno ? std::strerror(errno) : "unknown error"; }

// Renames `path` to a free hidden name in `folder` (its own folder); "" when that fails.
std::string moveAside(const std::string& folder, const std::string& path) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string keep = folder + ".vaporix-replaced-" + std::to_string(attempt);
        if (sys::moveFile(path, keep, false)) return keep;
        if (errno != EEXIST) break;
    }
    return {};
}

}  // namespace

std::vector<std::string> listMatchingFiles(const std::string& mask) {
    std::vector<std::string> paths;
    std::string folder, nameMask;
    splitPath(folder, mask, nameMask);
    std::vector<sys::FolderEntry> entries;
    if (!sys::listFolder(folder, entries)) return paths;
    for (const auto& e : entries)
        if (!e.isFolder && matchesMask(e.name, nameMask)) paths.push_back(folder + e.name);
    return paths;
}

int enumerateSequence(VaporixEnum::EnumFiles& visitor, const std::string& pathIn, bool strict) {
    const std::string path = toNativeSeparators(pathIn);
    visitor.begin(path, strict);

    // A single file: it is the whole sequence.
    if (!hasFramePattern(path)) {
        if (!sys::isFile(path)) return 0;
        visitor.found = path;
        visitor.process(path);
        return 1;
    }

    // The files the pattern can stand for, any frame.
    const std::vector<std::string> names =
        listMatchingFiles(expandFramePattern(path, NO_FRAME_NUMBER, "*"));
    visitor.found.clear();
    if (names.empty()) return 0;
    visitPass(visitor, path, names, strict);

    // Frames written without padding ("a_7.vxg" under "a_####.vxg") are still frames of a
    // cache of our own format.
    if (visitor.found.empty() && getExtension(path) == "vxg")
        visitPass(visitor, expandFramePattern(path, NO_FRAME_NUMBER, "#"), names, strict);
    return 1;
}

bool findFrameFile(const std::string& pattern,
                   int32_t frame,
                   bool exact,
                   std::string& outPath,
                   int32_t* outFrame) {
    VaporixEnum::EnumFiles search(frame, exact);
    enumerateSequence(search, pattern, true);
    outPath = search.found;
    if (outFrame) *outFrame = outPath.empty() ? NO_FRAME_NUMBER : parseFrameNumber(outPath);
    return !outPath.empty();
}

std::vector<SequenceFile> listSequence(const std::string& pattern) {
    VaporixEnum::CollectFiles collect;
    enumerateSequence(collect, pattern, true);
    return std::move(collect.files);
}

bool transferSequence(const std::string& pattern,
                      const std::string& destPatternIn,
                      bool move,
                      bool overwrite,
                      std::string& error,
                      size_t* fileCount) {
    error.clear();
    if (fileCount) *fileCount = 0;
    const std::string destPattern = toNativeSeparators(destPatternIn);
    std::vector<SequenceFile> files = listSequence(pattern);
    if (files.empty()) {
        error = "no files match " + pattern;
        return false;
    }
    std::stable_sort(files.begin(), files.end(), [](const SequenceFile& a, const SequenceFile& b) {
        return a.frame < b.frame;
    });

    // Plan every target and refuse anything doubtful before the first byte moves.
    const bool single = files.size() == 1 && !hasFramePattern(destPattern);
    std::vector<std::string> targets;
    std::map<std::string, const SequenceFile*> byTarget;
    for (const SequenceFile& f : files) {
        if (f.frame == NO_FRAME_NUMBER && !single) {
            error = f.path + " has no frame number";
            return false;
        }
        std::string target = single ? destPattern : expandFramePattern(destPattern, f.frame, "");
        auto [it, fresh] = byTarget.emplace(target, &f);
        if (!fresh) {
            error = it->second->path + " and " + f.path + " would both become " + target;
            return false;
        }
        targets.push_back(std::move(target));
    }
    std::set<std::string> sourcePaths;
    std::set<sys::FileId> sourceIds;
    for (const SequenceFile& f : files) {
        sourcePaths.insert(f.path);
        sys::FileId id;
        if (sys::getFileId(f.path, id)) sourceIds.insert(id);
    }
    std::vector<bool> existed(files.size());
    for (size_t i = 0; i < files.size(); ++i) {
        sys::FileId id;
        existed[i] = sys::getFileId(targets[i], id);
        if (sourcePaths.count(targets[i]) || (existed[i] && sourceIds.count(id))) {
            error = targets[i] + " is a file of the source sequence";
            return false;
        }
        if (existed[i] && sys::isFolder(targets[i])) {
            error = targets[i] + " is a folder";
            return false;
        }
        if (existed[i] && !overwrite) {
            error = targets[i] + " exists";
            return false;
        }
    }

    // The folders of the destination; those made here go again if the transfer fails.
    std::string destFolder, destName;
    splitPath(destFolder, destPattern, destName);
    std::vector<std::string> madeFolders;
    if (!destFolder.empty() && !sys::isFolder(destFolder)) {
        for (size_t i = 1; i < destFolder.size(); ++i)
            if (destFolder[i] == '/' && !sys::isFolder(destFolder.substr(0, i)))
                madeFolders.push_back(destFolder.substr(0, i));
        createDirectories(destPattern);
        const std::string why = describeErrno();  // before the check below changes errno
        if (!sys::isFolder(destFolder)) {
            error = "cannot make folder " + destFolder + ": " + why;
            for (auto it = madeFolders.rbegin(); it != madeFolders.rend(); ++it)
                sys::removeEmptyFolder(*it);
            return false;
        }
    }

    // Do the work. A target that is replaced is first renamed aside in its own folder, so that
    // a failure can put back exactly what was there before.
    std::vector<std::string> aside(files.size());
    size_t done = 0;
    std::string failure;
    for (; done < files.size(); ++done) {
        const std::string& from = files[done].path;
        const std::string& to = targets[done];
        if (existed[done]) {
            aside[done] = moveAside(destFolder, to);
            if (aside[done].empty()) {
                failure = "cannot replace " + to + ": " + describeErrno();
                break;
            }
        }
        if (!(move ? sys::moveFile(from, to, false) : sys::copyFile(from, to, false))) {
            failure = std::string(move ? "cannot move " : "cannot copy ") + from + " to " + to +
                      ": " + describeErrno();
            break;
        }
    }
    if (done == files.size()) {
        for (const std::string& keep : aside)
            if (!keep.empty()) sys::deleteFile(keep);
        if (fileCount) *fileCount = files.size();
        return true;
    }

    // Undo, newest first: moved files go back, copies go, replaced targets return.
    size_t unrestored = 0;
    for (size_t k = done + 1; k-- > 0;) {
        if (k < done) {
            const bool undone = move ? sys::moveFile(targets[k], files[k].path, false)
                                     : sys::deleteFile(targets[k]);
            if (!undone) ++unrestored;
        }
        if (!aside[k].empty() && !sys::moveFile(aside[k], targets[k], false)) ++unrestored;
    }
    for (auto it = madeFolders.rbegin(); it != madeFolders.rend(); ++it)
        sys::removeEmptyFolder(*it);
    error = failure;
    if (unrestored)
        error += "; " + std::to_string(unrestored) + " file(s) could not be restored";
    else if (move)
        error += "; nothing was moved, the source sequence is whole";
    else
        error += "; no copy was left behind";
    return false;
}

namespace VaporixEnum {

void EnumFiles::begin(const std::string&, bool) {}

void EnumFiles::process(const std::string& fileName) {
    const int32_t n = parseFrameNumber(fileName);
    if (n == NO_FRAME_NUMBER) return;
    if (exact) {
        if (n != target) return;
    } else if (!found.empty() && distance(n, target) >= distance(best, target)) {
        return;
    }
    const bool sameNumber = !found.empty() && n == best;
    best = n;
    if (!sameNumber) found = fileName;
}

void MinMaxFrameSearch::process(const std::string& fileName) {
    const int32_t n = parseFrameNumber(fileName);
    if (n == NO_FRAME_NUMBER) {
        maxFrame = NO_FRAME_NUMBER;
        return;
    }
    minFrame = std::min(minFrame, n);
    maxFrame = std::max(maxFrame, n);
}

void EraseFiles::process(const std::string& fileName) { sys::deleteFile(fileName); }

MoveFiles::MoveFiles(const std::string& destPattern_, bool copy_)
    : destPattern(toNativeSeparators(destPattern_)), copy(copy_) {
    std::string folder, name;
    splitPath(folder, destPattern, name);
    if (!folder.empty() && !sys::isFolder(folder)) createDirectories(destPattern);
}

void MoveFiles::process(const std::string& fileName) {
    const int32_t n = parseFrameNumber(fileName);
    if (n == NO_FRAME_NUMBER) return;
    const std::string destination = expandFramePattern(destPattern, n, "");
    if (copy)
        sys::copyFile(fileName, destination, true);
    else
        sys::moveFile(fileName, destination, false);
}

void CollectFiles::process(const std::string& fileName) {
    if (mSeen.insert(fileName).second) files.push_back({fileName, parseFrameNumber(fileName)});
}

}  // namespace VaporixEnum

}  // namespace vaporix
