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
#include <string>

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

}  // namespace

// ---- Queues -------------------------------------------------------------------

template <typename Record, typename Store>
bool ZELKDAL::FlushQueueInternal(std::deque<Record>& queue, const char* name, Store store) {
    if (queue.empty()) {
        return false;
    }
    ZTRACE("%s - %d items", name, static_cast<int>(queue.size()));
    DBHolder db = DBHandle();
    if (!db) {
        ZERROR("m_DB is released");
        return false;
    }
    // Nothing was attempted yet: the queue stays for the next flush.
    if (!Exec(db.get(), "BEGIN TRANSACTION")) {
        return false;
    }
    const size_t count = queue.size();
    bool ok = true;
    while (!queue.empty()) {
        if (ok && !store(queue.front())) {
            ok = false;
        }
        queue.pop_front();
    }
    if (ok && Exec(db.get(), "END TRANSACTION")) {
        return true;
    }
    if (!sqlite3_get_autocommit(db.get())) {
        Exec(db.get(), "ROLLBACK");
    }
    ZERROR("%s: batch of %d records rolled back and dropped", name, static_cast<int>(count));
    return false;
}

bool ZELKDAL::StoreItemFlushInternal() {
    return FlushQueueInternal(m_PendingItems, "StoreItemFlushInternal",
                              [this](ac_event& event) { return StoreItemInternal(event); });
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

}  // namespace

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

bool ZELKDAL::StoreItem(ac_event& event) {
    // The exclusion lookup takes the data mutex itself.
    if (IsFoundInTrustRules(DAL_TRUST_EXCLUDE, event)) {
        ZTRACE("StoreItem exclude path: %s", event.name.c_str());
        ZELKStats::GetStats().Inc("InventoryItemExcludedByTrustRule");
        return false;
    }
    DataLock lock(*this, "StoreItem");
    return StoreItemInternal(event);
}

bool ZELKDAL::StoreItemBuffer(ac_event& event) {
    if (IsFoundInTrustRules(DAL_TRUST_EXCLUDE, event)) {
        ZTRACE("StoreItemBuffer exclude path: %s", event.name.c_str());
        ZELKStats::GetStats().Inc("InventoryItemExcludedByTrustRule");
        return false;
    }
    DataLock lock(*this, "StoreItemBuffer");
    m_PendingItems.push_back(event);
    if (m_PendingItems.size() > kMaxPendingItems) {
        return StoreItemFlushInternal();
    }
    return true;
}

bool ZELKDAL::StoreItemFlush() {
    DataLock lock(*this, "StoreItemFlush");
    return StoreItemFlushInternal();
}

bool ZELKDAL::StoreItemInternal(ac_event& event) {
    StmtScope stmt(m_pInsertItemStmt);
    if (!stmt) {
        ZERROR("m_pInsertItemStmt is released");
        return false;
    }
    auto bindHash = [&stmt](const char* name, const Hash& hash) {
        return hash.HasBytes() ? stmt.BindBlob(name, hash.Bytes(), static_cast<int>(hash.Length()))
                               : stmt.BindNull(name);
    };

    int64_t isAuthorized;
    switch (event.authorizedState) {
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
                     static_cast<int>(event.authorizedState));
            isAuthorized = 3;
            break;
    }

    struct Bind {
        int rc;
        const char* failure;
    };
    const Bind binds[] = {
        {bindHash(":md5", event.fileMd5), "Unable to bind md5, aborting db insert"},
        {bindHash(":sha1", event.fileSha1), "Unable to bind sha1, aborting db insert"},
        {bindHash(":sha256", event.fileSha256), "Unable to bind sha256, aborting db insert"},
        {stmt.BindInt64(":source", event.source), "Unable to bind source, aborting db insert"},
        {stmt.BindText(":fileName", event.fileName), "Unable to bind filename, aborting db insert"},
        {stmt.BindText(":path", event.path), "Unable to bind path, aborting db insert"},
        {stmt.BindText(":nativePath", event.nativePath),
         "Unable to bind nativepath, aborting db insert"},
        {stmt.BindInt64(":size", static_cast<int64_t>(event.size)),
         "Unable to bind size, aborting db insert"},
        {stmt.BindInt64(":recordTime", static_cast<int64_t>(GetCurrentTimeInMillis())),
         "Unable to bind recordtime, aborting db insert"},
        {stmt.BindInt64(":isAuthorized", isAuthorized),
         "Unable to bind isauthorized, aborting db insert"},
        {stmt.BindText(":ruleset", event.ruleset), "Unable to bind ruleset, aborting db insert"},
    };
    for (const Bind& bind : binds) {
        if (bind.rc != SQLITE_OK) {
            ZWARNING("%s", bind.failure);
            return false;
        }
    }
    int rc = sqlite3_step(stmt.get());
    if (rc != SQLITE_DONE) {
        ZWARNING("Unable to execute sqlite insert statement. Error code: %d", rc);
        return false;
    }
    return true;
}

bool ZELKDAL::DeleteInventoryItems(ac_event& event) {
    // Rows may carry the directory with or without its trailing separator.
    std::string path = event.path;
    if (path.empty() || path.back() != '/') {
        path += '/';
    }
    std::string path2 = path.substr(0, path.size() - 1);

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
    for (int i = 0; i < deleted; ++i) {
        ZELKStats::GetStats().Inc("TotalDeletedEvents");
    }
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
    rc = sqlite3_step(stmt.get());
    if (rc != SQLITE_DONE) {
        ZWARNING("Unable to execute sqlite insert statement. Error code: %d", rc);
        return false;
    }
    return true;
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
    rc = sqlite3_step(stmt.get());
    if (rc != SQLITE_DONE) {
        ZWARNING("Unable to execute sqlite insert statement. Error code: %d", rc);
        return false;
    }
    return true;
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
