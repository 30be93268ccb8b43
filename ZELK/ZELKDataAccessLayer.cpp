// ZELKDAL lifecycle: opening, creating and upgrading the database, the
// prepared statements, the persisted settings, deleting and purging.
#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include "ZELKDataAccessLayer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ZELKLogger.h"

// ---- SQL texts ------------------------------------------------------------

const char* const InsertItemSQL =
    "INSERT INTO InventoryItems( md5, sha1, sha256, source, fileName, path, nativePath, size, "
    "recordTime, isAuthorized, ruleset ) VALUES( :md5, :sha1, :sha256, :source, :fileName, :path, "
    ":nativePath, :size, :recordTime, :isAuthorized, :ruleset );";
const char* const InsertTrustRuleSQL =
    "INSERT INTO TrustRules( processName, paths, trustType, signerName, productName, companyName, "
    "sha256, issuerCN, issuerC, issuerL, issuerS, issuerO, issuerOU, ruleset, procUser, "
    "procGroup, userList ) VALUES( :processName, :paths, :trustType, :signerName, :productName, "
    ":companyName, :sha256, :issuerCN, :issuerC, :issuerL, :issuerS, :issuerO, :issuerOU, "
    ":ruleset, :procUser, :procGroup, :userList );";
const char* const InsertUserListSQL = "INSERT INTO UserList( id, user ) VALUES( :id, :user );";
const char* const UpdatePrelinkItemSQL =
    "UPDATE InventoryItems SET sha256 = :hash, size = :size, recordTime = :recordTime WHERE "
    "source = 5 and sha256 = :oldhash and path = :path and fileName = :fileName ;";
const char* const LookupItemAuthSQL =
    "SELECT * FROM InventoryItems WHERE(sha256 = :hash) and (size = 0 or size = :size) ORDER BY "
    "inventoryItemId DESC LIMIT 1;";
const char* const LookupItemAuthRulesetSQL =
    "SELECT * FROM InventoryItems WHERE(sha256 = :hash) and (size = 0 or size = :size) AND "
    "(source = 2 OR source = 1) ORDER BY inventoryItemId DESC LIMIT 1;";
const char* const LookupItemAlternateMD5HashSQL =
    "SELECT * FROM InventoryItems WHERE((LENGTH(sha256) IS NULL) AND (md5 = :md5 )) ORDER BY "
    "inventoryItemId DESC LIMIT 1;";
const char* const LookupItemAlternateSHA1HashSQL =
    "SELECT * FROM InventoryItems WHERE((LENGTH(sha256) IS NULL) AND(sha1 = :sha1)) ORDER BY "
    "inventoryItemId DESC LIMIT 1;";
const char* const LookupTrustRuleSQL =
    "SELECT trustRuleId, paths, hitcount, processName, ruleset, procGroup FROM TrustRules LEFT "
    "JOIN UserList ON TrustRules.userList = UserList.id WHERE (processName is NULL or "
    "processName = :processName or instr(processName,'?') or instr(processName,'*')) and "
    "(trustType = 0 or trustType = :trustType) and (signerName is NULL or signerName = "
    ":signerName) and (productName is NULL or productName = :productName) and (companyName is "
    "NULL or companyName = :companyName) and (sha256 is NULL or sha256 = :sha256) and (issuerCN "
    "is NULL or issuerCN= :issuerCN) and (issuerC is NULL or issuerC= :issuerC) and (issuerS is "
    "NULL or issuerS= :issuerS) and (issuerL is NULL or issuerL= :issuerL) and (issuerO is NULL "
    "or issuerO= :issuerO) and (issuerOU is NULL or issuerOU= :issuerOU) and (procGroup is NULL "
    "or INSTR(:procGroup, procGroup)) and ((TrustRules.userList is NULL and TrustRules.procUser "
    "is NULL) or (TrustRules.procUser = :procUser or UserList.user = :procUser)) ORDER BY "
    "trustRuleId ;";
const char* const LookupUserListSQL = "SELECT user FROM UserList WHERE id = :id ;";
const char* const UpdateTrustRuleHitcountSQL =
    "UPDATE TrustRules SET hitcount = :hitcount WHERE (trustRuleId = :trustRuleId) ;";
const char* const MetricsLookupTrustRuleSQL =
    "SELECT trustRuleId, paths, hitcount, processName, ruleset, trustType, signerName, "
    "productName, companyName, sha256, issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, "
    "procUser, procGroup, userList FROM TrustRules WHERE hitcount >= 1 ;";
const char* const LookupRuleCountSQL =
    "SELECT count(*) totalInventoryItems, SUM(CASE WHEN source=1 THEN 1 ELSE 0 END) agentRules, "
    "SUM(CASE WHEN source=2 THEN 1 ELSE 0 END) executionRules, SUM(CASE WHEN source=3 THEN 1 "
    "ELSE 0 END) scannedItems, SUM(CASE WHEN source=4 THEN 1 ELSE 0 END) approvedDrift FROM "
    "InventoryItems;";
const char* const LookupTrustRuleCountSQL = "SELECT count(*) totalTrustRules FROM TrustRules;";
const char* const LookupMD5_CountSQL =
    "select count(*) FROM inventoryItems where source = 2 and md5 IS NOT NULL;";
const char* const LookupSHA1_CountSQL =
    "select count(*) FROM inventoryItems where source = 2 and sha1 IS NOT NULL;";
const char* const LookupUserGroupTrustRuleCountSQL =
    "SELECT count(*) totalUserGroupTrustRules FROM TrustRules WHERE procUser IS NOT NULL OR "
    "procGroup IS NOT NULL OR userList IS NOT NULL;";
const char* const LookupRulesetCountSQL =
    "SELECT ruleset, count(*) totalRules FROM InventoryItems WHERE ruleset != '' GROUP BY "
    "ruleset;";
const char* const DeleteInventoryItemsSQL =
    "DELETE FROM InventoryItems WHERE(fileName = :fileName) AND (path IN (:path, :path2)) AND "
    "(source = 3 OR source = 4);";
const char* const GetAcStateSQL =
    "SELECT settingValue FROM AppControlState WHERE (settingName = :setting);";
const char* const SetAcStateSQL =
    "UPDATE AppControlState SET settingValue = :value WHERE (settingName = :setting);";
// Kept for reference; never prepared.
const char* const LookupItemMatchSQL =
    "SELECT * FROM InventoryItems WHERE sha256 = :hash or size = :size or fileName = :fileName "
    "or path = :path ;";

namespace {

// Each script sets user_version before it opens its transaction, so the
// version moves even when a later statement of the script fails.  A new
// database runs all of them in order, never a single version 15 script.
const char* const kSchemaScripts[] = {
    // 0: new database at version 4.
    "PRAGMA page_size = 4096; PRAGMA user_version = 4; BEGIN TRANSACTION; CREATE TABLE "
    "InventoryItems( inventoryItemId INTEGER PRIMARY KEY AUTOINCREMENT, fileName TEXT, path "
    "TEXT, nativePath TEXT, md5 BLOB, sha1 BLOB, sha256 BLOB, size INTEGER, recordTime INTEGER, "
    "isAuthorized INTEGER(1), source INTEGER, ruleset TEXT ); CREATE INDEX InventoryItems_Sha256 "
    "ON InventoryItems(sha256); CREATE INDEX InventoryItems_fileName ON InventoryItems(fileName); "
    "CREATE INDEX InventoryItems_size ON InventoryItems(size); CREATE TABLE AppControlState( id "
    "INTEGER PRIMARY KEY AUTOINCREMENT, settingName TEXT, settingValue TEXT ); INSERT INTO "
    "AppControlState(settingName, settingValue) VALUES('inventoryState', '-1'); INSERT INTO "
    "AppControlState(settingName, settingValue) VALUES('inventoryCookie', ''); INSERT INTO "
    "AppControlState(settingName, settingValue) VALUES('importState', '-1'); INSERT INTO "
    "AppControlState(settingName, settingValue) VALUES('effectiveRulesetIds', ''); INSERT INTO "
    "AppControlState(settingName, settingValue) VALUES('agentVersion', ''); INSERT INTO "
    "AppControlState(settingName, settingValue) VALUES('autoAuthorizeEndTime', '-1'); INSERT "
    "INTO AppControlState(settingName, settingValue) VALUES('autoAuthorizeStartTime', '-1'); "
    "INSERT INTO AppControlState(settingName, settingValue) VALUES('whitelistInventory', '-1'); "
    "INSERT INTO AppControlState(settingName, settingValue) VALUES('enableHTML', '1'); CREATE "
    "VIEW Items AS SELECT inventoryItemId, fileName, path, nativePath, md5, sha1, sha256, size, "
    "recordTime, isAuthorized, source, ruleset FROM InventoryItems JOIN AppControlState ON "
    "AppControlState.settingName = 'inventoryCookie'; CREATE INDEX AppControlState_settingName "
    "ON AppControlState(settingName); COMMIT TRANSACTION;",
    // 1: version 5.
    "PRAGMA user_version = 5; BEGIN TRANSACTION; CREATE TABLE TrustRules( trustRuleId INTEGER "
    "PRIMARY KEY AUTOINCREMENT, processName TEXT, paths TEXT, trustType INTEGER, signerName "
    "TEXT, productName TEXT, companyName TEXT, sha256 BLOB ); DROP INDEX "
    "InventoryItems_fileName; COMMIT TRANSACTION;",
    // 2: version 6.
    "PRAGMA user_version = 6; BEGIN TRANSACTION; ALTER TABLE TrustRules ADD issuerCN TEXT; "
    "COMMIT TRANSACTION;",
    // 3: version 7.
    "PRAGMA user_version = 7; BEGIN TRANSACTION; ALTER TABLE TrustRules ADD issuerC TEXT; ALTER "
    "TABLE TrustRules ADD issuerS TEXT; ALTER TABLE TrustRules ADD issuerL TEXT; ALTER TABLE "
    "TrustRules ADD issuerO TEXT; ALTER TABLE TrustRules ADD issuerOU TEXT; COMMIT TRANSACTION;",
    // 4: version 8.
    "PRAGMA user_version = 8; BEGIN TRANSACTION; CREATE INDEX InventoryItems_Sha1 ON "
    "InventoryItems(sha1); CREATE INDEX InventoryItems_Md5 ON InventoryItems(md5); COMMIT "
    "TRANSACTION;",
    // 5: version 9.
    "PRAGMA user_version = 9; BEGIN TRANSACTION; ALTER TABLE TrustRules ADD hitcount INTEGER "
    "DEFAULT 0; COMMIT TRANSACTION;",
    // 6: version 10.
    "PRAGMA user_version = 10; BEGIN TRANSACTION; CREATE INDEX TrustRules_processName ON "
    "TrustRules(processName); CREATE INDEX TrustRules_signerName ON TrustRules(signerName); "
    "COMMIT TRANSACTION;",
    // 7: version 11.
    "PRAGMA user_version = 11; BEGIN TRANSACTION; CREATE INDEX InventoryItems_fileName ON "
    "InventoryItems(fileName); COMMIT TRANSACTION;",
    // 8: version 12.
    "PRAGMA user_version = 12; BEGIN TRANSACTION; CREATE INDEX TrustRules_trustType ON "
    "TrustRules(trustType); ALTER TABLE TrustRules ADD ruleset TEXT; COMMIT TRANSACTION;",
    // 9: version 13.
    "PRAGMA user_version = 13; BEGIN TRANSACTION; INSERT INTO AppControlState(settingName, "
    "settingValue) VALUES('upgradetime', strftime('%s','now')); COMMIT TRANSACTION;",
    // 10: version 14.
    "PRAGMA user_version = 14; BEGIN TRANSACTION; ALTER TABLE TrustRules ADD procUser TEXT; "
    "ALTER TABLE TrustRules ADD procGroup TEXT; CREATE INDEX TrustRules_procUser ON "
    "TrustRules(procUser); CREATE INDEX TrustRules_procGroup ON TrustRules(procGroup); COMMIT "
    "TRANSACTION;",
    // 11: version 15.
    "PRAGMA user_version = 15; BEGIN TRANSACTION; ALTER TABLE TrustRules ADD userList TEXT; "
    "CREATE INDEX TrustRules_userList ON TrustRules(userList); CREATE TABLE UserList( id TEXT, "
    "user TEXT ); CREATE INDEX UserList_id_user ON UserList(id, user); COMMIT TRANSACTION;",
};
constexpr size_t kSchemaScriptCount = sizeof(kSchemaScripts) / sizeof(kSchemaScripts[0]);
static_assert(kSchemaScriptCount == ZELKDAL::kSchemaVersion - 3,
              "entry 0 creates version 4, each further entry adds one version");

struct SqliteStmtDeleter {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using UniqueStmt = std::unique_ptr<sqlite3_stmt, SqliteStmtDeleter>;

ZELKDAL::DBHolder MakeDBHolder(sqlite3* db) {
    return ZELKDAL::DBHolder(db, [](sqlite3* handle) { sqlite3_close_v2(handle); });
}

}  // namespace

#define ZELK_STMT_SLOT(purpose, sqlText) \
    { &ZELKDAL::m_p##purpose##Stmt, "m_p" #purpose "Stmt", sqlText }

const ZELKDAL::StatementSlot* ZELKDAL::StatementSlots(size_t& count) {
    static const StatementSlot slots[] = {
        ZELK_STMT_SLOT(InsertItem, InsertItemSQL),
        ZELK_STMT_SLOT(InsertTrustRule, InsertTrustRuleSQL),
        ZELK_STMT_SLOT(InsertUserList, InsertUserListSQL),
        ZELK_STMT_SLOT(UpdatePrelinkItem, UpdatePrelinkItemSQL),
        ZELK_STMT_SLOT(LookupItemAuth, LookupItemAuthSQL),
        ZELK_STMT_SLOT(LookupItemAuthRuleset, LookupItemAuthRulesetSQL),
        ZELK_STMT_SLOT(LookupItemAlternateMD5Hash, LookupItemAlternateMD5HashSQL),
        ZELK_STMT_SLOT(LookupItemAlternateSHA1Hash, LookupItemAlternateSHA1HashSQL),
        ZELK_STMT_SLOT(LookupTrustRule, LookupTrustRuleSQL),
        ZELK_STMT_SLOT(LookupUserList, LookupUserListSQL),
        ZELK_STMT_SLOT(UpdateTrustRuleHitcount, UpdateTrustRuleHitcountSQL),
        ZELK_STMT_SLOT(MetricsLookupTrustRule, MetricsLookupTrustRuleSQL),
        ZELK_STMT_SLOT(LookupRuleCount, LookupRuleCountSQL),
        ZELK_STMT_SLOT(LookupTrustRuleCount, LookupTrustRuleCountSQL),
        ZELK_STMT_SLOT(LookupMD5Count, LookupMD5_CountSQL),
        ZELK_STMT_SLOT(LookupSHA1Count, LookupSHA1_CountSQL),
        ZELK_STMT_SLOT(LookupUserGroupTrustRuleCount, LookupUserGroupTrustRuleCountSQL),
        ZELK_STMT_SLOT(LookupRulesetCount, LookupRulesetCountSQL),
        ZELK_STMT_SLOT(DeleteInventoryItems, DeleteInventoryItemsSQL),
        ZELK_STMT_SLOT(GetAcState, GetAcStateSQL),
        ZELK_STMT_SLOT(SetAcState, SetAcStateSQL),
    };
    count = sizeof(slots) / sizeof(slots[0]);
    return slots;
}

#undef ZELK_STMT_SLOT

// ---- Helpers --------------------------------------------------------------

int ZELKDAL::StmtScope::BindText(const char* name, const std::string& value) {
    return sqlite3_bind_text(m_Stmt.get(), sqlite3_bind_parameter_index(m_Stmt.get(), name),
                             value.c_str(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
}

int ZELKDAL::StmtScope::BindInt64(const char* name, int64_t value) {
    return sqlite3_bind_int64(m_Stmt.get(), sqlite3_bind_parameter_index(m_Stmt.get(), name),
                              value);
}

int ZELKDAL::StmtScope::BindBlob(const char* name, const void* data, int length) {
    return sqlite3_bind_blob(m_Stmt.get(), sqlite3_bind_parameter_index(m_Stmt.get(), name), data,
                             length, SQLITE_TRANSIENT);
}

int ZELKDAL::StmtScope::BindNull(const char* name) {
    return sqlite3_bind_null(m_Stmt.get(), sqlite3_bind_parameter_index(m_Stmt.get(), name));
}

ZELKDAL::DataLock::DataLock(ZELKDAL& dal, const char* name, int line)
    : DataLock(dal.m_DataMutex, name, line) {}

ZELKDAL::DataLock::DataLock(std::mutex& mutex, const char* name, int line)
    : m_Lock(mutex, std::defer_lock), m_Name(name), m_Line(line) {
    ZELKLogger& logger = ZELKLogger::GetInstance();
    if (logger.IsEnabled(ZLOG_TRACE)) {
        logger.Log(ZLOG_TRACE, m_Name, ZELK_LOG_FILE, m_Line, "%s lock", m_Name);
    }
    m_Lock.lock();
}

ZELKDAL::DataLock::~DataLock() {
    ZELKLogger& logger = ZELKLogger::GetInstance();
    if (logger.IsEnabled(ZLOG_TRACE)) {
        logger.Log(ZLOG_TRACE, m_Name, ZELK_LOG_FILE, m_Line, "%s unlock", m_Name);
    }
}

// ---- Lifecycle ------------------------------------------------------------

ZELKDAL& ZELKDAL::GetDAL() {
    static ZELKDAL dal;
    return dal;
}

ZELKDAL::ZELKDAL() {
    // SQLite keeps allocation statistics under one process-wide mutex, which
    // every thread's lookups would take for each allocation.  Nothing here
    // reads those statistics.  This only takes effect when SQLite has not
    // been initialised yet (a host that used it first keeps its settings).
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

// Members release in reverse order: the statements before the connection.
ZELKDAL::~ZELKDAL() = default;

size_t ZELKDAL::SchemaScriptCount() {
    return kSchemaScriptCount;
}

const char* ZELKDAL::SchemaScript(size_t index) {
    return index < kSchemaScriptCount ? kSchemaScripts[index] : nullptr;
}

bool ZELKDAL::IsOpen() const {
    return static_cast<bool>(DBHandle());
}

std::string ZELKDAL::GetDBPath() const {
    return m_DBPath;
}

bool ZELKDAL::SetDBPath(const std::string& path) {
    if (IsOpen()) {
        return false;  // the open file stays; no other path, not even the same
    }
    m_DBPath = path;
    return true;
}

bool ZELKDAL::InitDB(bool /*readOnly*/) {
    bool result;
    {
        std::lock_guard<std::mutex> lock(m_LifecycleMutex);
        result = _InitDB(false);
    }
    RefreshRuleSummaries();
    TrustRulesChanged();
    return result;
}

bool ZELKDAL::_InitDB(bool readOnly) {
    if (DBHandle()) {
        ZWARNING("m_DB is not null.");
        return PrepareStatements();
    }
    if (m_DBPath.empty()) {
        m_DBPath = "ac.db";
    }

    sqlite3* raw = nullptr;
    int flags = readOnly ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    int rc = sqlite3_open_v2(m_DBPath.c_str(), &raw, flags, nullptr);
    if (rc != SQLITE_OK) {
        ZERROR("sqlite3_open_v2 failed. rc: %d", rc);
        sqlite3_close_v2(raw);
        return false;
    }
    std::atomic_store(&m_DB, MakeDBHolder(raw));
    sqlite3_busy_timeout(raw, 5000);

    // Reading the version is also the first read of the file's header.  On a
    // failure the handle stays open: a later InitDB finds it and only
    // prepares the statements.
    int version = 0;
    {
        sqlite3_stmt* rawStmt = nullptr;
        rc = sqlite3_prepare_v2(raw, "PRAGMA user_version;", -1, &rawStmt, nullptr);
        UniqueStmt stmt(rawStmt);
        if (rc != SQLITE_OK) {
            ZERROR("PRAGMA user_version failed. rc: %d", rc);
            return false;
        }
        rc = sqlite3_step(stmt.get());
        if (rc == SQLITE_ROW) {
            version = sqlite3_column_int(stmt.get(), 0);
        } else if (rc != SQLITE_OK) {
            ZERROR("Init or Update Schema failed. rc: %d", rc);
            return false;
        }
        ZINFO("SCHEMA user_version: %d", version);
    }

    if (version == 0) {
        ZERROR("SCHEMA SIZE: %d", static_cast<int>(kSchemaScriptCount));
        if (!RunSchemaScripts(0, "sqlite3_exec for schema size failed fro version 0. rc: %d")) {
            return false;
        }
    } else if (version >= 4 && version < kSchemaVersion) {
        if (!RunSchemaScripts(static_cast<size_t>(version - 3),
                              "sqlite3_exec for schema size failed. rc: %d")) {
            return false;
        }
    } else if (version > kSchemaVersion) {
        // Written by a newer engine: we cannot read it, so start afresh.
        ZERROR("Unsupported DB user_verson: %d. current version: %d", version, kSchemaVersion);
        _DeleteDB();
        return _InitDB(readOnly);
    }
    // Versions 1 to 3 predate every upgrade script and are used as they are.
    if (!PrepareStatements()) {
        return false;
    }
    // Only a file whose schema the statements could be prepared on is
    // switched to the log: a damaged one is left as it was found.
    UseWriteAheadLog(raw);
    // Read connections opened before belong to another file or connection.
    m_ReaderGeneration.fetch_add(1, std::memory_order_acq_rel);
    return true;
}

void ZELKDAL::UseWriteAheadLog(sqlite3* db) {
    // With a write-ahead log, readers (the decision path's read connections,
    // other processes) keep reading the last committed policy while a writer
    // works, and a writer never waits for readers.  synchronous=NORMAL syncs
    // the log at checkpoints rather than at every commit: a process that is
    // killed loses nothing committed, a machine that loses power may lose the
    // last commits but never gets a damaged or half-imported policy.  The
    // import benchmark in bench/RESULTS.md gives the measured difference.
    // A file system that cannot hold the log's shared memory keeps the old
    // journal; everything still works, readers then wait for writers.
    char* message = nullptr;
    if (sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr,
                     &message) != SQLITE_OK) {
        ZWARNING("Write-ahead log not available for %s: %s", m_DBPath.c_str(),
                 message != nullptr ? message : "");
    }
    sqlite3_free(message);
    // After each commit the read connections that sit idle end their read
    // transactions, then the log is checkpointed as SQLite would by itself
    // (this hook replaces its automatic one).
    sqlite3_wal_hook(
        db,
        [](void* self, sqlite3* handle, const char* name, int frames) -> int {
            static_cast<ZELKDAL*>(self)->ReleaseIdleReaders();
            if (frames >= 1000) {
                sqlite3_wal_checkpoint_v2(handle, name, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                                          nullptr);
            }
            return SQLITE_OK;
        },
        this);
}

bool ZELKDAL::RunSchemaScripts(size_t first, const char* failure) {
    DBHolder db = DBHandle();
    for (size_t i = first; i < kSchemaScriptCount; ++i) {
        char* message = nullptr;
        int rc = sqlite3_exec(db.get(), kSchemaScripts[i], nullptr, nullptr, &message);
        if (rc != SQLITE_OK) {
            ZERROR(failure, rc);
            ZERROR("Schema script %d: %s", static_cast<int>(i), message ? message : "");
            sqlite3_free(message);
            // Leave no transaction open behind a half-run script.
            if (!sqlite3_get_autocommit(db.get())) {
                sqlite3_exec(db.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
            }
            return false;
        }
    }
    return true;
}

void ZELKDAL::Finalize() {
    // The decision path's connections go first; each reopens at its next use
    // once the store is open again.
    CloseReaders();
    m_ReaderGeneration.fetch_add(1, std::memory_order_acq_rel);
    size_t count = 0;
    const StatementSlot* slots = StatementSlots(count);
    for (size_t i = 0; i < count; ++i) {
        // A holder that is not set is not the only owner of anything: it is
        // reported as ignored, like one that another thread still holds.
        StmtHolder& holder = this->*(slots[i].member);
        if (holder && holder.use_count() == 1) {
            std::atomic_store(&holder, StmtHolder());
            ZERROR("Finalize %s", slots[i].name);
        } else {
            ZERROR("ignore Finalize %s", slots[i].name);
        }
    }
    if (m_DB && m_DB.use_count() == 1) {
        std::atomic_store(&m_DB, DBHolder());
        ZERROR("Finalize m_DB");
    } else {
        ZERROR("ignore Finalize m_DB");
    }
}

void ZELKDAL::FlushPendingWrites() {
    // Each flush takes the data mutex itself; an empty queue reports false,
    // which is not a failure here.
    StoreItemFlush();
    StoreTrustRuleFlush();
    StoreUserListFlush();
    std::lock_guard<std::mutex> lock(m_DataMutex);
    WritePendingHitCountsLocked();
}

void ZELKDAL::ShutdownDAL() {
    if (IsOpen()) {
        FlushPendingWrites();
    }
    std::lock_guard<std::mutex> lock(m_LifecycleMutex);
    Finalize();
}

bool ZELKDAL::_DeleteDB() {
    ZTRACE("Attempting to delete database file at %s", m_DBPath.c_str());
    Finalize();
    // The write-ahead log and its index belong to the file and go with it.
    for (const char* suffix : {"-wal", "-shm"}) {
        remove((m_DBPath + suffix).c_str());
    }
    if (remove(m_DBPath.c_str()) == 0) {
        ZTRACE("Successfully deleted database file");
        return true;
    }
    int error = errno;
    ZERROR("Failed to delete database after closing. Errno: %d", error);
    return error == ENOENT;
}

bool ZELKDAL::DeleteDB() {
    DataLock lock(*this, "DeleteDB");
    return _DeleteDB();
}

bool ZELKDAL::PurgeDB(DALSource source) {
    // Runs under the data mutex; the statements it may re-prepare are the
    // store's own, so no other lock is needed.
    auto purge = [&, zelkLogFunction_ = __func__]() -> bool {
        char sql[128];
        if (source == DAL_SOURCE_TRUST_RULES) {
            snprintf(sql, sizeof(sql), "%s", "DELETE FROM TrustRules; DELETE FROM UserList;");
        } else if (source != DAL_SOURCE_ALL) {
            snprintf(sql, sizeof(sql), "DELETE FROM InventoryItems WHERE source = %d;",
                     static_cast<int>(source));
        } else {
            // Deleting the file is the fast way to empty everything; the
            // table deletes below are the fallback when the file stays.
            snprintf(sql, sizeof(sql), "%s",
                     "DELETE FROM InventoryItems; DELETE FROM TrustRules; DELETE FROM UserList;");
            bool deleted = _DeleteDB();
            if (!DBHandle()) {
                ZTRACE("Re-initializing database after %s deletion.",
                       deleted ? "successful" : "failed");
                if (!_InitDB(false)) {
                    ZERROR("Database closed and then failed to reopen during purge");
                    return false;
                }
                if (deleted) {
                    return true;
                }
            } else if (deleted) {
                // Another thread still holds the old connection, which
                // closes with its last user; the file itself is gone.
                return true;
            }
        }

        DBHolder db = DBHandle();
        if (!db) {
            return true;  // closed: nothing to purge
        }
        bool result = true;
        ZTRACE("executing %s", sql);
        if (sqlite3_exec(db.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
            ZTRACE("executing %s failed", sql);
            ZERROR("PurgeDB: %s", GetLastDBErrorString().c_str());
            result = false;
        }
        ZTRACE("Vacuuming");
        // Inside a ruleset import the purge is part of the import's
        // transaction, where VACUUM cannot run; the pages it frees are
        // reused by the rules the import stores next.
        if (!m_InImport &&
            sqlite3_exec(db.get(), "VACUUM;", nullptr, nullptr, nullptr) != SQLITE_OK) {
            ZERROR("VACUUM failed: %s", GetLastDBErrorString().c_str());
            result = false;
        }
        return result;
    };

    bool result;
    bool reloadTrustRules;
    {
        ZTRACE("PurgeDB lock");
        std::lock_guard<std::mutex> lock(m_DataMutex);
        result = purge();
        // An import reloads the trust rules itself once it has committed.
        reloadTrustRules =
            !m_InImport && (source == DAL_SOURCE_ALL || source == DAL_SOURCE_TRUST_RULES);
        ZTRACE("Returning from PurgeDB with retval %d unlock", result ? 1 : 0);
    }
    if (reloadTrustRules) {
        TrustRulesChanged();
    }
    return result;
}

// ---- Statements -----------------------------------------------------------

bool ZELKDAL::PrepareStatements() {
    DBHolder db = DBHandle();
    if (!db) {
        ZERROR("m_DB is released");
        return false;
    }
    // Counting statements come early: InitDB needs them right after opening.
    static StmtHolder ZELKDAL::*const kPrepareOrder[] = {
        &ZELKDAL::m_pInsertItemStmt,
        &ZELKDAL::m_pInsertTrustRuleStmt,
        &ZELKDAL::m_pInsertUserListStmt,
        &ZELKDAL::m_pUpdatePrelinkItemStmt,
        &ZELKDAL::m_pLookupMD5CountStmt,
        &ZELKDAL::m_pLookupSHA1CountStmt,
        &ZELKDAL::m_pLookupItemAuthStmt,
        &ZELKDAL::m_pLookupItemAuthRulesetStmt,
        &ZELKDAL::m_pLookupItemAlternateSHA1HashStmt,
        &ZELKDAL::m_pLookupItemAlternateMD5HashStmt,
        &ZELKDAL::m_pLookupTrustRuleStmt,
        &ZELKDAL::m_pLookupUserListStmt,
        &ZELKDAL::m_pUpdateTrustRuleHitcountStmt,
        &ZELKDAL::m_pMetricsLookupTrustRuleStmt,
        &ZELKDAL::m_pLookupRuleCountStmt,
        &ZELKDAL::m_pLookupTrustRuleCountStmt,
        &ZELKDAL::m_pLookupUserGroupTrustRuleCountStmt,
        &ZELKDAL::m_pLookupRulesetCountStmt,
        &ZELKDAL::m_pDeleteInventoryItemsStmt,
        &ZELKDAL::m_pGetAcStateStmt,
        &ZELKDAL::m_pSetAcStateStmt,
    };
    size_t count = 0;
    const StatementSlot* slots = StatementSlots(count);
    for (StmtHolder ZELKDAL::*member : kPrepareOrder) {
        StmtHolder& holder = this->*member;
        if (holder) {
            continue;
        }
        const StatementSlot* slot = nullptr;
        for (size_t i = 0; i < count && slot == nullptr; ++i) {
            if (slots[i].member == member) {
                slot = &slots[i];
            }
        }
        // Every member of the prepare order has a slot; both lists are ours.
        assert(slot != nullptr);
        sqlite3_stmt* raw = nullptr;
        int rc = sqlite3_prepare_v2(db.get(), slot->sql, -1, &raw, nullptr);
        if (raw != nullptr) {
            std::atomic_store(&holder, StmtHolder(raw, SqliteStmtDeleter()));
        }
        if (rc != SQLITE_OK) {
            ZERROR("sqlite3_prepare_v2 failed. rc: %d", rc);
            ZERROR("Preparing %s: %s", slot->name, sqlite3_errmsg(db.get()));
            db.reset();
            Finalize();
            return false;
        }
    }
    return true;
}

std::string ZELKDAL::GetLastDBErrorString() const {
    DBHolder db = DBHandle();
    if (!db) {
        return "database closed";
    }
    int code = sqlite3_errcode(db.get());
    return std::to_string(code) + " (" + sqlite3_errstr(code) + "): " + sqlite3_errmsg(db.get());
}

// ---- Settings -------------------------------------------------------------

bool ZELKDAL::SetAppControlState(const std::string& setting, const std::string& value) {
    std::lock_guard<std::mutex> lock(m_DataMutex);
    StmtScope stmt(m_pSetAcStateStmt);
    if (!stmt) {
        ZERROR("m_pSetAcStateStmt is released");
        return false;
    }
    stmt.BindText(":setting", setting);
    stmt.BindText(":value", value);
    if (sqlite3_step(stmt.get()) == SQLITE_DONE) {
        ZTRACE("Set application control state setting %s value %s", setting.c_str(), value.c_str());
        return true;
    }
    ZWARNING("Unable to set application control state setting %s value %s", setting.c_str(),
             value.c_str());
    return false;
}

bool ZELKDAL::SetAppControlState(const std::string& setting, const unsigned long& value) {
    // All ones is the schema's "not set", written as the schema writes it.
    std::string text = value == ~0UL ? std::string("-1") : std::to_string(value);
    return SetAppControlState(setting, text);
}

bool ZELKDAL::GetAppControlState(const std::string& setting, std::string& value) {
    std::lock_guard<std::mutex> lock(m_DataMutex);
    StmtScope stmt(m_pGetAcStateStmt);
    if (!stmt) {
        ZERROR("m_pGetAcStateStmt is released");
        return false;
    }
    stmt.BindText(":setting", setting);
    if (sqlite3_step(stmt.get()) != SQLITE_ROW) {
        ZTRACE("Unable to get AppControl Setting for %s", setting.c_str());
        return false;
    }
    do {
        const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
        value = text != nullptr ? reinterpret_cast<const char*>(text) : "";
        ZTRACE("Found AppControl Setting for %s value %s", setting.c_str(), value.c_str());
    } while (sqlite3_step(stmt.get()) == SQLITE_ROW);
    return true;
}

bool ZELKDAL::GetAppControlState(const std::string& setting, unsigned long& value) {
    std::string text;
    if (!GetAppControlState(setting, text)) {
        return false;
    }
    value = strtoull(text.c_str(), nullptr, 10);
    return true;
}

// ---- Rule-presence summaries ----------------------------------------------

bool ZELKDAL::CountRows(const StmtHolder& holder, const char* name, int64_t& count) {
    DataLock lock(*this, name);
    StmtScope stmt(holder);
    if (!stmt) {
        return false;
    }
    if (sqlite3_step(stmt.get()) != SQLITE_ROW) {
        ZERROR("%s: %s", name, GetLastDBErrorString().c_str());
        return false;
    }
    count = sqlite3_column_int64(stmt.get(), 0);
    return true;
}

void ZELKDAL::RefreshRuleSummaries() {
    int64_t trustRules = 0;
    if (!CountRows(m_pLookupTrustRuleCountStmt, "LookupTrustRuleCount", trustRules)) {
        trustRules = 0;
    }
    m_TrustRulesPresent.store(trustRules > 0, std::memory_order_release);
    RefreshDigestRuleCounts();
}

void ZELKDAL::RefreshDigestRuleCounts() {
    int64_t md5 = 0;
    int64_t sha1 = 0;
    if (!CountRows(m_pLookupMD5CountStmt, "LookupMD5Count", md5)) {
        md5 = 0;
    }
    if (!CountRows(m_pLookupSHA1CountStmt, "LookupSHA1Count", sha1)) {
        sha1 = 0;
    }
    m_MD5RuleCount.store(md5, std::memory_order_release);
    m_SHA1RuleCount.store(sha1, std::memory_order_release);
}
