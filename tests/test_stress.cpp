// Concurrency stress through the C interface: hosts threads deciding events
// while rulesets are re-imported, items stored, metrics read and the
// inventory exported, all at once.  Bounded by counts, never by the clock.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "zelk.h"

namespace {

constexpr int kEventThreads = 4;
constexpr int kEventsPerThread = 1500;
constexpr int kImports = 40;
constexpr int kItems = 1200;

// Program i's digest is a0+i followed by zero bytes.
std::string Rule(int i, bool allow) {
    return "{\"sha256\":\"a" + std::to_string(i) + std::string(62, '0') +
           "\",\"size\":4,\"action\":\"" + (allow ? "allow" : "block") + "\"}";
}

long Metric(cJSON* metrics, const char* key) {
    cJSON* item = cJSON_GetObjectItemCaseSensitive(metrics, key);
    return cJSON_IsNumber(item) ? static_cast<long>(item->valuedouble) : 0;
}

}  // namespace

// Files: A is allowed and B blocked by every ruleset version; C is allowed by
// even versions and blocked by odd ones.  The importer makes `generation` odd
// while an import runs and even once it is done, so an event whose decision
// started and ended in the same even generation must follow that version.
TEST(Stress, ConcurrentMixedWorkloadKeepsStoreAndPolicyConsistent) {
    const std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(db, ZELK_LOG_ERROR);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);
    zelktest::LogCapture::Get().Clear();  // a new database logs its schema size as an error

    std::string paths[3];
    uint8_t shas[3][32] = {};
    for (int k = 0; k < 3; ++k) {
        paths[k] = dir + "/bin" + std::to_string(k);
        zelktest::WriteFile(paths[k], "body");
        shas[k][0] = static_cast<uint8_t>(0xa0 + k);
    }
    auto ruleset = [&](long version) {
        return "{\"rules\":[" + Rule(0, true) + "," + Rule(1, false) + "," +
               Rule(2, version % 2 == 0) + "]}";
    };
    ASSERT_EQ(set_ruleset_buffer(false, ruleset(0).c_str(), "Weekly"), ZELK_STATUS_SUCCESS);

    std::atomic<long> generation{0};
    std::atomic<int> eventThreadsLeft{kEventThreads};
    std::atomic<int> contradictions{0}, decisions{0}, execs{0}, mmaps{0};
    std::atomic<int> importFailures{0}, storeFailures{0}, metricsFailures{0}, exportFailures{0};
    std::vector<std::thread> threads;

    for (int t = 0; t < kEventThreads; ++t) {
        threads.emplace_back([&, t] {
            static const uint32_t kTypes[] = {ZELK_EVENT_EXEC_PRE, ZELK_EVENT_CACHED,
                                              ZELK_EVENT_MMAP_PRE};
            for (int i = 0; i < kEventsPerThread; ++i) {
                const int k = (i + t) % 3;
                const uint32_t type = kTypes[(i / 3 + t) % 3];
                ac_wrapper_event_s e = zelktest::EmptyEvent();
                e.eventType = type;
                e.pid = 2000 + t;
                e.processName = "/usr/bin/bash";
                e.name = paths[k].c_str();
                e.user = "alice";
                e.group = "staff";
                e.isexec = 1;
                e.mode = e.size = 4;
                e.fileSha256 = shas[k];
                ac_wrapper_response_s r;
                const long before = generation.load();
                const uint32_t status = app_ctl(&e, &r);
                execs += type == ZELK_EVENT_EXEC_PRE;
                mmaps += type == ZELK_EVENT_MMAP_PRE;
                if (generation.load() != before || before % 2 != 0) {
                    continue;  // an import overlapped the decision
                }
                ++decisions;
                const bool allowed = k == 0 || (k == 2 && (before / 2) % 2 == 0);
                // A cached lookup may decline, but must never allow what the
                // policy in force blocks.
                contradictions += type == ZELK_EVENT_CACHED
                                      ? !allowed && r.action == ZELK_ACTION_ALLOW
                                      : allowed != (r.action == ZELK_ACTION_ALLOW) ||
                                            (status == ZELK_STATUS_BLOCKED) == allowed;
            }
            --eventThreadsLeft;
        });
    }
    threads.emplace_back([&] {
        for (long v = 1; v <= kImports; ++v) {
            // Let some decisions run under each version before the next.
            const int target = decisions.load() + 40;
            while (decisions.load() < target && eventThreadsLeft.load() > 0) {
                std::this_thread::yield();
            }
            ++generation;
            importFailures += set_ruleset_buffer(false, ruleset(v).c_str(), "Weekly") != 0;
            ++generation;
            // An unrelated incremental document between versions.
            importFailures +=
                set_ruleset_buffer(true,
                                   "{\"Trustrules\":[{\"trustType\":3,\"paths\":\"/nowhere/**\"}]}",
                                   "StressTrustRules") != 0;
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < kItems; ++i) {
            ac_db_item_s item{};
            item.sha256[0] = 0x11;
            memcpy(item.sha256 + 1, &i, sizeof(i));
            item.source = ZELK_SOURCE_SCANNED;
            item.fileName = "item";
            item.path = item.nativePath = "/opt/stress/";
            item.ruleset = "";
            item.size = 7;
            item.authorized = 1;
            storeFailures += store_item(&item, i % 2 == 0) != 0;
            if (i % 100 == 99) {
                // Reports failure when the imports' flushes emptied the queue.
                flush_db_buffer();
            }
        }
        flush_db_buffer();
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 100000 && eventThreadsLeft.load() > 0; ++i) {
            unsigned size = 0;
            get_metrics_mem(nullptr, &size);
            std::vector<char> buffer(size + 256);  // room for counters that grow meanwhile
            size = static_cast<unsigned>(buffer.size());
            cJSON* doc =
                get_metrics_mem(buffer.data(), &size) == 0 ? cJSON_Parse(buffer.data()) : nullptr;
            metricsFailures += doc == nullptr;
            cJSON_Delete(doc);
        }
    });
    threads.emplace_back([&] {
        const std::string out = dir + "/inventory.json";
        for (int i = 0; i < 100000 && eventThreadsLeft.load() > 0; ++i) {
            exportFailures += get_inventory(0, 500, i % 4, out.c_str(), "") != 0;
        }
    });
    for (std::thread& t : threads) {
        t.join();
    }

    EXPECT_EQ(contradictions.load(), 0) << "of " << decisions.load() << " checked decisions";
    // The importer lets 40 decisions run before its first import, so at least
    // those were checked however slow the machine; more depends on timing.
    EXPECT_GE(decisions.load(), 40);
    EXPECT_EQ(importFailures.load(), 0);
    EXPECT_EQ(storeFailures.load(), 0);
    for (const zelktest::LogRecord& r : zelktest::LogCapture::Get().Records()) {
        ADD_FAILURE() << "logged: " << r.message;
    }
    EXPECT_EQ(metricsFailures.load(), 0);
    EXPECT_EQ(exportFailures.load(), 0);

    unsigned size = 1 << 20;
    std::vector<char> buffer(size);
    ASSERT_EQ(get_metrics_mem(buffer.data(), &size), ZELK_STATUS_SUCCESS);
    cJSON* doc = cJSON_Parse(buffer.data());
    cJSON* metrics = cJSON_GetObjectItemCaseSensitive(doc, "metrics");
    EXPECT_EQ(Metric(metrics, "RunProgram"), execs.load());
    // Every program start and mapping ends in exactly one of these.
    EXPECT_EQ(Metric(metrics, "RunAllowedRule") + Metric(metrics, "RunBlockedRule") +
                  Metric(metrics, "RunAllowedLogOnly") + Metric(metrics, "RunBlockedLockdown"),
              execs.load() + mmaps.load());
    cJSON_Delete(doc);
    ASSERT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);

    zelktest::Db check(db);
    EXPECT_EQ(check.Text("PRAGMA integrity_check;"), "ok");
    EXPECT_EQ(check.Int("SELECT count(*) FROM InventoryItems WHERE source = 3;"), kItems);
    EXPECT_EQ(check.Int("SELECT count(*) FROM InventoryItems WHERE source = 2;"), 3);
    EXPECT_EQ(check.Int("SELECT count(*) FROM TrustRules;"), kImports);
}
