// Inventory export (get_inventory) and the database sections of the metrics
// document (get_metrics_mem), on a real database file filled through a second
// connection.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "zelk.h"

namespace fs = std::filesystem;
using zelktest::Db;

namespace {

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

Json ParseFile(const std::string& path) {
    Json json(cJSON_Parse(zelktest::ReadFile(path).c_str()));
    EXPECT_TRUE(json) << path;
    return json;
}

double Number(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    EXPECT_TRUE(cJSON_IsNumber(item)) << key;
    return item != nullptr ? item->valuedouble : -1;
}

std::string Text(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    EXPECT_TRUE(cJSON_IsString(item)) << key;
    return cJSON_IsString(item) ? item->valuestring : "";
}

std::vector<std::string> Keys(const cJSON* object) {
    std::vector<std::string> keys;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, object) {
        keys.push_back(item->string);
    }
    return keys;
}

std::string StartInScratch() {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(path);
    EXPECT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    return path;
}

// 2,500 inventory rows: sources cycle 1..4, every other row lacks an MD5.
void FillInventory(const std::string& path) {
    Db db(path);
    db.Exec(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2500) "
        "INSERT INTO InventoryItems(fileName, path, sha256, md5, size, recordTime, isAuthorized, "
        "source, ruleset) SELECT 'f' || i, '/opt/', randomblob(32), CASE WHEN i % 2 = 0 THEN "
        "randomblob(16) END, i, 1700000000000 + i, 1, i % 4 + 1, '' FROM n;");
}

Json Metrics() {
    unsigned size = 0;
    EXPECT_EQ(get_metrics_mem(nullptr, &size), ZELK_STATUS_BUFFER_SMALL);
    std::vector<char> buffer(size);
    EXPECT_EQ(get_metrics_mem(buffer.data(), &size), ZELK_STATUS_SUCCESS);
    Json json(cJSON_Parse(buffer.data()));
    EXPECT_TRUE(json);
    return json;
}

}  // namespace

TEST(DalExport, InventoryPagesWithoutLossOrRepeat) {
    std::string path = StartInScratch();
    FillInventory(path);
    const std::string out = fs::path(path).parent_path() / "items.json";

    std::set<long long> seen;
    std::vector<int> pageSizes;
    unsigned long from = 0;
    for (int page = 0; page < 10; ++page) {
        ASSERT_EQ(get_inventory(from, 1000, 0, out.c_str(), ""), ZELK_STATUS_SUCCESS);
        Json doc = ParseFile(out);
        ASSERT_TRUE(doc);
        const cJSON* items = cJSON_GetObjectItemCaseSensitive(doc.get(), "items");
        ASSERT_TRUE(cJSON_IsArray(items));
        const int count = static_cast<int>(Number(doc.get(), "count"));
        EXPECT_EQ(count, cJSON_GetArraySize(items));
        pageSizes.push_back(count);
        long long previous = static_cast<long long>(from);
        const cJSON* row = nullptr;
        cJSON_ArrayForEach(row, items) {
            long long id = static_cast<long long>(Number(row, "inventoryItemId"));
            EXPECT_GT(id, previous) << "ascending ids";
            previous = id;
            EXPECT_TRUE(seen.insert(id).second) << "repeated id " << id;
        }
        EXPECT_EQ(static_cast<long long>(Number(doc.get(), "lastId")), previous);
        from = static_cast<unsigned long>(previous);
        if (count == 0) {
            break;
        }
    }
    EXPECT_EQ(pageSizes, (std::vector<int>{1000, 1000, 500, 0}));
    ASSERT_EQ(seen.size(), 2500u);
    EXPECT_EQ(*seen.begin(), 1);
    EXPECT_EQ(*seen.rbegin(), 2500);

    // One row in full: every column by name, digests as lowercase hex, NULL
    // columns left out; only the paging parameters narrow the rows.
    ASSERT_EQ(get_inventory(1, 2, 0, out.c_str(), nullptr), ZELK_STATUS_SUCCESS);
    Json doc = ParseFile(out);
    const cJSON* items = cJSON_GetObjectItemCaseSensitive(doc.get(), "items");
    ASSERT_EQ(cJSON_GetArraySize(items), 2);
    const cJSON* even = cJSON_GetArrayItem(items, 0);  // id 2: has an MD5
    const cJSON* odd = cJSON_GetArrayItem(items, 1);   // id 3: none
    EXPECT_EQ(Keys(even), (std::vector<std::string>{"inventoryItemId", "fileName", "path", "md5",
                                                    "sha256", "size", "recordTime", "isAuthorized",
                                                    "source", "ruleset"}));
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(odd, "md5"), nullptr);
    Db db(path);
    EXPECT_EQ(Text(even, "sha256"),
              db.Text("SELECT lower(hex(sha256)) FROM InventoryItems WHERE inventoryItemId = 2;"));
    EXPECT_EQ(Text(even, "md5").size(), 32u);
    EXPECT_EQ(Text(even, "fileName"), "f2");
    EXPECT_EQ(Number(even, "recordTime"), 1700000000002.0);
    EXPECT_EQ(Number(doc.get(), "lastId"), 3);

    // Source filter, no limit.
    ASSERT_EQ(get_inventory(0, 0, 3, out.c_str(), "Items"), ZELK_STATUS_SUCCESS);
    doc = ParseFile(out);
    EXPECT_EQ(Number(doc.get(), "count"), 625);
    const cJSON* row = nullptr;
    cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(doc.get(), "items")) {
        EXPECT_EQ(Number(row, "source"), 3);
    }

    // After a rebuild the host never gets rows up to the previous maximum.
    config.SetPreviousMaxInventoryItemId(2400);
    ASSERT_EQ(get_inventory(0, 0, 0, out.c_str(), ""), ZELK_STATUS_SUCCESS);
    doc = ParseFile(out);
    EXPECT_EQ(Number(doc.get(), "count"), 100);
    EXPECT_EQ(Number(cJSON_GetArrayItem(cJSON_GetObjectItemCaseSensitive(doc.get(), "items"), 0),
                     "inventoryItemId"),
              2401);
}

TEST(DalExport, TrustRulesAndFailuresLeaveNothingBehind) {
    std::string path = StartInScratch();
    const fs::path dir = fs::path(path).parent_path();
    {
        Db db(path);
        db.Exec(
            "INSERT INTO TrustRules(processName, paths, trustType, sha256, procUser) "
            "VALUES('/usr/bin/*', '/opt/*', 2, x'00FFA0', 'root');");
        db.Exec("INSERT INTO TrustRules(trustType) VALUES(3);");
    }
    const std::string out = (dir / "rules.json").string();
    ASSERT_EQ(get_inventory(0, 0, 0, out.c_str(), "tRuStRuLeS"), ZELK_STATUS_SUCCESS);
    Json doc = ParseFile(out);
    const cJSON* items = cJSON_GetObjectItemCaseSensitive(doc.get(), "items");
    ASSERT_EQ(cJSON_GetArraySize(items), 2);
    const cJSON* first = cJSON_GetArrayItem(items, 0);
    EXPECT_EQ(Text(first, "processName"), "/usr/bin/*");
    EXPECT_EQ(Text(first, "sha256"), "00ffa0");
    EXPECT_EQ(Text(first, "procUser"), "root");
    EXPECT_EQ(Number(first, "hitcount"), 0);
    EXPECT_EQ(Keys(cJSON_GetArrayItem(items, 1)),
              (std::vector<std::string>{"trustRuleId", "trustType", "hitcount"}));
    EXPECT_EQ(Number(doc.get(), "lastId"), 2);

    auto entries = [&]() {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir)) {
            names.insert(entry.path().filename().string());
        }
        return names;
    };
    const std::set<std::string> before = entries();

    // A folder that does not exist, a target that is a folder, no path.
    EXPECT_EQ(get_inventory(0, 0, 0, (dir / "missing" / "x.json").c_str(), ""),
              ZELK_STATUS_FAILURE);
    fs::create_directory(dir / "taken");
    EXPECT_EQ(get_inventory(0, 0, 0, (dir / "taken").c_str(), ""), ZELK_STATUS_FAILURE);
    EXPECT_EQ(get_inventory(0, 0, 0, nullptr, ""), ZELK_STATUS_BAD_PATH);
    std::set<std::string> expected = before;
    expected.insert("taken");
    EXPECT_EQ(entries(), expected);
    EXPECT_TRUE(fs::is_empty(dir / "taken"));

    // A closed store fails and keeps the previous export intact.
    const std::string previous = zelktest::ReadFile(out);
    ZELKDAL::GetDAL().Finalize();
    EXPECT_EQ(get_inventory(0, 0, 0, out.c_str(), "TrustRules"), ZELK_STATUS_FAILURE);
    EXPECT_EQ(zelktest::ReadFile(out), previous);
    EXPECT_EQ(entries(), expected);
}

TEST(DalExport, MetricsDocumentHasDatabaseSections) {
    std::string path = StartInScratch();
    {
        Db db(path);
        auto item = [&](int source, const char* ruleset) {
            db.Exec(std::string("INSERT INTO InventoryItems(sha256, size, isAuthorized, source, "
                                "ruleset) VALUES(randomblob(32), 1, 1, ") +
                    std::to_string(source) + ", '" + ruleset + "');");
        };
        for (int i = 0; i < 3; ++i) {
            item(2, "Weekly");
        }
        item(2, "Daily");
        item(1, "Agent");
        item(3, "");
        item(3, "");
        item(4, "");
        db.Exec(
            "INSERT INTO TrustRules(processName, trustType, sha256, hitcount, procGroup) "
            "VALUES('/bin/busy', 2, x'ABCD', 7, 'wheel');");
        db.Exec(
            "INSERT INTO TrustRules(processName, trustType, hitcount) VALUES('/bin/idle', 2, "
            "0);");
        db.Exec("INSERT INTO TrustRules(trustType, userList) VALUES(1, 'admins');");
    }
    Json doc = Metrics();
    const cJSON* metrics = cJSON_GetObjectItemCaseSensitive(doc.get(), "metrics");
    const cJSON* stats = cJSON_GetObjectItemCaseSensitive(metrics, "trustrules_stats");
    ASSERT_EQ(cJSON_GetArraySize(stats), 1) << "only rules that matched at least once";
    const cJSON* busy = cJSON_GetArrayItem(stats, 0);
    EXPECT_EQ(Text(busy, "processName"), "/bin/busy");
    EXPECT_EQ(Number(busy, "hitcount"), 7);
    EXPECT_EQ(Number(busy, "trustType"), 2);
    EXPECT_EQ(Text(busy, "sha256"), "abcd");
    EXPECT_EQ(Text(busy, "procGroup"), "wheel");
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(busy, "signerName"), nullptr);

    const cJSON* dbInfo = cJSON_GetObjectItemCaseSensitive(metrics, "dbinfo");
    EXPECT_EQ(Keys(dbInfo),
              (std::vector<std::string>{"totalInventoryItems", "agentRules", "executionRules",
                                        "scannedItems", "approvedDrift", "totalTrustRules",
                                        "totalUserGroupTrustRules", "rulesets", "dbSize"}));
    EXPECT_EQ(Number(dbInfo, "totalInventoryItems"), 8);
    EXPECT_EQ(Number(dbInfo, "agentRules"), 1);
    EXPECT_EQ(Number(dbInfo, "executionRules"), 4);
    EXPECT_EQ(Number(dbInfo, "scannedItems"), 2);
    EXPECT_EQ(Number(dbInfo, "approvedDrift"), 1);
    EXPECT_EQ(Number(dbInfo, "totalTrustRules"), 3);
    EXPECT_EQ(Number(dbInfo, "totalUserGroupTrustRules"), 2);
    const cJSON* rulesets = cJSON_GetObjectItemCaseSensitive(dbInfo, "rulesets");
    EXPECT_EQ(Keys(rulesets).size(), 3u);
    EXPECT_EQ(Number(cJSON_GetObjectItemCaseSensitive(rulesets, "Weekly"), "totalRules"), 3);
    EXPECT_EQ(Number(cJSON_GetObjectItemCaseSensitive(rulesets, "Daily"), "totalRules"), 1);
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(Number(dbInfo, "dbSize"), static_cast<double>(info.st_size));

    // The rule list is capped at 100 entries.
    {
        Db db(path);
        db.Exec(
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 150) "
            "INSERT INTO TrustRules(processName, trustType, hitcount) SELECT '/bin/p' || i, "
            "2, 1 FROM n;");
    }
    doc = Metrics();
    metrics = cJSON_GetObjectItemCaseSensitive(doc.get(), "metrics");
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItemCaseSensitive(metrics, "trustrules_stats")),
              100);

    // A closed store leaves both sections empty and the document intact.
    ZELKDAL::GetDAL().Finalize();
    doc = Metrics();
    metrics = cJSON_GetObjectItemCaseSensitive(doc.get(), "metrics");
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItemCaseSensitive(metrics, "trustrules_stats")), 0);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItemCaseSensitive(metrics, "dbinfo")), 0);
}
