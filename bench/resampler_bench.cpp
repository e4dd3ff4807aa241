// The sample-rate converter's cost per output sample (the per_out counter)
// between the sound card's rates and the calls' 8000 Hz, fed 10 ms blocks of
// mono as the audio threads do.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "engine/audio/resampler.h"

namespace {

void BM_Resample(benchmark::State& state) {
    const kelsoftphone::ResamplerConfig config{static_cast<uint32_t>(state.range(0)),
                                               static_cast<uint32_t>(state.range(1)), 1, 1};
    auto made = kelsoftphone::Resampler::create(config);
    if (!made) {
        state.SkipWithError("no such conversion");
        return;
    }
    kelsoftphone::Resampler& resampler = *made;
    const size_t block = config.inRate / 100;
    std::vector<float> in(block);
    for (size_t n = 0; n < block; ++n) in[n] = 0.5f * std::sin(0.3f * static_cast<float>(n));
    std::vector<float> out;
    out.reserve(config.outRate / 50);
    int64_t produced = 0;
    for (auto _ : state) {
        out.clear();
        resampler.process(in.data(), block, out);
        benchmark::DoNotOptimize(out.data());
        produced += static_cast<int64_t>(out.size());
    }
    // Seconds per output sample, printed with its unit prefix (ns).
    state.counters["per_out"] =
        benchmark::Counter(static_cast<double>(produced), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["taps"] = static_cast<double>(resampler.tapsPerPhase());
}
BENCHMARK(BM_Resample)->Args({48000, 8000})->Args({8000, 48000})->Args({44100, 8000})->Args({8000, 44100});

}  // namespace

BENCHMARK_MAIN();
