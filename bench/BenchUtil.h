// Shared pieces of the benchmark programs: scratch folders under the build
// tree, engine start and stop against a chosen database file, host events,
// and the ratio report.
//
// Every figure a program prints is a ratio of two benchmarks of the same
// process and run, measured on the same data.  Repetitions of all benchmarks
// are interleaved in random order, so a slow spell of the machine hits the
// case and its baseline alike; repetition i of the case is divided by
// repetition i of the baseline and the report gives min, median and max of
// those quotients.  Times are CPU times of the calling thread, which other
// programs on a shared machine disturb far less than wall-clock time; the
// thread-scaling figure alone is a wall-clock throughput.
#ifndef ZELK_BENCH_BENCHUTIL_H_
#define ZELK_BENCH_BENCHUTIL_H_

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "zelk.h"

namespace zelkbench {

// In a host the engine is the first to use SQLite and configures it (no
// allocation statistics, which would put one process-wide mutex on every
// allocation).  The benchmarks build their databases with SQLite before the
// engine starts, so they configure it the same way before main().
inline const int kSqliteConfigured = (sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0), 0);

// <build>/bench-scratch/<name>, created when missing (never emptied here:
// the large inventories are kept between runs, see InventoryDb).
inline std::string ScratchDir(const std::string& name) {
    std::filesystem::path dir = std::filesystem::path(ZELK_BENCH_SCRATCH_ROOT) / name;
    std::filesystem::create_directories(dir);
    return dir.string();
}

inline int SilentLog(unsigned, unsigned, const char*, const char*, const char*, unsigned) {
    return 0;
}

// Runs the engine on `dbPath`, restarting it only when the path changes, so a
// benchmark function that the library calls several times pays the start
// once.  Errors and warnings pass the mask, as on a production host.
struct EngineState {
    std::string dbPath;  // empty: stopped
    unsigned flags = ~0u;
};
inline EngineState& Running() {
    static EngineState state;
    return state;
}

inline void StopEngine() {
    if (!Running().dbPath.empty()) {
        engine_stop();
        Running() = EngineState();
    }
}

inline void UseDatabase(const std::string& dbPath, unsigned configFlags = 0) {
    if (Running().dbPath == dbPath && Running().flags == configFlags) {
        return;
    }
    StopEngine();
    ac_engine_start_s start;
    memset(&start, 0, sizeof(start));
    start.dbPath = dbPath.c_str();
    start.logMask = ZELK_LOG_ERROR | ZELK_LOG_WARNING;
    start.logCallback = &SilentLog;
    if (engine_start(&start) != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "engine_start failed for %s\n", dbPath.c_str());
        std::exit(3);
    }
    set_config(configFlags, 0, 0);
    Running().dbPath = dbPath;
    Running().flags = configFlags;
}

// A host event with owned texts.
struct HostEvent {
    std::string process = "/usr/bin/bash";
    std::string target;
    std::string user = "alice";
    std::string group = "staff";
    uint8_t sha256[32] = {};
    ac_wrapper_event_s raw;

    HostEvent() { memset(&raw, 0, sizeof(raw)); }
    ac_wrapper_event_s* Raw(uint32_t type, uint64_t size) {
        raw.eventType = type;
        raw.pid = 4242;
        raw.isexec = 1;
        raw.size = size;
        raw.processName = process.c_str();
        raw.name = target.c_str();
        raw.user = user.c_str();
        raw.group = group.c_str();
        raw.fileSha256 = sha256;
        return &raw;
    }
};

// Stores the event's target as a scanned, authorized item, so a program
// start of it is allowed and remembered in the allow cache.
inline void StoreScanned(const HostEvent& e, uint64_t size) {
    ac_db_item_s item;
    memset(&item, 0, sizeof(item));
    memcpy(item.sha256, e.sha256, 32);
    const size_t slash = e.target.rfind('/');
    const std::string dir = e.target.substr(0, slash + 1), file = e.target.substr(slash + 1);
    item.source = ZELK_SOURCE_SCANNED;
    item.fileName = file.c_str();
    item.path = dir.c_str();
    item.nativePath = e.target.c_str();
    item.size = size;
    item.authorized = 1;
    item.ruleset = "";
    store_item(&item, false);
}

// Deterministic digest of row `i`, so the inventory and the events agree.
inline void RowDigest(uint64_t i, uint8_t out[32]) {
    std::mt19937_64 rng(i * 0x9E3779B97F4A7C15ULL + 1);
    for (int k = 0; k < 32; k += 8) {
        uint64_t v = rng();
        memcpy(out + k, &v, 8);
    }
}
inline uint64_t RowSize(uint64_t i) {
    return 4096 + (i % 5000) * 16;
}
inline std::string RowPath(uint64_t i) {
    return "/opt/fleet/pkg" + std::to_string(i % 997) + "/bin/tool-" + std::to_string(i);
}

// A database with `rows` scanned, authorized inventory items (source 3),
// created by the engine and then filled in one transaction.  Kept in the
// scratch folder and reused while its row count is right.
inline std::string InventoryDb(uint64_t rows) {
    const std::string path = ScratchDir("inventory") + "/ac-" + std::to_string(rows) + ".db";
    sqlite3* db = nullptr;
    if (std::filesystem::exists(path) && sqlite3_open(path.c_str(), &db) == SQLITE_OK) {
        sqlite3_stmt* stmt = nullptr;
        int64_t have = -1;
        if (sqlite3_prepare_v2(db, "SELECT count(*) FROM InventoryItems", -1, &stmt, nullptr) ==
                SQLITE_OK &&
            sqlite3_step(stmt) == SQLITE_ROW) {
            have = sqlite3_column_int64(stmt, 0);
        }
        sqlite3_finalize(stmt);
        sqlite3_close(db);
        if (have == static_cast<int64_t>(rows)) {
            return path;
        }
    }
    std::filesystem::remove(path);
    UseDatabase(path);
    StopEngine();
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
        std::exit(3);
    }
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO InventoryItems(fileName, path, nativePath, sha256, size, "
                       "recordTime, isAuthorized, source, ruleset) VALUES(?,?,?,?,?,?,1,3,'')",
                       -1, &insert, nullptr);
    uint8_t sha[32];
    for (uint64_t i = 0; i < rows; ++i) {
        const std::string full = RowPath(i);
        const size_t slash = full.rfind('/');
        const std::string dir = full.substr(0, slash + 1), file = full.substr(slash + 1);
        RowDigest(i, sha);
        sqlite3_bind_text(insert, 1, file.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, dir.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 3, full.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_blob(insert, 4, sha, 32, SQLITE_TRANSIENT);
        sqlite3_bind_int64(insert, 5, static_cast<int64_t>(RowSize(i)));
        sqlite3_bind_int64(insert, 6, 1700000000000LL);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return path;
}

// `count` program-start events for rows spread over an inventory of `rows`,
// each with the row's path, digest and size.
inline std::vector<HostEvent> InventoryEvents(uint64_t rows, size_t count) {
    std::vector<HostEvent> events(count);
    std::mt19937_64 rng(rows);
    for (HostEvent& e : events) {
        const uint64_t row = rng() % rows;
        e.target = RowPath(row);
        RowDigest(row, e.sha256);
        e.raw.size = RowSize(row);
    }
    return events;
}

// The plainest lookup a store can make: one prepared SELECT by sha256 and
// size on its own read-only connection to `dbPath`, stepped and reset.  The
// unary plus keeps the planner on the digest index: without statistics it may
// otherwise walk the far less selective size index.
class PlainLookup {
  public:
    explicit PlainLookup(const std::string& dbPath) {
        sqlite3_open_v2(dbPath.c_str(), &m_Db, SQLITE_OPEN_READONLY, nullptr);
        sqlite3_prepare_v2(m_Db, "SELECT * FROM InventoryItems WHERE sha256 = ?1 AND +size = ?2",
                           -1, &m_Stmt, nullptr);
    }
    ~PlainLookup() {
        sqlite3_finalize(m_Stmt);
        sqlite3_close(m_Db);
    }
    PlainLookup(const PlainLookup&) = delete;
    PlainLookup& operator=(const PlainLookup&) = delete;
    // True when the row exists.
    bool Find(const uint8_t sha256[32], uint64_t size) {
        sqlite3_bind_blob(m_Stmt, 1, sha256, 32, SQLITE_STATIC);
        sqlite3_bind_int64(m_Stmt, 2, static_cast<int64_t>(size));
        const bool found = sqlite3_step(m_Stmt) == SQLITE_ROW;
        sqlite3_reset(m_Stmt);
        return found;
    }

  private:
    sqlite3* m_Db = nullptr;
    sqlite3_stmt* m_Stmt = nullptr;
};

// ---- Ratio report --------------------------------------------------------------

struct Ratio {
    std::string label;
    std::string caseName;      // benchmark name (without the repetition suffix)
    std::string baselineName;  // empty: the case's own metric is the figure
    std::string counter;       // empty: real time per iteration; else a counter
    double target;             // 0: report only
    bool higherIsBetter;
    // Wall-clock time instead of the thread's CPU time: anything that waits
    // for the disk (fsync) must be measured this way.
    bool wallTime = false;
};

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    explicit RatioReporter(std::vector<Ratio> ratios)
        : ConsoleReporter(OO_Tabular), m_Ratios(std::move(ratios)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) {
                continue;
            }
            m_Runs[run.benchmark_name()].push_back(run);
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        printf("\n%-58s %9s %9s %9s  %s\n", "figure", "min", "median", "max", "target");
        for (const Ratio& ratio : m_Ratios) {
            std::vector<double> values;
            const auto& cases = m_Runs[ratio.caseName];
            const auto& bases = m_Runs[ratio.baselineName];
            for (size_t i = 0; i < cases.size(); ++i) {
                if (ratio.baselineName.empty()) {
                    values.push_back(Metric(cases[i], ratio.counter, ratio.wallTime));
                } else if (i < bases.size()) {
                    values.push_back(Metric(cases[i], ratio.counter, ratio.wallTime) /
                                     Metric(bases[i], ratio.counter, ratio.wallTime));
                }
            }
            if (values.empty()) {
                printf("%-58s  (no runs of %s)\n", ratio.label.c_str(), ratio.caseName.c_str());
                continue;
            }
            std::sort(values.begin(), values.end());
            const double median =
                values.size() % 2 ? values[values.size() / 2]
                                  : (values[values.size() / 2 - 1] + values[values.size() / 2]) / 2;
            std::string verdict = "report";
            char target[32] = "-";
            if (ratio.target > 0) {
                const bool met =
                    ratio.higherIsBetter ? median >= ratio.target : median <= ratio.target;
                verdict = met ? "met" : "MISSED";
                snprintf(target, sizeof(target), "%s %.2f",
                         ratio.higherIsBetter ? ">=" : "<=", ratio.target);
            }
            printf("%-58s %9.3f %9.3f %9.3f  %s %s (n=%zu)\n", ratio.label.c_str(), values.front(),
                   median, values.back(), target, verdict.c_str(), values.size());
            // One machine-readable line per figure for scripts/run-bench.sh.
            fprintf(stderr, "ZELK_RATIO\t%s\t%.3f\t%.3f\t%.3f\t%s\t%s\t%zu\n", ratio.label.c_str(),
                    values.front(), median, values.back(), target, verdict.c_str(), values.size());
        }
        fflush(stdout);
    }

  private:
    static double Metric(const Run& run, const std::string& counter, bool wallTime) {
        if (counter.empty()) {
            return wallTime ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
        }
        auto it = run.counters.find(counter);
        return it == run.counters.end() ? 0.0 : static_cast<double>(it->second);
    }

    std::vector<Ratio> m_Ratios;
    std::map<std::string, std::vector<Run>> m_Runs;
};

// main() of every benchmark program: five interleaved repetitions unless the
// command line says otherwise, then the ratio table.
inline int RunWithRatios(int argc, char** argv, std::vector<Ratio> ratios) {
    std::vector<std::string> args(argv, argv + argc);
    auto has = [&](const char* flag) {
        return std::any_of(args.begin(), args.end(),
                           [&](const std::string& a) { return a.rfind(flag, 0) == 0; });
    };
    if (!has("--benchmark_repetitions")) {
        const char* reps = getenv("ZELK_BENCH_REPS");
        args.push_back(std::string("--benchmark_repetitions=") + (reps ? reps : "5"));
    }
    if (!has("--benchmark_enable_random_interleaving")) {
        args.push_back("--benchmark_enable_random_interleaving=true");
    }
    std::vector<char*> cargs;
    for (std::string& a : args) {
        cargs.push_back(a.data());
    }
    int cargc = static_cast<int>(cargs.size());
    benchmark::Initialize(&cargc, cargs.data());
    RatioReporter reporter(std::move(ratios));
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    StopEngine();
    return 0;
}

}  // namespace zelkbench

#endif  // ZELK_BENCH_BENCHUTIL_H_
