// Ruleset import through set_ruleset_buffer and set_ruleset on a real
// database file: hash rulesets, the agent manifest, trust rules and user
// lists, what each kind replaces, and documents of the wrong shape.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKStats.h"
#include "zelk.h"

using zelktest::Db;
using zelktest::LogCapture;

namespace {

std::string Repeat(const std::string& part, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) {
        out += part;
    }
    return out;
}

std::string StartInScratch() {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(path);
    EXPECT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    return path;
}

uint32_t Import(bool incremental, const std::string& json, const char* name) {
    return set_ruleset_buffer(incremental, json.c_str(), name);
}

// Runs the allow lookup for a file with this SHA-256 and size.
ac_event Lookup(const std::string& sha256, uint64_t size) {
    ac_event event;
    event.fileSha256.SetHash(sha256);
    event.size = size;
    EXPECT_TRUE(ZELKDAL::GetDAL().IsAllowedInDB(event));
    return event;
}

void InsertItem(Db& db, int source, const std::string& fileName) {
    db.Exec(
        "INSERT INTO InventoryItems(fileName, sha256, size, isAuthorized, source, ruleset) "
        "VALUES('" +
        fileName + "', randomblob(32), 1, 1, " + std::to_string(source) + ", '');");
}

size_t WarningsContaining(const std::string& part) {
    size_t n = 0;
    for (const zelktest::LogRecord& r : LogCapture::Get().Records()) {
        if (r.level == ZELK_LOG_WARNING && r.message.find(part) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

}  // namespace

TEST(DalImport, HashRulesetIsStoredAndFoundByDigestAndSize) {
    std::string path = StartInScratch();
    const std::string a = Repeat("Ab", 32);  // mixed case on purpose
    const std::string b = Repeat("cd", 32);
    const std::string c = Repeat("ef", 32);
    const std::string d = Repeat("12", 32);
    std::string json = R"({"rules": [
        {"sha256": ")" +
                       a + R"(", "size": "1234", "action": "allow", "fileName": "a.bin"},
        {"sha256": ")" +
                       b + R"(", "size": 1234, "action": "block", "fileName": "b.bin"},
        {"sha256": ")" +
                       c + R"(", "size": 0, "action": "allowed"},
        {"sha256": ")" +
                       d + R"(", "size": 5, "action": "deny"},
        {"sha1": ")" + Repeat("34", 20) +
                       R"(", "md5": ")" + Repeat("56", 16) +
                       R"(", "size": 7, "action": "allow", "fileName": null}
    ]})";
    LogCapture::Get().Clear();
    ASSERT_EQ(Import(false, json, "Weekly"), ZELK_STATUS_SUCCESS);

    Db db(path);
    EXPECT_EQ(
        db.Column(
            "SELECT lower(hex(sha256)) || ' ' || size || ' ' || typeof(size) || ' ' "
            "|| isAuthorized || ' ' || source || ' ' || ruleset || ' ' || "
            "ifnull(nullif(fileName, ''), '-') FROM InventoryItems ORDER BY inventoryItemId;"),
        (std::vector<std::string>{
            Repeat("ab", 32) + " 1234 integer 1 2 Weekly a.bin",
            b + " 1234 integer 0 2 Weekly b.bin", c + " 0 integer 1 2 Weekly -",
            d + " 5 integer 3 2 Weekly -",
            " 7 integer 1 2 Weekly -",  // no SHA-256
        }));
    EXPECT_EQ(db.Text("SELECT lower(hex(sha1)) || lower(hex(md5)) FROM InventoryItems WHERE "
                      "sha256 IS NULL;"),
              Repeat("34", 20) + Repeat("56", 16));
    EXPECT_TRUE(
        LogCapture::Get().Contains("Unhandled authorizedState 0, default to on the allow list(3)"));
    EXPECT_TRUE(LogCapture::Get().Contains("Importing item ruleset into db: Weekly"));
    EXPECT_EQ(ZELKStats::GetStats().GetType(3, "Weekly"), 5);
    EXPECT_EQ(ZELKDAL::GetDAL().GetMD5RuleCount(), 1);
    EXPECT_EQ(ZELKDAL::GetDAL().GetSHA1RuleCount(), 1);

    // Found by SHA-256 and size; size 0 in the rule matches any size.
    ac_event found = Lookup(Repeat("ab", 32), 1234);
    EXPECT_EQ(found.isAuthorized, 1u);
    EXPECT_EQ(found.ruleset, "Weekly");
    EXPECT_EQ(Lookup(Repeat("ab", 32), 1235).isAuthorized, 0u);
    EXPECT_EQ(Lookup(b, 1234).isAuthorized, 2u);
    EXPECT_EQ(Lookup(c, 987654).isAuthorized, 1u);
}

TEST(DalImport, EachKindReplacesOnlyWhatItOwns) {
    std::string path = StartInScratch();
    {
        Db db(path);
        for (int source = 1; source <= 4; ++source) {
            InsertItem(db, source, "old" + std::to_string(source));
        }
        db.Exec("INSERT INTO TrustRules(processName, trustType) VALUES('/bin/rpm', 1);");
        db.Exec("INSERT INTO UserList(id, user) VALUES('l', 'root');");
    }
    ZELKStats& stats = ZELKStats::GetStats();
    stats.SetType(3, "rulesetOld", 4);
    stats.SetType(3, "trustOld", 2);
    const std::string rule = R"({"rules": [{"sha256": ")" + Repeat("aa", 32) + R"("}]})";

    // A non-incremental hash ruleset removes every source-2 row and nothing else.
    ASSERT_EQ(Import(false, rule, "Weekly"), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(Import(true, rule, "Daily"), ZELK_STATUS_SUCCESS);
    {
        Db db(path);
        EXPECT_EQ(db.Column("SELECT source || ':' || ifnull(nullif(ruleset, ''), fileName) FROM "
                            "InventoryItems ORDER BY source, inventoryItemId;"),
                  (std::vector<std::string>{"1:old1", "2:Weekly", "2:Daily", "3:old3", "4:old4"}));
        EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules;"), 1);
    }
    EXPECT_EQ(stats.GetType(3, "rulesetOld"), 0);
    EXPECT_EQ(stats.GetType(3, "trustOld"), 2);

    // The agent manifest (any case, even when it also says "trustrules")
    // records the version, marks the manifest applied and replaces agent
    // rows, ruleset rows, trust rules and user lists.
    config.SetManifestApplied(false);
    LogCapture::Get().Clear();
    ASSERT_EQ(Import(false, rule, "Agent_TrustRules_Manifest.json"), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(config.GetManifestApplied());
    EXPECT_TRUE(LogCapture::Get().Contains("Manifest applied to version 12.0.178"));
    {
        Db db(path);
        EXPECT_EQ(db.Setting("agentVersion"), "12.0.178");
        EXPECT_EQ(
            db.Column("SELECT source || ':' || ifnull(nullif(ruleset, ''), fileName) FROM "
                      "InventoryItems ORDER BY source, inventoryItemId;"),
            (std::vector<std::string>{"1:Agent_TrustRules_Manifest.json", "3:old3", "4:old4"}));
        EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules;"), 0);
        EXPECT_EQ(db.Int("SELECT count(*) FROM UserList;"), 0);
    }
    EXPECT_FALSE(ZELKDAL::GetDAL().HasTrustRules());
    EXPECT_EQ(stats.GetType(3, "trustOld"), 0);
    EXPECT_EQ(stats.GetType(3, "Agent_TrustRules_Manifest.json"), 1);

    // A document without "rules" still purges and succeeds.
    ASSERT_EQ(Import(false, "{}", "weekly"), ZELK_STATUS_SUCCESS);
    Db db(path);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE source = 1;"), 1);
}

TEST(DalImport, TrustRulesAndUserListsWithNullForEmptyTexts) {
    std::string path = StartInScratch();
    const std::string sha = Repeat("9F", 32);
    std::string json = R"({"Trustrules": [
        {"processName": "/usr/bin/*", "paths": "/opt/a/*;/opt/b", "trustType": "2",
         "signerName": "", "sha256": ")" +
                       sha + R"(", "issuerCN": "CA", "issuerOU": "Unit",
         "user": "root", "group": null},
        {"trustType": 3, "userList": "admins", "companyName": "ACME"}
    ], "Userlists": [
        {"id": "admins", "users": ["alice", "bob", 5]},
        {"id": "", "users": ["x"]},
        {"id": "x", "users": "not a list"},
        "not an object"
    ]})";
    LogCapture::Get().Clear();
    ASSERT_EQ(Import(false, json, "MyTrustRules"), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(ZELKDAL::GetDAL().HasTrustRules());
    EXPECT_EQ(ZELKStats::GetStats().GetType(3, "MyTrustRules"), 2);
    {
        Db db(path);
        const std::string columns =
            "SELECT quote(processName) ||' '|| quote(paths) ||' '|| trustType ||' '|| "
            "typeof(trustType) ||' '|| quote(signerName) ||' '|| quote(productName) ||' '|| "
            "quote(companyName) ||' '|| CASE WHEN sha256 IS NULL THEN 'NULL' ELSE "
            "lower(hex(sha256)) END ||' '|| "
            "quote(issuerCN) ||' '|| quote(issuerC) ||' '|| quote(issuerOU) ||' '|| "
            "quote(procUser) ||' '|| quote(procGroup) ||' '|| quote(userList) ||' '|| ruleset "
            "FROM TrustRules ORDER BY trustRuleId;";
        EXPECT_EQ(db.Column(columns),
                  (std::vector<std::string>{
                      "'/usr/bin/*' '/opt/a/*;/opt/b' 2 integer NULL NULL NULL " +
                          Repeat("9f", 32) + " 'CA' NULL 'Unit' 'root' NULL NULL MyTrustRules",
                      "NULL NULL 3 integer NULL NULL 'ACME' NULL NULL NULL NULL NULL NULL "
                      "'admins' MyTrustRules"}));
        EXPECT_EQ(db.Column("SELECT id || ':' || user FROM UserList ORDER BY user;"),
                  (std::vector<std::string>{"admins:alice", "admins:bob"}));
    }
    for (int index = 0; index < 4; ++index) {
        EXPECT_EQ(WarningsContaining("Userlists[" + std::to_string(index) + "]"), 1u) << index;
    }

    // Non-incremental trust rules replace rules and lists alike; hash rows stay.
    {
        Db db(path);
        InsertItem(db, 2, "kept");
    }
    ASSERT_EQ(Import(false, R"({"Trustrules": [{"trustType": 4}]})", "trustrules-2"),
              ZELK_STATUS_SUCCESS);
    Db db(path);
    EXPECT_EQ(db.Column("SELECT trustType || ruleset FROM TrustRules;"),
              (std::vector<std::string>{"4trustrules-2"}));
    EXPECT_EQ(db.Int("SELECT count(*) FROM UserList;"), 0);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems;"), 1);
}

TEST(DalImport, WrongShapesAreSkippedByIndex) {
    std::string path = StartInScratch();
    const std::string good = Repeat("ab", 32);
    // Elements 0 to 11 are bad, 12 and 13 good.
    std::string rules = R"({"rules": [
        5,
        {"sha256": ")" + Repeat("zz", 32) +
                        R"("},
        {"sha256": ")" + Repeat("ab", 31) +
                        R"("},
        {"sha256": ")" + good +
                        R"(", "size": -1},
        {"sha256": ")" + good +
                        R"(", "size": "12a"},
        {"sha256": ")" + good +
                        R"(", "size": 1e300},
        {"sha256": ")" + good +
                        R"(", "size": "99999999999999999999999"},
        {"sha256": 7},
        {"sha256": ")" + good +
                        R"(", "action": 5},
        {"sha256": ")" + good +
                        R"(", "fileName": []},
        {"md5": ")" + Repeat("ab", 17) +
                        R"("},
        {"sha1": ")" + good +
                        R"("},
        {"sha256": ")" + good +
                        R"(", "size": "42", "fileName": "ok1"},
        {"sha256": ")" + good +
                        R"(", "size": 43.0, "fileName": "ok2"}
    ]})";
    LogCapture::Get().Clear();
    ASSERT_EQ(Import(false, rules, "Shapes"), ZELK_STATUS_SUCCESS);
    {
        Db db(path);
        EXPECT_EQ(db.Column("SELECT fileName || size FROM InventoryItems ORDER BY "
                            "inventoryItemId;"),
                  (std::vector<std::string>{"ok142", "ok243"}));
    }
    for (int index = 0; index < 12; ++index) {
        EXPECT_EQ(WarningsContaining("Skipping rules[" + std::to_string(index) +
                                     "] of ruleset "
                                     "Shapes"),
                  1u)
            << index;
    }
    EXPECT_EQ(ZELKStats::GetStats().GetType(3, "Shapes"), 2);

    // A "rules" that is not an array imports nothing and is not an error.
    ASSERT_EQ(Import(true, R"({"rules": {"sha256": "x"}})", "NotArray"), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(LogCapture::Get().Contains(
        "\"rules\" of ruleset NotArray is not an array; nothing imported from it"));

    std::string trust = R"({"Trustrules": [
        "text", {"trustType": "x"}, {"sha256": "ab"}, {"processName": 5}, {"trustType": -2},
        {"issuerO": {}}, {"processName": "/bin/ok", "trustType": 2}
    ], "Userlists": {"id": "a"}})";
    ASSERT_EQ(Import(false, trust, "ShapeTrustRules"), ZELK_STATUS_SUCCESS);
    for (int index = 0; index < 6; ++index) {
        EXPECT_EQ(WarningsContaining("Trustrules[" + std::to_string(index) + "]"), 1u) << index;
    }
    Db db(path);
    EXPECT_EQ(db.Column("SELECT processName FROM TrustRules;"),
              (std::vector<std::string>{"/bin/ok"}));
}

TEST(DalImport, RejectedDocumentsChangeNothing) {
    std::string path = StartInScratch();
    {
        Db db(path);
        InsertItem(db, 1, "agent");
        InsertItem(db, 2, "rule");
        db.Exec("INSERT INTO TrustRules(processName, trustType) VALUES('/bin/rpm', 1);");
    }
    const std::string good = Repeat("ab", 32);
    const std::vector<std::string> documents = {
        "",
        "   ",
        "not json",
        R"({"rules": [)",
        R"({"rules": [{"sha256": ")" + good.substr(0, 10),
        R"({"rules": [{"sha256": ")" + good + R"("}]} trailing)",
        R"({"rules": [{"sha256": ")" + good + R"("},]})",
        Repeat("[", 1 << 20),
        Repeat(R"({"a":)", 1 << 18),
        R"([{"sha256": ")" + good + R"("}])",
        "42",
        "null",
    };
    for (const char* name : {"Weekly", "Agent", "TrustRules"}) {
        for (size_t i = 0; i < documents.size(); ++i) {
            LogCapture::Get().Clear();
            EXPECT_EQ(Import(false, documents[i], name), ZELK_STATUS_FAILURE) << name << " " << i;
        }
    }
    EXPECT_TRUE(LogCapture::Get().Contains("Ruleset parse error ") ||
                LogCapture::Get().CountContaining("is not a JSON object") > 0);
    Db db(path);
    EXPECT_EQ(db.Column("SELECT fileName FROM InventoryItems ORDER BY inventoryItemId;"),
              (std::vector<std::string>{"agent", "rule"}));
    EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules;"), 1);
    EXPECT_EQ(db.Setting("agentVersion"), "");
}

TEST(DalImport, RulesetFiles) {
    std::string path = StartInScratch();
    std::string dir = path.substr(0, path.rfind('/'));
    std::string file = dir + "/weekly.json";
    // Written without a terminating zero, as any file is.
    zelktest::WriteFile(file, R"({"rules": [{"sha256": ")" + Repeat("0f", 32) +
                                  R"(", "size": 9, "action": "block"}]})");
    ASSERT_EQ(set_ruleset(false, file.c_str(), "FromFile"), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(set_ruleset(true, file.c_str(), nullptr), ZELK_STATUS_SUCCESS);
    {
        Db db(path);
        EXPECT_EQ(db.Column("SELECT quote(ruleset) || isAuthorized FROM InventoryItems ORDER BY "
                            "inventoryItemId;"),
                  (std::vector<std::string>{"'FromFile'0", "''0"}));
    }

    LogCapture::Get().Clear();
    EXPECT_EQ(set_ruleset(false, (dir + "/missing.json").c_str(), "x"), ZELK_STATUS_FAILURE);
    EXPECT_TRUE(LogCapture::Get().Contains(
        "ZELKDAL::ImportRuleset Unable to get ruleset file information"));
    EXPECT_EQ(set_ruleset(false, dir.c_str(), "x"), ZELK_STATUS_FAILURE);
    zelktest::WriteFile(file, R"({"rules": [)");
    EXPECT_EQ(set_ruleset(false, file.c_str(), "x"), ZELK_STATUS_FAILURE);
    zelktest::WriteFile(file, "");
    EXPECT_EQ(set_ruleset(false, file.c_str(), "x"), ZELK_STATUS_FAILURE);
    Db db(path);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems;"), 2);
}
