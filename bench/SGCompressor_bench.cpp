// Grid codec against zlib-6 and zstd-3 on procedural smoke and fire: decode throughput on one
// core, compression ratio, zoned decode on two threads, encode speed. A summary of ratios
// against the baselines of the same run follows the table.
#include <benchmark/benchmark.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ProceduralFields.h"
#include "cache/SGCompressor.h"

using namespace vaporix;
using vaporix::bench::ProceduralField;

namespace {

constexpr int QUANT_BITS = 16;

const ProceduralField& field(int which) {
    static const ProceduralField smoke = bench::smokeDensity();
    static const ProceduralField fire = bench::fireTemperature();
    return which == 0 ? smoke : fire;
}
const char* fieldName(int which) { return which == 0 ? "smoke" : "fire"; }

// Sizes of each stream, for the summary.
std::map<std::string, double>& sizes() {
    static std::map<std::string, double> s;
    return s;
}

// Bytes of output of each zone of the two-zone streams, for the summary.
std::map<std::string, double>& zoneBytes() {
    static std::map<std::string, double> b;
    return b;
}

// The output of a decode: allocated and touched once, reused by every iteration.
std::vector<float>& outputBuffer(uint64_t cells) {
    static std::vector<float> out;
    if (out.size() < cells) out.assign(cells, 1.0f);
    return out;
}

// A compressor whose zones run on `threads` pool threads.
struct Threaded : SGCompressor<3> {
    Threaded(ThreadManager* manager, int threads) : SGCompressor<3>(manager), mThreads(threads) {}
    int defaultThreads() override { return mThreads; }
    int mThreads;
};

PosixThreadManager& pool() {
    static PosixThreadManager* manager = new PosixThreadManager;
    return *manager;
}

std::vector<uint8_t> encodeOnce(const ProceduralField& f, int passes, int zones) {
    SGCompressor<3> codec(&pool());
    const int dims[3] = {f.nx, f.ny, f.nz};
    codec.encodeZoned(f.values.data(), dims, QUANT_BITS, 0, passes, zones);
    return std::vector<uint8_t>(codec.output.data, codec.output.data + codec.output.count);
}

void BM_CodecDecode(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const int passes = static_cast<int>(state.range(1));
    const int zones = static_cast<int>(state.range(2));
    const int threads = static_cast<int>(state.range(3));
    const ProceduralField& f = field(which);
    const auto stream = encodeOnce(f, passes, zones);
    Threaded codec(&pool(), threads);
    auto& out = outputBuffer(f.cells());
    for (auto _ : state) {
        if (!codec.decode(stream.data(), stream.size(), out.data(), f.cells())) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes()));
    state.counters["bytes"] = static_cast<double>(f.bytes());
    state.counters["stream_MB"] = static_cast<double>(stream.size()) / 1e6;
    state.counters["ratio_vs_raw"] =
        static_cast<double>(f.bytes()) / static_cast<double>(stream.size());
    sizes()[std::string("codec/") + fieldName(which) + "/p" + std::to_string(passes) + "/z" +
            std::to_string(zones)] = static_cast<double>(stream.size());
    state.SetLabel(std::string(fieldName(which)) + " passes " + std::to_string(passes) + " zones " +
                   std::to_string(zones) + " threads " + std::to_string(threads));
}

// One zone of a two-zone stream, decoded alone on the calling thread. On a machine whose cores
// are busy with other work a two-thread run cannot show its speed-up; the processor time of the
// slower zone against that of the single stream tells what two idle cores would give.
void BM_ZoneDecode(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const int zone = static_cast<int>(state.range(1));
    const ProceduralField& f = field(which);
    const auto stream = encodeOnce(f, 2, 2);
    uint16_t zones = 0;
    std::memcpy(&zones, stream.data() + 2, 2);
    const uint64_t table = 4 + 8 * uint64_t(zones);
    int32_t destination = 0, start = 0, next = static_cast<int32_t>(stream.size() - table);
    std::memcpy(&destination, stream.data() + 4 + 4 * zone, 4);
    std::memcpy(&start, stream.data() + 4 + 4 * (zones + zone), 4);
    if (zone + 1 < zones) std::memcpy(&next, stream.data() + 4 + 4 * (zones + zone + 1), 4);
    int32_t endCell = static_cast<int32_t>(f.cells());
    if (zone + 1 < zones) std::memcpy(&endCell, stream.data() + 4 + 4 * (zone + 1), 4);
    const uint64_t cells = static_cast<uint64_t>(endCell - destination);
    SGCompressor<3> codec;
    auto& out = outputBuffer(f.cells());
    for (auto _ : state) {
        if (!codec.decode(stream.data() + table + start, static_cast<uint64_t>(next - start),
                          out.data() + destination, cells)) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * cells * 4));
    state.counters["bytes"] = static_cast<double>(cells * 4);
    zoneBytes()[std::string(fieldName(which)) + "/" + std::to_string(zone)] =
        static_cast<double>(cells * 4);
    state.SetLabel(std::string(fieldName(which)) + " zone " + std::to_string(zone) + " of " +
                   std::to_string(zones));
}

void BM_ZlibDecode(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const ProceduralField& f = field(which);
    uLongf bound = compressBound(static_cast<uLong>(f.bytes()));
    std::vector<uint8_t> packed(bound);
    compress2(packed.data(), &bound, reinterpret_cast<const Bytef*>(f.values.data()),
              static_cast<uLong>(f.bytes()), 6);
    packed.resize(bound);
    auto& out = outputBuffer(f.cells());
    for (auto _ : state) {
        uLongf size = static_cast<uLongf>(f.bytes());
        if (uncompress(reinterpret_cast<Bytef*>(out.data()), &size, packed.data(),
                       static_cast<uLong>(packed.size())) != Z_OK) {
            state.SkipWithError("inflate failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes()));
    state.counters["bytes"] = static_cast<double>(f.bytes());
    state.counters["stream_MB"] = static_cast<double>(packed.size()) / 1e6;
    sizes()[std::string("zlib6/") + fieldName(which)] = static_cast<double>(packed.size());
    state.SetLabel(fieldName(which));
}

void BM_ZstdDecode(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const ProceduralField& f = field(which);
    std::vector<uint8_t> packed(ZSTD_compressBound(f.bytes()));
    packed.resize(ZSTD_compress(packed.data(), packed.size(), f.values.data(), f.bytes(), 3));
    ZSTD_DCtx* context = ZSTD_createDCtx();
    auto& out = outputBuffer(f.cells());
    for (auto _ : state) {
        const size_t n =
            ZSTD_decompressDCtx(context, out.data(), f.bytes(), packed.data(), packed.size());
        if (n != f.bytes()) {
            state.SkipWithError("zstd failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    ZSTD_freeDCtx(context);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes()));
    state.counters["bytes"] = static_cast<double>(f.bytes());
    state.counters["stream_MB"] = static_cast<double>(packed.size()) / 1e6;
    sizes()[std::string("zstd3/") + fieldName(which)] = static_cast<double>(packed.size());
    state.SetLabel(fieldName(which));
}

void BM_CodecEncode(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const int passes = static_cast<int>(state.range(1));
    const ProceduralField& f = field(which);
    SGCompressor<3> codec(&pool());
    const int dims[3] = {f.nx, f.ny, f.nz};
    for (auto _ : state) {
        if (codec.Compress(f.values.data(), dims, QUANT_BITS, 0, passes) <= 0) {
            state.SkipWithError("encode failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes()));
    state.counters["bytes"] = static_cast<double>(f.bytes());
    state.SetLabel(std::string(fieldName(which)) + " passes " + std::to_string(passes));
}

void BM_ZstdEncode(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const ProceduralField& f = field(which);
    std::vector<uint8_t> packed(ZSTD_compressBound(f.bytes()));
    ZSTD_CCtx* context = ZSTD_createCCtx();
    for (auto _ : state) {
        const size_t n =
            ZSTD_compressCCtx(context, packed.data(), packed.size(), f.values.data(), f.bytes(), 3);
        benchmark::DoNotOptimize(n);
    }
    ZSTD_freeCCtx(context);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes()));
    state.counters["bytes"] = static_cast<double>(f.bytes());
    state.SetLabel(fieldName(which));
}

// field, passes, zones, threads
BENCHMARK(BM_CodecDecode)
    ->Args({0, 2, 1, 1})
    ->Args({0, 1, 1, 1})
    ->Args({1, 2, 1, 1})
    ->Args({1, 1, 1, 1})
    ->Args({0, 2, 2, 1})
    ->Args({0, 2, 2, 2})
    ->Args({1, 2, 2, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ZoneDecode)
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ZlibDecode)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ZstdDecode)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CodecEncode)
    ->Args({0, 2})
    ->Args({0, 1})
    ->Args({1, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ZstdEncode)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Keeps the throughput of every benchmark for the summary: its bytes over its time, the median
// time of its repetitions when it was repeated. `wall` is per second of elapsed time; `cpu` per
// second of the calling thread's processor time, which for one-thread runs is what one core does
// while it runs, however busy the machine is with other work (it means nothing for runs whose work
// is on pool threads).
class Recorder : public benchmark::ConsoleReporter {
public:
    struct Speed {
        double wall = 0, cpu = 0;
    };
    std::map<std::string, Speed> speeds;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (!run.aggregate_name.empty() && run.aggregate_name != "median") continue;
            const auto bytes = run.counters.find("bytes");
            if (bytes == run.counters.end()) continue;
            const double unit = benchmark::GetTimeUnitMultiplier(run.time_unit);
            const double wallSeconds = run.GetAdjustedRealTime() / unit;
            const double cpuSeconds = run.GetAdjustedCPUTime() / unit;
            Speed speed;
            if (wallSeconds > 0) speed.wall = bytes->second.value / wallSeconds;
            if (cpuSeconds > 0) speed.cpu = bytes->second.value / cpuSeconds;
            speeds[run.run_name.str()] = speed;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

double get(const std::map<std::string, double>& m, const std::string& key) {
    const auto it = m.find(key);
    return it == m.end() ? 0.0 : it->second;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Recorder recorder;
    benchmark::RunSpecifiedBenchmarks(&recorder);
    benchmark::Shutdown();

    const auto& s = sizes();
    auto speed = [&](const std::string& name) {
        const auto it = recorder.speeds.find(name + "/real_time");
        return it == recorder.speeds.end() ? Recorder::Speed{} : it->second;
    };
    std::printf(
        "\nSummary: medians, as ratios against the baselines of this run. Throughput in MB/s of "
        "float\noutput, per second of elapsed time (wall) and of the running thread's processor "
        "time (cpu).\n");
    for (int which = 0; which < 2; ++which) {
        const std::string name = fieldName(which);
        const std::string w = std::to_string(which);
        const auto single2 = speed("BM_CodecDecode/" + w + "/2/1/1");
        const auto single1 = speed("BM_CodecDecode/" + w + "/1/1/1");
        const auto zlib = speed("BM_ZlibDecode/" + w);
        const auto zstd = speed("BM_ZstdDecode/" + w);
        const double zstdSize = get(s, "zstd3/" + name);
        const double zlibSize = get(s, "zlib6/" + name);
        for (int cpu = 0; cpu < 2; ++cpu) {
            const char* clock = cpu ? "cpu " : "wall";
            auto v = [&](const Recorder::Speed& x) { return cpu ? x.cpu : x.wall; };
            std::printf(
                "%-5s decode 1 thread, passes 2 (%s): %6.0f MB/s = %.2fx zlib-6 (%.0f), %.2fx "
                "zstd-3 (%.0f); passes 1: %.0f MB/s\n",
                name.c_str(), clock, v(single2) / 1e6, v(single2) / v(zlib), v(zlib) / 1e6,
                v(single2) / v(zstd), v(zstd) / 1e6, v(single1) / 1e6);
        }
        for (int passes : {1, 2}) {
            const double size = get(s, "codec/" + name + "/p" + std::to_string(passes) + "/z1");
            if (size > 0)
                std::printf(
                    "%-5s size passes %d: %.3f MB, %.2fx smaller than zstd-3 (%.3f MB), "
                    "%.2fx than zlib-6 (%.3f MB)\n",
                    name.c_str(), passes, size / 1e6, zstdSize / size, zstdSize / 1e6,
                    zlibSize / size, zlibSize / 1e6);
        }
        const auto zoned2 = speed("BM_CodecDecode/" + w + "/2/2/2");
        if (zoned2.wall > 0)
            std::printf(
                "%-5s zoned decode, 2 zones on 2 threads (wall): %.0f MB/s = %.2fx single stream\n",
                name.c_str(), zoned2.wall / 1e6, zoned2.wall / single2.wall);
        // Processor time of each zone alone against that of the single stream.
        const auto zone0 = speed("BM_ZoneDecode/" + w + "/0");
        const auto zone1 = speed("BM_ZoneDecode/" + w + "/1");
        if (zone0.cpu > 0 && zone1.cpu > 0 && single2.cpu > 0) {
            const double t0 = get(zoneBytes(), name + "/0") / zone0.cpu;
            const double t1 = get(zoneBytes(), name + "/1") / zone1.cpu;
            const double single = static_cast<double>(field(which).bytes()) / single2.cpu;
            std::printf(
                "%-5s zones alone (cpu): %.2f ms and %.2f ms against %.2f ms for the single "
                "stream: two idle cores would decode %.2fx as fast\n",
                name.c_str(), t0 * 1e3, t1 * 1e3, single * 1e3, single / std::max(t0, t1));
        }
        const auto zoned1 = speed("BM_CodecDecode/" + w + "/2/2/1");
        if (zoned1.wall > 0)
            std::printf(
                "%-5s zoned decode, 2 zones on 1 thread (wall): %.0f MB/s = %.2fx single stream\n",
                name.c_str(), zoned1.wall / 1e6, zoned1.wall / single2.wall);
        const auto encode = speed("BM_CodecEncode/" + w + "/2");
        const auto zstdEncode = speed("BM_ZstdEncode/" + w);
        std::printf(
            "%-5s encode passes 2: wall %.0f MB/s = %.2fx zstd-3 (%.0f); cpu %.0f MB/s = %.2fx "
            "zstd-3 (%.0f)\n",
            name.c_str(), encode.wall / 1e6, encode.wall / zstdEncode.wall, zstdEncode.wall / 1e6,
            encode.cpu / 1e6, encode.cpu / zstdEncode.cpu, zstdEncode.cpu / 1e6);
    }
    return 0;
}
