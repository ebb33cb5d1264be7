// What a client pays for a snapshot, for one change, and for taking the list.
#include <benchmark/benchmark.h>

#include "bench/BenchHost.h"

namespace kx::bench {
namespace {

void takeSnapshot(benchmark::State& state) {
    const auto chunks = chunksOf(containers(static_cast<int>(state.range(0))));
    for (auto _ : state) {
        benchmark::DoNotOptimize(feedWith(chunks));
    }
}
BENCHMARK(takeSnapshot)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

void takeDeltaOfOneChange(benchmark::State& state) {
    client::EnvFeed feed = feedWith(chunksOf(containers(static_cast<int>(state.range(0)))));
    wire::Delta delta;
    *delta.add_changed() = containers(1).front();
    std::uint64_t generation = 1;
    for (auto _ : state) {
        delta.set_generation(++generation);
        benchmark::DoNotOptimize(feed.take(delta));
    }
}
BENCHMARK(takeDeltaOfOneChange)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

void takeTheList(benchmark::State& state) {
    const boost::intrusive_ptr<KXLEnvCache> cache(new KXLEnvCache);
    cache->store().publish(feedWith(chunksOf(containers(10000))).current());
    for (auto _ : state) {
        benchmark::DoNotOptimize(cache->getEnvList());
    }
}
BENCHMARK(takeTheList);

}  // namespace
}  // namespace kx::bench
