// What one pass over the container table costs, which every GETNEXT pays.
#include <benchmark/benchmark.h>

#include "bench/BenchHost.h"
#include "daemon/tables/VeTable.h"

namespace kx::bench {
namespace {

void readEveryVeid(benchmark::State& state) {
    const boost::intrusive_ptr<KXLEnvCache> cache(new KXLEnvCache);
    cache->store().publish(feedWith(chunksOf(containers(static_cast<int>(state.range(0))))).current());
    for (auto _ : state) {
        const VeTableSnapshot snapshot(cache->getEnvList());
        const VeTableCursor end = snapshot.end();
        for (VeTableCursor cursor = snapshot.begin(); !(cursor == end); ++cursor) {
            VeTableData row = *cursor;
            benchmark::DoNotOptimize(row[1]);
        }
    }
}
BENCHMARK(readEveryVeid)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kx::bench
