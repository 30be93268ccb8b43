// ZELKDAL: the policy store.  One SQLite file (ac.db by default) holds the
// inventory, the hash rulesets, the trust rules, the user lists and the
// persisted engine settings.  This header declares the whole store; its
// operations are spread over several sources:
//   ZELKDataAccessLayer.cpp        open/upgrade/close, statements, settings, purge
//   ZELKDataAccessLayerRead.cpp    the decision path's read connections
//   ZELKDataAccessLayerLookup.cpp  allow lookup, prelink update, trust-rule lookup
//   ZELKDataAccessLayerStore.cpp   item, trust-rule and user-list stores
//   ZELKDataAccessLayerImport.cpp  ruleset import and its transaction
//   ZELKDataAccessLayerExport.cpp  export and the metrics sections
//
// Connections.  The file is in write-ahead-log mode.
//   The writer (m_DB and the twenty-one m_p...Stmt statements) does every
//   write and every read that is not on the decision path; it is used under
//   m_DataMutex (or m_LifecycleMutex while opening and closing).
//   Read connections (one per deciding thread, ReadConnection) answer the
//   allow lookup; each is used under its own mutex, so decisions neither wait
//   for the writer nor for each other, and they see only committed policy.
//   The trust rules are held in memory (m_TrustIndex, read without a lock),
//   reloaded through the writer when the engine or another process changed
//   them; the hit counts decisions raise are kept in m_PendingHits
//   (m_HitsMutex) and written through the writer with its next write.
//
// Locking.  m_DataMutex (the writer), m_LifecycleMutex (open and close),
// m_ImportMutex (one import at a time, taken before m_DataMutex), the read
// connections' own mutexes, m_ReadersMutex (the list of read connections),
// m_TrustIndexMutex and m_HitsMutex (each held only for its own data).  The
// data and lifecycle mutexes are never held together.  Operations log
// "<name> lock" / "<name> unlock" around the data mutex, and around a read
// connection's mutex where the lookup used to take the data mutex (DataLock).
// The writer and each of its statements sit in reference-counted holders: a
// user copies the holder (StmtScope, DBHandle) for as long as it works with
// it, so a concurrent Finalize never destroys a statement in use.
#ifndef ZELK_ZELKDATAACCESSLAYER_H_
#define ZELK_ZELKDATAACCESSLAYER_H_

#include <cjson/cJSON.h>
#include <sqlite3.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ZELKEvent.h"
#include "ZELKRules.h"
#include "ZELKTrustRuleIndex.h"
#include "zelk.h"

class ZELKDAL {
  public:
    // The schema version this build creates and upgrades to.
    static constexpr int kSchemaVersion = 15;

    using DBHolder = std::shared_ptr<sqlite3>;
    using StmtHolder = std::shared_ptr<sqlite3_stmt>;

    // The one store of the process, created on first use, destroyed at exit.
    static ZELKDAL& GetDAL();

    // The schema scripts: entry 0 creates a version 4 database, entry k
    // upgrades version k+3 to k+4.  Exposed so that tests can build databases
    // of older versions.
    static size_t SchemaScriptCount();
    static const char* SchemaScript(size_t index);

    // ---- Lifecycle -------------------------------------------------------

    // While closed: replaces the path (empty means "ac.db") and returns true.
    // While open: changes nothing and returns false, whatever the path.
    bool SetDBPath(const std::string& path);
    std::string GetDBPath() const;
    bool IsOpen() const;

    // Opens, creates or upgrades the database to kSchemaVersion and prepares
    // the statements, then refreshes the rule summaries.  `readOnly` is
    // accepted for the host's sake and ignored: the store always opens
    // read-write.  False when the file cannot be opened, is not a database, is
    // not writable, or an upgrade step failed; the reason is logged at ERROR.
    // A non-database file is never modified.
    bool InitDB(bool readOnly = false);

    // Releases every statement and the connection that nobody else holds.
    void Finalize();

    // Writes queued records, then finalises.  The store is closed afterwards;
    // a later InitDB opens it again.
    void ShutdownDAL();

    // Closes the store and removes the file; true also when there was no
    // file.  The store stays closed until the next InitDB.
    bool DeleteDB();

    // source 0: the whole database (deleted and recreated); 6: trust rules
    // and user lists; otherwise the inventory rows of that source.  True on
    // success, and for sources 1 to 6 on a closed store (nothing to purge).
    bool PurgeDB(DALSource source);

    // ---- Statements and settings -----------------------------------------

    // Prepares the statements not yet held.  On any failure logs, finalises
    // the whole store and returns false.  False on a closed store.
    bool PrepareStatements();

    // Updates an existing AppControlState row; a name with no row changes
    // nothing and still succeeds.  The numeric form writes decimal text, and
    // "-1" for the all-ones value (the schema's "not set").
    bool SetAppControlState(const std::string& setting, const std::string& value);
    bool SetAppControlState(const std::string& setting, const unsigned long& value);

    // False (value untouched) when the setting has no row or the store is
    // closed.  The numeric form parses with strtoull: "-1" reads as all ones,
    // "" as 0.
    bool GetAppControlState(const std::string& setting, std::string& value);
    bool GetAppControlState(const std::string& setting, unsigned long& value);

    // The connection's last error as "<code> (<text>): <message>", for logs.
    std::string GetLastDBErrorString() const;

    // ---- Rule-presence summaries -----------------------------------------
    // Cheap, lock-free answers that let lookups skip queries which cannot
    // match.  InitDB counts all three after every open; a ruleset import sets
    // the trust-rule flag by what it imports (set by a trust-rule document,
    // cleared by a whole agent manifest) and recounts the digest rules.
    // Purges and deletions leave them as they are.  A summary that cannot be
    // counted reads as "nothing present".
    bool HasTrustRules() const { return m_TrustRulesPresent.load(std::memory_order_acquire); }
    int64_t GetMD5RuleCount() const { return m_MD5RuleCount.load(std::memory_order_acquire); }
    int64_t GetSHA1RuleCount() const { return m_SHA1RuleCount.load(std::memory_order_acquire); }
    void RefreshRuleSummaries();
    // The MD5 and SHA-1 rule counts only.
    void RefreshDigestRuleCounts();

    // ---- Allow lookup (ZELKDataAccessLayerLookup.cpp) --------------------

    // Looks the event's file up by digest and size and writes isAuthorized,
    // authorizedState, source and ruleset into it.  True when the lookup ran
    // to an answer (found or not), false when it could not run (no SHA-256,
    // released statement, bind failure, database error).
    bool IsAllowedInDB(ac_event& event);
    // The same; caller holds m_DataMutex.
    bool IsAllowedInDBInternal(ac_event& event);
    // Re-checks a file that prelinking rewrote, using and clearing the
    // previous-digest slot.  True when the event ends up authorized.
    bool UpdatePrelinkItem(ac_event& event);
    // Fills the previous-digest slot used by the next UpdatePrelinkItem.
    void SetPreviousPrelinkHash(const SHA256Hash& previous);

    // ---- Trust-rule lookup (ZELKDataAccessLayerLookup.cpp) ---------------

    // True when a rule of `trustType` (or of type 0) matches the event; then
    // sets event.trustMatch = 4 and event.ruleset and raises the rule's hit
    // count.  False at once, without the mutex, while no trust rules exist.
    bool IsFoundInTrustRules(unsigned trustType, ac_event& event);
    // Forwards to MatchEventPathWithRulePath.
    bool CallMatchEventPath(std::string& eventPath, std::string& rulePaths);

    // ---- Item and rule stores (ZELKDataAccessLayerStore.cpp) --------------

    // One InventoryItems row as the store writes it: the event fields the
    // insert uses and nothing else, so a queue of thousands stays cheap.  A
    // digest whose has... flag is false is written as NULL; authorizedState
    // maps to isAuthorized when the row is written.
    struct ItemRow {
        unsigned char md5[16] = {};
        unsigned char sha1[20] = {};
        unsigned char sha256[32] = {};
        bool hasMd5 = false, hasSha1 = false, hasSha256 = false;
        uint32_t source = 0;
        uint32_t authorizedState = 0;
        uint64_t size = 0;
        std::string fileName, path, nativePath, ruleset;
    };
    // The row an event is stored as.
    static ItemRow RowFromEvent(const ac_event& event);

    // Store one item now, or queue it (flushed past 1000 queued events, by
    // the Flush calls and at shutdown).  False when an exclude trust rule
    // covers the item's path or the write failed.
    bool StoreItem(ac_db_item_s* item);
    bool StoreItemBuffer(ac_db_item_s* item);
    bool StoreItem(ac_event& event);
    bool StoreItemBuffer(ac_event& event);
    // The same for a row built without an event (the ruleset import).  The
    // exclusion test sees an event with the row's fields; the row is moved
    // into the queue.
    bool StoreItemBuffer(ItemRow&& row);
    // StoreItemBuffer for each row in turn (the import's batches); `rows` is
    // left empty.
    void StoreItemBufferRows(std::vector<ItemRow>& rows);
    // Write the queue in one transaction; false when the queue was empty or
    // the batch failed (then rolled back: never half a batch).
    bool StoreItemFlush();
    bool StoreTrustRuleBuffer(const ac_trust_rule& rule);
    bool StoreTrustRuleFlush();
    bool StoreUserListBuffer(const ac_user_list& entry);
    bool StoreUserListFlush();
    // Removes the scanned and drift rows of the event's file.
    bool DeleteInventoryItems(ac_event& event);
    // Records the event's file as allowed according to its source.
    bool WhitelistFile(ac_event& event);

    // ---- Ruleset import (ZELKDataAccessLayerImport.cpp) --------------------

    // Imports a hash ruleset, agent manifest or trust-rule document, chosen by
    // `name`.  False only for an unreadable file or unparsable JSON.
    bool ImportRuleset(bool incremental, const std::string& path, const std::string& name);
    bool ImportRulesetBuffer(bool incremental, const char* buffer, const std::string& name);

    // ---- Export and metrics (ZELKDataAccessLayerExport.cpp) ----------------

    // Writes rows with id > fromItemId (at most `limit`, 0 = all) of the Items
    // view (or of TrustRules when `table` is "TrustRules", any case) as JSON to
    // `outPath`, atomically.  False on any failure, leaving nothing behind.
    bool GetItems(unsigned long fromItemId, unsigned long limit, unsigned source,
                  const std::string& outPath, const std::string& table);
    // Sections of the metrics document.
    void PrepareMetrics(cJSON* trustRulesStats);
    void PrepareMetricsDBInfo(cJSON* dbInfo);
    void PrepareMetricsDBInfoTrustRules(cJSON* dbInfo);
    void PrepareMetricsDBInfoRulesets(cJSON* dbInfo);
    void PrepareMetricsDBSize(cJSON* dbInfo);

    ZELKDAL(const ZELKDAL&) = delete;
    ZELKDAL& operator=(const ZELKDAL&) = delete;

  private:
    // Borrows a prepared statement for one use.  Holds a reference so that a
    // concurrent Finalize cannot destroy it, and resets it and clears its
    // bindings on every way out of the scope.  Check it with operator bool: a
    // released statement yields an empty scope.
    class StmtScope {
      public:
        explicit StmtScope(const StmtHolder& holder) : m_Stmt(std::atomic_load(&holder)) {}
        ~StmtScope() {
            if (m_Stmt) {
                sqlite3_reset(m_Stmt.get());
                sqlite3_clear_bindings(m_Stmt.get());
            }
        }
        StmtScope(const StmtScope&) = delete;
        StmtScope& operator=(const StmtScope&) = delete;

        explicit operator bool() const { return static_cast<bool>(m_Stmt); }
        sqlite3_stmt* get() const { return m_Stmt.get(); }

        // Binders by parameter name (":hash"); return the SQLite result, a
        // name the statement lacks gives SQLITE_RANGE.  Texts and blobs are
        // copied by SQLite.
        int BindText(const char* name, const std::string& value);
        int BindInt64(const char* name, int64_t value);
        int BindBlob(const char* name, const void* data, int length);
        int BindNull(const char* name);

      private:
        StmtHolder m_Stmt;
    };

    // Holds m_DataMutex for a scope and logs "<name> lock" before taking it
    // and "<name> unlock" before letting it go.
    class DataLock {
      public:
        DataLock(ZELKDAL& dal, const char* name, int line = __builtin_LINE());
        // The same around another lock of the store (a read connection's).
        DataLock(std::mutex& mutex, const char* name, int line = __builtin_LINE());
        ~DataLock();
        DataLock(const DataLock&) = delete;
        DataLock& operator=(const DataLock&) = delete;

      private:
        std::unique_lock<std::mutex> m_Lock;
        const char* m_Name;
        int m_Line;
    };

    // A statement member with its name (for Finalize's messages) and SQL.
    struct StatementSlot {
        StmtHolder ZELKDAL::*member;
        const char* name;
        const char* sql;
    };
    // The twenty-one statements in the order Finalize releases them.
    static const StatementSlot* StatementSlots(size_t& count);

    ZELKDAL();
    ~ZELKDAL();

    // The open/check/upgrade procedure.  Caller holds m_LifecycleMutex
    // (InitDB) or m_DataMutex (PurgeDB).
    bool _InitDB(bool readOnly);
    // DeleteDB without the lock: finalise, then remove the file.
    bool _DeleteDB();
    // Runs schema scripts [first, count); logs `failure` with the rc and
    // returns false at the first that fails.
    bool RunSchemaScripts(size_t first, const char* failure);
    // One "count(*)" statement; false when it is released or fails.
    bool CountRows(const StmtHolder& holder, const char* name, int64_t& count);
    // True when an exclude trust rule covers the item's path; logs
    // "<caller> exclude path: ..." and counts it.  Caller must not hold
    // m_DataMutex.
    bool IsExcludedItem(ac_event& event, const char* caller);
    // Hook of ShutdownDAL: writes the queued items, trust rules and user
    // lists while the store is still open.
    void FlushPendingWrites();

    // The statements one allow lookup runs, on one connection: the writer's
    // own (members below, under m_DataMutex) or a read connection's.  A null
    // statement is one that has been released.
    struct LookupStatements {
        sqlite3* db = nullptr;
        sqlite3_stmt* ruleset = nullptr;  // LookupItemAuthRulesetSQL
        sqlite3_stmt* sha1 = nullptr;     // LookupItemAlternateSHA1HashSQL
        sqlite3_stmt* md5 = nullptr;      // LookupItemAlternateMD5HashSQL
        sqlite3_stmt* all = nullptr;      // LookupItemAuthSQL
        sqlite3_stmt* both = nullptr;     // read connections only: kLookupBySha256SQL
    };
    // One row found by a lookup: the columns the interpretation reads.
    struct FoundRow {
        int64_t id = 0;
        int isAuthorized = 0;
        int source = 0;
        std::string ruleset;
    };
    static FoundRow RowOfSelectAll(sqlite3_stmt* stmt);
    // A connection of its own for the decision path: it reads the last
    // committed policy and never waits for the writer.  One per host thread;
    // see ZELKDataAccessLayerRead.cpp.
    struct ReadConnection;

    // The lookup in its fixed order, on `set`, and the interpretation of the
    // row found.  Logs as IsAllowedInDBInternal.
    bool RunAllowLookup(const LookupStatements& set, ac_event& event);
    // The digest lookups in their fixed order; true with `found` set (or
    // not, `rc` SQLITE_DONE) when the lookup ran, false when it could not.
    bool IsAllowedInDBSearch(const LookupStatements& set, ac_event& event, FoundRow& found,
                             bool& hasRow);
    // Checks on a row found by a lookup.
    static bool IsAllowedInRuleSet(const FoundRow& row);
    static bool IsAllowedInDrift(const FoundRow& row);
    static bool IsAllowedInInventory(const FoundRow& row);

    // The calling thread's read connection, open on the current file and
    // locked for one lookup (logged as "<name> lock"/"<name> unlock"); an
    // empty result when the store is closed or the file cannot be opened,
    // and then the caller uses the writer under m_DataMutex.
    class ReadLease;
    std::shared_ptr<ReadConnection>& ThreadReader();
    // Closes every read connection (Finalize); each reopens at its next use.
    void CloseReaders();
    // Ends the read transactions of the read connections no lookup uses now;
    // called after every commit of the writer.
    void ReleaseIdleReaders();

    // One ruleset import's transaction: imports one at a time, BEGIN
    // IMMEDIATE on the writer, COMMIT when the import is done (ROLLBACK when
    // it never gets there).  See ZELKDataAccessLayerImport.cpp.
    class ImportTransaction {
      public:
        ImportTransaction(ZELKDAL& dal, const std::string& name);
        ~ImportTransaction();
        ImportTransaction(const ImportTransaction&) = delete;
        ImportTransaction& operator=(const ImportTransaction&) = delete;
        // Commits (with the hit counts counted meanwhile).
        void Commit();

      private:
        void Finish(const char* sql);
        ZELKDAL& m_Dal;
        std::lock_guard<std::mutex> m_Import;  // m_ImportMutex, for the whole import
        std::string m_Name;
        bool m_Open = false;
    };
    // Reloads the trust-rule index after the engine changed the tables.
    void TrustRulesChanged();
    // The same; caller holds m_DataMutex and passes the writer.
    void LoadTrustIndexLocked(sqlite3* db);
    // Reloads the index when a connection other than the writer changed the
    // tables since the last check.  False when the writer was busy (nothing
    // was checked).  Caller holds no lock of the store.
    bool CheckTrustRules();
    // Writes the hit counts counted in memory; caller holds m_DataMutex.
    void WritePendingHitCountsLocked();
    // Switches a freshly opened writer to the write-ahead log.
    void UseWriteAheadLog(sqlite3* db);
    // UpdatePrelinkItem under the mutex; `counter` gets the statistics key
    // to count once the mutex is released.
    bool UpdatePrelinkItemLocked(ac_event& event, const char*& counter);

    // Store internals; caller holds m_DataMutex.  Each flush writes its whole
    // queue in one transaction and empties the queue; a failed batch is
    // rolled back and dropped.
    bool StoreItemInternal(ac_event& event);
    bool StoreItemFlushInternal();
    // Binds and steps the borrowed m_pInsertItemStmt for one row, then resets
    // it and clears its bindings; a flush borrows the statement once.
    bool InsertItemRow(StmtScope& stmt, const ItemRow& row);
    bool StoreTrustRuleInternal(const ac_trust_rule& rule);
    bool StoreUserListInternal(const ac_user_list& entry);
    // Defined and used only in ZELKDataAccessLayerStore.cpp.
    template <typename Record, typename Store>
    bool FlushQueueInternal(std::deque<Record>& queue, const char* name, Store store);

    DBHolder DBHandle() const { return std::atomic_load(&m_DB); }

    // Written only while closed (SetDBPath) or on first open (empty -> ac.db);
    // engine_start, the only writer, never overlaps other calls.
    std::string m_DBPath;

    mutable std::mutex m_DataMutex;
    std::mutex m_LifecycleMutex;

    // Connection and statements.  Set by _InitDB/PrepareStatements, cleared by
    // Finalize; both run under one of the two mutexes.  Readers copy them with
    // std::atomic_load (DBHandle, StmtScope) and use the copy.
    DBHolder m_DB;
    StmtHolder m_pInsertItemStmt;
    StmtHolder m_pInsertTrustRuleStmt;
    StmtHolder m_pInsertUserListStmt;
    StmtHolder m_pUpdatePrelinkItemStmt;
    StmtHolder m_pLookupItemAuthStmt;
    StmtHolder m_pLookupItemAuthRulesetStmt;
    StmtHolder m_pLookupItemAlternateMD5HashStmt;
    StmtHolder m_pLookupItemAlternateSHA1HashStmt;
    StmtHolder m_pLookupTrustRuleStmt;
    StmtHolder m_pLookupUserListStmt;
    StmtHolder m_pUpdateTrustRuleHitcountStmt;
    StmtHolder m_pMetricsLookupTrustRuleStmt;
    StmtHolder m_pLookupRuleCountStmt;
    StmtHolder m_pLookupTrustRuleCountStmt;
    StmtHolder m_pLookupMD5CountStmt;
    StmtHolder m_pLookupSHA1CountStmt;
    StmtHolder m_pLookupUserGroupTrustRuleCountStmt;
    StmtHolder m_pLookupRulesetCountStmt;
    StmtHolder m_pDeleteInventoryItemsStmt;
    StmtHolder m_pGetAcStateStmt;
    StmtHolder m_pSetAcStateStmt;

    // Pending writes and the prelink slot.  Guarded by m_DataMutex.
    std::deque<ItemRow> m_PendingItems;
    std::deque<ac_trust_rule> m_PendingTrustRules;
    std::deque<ac_user_list> m_PendingUserLists;
    SHA256Hash m_PreviousPrelinkHash;

    // Rule-presence summaries; written by RefreshRuleSummaries, read lock-free.
    std::atomic<bool> m_TrustRulesPresent{false};
    std::atomic<int64_t> m_MD5RuleCount{0};
    std::atomic<int64_t> m_SHA1RuleCount{0};

    // Ruleset imports.  m_ImportMutex keeps them one at a time for their
    // whole run; m_InImport (guarded by m_DataMutex) tells purges inside an
    // import that they run in its transaction.
    std::mutex m_ImportMutex;
    bool m_InImport = false;

    // Read connections.  m_Readers (guarded by m_ReadersMutex) lists every
    // thread's connection so Finalize can close them; each connection's own
    // mutex is taken by its thread for a lookup and by CloseReaders.  The
    // generation moves on whenever the writer opens or closes the file; a
    // connection of an older generation reopens before its next lookup.
    std::mutex m_ReadersMutex;
    std::vector<std::shared_ptr<ReadConnection>> m_Readers;
    std::atomic<uint64_t> m_ReaderGeneration{1};

    // Trust rules in memory.  The current index is published through an
    // atomic pointer and read without a lock; replaced indexes stay alive
    // (m_RetiredTrustIndexes) until the store closes, since a decision may
    // still be reading one.  m_TrustIndexMutex serialises reloads.
    std::mutex m_TrustIndexMutex;
    int64_t m_WriterDataVersion = -1;  // guarded by m_DataMutex
    std::atomic<const ZELKTrustRuleIndex*> m_TrustIndex{nullptr};
    std::vector<std::shared_ptr<const ZELKTrustRuleIndex>> m_RetiredTrustIndexes;

    // Hit counts of trust rules counted by decisions, by rule id, not yet
    // written.  Guarded by m_HitsMutex (held only to add or take them).
    std::mutex m_HitsMutex;
    std::unordered_map<int64_t, int64_t> m_PendingHits;
};

// SQL texts of the prepared statements (defined in ZELKDataAccessLayer.cpp).
extern const char* const InsertItemSQL;
extern const char* const InsertTrustRuleSQL;
extern const char* const InsertUserListSQL;
extern const char* const UpdatePrelinkItemSQL;
extern const char* const LookupItemAuthSQL;
extern const char* const LookupItemAuthRulesetSQL;
extern const char* const LookupItemAlternateMD5HashSQL;
extern const char* const LookupItemAlternateSHA1HashSQL;
extern const char* const LookupTrustRuleSQL;
extern const char* const LookupUserListSQL;
extern const char* const UpdateTrustRuleHitcountSQL;
extern const char* const MetricsLookupTrustRuleSQL;
extern const char* const LookupRuleCountSQL;
extern const char* const LookupTrustRuleCountSQL;
extern const char* const LookupMD5_CountSQL;
extern const char* const LookupSHA1_CountSQL;
extern const char* const LookupUserGroupTrustRuleCountSQL;
extern const char* const LookupRulesetCountSQL;
extern const char* const DeleteInventoryItemsSQL;
extern const char* const GetAcStateSQL;
extern const char* const SetAcStateSQL;
extern const char* const LookupItemMatchSQL;

#endif  // ZELK_ZELKDATAACCESSLAYER_H_
