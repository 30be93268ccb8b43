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

const cJSON* At(const cJSON* object, const char* key) {
    return cJSON_GetObjectItemCaseSensitive(object, key);
}

// Compact JSON text of a value ("" when missing), so whole rows compare at once.
std::string Print(const cJSON* item) {
    char* text = item != nullptr ? cJSON_PrintUnformatted(item) : nullptr;
    std::string out = text != nullptr ? text : "";
    cJSON_free(text);
    return out;
}

Json Export(unsigned long from, unsigned long limit, unsigned source, const std::string& out,
            const char* kind) {
    EXPECT_EQ(get_inventory(from, limit, source, out.c_str(), kind), ZELK_STATUS_SUCCESS);
    Json json(cJSON_Parse(zelktest::ReadFile(out).c_str()));
    EXPECT_TRUE(json) << out;
    return json;
}

std::string StartInScratch() {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(path);
    EXPECT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    return path;
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
    Db db(path);
    // 2,500 rows: sources cycle 1..4, every other row lacks an MD5.
    db.Exec(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2500) "
        "INSERT INTO InventoryItems(fileName, path, sha256, md5, size, recordTime, "
        "isAuthorized, source, ruleset) SELECT 'f' || i, '/opt/', randomblob(32), CASE WHEN "
        "i % 2 = 0 THEN randomblob(16) END, i, 1700000000000 + i, 1, i % 4 + 1, '' FROM n;");
    const std::string out = fs::path(path).parent_path() / "items.json";

    std::set<int> seen;
    std::vector<int> pageSizes;
    int from = 0;
    do {
        Json doc = Export(from, 1000, 0, out, "");
        ASSERT_TRUE(doc);
        const cJSON* items = At(doc.get(), "items");
        pageSizes.push_back(cJSON_GetArraySize(items));
        EXPECT_EQ(At(doc.get(), "count")->valueint, pageSizes.back());
        const cJSON* row = nullptr;
        cJSON_ArrayForEach(row, items) {
            int id = At(row, "inventoryItemId")->valueint;
            EXPECT_GT(id, from) << "ascending ids";
            EXPECT_TRUE(seen.insert(id).second) << "repeated id " << id;
            from = id;
        }
        EXPECT_EQ(At(doc.get(), "lastId")->valueint, from);
    } while (pageSizes.back() != 0 && pageSizes.size() < 10);
    EXPECT_EQ(pageSizes, (std::vector<int>{1000, 1000, 500, 0}));
    ASSERT_EQ(seen.size(), 2500u);
    EXPECT_EQ(*seen.rbegin(), 2500);

    // Every column by name, digests as lowercase hex, NULL columns left out;
    // only the paging parameters narrow the rows.
    Json doc = Export(1, 2, 0, out, nullptr);
    const std::string sha = db.Text(
        "SELECT lower(hex(sha256)) FROM InventoryItems WHERE "
        "inventoryItemId = 3;");
    EXPECT_EQ(
        Print(cJSON_GetArrayItem(At(doc.get(), "items"), 1)),
        R"({"inventoryItemId":3,"fileName":"f3","path":"/opt/","sha256":")" + sha +
            R"(","size":3,"recordTime":1700000000003,"isAuthorized":1,"source":4,"ruleset":""})");
    EXPECT_EQ(Print(At(cJSON_GetArrayItem(At(doc.get(), "items"), 0), "md5")).size(), 34u);
    EXPECT_EQ(At(doc.get(), "lastId")->valueint, 3);

    // Source filter, no limit.
    doc = Export(0, 0, 3, out, "Items");
    EXPECT_EQ(At(doc.get(), "count")->valueint, 625);
    const cJSON* row = nullptr;
    cJSON_ArrayForEach(row, At(doc.get(), "items")) {
        EXPECT_EQ(At(row, "source")->valueint, 3);
    }

    // After a rebuild the host never gets rows up to the previous maximum.
    config.SetPreviousMaxInventoryItemId(2400);
    doc = Export(0, 0, 0, out, "");
    EXPECT_EQ(At(doc.get(), "count")->valueint, 100);
    EXPECT_EQ(At(cJSON_GetArrayItem(At(doc.get(), "items"), 0), "inventoryItemId")->valueint, 2401);
}

TEST(DalExport, TrustRulesAndFailuresLeaveNothingBehind) {
    std::string path = StartInScratch();
    const fs::path dir = fs::path(path).parent_path();
    Db db(path);
    db.Exec(
        "INSERT INTO TrustRules(processName, paths, trustType, sha256, procUser) "
        "VALUES('/usr/bin/*', '/opt/*', 2, x'00FFA0', 'root');");
    db.Exec("INSERT INTO TrustRules(trustType) VALUES(3);");
    const std::string out = (dir / "rules.json").string();
    Json doc = Export(0, 0, 0, out, "tRuStRuLeS");
    EXPECT_EQ(Print(At(doc.get(), "items")),
              R"([{"trustRuleId":1,"processName":"/usr/bin/*","paths":"/opt/*","trustType":2,)"
              R"("sha256":"00ffa0","hitcount":0,"procUser":"root"},)"
              R"({"trustRuleId":2,"trustType":3,"hitcount":0}])");
    EXPECT_EQ(At(doc.get(), "lastId")->valueint, 2);

    auto entries = [&]() {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir)) {
            names.insert(entry.path().filename().string());
        }
        return names;
    };
    std::set<std::string> expected = entries();
    expected.insert("taken");

    // A folder that does not exist, a target that is a folder, no path.
    EXPECT_EQ(get_inventory(0, 0, 0, (dir / "missing" / "x.json").c_str(), ""),
              ZELK_STATUS_FAILURE);
    fs::create_directory(dir / "taken");
    EXPECT_EQ(get_inventory(0, 0, 0, (dir / "taken").c_str(), ""), ZELK_STATUS_FAILURE);
    EXPECT_EQ(get_inventory(0, 0, 0, nullptr, ""), ZELK_STATUS_BAD_PATH);
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
    Db db(path);
    db.Exec(
        "INSERT INTO InventoryItems(sha256, size, isAuthorized, source, ruleset) VALUES "
        "(randomblob(32), 1, 1, 2, 'Weekly'), (randomblob(32), 1, 1, 2, 'Weekly'), "
        "(randomblob(32), 1, 1, 2, 'Weekly'), (randomblob(32), 1, 1, 2, 'Daily'), "
        "(randomblob(32), 1, 1, 1, 'Agent'), (randomblob(32), 1, 1, 3, ''), "
        "(randomblob(32), 1, 1, 3, ''), (randomblob(32), 1, 1, 4, '');");
    db.Exec(
        "INSERT INTO TrustRules(processName, trustType, sha256, hitcount, procGroup, userList) "
        "VALUES('/bin/busy', 2, x'ABCD', 7, 'wheel', NULL), ('/bin/idle', 2, NULL, 0, NULL, "
        "NULL), (NULL, 1, NULL, 0, NULL, 'admins');");
    Json doc = Metrics();
    const cJSON* metrics = At(doc.get(), "metrics");
    // Only rules that matched at least once.
    EXPECT_EQ(Print(At(metrics, "trustrules_stats")),
              R"([{"trustRuleId":1,"hitcount":7,"processName":"/bin/busy","trustType":2,)"
              R"("sha256":"abcd","procGroup":"wheel"}])");
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(Print(At(metrics, "dbinfo")),
              R"({"totalInventoryItems":8,"agentRules":1,"executionRules":4,"scannedItems":2,)"
              R"("approvedDrift":1,"totalTrustRules":3,"totalUserGroupTrustRules":2,"rulesets":)"
              R"({"Agent":{"totalRules":1},"Daily":{"totalRules":1},"Weekly":{"totalRules":3}},)"
              R"("dbSize":)" +
                  std::to_string(info.st_size) + "}");

    // The rule list is capped at 100 entries.
    db.Exec(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 150) "
        "INSERT INTO TrustRules(processName, trustType, hitcount) SELECT '/bin/p' || i, "
        "2, 1 FROM n;");
    doc = Metrics();
    EXPECT_EQ(cJSON_GetArraySize(At(At(doc.get(), "metrics"), "trustrules_stats")), 100);

    // A closed store leaves both sections empty and the document intact.
    ZELKDAL::GetDAL().Finalize();
    doc = Metrics();
    metrics = At(doc.get(), "metrics");
    EXPECT_EQ(cJSON_GetArraySize(At(metrics, "trustrules_stats")), 0);
    EXPECT_EQ(cJSON_GetArraySize(At(metrics, "dbinfo")), 0);
}
