// app_ctl of a program start whose file the inventory holds (found by
// SHA-256 among 1,000,000 rows, no trust rules, the allow cache never asked
// for raw exec events), against one prepared SELECT by sha256 and size on the
// same file.
#include "BenchUtil.h"

namespace {

constexpr uint64_t kRows = 1000000;
constexpr size_t kEvents = 8192;

const std::string& Db() {
    static const std::string path = zelkbench::InventoryDb(kRows);
    return path;
}
std::vector<zelkbench::HostEvent>& Events() {
    static std::vector<zelkbench::HostEvent> events = zelkbench::InventoryEvents(kRows, kEvents);
    return events;
}

void BM_Baseline_PreparedSelect(benchmark::State& state) {
    zelkbench::PlainLookup lookup(Db());
    size_t i = 0;
    for (auto _ : state) {
        zelkbench::HostEvent& e = Events()[i++ % kEvents];
        if (!lookup.Find(e.sha256, e.raw.size)) {
            state.SkipWithError("row not found");
            break;
        }
    }
}

void BM_AppCtl_InventoryHit(benchmark::State& state) {
    zelkbench::UseDatabase(Db());
    ac_wrapper_response_s response;
    size_t i = 0;
    for (auto _ : state) {
        zelkbench::HostEvent& e = Events()[i++ % kEvents];
        app_ctl(e.Raw(ZELK_EVENT_EXEC_PRE, e.raw.size), &response);
        if (response.action != ZELK_ACTION_ALLOW || response.source != ZELK_SOURCE_SCANNED) {
            state.SkipWithError("not allowed by the inventory");
            break;
        }
    }
}

BENCHMARK(BM_Baseline_PreparedSelect);
BENCHMARK(BM_AppCtl_InventoryHit);

}  // namespace

int main(int argc, char** argv) {
    Db();
    return zelkbench::RunWithRatios(
        argc, argv,
        {{"app_ctl inventory hit, 1M rows / prepared SELECT", "BM_AppCtl_InventoryHit",
          "BM_Baseline_PreparedSelect", "", 2.5, false}});
}
