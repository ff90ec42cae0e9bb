// Cache path templates of a grid object: `$(...)` macros, the upgrade of old prefixes, and the
// logic of the cache file dialog and of the path button's menu.
//
// The dialogs themselves belong to a GUI: everything here talks to them through
// `ICacheFileDialogs`, so a window layer or a test can drive the same logic.
#pragma once

#include <string>
#include <vector>

#include "playback/IHost.h"

namespace vaporix {

/// Cache path kinds as the object's interface numbers them: bit 1 input, bit 2 resimulation;
/// 100, 101 and 102 ask for the input as seen by playback, by channel mapping and upgrades, and
/// by deletion.
enum CachePathKind : int {
    CACHE_OUTPUT = 0,
    CACHE_INPUT = 1,
    CACHE_RESIM_OUTPUT = 2,
    CACHE_RESIM_INPUT = 3,
    CACHE_FOR_PLAYBACK = 100,
    CACHE_FOR_MAPPING = 101,
    CACHE_FOR_DELETION = 102,
};

/// The value of `rendinput` that names the default place of a node's cache, beside the scene.
constexpr const char* IMPLICIT_CACHE_TEMPLATE =
    "$(dir)\\$(scene)_Vaporix2_frames\\ND$(handle)_$(nodename)_####.vxg";
/// The same for resimulation output.
constexpr const char* RESIM_CACHE_TEMPLATE =
    "$(dir)\\$(scene)_Vaporix2_frames\\ND$(handle)_$(nodename)_resim_####.vxg";

/// What the macros of a template stand for.
struct CachePathContext {
    std::string dir;       ///< folder of the scene file, without a trailing separator
    std::string scene;     ///< scene file name with extension; "Untitled" while unsaved
    std::string handle;    ///< the node's handle in decimal
    std::string nodename;  ///< the node's name
};

/// Gathers the macro values. `scenePath` overrides the host's scene file when not empty. For a
/// saved scene `dir` is the scene's folder with one trailing separator cut; for an unsaved one
/// it is the host's scene folder, taken as it is, and `scene` is "Untitled".
CachePathContext makeCachePathContext(const IHost& host,
                                      const IHostNode& node,
                                      const std::string& scenePath = "");

/// Expands a template: leading characters of code 32 and below are dropped, then each macro is
/// replaced everywhere, once over the whole text, in this order: "$(implicit)" and
/// "$(scene_dir)" (both by `IMPLICIT_CACHE_TEMPLATE`), "$(dir)", "$(scene)", "$(handle)",
/// "$(nodename)" (case matters). Finally `\` becomes `/`. "$(simoutput)" and the other output
/// macros are left as they stand.
std::string expandCachePathMacros(const std::string& rendinput, const CachePathContext& context);

/// The cache path of a grid object's input (`rendinput`) as a real path: "" without a node.
std::string expandRendInput(const std::string& rendinput,
                            const IHost& host,
                            const IHostNode* node,
                            const std::string& scenePath = "");

/// The cache path a grid object answers for `kind`: the expanded `rendinput` for the input
/// (1) and its playback (100) and mapping (101) views; "" for every other kind (the object has
/// no output or resimulation paths of its own, so deletion, kind 102, finds nothing) and
/// without a node. @return true when `out` is not empty, which is what `hasCache(kind)` says.
bool getCachePath(std::string& out,
                  int kind,
                  const std::string& rendinput,
                  const IHost& host,
                  const IHostNode* node,
                  const std::string& scenePath = "");

/// The shortest sequence pattern among the files `prefix` + "*." + `extension` (the first one
/// found on equal length); each file is turned into a pattern with `makePatternFromFile`.
/// @return true with `out` set, false with `out` empty when no file matches.
bool findSequenceByPrefix(std::string& out,
                          const std::string& prefix,
                          const std::string& extension);

/// The pattern an old scene's prefix stands for: `findSequenceByPrefix` for "vxg", then "f3d",
/// then "vdb" files; "" when none matches or the prefix is empty (an empty prefix would list
/// the process's working folder). Fits the upgrade step's callback as it is.
std::string findSequenceByPrefix(const std::string& prefix);

/// The upgrade of an old scene's `rendinput`, which held a folder or name prefix: unless it is
/// one of the output macros or empty, the prefix is looked up for "vxg", then "f3d", then
/// "vdb" files, and the pattern found replaces it. Returns the value to keep.
std::string upgradeCachePrefix(const std::string& rendinput);

// ---- Cache file dialog --------------------------------------------------------------------

/// One filter of a file dialog: "Vaporix (*.vxg)" with "*.vxg".
struct FileFilter {
    std::string label;
    std::string pattern;
    bool operator==(const FileFilter& o) const { return label == o.label && pattern == o.pattern; }
};

/// A button of a question box and the code that pressing it answers.
struct DialogButton {
    std::string label;
    int code;
};

/// Codes of the Yes and No buttons, and of the four buttons of the OpenVDB preset question.
constexpr int ANSWER_YES = 6;
constexpr int ANSWER_NO = 7;
constexpr int ANSWER_FUMEFX_FIRE_SMOKE = 63;
constexpr int ANSWER_HOUDINI_FIRE_SMOKE = 64;
constexpr int ANSWER_HOUDINI_LIQUID = 65;
constexpr int ANSWER_NO_PRESET = 66;

/// The dialogs the cache path logic needs, as a GUI (or a test) provides them.
class ICacheFileDialogs {
public:
    virtual ~ICacheFileDialogs() = default;
    /// Shows an open (`isOpen`) or save dialog starting in `startFolder` ("" for the dialog's own
    /// choice). Returns false when the user cancels, else true with `path` set.
    virtual bool pickFile(bool isOpen,
                          const std::vector<FileFilter>& filters,
                          const std::string& startFolder,
                          std::string& path) = 0;
    /// Asks a question; returns the code of the button the user pressed.
    virtual int ask(const std::string& text, const std::vector<DialogButton>& buttons) = 0;
};

/// Which side modules can read foreign caches.
struct CacheModules {
    bool field3d = false;
    bool openvdb = false;
};

/// Filters of the cache dialog for `filterMask` (bit 1 .vxg, bit 2 .f3d, bit 4 .vdb), the
/// foreign ones only when their module is present, a combined filter first when all three are.
std::vector<FileFilter> cacheFileFilters(int filterMask, const CacheModules& modules);

/// What a completed browse asks the object to do.
struct BrowseResult {
    std::string path;             ///< the chosen cache path (a pattern when it has neighbours)
    bool setsRendInput = false;   ///< kind 1: `rendinput` takes `path` and the panel redraws
    int preset = 0;               ///< render preset 1..3 to apply, 0 for none
    bool setsChannelMap = false;  ///< `usrchmap` takes the default channel map of `path`
};

/// The file dialog for a cache path of `kind` (0..3), started in the folder of `currentPath`
/// when that folder exists. A saved name without the .vxg extension gets "_####.vxg" (or
/// ".vxg" when it has a frame pattern already). A picked file with neighbours in its sequence
/// becomes the sequence's pattern. For a picked foreign cache of an input kind, the user is
/// asked for a render preset.
/// @return 1 when the user picked a file (then `out` says what to do), 0 when cancelled.
int browseCachePath(int kind,
                    int filterMask,
                    const std::string& currentPath,
                    const CacheModules& modules,
                    ICacheFileDialogs& dialogs,
                    BrowseResult& out);

/// The picked file as it becomes a cache path (steps after the dialog; see browseCachePath).
std::string resolvePickedCachePath(const std::string& picked, bool isOpen);

/// The render preset question for a freshly picked foreign cache: 0 for none or a .vxg path.
int askRenderPreset(const std::string& path, ICacheFileDialogs& dialogs);

// ---- Menu of the path button --------------------------------------------------------------

enum class PathMenuItem { Browse, DeleteCacheFiles, ShowFileName, ChannelMappings, Help };

struct PathMenuEntry {
    PathMenuItem item;
    std::string label;
};

/// The entries of the menu for `kind`, in order: "Browse...", "Delete Cache Files" (outputs),
/// "Show File Name...", "3rd Party Channel Mappings..." (inputs whose mapping path, kind 101,
/// is not a .vxg cache), "Help".
std::vector<PathMenuEntry> pathMenuEntries(int kind, const std::string& mappingPath);

/// "Delete Cache Files": asks with Yes and No, then erases the sequence `deletionPath` (the path
/// of kind 102), strictly only for a resimulation path. The caller then forgets its current
/// frame time. @return true when the user agreed and the deletion ran.
bool deleteCacheFiles(int kind, const std::string& deletionPath, ICacheFileDialogs& dialogs);

/// Title line of the "Show File Name..." window for `kind`.
std::string showFileNameTitle(int kind);

/// The text of a "Show File Name..." window, one per cache path kind.
class ShowFileNameView {
public:
    explicit ShowFileNameView(int kind) : title(showFileNameTitle(kind)) {}
    /// On a change of the scene time: while the window is visible the file name for
    /// `cacheTime` is computed, and it replaces `text` only when it differs.
    /// @return true when `text` changed (the window redraws it).
    bool onTimeChange(bool visible, const std::string& path, int cacheTime, int ticksPerFrame);

    std::string title;
    std::string text;
};

/// The file name a cache time leads to: the frame is `cacheTime / ticksPerFrame` (integer
/// division). The "no time" value, or a non-positive `ticksPerFrame`, leaves the frame empty.
std::string cacheFileNameAt(const std::string& path, int cacheTime, int ticksPerFrame);

}  // namespace vaporix
