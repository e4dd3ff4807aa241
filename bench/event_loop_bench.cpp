// The event loop's costs: a posted task's trip to the loop thread, and
// scheduling and cancelling timers among 10,000 pending ones.
#include <benchmark/benchmark.h>

#include <atomic>
#include <future>
#include <vector>

#include "sip/core/event_loop.h"

namespace {

// Tasks posted from another thread until the loop has run them all.
void BM_PostToRun(benchmark::State& state) {
    kelsip::EventLoop loop;
    loop.start();
    const int64_t batch = state.range(0);
    for (auto _ : state) {
        std::atomic<int64_t> ran{0};
        std::promise<void> done;
        for (int64_t i = 0; i < batch; ++i) {
            loop.post([&, batch] {
                if (++ran == batch) done.set_value();
            });
        }
        done.get_future().wait();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    loop.stop();
}
BENCHMARK(BM_PostToRun)->Arg(1)->Arg(1000)->UseRealTime();

// One schedule and one cancel while 10,000 other timers are pending.
void BM_ScheduleCancelAmongPending(benchmark::State& state) {
    auto clock = std::make_shared<kelsip::ManualClock>();
    kelsip::EventLoop loop(clock);  // never started: only the tables are measured
    for (int64_t i = 0; i < state.range(0); ++i) loop.schedule(1000 + i, [] {});
    int64_t delay = 0;
    for (auto _ : state) {
        const auto id = loop.schedule(500 + (delay++ % 20000), [] {});
        loop.cancel(id);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ScheduleCancelAmongPending)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
