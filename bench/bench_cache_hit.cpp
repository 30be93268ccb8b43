// app_ctl of a raw type 0 event answered from the allow cache, against what a
// hit cannot avoid: copying the event's user, process and target into strings
// and a three-level hash-map lookup.
#include <string>
#include <unordered_map>

#include "BenchUtil.h"

namespace {

constexpr int kTargets = 64;

std::vector<zelkbench::HostEvent>& Events() {
    static std::vector<zelkbench::HostEvent> events = [] {
        std::vector<zelkbench::HostEvent> v(kTargets);
        for (int i = 0; i < kTargets; ++i) {
            v[i].target = zelkbench::RowPath(i);
            zelkbench::RowDigest(i, v[i].sha256);
        }
        return v;
    }();
    return events;
}

// Fills the allow cache: a log-only program start of an unknown file is
// allowed and remembered.
void WarmCache() {
    zelkbench::UseDatabase(zelkbench::ScratchDir("cache-hit") + "/ac.db");
    for (zelkbench::HostEvent& e : Events()) {
        ac_wrapper_response_s response;
        zelkbench::StoreScanned(e, 4096);
        app_ctl(e.Raw(ZELK_EVENT_EXEC_PRE, 4096), &response);
        app_ctl(e.Raw(ZELK_EVENT_CACHED, 4096), &response);
        if (response.authorizedState != 3) {
            fprintf(stderr, "event not answered from the allow cache\n");
            std::exit(3);
        }
    }
}

void BM_Baseline_CopyAndLookup(benchmark::State& state) {
    using Users = std::unordered_map<std::string, bool>;
    using Processes = std::unordered_map<std::string, Users>;
    std::unordered_map<std::string, Processes> map;
    for (zelkbench::HostEvent& e : Events()) {
        map[e.target][e.process][e.user] = true;
    }
    size_t i = 0;
    for (auto _ : state) {
        ac_wrapper_event_s* raw = Events()[i++ % kTargets].Raw(ZELK_EVENT_CACHED, 4096);
        std::string user(raw->user), process(raw->processName), target(raw->name);
        bool hit = false;
        auto t = map.find(target);
        if (t != map.end()) {
            auto p = t->second.find(process);
            if (p != t->second.end()) {
                hit = p->second.find(user) != p->second.end();
            }
        }
        benchmark::DoNotOptimize(hit);
    }
}

void BM_AppCtl_CacheHit(benchmark::State& state) {
    if (state.thread_index() == 0) {
        WarmCache();
    }
    ac_wrapper_response_s response;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            app_ctl(Events()[i++ % kTargets].Raw(ZELK_EVENT_CACHED, 4096), &response));
    }
}

BENCHMARK(BM_Baseline_CopyAndLookup);
BENCHMARK(BM_AppCtl_CacheHit);

}  // namespace

int main(int argc, char** argv) {
    return zelkbench::RunWithRatios(
        argc, argv,
        {{"app_ctl allow-cache hit / copy + 3-level map lookup", "BM_AppCtl_CacheHit",
          "BM_Baseline_CopyAndLookup", "", 3.0, false}});
}
