// The policy store's file: creation, upgrades, refusal of bad files, purging
// and the persisted settings, driven through the exported interface and
// checked with a separate connection on the file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <ctime>
#include <filesystem>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "zelk.h"

namespace fs = std::filesystem;
using zelktest::Db;
using zelktest::LogCapture;

namespace {

// clang-format off
const std::vector<std::string> kIndexes = {
    "AppControlState_settingName", "InventoryItems_Md5", "InventoryItems_Sha1",
    "InventoryItems_Sha256", "InventoryItems_fileName", "InventoryItems_size",
    "TrustRules_procGroup", "TrustRules_procUser", "TrustRules_processName",
    "TrustRules_signerName", "TrustRules_trustType", "TrustRules_userList", "UserList_id_user"};
const std::vector<std::string> kTrustRuleColumns = {
    "trustRuleId", "processName", "paths", "trustType", "signerName", "productName",
    "companyName", "sha256", "issuerCN", "issuerC", "issuerS", "issuerL", "issuerO",
    "issuerOU", "hitcount", "ruleset", "procUser", "procGroup", "userList"};
// clang-format on

uint32_t Start(const std::string& path) {
    ac_engine_start_s start = zelktest::StartRecord(path);
    return engine_start(&start);
}

bool LoggedAt(unsigned level, const std::string& message) {
    for (const zelktest::LogRecord& r : LogCapture::Get().Records()) {
        if (r.level == level && r.message == message) {
            return true;
        }
    }
    return false;
}

void ExpectLogged(unsigned level, std::initializer_list<std::string> messages) {
    for (const std::string& message : messages) {
        EXPECT_TRUE(LoggedAt(level, message)) << message;
    }
}

// Row counts of InventoryItems, TrustRules and UserList as "items/rules/users".
std::string Counts(const std::string& path) {
    return Db(path).Text(
        "SELECT (SELECT count(*) FROM InventoryItems) || '/' || (SELECT count(*) FROM "
        "TrustRules) || '/' || (SELECT count(*) FROM UserList);");
}

// Everything a version 15 file must hold, whatever version it came from.
void ExpectVersion15Schema(Db& db) {
    EXPECT_EQ(db.Version(), 15);
    EXPECT_EQ(
        db.Column("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE "
                  "'sqlite_%' ORDER BY name;"),
        (std::vector<std::string>{"AppControlState", "InventoryItems", "TrustRules", "UserList"}));
    EXPECT_EQ(db.Column("SELECT name FROM sqlite_master WHERE type = 'view';"),
              std::vector<std::string>{"Items"});
    EXPECT_EQ(db.Column("SELECT name FROM sqlite_master WHERE type = 'index' AND name NOT LIKE "
                        "'sqlite_%' ORDER BY name;"),
              kIndexes);
    EXPECT_EQ(db.Column("SELECT name FROM pragma_table_info('TrustRules');"), kTrustRuleColumns);
    EXPECT_EQ(db.Text("SELECT dflt_value FROM pragma_table_info('TrustRules') WHERE name = "
                      "'hitcount';"),
              "0");
}

void InsertItem(Db& db, int source, const std::string& name) {
    db.Exec(
        "INSERT INTO InventoryItems(fileName, path, md5, sha1, sha256, size, source, "
        "isAuthorized, ruleset) VALUES('" +
        name + "', '/usr/bin', x'00112233445566778899aabbccddeeff', NULL, randomblob(32), 10, " +
        std::to_string(source) + ", 1, '');");
}

}  // namespace

TEST(DalSchema, NewDatabaseIsBuiltToVersion15WithSeededSettings) {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    time_t before = time(nullptr);
    ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
    ASSERT_NE(engine, nullptr);
    EXPECT_TRUE(ZELKDAL::GetDAL().IsOpen());

    Db db(path);
    ExpectVersion15Schema(db);
    EXPECT_EQ(db.Column("SELECT settingName || '=' || settingValue FROM AppControlState WHERE "
                        "settingName != 'upgradetime' ORDER BY id;"),
              (std::vector<std::string>{
                  "inventoryState=-1", "inventoryCookie=", "importState=-1",
                  "effectiveRulesetIds=", "agentVersion=", "autoAuthorizeEndTime=-1",
                  "autoAuthorizeStartTime=-1", "whitelistInventory=-1", "enableHTML=1"}));
    EXPECT_EQ(db.Int("SELECT count(*) FROM AppControlState WHERE settingName = 'upgradetime';"), 1);
    int64_t upgraded = db.Int(
        "SELECT settingValue FROM AppControlState WHERE settingName = "
        "'upgradetime';");
    EXPECT_GE(upgraded, before);
    EXPECT_LE(upgraded, time(nullptr));
    EXPECT_EQ(db.Int("PRAGMA page_size;"), 4096);

    // The view lists each inventory row once.
    InsertItem(db, 3, "a");
    InsertItem(db, 4, "b");
    EXPECT_EQ(db.Int("SELECT count(*) FROM Items;"), 2);

    EXPECT_TRUE(LoggedAt(ZELK_LOG_INFO, "SCHEMA user_version: 0"));
    EXPECT_TRUE(LoggedAt(ZELK_LOG_ERROR, "SCHEMA SIZE: 12"));
}

TEST(DalSchema, OlderVersionsAreUpgradedKeepingTheirRows) {
    std::string dir = zelktest::ScratchDir();
    for (int version : {4, 7, 14}) {
        SCOPED_TRACE(version);
        std::string path = dir + "/v" + std::to_string(version) + ".db";
        zelktest::BuildDatabase(path, version);
        {
            Db db(path);
            InsertItem(db, 3, "kept");
            db.Exec(
                "UPDATE AppControlState SET settingValue = 'cookie' WHERE settingName = "
                "'inventoryCookie';");
            if (version >= 5) {
                db.Exec("INSERT INTO TrustRules(processName, trustType) VALUES('rpm', 1);");
            }
        }
        LogCapture::Get().Clear();
        ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
        EXPECT_TRUE(LoggedAt(ZELK_LOG_INFO, "SCHEMA user_version: " + std::to_string(version)));

        Db db(path);
        ExpectVersion15Schema(db);
        EXPECT_EQ(db.Text("SELECT fileName FROM InventoryItems;"), "kept");
        EXPECT_EQ(db.Setting("inventoryCookie"), "cookie");
        EXPECT_EQ(db.Int("SELECT count(*) FROM AppControlState;"), 10);
        if (version >= 5) {
            EXPECT_EQ(db.Text("SELECT processName || ',' || hitcount FROM TrustRules;"), "rpm,0");
            EXPECT_TRUE(ZELKDAL::GetDAL().HasTrustRules());
        }
        ASSERT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    }
}

TEST(DalSchema, Version2IsOpenedAsItIs) {
    std::string dir = zelktest::ScratchDir();
    // A version 2 file that nevertheless has the tables the store needs.
    std::string usable = dir + "/usable.db";
    zelktest::BuildDatabase(usable, 15);
    {
        Db db(usable);
        db.Exec("PRAGMA user_version = 2;");
        db.Exec("DELETE FROM AppControlState WHERE settingName = 'upgradetime';");
    }
    ASSERT_EQ(Start(usable), ZELK_STATUS_SUCCESS);
    {
        Db db(usable);
        EXPECT_EQ(db.Version(), 2);
        EXPECT_EQ(db.Int("SELECT count(*) FROM AppControlState;"), 9) << "no script ran";
    }
    ASSERT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);

    // A version 2 file without them is not rewritten either; the store
    // cannot use it.
    std::string bare = dir + "/bare.db";
    {
        Db db(bare);
        db.Exec("PRAGMA user_version = 2; CREATE TABLE Legacy(x);");
    }
    EXPECT_EQ(Start(bare), ZELK_STATUS_DB_INIT_FAILED);
    EXPECT_FALSE(ZELKDAL::GetDAL().IsOpen());
    Db db(bare);
    EXPECT_EQ(db.Version(), 2);
    EXPECT_EQ(db.Column("SELECT name FROM sqlite_master;"), std::vector<std::string>{"Legacy"});
}

TEST(DalSchema, NewerVersionIsRecreatedEmpty) {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    zelktest::BuildDatabase(path, 15);
    {
        Db db(path);
        InsertItem(db, 2, "gone");
        db.Exec(
            "UPDATE AppControlState SET settingValue = '9.9' WHERE settingName = "
            "'agentVersion';");
        db.Exec("PRAGMA user_version = 16;");
    }
    ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(LoggedAt(ZELK_LOG_ERROR, "Unsupported DB user_verson: 16. current version: 15"));
    Db db(path);
    ExpectVersion15Schema(db);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems;"), 0);
    EXPECT_EQ(db.Setting("agentVersion"), "");
}

TEST(DalLifecycle, StartStopAndRestart) {
    std::string dir = zelktest::ScratchDir();
    std::string path = dir + "/ac.db";
    ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
    ZELKEngine* first = engine;

    // Any path while open is refused, the same one included; the engine and
    // the open store are kept.
    EXPECT_EQ(Start(path), ZELK_STATUS_BAD_PATH);
    EXPECT_EQ(engine, first);
    // Another file while open is refused, and the old one stays in use.
    EXPECT_EQ(Start(dir + "/other.db"), ZELK_STATUS_BAD_PATH);
    EXPECT_FALSE(fs::exists(dir + "/other.db"));
    EXPECT_EQ(ZELKDAL::GetDAL().GetDBPath(), path);
    EXPECT_EQ(engine, first);

    LogCapture::Get().Clear();
    ASSERT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(engine, nullptr);
    EXPECT_FALSE(ZELKDAL::GetDAL().IsOpen());
    ExpectLogged(ZELK_LOG_ERROR,
                 {"Finalize m_pInsertItemStmt", "Finalize m_pSetAcStateStmt", "Finalize m_DB"});
    EXPECT_EQ(LogCapture::Get().CountContaining("ignore Finalize"), 0u);
    EXPECT_EQ(LogCapture::Get().CountContaining("Finalize m_p"), 21u);

    LogCapture::Get().Clear();
    EXPECT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(LogCapture::Get().Records().empty()) << "a second stop does nothing";

    // After a stop the store takes a new path and opens again.
    std::string other = dir + "/other.db";
    ASSERT_EQ(Start(other), ZELK_STATUS_SUCCESS);
    EXPECT_NE(engine, nullptr);
    Db db(other);
    EXPECT_EQ(db.Version(), 15);
    unsigned long value = 0;
    EXPECT_TRUE(ZELKDAL::GetDAL().GetAppControlState("inventoryState", value));
}

TEST(DalLifecycle, ClosedStoreRefusesWorkUntilReopened) {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
    ZELKDAL& dal = ZELKDAL::GetDAL();
    LogCapture::Get().Clear();
    dal.Finalize();
    EXPECT_FALSE(dal.IsOpen());
    EXPECT_FALSE(dal.PrepareStatements());
    EXPECT_TRUE(LoggedAt(ZELK_LOG_ERROR, "m_DB is released"));
    std::string text;
    EXPECT_FALSE(dal.GetAppControlState("agentVersion", text));
    EXPECT_TRUE(LoggedAt(ZELK_LOG_ERROR, "m_pGetAcStateStmt is released"));
    EXPECT_FALSE(dal.SetAppControlState("agentVersion", std::string("1")));
    EXPECT_TRUE(LoggedAt(ZELK_LOG_ERROR, "m_pSetAcStateStmt is released"));
    EXPECT_TRUE(dal.InitDB(true)) << "opens read-write whatever the argument";
    EXPECT_TRUE(dal.SetAppControlState("agentVersion", std::string("written")));
    Db db(path);
    EXPECT_EQ(db.Setting("agentVersion"), "written");
}

TEST(DalBadInput, UnusablePathsFailWithoutTouchingFiles) {
    std::string dir = zelktest::ScratchDir();

    // A path SQLite cannot open: the handle it returns is not kept.
    EXPECT_EQ(Start(dir + "/missing/ac.db"), ZELK_STATUS_DB_INIT_FAILED);
    EXPECT_EQ(engine, nullptr);
    EXPECT_EQ(LogCapture::Get().CountContaining("sqlite3_open_v2 failed. rc: "), 1u);
    EXPECT_FALSE(fs::exists(dir + "/missing"));
    EXPECT_FALSE(ZELKDAL::GetDAL().IsOpen());

    // A file that is not a database is left byte for byte.  The handle stays
    // open, so another path is refused until a start without a path finds
    // the handle, fails to prepare on it and closes the store.
    std::mt19937 random(7);
    std::string noise(8192, '\0');
    for (char& c : noise) {
        c = static_cast<char>(random());
    }
    const std::string file = dir + "/noise.db";
    zelktest::WriteFile(file, noise);
    LogCapture::Get().Clear();
    EXPECT_EQ(Start(file), ZELK_STATUS_DB_INIT_FAILED);
    EXPECT_EQ(engine, nullptr);
    // SQLite reads the header when the version is asked for, at preparing or
    // stepping, whichever touches the file first.
    EXPECT_EQ(LogCapture::Get().CountContaining("PRAGMA user_version failed. rc: 26") +
                  LogCapture::Get().CountContaining("Init or Update Schema failed. rc: 26"),
              1u);
    EXPECT_EQ(zelktest::ReadFile(file), noise);
    EXPECT_FALSE(fs::exists(file + "-journal"));
    EXPECT_TRUE(ZELKDAL::GetDAL().IsOpen());
    EXPECT_EQ(Start(dir + "/good.db"), ZELK_STATUS_BAD_PATH);

    ac_engine_start_s noPath = zelktest::StartRecord("");
    noPath.dbPath = nullptr;
    EXPECT_EQ(engine_start(&noPath), ZELK_STATUS_DB_INIT_FAILED);
    EXPECT_TRUE(LoggedAt(ZELK_LOG_WARNING, "m_DB is not null."));
    EXPECT_FALSE(ZELKDAL::GetDAL().IsOpen());
    EXPECT_EQ(zelktest::ReadFile(file), noise);
    ASSERT_EQ(Start(dir + "/good.db"), ZELK_STATUS_SUCCESS);
    EXPECT_NE(engine, nullptr);
}

TEST(DalBadInput, ReadOnlyDatabaseOpensAndRefusesWrites) {
    std::string dir = zelktest::ScratchDir();
    std::string roFile = dir + "/rofile.db";
    zelktest::BuildDatabase(roFile, 15);
    chmod(roFile.c_str(), 0444);
    std::string before = zelktest::ReadFile(roFile);

    // Permissions do not bind root; run the checks as an ordinary user.
    bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(seteuid(65534), 0);
    }
    uint32_t started = Start(roFile);
    uint32_t purged = started == ZELK_STATUS_SUCCESS ? purge_db(3) : 0;
    if (root) {
        ASSERT_EQ(seteuid(0), 0);
    }
    // Opened as SQLite can (reading only); the writes then fail and say so.
    EXPECT_EQ(started, ZELK_STATUS_SUCCESS);
    EXPECT_EQ(purged, ZELK_STATUS_FAILURE);
    EXPECT_EQ(zelktest::ReadFile(roFile), before);
}

TEST(DalPurge, PurgeBySource) {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
    auto fill = [&]() {
        Db db(path);
        for (int source = 1; source <= 5; ++source) {
            InsertItem(db, source, "s" + std::to_string(source));
        }
        db.Exec("INSERT INTO TrustRules(processName, trustType, userList) VALUES('rpm', 1, 'l');");
        db.Exec("INSERT INTO UserList(id, user) VALUES('l', 'root');");
        db.Exec(
            "UPDATE AppControlState SET settingValue = '1.0' WHERE settingName = "
            "'agentVersion';");
    };
    fill();

    LogCapture::Get().Clear();
    EXPECT_EQ(purge_db(3), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Db(path).Column("SELECT source FROM InventoryItems ORDER BY source;"),
              (std::vector<std::string>{"1", "2", "4", "5"}));
    EXPECT_EQ(Counts(path), "4/1/1");
    ExpectLogged(ZELK_LOG_TRACE,
                 {"PurgeDB lock", "executing DELETE FROM InventoryItems WHERE source = 3;",
                  "Vacuuming", "Returning from PurgeDB with retval 1 unlock"});

    // The rules were written behind the engine's back after it opened the
    // file: the summary counted at the open stands, and purges leave it.
    EXPECT_FALSE(ZELKDAL::GetDAL().HasTrustRules());
    EXPECT_EQ(purge_db(6), ZELK_STATUS_SUCCESS);
    EXPECT_FALSE(ZELKDAL::GetDAL().HasTrustRules());
    EXPECT_EQ(Counts(path), "4/0/0");
    EXPECT_EQ(Db(path).Setting("agentVersion"), "1.0");

    // A source nobody uses deletes nothing and still succeeds.
    EXPECT_EQ(purge_db(9), ZELK_STATUS_SUCCESS);

    fill();
    LogCapture::Get().Clear();
    EXPECT_EQ(purge_db(0), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(LoggedAt(ZELK_LOG_TRACE, "Re-initializing database after successful deletion."));
    EXPECT_EQ(LogCapture::Get().CountContaining("executing"), 0u);
    Db db(path);
    ExpectVersion15Schema(db);
    EXPECT_EQ(Counts(path), "0/0/0");
    EXPECT_EQ(db.Setting("agentVersion"), "") << "settings are back to their defaults";
    // The store works on the new file.
    EXPECT_TRUE(ZELKDAL::GetDAL().SetAppControlState("agentVersion", std::string("2.0")));
    EXPECT_EQ(db.Setting("agentVersion"), "2.0");
}

TEST(DalPurge, DeleteAndPurgeOnClosedStore) {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
    LogCapture::Get().Clear();
    EXPECT_EQ(delete_db(), ZELK_STATUS_SUCCESS);
    ExpectLogged(ZELK_LOG_TRACE,
                 {"DeleteDB lock", "Successfully deleted database file", "DeleteDB unlock"});
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(ZELKDAL::GetDAL().IsOpen()) << "deleting does not reopen";

    // Nothing to delete or purge counts as done.
    EXPECT_EQ(delete_db(), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(purge_db(2), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(purge_db(6), ZELK_STATUS_SUCCESS);
    EXPECT_FALSE(fs::exists(path));

    // A whole purge makes a new database.
    EXPECT_EQ(purge_db(0), ZELK_STATUS_SUCCESS);
    Db db(path);
    EXPECT_EQ(db.Version(), 15);
}

TEST(DalSettings, TextAndNumericForms) {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
    ZELKDAL& dal = ZELKDAL::GetDAL();
    Db db(path);

    unsigned long number = 42;
    ASSERT_TRUE(dal.GetAppControlState("inventoryState", number));
    EXPECT_EQ(number, ULONG_MAX) << "stored -1";
    ASSERT_TRUE(dal.GetAppControlState("agentVersion", number));
    EXPECT_EQ(number, 0u) << "empty text";

    for (auto [value, stored] :
         {std::pair{ULONG_MAX, "-1"}, {0UL, "0"}, {1700000000123UL, "1700000000123"}}) {
        EXPECT_TRUE(dal.SetAppControlState("autoAuthorizeStartTime", value));
        EXPECT_EQ(db.Setting("autoAuthorizeStartTime"), stored);
    }
    ASSERT_TRUE(dal.GetAppControlState("autoAuthorizeStartTime", number));
    EXPECT_EQ(number, 1700000000123UL);

    std::string text;
    EXPECT_TRUE(dal.SetAppControlState("agentVersion", std::string("12.0.178")));
    ASSERT_TRUE(dal.GetAppControlState("agentVersion", text));
    EXPECT_EQ(text, "12.0.178");

    // Settings are only updated, never created.
    EXPECT_TRUE(dal.SetAppControlState("noSuchSetting", std::string("1")));
    EXPECT_EQ(db.Int("SELECT count(*) FROM AppControlState;"), 10);
    text = "untouched";
    EXPECT_FALSE(dal.GetAppControlState("noSuchSetting", text));
    EXPECT_EQ(text, "untouched");
    number = 7;
    EXPECT_FALSE(dal.GetAppControlState("noSuchSetting", number));
    EXPECT_EQ(number, 7u);
    EXPECT_TRUE(LoggedAt(ZELK_LOG_TRACE, "Unable to get AppControl Setting for noSuchSetting"));

    // Statements are reset after each use: nothing is left in progress to
    // block a VACUUM.
    EXPECT_EQ(purge_db(5), ZELK_STATUS_SUCCESS);
}

TEST(DalSummaries, CountsRulesPresentAtOpen) {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    zelktest::BuildDatabase(path, 15);
    {
        Db db(path);
        InsertItem(db, 2, "md5only");
        InsertItem(db, 2, "md5only2");
        InsertItem(db, 3, "other source");
        db.Exec(
            "INSERT INTO InventoryItems(fileName, sha1, source) VALUES('sha1', "
            "x'00112233445566778899aabbccddeeff00112233', 2);");
        db.Exec("INSERT INTO TrustRules(processName, trustType) VALUES('yum', 2);");
    }
    ZELKDAL& dal = ZELKDAL::GetDAL();
    EXPECT_FALSE(dal.HasTrustRules());
    ASSERT_EQ(Start(path), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(dal.HasTrustRules());
    EXPECT_EQ(dal.GetMD5RuleCount(), 2);
    EXPECT_EQ(dal.GetSHA1RuleCount(), 1);

    // A purge leaves the counts as they were.
    EXPECT_EQ(purge_db(2), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(dal.GetMD5RuleCount(), 2);
    EXPECT_EQ(dal.GetSHA1RuleCount(), 1);
    EXPECT_TRUE(dal.HasTrustRules());

    {
        Db db(path);
        InsertItem(db, 2, "later");
    }
    dal.RefreshRuleSummaries();
    EXPECT_EQ(dal.GetMD5RuleCount(), 1);
}
