// Cost of the frame lookup, which lists the cache folder on every call.
//
// Baseline: BM_ListFolder, the bare listing of the same folder that every lookup starts with.
// The ratio BM_FindFrameFile / BM_ListFolder is what matching the names costs on top.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "foundation/sys/Files.h"

namespace {

// A folder with `frames` empty cache files, made once per size and removed at exit.
class SequenceFolder {
public:
    explicit SequenceFolder(int frames) {
        char base[] = "/tmp/vaporix_bench_XXXXXX";
        if (!mkdtemp(base)) std::abort();
        mPath = base;
        for (int f = 1; f <= frames; ++f) {
            FILE* file = std::fopen(vaporix::expandFramePattern(pattern(), f).c_str(), "wb");
            if (!file) std::abort();
            std::fclose(file);
        }
    }
    ~SequenceFolder() {
        std::error_code ec;
        std::filesystem::remove_all(mPath, ec);
    }
    std::string pattern() const { return mPath + "/fire_####.vxg"; }

private:
    std::string mPath;
};

void BM_ListFolder(benchmark::State& state) {
    const int frames = static_cast<int>(state.range(0));
    SequenceFolder folder(frames);
    const std::string path = folder.pattern().substr(0, folder.pattern().rfind('/'));
    std::vector<vaporix::sys::FolderEntry> entries;
    for (auto _ : state) {
        vaporix::sys::listFolder(path, entries);
        benchmark::DoNotOptimize(entries.data());
    }
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_ListFolder)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->ArgName("files")
    ->Unit(benchmark::kMicrosecond);

void BM_FindFrameFile(benchmark::State& state) {
    const int frames = static_cast<int>(state.range(0));
    const bool exact = state.range(1) != 0;
    SequenceFolder folder(frames);
    std::string path;
    int frame = 0;
    for (auto _ : state) {
        frame = frame % frames + 1;
        benchmark::DoNotOptimize(
            vaporix::findFrameFile(folder.pattern(), exact ? frame : -frame, exact, path));
    }
    state.SetItemsProcessed(state.iterations() * frames);  // files looked at
}
BENCHMARK(BM_FindFrameFile)
    ->ArgsProduct({{100, 1000, 10000}, {1, 0}})
    ->ArgNames({"files", "exact"})
    ->Unit(benchmark::kMicrosecond);

void BM_ExpandFramePattern(benchmark::State& state) {
    std::string out;
    int frame = 0;
    for (auto _ : state) {
        vaporix::expandFramePattern(out, "/caches/shot 010/fire_<frame05>_%04d_####.vxg", ++frame);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_ExpandFramePattern);

}  // namespace

BENCHMARK_MAIN();
