// The inventory-hit program start on 1,000,000 rows against the same decision
// on 100,000 rows: how the decision grows with the inventory.
#include "BenchUtil.h"

namespace {

constexpr size_t kEvents = 8192;

template <uint64_t Rows>
void BM_AppCtl_InventoryHit(benchmark::State& state) {
    static const std::string db = zelkbench::InventoryDb(Rows);
    static std::vector<zelkbench::HostEvent> events = zelkbench::InventoryEvents(Rows, kEvents);
    zelkbench::UseDatabase(db);
    ac_wrapper_response_s response;
    size_t i = 0;
    for (auto _ : state) {
        zelkbench::HostEvent& e = events[i++ % kEvents];
        app_ctl(e.Raw(ZELK_EVENT_EXEC_PRE, e.raw.size), &response);
        if (response.action != ZELK_ACTION_ALLOW) {
            state.SkipWithError("not allowed by the inventory");
            break;
        }
    }
}

BENCHMARK_TEMPLATE(BM_AppCtl_InventoryHit, 100000)->Name("BM_AppCtl_InventoryHit/100000");
BENCHMARK_TEMPLATE(BM_AppCtl_InventoryHit, 1000000)->Name("BM_AppCtl_InventoryHit/1000000");

}  // namespace

int main(int argc, char** argv) {
    zelkbench::InventoryDb(100000);
    zelkbench::InventoryDb(1000000);
    return zelkbench::RunWithRatios(
        argc, argv,
        {{"inventory hit growth, 1M rows / 100k rows", "BM_AppCtl_InventoryHit/1000000",
          "BM_AppCtl_InventoryHit/100000", "", 1.3, false}});
}
