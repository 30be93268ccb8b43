// The allow lookup and the trust-rule lookup on a real database file: rows
// are written through a second connection (or the store's own rule queues)
// and looked up through the store.
#include <gtest/gtest.h>

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

// A digest made of one repeated byte, and its SQL literal.
std::string Bytes(char c, size_t n) {
    return std::string(n, c);
}
std::string Blob(char c, size_t n) {
    std::string hex;
    static const char* digits = "0123456789abcdef";
    for (size_t i = 0; i < n; ++i) {
        hex += digits[(static_cast<unsigned char>(c) >> 4) & 15];
        hex += digits[static_cast<unsigned char>(c) & 15];
    }
    return "x'" + hex + "'";
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

std::string Upper(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

ac_event FileEvent(char sha256, uint64_t size) {
    ac_event event;
    if (sha256 != 0) {
        event.fileSha256 = SHA256Hash(Bytes(sha256, 32).data());
    }
    event.size = size;
    return event;
}

}  // namespace

TEST(DalAllowLookup, OrderOfLookupsAndSizes) {
    Fixture f;
    Db db(f.path);
    ZELKDAL& dal = ZELKDAL::GetDAL();
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

    ac_event event = FileEvent('a', 100);
    ASSERT_TRUE(dal.IsAllowedInDB(event));
    EXPECT_EQ(event.source, 2u);
    EXPECT_EQ(event.ruleset, "rs-a");
    EXPECT_EQ(event.isAuthorized, 1u);
    EXPECT_EQ(event.authorizedState, 3u);

    event = FileEvent('b', 123456);
    ASSERT_TRUE(dal.IsAllowedInDB(event));
    EXPECT_EQ(event.isAuthorized, 1u);
    EXPECT_EQ(event.source, 3u);

    event = FileEvent('c', 51);
    event.isAuthorized = 7;
    event.authorizedState = 7;
    ASSERT_TRUE(dal.IsAllowedInDB(event));
    EXPECT_EQ(event.isAuthorized, 0u);
    EXPECT_EQ(event.authorizedState, 0u);

    // No SHA-256: the lookup cannot run, whatever else the event carries.
    event = FileEvent(0, 0);
    event.fileSha1 = SHA1Hash(Bytes('s', 20).data());
    event.isAuthorized = 7;
    EXPECT_FALSE(dal.IsAllowedInDB(event));
    EXPECT_EQ(event.isAuthorized, 7u);

    // The alternate lookups stay off until the counts say such rules exist.
    ac_event bySha1 = FileEvent('z', 1);
    bySha1.fileSha1 = SHA1Hash(Bytes('s', 20).data());
    ac_event byMd5 = FileEvent('z', 1);
    byMd5.fileMd5 = MD5Hash(Bytes('m', 16).data());
    ac_event withSha256 = FileEvent('z', 1);
    withSha256.fileSha1 = SHA1Hash(Bytes('t', 20).data());
    ASSERT_EQ(dal.GetSHA1RuleCount(), 0);
    ASSERT_TRUE(dal.IsAllowedInDB(bySha1));
    EXPECT_EQ(bySha1.isAuthorized, 0u);

    dal.RefreshRuleSummaries();
    ASSERT_EQ(dal.GetSHA1RuleCount(), 2);
    ASSERT_EQ(dal.GetMD5RuleCount(), 1);
    ASSERT_TRUE(dal.IsAllowedInDB(bySha1));
    EXPECT_EQ(bySha1.ruleset, "rs-sha1");
    EXPECT_EQ(bySha1.isAuthorized, 1u);
    ASSERT_TRUE(dal.IsAllowedInDB(byMd5));
    EXPECT_EQ(byMd5.ruleset, "rs-md5");
    ASSERT_TRUE(dal.IsAllowedInDB(withSha256));
    EXPECT_EQ(withSha256.isAuthorized, 0u);
}

TEST(DalAllowLookup, InterpretationBySourceAndState) {
    Fixture f;
    Db db(f.path);
    ZELKDAL& dal = ZELKDAL::GetDAL();
    int64_t agentRefused = Insert(db, 1, 0, Blob('1', 32), 0);
    int64_t ruleRefused = Insert(db, 2, 0, Blob('2', 32), 0);
    int64_t rule = Insert(db, 2, 1, Blob('3', 32), 0);
    int64_t scanned = Insert(db, 3, 1, Blob('4', 32), 0);
    int64_t drift = Insert(db, 4, 1, Blob('5', 32), 0);
    int64_t driftRefused = Insert(db, 4, 0, Blob('6', 32), 0);
    // Past 2^32: the inventory check reads only the low 32 bits (5).
    Insert(db, 3, 1, Blob('7', 32), 0, "NULL", "NULL", "", (int64_t{1} << 32) + 5);
    (void)agentRefused;
    (void)ruleRefused;
    (void)driftRefused;

    auto lookup = [&](char digest) {
        ac_event event = FileEvent(digest, 1);
        event.isAuthorized = 77;
        event.authorizedState = 77;
        EXPECT_TRUE(dal.IsAllowedInDB(event));
        return std::make_pair(event.isAuthorized, event.authorizedState);
    };
    using P = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(lookup('1'), P(1, 3));  // the agent's rules always allow
    EXPECT_EQ(lookup('2'), P(2, 2));  // a refusing execution rule
    EXPECT_EQ(lookup('3'), P(1, 3));
    EXPECT_EQ(lookup('6'), P(77, 77));  // a refused drift row decides nothing

    config.SetPreviousMaxInventoryItemId(static_cast<unsigned long>(scanned));
    config.SetRebuildState(2);  // only rows newer than the rebuild start count
    EXPECT_EQ(lookup('4'), P(2, 3));
    EXPECT_EQ(lookup('5'), P(1, 3));
    config.SetPreviousMaxInventoryItemId(static_cast<unsigned long>(drift));
    EXPECT_EQ(lookup('5'), P(2, 3));
    config.SetRebuildState(1);  // the scan confirms older rows
    EXPECT_EQ(lookup('4'), P(1, 3));
    EXPECT_EQ(lookup('7'), P(1, 3));
    config.SetPreviousMaxInventoryItemId(2);
    EXPECT_EQ(lookup('4'), P(2, 3));
    EXPECT_EQ(lookup('7'), P(2, 3));
    config.SetRebuildState(3);
    EXPECT_EQ(lookup('4'), P(2, 3));
    EXPECT_EQ(lookup('5'), P(2, 3));
    EXPECT_TRUE(LogCapture::Get().Contains("Unsupported rebuildState: 3\n"));
    config.SetRebuildState(0);

    config.SetImportState(1);  // rows of the running import are not confirmed
    config.SetPreviousMaxInventoryItemId(static_cast<unsigned long>(rule - 1));
    EXPECT_EQ(lookup('3'), P(2, 2));
    config.SetPreviousMaxInventoryItemId(static_cast<unsigned long>(rule));
    EXPECT_EQ(lookup('3'), P(1, 3));
    config.SetImportState(2);  // rows of the replaced ruleset no longer count
    config.SetPreviousMaxRulesetItemId(static_cast<unsigned long>(rule));
    EXPECT_EQ(lookup('3'), P(2, 2));
    config.SetPreviousMaxRulesetItemId(static_cast<unsigned long>(rule - 1));
    EXPECT_EQ(lookup('3'), P(1, 3));
    config.SetImportState(5);
    EXPECT_EQ(lookup('3'), P(2, 2));
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

    dal.SetPreviousPrelinkHash(SHA256Hash(Bytes('o', 32).data()));
    EXPECT_TRUE(dal.UpdatePrelinkItem(event));
    EXPECT_EQ(stats.Get("RunPrelinkUpdated"), 1);
    EXPECT_EQ(db.Text("SELECT hex(sha256) || ' ' || size FROM InventoryItems;"),
              Upper(Blob('n', 32).substr(2, 64)) + " 20");

    // No prelink row has the old digest, but the old file was known: the new
    // content is recorded.
    Insert(db, 3, 1, Blob('p', 32), 0);
    dal.SetPreviousPrelinkHash(SHA256Hash(Bytes('p', 32).data()));
    ac_event other = FileEvent('q', 5);
    other.fileName = "other";
    other.source = 3;
    other.authorizedState = 3;
    other.isAuthorized = 1;
    EXPECT_TRUE(dal.UpdatePrelinkItem(other));
    EXPECT_EQ(stats.Get("RunPrelinkApproved"), 1);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE fileName = 'other';"), 1);

    // The old file was never known: nothing is stored.
    dal.SetPreviousPrelinkHash(SHA256Hash(Bytes('u', 32).data()));
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

    auto rule = [&](const std::string& process, const std::string& paths, int64_t type,
                    const std::string& ruleset) {
        ac_trust_rule r;
        r.processName = process;
        r.paths = paths;
        r.trustType = type;
        r.ruleset = ruleset;
        return r;
    };
    ac_trust_rule build = rule("/usr/bin/*", "/opt/app/**/*.so;/srv/", 2, "build");
    ac_trust_rule user = rule("", "", 3, "user");
    user.procUser = "alice";
    ac_trust_rule group = rule("", "", 3, "group");
    group.procGroup = "wheel";
    ac_trust_rule list = rule("", "", 3, "list");
    list.userList = "admins";
    ac_trust_rule signer = rule("/bin/s?", "", 0, "signer");
    signer.signerName = "Acme";
    for (const ac_trust_rule& r : {build, user, group, list, signer}) {
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
    EXPECT_EQ(db.Column("SELECT ruleset || '=' || hitcount FROM TrustRules ORDER BY trustRuleId;"),
              (std::vector<std::string>{"build=2", "user=1", "group=1", "list=1", "signer=2"}));
    // Empty texts were stored as NULL ("any").
    EXPECT_EQ(db.Int("SELECT count(*) FROM TrustRules WHERE processName IS NULL AND paths IS NULL "
                     "AND signerName IS NULL AND sha256 IS NULL AND issuerCN IS NULL;"),
              3);
    EXPECT_GE(LogCapture::Get().CountContaining("IsFoundInTrustRules unlock"), 15u);
}
