// Cache path macros, prefix upgrade, and the cache dialog and path menu logic.
#include "playback/CachePaths.h"

#include <cstdio>

#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "foundation/iString.h"
#include "foundation/sys/Files.h"

namespace vaporix {

namespace {

bool isInputKind(int kind) { return (kind & 1) != 0; }
bool isResimKind(int kind) { return kind == CACHE_RESIM_OUTPUT || kind == CACHE_RESIM_INPUT; }

// Replaces every occurrence of `macro` in one sweep: inserted text is not scanned again.
void replaceAll(std::string& text, const std::string& macro, const std::string& value) {
    std::string out;
    size_t from = 0;
    for (size_t at = text.find(macro); at != std::string::npos; at = text.find(macro, from)) {
        out.append(text, from, at - from);
        out += value;
        from = at + macro.size();
    }
    if (from == 0) return;
    out.append(text, from, std::string::npos);
    text.swap(out);
}

bool isOutputMacro(const std::string& text) {
    for (const char* macro : {"$(simoutput)", "$(implicit)", "$(same_as_output)", "$(scene_dir)",
                              "$(resimoutput)", "$(same_as_resimoutput)"})
        if (text == macro) return true;
    return false;
}

std::string lowerExtension(const std::string& path) { return iString(getExtension(path)).lower(); }

}  // namespace

CachePathContext makeCachePathContext(const IHost& host,
                                      const IHostNode& node,
                                      const std::string& scenePath) {
    CachePathContext context;
    const std::string scene = scenePath.empty() ? host.sceneFilePath() : scenePath;
    if (!scene.empty()) {
        splitPath(context.dir, scene, context.scene);
        if (!context.dir.empty() && (context.dir.back() == '/' || context.dir.back() == '\\'))
            context.dir.pop_back();
    } else {
        context.dir = host.sceneDirectory();
        context.scene = "Untitled";
    }
    char handle[16];
    std::snprintf(handle, sizeof handle, "%d", node.handle());
    context.handle = handle;
    context.nodename = node.name();
    return context;
}

std::string expandCachePathMacros(const std::string& rendinput, const CachePathContext& context) {
    size_t start = 0;
    while (start < rendinput.size() && static_cast<unsigned char>(rendinput[start]) <= 32) ++start;
    std::string text = rendinput.substr(start);
    replaceAll(text, "$(implicit)", IMPLICIT_CACHE_TEMPLATE);
    replaceAll(text, "$(scene_dir)", IMPLICIT_CACHE_TEMPLATE);
    replaceAll(text, "$(dir)", context.dir);
    replaceAll(text, "$(scene)", context.scene);
    replaceAll(text, "$(handle)", context.handle);
    replaceAll(text, "$(nodename)", context.nodename);
    return toNativeSeparators(text);
}

std::string expandRendInput(const std::string& rendinput,
                            const IHost& host,
                            const IHostNode* node,
                            const std::string& scenePath) {
    if (!node) return {};
    return expandCachePathMacros(rendinput, makeCachePathContext(host, *node, scenePath));
}

bool getCachePath(std::string& out,
                  int kind,
                  const std::string& rendinput,
                  const IHost& host,
                  const IHostNode* node,
                  const std::string& scenePath) {
    const bool answered =
        kind == CACHE_INPUT || kind == CACHE_FOR_PLAYBACK || kind == CACHE_FOR_MAPPING;
    out = answered ? expandRendInput(rendinput, host, node, scenePath) : std::string();
    return !out.empty();
}

bool findSequenceByPrefix(std::string& out,
                          const std::string& prefix,
                          const std::string& extension) {
    out.clear();
    for (const std::string& file :
         listMatchingFiles(toNativeSeparators(prefix) + "*." + extension)) {
        std::string pattern = makePatternFromFile(file);
        if (out.empty() || pattern.size() < out.size()) out.swap(pattern);
    }
    return !out.empty();
}

std::string findSequenceByPrefix(const std::string& prefix) {
    std::string pattern;
    if (prefix.empty()) return pattern;
    for (const char* extension : {"vxg", "f3d", "vdb"})
        if (findSequenceByPrefix(pattern, prefix, extension)) break;
    return pattern;
}

std::string upgradeCachePrefix(const std::string& rendinput) {
    // An empty value names no folder: looking it up would pick any sequence of the process's
    // working folder.
    if (rendinput.empty() || isOutputMacro(rendinput)) return rendinput;
    std::string folder, name;
    splitPath(folder, rendinput, name);
    // A folder part ends in a separator or is empty, so this never holds; old scenes were
    // upgraded with the same test, and it is kept for them.
    if (folder == ".vxg" || folder == ".f3d" || folder == ".vdb") return rendinput;
    const std::string pattern = findSequenceByPrefix(rendinput);
    return pattern.empty() ? rendinput : pattern;
}

std::vector<FileFilter> cacheFileFilters(int filterMask, const CacheModules& modules) {
    std::vector<FileFilter> filters;
    if ((filterMask & 7) == 7 && modules.field3d && modules.openvdb)
        filters.push_back({"All supported (*.vxg, *.f3d, *.vdb)", "*.vxg;*.f3d;*.vdb"});
    if (filterMask & 1) filters.push_back({"Vaporix (*.vxg)", "*.vxg"});
    if ((filterMask & 2) && modules.field3d) filters.push_back({"Field3D (*.f3d)", "*.f3d"});
    if ((filterMask & 4) && modules.openvdb) filters.push_back({"OpenVDB (*.vdb)", "*.vdb"});
    return filters;
}

std::string resolvePickedCachePath(const std::string& pickedIn, bool isOpen) {
    std::string picked = toNativeSeparators(pickedIn);
    // A saved name gets our extension and, if it has none yet, a frame pattern.
    if (!isOpen && lowerExtension(picked) != "vxg")
        picked += hasFramePattern(picked) ? ".vxg" : "_####.vxg";

    // A file with neighbours stands for its whole sequence.
    const std::string pattern = makePatternFromFile(picked);
    VaporixEnum::MinMaxFrameSearch range;
    enumerateSequence(range, pattern, true);
    return range.minFrame < range.maxFrame ? pattern : picked;
}

int askRenderPreset(const std::string& path, ICacheFileDialogs& dialogs) {
    const std::string extension = lowerExtension(path);
    if (extension == "f3d") {
        const int answer =
            dialogs.ask("Would you like to load a Render Preset for FumeFX Field3D files?",
                        {{"Yes", ANSWER_YES}, {"No", ANSWER_NO}});
        return answer == ANSWER_YES ? 1 : 0;
    }
    if (extension == "vdb") {
        const int answer = dialogs.ask(
            "Would you like to load a Render Preset for OpenVDB? Please choose between FumeFX "
            "Fire/Smoke,\nHoudini Fire/Smoke, or Houdini Liquid.",
            {{"FumeFX Fire/Smoke", ANSWER_FUMEFX_FIRE_SMOKE},
             {"Houdini Fire/Smoke", ANSWER_HOUDINI_FIRE_SMOKE},
             {"Houdini Liquid", ANSWER_HOUDINI_LIQUID},
             {"No preset", ANSWER_NO_PRESET}});
        if (answer >= ANSWER_FUMEFX_FIRE_SMOKE && answer <= ANSWER_HOUDINI_LIQUID)
            return answer - ANSWER_FUMEFX_FIRE_SMOKE + 1;
    }
    return 0;
}

int browseCachePath(int kind,
                    int filterMask,
                    const std::string& currentPath,
                    const CacheModules& modules,
                    ICacheFileDialogs& dialogs,
                    BrowseResult& out) {
    out = BrowseResult{};
    const bool isOpen = isInputKind(kind);
    std::string startFolder, name;
    splitPath(startFolder, toNativeSeparators(currentPath), name);
    if (!startFolder.empty() && !sys::isFolder(startFolder)) startFolder.clear();

    std::string picked;
    if (!dialogs.pickFile(isOpen, cacheFileFilters(filterMask, modules), startFolder, picked) ||
        picked.empty())
        return 0;
    out.path = resolvePickedCachePath(picked, isOpen);
    out.setsRendInput = kind == CACHE_INPUT;
    if (isOpen && !isResimKind(kind)) out.preset = askRenderPreset(out.path, dialogs);
    out.setsChannelMap = isOpen;
    return 1;
}

std::vector<PathMenuEntry> pathMenuEntries(int kind, const std::string& mappingPath) {
    std::vector<PathMenuEntry> entries{{PathMenuItem::Browse, "Browse..."}};
    if (!isInputKind(kind))
        entries.push_back({PathMenuItem::DeleteCacheFiles, "Delete Cache Files"});
    entries.push_back({PathMenuItem::ShowFileName, "Show File Name..."});
    if (isInputKind(kind) && lowerExtension(mappingPath) != "vxg")
        entries.push_back({PathMenuItem::ChannelMappings, "3rd Party Channel Mappings..."});
    entries.push_back({PathMenuItem::Help, "Help"});
    return entries;
}

bool deleteCacheFiles(int kind, const std::string& deletionPath, ICacheFileDialogs& dialogs) {
    const bool resim = isResimKind(kind);
    const std::string text = std::string(resim ? "The resimulation" : "All") +
                             " cache files will be deleted!\nAre you sure?";
    if (dialogs.ask(text, {{"Yes", ANSWER_YES}, {"No", ANSWER_NO}}) != ANSWER_YES) return false;
    VaporixEnum::EraseFiles erase;
    enumerateSequence(erase, deletionPath, resim);
    return true;
}

std::string showFileNameTitle(int kind) {
    return std::string(isResimKind(kind) ? "Resimulation " : "") +
           (isInputKind(kind) ? "Input " : "Output ") + "cache file for this frame:";
}

std::string cacheFileNameAt(const std::string& path, int cacheTime, int ticksPerFrame) {
    const int32_t frame = cacheTime == FRAME_NOT_SET || ticksPerFrame <= 0
                              ? FRAME_NOT_SET
                              : cacheTime / ticksPerFrame;
    return expandFramePattern(path, frame, "");
}

bool ShowFileNameView::onTimeChange(bool visible,
                                    const std::string& path,
                                    int cacheTime,
                                    int ticksPerFrame) {
    if (!visible) return false;
    std::string name = cacheFileNameAt(path, cacheTime, ticksPerFrame);
    if (name == text) return false;
    text.swap(name);
    return true;
}

}  // namespace vaporix
