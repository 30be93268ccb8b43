// Ruleset import through set_ruleset_buffer and set_ruleset on a real
// database file: what each kind replaces, and documents of the wrong shape.
#include <gtest/gtest.h>

#include <regex>
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
using Rows = std::vector<std::string>;

namespace {

// Expands "<ab*32>" to "ab" written 32 times, so digests stay readable in JSON.
std::string X(std::string text) {
    static const std::regex token("<([^<>*]+)\\*(\\d+)>");
    for (std::smatch m; std::regex_search(text, m, token);) {
        std::string out;
        for (int i = std::stoi(m[2]); i > 0; --i) {
            out += m[1];
        }
        text.replace(m.position(0), m.length(0), out);
    }
    return text;
}

std::string StartInScratch() {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(path);
    EXPECT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    return path;
}

uint32_t Import(bool incremental, const std::string& json, const char* name) {
    return set_ruleset_buffer(incremental, X(json).c_str(), name);
}

uint32_t Found(const std::string& sha256, uint64_t size) {
    ac_event event;
    event.fileSha256.SetHash(sha256);
    event.size = size;
    EXPECT_TRUE(ZELKDAL::GetDAL().IsAllowedInDB(event));
    return event.isAuthorized;
}

void InsertItem(Db& db, int source, const std::string& fileName) {
    db.Exec(
        "INSERT INTO InventoryItems(fileName, sha256, size, isAuthorized, source, ruleset) "
        "VALUES('" +
        fileName + "', randomblob(32), 1, 1, " + std::to_string(source) + ", '');");
}

}  // namespace

TEST(DalImport, HashRulesetIsStoredAndFoundByDigestAndSize) {
    std::string path = StartInScratch();
    LogCapture::Get().Clear();
    // Mixed-case hex; size as text and number; action names; a rule without SHA-256.
    ASSERT_EQ(Import(false, R"({"rules": [
        {"sha256": "<Ab*32>", "size": "1234", "action": "allow", "fileName": "a.bin"},
        {"sha256": "<cd*32>", "size": 1234, "action": "block", "fileName": "b.bin"},
        {"sha256": "<ef*32>", "size": 0, "action": "allowed"},
        {"sha256": "<12*32>", "size": 5, "action": "deny"},
        {"sha1": "<34*20>", "md5": "<56*16>", "size": 7, "action": "allow", "fileName": null}]})",
                     "Weekly"),
              ZELK_STATUS_SUCCESS);
    Db db(path);
    EXPECT_EQ(
        db.Column("SELECT lower(hex(sha256)) || ' ' || size || ' ' || typeof(size) || ' ' "
                  "|| isAuthorized || ' ' || source || ' ' || ruleset || ' ' || "
                  "ifnull(nullif(fileName, ''), '-') || lower(hex(sha1)) || lower(hex(md5)) "
                  "FROM InventoryItems ORDER BY inventoryItemId;"),
        (Rows{X("<ab*32> 1234 integer 1 2 Weekly a.bin"),
              X("<cd*32> 1234 integer 0 2 Weekly b.bin"), X("<ef*32> 0 integer 1 2 Weekly -"),
              X("<12*32> 5 integer 3 2 Weekly -"), X(" 7 integer 1 2 Weekly -<34*20><56*16>")}));
    EXPECT_TRUE(
        LogCapture::Get().Contains("Unhandled authorizedState 0, default to on the allow list(3)"));
    EXPECT_TRUE(LogCapture::Get().Contains("Importing item ruleset into db: Weekly"));
    EXPECT_EQ(ZELKStats::GetStats().GetType(3, "Weekly"), 5);
    EXPECT_EQ(ZELKDAL::GetDAL().GetMD5RuleCount(), 1);
    EXPECT_EQ(ZELKDAL::GetDAL().GetSHA1RuleCount(), 1);

    // Found by SHA-256 and size; size 0 in the rule matches any size.
    EXPECT_EQ(Found(X("<ab*32>"), 1234), 1u);
    EXPECT_EQ(Found(X("<ab*32>"), 1235), 0u);
    EXPECT_EQ(Found(X("<cd*32>"), 1234), 2u);
    EXPECT_EQ(Found(X("<ef*32>"), 987654), 1u);
}

TEST(DalImport, EachKindReplacesOnlyWhatItOwns) {
    std::string path = StartInScratch();
    Db db(path);
    for (int source = 1; source <= 4; ++source) {
        InsertItem(db, source, "old" + std::to_string(source));
    }
    db.Exec("INSERT INTO TrustRules(processName, trustType) VALUES('/bin/rpm', 1);");
    db.Exec("INSERT INTO UserList(id, user) VALUES('l', 'root');");
    ZELKStats& stats = ZELKStats::GetStats();
    stats.SetType(3, "rulesetOld", 4);
    stats.SetType(3, "trustOld", 2);
    const std::string rule = R"({"rules": [{"sha256": "<aa*32>"}]})";
    auto items = [&] {
        return db.Column(
            "SELECT source || ':' || ifnull(nullif(ruleset, ''), fileName) FROM "
            "InventoryItems ORDER BY source, inventoryItemId;");
    };

    // A non-incremental hash ruleset removes every source-2 row and nothing else.
    ASSERT_EQ(Import(false, rule, "Weekly"), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(Import(true, rule, "Daily"), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(items(), (Rows{"1:old1", "2:Weekly", "2:Daily", "3:old3", "4:old4"}));
    EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules;"), 1);
    EXPECT_EQ(stats.GetType(3, "rulesetOld"), 0);
    EXPECT_EQ(stats.GetType(3, "trustOld"), 2);

    // The agent manifest (any case, even when it also says "trustrules") records
    // the version, sets the flag and replaces agent, ruleset and trust rows.
    config.SetManifestApplied(false);
    LogCapture::Get().Clear();
    ASSERT_EQ(Import(false, rule, "Agent_TrustRules_Manifest.json"), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(config.GetManifestApplied());
    EXPECT_TRUE(LogCapture::Get().Contains("Manifest applied to version 12.0.178"));
    EXPECT_EQ(db.Setting("agentVersion"), "12.0.178");
    EXPECT_EQ(items(), (Rows{"1:Agent_TrustRules_Manifest.json", "3:old3", "4:old4"}));
    EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules;") + db.Int("SELECT count(*) FROM UserList;"),
              0);
    EXPECT_FALSE(ZELKDAL::GetDAL().HasTrustRules());
    EXPECT_EQ(stats.GetType(3, "trustOld"), 0);
    EXPECT_EQ(stats.GetType(3, "Agent_TrustRules_Manifest.json"), 1);

    // A document without "rules" still purges and succeeds.
    ASSERT_EQ(Import(false, "{}", "weekly"), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE source = 1;"), 1);
}

TEST(DalImport, TrustRulesAndUserListsWithNullForEmptyTexts) {
    std::string path = StartInScratch();
    LogCapture::Get().Clear();
    ASSERT_EQ(Import(false, R"({"Trustrules": [
        {"processName": "/usr/bin/*", "paths": "/opt/a/*;/opt/b", "trustType": "2",
         "signerName": "", "sha256": "<9F*32>", "issuerCN": "CA", "issuerOU": "Unit",
         "user": "root", "group": null},
        {"trustType": 3, "userList": "admins", "companyName": "ACME"}
    ], "Userlists": [
        {"id": "admins", "users": ["alice", "bob", 5]}, {"id": "", "users": ["x"]},
        {"id": "x", "users": "not a list"}, "not an object"]})",
                     "MyTrustRules"),
              ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(ZELKDAL::GetDAL().HasTrustRules());
    EXPECT_EQ(ZELKStats::GetStats().GetType(3, "MyTrustRules"), 2);
    Db db(path);
    EXPECT_EQ(
        db.Column("SELECT quote(processName) ||' '|| quote(paths) ||' '|| trustType ||' '|| "
                  "typeof(trustType) ||' '|| quote(signerName) ||' '|| quote(productName) ||' '|| "
                  "quote(companyName) ||' '|| quote(sha256) ||' '|| "
                  "quote(issuerCN) ||' '|| quote(issuerC) ||' '|| quote(issuerOU) ||' '|| "
                  "quote(procUser) ||' '|| quote(procGroup) ||' '|| quote(userList) ||' '|| "
                  "ruleset FROM TrustRules ORDER BY trustRuleId;"),
        (Rows{X("'/usr/bin/*' '/opt/a/*;/opt/b' 2 integer NULL NULL NULL X'<9F*32>' 'CA' NULL "
                "'Unit' 'root' NULL NULL MyTrustRules"),
              "NULL NULL 3 integer NULL NULL 'ACME' NULL NULL NULL NULL NULL NULL 'admins' "
              "MyTrustRules"}));
    EXPECT_EQ(db.Column("SELECT id || ':' || user FROM UserList ORDER BY user;"),
              (Rows{"admins:alice", "admins:bob"}));

    // Non-incremental trust rules replace rules and lists alike; hash rows stay.
    InsertItem(db, 2, "kept");
    ASSERT_EQ(Import(false, R"({"Trustrules": [{"trustType": 4}]})", "trustrules-2"),
              ZELK_STATUS_SUCCESS);
    EXPECT_EQ(db.Column("SELECT trustType || ruleset FROM TrustRules;"), (Rows{"4trustrules-2"}));
    EXPECT_EQ(db.Int("SELECT count(*) FROM UserList;"), 0);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems;"), 1);
}

// Elements are read as the document gives them, never judged or skipped:
// every element is a rule.  Digest texts decode pair by pair through the
// digest table whatever their characters and length; numbers given as text
// go through strtol; members of another type leave their field empty.
TEST(DalImport, ElementsAreReadAsGivenNeverSkipped) {
    std::string path = StartInScratch();
    const std::vector<std::string> rules = {
        "5",                                              // 1: no members at all
        R"({"sha256": "<zz*32>", "fileName": "zz"})",     // 2: 'z' reads as 0
        R"({"sha256": "<ab*31>", "fileName": "short"})",  // 3: last byte stays 0
        R"({"sha256": "<ab*32>", "size": -1})",           // 4
        R"({"sha256": "<ab*32>", "size": "12abc"})",      // 5: strtol stops at 'a'
        R"({"sha256": "<ab*32>", "size": " 2"})",         // 6: leading blank
        R"({"sha256": "<ab*32>", "size": "abc"})",        // 7: no digits
        R"({"sha256": 7, "fileName": "nodigest"})",       // 8: not a string
        R"({"sha256": "<ab*32>", "action": 5})",          // 9: no action
        R"({"sha256": "<ab*32>", "fileName": []})",       // 10: no name
        R"({"md5": "<ab*17>", "fileName": "md5long"})",   // 11: extra text ignored
        R"({"sha256": "<ab*32>", "size": "42", "fileName": "ok"})"};
    std::string document = "{\"rules\": [";
    for (size_t i = 0; i < rules.size(); ++i) {
        document += (i ? ", " : "") + rules[i];
    }
    ASSERT_EQ(Import(false, document + "]}", "Shapes"), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(ZELKStats::GetStats().GetType(3, "Shapes"), static_cast<long>(rules.size()));
    Db db(path);
    EXPECT_EQ(db.Column("SELECT quote(fileName) ||' '|| size ||' '|| quote(sha256) ||' '|| "
                        "isAuthorized FROM InventoryItems ORDER BY inventoryItemId;"),
              (Rows{"'' 0 NULL 3", X("'zz' 0 X'<00*32>' 3"), X("'short' 0 X'<AB*31>00' 3"),
                    X("'' -1 X'<AB*32>' 3"), X("'' 12 X'<AB*32>' 3"), X("'' 2 X'<AB*32>' 3"),
                    X("'' 0 X'<AB*32>' 3"), "'nodigest' 0 NULL 3", X("'' 0 X'<AB*32>' 3"),
                    X("'' 0 X'<AB*32>' 3"), "'md5long' 0 NULL 3", X("'ok' 42 X'<AB*32>' 3")}));
    EXPECT_EQ(db.Text("SELECT quote(md5) FROM InventoryItems WHERE fileName = 'md5long';"),
              X("X'<AB*16>'"));
    EXPECT_EQ(LogCapture::Get().CountContaining("Skipping"), 0u);

    // A "rules" that is not an array imports nothing and is not an error.
    ASSERT_EQ(Import(true, R"({"rules": {"sha256": "x"}})", "NotArray"), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE ruleset = 'NotArray';"), 0);

    // Trust rules likewise: a sha256 of any text is decoded and stored, a
    // trust type as text goes through strtol.
    const std::vector<std::string> trust = {
        R"({"trustType": "12abc", "processName": "a"})",
        R"({"trustType": " 2", "processName": "b"})", R"({"trustType": "x", "processName": "c"})",
        R"({"sha256": "zz", "processName": "d"})", R"({"processName": 5, "trustType": 3})"};
    std::string trustDocument = "{\"Trustrules\": [";
    for (size_t i = 0; i < trust.size(); ++i) {
        trustDocument += (i ? ", " : "") + trust[i];
    }
    ASSERT_EQ(Import(false, trustDocument + "]}", "ShapeTrustRules"), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(
        db.Column("SELECT quote(processName) ||' '|| trustType ||' '|| quote(sha256) FROM "
                  "TrustRules ORDER BY trustRuleId;"),
        (Rows{"'a' 12 NULL", "'b' 2 NULL", "'c' 0 NULL", X("'d' 0 X'<00*32>'"), "NULL 3 NULL"}));
}

TEST(DalImport, RejectedDocumentsChangeNothing) {
    std::string path = StartInScratch();
    Db db(path);
    InsertItem(db, 1, "agent");
    InsertItem(db, 2, "rule");
    db.Exec("INSERT INTO TrustRules(processName, trustType) VALUES('/bin/rpm', 1);");
    // Empty, truncated, trailing comma, 1 MB of nesting.
    const std::vector<std::string> documents = {"",
                                                "   ",
                                                "not json",
                                                R"({"rules": [)",
                                                R"({"rules": [{"sha256": "<ab*5>)",
                                                R"({"rules": [{"sha256": "<ab*32>"},]})",
                                                "<[*1048576>",
                                                R"(<{"a":*262144>)"};
    for (const char* name : {"Weekly", "Agent", "TrustRules"}) {
        for (size_t i = 0; i < documents.size(); ++i) {
            EXPECT_EQ(Import(false, documents[i], name), ZELK_STATUS_FAILURE) << name << " " << i;
        }
    }
    EXPECT_TRUE(LogCapture::Get().CountContaining("Ruleset parse error ") > 0);
    EXPECT_EQ(db.Column("SELECT fileName FROM InventoryItems ORDER BY inventoryItemId;"),
              (Rows{"agent", "rule"}));
    EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules;"), 1);
    EXPECT_EQ(db.Setting("agentVersion"), "");

    // Valid JSON of another shape is a policy with nothing in it: it succeeds,
    // and a full hash ruleset still replaces the source-2 rows.
    for (const char* document : {R"([{"sha256": "x"}])", "42", "null"}) {
        EXPECT_EQ(Import(false, document, "Weekly"), ZELK_STATUS_SUCCESS) << document;
    }
    EXPECT_EQ(db.Column("SELECT fileName FROM InventoryItems ORDER BY inventoryItemId;"),
              (Rows{"agent"}));
    // Text after the document is ignored, as the parser has always done.
    EXPECT_EQ(Import(false, R"({"rules": [{"sha256": "<ab*32>"}]} trailing)", "Weekly"),
              ZELK_STATUS_SUCCESS);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE source = 2;"), 1);
}

TEST(DalImport, RulesetFiles) {
    std::string path = StartInScratch();
    std::string dir = path.substr(0, path.rfind('/'));
    std::string file = dir + "/weekly.json";
    // Written without a terminating zero, as any file is.
    zelktest::WriteFile(file,
                        X(R"({"rules": [{"sha256": "<0f*32>", "size": 9, "action": "block"}]})"));
    ASSERT_EQ(set_ruleset(false, file.c_str(), "FromFile"), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(set_ruleset(true, file.c_str(), nullptr), ZELK_STATUS_SUCCESS);
    Db db(path);
    EXPECT_EQ(db.Column("SELECT quote(ruleset) || isAuthorized FROM InventoryItems ORDER BY "
                        "inventoryItemId;"),
              (Rows{"'FromFile'0", "''0"}));

    LogCapture::Get().Clear();
    EXPECT_EQ(set_ruleset(false, (dir + "/missing.json").c_str(), "x"), ZELK_STATUS_FAILURE);
    EXPECT_TRUE(LogCapture::Get().Contains(
        "ZELKDAL::ImportRuleset Unable to get ruleset file information"));
    EXPECT_EQ(set_ruleset(false, dir.c_str(), "x"), ZELK_STATUS_FAILURE);  // a folder
    for (const char* content : {R"({"rules": [)", ""}) {
        zelktest::WriteFile(file, content);
        EXPECT_EQ(set_ruleset(false, file.c_str(), "x"), ZELK_STATUS_FAILURE) << content;
    }
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems;"), 2);
}
