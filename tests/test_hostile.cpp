// Hostile and broken input through the C interface: damaged database files,
// huge paths, texts that are not UTF-8 or that look like SQL, and a huge
// ruleset.  Nothing may crash, hang, delete the user's file or store what it
// should not.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELKDataAccessLayer.h"
#include "zelk.h"

namespace {

uint32_t Start(const std::string& db) {
    ac_engine_start_s start = zelktest::StartRecord(db);
    return engine_start(&start);
}

bool IsJson(const std::string& text) {
    cJSON* doc = cJSON_Parse(text.c_str());
    cJSON_Delete(doc);
    return doc != nullptr;
}

}  // namespace

TEST(Hostile, DamagedDatabaseFilesAreRefusedAndKept) {
    const std::string dir = zelktest::ScratchDir();
    const std::string truncated = dir + "/truncated.db";
    zelktest::BuildDatabase(truncated, 15);
    zelktest::Db(truncated).Exec(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
        "INSERT INTO InventoryItems(fileName, path) SELECT 'f' || i, hex(zeroblob(250)) FROM n;");
    std::filesystem::resize_file(truncated, std::filesystem::file_size(truncated) / 3);
    const std::string dropped = dir + "/dropped.db";
    zelktest::BuildDatabase(dropped, 15);
    zelktest::Db(dropped).Exec("DROP TABLE TrustRules;");

    const std::pair<std::string, std::string> cases[] = {
        {truncated, "failed. rc: "}, {dropped, "sqlite3_prepare_v2 failed. rc: 1"}};
    for (const auto& [path, logged] : cases) {
        SCOPED_TRACE(path);
        const std::string before = zelktest::ReadFile(path);
        EXPECT_EQ(Start(path), ZELK_STATUS_DB_INIT_FAILED);
        EXPECT_EQ(zelktest::ReadFile(path), before);
        EXPECT_GT(zelktest::LogCapture::Get().CountContaining(logged), 0u);
        // A handle left open on a file that could not be read is closed by
        // the next start without a path, which cannot prepare on it.
        ac_engine_start_s noPath = zelktest::StartRecord(path);
        noPath.dbPath = nullptr;
        engine_start(&noPath);
        EXPECT_FALSE(ZELKDAL::GetDAL().IsOpen());
        EXPECT_EQ(zelktest::ReadFile(path), before);
    }
}

TEST(Hostile, HugePathsAndTextsAreHandled) {
    const std::string dir = zelktest::ScratchDir();
    const std::string huge = "/" + std::string(1 << 20, 'a');
    EXPECT_NE(Start(dir + huge), ZELK_STATUS_SUCCESS) << "a path too long to open";
    ASSERT_EQ(Start(dir + "/ac.db"), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(set_config(ZELK_CONFIG_LOCKDOWN, 0, 0), ZELK_STATUS_SUCCESS);

    uint8_t sha[32] = {7};
    const std::string cmd = "sh " + huge;
    for (uint32_t type :
         {ZELK_EVENT_EXEC_PRE, ZELK_EVENT_CACHED, ZELK_EVENT_MMAP_PRE, ZELK_EVENT_CREATE_PRE,
          ZELK_EVENT_CLOSE_POST, ZELK_EVENT_RENAME_POST, ZELK_EVENT_DELETE_POST}) {
        ac_wrapper_event_s e = zelktest::EmptyEvent();
        e.eventType = type;
        e.processName = e.name = e.oldName = e.user = huge.c_str();
        e.cmdLine = cmd.c_str();
        e.fileSha256 = sha;
        e.dirty = e.isexec = 1;
        e.mode = 4;
        ac_wrapper_response_s r;
        const uint32_t status = app_ctl(&e, &r);
        // A drift whose file cannot be examined is an error verdict.
        EXPECT_TRUE(status == ZELK_STATUS_SUCCESS || status == ZELK_STATUS_BLOCKED ||
                    status == ZELK_STATUS_FAILURE)
            << type;
        EXPECT_TRUE(type != ZELK_EVENT_EXEC_PRE || r.action != ZELK_ACTION_ALLOW)
            << "an unknown program in lockdown";
    }
    ac_db_item_s item{};
    item.fileName = item.path = item.nativePath = item.ruleset = huge.c_str();
    item.source = ZELK_SOURCE_SCANNED;
    EXPECT_EQ(store_item(&item, false), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(set_ruleset(false, huge.c_str(), "Weekly"), ZELK_STATUS_FAILURE);
    EXPECT_EQ(get_inventory(0, 10, 0, huge.c_str(), ""), ZELK_STATUS_FAILURE);
    const std::string out = dir + "/inventory.json";
    EXPECT_EQ(get_inventory(0, 10, 0, out.c_str(), huge.c_str()), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(IsJson(zelktest::ReadFile(out)));
    engine_stop();
    EXPECT_EQ(zelktest::Db(dir + "/ac.db")
                  .Int("SELECT length(nativePath) FROM InventoryItems WHERE source = 3;"),
              static_cast<int64_t>(huge.size()));
}

// Names and fields are data: stored byte for byte, never run as SQL, and
// the documents the engine writes stay valid JSON.
TEST(Hostile, QuotesSqlAndInvalidUtf8AreStoredLiterally) {
    const std::string dir = zelktest::ScratchDir();
    ASSERT_EQ(Start(dir + "/ac.db"), ZELK_STATUS_SUCCESS);
    const std::string name = "Weekly'); DROP TABLE InventoryItems; --\xff\xfe\"\\";
    const std::string rules = "{\"rules\":[{\"sha256\":\"" + std::string(64, 'a') +
                              "\",\"size\":1,\"action\":\"allow\",\"fileName\":\"x' OR '1'='1\"}]}";
    ASSERT_EQ(set_ruleset_buffer(false, rules.c_str(), name.c_str()), ZELK_STATUS_SUCCESS);
    const std::string trustName = "MyTrustRules\xc3\x28'";
    const std::string trust =
        "{\"Trustrules\":[{\"trustType\":2,\"processName\":\"'; DELETE FROM UserList; --\","
        "\"paths\":\"/opt/\xe2\x28\xa1/*;\\\"q\\\"\",\"signerName\":\"Robert'); DROP TABLE "
        "TrustRules;--\",\"userList\":\"x' OR '1'='1\",\"user\":\"\xff\"}],"
        "\"Userlists\":[{\"id\":\"x' OR '1'='1\",\"users\":[\"a'b\",\"\xc0\xaf\"]}]}";
    ASSERT_EQ(set_ruleset_buffer(false, trust.c_str(), trustName.c_str()), ZELK_STATUS_SUCCESS);

    std::vector<char> metrics(1 << 20);
    unsigned size = static_cast<unsigned>(metrics.size());
    ASSERT_EQ(get_metrics_mem(metrics.data(), &size), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(IsJson(metrics.data()));
    const std::string out = dir + "/rules.json";
    for (const char* table : {"", "TrustRules"}) {
        ASSERT_EQ(get_inventory(0, 100, 0, out.c_str(), table), ZELK_STATUS_SUCCESS) << table;
        EXPECT_TRUE(IsJson(zelktest::ReadFile(out))) << table;
    }
    engine_stop();

    zelktest::Db db(dir + "/ac.db");
    EXPECT_EQ(db.Text("SELECT ruleset FROM InventoryItems;"), name);
    EXPECT_EQ(db.Text("SELECT fileName FROM InventoryItems;"), "x' OR '1'='1");
    EXPECT_EQ(db.Text("SELECT signerName FROM TrustRules;"), "Robert'); DROP TABLE TrustRules;--");
    EXPECT_EQ(db.Text("SELECT paths FROM TrustRules;"), "/opt/\xe2\x28\xa1/*;\"q\"");
    EXPECT_EQ(db.Text("SELECT procUser FROM TrustRules;"), "\xff");
    EXPECT_EQ(db.Column("SELECT user FROM UserList ORDER BY user;"),
              (std::vector<std::string>{"a'b", "\xc0\xaf"}));
}

// Ten million elements (20 MB of JSON) under an address-space limit such as
// a host would set for its agent: the import either completes or fails with
// a status code, and a failed one leaves the policy as it was.
TEST(Hostile, TenMillionElementRulesetWithinMemoryLimits) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "address-space limits do not apply under sanitizers";
#endif
    const std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    // One rule carrying ten million array elements: the parse is what costs.
    std::string huge =
        "{\"rules\":[{\"sha256\":\"" + std::string(64, 'b') + "\",\"size\":1,\"junk\":[0";
    for (int i = 1; i < 10000000; ++i) {
        huge += ",0";
    }
    huge += "]}]}";
    for (rlim_t limitMb : {256, 2048}) {
        SCOPED_TRACE(limitMb);
        ASSERT_EQ(Start(db), ZELK_STATUS_SUCCESS);
        const std::string weekly = "{\"rules\":[{\"sha256\":\"" + std::string(64, 'a') + "\"}]}";
        ASSERT_EQ(set_ruleset_buffer(false, weekly.c_str(), "Weekly"), ZELK_STATUS_SUCCESS);
        engine_stop();
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            struct rlimit limit = {limitMb << 20, limitMb << 20};
            setrlimit(RLIMIT_AS, &limit);
            const uint32_t status = Start(db) == ZELK_STATUS_SUCCESS
                                        ? set_ruleset_buffer(false, huge.c_str(), "Huge")
                                        : ZELK_STATUS_DB_INIT_FAILED;
            engine_stop();
            _exit(status == ZELK_STATUS_SUCCESS ? 0 : status == ZELK_STATUS_FAILURE ? 1 : 2);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
        const int result = WEXITSTATUS(status);
        ASSERT_LE(result, 1);
        zelktest::Db check(db);
        EXPECT_EQ(check.Text("PRAGMA integrity_check;"), "ok");
        // Success stores the one real rule; failure keeps the old one.
        EXPECT_EQ(check.Column("SELECT ruleset FROM InventoryItems WHERE source = 2;"),
                  std::vector<std::string>{result == 0 ? "Huge" : "Weekly"});
        EXPECT_TRUE(limitMb < 2048 || result == 0) << "2 GB is room enough";
    }
}
