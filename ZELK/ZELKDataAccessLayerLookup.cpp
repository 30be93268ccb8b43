// ZELKDAL lookups: the allow lookup over InventoryItems, the prelink update
// and the trust-rule lookup.
#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include <cstdint>
#include <string>

#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKDataAccessLayerRead.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKMatch.h"
#include "ZELKStats.h"

namespace {

// Columns of "SELECT * FROM InventoryItems".
constexpr int kColItemId = 0;
constexpr int kColIsAuthorized = 9;
constexpr int kColSource = 10;
constexpr int kColRuleset = 11;

// event.isAuthorized as the lookup reports it.
constexpr uint32_t kNotFound = 0;
constexpr uint32_t kAllowed = 1;
constexpr uint32_t kRefused = 2;

// event.authorizedState for a later store: 3 keeps the row allowed, 2 records
// a refusal.
constexpr uint32_t kStateStoreAllowed = 3;
constexpr uint32_t kStateStoreRefused = 2;

std::string ColumnText(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    return text != nullptr ? reinterpret_cast<const char*>(text) : std::string();
}

void ResetAndClear(sqlite3_stmt* stmt) {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
}

// Resets a statement the search handed over, on every way out.
class ResetOnExit {
  public:
    explicit ResetOnExit(sqlite3_stmt* stmt) : m_Stmt(stmt) {}
    ~ResetOnExit() { ResetAndClear(m_Stmt); }
    ResetOnExit(const ResetOnExit&) = delete;
    ResetOnExit& operator=(const ResetOnExit&) = delete;

  private:
    sqlite3_stmt* m_Stmt;
};

int BindBlobByName(sqlite3_stmt* stmt, const char* name, const Hash& hash) {
    return sqlite3_bind_blob(stmt, sqlite3_bind_parameter_index(stmt, name), hash.Bytes(),
                             static_cast<int>(hash.Length()), SQLITE_TRANSIENT);
}

int BindInt64ByName(sqlite3_stmt* stmt, const char* name, int64_t value) {
    return sqlite3_bind_int64(stmt, sqlite3_bind_parameter_index(stmt, name), value);
}

}  // namespace

// ---- Allow lookup -----------------------------------------------------------

bool ZELKDAL::IsAllowedInDB(ac_event& event) {
    // On the thread's read connection: the committed policy, without waiting
    // for a writer.  The lock messages are those of the data mutex.
    {
        ReadLease lease(*this, "IsAllowedInDB");
        if (ReadConnection* reader = lease.Reader()) {
            return RunAllowLookup(reader->set, event);
        }
    }
    // No read connection (the store is closed): the writer answers, with
    // the messages of its released statements.
    DataLock lock(*this, "IsAllowedInDB");
    return IsAllowedInDBInternal(event);
}

bool ZELKDAL::IsAllowedInDBInternal(ac_event& event) {
    // The writer's statements, held for the lookup so a concurrent Finalize
    // cannot destroy them.
    const StmtHolder ruleset = std::atomic_load(&m_pLookupItemAuthRulesetStmt);
    const StmtHolder sha1 = std::atomic_load(&m_pLookupItemAlternateSHA1HashStmt);
    const StmtHolder md5 = std::atomic_load(&m_pLookupItemAlternateMD5HashStmt);
    const StmtHolder all = std::atomic_load(&m_pLookupItemAuthStmt);
    const DBHolder db = DBHandle();
    LookupStatements set;
    set.db = db.get();
    set.ruleset = ruleset.get();
    set.sha1 = sha1.get();
    set.md5 = md5.get();
    set.all = all.get();
    return RunAllowLookup(set, event);
}

// Reads the columns the interpretation needs from a "SELECT *" row.
ZELKDAL::FoundRow ZELKDAL::RowOfSelectAll(sqlite3_stmt* stmt) {
    ZELKDAL::FoundRow row;
    row.id = sqlite3_column_int64(stmt, kColItemId);
    row.isAuthorized = sqlite3_column_int(stmt, kColIsAuthorized);
    row.source = sqlite3_column_int(stmt, kColSource);
    row.ruleset = ColumnText(stmt, kColRuleset);
    return row;
}

namespace {

// Binds ":size" and ":hash" of a lookup by SHA-256; on failure says so, marks
// the event not found and leaves the statement clean.
bool BindDigestAndSize(sqlite3_stmt* stmt, ac_event& event) {
    if (BindInt64ByName(stmt, ":size", static_cast<int64_t>(event.size)) == SQLITE_OK &&
        BindBlobByName(stmt, ":hash", event.fileSha256) == SQLITE_OK) {
        return true;
    }
    ZWARNING("Unable to create query");
    event.isAuthorized = kNotFound;
    ResetAndClear(stmt);
    return false;
}

// The most rows of one digest the one-descent lookup reads before it leaves
// the ruleset question to its own statement.
constexpr int kRowsPerDigest = 16;

}  // namespace

bool ZELKDAL::IsAllowedInDBSearch(const LookupStatements& set, ac_event& event, FoundRow& found,
                                  bool& hasRow) {
    hasRow = false;
    // SHA-256 among the ruleset sources first: an administrator's rule beats
    // whatever the scan or drift recorded for the same file.
    if (set.ruleset == nullptr) {
        ZERROR("m_pLookupItemAuthRulesetStmt is released");
        event.isAuthorized = kNotFound;
        return false;
    }
    if (!event.fileSha256.HasBytes()) {
        ZERROR("SHA256 value is empty, unable to create query");
        return false;
    }

    // Read connections answer the ruleset question and the question over
    // all sources with one descent of the digest index: the newest row of
    // the digest is the answer over all sources, the newest ruleset row the
    // answer among rulesets.  Only a digest with more rows than
    // kRowsPerDigest, or an error, takes the statement-by-statement road.
    bool haveNewest = false, haveRuleset = false, decided = false;
    FoundRow newest, rulesetRow;
    if (set.both != nullptr) {
        sqlite3_stmt* both = set.both;
        if (BindInt64ByName(both, ":size", static_cast<int64_t>(event.size)) == SQLITE_OK &&
            BindBlobByName(both, ":hash", event.fileSha256) == SQLITE_OK) {
            int rc;
            int rows = 0;
            while (rows < kRowsPerDigest && (rc = sqlite3_step(both)) == SQLITE_ROW) {
                ++rows;
                FoundRow row;
                row.id = sqlite3_column_int64(both, 0);
                row.isAuthorized = sqlite3_column_int(both, 1);
                row.source = sqlite3_column_int(both, 2);
                if (!haveNewest || ((row.source == DAL_SOURCE_AGENT_RULES ||
                                     row.source == DAL_SOURCE_EXECUTION_RULES) &&
                                    !haveRuleset)) {
                    row.ruleset = ColumnText(both, 3);
                }
                if (!haveNewest) {
                    newest = row;
                    haveNewest = true;
                }
                if (row.source == DAL_SOURCE_AGENT_RULES ||
                    row.source == DAL_SOURCE_EXECUTION_RULES) {
                    rulesetRow = std::move(row);
                    haveRuleset = true;
                    break;
                }
            }
            decided = haveRuleset || (rows < kRowsPerDigest && rc == SQLITE_DONE);
        }
        ResetAndClear(both);
    }
    if (decided && haveRuleset) {
        found = std::move(rulesetRow);
        hasRow = true;
        return true;
    }
    if (!decided) {
        sqlite3_stmt* stmt = set.ruleset;
        if (!BindDigestAndSize(stmt, event)) {
            return false;
        }
        if (sqlite3_step(stmt) == SQLITE_ROW) {
            found = RowOfSelectAll(stmt);
            hasRow = true;
            ResetAndClear(stmt);
            return true;
        }
        ResetAndClear(stmt);
    }
    ZTRACE("Did not find sha256 match with source=2 or source=1. Checking for sha1 or md5 match");

    // Rules that came without a SHA-256 can only be found by their older
    // digests; the counts skip these queries when no such rule exists.
    struct Alternate {
        int64_t count;
        const Hash& digest;
        sqlite3_stmt* stmt;
        const char* countMessage;
        const char* releasedMessage;
        const char* bindName;
        const char* bindFailure;
    };
    const Alternate alternates[] = {
        {GetSHA1RuleCount(), event.fileSha1, set.sha1, "The number of sha1 rules is: %d",
         "m_pLookupItemAlternateSHA1HashStmt is released", ":sha1",
         "Unable to create query from sha1"},
        {GetMD5RuleCount(), event.fileMd5, set.md5, "The number of md5 rules is: %d",
         "m_pLookupItemAlternateMD5HashStmt is released", ":md5",
         "Unable to create query from md5"},
    };
    for (const Alternate& alt : alternates) {
        if (alt.count == 0 || !alt.digest.HasBytes()) {
            continue;
        }
        ZTRACE(alt.countMessage, static_cast<int>(alt.count));
        if (alt.stmt == nullptr) {
            ZERROR("%s", alt.releasedMessage);
            event.isAuthorized = kNotFound;
            return false;
        }
        if (BindBlobByName(alt.stmt, alt.bindName, alt.digest) != SQLITE_OK) {
            ZWARNING("%s", alt.bindFailure);
            event.isAuthorized = kNotFound;
            ResetAndClear(alt.stmt);
            return false;
        }
        const bool row = sqlite3_step(alt.stmt) == SQLITE_ROW;
        if (row) {
            found = RowOfSelectAll(alt.stmt);
        }
        ResetAndClear(alt.stmt);
        if (row) {
            hasRow = true;
            return true;
        }
    }
    ZTRACE("Did not find item with source=2 or source=1.");

    if (decided) {
        // The one descent already read the newest row of the digest.
        if (haveNewest) {
            found = std::move(newest);
            hasRow = true;
        }
        return true;
    }
    sqlite3_stmt* stmt = set.all;
    if (stmt == nullptr) {
        ZERROR("m_pLookupItemAuthStmt is released");
        event.isAuthorized = kNotFound;
        return false;
    }
    if (!BindDigestAndSize(stmt, event)) {
        return false;
    }
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
        found = RowOfSelectAll(stmt);
        hasRow = true;
    }
    ResetAndClear(stmt);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        ZERROR("DAL Error%s\n", sqlite3_errstr(set.db != nullptr ? sqlite3_errcode(set.db) : -1));
        return false;
    }
    return true;
}

bool ZELKDAL::RunAllowLookup(const LookupStatements& set, ac_event& event) {
    // Messages carry the name of the lookup the store's callers know.
    const char* const zelkLogFunction_ = "IsAllowedInDBInternal";
    FoundRow row;
    bool hasRow = false;
    if (!IsAllowedInDBSearch(set, event, row, hasRow)) {
        return false;
    }
    if (!hasRow) {
        event.isAuthorized = kNotFound;
        event.authorizedState = 0;
        ZTRACE("No results found in database");
        return true;
    }
    ZTRACE("Found result in inventory with Source= %d and isAuthorized= %d.", row.source,
           row.isAuthorized);
    if (row.source == DAL_SOURCE_AGENT_RULES) {
        // The agent's own rules allow even when stored as not authorized.
        event.isAuthorized = kAllowed;
        event.authorizedState = kStateStoreAllowed;
    } else if (row.source == DAL_SOURCE_EXECUTION_RULES) {
        bool allowed = IsAllowedInRuleSet(row);
        event.isAuthorized = allowed ? kAllowed : kRefused;
        event.authorizedState = allowed ? kStateStoreAllowed : kStateStoreRefused;
    } else if (row.source == DAL_SOURCE_SCANNED) {
        // A refused scanned item still stays on the list when stored
        // again: only the rebuild decides about it.
        event.isAuthorized = IsAllowedInInventory(row) ? kAllowed : kRefused;
        event.authorizedState = kStateStoreAllowed;
    } else if (row.isAuthorized != 0) {
        event.isAuthorized = IsAllowedInDrift(row) ? kAllowed : kRefused;
        event.authorizedState = kStateStoreAllowed;
    }
    event.source = static_cast<uint32_t>(row.source);
    event.ruleset = std::move(row.ruleset);
    return true;
}

bool ZELKDAL::IsAllowedInRuleSet(const FoundRow& row) {
    ZTRACE("Checking %s\n", "IsAllowedInRuleSet");
    uint64_t id = static_cast<uint64_t>(row.id);
    int importState = config.GetImportState();
    switch (importState) {
        case 0:
            break;
        case 1:
            // Rows added by the import still running are not confirmed yet.
            if (id > config.GetPreviousMaxInventoryItemId()) {
                return false;
            }
            break;
        case 2:
            // Rows of the ruleset being replaced no longer count.
            if (id <= config.GetPreviousMaxRulesetItemId()) {
                return false;
            }
            break;
        default:
            ZERROR("Unsupported importState: %d\n", importState);
            return false;
    }
    return row.isAuthorized != 0;
}

bool ZELKDAL::IsAllowedInDrift(const FoundRow& row) {
    ZTRACE("Checking %s\n", "IsAllowedInDrift");
    int rebuildState = config.GetRebuildState();
    if (rebuildState == 0 || rebuildState == 1) {
        return true;
    }
    if (rebuildState == 2) {
        return static_cast<uint64_t>(row.id) > config.GetPreviousMaxInventoryItemId();
    }
    ZERROR("Unsupported rebuildState: %d\n", rebuildState);
    return false;
}

bool ZELKDAL::IsAllowedInInventory(const FoundRow& row) {
    ZTRACE("Checking if allowed in inventory!");
    int rebuildState = config.GetRebuildState();
    ZTRACE("Rebuild state: %d", rebuildState);
    // Read as 32 bits on purpose: the check has always compared the id this
    // way, and rows past 2^31 behave as they did before.
    int32_t narrow = static_cast<int32_t>(row.id);
    uint64_t id = static_cast<uint64_t>(static_cast<int64_t>(narrow));
    switch (rebuildState) {
        case 0:
            ZTRACE("REBUILD_STATE_IDLE returning true from IsAllowedInInventory");
            return true;
        case 1:
            ZTRACE(
                "REBUILD_STATE_SCAN checking inventory item id less than max inventory item "
                "id");
            return id <= config.GetPreviousMaxInventoryItemId();
        case 2:
            ZTRACE(
                "REBUILD_STATE_SCAN checking inventory item id greater than max inventory "
                "item id");
            return id > config.GetPreviousMaxInventoryItemId();
        default:
            ZERROR("Unsupported rebuildState: %d\n", rebuildState);
            return false;
    }
}

// ---- Prelink update ----------------------------------------------------------

void ZELKDAL::SetPreviousPrelinkHash(const SHA256Hash& previous) {
    DataLock lock(*this, "SetPreviousPrelinkHash");
    m_PreviousPrelinkHash = previous;
}

bool ZELKDAL::UpdatePrelinkItem(ac_event& event) {
    if (!std::atomic_load(&m_pUpdatePrelinkItemStmt)) {
        ZERROR("m_pUpdatePrelinkItemStmt is released");
        return false;
    }
    const char* counter = nullptr;
    bool result;
    {
        ZTRACE("Updating prelink item lock");
        std::lock_guard<std::mutex> lock(m_DataMutex);
        result = UpdatePrelinkItemLocked(event, counter);
        ZTRACE("UpdatePrelinkItem unlock");
    }
    if (counter != nullptr) {
        ZELKStats::GetStats().Inc(counter);
    }
    return result;
}

bool ZELKDAL::UpdatePrelinkItemLocked(ac_event& event, const char*& counter) {
    // The slot is used once: a later update must not see a stale digest.
    SHA256Hash previous = m_PreviousPrelinkHash;
    m_PreviousPrelinkHash = SHA256Hash();
    if (!previous.HasBytes() || !event.fileSha256.HasBytes()) {
        counter = "RunPrelinkNohash";
        return false;
    }

    {
        StmtScope stmt(m_pUpdatePrelinkItemStmt);
        if (!stmt) {
            ZERROR("m_pUpdatePrelinkItemStmt is released");
            return false;
        }
        const int binds[] = {
            stmt.BindBlob(":hash", event.fileSha256.Bytes(),
                          static_cast<int>(event.fileSha256.Length())),
            stmt.BindInt64(":size", static_cast<int64_t>(event.size)),
            stmt.BindInt64(":recordTime", static_cast<int64_t>(GetCurrentTimeInMillis())),
            stmt.BindBlob(":oldhash", previous.Bytes(), static_cast<int>(previous.Length())),
            stmt.BindText(":path", event.path),
            stmt.BindText(":fileName", event.fileName),
        };
        for (int rc : binds) {
            if (rc != SQLITE_OK) {
                ZWARNING(
                    "SQLite error %d binding attribute parameters to update statement for "
                    "file '%s'\n",
                    rc, event.name.c_str());
            }
        }
        int rc = sqlite3_step(stmt.get());
        if (rc != SQLITE_DONE) {
            ZWARNING("Prelink update failed: %s", GetLastDBErrorString().c_str());
            return false;
        }
        DBHolder db = DBHandle();
        if (!db) {
            ZERROR("m_DB is released");
            return false;
        }
        int changed = sqlite3_changes(db.get());
        if (changed > 0) {
            counter = "RunPrelinkUpdated";
            if (changed != 1) {
                ZWARNING("Prelink updated more (%d) then we expected\n", changed);
            }
            return true;
        }
    }

    // No prelink row carried the old digest: if the file was known under it,
    // record the new content as allowed.
    ac_event before = event;
    before.fileSha256 = previous;
    if (!IsAllowedInDBInternal(before) || before.isAuthorized == kNotFound) {
        ZTRACE("Unapproved %s %s %d", event.path.c_str(), event.fileName.c_str(),
               static_cast<int>(event.size));
        counter = "RunPrelinkUnapproved";
    } else {
        StoreItemInternal(event);
        counter = "RunPrelinkApproved";
    }
    return event.isAuthorized == kAllowed;
}

// ---- Trust-rule lookup ---------------------------------------------------------

bool ZELKDAL::CallMatchEventPath(std::string& eventPath, std::string& rulePaths) {
    return MatchEventPathWithRulePath(eventPath, rulePaths);
}

bool ZELKDAL::IsFoundInTrustRules(unsigned trustType, ac_event& event) {
    // Most machines have no trust rules: answer without touching the lock.
    if (!HasTrustRules()) {
        return false;
    }
    // A drift's trusted source is judged by the acting process; every other
    // type by the target file.
    const bool byProcess = trustType == DAL_TRUST_SOURCE_PROCESS;
    const ZELKTrustRuleIndex::Probe probe{
        event.processName,
        event.name,
        event.user,
        event.group,
        byProcess ? event.processSignerName : event.fileSignerName,
        byProcess ? event.processProductName : event.fileProductName,
        byProcess ? event.processCompanyName : event.fileCompanyName,
        byProcess ? event.processSha256 : event.fileSha256,
        byProcess ? event.processIssuer : event.fileIssuer,
    };
    // The lock messages are those of the lookup over the table.  Under the
    // read connection's lock only the connection itself is used; the writer
    // is asked (whether another process changed the rules) after it.
    ReadConnection* reader = nullptr;
    int64_t version = -1;
    bool ask = false;
    {
        ReadLease lease(*this, "IsFoundInTrustRules");
        reader = lease.Reader();
        if (reader != nullptr) {
            version = reader->DataVersion();
            ask = version < 0 || version != reader->lastDataVersion ||
                  m_TrustIndex.load(std::memory_order_acquire) == nullptr;
        }
    }
    if (reader == nullptr) {
        ZERROR("m_pLookupTrustRuleStmt is released");
        return false;
    }
    if (ask && CheckTrustRules()) {
        // The connection is this thread's own; its lock only keeps Finalize out.
        std::lock_guard<std::mutex> lock(reader->mutex);
        reader->lastDataVersion = version;
    }
    const ZELKTrustRuleIndex* index = m_TrustIndex.load(std::memory_order_acquire);
    if (index == nullptr) {
        ZERROR("m_pLookupTrustRuleStmt is released");
        return false;
    }
    const ZELKTrustRuleIndex::Rule* rule = index->Find(trustType, probe);
    if (rule == nullptr) {
        return false;
    }
    const int64_t ruleId = rule->id;
    event.trustMatch = 4;
    event.ruleset = rule->rulesetText;
    ZTRACE("Trust rule %lld (type %u, process '%s', paths '%s', ruleset '%s') matched %s",
           static_cast<long long>(ruleId), trustType, rule->processText.c_str(),
           rule->pathsText.c_str(), event.ruleset.c_str(), event.name.c_str());
    // Counted in memory and written with the store's next write, so a
    // decision never waits for the writer (an import may hold it).
    std::lock_guard<std::mutex> lock(m_HitsMutex);
    ++m_PendingHits[ruleId];
    return true;
}

bool ZELKDAL::CheckTrustRules() {
    // A connection committed since this thread's connection last looked.  The
    // writer's own view tells whether it was another one (a host or an
    // administrator writing the tables behind the engine's back): its data
    // version moves only for other connections' commits.  A busy writer is
    // not waited for; the question is asked again at the next lookup.
    std::unique_lock<std::mutex> lock(m_DataMutex, std::try_to_lock);
    if (!lock.owns_lock()) {
        return false;
    }
    DBHolder db = DBHandle();
    if (!db) {
        return false;
    }
    int64_t version = -1;
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db.get(), "PRAGMA data_version;", -1, &raw, nullptr) == SQLITE_OK &&
        sqlite3_step(raw) == SQLITE_ROW) {
        version = sqlite3_column_int64(raw, 0);
    }
    sqlite3_finalize(raw);
    if (m_TrustIndex.load(std::memory_order_acquire) == nullptr || version != m_WriterDataVersion) {
        m_WriterDataVersion = version;
        LoadTrustIndexLocked(db.get());
    }
    return true;
}

void ZELKDAL::TrustRulesChanged() {
    std::lock_guard<std::mutex> lock(m_DataMutex);
    if (DBHolder db = DBHandle()) {
        LoadTrustIndexLocked(db.get());
    }
}

void ZELKDAL::LoadTrustIndexLocked(sqlite3* db) {
    std::string error;
    std::shared_ptr<const ZELKTrustRuleIndex> index = ZELKTrustRuleIndex::Load(db, error);
    if (!index) {
        ZERROR("Unable to read the trust rules: %s", error.c_str());
        return;
    }
    std::lock_guard<std::mutex> lock(m_TrustIndexMutex);
    m_RetiredTrustIndexes.push_back(index);
    m_TrustIndex.store(index.get(), std::memory_order_release);
}

void ZELKDAL::WritePendingHitCountsLocked() {
    std::unordered_map<int64_t, int64_t> hits;
    {
        std::lock_guard<std::mutex> lock(m_HitsMutex);
        hits.swap(m_PendingHits);
    }
    DBHolder db = DBHandle();
    if (hits.empty() || !db) {
        return;
    }
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db.get(),
                           "UPDATE TrustRules SET hitcount = hitcount + :hits WHERE "
                           "(trustRuleId = :trustRuleId) ;",
                           -1, &raw, nullptr) != SQLITE_OK) {
        sqlite3_finalize(raw);
        return;
    }
    for (const auto& [id, count] : hits) {
        BindInt64ByName(raw, ":hits", count);
        BindInt64ByName(raw, ":trustRuleId", id);
        if (sqlite3_step(raw) != SQLITE_DONE) {
            ZWARNING("Unable to update hitcount of trust rule %lld: %s", static_cast<long long>(id),
                     GetLastDBErrorString().c_str());
        }
        ResetAndClear(raw);
    }
    sqlite3_finalize(raw);
}
