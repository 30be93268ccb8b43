// ZELKDAL stores: inventory items one at a time or queued, the trust-rule and
// user-list queues, the deletion of a file's rows and WhitelistFile.
//
// Queued records are written by the flushes in one transaction per queue.  A
// batch with a failing insert is rolled back as a whole and dropped: the
// table never holds half a ruleset, and a record that cannot be written does
// not block every later flush.
#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include <cassert>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "ZELKDataAccessLayer.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKStats.h"

namespace {

// Past this many queued items StoreItemBuffer writes the queue itself.
constexpr size_t kMaxPendingItems = 1000;

bool Exec(sqlite3* db, const char* sql) {
    char* message = nullptr;
    int rc = sqlite3_exec(db, sql, nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
        ZERROR("%s failed. rc: %d %s", sql, rc, message != nullptr ? message : "");
    }
    sqlite3_free(message);
    return rc == SQLITE_OK;
}

// Runs an insert whose parameters are bound; false, with the reason logged,
// when it does not finish.
bool StepInsert(sqlite3_stmt* stmt) {
    const int rc = sqlite3_step(stmt);
    if (rc != SQLITE_DONE) {
        ZWARNING("Unable to execute sqlite insert statement. Error code: %d", rc);
        return false;
    }
    return true;
}

}  // namespace

// ---- Queues -------------------------------------------------------------------

template <typename Record, typename Store>
bool ZELKDAL::FlushQueueInternal(std::deque<Record>& queue, const char* name, Store store) {
    // Messages of the flush carry the name of the flush that called it.
    const char* const zelkLogFunction_ = name;
    if (queue.empty()) {
        return false;
    }
    ZTRACE("%s - %d items", name, static_cast<int>(queue.size()));
    DBHolder db = DBHandle();
    if (!db) {
        ZERROR("m_DB is released");
        return false;
    }
    // A savepoint, not a transaction of its own: inside a ruleset import the
    // batch joins the import's transaction (and becomes visible with it);
    // elsewhere the savepoint is the transaction.  Either way a failing
    // batch is undone alone.
    if (!Exec(db.get(), "SAVEPOINT zelk_batch")) {
        return false;
    }
    const size_t count = queue.size();
    bool ok = true;
    while (!queue.empty()) {
        if (ok && !store(queue.front())) {
            ok = false;  // the rest is dropped with the batch
        }
        queue.pop_front();
    }
    if (ok && Exec(db.get(), "RELEASE zelk_batch")) {
        return true;
    }
    Exec(db.get(), "ROLLBACK TO zelk_batch");
    Exec(db.get(), "RELEASE zelk_batch");
    ZERROR("%s: batch of %d records rolled back and dropped", name, static_cast<int>(count));
    return false;
}

bool ZELKDAL::StoreItemFlushInternal() {
    WritePendingHitCountsLocked();
    // One borrow of the statement for the whole batch; InsertItemRow resets
    // it after every row.
    StmtScope stmt(m_pInsertItemStmt);
    return FlushQueueInternal(
        m_PendingItems, "StoreItemFlushInternal",
        [this, &stmt](const ItemRow& row) { return InsertItemRow(stmt, row); });
}

// ---- Inventory items ------------------------------------------------------------

namespace {

ac_event EventFromItem(const ac_db_item_s* item) {
    ac_event event;
    event.fileMd5 = MD5Hash(reinterpret_cast<const char*>(item->md5));
    event.fileSha1 = SHA1Hash(reinterpret_cast<const char*>(item->sha1));
    event.fileSha256 = SHA256Hash(reinterpret_cast<const char*>(item->sha256));
    event.source = item->source;
    event.fileName = item->fileName != nullptr ? item->fileName : "";
    event.path = item->path != nullptr ? item->path : "";
    event.name = item->nativePath != nullptr ? item->nativePath : "";
    event.nativePath = event.name;
    event.size = item->size;
    event.authorizedState = item->authorized != 0 ? 3 : 2;
    event.ruleset = item->ruleset != nullptr ? item->ruleset : "";
    return event;
}

// The event the exclusion test sees for a row queued without one.
ac_event EventFromRow(const ZELKDAL::ItemRow& row) {
    ac_event event;
    if (row.hasMd5) {
        event.fileMd5 = MD5Hash(reinterpret_cast<const char*>(row.md5));
    }
    if (row.hasSha1) {
        event.fileSha1 = SHA1Hash(reinterpret_cast<const char*>(row.sha1));
    }
    if (row.hasSha256) {
        event.fileSha256 = SHA256Hash(reinterpret_cast<const char*>(row.sha256));
    }
    event.source = row.source;
    event.fileName = row.fileName;
    event.path = row.path;
    event.name = row.nativePath;
    event.nativePath = row.nativePath;
    event.size = row.size;
    event.authorizedState = row.authorizedState;
    event.ruleset = row.ruleset;
    return event;
}

// Copies a digest's bytes; false (nothing copied) when it has none.
template <size_t N>
bool CopyDigest(const Hash& hash, unsigned char (&out)[N]) {
    if (!hash.HasBytes()) {
        return false;
    }
    assert(hash.Length() == N);
    memcpy(out, hash.Bytes(), N);
    return true;
}

// Parameter numbers of InsertItemSQL.  Every m_pInsertItemStmt is prepared
// from that one text, so the numbers never change and are looked up once
// instead of by name for each of the eleven binds of every row.  A name the
// text lacked would give 0, which the bind refuses with SQLITE_RANGE.
struct InsertItemParams {
    int md5, sha1, sha256, source, fileName, path, nativePath, size, recordTime, isAuthorized,
        ruleset;
};

const InsertItemParams& InsertItemParamsOf(sqlite3_stmt* stmt) {
    static const InsertItemParams params = [stmt] {
        auto index = [stmt](const char* name) { return sqlite3_bind_parameter_index(stmt, name); };
        return InsertItemParams{index(":md5"),          index(":sha1"),     index(":sha256"),
                                index(":source"),       index(":fileName"), index(":path"),
                                index(":nativePath"),   index(":size"),     index(":recordTime"),
                                index(":isAuthorized"), index(":ruleset")};
    }();
    return params;
}

}  // namespace

ZELKDAL::ItemRow ZELKDAL::RowFromEvent(const ac_event& event) {
    ItemRow row;
    row.hasMd5 = CopyDigest(event.fileMd5, row.md5);
    row.hasSha1 = CopyDigest(event.fileSha1, row.sha1);
    row.hasSha256 = CopyDigest(event.fileSha256, row.sha256);
    row.source = event.source;
    row.authorizedState = event.authorizedState;
    row.size = event.size;
    row.fileName = event.fileName;
    row.path = event.path;
    row.nativePath = event.nativePath;
    row.ruleset = event.ruleset;
    return row;
}

bool ZELKDAL::StoreItem(ac_db_item_s* item) {
    assert(item != nullptr);
    ac_event event = EventFromItem(item);
    return StoreItem(event);
}

bool ZELKDAL::StoreItemBuffer(ac_db_item_s* item) {
    assert(item != nullptr);
    ac_event event = EventFromItem(item);
    return StoreItemBuffer(event);
}

bool ZELKDAL::IsExcludedItem(ac_event& event, const char* caller) {
    // The exclusion lookup takes the data mutex itself: call without it.
    if (!IsFoundInTrustRules(DAL_TRUST_EXCLUDE, event)) {
        return false;
    }
    ZTRACE("%s exclude path: %s", caller, event.name.c_str());
    ZELKStats::GetStats().Inc("InventoryItemExcludedByTrustRule");
    return true;
}

bool ZELKDAL::StoreItem(ac_event& event) {
    if (IsExcludedItem(event, "StoreItem")) {
        return false;
    }
    DataLock lock(*this, "StoreItem");
    WritePendingHitCountsLocked();
    return StoreItemInternal(event);
}

bool ZELKDAL::StoreItemBuffer(ac_event& event) {
    if (IsExcludedItem(event, "StoreItemBuffer")) {
        return false;
    }
    ItemRow row = RowFromEvent(event);
    DataLock lock(*this, "StoreItemBuffer");
    m_PendingItems.push_back(std::move(row));
    if (m_PendingItems.size() > kMaxPendingItems) {
        return StoreItemFlushInternal();
    }
    return true;
}

bool ZELKDAL::StoreItemBuffer(ItemRow&& row) {
    // Without trust rules the test answers false at once: build the event
    // only when a rule could look at it.
    if (HasTrustRules()) {
        ac_event event = EventFromRow(row);
        if (IsFoundInTrustRules(DAL_TRUST_EXCLUDE, event)) {
            ZTRACE("StoreItemBuffer exclude path: %s", event.name.c_str());
            ZELKStats::GetStats().Inc("InventoryItemExcludedByTrustRule");
            return false;
        }
    }
    DataLock lock(*this, "StoreItemBuffer");
    m_PendingItems.push_back(std::move(row));
    if (m_PendingItems.size() > kMaxPendingItems) {
        return StoreItemFlushInternal();
    }
    return true;
}

void ZELKDAL::StoreItemBufferRows(std::vector<ItemRow>& rows) {
    // Row by row when each row has something to show (the exclusion test,
    // the lock messages); otherwise the whole lot under one hold of the data
    // mutex, flushing past 1000 queued rows exactly as row by row would.
    if (HasTrustRules() || ZELKLogger::GetInstance().IsEnabled(ZLOG_TRACE)) {
        for (ItemRow& row : rows) {
            StoreItemBuffer(std::move(row));
        }
    } else {
        std::lock_guard<std::mutex> lock(m_DataMutex);
        for (ItemRow& row : rows) {
            m_PendingItems.push_back(std::move(row));
            if (m_PendingItems.size() > kMaxPendingItems) {
                StoreItemFlushInternal();
            }
        }
    }
    rows.clear();
}

bool ZELKDAL::StoreItemFlush() {
    DataLock lock(*this, "StoreItemFlush");
    return StoreItemFlushInternal();
}

bool ZELKDAL::StoreItemInternal(ac_event& event) {
    StmtScope stmt(m_pInsertItemStmt);
    return InsertItemRow(stmt, RowFromEvent(event));
}

bool ZELKDAL::InsertItemRow(StmtScope& stmt, const ItemRow& row) {
    if (!stmt) {
        ZERROR("m_pInsertItemStmt is released");
        return false;
    }
    sqlite3_stmt* insert = stmt.get();
    const InsertItemParams& p = InsertItemParamsOf(insert);

    int64_t isAuthorized;
    switch (row.authorizedState) {
        case 2:
            isAuthorized = 0;
            break;
        case 1:
        case 3:
        case 4:
            isAuthorized = 1;
            break;
        default:
            ZWARNING("Unhandled authorizedState %d, default to on the allow list(3)",
                     static_cast<int>(row.authorizedState));
            isAuthorized = 3;
            break;
    }

    // The row outlives the step and the bindings are cleared before this
    // returns, so SQLite may use the row's bytes without copying them.
    auto bindDigest = [insert](int index, bool has, const unsigned char* bytes, int length) {
        return has ? sqlite3_bind_blob(insert, index, bytes, length, SQLITE_STATIC)
                   : sqlite3_bind_null(insert, index);
    };
    auto bindText = [insert](int index, const std::string& value) {
        return sqlite3_bind_text(insert, index, value.c_str(), static_cast<int>(value.size()),
                                 SQLITE_STATIC);
    };
    struct Bind {
        int rc;
        const char* failure;
    };
    const Bind binds[] = {
        {bindDigest(p.md5, row.hasMd5, row.md5, sizeof(row.md5)),
         "Unable to bind md5, aborting db insert"},
        {bindDigest(p.sha1, row.hasSha1, row.sha1, sizeof(row.sha1)),
         "Unable to bind sha1, aborting db insert"},
        {bindDigest(p.sha256, row.hasSha256, row.sha256, sizeof(row.sha256)),
         "Unable to bind sha256, aborting db insert"},
        {sqlite3_bind_int64(insert, p.source, row.source),
         "Unable to bind source, aborting db insert"},
        {bindText(p.fileName, row.fileName), "Unable to bind filename, aborting db insert"},
        {bindText(p.path, row.path), "Unable to bind path, aborting db insert"},
        {bindText(p.nativePath, row.nativePath), "Unable to bind nativepath, aborting db insert"},
        {sqlite3_bind_int64(insert, p.size, static_cast<int64_t>(row.size)),
         "Unable to bind size, aborting db insert"},
        {sqlite3_bind_int64(insert, p.recordTime, static_cast<int64_t>(GetCurrentTimeInMillis())),
         "Unable to bind recordtime, aborting db insert"},
        {sqlite3_bind_int64(insert, p.isAuthorized, isAuthorized),
         "Unable to bind isauthorized, aborting db insert"},
        {bindText(p.ruleset, row.ruleset), "Unable to bind ruleset, aborting db insert"},
    };
    bool ok = true;
    for (const Bind& bind : binds) {
        if (bind.rc != SQLITE_OK) {
            ZWARNING("%s", bind.failure);
            ok = false;
            break;
        }
    }
    ok = ok && StepInsert(insert);
    sqlite3_reset(insert);
    sqlite3_clear_bindings(insert);
    return ok;
}

bool ZELKDAL::DeleteInventoryItems(ac_event& event) {
    // Rows may carry the directory with or without its trailing separator:
    // the event's path (which ends in "/") and the same text cut at its last
    // "/".
    const std::string& path = event.path;
    const size_t slash = path.rfind('/');
    const std::string path2 = slash == std::string::npos ? path : path.substr(0, slash);

    int deleted = 0;
    {
        DataLock lock(*this, "DeleteInventoryItems");
        StmtScope stmt(m_pDeleteInventoryItemsStmt);
        if (!stmt) {
            ZERROR("m_pDeleteInventoryItemsStmt is released");
            return false;
        }
        DBHolder db = DBHandle();
        if (!db) {
            ZERROR("m_DB is released");
            return false;
        }
        stmt.BindText(":fileName", event.fileName);
        stmt.BindText(":path", path);
        stmt.BindText(":path2", path2);
        if (sqlite3_step(stmt.get()) != SQLITE_DONE) {
            ZWARNING("Unable to delete from any hash");
            return false;
        }
        deleted = sqlite3_changes(db.get());
        ZTRACE("Deleted %d rows", deleted);
    }
    // Read and set, not incremented: a deletion of no rows still creates the
    // counter (with 0).
    ZELKStats& stats = ZELKStats::GetStats();
    stats.Set("TotalDeletedEvents", stats.Get("TotalDeletedEvents") + deleted);
    return true;
}

bool ZELKDAL::WhitelistFile(ac_event& event) {
    switch (event.source) {
        case DAL_SOURCE_SCANNED:
            // Scans record many files at once; the queue writes them in bulk.
            StoreItemBuffer(event);
            break;
        case DAL_SOURCE_PRELINK:
            UpdatePrelinkItem(event);
            break;
        default:
            // One row per approved file: the older scanned or drift rows of
            // the same path go first.
            event.source = DAL_SOURCE_APPROVED_DRIFT;
            DeleteInventoryItems(event);
            StoreItem(event);
            break;
    }
    return true;
}

// ---- Trust rules and user lists ---------------------------------------------------

namespace {

// Empty texts become NULL, which the trust-rule lookup reads as "any".
template <typename Scope>
int BindOptionalText(Scope& stmt, const char* name, const std::string& value) {
    return value.empty() ? stmt.BindNull(name) : stmt.BindText(name, value);
}

}  // namespace

bool ZELKDAL::StoreTrustRuleInternal(const ac_trust_rule& rule) {
    StmtScope stmt(m_pInsertTrustRuleStmt);
    if (!stmt) {
        ZERROR("m_pInsertTrustRuleStmt is released");
        return false;
    }
    int rc = BindOptionalText(stmt, ":processName", rule.processName);
    rc |= BindOptionalText(stmt, ":paths", rule.paths);
    rc |= stmt.BindInt64(":trustType", rule.trustType);
    rc |= BindOptionalText(stmt, ":signerName", rule.signerName);
    rc |= BindOptionalText(stmt, ":productName", rule.productName);
    rc |= BindOptionalText(stmt, ":companyName", rule.companyName);
    rc |= rule.sha256.HasBytes() ? stmt.BindBlob(":sha256", rule.sha256.Bytes(),
                                                 static_cast<int>(rule.sha256.Length()))
                                 : stmt.BindNull(":sha256");
    for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
        rc |= BindOptionalText(stmt, IssuerMetaArrayUtil::kBind[i], rule.issuer[i]);
    }
    rc |= BindOptionalText(stmt, ":ruleset", rule.ruleset);
    rc |= BindOptionalText(stmt, ":procUser", rule.procUser);
    rc |= BindOptionalText(stmt, ":procGroup", rule.procGroup);
    rc |= BindOptionalText(stmt, ":userList", rule.userList);
    if (rc != SQLITE_OK) {
        ZWARNING("Unable to bind trust rule, aborting db insert");
        return false;
    }
    return StepInsert(stmt.get());
}

bool ZELKDAL::StoreUserListInternal(const ac_user_list& entry) {
    StmtScope stmt(m_pInsertUserListStmt);
    if (!stmt) {
        ZERROR("m_pInsertUserListStmt is released");
        return false;
    }
    int rc = BindOptionalText(stmt, ":id", entry.id);
    rc |= BindOptionalText(stmt, ":user", entry.user);
    if (rc != SQLITE_OK) {
        ZWARNING("Unable to bind user list entry, aborting db insert");
        return false;
    }
    return StepInsert(stmt.get());
}

// The rule queues have no size limit: a document's rules are written by the
// import's flush in one transaction.
bool ZELKDAL::StoreTrustRuleBuffer(const ac_trust_rule& rule) {
    DataLock lock(*this, "StoreTrustRuleBuffer");
    m_PendingTrustRules.push_back(rule);
    return true;
}

bool ZELKDAL::StoreTrustRuleFlush() {
    bool result;
    {
        DataLock lock(*this, "StoreTrustRuleFlush");
        result = FlushQueueInternal(
            m_PendingTrustRules, "StoreTrustRuleFlush",
            [this](const ac_trust_rule& rule) { return StoreTrustRuleInternal(rule); });
    }
    if (result) {
        // Let the lookup see the new rules before the next summary refresh.
        m_TrustRulesPresent.store(true, std::memory_order_release);
    }
    return result;
}

bool ZELKDAL::StoreUserListBuffer(const ac_user_list& entry) {
    DataLock lock(*this, "StoreUserListBuffer");
    m_PendingUserLists.push_back(entry);
    return true;
}

bool ZELKDAL::StoreUserListFlush() {
    DataLock lock(*this, "StoreUserListFlush");
    return FlushQueueInternal(
        m_PendingUserLists, "StoreUserListFlush",
        [this](const ac_user_list& entry) { return StoreUserListInternal(entry); });
}
