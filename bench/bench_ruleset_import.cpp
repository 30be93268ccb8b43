// set_ruleset_buffer of a hash ruleset with 100,000 rules, against cJSON_Parse
// of the same text plus the same rows inserted with one prepared statement in
// one transaction, on the same database file.
#include <cjson/cJSON.h>

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
    for (auto _ : state) {
        if (set_ruleset_buffer(false, Document().c_str(), "bench-ruleset") != ZELK_STATUS_SUCCESS) {
            state.SkipWithError("import failed");
            break;
        }
        state.PauseTiming();
        purge_db(ZELK_SOURCE_EXECUTION_RULES);
        state.ResumeTiming();
    }
}

BENCHMARK(BM_Baseline_ParseAndInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SetRulesetBuffer)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    Document();
    zelkbench::UseDatabase(Db());
    return zelkbench::RunWithRatios(
        argc, argv,
        {{"set_ruleset_buffer 100k rules / parse + insert", "BM_SetRulesetBuffer",
          "BM_Baseline_ParseAndInsert", "", 1.5, false}});
}
