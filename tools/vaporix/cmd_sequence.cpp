// vaporix ls, rm, cp, mv: whole cache sequences named by a frame pattern.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "Command.h"
#include "Json.h"
#include "cache/CacheIO.h"
#include "cache/VaporixFrameData.h"
#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "foundation/sys/Files.h"

namespace vaporix::cli {
namespace {

const char* LS_USAGE =
    "usage: vaporix ls PATTERN [--files] [--json]\n"
    "\n"
    "Summarises the cache sequence PATTERN (cache_####.vxg, cache_%04d.vxg,\n"
    "cache_<frame04>.vxg, or one file): file count, frame range, missing frames, total size.\n"
    "Files are those frame loading would use: names the pattern gives for their own number,\n"
    "and for .vxg also unpadded numbers (a_12.vxg under a_####.vxg).\n"
    "  --files   one line (or JSON item) per file: frame, bytes, and what its header says\n"
    "            (grid size, channels, particles, or why it can't be read)\n"
    "  --json    machine-readable output\n";

const char* RM_USAGE =
    "usage: vaporix rm PATTERN [--yes] [-q]\n"
    "\n"
    "Deletes every file of the cache sequence PATTERN (the files 'vaporix ls' lists).\n"
    "Asks on the terminal first; without a terminal it refuses unless --yes is given.\n"
    "  --yes   delete without asking\n"
    "  -q      print nothing on success\n";

const char* CP_USAGE =
    "usage: vaporix cp PATTERN DEST_PATTERN [--force] [-q]\n"
    "\n"
    "Copies every file of the cache sequence PATTERN to the name DEST_PATTERN gives for its\n"
    "frame (cache_####.vxg -> backup/shot_%05d.vxg). A DEST ending in '/' or naming a folder\n"
    "keeps the file names. Folders are made as needed. Nothing is written when a target\n"
    "exists (unless --force), is a folder, is a source file, or two frames would land on one\n"
    "name. A copy that fails half way removes the copies it made and puts back the files it\n"
    "was replacing.\n"
    "  --force   replace existing target files\n"
    "  -q        print nothing on success\n";

const char* MV_USAGE =
    "usage: vaporix mv PATTERN DEST_PATTERN [--force] [-q]\n"
    "\n"
    "Moves (renames) every file of the cache sequence PATTERN to the name DEST_PATTERN gives\n"
    "for its frame, with the checks of 'vaporix cp'. A move that fails half way moves the\n"
    "files back and puts back the files it was replacing, so the source sequence stays whole.\n"
    "  --force   replace existing target files\n"
    "  -q        print nothing on success\n";

struct Parsed {
    Args args;
    int status = -1;  // an exit status when the command is already answered
};

Parsed parseArgs(const char* name,
                 const char* usage,
                 int argc,
                 char** argv,
                 std::vector<OptionSpec> specs,
                 size_t positionals) {
    Parsed p;
    specs.push_back({"--help"});
    specs.push_back({"-h"});
    std::string error;
    if (!p.args.parse(argc, argv, 2, specs, error)) {
        p.status = usageError(name, error);
    } else if (p.args.has("--help") || p.args.has("-h")) {
        std::fputs(usage, stdout);
        p.status = EXIT_OK;
    } else if (p.args.positional.size() != positionals) {
        p.status = usageError(
            name, positionals == 1 ? "expected one PATTERN" : "expected PATTERN and DEST_PATTERN");
    }
    return p;
}

std::vector<SequenceFile> sortedSequence(const std::string& pattern) {
    std::vector<SequenceFile> files = listSequence(pattern);
    std::sort(files.begin(), files.end(), [](const SequenceFile& a, const SequenceFile& b) {
        return a.frame != b.frame ? a.frame < b.frame : a.path < b.path;
    });
    return files;
}

std::string humanSize(int64_t bytes) {
    const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    double v = double(bytes);
    int u = 0;
    while (v >= 1024.0 && u < 4) {
        v /= 1024.0;
        ++u;
    }
    char text[64];
    if (u == 0)
        std::snprintf(text, sizeof text, "%lld bytes", static_cast<long long>(bytes));
    else
        std::snprintf(text, sizeof text, "%.1f %s", v, units[u]);
    return text;
}

// What the header of one file says, for `ls --files`.
struct FileHeader {
    int status = LOAD_NO_FILE;
    int32_t gridSize[3] = {0, 0, 0};
    std::vector<int> channels;
    int32_t frameNumber = 0;
    int64_t particles = 0;
};

FileHeader readFileHeader(const std::string& path, const std::string& channelMap) {
    FileHeader h;
    VaporixFrameData frame;
    h.status = frame.importHeader(path.c_str(), channelMap.c_str());
    if (h.status != LOAD_OK) return h;
    for (int a = 0; a < 3; ++a) h.gridSize[a] = frame.gridSize[a];
    for (int c = 0; c < CHANNEL_COUNT; ++c)
        if (frame.HasChannel(c)) h.channels.push_back(c);
    h.frameNumber = frame.frameNumber;
    for (int g = 0; g < frame.groups.count; ++g) h.particles += frame.getGroupCount(g);
    return h;
}

std::string channelsText(const std::vector<int>& channels) {
    std::string text;
    for (int c : channels) text += (text.empty() ? "" : ",") + std::to_string(c);
    return text.empty() ? "-" : text;
}

// What `ls` reports about a sequence.
struct Summary {
    std::vector<SequenceFile> files;
    std::vector<int64_t> bytes;  // -1 when the size can't be read
    int64_t totalBytes = 0;
    bool hasFrames = false;
    int32_t first = 0, last = 0;
    int64_t distinctFrames = 0;
    std::vector<std::pair<int32_t, int32_t>> missing;  // runs of absent frames
    int64_t missingCount = 0;
    std::vector<int32_t> duplicates;  // frames with more than one file
    std::vector<FileHeader> headers;  // with --files only
};

Summary summarise(const std::string& pattern, bool withHeaders) {
    Summary s;
    s.files = sortedSequence(pattern);
    if (withHeaders) {
        // Foreign caches (.vdb, .f3d) read their headers with the sequence's default map.
        std::string map;
        CacheIO::buildDefaultMapping(map, toNativeSeparators(pattern).c_str());
        for (const SequenceFile& f : s.files) s.headers.push_back(readFileHeader(f.path, map));
    }
    int32_t previous = 0;
    bool seenFrame = false;
    for (const SequenceFile& f : s.files) {
        const int64_t size = sys::fileSize(f.path);
        s.bytes.push_back(size);
        if (size > 0) s.totalBytes += size;
        if (f.frame == NO_FRAME_NUMBER) continue;
        if (!seenFrame) {
            s.first = f.frame;
            seenFrame = true;
        } else if (f.frame == previous) {
            if (s.duplicates.empty() || s.duplicates.back() != f.frame)
                s.duplicates.push_back(f.frame);
            continue;
        } else if (int64_t(f.frame) - previous > 1) {
            s.missing.push_back({previous + 1, f.frame - 1});
            s.missingCount += int64_t(f.frame) - previous - 1;
        }
        ++s.distinctFrames;
        previous = f.frame;
        s.last = f.frame;
    }
    s.hasFrames = seenFrame;
    return s;
}

std::string runsText(const Summary& s, size_t limit) {
    std::string text;
    for (size_t i = 0; i < s.missing.size() && i < limit; ++i) {
        if (i) text += ", ";
        text += std::to_string(s.missing[i].first);
        if (s.missing[i].second != s.missing[i].first)
            text += "-" + std::to_string(s.missing[i].second);
    }
    if (s.missing.size() > limit) text += ", ...";
    return text;
}

void printJson(const std::string& pattern, const Summary& s, bool withFiles) {
    JsonWriter j;
    j.beginObject();
    j.key("pattern").value(pattern);
    j.key("count").value(static_cast<int64_t>(s.files.size()));
    j.key("firstFrame");
    s.hasFrames ? j.value(s.first) : j.null();
    j.key("lastFrame");
    s.hasFrames ? j.value(s.last) : j.null();
    j.key("frameCount").value(s.distinctFrames);
    j.key("missingCount").value(s.missingCount);
    j.key("missing").beginArray();
    for (const auto& run : s.missing) {
        j.beginArray(true);
        j.value(run.first).value(run.second);
        j.endArray();
    }
    j.endArray();
    j.key("duplicateFrames").beginArray(true);
    for (int32_t d : s.duplicates) j.value(d);
    j.endArray();
    j.key("totalBytes").value(s.totalBytes);
    if (withFiles) {
        j.key("files").beginArray();
        for (size_t i = 0; i < s.files.size(); ++i) {
            j.beginObject();
            j.key("frame");
            s.files[i].frame == NO_FRAME_NUMBER ? j.null() : j.value(s.files[i].frame);
            j.key("path").value(s.files[i].path);
            j.key("bytes");
            s.bytes[i] < 0 ? j.null() : j.value(s.bytes[i]);
            const FileHeader& h = s.headers[i];
            j.key("status").value(h.status);
            j.key("message").value(loadStatusText(h.status));
            if (h.status == LOAD_OK) {
                j.key("gridSize").beginArray(true);
                for (int a = 0; a < 3; ++a) j.value(h.gridSize[a]);
                j.endArray();
                j.key("channels").beginArray(true);
                for (int c : h.channels) j.value(c);
                j.endArray();
                j.key("headerFrame").value(h.frameNumber);
                j.key("particles").value(h.particles);
            }
            j.endObject();
        }
        j.endArray();
    }
    j.endObject();
    std::fputs(j.str().c_str(), stdout);
}

void printText(const std::string& pattern, const Summary& s, bool withFiles) {
    std::printf("pattern   %s\n", pattern.c_str());
    std::printf("files     %zu\n", s.files.size());
    if (s.hasFrames) {
        std::printf("frames    %d .. %d, %lld present", s.first, s.last,
                    static_cast<long long>(s.distinctFrames));
        if (s.missingCount)
            std::printf(", %lld missing: %s", static_cast<long long>(s.missingCount),
                        runsText(s, 20).c_str());
        std::printf("\n");
    } else {
        std::printf("frames    none (no frame number in the name)\n");
    }
    if (!s.duplicates.empty()) {
        std::printf("repeated  %zu frame(s) have more than one file:", s.duplicates.size());
        for (size_t i = 0; i < s.duplicates.size() && i < 20; ++i)
            std::printf(" %d", s.duplicates[i]);
        std::printf("%s\n", s.duplicates.size() > 20 ? " ..." : "");
    }
    std::printf("size      %s", humanSize(s.totalBytes).c_str());
    if (s.totalBytes >= 1024) std::printf(" (%lld bytes)", static_cast<long long>(s.totalBytes));
    std::printf("\n");
    if (!withFiles) return;
    std::printf("\n%11s %14s  %-16s %-20s %10s  %s\n", "frame", "bytes", "grid", "channels",
                "particles", "file");
    for (size_t i = 0; i < s.files.size(); ++i) {
        const SequenceFile& f = s.files[i];
        const FileHeader& h = s.headers[i];
        const std::string frame = f.frame == NO_FRAME_NUMBER ? "-" : std::to_string(f.frame);
        const std::string bytes = s.bytes[i] < 0 ? "?" : std::to_string(s.bytes[i]);
        if (h.status != LOAD_OK) {
            const std::string why = std::string("(") + loadStatusText(h.status) + ")";
            std::printf("%11s %14s  %-48s  %s\n", frame.c_str(), bytes.c_str(), why.c_str(),
                        f.path.c_str());
            continue;
        }
        const std::string grid = std::to_string(h.gridSize[0]) + "x" +
                                 std::to_string(h.gridSize[1]) + "x" +
                                 std::to_string(h.gridSize[2]);
        std::printf("%11s %14s  %-16s %-20s %10lld  %s\n", frame.c_str(), bytes.c_str(),
                    grid.c_str(), channelsText(h.channels).c_str(),
                    static_cast<long long>(h.particles), f.path.c_str());
    }
}

int runLs(int argc, char** argv) {
    Parsed p = parseArgs("ls", LS_USAGE, argc, argv, {{"--files"}, {"--json"}}, 1);
    if (p.status >= 0) return p.status;
    const std::string pattern = p.args.positional[0];
    const Summary s = summarise(pattern, p.args.has("--files"));
    if (p.args.has("--json")) {
        printJson(pattern, s, p.args.has("--files"));
        return s.files.empty() ? EXIT_FAILED : EXIT_OK;
    }
    if (s.files.empty()) return failure("ls", "no files match " + pattern);
    printText(pattern, s, p.args.has("--files"));
    return EXIT_OK;
}

// Asks on the terminal; false for anything but yes.
bool confirmOnTerminal(const std::string& question) {
    std::fprintf(stderr, "%s [y/N] ", question.c_str());
    std::fflush(stderr);
    std::string answer;
    if (!std::getline(std::cin, answer)) return false;
    return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes";
}

int runRm(int argc, char** argv) {
    Parsed p = parseArgs("rm", RM_USAGE, argc, argv, {{"--yes"}, {"-q"}}, 1);
    if (p.status >= 0) return p.status;
    const std::string pattern = p.args.positional[0];
    const Summary s = summarise(pattern, false);
    if (s.files.empty()) return failure("rm", "no files match " + pattern);

    std::string what = std::to_string(s.files.size()) + " file(s) of " + pattern;
    if (s.hasFrames)
        what += " (frames " + std::to_string(s.first) + ".." + std::to_string(s.last) + ", " +
                humanSize(s.totalBytes) + ")";
    if (!p.args.has("--yes")) {
        if (!isatty(STDIN_FILENO))
            return failure(
                "rm", "not deleting " + what + ": no terminal to ask; give --yes to delete anyway");
        if (!confirmOnTerminal("Delete " + what + "?")) {
            std::fprintf(stderr, "nothing deleted\n");
            return EXIT_FAILED;
        }
    }
    size_t deleted = 0;
    std::string firstError;
    for (const SequenceFile& f : s.files) {
        if (sys::deleteFile(f.path))
            ++deleted;
        else if (firstError.empty())
            firstError = f.path + ": " + std::strerror(errno);
    }
    if (deleted != s.files.size())
        return failure("rm", "deleted " + std::to_string(deleted) + " of " +
                                 std::to_string(s.files.size()) + " files; " + firstError);
    if (!p.args.has("-q")) std::printf("deleted %zu file(s)\n", deleted);
    return EXIT_OK;
}

int runTransfer(const char* name, const char* usage, bool move, int argc, char** argv) {
    Parsed p = parseArgs(name, usage, argc, argv, {{"--force"}, {"-q"}}, 2);
    if (p.status >= 0) return p.status;
    const std::string pattern = p.args.positional[0];
    std::string dest = toNativeSeparators(p.args.positional[1]);
    // A folder as target keeps the names of the source.
    if (!dest.empty() && (dest.back() == '/' || sys::isFolder(dest))) {
        std::string folder, fileName;
        splitPath(folder, toNativeSeparators(pattern), fileName);
        dest += (dest.back() == '/' ? "" : "/") + fileName;
    }
    std::string error;
    size_t count = 0;
    if (!transferSequence(pattern, dest, move, p.args.has("--force"), error, &count)) {
        if (error.size() > 7 && error.compare(error.size() - 7, 7, " exists") == 0)
            error += " (give --force to replace it)";
        return failure(name, error);
    }
    if (!p.args.has("-q"))
        std::printf("%s %zu file(s) to %s\n", move ? "moved" : "copied", count, dest.c_str());
    return EXIT_OK;
}

int runCp(int argc, char** argv) { return runTransfer("cp", CP_USAGE, false, argc, argv); }
int runMv(int argc, char** argv) { return runTransfer("mv", MV_USAGE, true, argc, argv); }

}  // namespace

VAPORIX_COMMAND("ls", "summarise a cache sequence: frames, gaps, size", runLs);
VAPORIX_COMMAND("rm", "delete a cache sequence", runRm);
VAPORIX_COMMAND("cp", "copy a cache sequence to another pattern", runCp);
VAPORIX_COMMAND("mv", "move a cache sequence to another pattern", runMv);

}  // namespace vaporix::cli
