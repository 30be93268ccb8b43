// Hostile and broken input through the C interface: damaged database files,
// huge paths, texts that are not UTF-8 or that look like SQL, and a huge
// ruleset.  Nothing may crash, hang, delete the user's file or store what it
// should not.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "zelk.h"

namespace fs = std::filesystem;
using zelktest::LogCapture;

namespace {

uint32_t Start(const std::string& db) {
    ac_engine_start_s start = zelktest::StartRecord(db);
    return engine_start(&start);
}

bool LoggedError() {
    for (const zelktest::LogRecord& r : LogCapture::Get().Records()) {
        if (r.level == ZELK_LOG_ERROR && r.message.find("SCHEMA SIZE") == std::string::npos) {
            return true;
        }
    }
    return false;
}

// The metrics document, parsed; null when it is not valid JSON.
cJSON* Metrics() {
    unsigned size = 0;
    get_metrics_mem(nullptr, &size);
    std::vector<char> buffer(size);
    if (get_metrics_mem(buffer.data(), &size) != ZELK_STATUS_SUCCESS) {
        return nullptr;
    }
    return cJSON_Parse(buffer.data());
}

}  // namespace

TEST(Hostile, DamagedDatabaseFilesAreRefusedAndKept) {
    const std::string dir = zelktest::ScratchDir();
    const std::string truncated = dir + "/truncated.db";
    zelktest::BuildDatabase(truncated, 15);
    {
        zelktest::Db db(truncated);
        for (int i = 0; i < 200; ++i) {
            db.Exec("INSERT INTO InventoryItems(fileName, path) VALUES('f" + std::to_string(i) +
                    "', '" + std::string(500, 'p') + "');");
        }
    }
    fs::resize_file(truncated, fs::file_size(truncated) / 3);
    const std::string dropped = dir + "/dropped.db";
    zelktest::BuildDatabase(dropped, 15);
    {
        zelktest::Db db(dropped);
        db.Exec("DROP TABLE TrustRules;");
    }

    for (const std::string& path : {truncated, dropped}) {
        SCOPED_TRACE(path);
        const std::string before = zelktest::ReadFile(path);
        LogCapture::Get().Clear();
        const uint32_t status = Start(path);
        if (status == ZELK_STATUS_SUCCESS) {
            // Opened: the damage shows at the first use and is reported.
            ac_db_item_s item;
            memset(&item, 0, sizeof(item));
            item.fileName = item.path = item.nativePath = item.ruleset = "x";
            item.source = ZELK_SOURCE_SCANNED;
            EXPECT_EQ(store_item(&item, false), ZELK_STATUS_FAILURE);
            engine_stop();
        } else {
            EXPECT_EQ(status, ZELK_STATUS_DB_INIT_FAILED);
            EXPECT_EQ(zelktest::ReadFile(path), before);
        }
        EXPECT_TRUE(LoggedError());
        EXPECT_TRUE(fs::exists(path));
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
        e.processName = huge.c_str();
        e.name = huge.c_str();
        e.oldName = huge.c_str();
        e.cmdLine = cmd.c_str();
        e.user = huge.c_str();
        e.fileSha256 = sha;
        e.dirty = 1;
        e.isexec = 1;
        e.mode = 4;
        ac_wrapper_response_s r;
        const uint32_t status = app_ctl(&e, &r);
        // A drift whose file cannot be examined is an error verdict.
        EXPECT_TRUE(status == ZELK_STATUS_SUCCESS || status == ZELK_STATUS_BLOCKED ||
                    status == ZELK_STATUS_FAILURE)
            << type;
        if (type == ZELK_EVENT_EXEC_PRE) {
            EXPECT_NE(r.action, ZELK_ACTION_ALLOW) << "an unknown program in lockdown";
        }
    }
    ac_db_item_s item;
    memset(&item, 0, sizeof(item));
    item.fileName = item.path = item.nativePath = item.ruleset = huge.c_str();
    item.source = ZELK_SOURCE_SCANNED;
    EXPECT_EQ(store_item(&item, false), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(set_ruleset(false, huge.c_str(), "Weekly"), ZELK_STATUS_FAILURE);
    EXPECT_EQ(get_inventory(0, 10, 0, huge.c_str(), ""), ZELK_STATUS_FAILURE);
    const std::string out = dir + "/inventory.json";
    EXPECT_EQ(get_inventory(0, 10, 0, out.c_str(), huge.c_str()), ZELK_STATUS_SUCCESS);
    cJSON* doc = cJSON_Parse(zelktest::ReadFile(out).c_str());
    EXPECT_NE(doc, nullptr);
    cJSON_Delete(doc);
    engine_stop();
    zelktest::Db db(dir + "/ac.db");
    EXPECT_EQ(db.Int("SELECT length(nativePath) FROM InventoryItems WHERE source = 3;"),
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

    cJSON* doc = Metrics();
    ASSERT_NE(doc, nullptr) << "the metrics document is not valid JSON";
    cJSON_Delete(doc);
    const std::string out = dir + "/rules.json";
    for (const char* table : {"", "TrustRules"}) {
        ASSERT_EQ(get_inventory(0, 100, 0, out.c_str(), table), ZELK_STATUS_SUCCESS) << table;
        doc = cJSON_Parse(zelktest::ReadFile(out).c_str());
        EXPECT_NE(doc, nullptr) << table;
        cJSON_Delete(doc);
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
    std::string huge = "{\"rules\":[{\"sha256\":\"" + std::string(64, 'b') + "\",\"size\":1}";
    huge.reserve(20u << 20);
    for (int i = 1; i < 10000000; ++i) {
        huge += ",0";
    }
    huge += "]}";
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
            if (Start(db) != ZELK_STATUS_SUCCESS) {
                _exit(3);
            }
            const uint32_t status = set_ruleset_buffer(false, huge.c_str(), "Huge");
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
        if (limitMb == 2048) {
            EXPECT_EQ(result, 0) << "2 GB is room enough";
        }
    }
}
