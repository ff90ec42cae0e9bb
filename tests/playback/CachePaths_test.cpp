// Cache path macros, the prefix upgrade, and the dialog and path menu logic on real folders.
#include "playback/CachePaths.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "cache/VaporixFrameData.h"
#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "foundation/sys/Files.h"

using namespace vaporix;
using vaporix::test::TempDir;

namespace {

class FakeHost : public IHost {
public:
    std::string scene, sceneDir = "/scenes";
    std::string sceneFilePath() const override { return scene; }
    std::string sceneDirectory() const override { return sceneDir; }
};

class FakeNode : public IHostNode {
public:
    std::string nodeName = "Fire01";
    int nodeHandle = 17;
    std::string name() const override { return nodeName; }
    int handle() const override { return nodeHandle; }
};

// Plays the user: answers the file dialog and the questions from scripts, and records them.
class ScriptedDialogs : public ICacheFileDialogs {
public:
    std::deque<std::string> picks;  // "" cancels
    std::deque<int> answers;
    std::vector<bool> openFlags;
    std::vector<std::string> startFolders, questions;
    std::vector<std::vector<FileFilter>> filters;
    std::vector<std::vector<DialogButton>> buttons;

    bool pickFile(bool isOpen,
                  const std::vector<FileFilter>& f,
                  const std::string& startFolder,
                  std::string& path) override {
        openFlags.push_back(isOpen);
        filters.push_back(f);
        startFolders.push_back(startFolder);
        if (picks.empty()) return false;
        path = picks.front();
        picks.pop_front();
        return !path.empty();
    }
    int ask(const std::string& text, const std::vector<DialogButton>& b) override {
        questions.push_back(text);
        buttons.push_back(b);
        if (answers.empty()) return ANSWER_NO;
        const int a = answers.front();
        answers.pop_front();
        return a;
    }
};

void touch(const std::string& path) { test::writeBytes(path, {0}); }

}  // namespace

TEST(CachePaths, ImplicitTemplateBesideASavedScene) {
    FakeHost host;
    host.scene = "/work/shots/sh010.vxs";
    FakeNode node;
    EXPECT_EQ(expandRendInput("$(implicit)", host, &node),
              "/work/shots/sh010.vxs_Vaporix2_frames/ND17_Fire01_####.vxg");
    EXPECT_EQ(expandRendInput("$(scene_dir)", host, &node),
              "/work/shots/sh010.vxs_Vaporix2_frames/ND17_Fire01_####.vxg");
    // A caller's scene path wins over the host's.
    EXPECT_EQ(expandRendInput("$(dir)|$(scene)", host, &node, "/other/x.vxs"), "/other|x.vxs");
    // Windows-style scene paths lose one trailing separator and end up with '/'.
    EXPECT_EQ(expandRendInput("$(dir)\\c_####.vxg", host, &node, "D:\\proj\\a.max"),
              "D:/proj/c_####.vxg");
    EXPECT_EQ(expandRendInput("$(implicit)", host, nullptr), "");
}

TEST(CachePaths, UnsavedSceneUsesTheHostsFolderAndUntitled) {
    FakeHost host;
    host.sceneDir = "/home/u/scenes/";
    FakeNode node;
    node.nodeHandle = -5;
    EXPECT_EQ(expandRendInput("$(implicit)", host, &node),
              "/home/u/scenes//Untitled_Vaporix2_frames/ND-5_Fire01_####.vxg");
}

TEST(CachePaths, MacroOrderAndSinglePass) {
    CachePathContext c{"/d", "s.vxs", "3", "n"};
    EXPECT_EQ(expandCachePathMacros(" \t\n$(dir)/$(dir)/$(nodename)_$(handle)_%04d.vxg", c),
              "/d//d/n_3_%04d.vxg");
    // Values are not scanned again for their own macro, but later macros still see them:
    // a scene named "$(handle)" is expanded by the handle step that follows.
    c.scene = "$(handle)";
    c.nodename = "$(dir)";
    EXPECT_EQ(expandCachePathMacros("$(scene)-$(nodename)", c), "3-$(dir)");
    c.dir = "$(dir)";
    EXPECT_EQ(expandCachePathMacros("$(dir)", c), "$(dir)");
    // Case matters, unknown and output macros stay.
    EXPECT_EQ(expandCachePathMacros("$(DIR)$(simoutput)$(same_as_output)", c),
              "$(DIR)$(simoutput)$(same_as_output)");
    // Non-ASCII bytes are not "code 32 and below".
    EXPECT_EQ(expandCachePathMacros("\xc3\xa9t\xc3\xa9.vxg", c), "\xc3\xa9t\xc3\xa9.vxg");
}

TEST(CachePaths, OnlyTheInputKindsHaveAPath) {
    FakeHost host;
    host.scene = "/s/a.vxs";
    FakeNode node;
    std::string out = "stale";
    for (int kind : {1, 100, 101}) {
        EXPECT_TRUE(getCachePath(out, kind, "$(dir)/c_####.vxg", host, &node)) << kind;
        EXPECT_EQ(out, "/s/c_####.vxg");
    }
    for (int kind : {0, 2, 3, 102, 5}) {
        EXPECT_FALSE(getCachePath(out, kind, "$(dir)/c_####.vxg", host, &node)) << kind;
        EXPECT_EQ(out, "");
    }
    EXPECT_FALSE(getCachePath(out, CACHE_INPUT, "$(dir)/c_####.vxg", host, nullptr));
    EXPECT_FALSE(getCachePath(out, CACHE_INPUT, " \t", host, &node));  // only blanks: empty
}

TEST(CachePaths, ImplicitTemplateLeadsToTheFramesOnDisk) {
    // A saved scene in a folder with spaces and non-ASCII letters, a node name with a blank:
    // the expanded template finds the frames written beside the scene.
    TempDir dir;
    const std::string sceneDir = dir.path() + "/proj \xc3\xa9t\xc3\xa9";
    FakeHost host;
    host.scene = sceneDir + "/shot 1.vxs";
    FakeNode node;
    node.nodeName = "Fire \xe7\x81\xab";
    node.nodeHandle = 4242;
    const std::string pattern = expandRendInput("  $(implicit)", host, &node);
    EXPECT_EQ(pattern, sceneDir + "/shot 1.vxs_Vaporix2_frames/ND4242_Fire \xe7\x81\xab_####.vxg");
    ASSERT_TRUE(createDirectories(pattern));
    for (int frame : {1, 2, 30}) touch(expandFramePattern(pattern, frame));
    std::string path;
    EXPECT_TRUE(findFrameFile(pattern, 29, false, path));
    EXPECT_EQ(path, expandFramePattern(pattern, 30));
    VaporixEnum::MinMaxFrameSearch range;
    EXPECT_EQ(enumerateSequence(range, pattern, true), 1);
    EXPECT_EQ(range.minFrame, 1);
    EXPECT_EQ(range.maxFrame, 30);
}

TEST(CacheFrameLookup, SharedFramesResolveThroughPatterns) {
    // Frames of one sequence written three ways; the lookup is strict with the second pass for
    // unpadded .vxg names, and every spelling of the pattern reaches the same shared entry.
    TempDir dir;
    const std::string fixture = test::testDataPath("gen4_writer.vxg");
    ASSERT_TRUE(sys::copyFile(fixture, dir.file("f_0003.vxg"), false));
    ASSERT_TRUE(sys::copyFile(fixture, dir.file("f_0007.vxg"), false));
    ASSERT_TRUE(sys::copyFile(fixture, dir.file("g_12.vxg"), false));
    FrameDataArray& list = frameDataArray();
    const int before = list.count;
    VaporixFrameData* a = nullptr;
    VaporixFrameData* b = nullptr;
    VaporixFrameData* c = nullptr;
    ASSERT_EQ(acquireShared(a, 3, dir.file("f_####.vxg").c_str(), "", true, true, true), 0);
    ASSERT_EQ(acquireShared(b, 3, dir.file("f_<frame04>.vxg").c_str(), "", true, true, true), 0);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a->sourcePath, dir.file("f_0003.vxg"));
    EXPECT_EQ(list.count, before + 1);
    // Nearest frame: 6 is nearer to 7 than to 3.
    ASSERT_EQ(acquireShared(b, 6, dir.file("f_%04d.vxg").c_str(), "", false, true, true), 0);
    EXPECT_EQ(b->sourcePath, dir.file("f_0007.vxg"));
    // Found only by the second pass.
    ASSERT_EQ(acquireShared(c, 12, dir.file("g_####.vxg").c_str(), "", true, true, true), 0);
    EXPECT_EQ(c->sourcePath, dir.file("g_12.vxg"));
    // No such frame: status 3, the slot emptied and its frame released.
    EXPECT_EQ(acquireShared(c, 13, dir.file("g_####.vxg").c_str(), "", true, true, true), 3);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(list.count, before + 2);
    VaporixFrameData single;
    EXPECT_EQ(single.loadByFrame(12, dir.file("g_%04d.vxg").c_str(), "", true, true, true), 0);
    EXPECT_EQ(single.sourcePath, dir.file("g_12.vxg"));
    EXPECT_EQ(single.loadByFrame(1, dir.file("nowhere/g_%04d.vxg").c_str(), "", false, true, true),
              3);
    releaseFrame(a);
    releaseFrame(b);
    EXPECT_EQ(list.count, before);
}

TEST(CachePaths, FindsTheShortestSequenceForAPrefix) {
    TempDir dir;
    for (const char* n : {"fire_0001.vxg", "fire_0002.vxg", "fire_hi_0001.vxg", "fire_1.vdb"})
        touch(dir.file(n));
    std::string out;
    EXPECT_TRUE(findSequenceByPrefix(out, dir.path() + "/fire_", "vxg"));
    EXPECT_EQ(out, dir.file("fire_####.vxg"));
    EXPECT_TRUE(findSequenceByPrefix(out, dir.path() + "\\", "vdb"));
    EXPECT_EQ(out, dir.file("fire_#.vdb"));
    EXPECT_FALSE(findSequenceByPrefix(out, dir.path() + "/smoke_", "vxg"));
    EXPECT_EQ(out, "");
}

TEST(CachePaths, UpgradeOfOldPrefixes) {
    TempDir dir;
    const std::string prefix = dir.path() + "/old/";
    ASSERT_TRUE(createDirectories(prefix));
    touch(prefix + "sim_0010.f3d");
    touch(prefix + "sim_0011.vdb");
    // No .vxg: the .f3d files come next, before .vdb.
    EXPECT_EQ(upgradeCachePrefix(prefix), prefix + "sim_####.f3d");
    touch(prefix + "s_5.vxg");
    EXPECT_EQ(upgradeCachePrefix(prefix), prefix + "s_#.vxg");
    EXPECT_EQ(upgradeCachePrefix(prefix + "zzz"), prefix + "zzz");
    for (const char* macro : {"$(simoutput)", "$(implicit)", "$(same_as_output)", "$(scene_dir)",
                              "$(resimoutput)", "$(same_as_resimoutput)", ""})
        EXPECT_EQ(upgradeCachePrefix(macro), macro);
    EXPECT_EQ(findSequenceByPrefix(prefix), prefix + "s_#.vxg");
    EXPECT_EQ(findSequenceByPrefix(prefix + "zzz"), "");
    EXPECT_EQ(findSequenceByPrefix(""), "");
    // A modern pattern lists nothing and stays.
    EXPECT_EQ(upgradeCachePrefix(prefix + "s_####.vxg"), prefix + "s_####.vxg");
}

TEST(CacheDialog, FiltersFollowMaskAndModules) {
    const CacheModules all{true, true}, none{};
    auto f = cacheFileFilters(7, all);
    ASSERT_EQ(f.size(), 4u);
    EXPECT_EQ(f[0], (FileFilter{"All supported (*.vxg, *.f3d, *.vdb)", "*.vxg;*.f3d;*.vdb"}));
    EXPECT_EQ(f[1], (FileFilter{"Vaporix (*.vxg)", "*.vxg"}));
    EXPECT_EQ(f[2], (FileFilter{"Field3D (*.f3d)", "*.f3d"}));
    EXPECT_EQ(f[3], (FileFilter{"OpenVDB (*.vdb)", "*.vdb"}));
    EXPECT_EQ(cacheFileFilters(7, none), std::vector<FileFilter>{f[1]});
    EXPECT_EQ(cacheFileFilters(1, all), std::vector<FileFilter>{f[1]});
    EXPECT_EQ(cacheFileFilters(6, CacheModules{false, true}), std::vector<FileFilter>{f[3]});
    EXPECT_EQ(cacheFileFilters(7, CacheModules{true, false}),
              (std::vector<FileFilter>{f[1], f[2]}));
}

TEST(CacheDialog, OpenedFileBecomesItsSequence) {
    TempDir dir;
    touch(dir.file("a_0010.vxg"));
    FakeHost host;
    ScriptedDialogs ui;
    ui.picks = {dir.file("a_0010.vxg")};
    BrowseResult r;
    ASSERT_EQ(browseCachePath(CACHE_INPUT, 7, dir.file("x/$(scene).vxg"), {}, ui, r), 1);
    EXPECT_EQ(r.path, dir.file("a_0010.vxg"));  // no neighbours: the file itself
    EXPECT_TRUE(r.setsRendInput);
    EXPECT_TRUE(r.setsChannelMap);
    EXPECT_EQ(r.preset, 0);
    EXPECT_TRUE(ui.questions.empty());
    EXPECT_EQ(ui.openFlags, std::vector<bool>{true});
    EXPECT_EQ(ui.startFolders, std::vector<std::string>{""});  // the folder x/ doesn't exist

    touch(dir.file("a_0011.vxg"));
    ui.picks = {dir.file("a_0010.vxg")};
    ASSERT_EQ(browseCachePath(CACHE_INPUT, 7, dir.file("a_####.vxg"), {}, ui, r), 1);
    EXPECT_EQ(r.path, dir.file("a_####.vxg"));
    EXPECT_EQ(ui.startFolders.back(), dir.path() + "/");

    // Cancelled.
    EXPECT_EQ(browseCachePath(CACHE_INPUT, 7, "", {}, ui, r), 0);
}

TEST(CacheDialog, SavedNamesGetOurExtensionAndAPattern) {
    TempDir dir;
    EXPECT_EQ(resolvePickedCachePath(dir.file("out"), false), dir.file("out_####.vxg"));
    EXPECT_EQ(resolvePickedCachePath(dir.file("out.vdb"), false), dir.file("out.vdb_####.vxg"));
    EXPECT_EQ(resolvePickedCachePath(dir.file("out_%03d"), false), dir.file("out_%03d.vxg"));
    EXPECT_EQ(resolvePickedCachePath(dir.file("out_0001.VXG"), false), dir.file("out_0001.VXG"));
    // The open dialog takes foreign files as they are.
    EXPECT_EQ(resolvePickedCachePath(dir.file("out_0001.vdb"), true), dir.file("out_0001.vdb"));

    ScriptedDialogs ui;
    ui.picks = {dir.file("render")};
    BrowseResult r;
    ASSERT_EQ(browseCachePath(CACHE_OUTPUT, 1, "", {true, true}, ui, r), 1);
    EXPECT_EQ(ui.openFlags, std::vector<bool>{false});
    EXPECT_EQ(ui.filters[0], std::vector<FileFilter>({{"Vaporix (*.vxg)", "*.vxg"}}));
    EXPECT_EQ(r.path, dir.file("render_####.vxg"));
    EXPECT_FALSE(r.setsRendInput);
    EXPECT_FALSE(r.setsChannelMap);
    EXPECT_TRUE(ui.questions.empty());
}

TEST(CacheDialog, ForeignCachesOfferRenderPresets) {
    TempDir dir;
    touch(dir.file("h_0001.vdb"));
    touch(dir.file("h_0002.vdb"));
    touch(dir.file("f_0001.f3d"));
    ScriptedDialogs ui;
    BrowseResult r;
    ui.picks = {dir.file("h_0001.vdb")};
    ui.answers = {ANSWER_HOUDINI_LIQUID};
    ASSERT_EQ(browseCachePath(CACHE_INPUT, 7, "", {true, true}, ui, r), 1);
    EXPECT_EQ(r.path, dir.file("h_####.vdb"));
    EXPECT_EQ(r.preset, 3);
    ASSERT_EQ(ui.buttons.back().size(), 4u);
    EXPECT_EQ(ui.buttons.back()[0].label, "FumeFX Fire/Smoke");
    EXPECT_EQ(ui.buttons.back()[3].code, ANSWER_NO_PRESET);
    EXPECT_EQ(ui.questions.back(),
              "Would you like to load a Render Preset for OpenVDB? Please choose between FumeFX "
              "Fire/Smoke,\nHoudini Fire/Smoke, or Houdini Liquid.");

    ui.picks = {dir.file("f_0001.f3d")};
    ui.answers = {ANSWER_YES};
    ASSERT_EQ(browseCachePath(CACHE_INPUT, 7, "", {true, true}, ui, r), 1);
    EXPECT_EQ(r.preset, 1);
    EXPECT_EQ(ui.questions.back(),
              "Would you like to load a Render Preset for FumeFX Field3D files?");

    EXPECT_EQ(askRenderPreset("x.vdb", ui), 0);  // no answer scripted: "No"
    ui.answers = {ANSWER_NO_PRESET};
    EXPECT_EQ(askRenderPreset("x.VDB", ui), 0);
    ui.answers = {ANSWER_FUMEFX_FIRE_SMOKE};
    EXPECT_EQ(askRenderPreset("x.VDB", ui), 1);
    const size_t asked = ui.questions.size();
    EXPECT_EQ(askRenderPreset("x.vxg", ui), 0);
    EXPECT_EQ(ui.questions.size(), asked);

    // Resimulation input: no preset question, but the channel map is still set.
    ui.picks = {dir.file("h_0001.vdb")};
    ASSERT_EQ(browseCachePath(CACHE_RESIM_INPUT, 7, "", {true, true}, ui, r), 1);
    EXPECT_EQ(ui.questions.size(), asked);
    EXPECT_TRUE(r.setsChannelMap);
    EXPECT_FALSE(r.setsRendInput);
}

TEST(PathMenu, EntriesByKind) {
    auto labels = [](const std::vector<PathMenuEntry>& entries) {
        std::vector<std::string> out;
        for (const auto& e : entries) out.push_back(e.label);
        return out;
    };
    EXPECT_EQ(
        labels(pathMenuEntries(CACHE_OUTPUT, "")),
        (std::vector<std::string>{"Browse...", "Delete Cache Files", "Show File Name...", "Help"}));
    EXPECT_EQ(labels(pathMenuEntries(CACHE_INPUT, "/c/a_####.vdb")),
              (std::vector<std::string>{"Browse...", "Show File Name...",
                                        "3rd Party Channel Mappings...", "Help"}));
    EXPECT_EQ(labels(pathMenuEntries(CACHE_INPUT, "/c/a_####.vxg")),
              (std::vector<std::string>{"Browse...", "Show File Name...", "Help"}));
    EXPECT_EQ(pathMenuEntries(CACHE_RESIM_OUTPUT, "")[1].item, PathMenuItem::DeleteCacheFiles);
}

TEST(PathMenu, DeleteAsksFirstAndIsStrictOnlyForResimulation) {
    TempDir dir;
    for (const char* n : {"d_0001.vxg", "d_0002.vxg", "d_x_0003.vxg"}) touch(dir.file(n));
    ScriptedDialogs ui;
    ui.answers = {ANSWER_NO};
    EXPECT_FALSE(deleteCacheFiles(CACHE_OUTPUT, dir.file("d_####.vxg"), ui));
    EXPECT_EQ(ui.questions.back(), "All cache files will be deleted!\nAre you sure?");
    EXPECT_TRUE(sys::isFile(dir.file("d_0001.vxg")));

    // Resimulation: strict, so a name of another shape survives.
    ui.answers = {ANSWER_YES};
    EXPECT_TRUE(deleteCacheFiles(CACHE_RESIM_OUTPUT, dir.file("d_####.vxg"), ui));
    EXPECT_EQ(ui.questions.back(), "The resimulation cache files will be deleted!\nAre you sure?");
    EXPECT_FALSE(sys::isFile(dir.file("d_0001.vxg")));
    EXPECT_TRUE(sys::isFile(dir.file("d_x_0003.vxg")));

    // Output: not strict, everything the wildcard lists goes.
    ui.answers = {ANSWER_YES};
    touch(dir.file("d_0001.vxg"));
    EXPECT_TRUE(deleteCacheFiles(CACHE_OUTPUT, dir.file("d_####.vxg"), ui));
    EXPECT_FALSE(sys::isFile(dir.file("d_0001.vxg")));
    EXPECT_FALSE(sys::isFile(dir.file("d_x_0003.vxg")));
}

TEST(PathMenu, ShowFileNameWindow) {
    EXPECT_EQ(showFileNameTitle(CACHE_INPUT), "Input cache file for this frame:");
    EXPECT_EQ(showFileNameTitle(CACHE_OUTPUT), "Output cache file for this frame:");
    EXPECT_EQ(showFileNameTitle(CACHE_RESIM_INPUT),
              "Resimulation Input cache file for this frame:");
    EXPECT_EQ(showFileNameTitle(CACHE_RESIM_OUTPUT),
              "Resimulation Output cache file for this frame:");
    EXPECT_EQ(cacheFileNameAt("/c/a_####.vxg", 12 * 160 + 159, 160), "/c/a_0012.vxg");
    EXPECT_EQ(cacheFileNameAt("/c/a_####.vxg", -160 - 80, 160), "/c/a_-001.vxg");  // truncates
    EXPECT_EQ(cacheFileNameAt("/c/a_####.vxg", FRAME_NOT_SET, 160), "/c/a_.vxg");
    EXPECT_EQ(cacheFileNameAt("/c/a_####.vxg", 100, 0), "/c/a_.vxg");

    // The text follows the time only while the window is shown, and only when it changes.
    ShowFileNameView view(CACHE_INPUT);
    EXPECT_EQ(view.title, "Input cache file for this frame:");
    EXPECT_FALSE(view.onTimeChange(false, "/c/a_####.vxg", 160, 160));
    EXPECT_EQ(view.text, "");
    EXPECT_TRUE(view.onTimeChange(true, "/c/a_####.vxg", 160, 160));
    EXPECT_EQ(view.text, "/c/a_0001.vxg");
    EXPECT_FALSE(view.onTimeChange(true, "/c/a_####.vxg", 200, 160));  // same frame
    EXPECT_FALSE(view.onTimeChange(false, "/c/a_####.vxg", 480, 160));
    EXPECT_EQ(view.text, "/c/a_0001.vxg");
    EXPECT_TRUE(view.onTimeChange(true, "/c/a_####.vxg", 480, 160));
    EXPECT_EQ(view.text, "/c/a_0003.vxg");
}
