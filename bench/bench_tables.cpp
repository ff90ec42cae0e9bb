// Benchmark of the per-frame shading tables: all of them are rebuilt for every frame rendered.
#include <benchmark/benchmark.h>

#include "editors/MultiCurve.h"
#include "playback/MemoryParamStorage.h"
#include "playback/ParamCurves.h"
#include "render/Blackbody.h"
#include "render/ShadingTables.h"

using namespace vaporix;

namespace {

/// A grid object with the default curves, mapping every argument to temperature.
struct Scene {
    MemoryParamStorage storage;
    VaporixParamsMax params{storage};
    ShadingTables tables;
    ShadingInputs in;

    explicit Scene(int fireOpacityMode) {
        ResetEmission(params, -1);
        ResetDiffuse(params, -1);
        ResetOpacity(params, -1);
        params.setInt("fire_opacity_mode", 0, fireOpacityMode);
        params.setInt("darg", 0, 1);
        params.setInt("targ", 0, 1);
        tables.emissionRange = tables.diffuseRange = tables.opacityRange = TableRange{0, 3500};
        float rgb[3];
        blackbodyRGB(1000.0f, rgb);  // the black-body table is built once per process
    }
};

/// The four tables of one frame: emission (or own opacity), diffuse, opacity.
void BM_FrameTables(benchmark::State& state) {
    Scene scene(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        scene.tables.buildFrameTables(scene.params, 0.0, scene.in);
        benchmark::DoNotOptimize(scene.tables.emissionColorTable.data);
    }
    state.SetItemsProcessed(state.iterations() * 3 * SHADING_TABLE_ROWS);
}
BENCHMARK(BM_FrameTables)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

/// The same with user curves of every kind: linear, spline and Bezier keys mixed.
void BM_FrameTablesMixedCurves(benchmark::State& state) {
    Scene scene(1);
    MultiCurve c;
    c.insertPoint(0, VpxRenderSets::MCP_LINEAR, 0.0f, 0.0f);
    c.insertPoint(1, VpxRenderSets::MCP_SPLINE, 800.0f, 0.1f);
    c.insertPoint(2, VpxRenderSets::MCP_SPLINE, 1500.0f, 0.6f);
    c.insertPoint(3, VpxRenderSets::MCP_LINEAR, 2200.0f, 0.8f);
    c.insertPoint(4, VpxRenderSets::MCP_SPLINE, 3000.0f, 1.0f);
    c.rebuild();
    c.setKind(2, VpxRenderSets::MCP_SMOOTH_BEZIER, 3500.0f);
    c.setKind(5, VpxRenderSets::MCP_FREE_BEZIER, 3500.0f);
    writeCurve(scene.params, "epower", 1, 0.0, c);
    writeCurve(scene.params, "tpower", 1, 0.0, c);
    for (auto _ : state) {
        scene.tables.buildFrameTables(scene.params, 0.0, scene.in);
        benchmark::DoNotOptimize(scene.tables.opacityTable.data);
    }
    state.SetItemsProcessed(state.iterations() * 3 * SHADING_TABLE_ROWS);
}
BENCHMARK(BM_FrameTablesMixedCurves)->Unit(benchmark::kMillisecond);

/// The black-body rows, computed once per process.
void BM_BlackbodyRow(benchmark::State& state) {
    int k = 150;
    for (auto _ : state) {
        float xyz[3], rgb[3];
        computeBlackbodyRow(k, xyz, rgb);
        benchmark::DoNotOptimize(rgb[0]);
        k = k == 9999 ? 150 : k + 1;
    }
}
BENCHMARK(BM_BlackbodyRow);

}  // namespace

BENCHMARK_MAIN();
