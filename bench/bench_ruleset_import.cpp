// set_ruleset_buffer of a hash ruleset with 100,000 rules replacing the copy
// imported before, against cJSON_Parse of the same text plus the same rows
// inserted with one prepared statement in one transaction, on the same
// database file.  Wall time: most of an import used to be waiting for fsync.
// Also: the baseline with synchronous=FULL (what every commit syncing costs),
// and one import of 1,000,000 rules with the process's peak resident memory.
#include <cjson/cJSON.h>
#include <sys/resource.h>

#include "BenchUtil.h"

namespace {

constexpr int kRules = 100000;

const std::string& Db() {
    static const std::string path = [] {
        std::string p = zelkbench::ScratchDir("ruleset-import") + "/ac.db";
        std::filesystem::remove(p);
        return p;
    }();
    return path;
}

const std::string& Document() {
    static const std::string doc = [] {
        static const char* digits = "0123456789abcdef";
        std::string d = "{\"rules\": [";
        uint8_t sha[32];
        for (int i = 0; i < kRules; ++i) {
            zelkbench::RowDigest(1000000 + i, sha);
            std::string hex;
            for (uint8_t b : sha) {
                hex += digits[b >> 4];
                hex += digits[b & 15];
            }
            d += i ? ",\n" : "\n";
            d += "{\"fileName\": \"tool-" + std::to_string(i) + "\", \"sha256\": \"" + hex +
                 "\", \"size\": " + std::to_string(zelkbench::RowSize(i)) + ", \"action\": \"" +
                 (i % 10 ? "allow" : "block") + "\"}";
        }
        return d + "]}";
    }();
    return doc;
}

int HexNibble(char c) {
    return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

void BM_Baseline_ParseAndInsert(benchmark::State& state) {
    zelkbench::UseDatabase(Db());
    sqlite3* db = nullptr;
    sqlite3_open(Db().c_str(), &db);
    sqlite3_busy_timeout(db, 5000);
    sqlite3_exec(db, state.range(0) ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO InventoryItems(fileName, path, nativePath, sha256, size, "
                       "recordTime, isAuthorized, source, ruleset) VALUES(?,'','',?,?,?,?,2,?)",
                       -1, &insert, nullptr);
    for (auto _ : state) {
        cJSON* root = cJSON_Parse(Document().c_str());
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
        const cJSON* rule = nullptr;
        cJSON_ArrayForEach(rule, cJSON_GetObjectItemCaseSensitive(root, "rules")) {
            const char* hex = cJSON_GetObjectItemCaseSensitive(rule, "sha256")->valuestring;
            uint8_t sha[32];
            for (int k = 0; k < 32; ++k) {
                sha[k] =
                    static_cast<uint8_t>(HexNibble(hex[2 * k]) << 4 | HexNibble(hex[2 * k + 1]));
            }
            const char* action = cJSON_GetObjectItemCaseSensitive(rule, "action")->valuestring;
            sqlite3_bind_text(insert, 1,
                              cJSON_GetObjectItemCaseSensitive(rule, "fileName")->valuestring, -1,
                              SQLITE_TRANSIENT);
            sqlite3_bind_blob(insert, 2, sha, 32, SQLITE_TRANSIENT);
            sqlite3_bind_int64(
                insert, 3,
                static_cast<int64_t>(cJSON_GetObjectItemCaseSensitive(rule, "size")->valuedouble));
            sqlite3_bind_int64(insert, 4, 1700000000000LL);
            sqlite3_bind_int(insert, 5, action[0] == 'a');
            sqlite3_bind_text(insert, 6, "bench-ruleset", -1, SQLITE_STATIC);
            sqlite3_step(insert);
            sqlite3_reset(insert);
        }
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        cJSON_Delete(root);
        state.PauseTiming();
        sqlite3_exec(db, "DELETE FROM InventoryItems WHERE source = 2", nullptr, nullptr, nullptr);
        state.ResumeTiming();
    }
    sqlite3_finalize(insert);
    sqlite3_close(db);
}

void BM_SetRulesetBuffer(benchmark::State& state) {
    zelkbench::UseDatabase(Db());
    // Each import replaces the copy the one before left.
    if (set_ruleset_buffer(false, Document().c_str(), "bench-ruleset") != ZELK_STATUS_SUCCESS) {
        state.SkipWithError("import failed");
        return;
    }
    for (auto _ : state) {
        if (set_ruleset_buffer(false, Document().c_str(), "bench-ruleset") != ZELK_STATUS_SUCCESS) {
            state.SkipWithError("import failed");
            break;
        }
    }
    purge_db(ZELK_SOURCE_EXECUTION_RULES);  // after the loop: not timed
}

// One import of a million rules; reported in seconds with the peak resident
// memory of the process (which includes the 100,000-rule document).
void BM_SetRulesetBuffer_Million(benchmark::State& state) {
    static const std::string million = [] {
        static const char* digits = "0123456789abcdef";
        std::string d = "{\"rules\": [";
        uint8_t sha[32];
        for (int i = 0; i < 1000000; ++i) {
            zelkbench::RowDigest(5000000 + i, sha);
            std::string hex;
            for (uint8_t b : sha) {
                hex += digits[b >> 4];
                hex += digits[b & 15];
            }
            d += i ? ",\n" : "\n";
            d += "{\"sha256\": \"" + hex + "\", \"size\": " + std::to_string(i + 1) +
                 ", \"action\": \"allow\"}";
        }
        return d + "]}";
    }();
    zelkbench::UseDatabase(Db());
    for (auto _ : state) {
        if (set_ruleset_buffer(false, million.c_str(), "million") != ZELK_STATUS_SUCCESS) {
            state.SkipWithError("import failed");
            break;
        }
    }
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["peak_rss_mb"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
    purge_db(ZELK_SOURCE_EXECUTION_RULES);  // after the loop: not timed
}

BENCHMARK(BM_Baseline_ParseAndInsert)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SetRulesetBuffer)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SetRulesetBuffer_Million)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    Document();
    zelkbench::UseDatabase(Db());
    return zelkbench::RunWithRatios(
        argc, argv,
        {{"set_ruleset_buffer 100k rules (replacing) / parse + insert, wall",
          "BM_SetRulesetBuffer/real_time", "BM_Baseline_ParseAndInsert/0/real_time", "", 1.5, false,
          true},
         {"parse + insert, synchronous=FULL / NORMAL, wall",
          "BM_Baseline_ParseAndInsert/1/real_time", "BM_Baseline_ParseAndInsert/0/real_time", "", 0,
          false, true},
         {"set_ruleset_buffer 1,000,000 rules, ms (wall)",
          "BM_SetRulesetBuffer_Million/iterations:1/real_time", "", "", 0, false, true},
         {"set_ruleset_buffer 1,000,000 rules, peak RSS MB",
          "BM_SetRulesetBuffer_Million/iterations:1/real_time", "", "peak_rss_mb", 0, false,
          true}});
}
