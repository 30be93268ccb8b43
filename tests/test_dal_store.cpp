// Storing inventory items, trust rules and user lists: single stores, the
// pending queues with their one-transaction flush, rollback of a failing
// batch, deletion and WhitelistFile, through the exported functions where the
// host reaches them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKStats.h"
#include "zelk.h"

using zelktest::Db;
using zelktest::LogCapture;

namespace {

std::string Start() {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(path);
    EXPECT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    return path;
}

// A host item record for /opt/<name>; the strings live as long as the Item.
struct Item {
    ac_db_item_s raw;
    std::string fileName, nativePath;
    Item(const std::string& name, bool authorized) : fileName(name), nativePath("/opt/" + name) {
        memset(&raw, 0, sizeof(raw));
        memset(raw.md5, 0x11, sizeof(raw.md5));
        memset(raw.sha1, 0x22, sizeof(raw.sha1));
        memset(raw.sha256, 0x33, sizeof(raw.sha256));
        raw.source = 3;
        raw.size = 42;
        raw.authorized = authorized ? 1 : 0;
        raw.fileName = fileName.c_str();
        raw.path = "/opt/";
        raw.nativePath = nativePath.c_str();
        raw.ruleset = "rs";
    }
};

ac_event Event(const std::string& name, uint32_t source = 3) {
    ac_event event;
    event.fileName = name;
    event.path = "/opt/";
    event.name = "/opt/" + name;
    event.nativePath = event.name;
    event.source = source;
    event.authorizedState = 3;
    event.fileSha256 = SHA256Hash(std::string(32, 'x').data());
    return event;
}

int64_t Rows(Db& db, const std::string& where = "1") {
    return db.Int("SELECT count(*) FROM InventoryItems WHERE " + where + ";");
}

// The store takes events by reference; these take a temporary.
bool Buffer(ac_event event) {
    return ZELKDAL::GetDAL().StoreItemBuffer(event);
}
bool Store(ac_event event) {
    return ZELKDAL::GetDAL().StoreItem(event);
}
bool Delete(ac_event event) {
    return ZELKDAL::GetDAL().DeleteInventoryItems(event);
}

}  // namespace

class DalStore : public ::testing::Test {
  protected:
    ~DalStore() override { engine_stop(); }
    std::string path = Start();
    Db db{path};
    ZELKDAL& dal = ZELKDAL::GetDAL();
};

TEST_F(DalStore, StoreItemThroughTheHostInterface) {
    Item allowed("a", true);
    Item refused("b", false);
    EXPECT_EQ(store_item(&allowed.raw, false), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(store_item(&refused.raw, false), ZELK_STATUS_SUCCESS);
    const std::string digests = std::string(32, '1') + std::string(40, '2') + std::string(64, '3');
    EXPECT_EQ(db.Column("SELECT fileName || '|' || path || '|' || nativePath || '|' || hex(md5) || "
                        "hex(sha1) || hex(sha256) || '|' || size || '|' || isAuthorized || '|' || "
                        "source || '|' || ruleset FROM InventoryItems ORDER BY inventoryItemId;"),
              (std::vector<std::string>{"a|/opt/|/opt/a|" + digests + "|42|1|3|rs",
                                        "b|/opt/|/opt/b|" + digests + "|42|0|3|rs"}));

    // Every pointer field is required.
    Item incomplete("c", true);
    incomplete.raw.ruleset = nullptr;
    EXPECT_EQ(store_item(&incomplete.raw, false), ZELK_STATUS_BAD_ITEM);
    incomplete.raw.ruleset = "rs";
    incomplete.raw.nativePath = nullptr;
    EXPECT_EQ(store_item(&incomplete.raw, true), ZELK_STATUS_BAD_ITEM);

    // Buffered items wait for the flush; a flush with nothing queued fails.
    Item queued("d", true);
    EXPECT_EQ(store_item(&queued.raw, true), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Rows(db, "fileName = 'd'"), 0);
    EXPECT_EQ(flush_db_buffer(), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Rows(db, "fileName = 'd'"), 1);
    EXPECT_EQ(flush_db_buffer(), ZELK_STATUS_FAILURE);

    // A trust-rule flush alone makes the call succeed.
    ac_trust_rule rule;
    rule.processName = "/bin/x";
    ASSERT_TRUE(ZELKDAL::GetDAL().StoreTrustRuleBuffer(rule));
    EXPECT_EQ(flush_db_buffer(), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules;"), 1);
}

TEST_F(DalStore, MissingDigestsAndUnknownStates) {
    ac_event event = Event("nodigest");
    event.fileSha256 = SHA256Hash();
    event.authorizedState = 0;
    ASSERT_TRUE(dal.StoreItem(event));
    EXPECT_EQ(db.Text("SELECT quote(md5) || quote(sha1) || quote(sha256) || isAuthorized FROM "
                      "InventoryItems;"),
              "NULLNULLNULL3");
    EXPECT_TRUE(
        LogCapture::Get().Contains("Unhandled authorizedState 0, default to on the allow list(3)"));

    for (uint32_t state : {1u, 2u, 4u}) {
        ac_event e = Event("state" + std::to_string(state));
        e.authorizedState = state;
        ASSERT_TRUE(dal.StoreItem(e));
    }
    EXPECT_EQ(db.Column("SELECT isAuthorized FROM InventoryItems WHERE fileName LIKE 'state%' "
                        "ORDER BY fileName;"),
              (std::vector<std::string>{"1", "0", "1"}));
}

TEST_F(DalStore, QueueFlushesPast1000InOneTransaction) {
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(Buffer(Event("f" + std::to_string(i)))) << i;
    }
    EXPECT_EQ(Rows(db), 0);
    ASSERT_TRUE(Buffer(Event("f1000")));
    EXPECT_EQ(Rows(db), 1001);
    EXPECT_EQ(LogCapture::Get().CountContaining("StoreItemFlushInternal - 1001 items"), 1u);
    EXPECT_FALSE(dal.StoreItemFlush());

    // Shutdown writes whatever is still queued.
    ASSERT_TRUE(Buffer(Event("late")));
    ASSERT_TRUE(dal.StoreUserListBuffer({"admins", "carol"}));
    EXPECT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Rows(db, "fileName = 'late'"), 1);
    EXPECT_EQ(db.Text("SELECT id || ':' || user FROM UserList;"), "admins:carol");
}

TEST_F(DalStore, FailingBatchRollsBackAsAWhole) {
    // Each table refuses a row named 'bad' in the middle of a batch.
    for (std::string column : {"InventoryItems.fileName", "TrustRules.ruleset", "UserList.user"}) {
        const std::string table = column.substr(0, column.find('.'));
        db.Exec("CREATE TRIGGER refuse" + table + " BEFORE INSERT ON " + table + " WHEN NEW." +
                column.substr(table.size() + 1) + " = 'bad' BEGIN SELECT RAISE(ABORT, 'x'); END;");
    }

    for (const char* name : {"one", "two", "bad", "three"}) {
        ASSERT_TRUE(Buffer(Event(name)));
    }
    EXPECT_FALSE(dal.StoreItemFlush());
    EXPECT_EQ(Rows(db), 0);
    EXPECT_FALSE(dal.StoreItemFlush());  // the failed batch is gone

    ac_trust_rule good, bad;
    good.ruleset = "good";
    bad.ruleset = "bad";
    ASSERT_TRUE(dal.StoreTrustRuleBuffer(good) && dal.StoreTrustRuleBuffer(bad));
    EXPECT_FALSE(dal.StoreTrustRuleFlush());
    EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules;"), 0);
    EXPECT_FALSE(dal.HasTrustRules());

    ASSERT_TRUE(dal.StoreUserListBuffer({"l", "ok"}) && dal.StoreUserListBuffer({"l", "bad"}));
    EXPECT_FALSE(dal.StoreUserListFlush());
    EXPECT_EQ(db.Int("SELECT count(*) FROM UserList;"), 0);

    // The store is usable afterwards: no transaction was left open.
    ASSERT_TRUE(Buffer(Event("four")));
    EXPECT_TRUE(dal.StoreItemFlush());
    EXPECT_TRUE(Store(Event("five")));
    EXPECT_EQ(Rows(db), 2);
    ASSERT_TRUE(dal.StoreTrustRuleBuffer(good));
    EXPECT_TRUE(dal.StoreTrustRuleFlush());
    EXPECT_TRUE(dal.HasTrustRules());
}

TEST_F(DalStore, DeleteWhitelistAndExclusion) {
    // Rows under the folder with and without its trailing slash; only sources 3 and 4 go.
    db.Exec(
        "INSERT INTO InventoryItems(fileName, path, source) VALUES ('f', '/opt/', 1), "
        "('f', '/opt/', 2), ('f', '/opt/', 3), ('f', '/opt/', 4), ('f', '/opt', 1), "
        "('f', '/opt', 2), ('f', '/opt', 3), ('f', '/opt', 4), ('f', '/opt/sub/', 3);");
    ASSERT_TRUE(Delete(Event("f")));
    EXPECT_EQ(db.Column("SELECT path || source FROM InventoryItems ORDER BY inventoryItemId;"),
              (std::vector<std::string>{"/opt/1", "/opt/2", "/opt1", "/opt2", "/opt/sub/3"}));
    EXPECT_EQ(ZELKStats::GetStats().Get("TotalDeletedEvents"), 4);

    // A drift file replaces its scanned row at once; a scanned one is queued.
    db.Exec("INSERT INTO InventoryItems(fileName, path, source) VALUES('g', '/opt/', 3);");
    ac_event drift = Event("g", 0);
    EXPECT_TRUE(dal.WhitelistFile(drift));
    EXPECT_EQ(db.Column("SELECT source FROM InventoryItems WHERE fileName = 'g';"),
              std::vector<std::string>{"4"});
    ac_event scanned = Event("h", 3);
    EXPECT_TRUE(dal.WhitelistFile(scanned));
    EXPECT_EQ(Rows(db, "fileName = 'h'"), 0);
    EXPECT_TRUE(dal.StoreItemFlush());
    EXPECT_EQ(Rows(db, "fileName = 'h'"), 1);

    // An exclude rule keeps matching files out of the inventory.
    ac_trust_rule exclude;
    exclude.paths = "/opt/skip/";
    exclude.trustType = 3;
    ASSERT_TRUE(dal.StoreTrustRuleBuffer(exclude));
    ASSERT_TRUE(dal.StoreTrustRuleFlush());
    ac_event skipped = Event("x");
    skipped.path = "/opt/skip/";
    skipped.name = "/opt/skip/x";
    EXPECT_FALSE(dal.StoreItem(skipped));
    EXPECT_FALSE(dal.StoreItemBuffer(skipped));
    EXPECT_FALSE(dal.StoreItemFlush());
    EXPECT_EQ(Rows(db, "fileName = 'x'"), 0);
    EXPECT_EQ(ZELKStats::GetStats().Get("InventoryItemExcludedByTrustRule"), 2);
    EXPECT_TRUE(Store(Event("y")));
}
