// Behaviour held to the letter, through the C interface on a real database:
// the function names that log records carry, how digest and number texts of
// ruleset documents are read, the deletion counter, the database path while
// the store is open, when the rule summaries are refreshed, and what Finalize
// says about holders that are not set.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELKDataAccessLayer.h"
#include "zelk.h"

namespace {

using zelktest::LogCapture;
using zelktest::LogRecord;

std::vector<LogRecord> Take() {
    std::vector<LogRecord> records = LogCapture::Get().Records();
    LogCapture::Get().Clear();
    return records;
}

// The functions that logged `message` (exactly) among `records`.
std::set<std::string> Loggers(const std::vector<LogRecord>& records, const std::string& message) {
    std::set<std::string> functions;
    for (const LogRecord& r : records) {
        if (r.message == message) {
            functions.insert(r.function);
        }
    }
    return functions;
}

// No record may carry the name of a lambda instead of a function.
void ExpectNamedFunctions(const std::vector<LogRecord>& records, const char* call) {
    for (const LogRecord& r : records) {
        EXPECT_NE(r.function, "operator()") << call << ": " << r.message;
        EXPECT_FALSE(r.function.empty()) << call << ": " << r.message;
    }
}

TEST(Exactness, EveryExportedFunctionLogsUnderItsOwnName) {
    const std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(db);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    ExpectNamedFunctions(Take(), "engine_start");

    ASSERT_EQ(set_config(0x01, 0, 0), ZELK_STATUS_SUCCESS);
    std::vector<LogRecord> records = Take();
    ExpectNamedFunctions(records, "set_config");
    EXPECT_EQ(Loggers(records, "Setting LOCKDOWN"), std::set<std::string>{"set_config"});

    const std::string sha(64, 'b');
    const std::string ruleset =
        "{\"rules\":[{\"sha256\":\"" + sha + "\",\"size\":4,\"action\":\"block\"}]}";
    ASSERT_EQ(set_ruleset_buffer(false, "{\"rules\":[]}", "agent_manifest"), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(set_ruleset_buffer(false, ruleset.c_str(), "Weekly"), ZELK_STATUS_SUCCESS);
    records = Take();
    ExpectNamedFunctions(records, "set_ruleset_buffer");
    EXPECT_EQ(Loggers(records, "Importing item ruleset into db: Weekly"),
              std::set<std::string>{"ImportRulesetBuffer"});

    const std::string rulesetFile = dir + "/weekly.json";
    zelktest::WriteFile(rulesetFile, ruleset);
    ASSERT_EQ(set_ruleset(false, rulesetFile.c_str(), "Weekly"), ZELK_STATUS_SUCCESS);
    ExpectNamedFunctions(Take(), "set_ruleset");

    const std::string target = dir + "/blocked";
    zelktest::WriteFile(target, "body");
    uint8_t digest[32];
    memset(digest, 0xbb, sizeof(digest));
    ac_wrapper_event_s event = zelktest::ExecEvent(target, digest);
    ac_wrapper_response_s response;
    EXPECT_EQ(app_ctl(&event, &response), ZELK_STATUS_BLOCKED);
    records = Take();
    ExpectNamedFunctions(records, "app_ctl");
    EXPECT_EQ(Loggers(records, "Blocking event: '" + target + "'"),
              std::set<std::string>{"app_ctl"});

    unsigned size = 0;
    get_metrics_mem(nullptr, &size);
    std::vector<char> buffer(size);
    EXPECT_EQ(get_metrics_mem(buffer.data(), &size), ZELK_STATUS_SUCCESS);
    ExpectNamedFunctions(Take(), "get_metrics_mem");

    ac_db_item_s item;
    memset(&item, 0, sizeof(item));
    item.fileName = "x";
    item.path = "/opt/";
    item.nativePath = "/opt/x";
    item.ruleset = "";
    item.source = ZELK_SOURCE_SCANNED;
    item.sha256[0] = 1;
    EXPECT_EQ(store_item(&item, true), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(flush_db_buffer(), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(get_inventory(0, 0, 0, (dir + "/inventory.json").c_str(), ""), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(set_loglevel(15), ZELK_STATUS_SUCCESS);
    ExpectNamedFunctions(Take(), "store_item, flush_db_buffer, get_inventory, set_loglevel");

    EXPECT_EQ(purge_db(3), ZELK_STATUS_SUCCESS);
    records = Take();
    ExpectNamedFunctions(records, "purge_db");
    EXPECT_EQ(Loggers(records, "executing DELETE FROM InventoryItems WHERE source = 3;"),
              std::set<std::string>{"PurgeDB"});
    EXPECT_EQ(Loggers(records, "Vacuuming"), std::set<std::string>{"PurgeDB"});

    EXPECT_EQ(delete_db(), ZELK_STATUS_SUCCESS);
    ExpectNamedFunctions(Take(), "delete_db");

    EXPECT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    records = Take();
    ExpectNamedFunctions(records, "engine_stop");
    EXPECT_EQ(Loggers(records, "Engine Stop"), std::set<std::string>{"engine_stop"});
    EXPECT_EQ(Loggers(records, "Shutting down DAL for AC Engine"),
              std::set<std::string>{"engine_stop"});
}

}  // namespace

namespace {

long Counter(const char* key) {
    unsigned size = 0;
    get_metrics_mem(nullptr, &size);
    std::vector<char> buffer(size);
    EXPECT_EQ(get_metrics_mem(buffer.data(), &size), ZELK_STATUS_SUCCESS);
    cJSON* doc = cJSON_Parse(buffer.data());
    const cJSON* metrics = cJSON_GetObjectItemCaseSensitive(doc, "metrics");
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(metrics, key);
    const long value = cJSON_IsNumber(item) ? static_cast<long>(item->valuedouble) : -1;
    cJSON_Delete(doc);
    return value;
}

TEST(Exactness, DeletionCounterIsReadAndSetEvenForNoRows) {
    const std::string db = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(db);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Counter("TotalDeletedEvents"), -1) << "no key before the first deletion";
    ac_event event;
    event.path = "/opt/app/";
    event.fileName = "tool";
    ASSERT_TRUE(ZELKDAL::GetDAL().DeleteInventoryItems(event));
    EXPECT_EQ(Counter("TotalDeletedEvents"), 0) << "a deletion of no rows creates the key";
    {
        zelktest::Db handle(db);
        for (const char* source : {"3", "4", "4", "2"}) {
            handle.Exec(std::string("INSERT INTO InventoryItems(fileName, path, source) VALUES("
                                    "'tool', '/opt/app/', ") +
                        source + ");");
        }
    }
    ASSERT_TRUE(ZELKDAL::GetDAL().DeleteInventoryItems(event));
    EXPECT_EQ(Counter("TotalDeletedEvents"), 3);
    engine_stop();
}

TEST(Exactness, FinalizeReportsUnsetHoldersAsIgnored) {
    const std::string db = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(db);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(delete_db(), ZELK_STATUS_SUCCESS);
    LogCapture::Get().Clear();
    // The store is closed: every holder is unset, and none is the only owner.
    EXPECT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    const std::vector<LogRecord> records = Take();
    size_t ignored = 0;
    for (const LogRecord& r : records) {
        if (r.message.rfind("ignore Finalize ", 0) == 0) {
            EXPECT_EQ(r.level, ZELK_LOG_ERROR) << r.message;
            ++ignored;
        }
        EXPECT_NE(r.message.rfind("Finalize ", 0), 0u) << "nothing was released: " << r.message;
    }
    EXPECT_EQ(ignored, 22u);  // twenty-one statements and m_DB
    EXPECT_EQ(Loggers(records, "ignore Finalize m_DB"), std::set<std::string>{"Finalize"});
}

}  // namespace
