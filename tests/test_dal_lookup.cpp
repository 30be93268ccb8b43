// The allow lookup and the trust-rule lookup on a real database file: rows
// are written through a second connection (or the store's own rule queues)
// and looked up through the store.
#include <gtest/gtest.h>

#include <cstdio>
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

// The SQL literal of a digest made of one repeated byte.
std::string Blob(char c, size_t n) {
    char hex[3];
    snprintf(hex, sizeof(hex), "%02x", static_cast<unsigned char>(c));
    std::string out = "x'";
    for (size_t i = 0; i < n; ++i) {
        out += hex;
    }
    return out + "'";
}

struct Fixture {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    Fixture() {
        ac_engine_start_s start = zelktest::StartRecord(path);
        EXPECT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    }
    ~Fixture() { engine_stop(); }
};

// Inserts one row; "NULL" digests stay NULL.  Returns its id.
int64_t Insert(Db& db, int source, int authorized, const std::string& sha256, int64_t size,
               const std::string& sha1 = "NULL", const std::string& md5 = "NULL",
               const std::string& ruleset = "", int64_t id = 0) {
    db.Exec(
        "INSERT INTO InventoryItems(inventoryItemId, fileName, path, sha256, sha1, md5, size, "
        "isAuthorized, source, ruleset) VALUES(" +
        (id != 0 ? std::to_string(id) : std::string("NULL")) + ", 'f', '/d/', " + sha256 + ", " +
        sha1 + ", " + md5 + ", " + std::to_string(size) + ", " + std::to_string(authorized) + ", " +
        std::to_string(source) + ", '" + ruleset + "');");
    return db.Int("SELECT max(inventoryItemId) FROM InventoryItems;");
}

ac_event FileEvent(char sha256, uint64_t size) {
    ac_event event;
    if (sha256 != 0) {
        event.fileSha256 = SHA256Hash(std::string(32, sha256).data());
    }
    event.size = size;
    return event;
}

// Runs the allow lookup; "-" when it cannot run, else
// "isAuthorized/authorizedState source ruleset".
std::string Look(ac_event event) {
    if (!ZELKDAL::GetDAL().IsAllowedInDB(event)) {
        return "-";
    }
    return std::to_string(event.isAuthorized) + "/" + std::to_string(event.authorizedState) + " " +
           std::to_string(event.source) + " " + event.ruleset;
}

ac_event WithOld(ac_event event, char sha1, char md5) {
    if (sha1 != 0) {
        event.fileSha1 = SHA1Hash(std::string(20, sha1).data());
    }
    if (md5 != 0) {
        event.fileMd5 = MD5Hash(std::string(16, md5).data());
    }
    return event;
}

}  // namespace

TEST(DalAllowLookup, OrderOfLookupsAndSizes) {
    Fixture f;
    Db db(f.path);
    // Source 2 wins over a newer source-3 row of the same file.
    Insert(db, 2, 1, Blob('a', 32), 100, "NULL", "NULL", "rs-a");
    Insert(db, 3, 1, Blob('a', 32), 100);
    Insert(db, 3, 1, Blob('b', 32), 0);   // size 0: any size
    Insert(db, 3, 1, Blob('c', 32), 50);  // only size 50
    // Rules without SHA-256, findable by their older digests only.
    Insert(db, 2, 1, "NULL", 0, Blob('s', 20), "NULL", "rs-sha1");
    Insert(db, 2, 1, "NULL", 0, "NULL", Blob('m', 16), "rs-md5");
    // A row with a SHA-256 is never found by its SHA-1.
    Insert(db, 2, 1, Blob('d', 32), 0, Blob('t', 20));

    EXPECT_EQ(Look(FileEvent('a', 100)), "1/3 2 rs-a");
    EXPECT_EQ(Look(FileEvent('b', 123456)), "1/3 3 ");
    ac_event wrongSize = FileEvent('c', 51);
    wrongSize.isAuthorized = wrongSize.authorizedState = 7;
    EXPECT_EQ(Look(wrongSize), "0/0 0 ");
    // No SHA-256: the lookup cannot run, whatever else the event carries.
    EXPECT_EQ(Look(WithOld(FileEvent(0, 0), 's', 0)), "-");

    // The alternate lookups stay off until the counts say such rules exist.
    ZELKDAL& dal = ZELKDAL::GetDAL();
    ASSERT_EQ(dal.GetSHA1RuleCount(), 0);
    EXPECT_EQ(Look(WithOld(FileEvent('z', 1), 's', 0)), "0/0 0 ");
    dal.RefreshRuleSummaries();
    ASSERT_EQ(dal.GetSHA1RuleCount(), 2);
    ASSERT_EQ(dal.GetMD5RuleCount(), 1);
    EXPECT_EQ(Look(WithOld(FileEvent('z', 1), 's', 0)), "1/3 2 rs-sha1");
    EXPECT_EQ(Look(WithOld(FileEvent('z', 1), 0, 'm')), "1/3 2 rs-md5");
    EXPECT_EQ(Look(WithOld(FileEvent('z', 1), 't', 0)), "0/0 0 ");
}

TEST(DalAllowLookup, InterpretationBySourceAndState) {
    Fixture f;
    Db db(f.path);
    Insert(db, 1, 0, Blob('1', 32), 0);  // the agent's rules always allow
    Insert(db, 2, 0, Blob('2', 32), 0);  // a refusing execution rule
    int64_t rule = Insert(db, 2, 1, Blob('3', 32), 0);
    int64_t scanned = Insert(db, 3, 1, Blob('4', 32), 0);
    int64_t drift = Insert(db, 4, 1, Blob('5', 32), 0);
    Insert(db, 4, 0, Blob('6', 32), 0);  // a refused drift row decides nothing
    // Past 2^32: the inventory check reads only the low 32 bits (5).
    Insert(db, 3, 1, Blob('7', 32), 0, "NULL", "NULL", "", (int64_t{1} << 32) + 5);

    auto lookup = [&](char digest) {
        ac_event event = FileEvent(digest, 1);
        event.isAuthorized = event.authorizedState = 77;
        std::string found = Look(event);
        return found.substr(0, found.find(' '));
    };
    EXPECT_EQ(lookup('1'), "1/3");
    EXPECT_EQ(lookup('2'), "2/2");
    EXPECT_EQ(lookup('3'), "1/3");
    EXPECT_EQ(lookup('6'), "77/77");

    // Rebuild 2: only rows newer than the rebuild start count; rebuild 1: the
    // scan confirms older rows; import 1: rows of the running import are not
    // confirmed; import 2: rows of the replaced ruleset no longer count.
    struct Step {
        int rebuild, import;
        int64_t maxInventory, maxRuleset;
        char digest;
        const char* expected;
    };
    const Step steps[] = {{2, 0, scanned, 0, '4', "2/3"},     {2, 0, scanned, 0, '5', "1/3"},
                          {2, 0, drift, 0, '5', "2/3"},       {1, 0, drift, 0, '4', "1/3"},
                          {1, 0, drift, 0, '7', "1/3"},       {1, 0, 2, 0, '4', "2/3"},
                          {1, 0, 2, 0, '7', "2/3"},           {3, 0, 2, 0, '4', "2/3"},
                          {3, 0, 2, 0, '5', "2/3"},           {0, 1, rule - 1, 0, '3', "2/2"},
                          {0, 1, rule, 0, '3', "1/3"},        {0, 2, rule, rule, '3', "2/2"},
                          {0, 2, rule, rule - 1, '3', "1/3"}, {0, 5, rule, rule - 1, '3', "2/2"}};
    for (const Step& s : steps) {
        config.SetRebuildState(s.rebuild);
        config.SetImportState(s.import);
        config.SetPreviousMaxInventoryItemId(static_cast<unsigned long>(s.maxInventory));
        config.SetPreviousMaxRulesetItemId(static_cast<unsigned long>(s.maxRuleset));
        EXPECT_EQ(lookup(s.digest), s.expected)
            << "rebuild " << s.rebuild << " import " << s.import << " max " << s.maxInventory << "/"
            << s.maxRuleset << " digest " << s.digest;
    }
    EXPECT_TRUE(LogCapture::Get().Contains("Unsupported rebuildState: 3\n"));
    EXPECT_TRUE(LogCapture::Get().Contains("Unsupported importState: 5\n"));
}

TEST(DalAllowLookup, PrelinkUpdate) {
    Fixture f;
    Db db(f.path);
    ZELKDAL& dal = ZELKDAL::GetDAL();
    ZELKStats& stats = ZELKStats::GetStats();
    db.Exec(
        "INSERT INTO InventoryItems(fileName, path, sha256, size, isAuthorized, source) "
        "VALUES('lib.so', '/lib/', " +
        Blob('o', 32) + ", 10, 1, 5);");

    ac_event event = FileEvent('n', 20);
    event.path = "/lib/";
    event.fileName = "lib.so";
    event.isAuthorized = 1;
    EXPECT_FALSE(dal.UpdatePrelinkItem(event));  // empty slot
    EXPECT_EQ(stats.Get("RunPrelinkNohash"), 1);

    dal.SetPreviousPrelinkHash(SHA256Hash(std::string(32, 'o').data()));
    EXPECT_TRUE(dal.UpdatePrelinkItem(event));
    EXPECT_EQ(stats.Get("RunPrelinkUpdated"), 1);
    EXPECT_EQ(db.Text("SELECT lower(hex(sha256)) || ' ' || size FROM InventoryItems;"),
              Blob('n', 32).substr(2, 64) + " 20");

    // No prelink row has the old digest, but the old file was known: the new
    // content is recorded.
    Insert(db, 3, 1, Blob('p', 32), 0);
    dal.SetPreviousPrelinkHash(SHA256Hash(std::string(32, 'p').data()));
    ac_event other = FileEvent('q', 5);
    other.fileName = "other";
    other.source = 3;
    other.authorizedState = 3;
    other.isAuthorized = 1;
    EXPECT_TRUE(dal.UpdatePrelinkItem(other));
    EXPECT_EQ(stats.Get("RunPrelinkApproved"), 1);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE fileName = 'other';"), 1);

    // The old file was never known: nothing is stored.
    dal.SetPreviousPrelinkHash(SHA256Hash(std::string(32, 'u').data()));
    ac_event unknown = FileEvent('r', 5);
    unknown.fileName = "unknown";
    EXPECT_FALSE(dal.UpdatePrelinkItem(unknown));
    EXPECT_EQ(stats.Get("RunPrelinkUnapproved"), 1);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE fileName = 'unknown';"), 0);
}

TEST(DalTrustLookup, WildcardsUsersGroupsListsAndHitcounts) {
    Fixture f;
    Db db(f.path);
    ZELKDAL& dal = ZELKDAL::GetDAL();
    ac_event event;
    event.processName = "/usr/bin/make";
    event.name = "/opt/app/lib/x.so";
    ASSERT_FALSE(dal.HasTrustRules());
    LogCapture::Get().Clear();
    EXPECT_FALSE(dal.IsFoundInTrustRules(2, event));
    EXPECT_EQ(LogCapture::Get().CountContaining("IsFoundInTrustRules lock"), 0u);

    // Columns: processName, paths, trustType, user, group, userList, signer, ruleset.
    const std::vector<std::vector<std::string>> rules = {
        {"/usr/bin/*", "/opt/app/**/*.so;/srv/", "2", "", "", "", "", "build"},
        {"", "", "3", "alice", "", "", "", "user"},
        {"", "", "3", "", "wheel", "", "", "group"},
        {"", "", "3", "", "", "admins", "", "list"},
        {"/bin/s?", "", "0", "", "", "", "Acme", "signer"}};
    for (const std::vector<std::string>& c : rules) {
        ac_trust_rule r;
        r.processName = c[0];
        r.paths = c[1];
        r.trustType = std::stoi(c[2]);
        r.procUser = c[3];
        r.procGroup = c[4];
        r.userList = c[5];
        r.signerName = c[6];
        r.ruleset = c[7];
        ASSERT_TRUE(dal.StoreTrustRuleBuffer(r));
    }
    ASSERT_TRUE(dal.StoreTrustRuleFlush());
    ASSERT_TRUE(dal.StoreUserListBuffer({"admins", "carol"}));
    ASSERT_TRUE(dal.StoreUserListBuffer({"admins", "dave"}));
    ASSERT_TRUE(dal.StoreUserListFlush());
    ASSERT_TRUE(dal.HasTrustRules());

    struct Case {
        const char* what;
        std::string process, name, user, group, fileSigner, processSigner;
        unsigned type;
        const char* ruleset;  // null: no match
    };
    const Case cases[] = {
        {"wildcards", "/usr/bin/make", "/opt/app/lib/x.so", "", "", "", "", 2, "build"},
        {"second path", "/usr/bin/gcc", "/srv/data", "", "", "", "", 2, "build"},
        {"other type", "/usr/bin/make", "/opt/app/lib/x.so", "", "", "", "", 4, nullptr},
        {"other process", "/usr/sbin/make", "/opt/app/lib/x.so", "", "", "", "", 2, nullptr},
        {"other path", "/usr/bin/make", "/opt/other/x.so", "", "", "", "", 2, nullptr},
        {"star stops at /", "/usr/bin/sub/make", "/srv/data", "", "", "", "", 2, nullptr},
        {"user", "/x", "/y", "alice", "", "", "", 3, "user"},
        {"other user", "/x", "/y", "bob", "", "", "", 3, nullptr},
        {"group", "/x", "/y", "bob", "users,wheel", "", "", 3, "group"},
        {"list member", "/x", "/y", "dave", "", "", "", 3, "list"},
        {"not a member", "/x", "/y", "erin", "staff", "", "", 3, nullptr},
        {"type 0, file signer", "/bin/sh", "/y", "", "", "Acme", "", 4, "signer"},
        {"type 0, wrong signer", "/bin/sh", "/y", "", "", "Other", "Acme", 4, nullptr},
        {"drift source: process signer", "/bin/sh", "/y", "", "", "", "Acme", 1, "signer"},
        {"? is one byte", "/bin/bash", "/y", "", "", "Acme", "", 4, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ac_event e;
        e.processName = c.process;
        e.name = c.name;
        e.user = c.user;
        e.group = c.group;
        e.fileSignerName = c.fileSigner;
        e.processSignerName = c.processSigner;
        bool found = dal.IsFoundInTrustRules(c.type, e);
        EXPECT_EQ(found, c.ruleset != nullptr);
        EXPECT_EQ(e.trustMatch, found ? 4u : 0u);
        EXPECT_EQ(e.ruleset, c.ruleset != nullptr ? c.ruleset : "");
    }
    // Hit counts are counted in memory and written with the store's next write.
    dal.StoreItemFlush();
    EXPECT_EQ(db.Column("SELECT ruleset || '=' || hitcount FROM TrustRules ORDER BY trustRuleId;"),
              (std::vector<std::string>{"build=2", "user=1", "group=1", "list=1", "signer=2"}));
    // Empty texts were stored as NULL ("any").
    EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules WHERE processName IS NULL AND paths IS NULL "
                     "AND signerName IS NULL AND sha256 IS NULL AND issuerCN IS NULL;"),
              3);
    EXPECT_GE(LogCapture::Get().CountContaining("IsFoundInTrustRules unlock"), 15u);
}
