// Allow-cache hits through app_ctl from 1, 2, 4, 8 and 16 host threads: the
// throughput each added thread brings.  Hits write no cache line that another
// thread writes, so on N cores N threads should give close to N times one.
#include "BenchUtil.h"

namespace {

constexpr int kTargets = 64;

std::vector<zelkbench::HostEvent> MakeEvents() {
    std::vector<zelkbench::HostEvent> v(kTargets);
    for (int i = 0; i < kTargets; ++i) {
        v[i].target = zelkbench::RowPath(i);
        zelkbench::RowDigest(i, v[i].sha256);
    }
    return v;
}

void BM_AppCtl_CacheHit(benchmark::State& state) {
    if (state.thread_index() == 0) {
        zelkbench::UseDatabase(zelkbench::ScratchDir("threads") + "/ac.db");
        std::vector<zelkbench::HostEvent> events = MakeEvents();
        for (zelkbench::HostEvent& e : events) {
            ac_wrapper_response_s response;
            zelkbench::StoreScanned(e, 4096);
            app_ctl(e.Raw(ZELK_EVENT_EXEC_PRE, 4096), &response);
        }
    }
    // Each thread owns its host records, as each host thread does.
    std::vector<zelkbench::HostEvent> events = MakeEvents();
    ac_wrapper_response_s response;
    size_t i = static_cast<size_t>(state.thread_index()) * 17;
    for (auto _ : state) {
        app_ctl(events[i++ % kTargets].Raw(ZELK_EVENT_CACHED, 4096), &response);
        if (response.authorizedState != 3) {
            state.SkipWithError("not an allow-cache hit");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

// Program starts decided by the inventory (100,000 rows), never by the cache:
// each host thread decides on a read connection of its own.
void BM_AppCtl_InventoryDecision(benchmark::State& state) {
    static const std::string db = zelkbench::InventoryDb(100000);
    static std::vector<zelkbench::HostEvent> shared = zelkbench::InventoryEvents(100000, 4096);
    if (state.thread_index() == 0) {
        zelkbench::UseDatabase(db);
    }
    std::vector<zelkbench::HostEvent> events = shared;
    ac_wrapper_response_s response;
    size_t i = static_cast<size_t>(state.thread_index()) * 97;
    for (auto _ : state) {
        zelkbench::HostEvent& e = events[i++ % events.size()];
        app_ctl(e.Raw(ZELK_EVENT_EXEC_PRE, e.raw.size), &response);
        if (response.action != ZELK_ACTION_ALLOW) {
            state.SkipWithError("not allowed by the inventory");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_AppCtl_InventoryDecision)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Threads(8)
    ->Threads(16)
    ->UseRealTime();

BENCHMARK(BM_AppCtl_CacheHit)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Threads(8)
    ->Threads(16)
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    return zelkbench::RunWithRatios(
        argc, argv,
        {{"allow-cache hits, throughput 2 threads / 1 thread",
          "BM_AppCtl_CacheHit/real_time/threads:2", "BM_AppCtl_CacheHit/real_time/threads:1",
          "items_per_second", 1.7, true},
         {"inventory decisions, throughput 2 threads / 1 thread",
          "BM_AppCtl_InventoryDecision/real_time/threads:2",
          "BM_AppCtl_InventoryDecision/real_time/threads:1", "items_per_second", 1.7, true},
         {"inventory decisions, throughput 16 threads / 1 thread",
          "BM_AppCtl_InventoryDecision/real_time/threads:16",
          "BM_AppCtl_InventoryDecision/real_time/threads:1", "items_per_second", 0, true},
         {"allow-cache hits, throughput 16 threads / 1 thread",
          "BM_AppCtl_CacheHit/real_time/threads:16", "BM_AppCtl_CacheHit/real_time/threads:1",
          "items_per_second", 0, true}});
}
