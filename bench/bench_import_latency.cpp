// The decision time while a 100,000-rule hash ruleset is imported, against the
// decision time without an import, both measured in this process: the 99th
// percentile of app_ctl program starts decided by the inventory, taken on a
// decision thread while another thread imports (over and over) and while it
// does not.  Wall time per decision.  Rounds alternate, min/median/max of the
// ratio is printed as the other programs print theirs.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "BenchUtil.h"

namespace {

std::string Ruleset(int rules) {
    static const char* digits = "0123456789abcdef";
    std::string d = "{\"rules\": [";
    uint8_t sha[32];
    for (int i = 0; i < rules; ++i) {
        zelkbench::RowDigest(9000000 + i, sha);
        std::string hex;
        for (uint8_t b : sha) {
            hex += digits[b >> 4];
            hex += digits[b & 15];
        }
        d += (i ? "," : "") + std::string("{\"sha256\": \"") + hex + "\", \"size\": 1}";
    }
    return d + "]}";
}

// The 99th percentile of `count` decisions, in microseconds.
double P99(std::vector<zelkbench::HostEvent>& events, size_t count) {
    std::vector<double> times;
    times.reserve(count);
    ac_wrapper_response_s response;
    for (size_t i = 0; i < count; ++i) {
        zelkbench::HostEvent& e = events[i % events.size()];
        const auto start = std::chrono::steady_clock::now();
        app_ctl(e.Raw(ZELK_EVENT_EXEC_PRE, e.raw.size), &response);
        times.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() * 99 / 100];
}

}  // namespace

int main() {
    const std::string db = zelkbench::InventoryDb(100000);
    zelkbench::UseDatabase(db);
    std::vector<zelkbench::HostEvent> events = zelkbench::InventoryEvents(100000, 4096);
    const std::string ruleset = Ruleset(100000);
    set_ruleset_buffer(false, ruleset.c_str(), "latency");
    P99(events, 20000);  // warm the caches and connections

    const char* reps = getenv("ZELK_BENCH_REPS");
    const int rounds = reps != nullptr ? std::max(1, atoi(reps)) : 5;
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        const double idle = P99(events, 20000);
        std::atomic<bool> stop{false};
        std::atomic<int> imports{0};
        std::thread importer([&] {
            while (!stop.load()) {
                set_ruleset_buffer(false, ruleset.c_str(), "latency");
                ++imports;
            }
        });
        const double busy = P99(events, 20000);
        stop = true;
        importer.join();
        printf("round %d: p99 %.1f us idle, %.1f us during %d imports\n", round, idle, busy,
               imports.load());
        ratios.push_back(busy / idle);
    }
    std::sort(ratios.begin(), ratios.end());
    const double median = ratios.size() % 2
                              ? ratios[ratios.size() / 2]
                              : (ratios[ratios.size() / 2 - 1] + ratios[ratios.size() / 2]) / 2;
    const char* verdict = median <= 2.0 ? "met" : "MISSED";
    printf("\n%-58s %9s %9s %9s  %s\n", "figure", "min", "median", "max", "target");
    printf("%-58s %9.3f %9.3f %9.3f  <= 2.00 %s (n=%zu)\n",
           "p99 decision during 100k import / without, wall", ratios.front(), median, ratios.back(),
           verdict, ratios.size());
    fprintf(stderr, "ZELK_RATIO\t%s\t%.3f\t%.3f\t%.3f\t<= 2.00\t%s\t%zu\n",
            "p99 decision during 100k import / without, wall", ratios.front(), median,
            ratios.back(), verdict, ratios.size());
    zelkbench::StopEngine();
    return 0;
}
