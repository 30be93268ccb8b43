// Resident memory of the process after 1,000,000 decisions against after the
// first 10,000 of them.  The decisions mix allow-cache queries, program starts
// of inventory items and of unknown files over 20,000 distinct targets, so
// the allow cache fills, flushes and refills many times over.
#include <unistd.h>

#include <fstream>

#include "BenchUtil.h"

namespace {

constexpr uint64_t kRows = 100000;
constexpr size_t kTargets = 20000;

double ResidentMB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

void Decide(std::vector<zelkbench::HostEvent>& events, uint64_t from, uint64_t to) {
    ac_wrapper_response_s response;
    for (uint64_t k = from; k < to; ++k) {
        zelkbench::HostEvent& e = events[k % kTargets];
        const uint32_t type = k % 4 == 0 ? ZELK_EVENT_CACHED : ZELK_EVENT_EXEC_PRE;
        app_ctl(e.Raw(type, e.raw.size), &response);
    }
}

void BM_ResidentGrowth(benchmark::State& state) {
    static const std::string db = zelkbench::InventoryDb(kRows);
    zelkbench::UseDatabase(db);
    // Half the targets are inventory rows, half unknown files.
    std::vector<zelkbench::HostEvent> events = zelkbench::InventoryEvents(kRows, kTargets);
    for (size_t t = 1; t < kTargets; t += 2) {
        events[t].target = "/home/alice/build/out-" + std::to_string(t);
        zelkbench::RowDigest(5000000 + t, events[t].sha256);
    }
    double first = 0, last = 0;
    for (auto _ : state) {
        Decide(events, 0, 10000);
        first = ResidentMB();
        Decide(events, 10000, 1000000);
        last = ResidentMB();
    }
    state.counters["rss_10k_MB"] = first;
    state.counters["rss_1M_MB"] = last;
    state.counters["growth_MB"] = last - first;
}

BENCHMARK(BM_ResidentGrowth)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    zelkbench::InventoryDb(kRows);
    return zelkbench::RunWithRatios(
        argc, argv,
        {{"resident growth MB, 1M decisions vs 10k", "BM_ResidentGrowth/iterations:1", "",
          "growth_MB", 10.0, false}});
}
