// Benchmark of the per-frame shading tables: all of them are rebuilt for every frame rendered.
#include <benchmark/benchmark.h>

#include <cmath>

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

/// Baseline: the same four tables of 8000 rows from plain piecewise-linear ramps over five
/// keys, with one logarithm per row of the two logarithmic tables. It is the least work a
/// frame's tables can cost; the builds above are reported as ratios to it.
void BM_BaselineLinearTables(benchmark::State& state) {
    const float keyX[5] = {0.0f, 800.0f, 1500.0f, 2200.0f, 3500.0f};
    const float keyY[5] = {0.0f, 0.1f, 0.6f, 0.8f, 1.0f};
    const auto ramp = [&](float x) {
        int j = 0;
        while (j < 3 && keyX[j + 1] < x) ++j;
        const float f = (x - keyX[j]) / (keyX[j + 1] - keyX[j]);
        return (1.0f - f) * keyY[j] + f * keyY[j + 1];
    };
    iArray<TableColor> emission, diffuse;
    iArray<float> power, opacity;
    emission.resize(SHADING_TABLE_ROWS, true);
    diffuse.resize(SHADING_TABLE_ROWS, true);
    power.resize(SHADING_TABLE_ROWS, true);
    opacity.resize(SHADING_TABLE_ROWS, true);
    const TableRange range{0.0f, 3500.0f};
    for (auto _ : state) {
        for (int i = 0; i < SHADING_TABLE_ROWS; ++i) {
            const float v = ShadingTables::rowValue(range, i);
            const float y = ramp(v);
            emission[i] = TableColor{y, 0.5f * y, 0.25f * y};
            power[i] = std::log(std::fmax(1.0f - y, 1e-6f));
            diffuse[i] = TableColor{y, 1.0f - y, 0.5f};
            opacity[i] = std::log(std::fmax(1.0f - y, 1e-6f));
        }
        benchmark::DoNotOptimize(emission.data);
        benchmark::DoNotOptimize(power.data);
        benchmark::DoNotOptimize(diffuse.data);
        benchmark::DoNotOptimize(opacity.data);
    }
    state.SetItemsProcessed(state.iterations() * 3 * SHADING_TABLE_ROWS);
}
BENCHMARK(BM_BaselineLinearTables)->Unit(benchmark::kMillisecond);

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
