// ZELKDAL read connections: the decision path's own connections to the policy
// file.  Each host thread that decides gets one, with its own prepared lookup
// statements.  With the write-ahead log a read connection sees the last
// committed policy and never waits for the writer, so decisions go on at full
// speed while a ruleset is imported, and threads never wait for each other.
//
// Lifetime.  A connection belongs to the thread that made it (a thread_local
// reference) and to the store's list, through which Finalize closes every
// connection.  The thread takes the connection's own mutex for each lookup,
// which nobody else takes but CloseReaders; it is never contended while the
// store stays open.  A connection opened on an older generation of the file
// (the writer reopened or replaced it since) is closed and reopened first.
#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include "ZELKDataAccessLayerRead.h"

#include <sqlite3.h>

#include <string>

#include "ZELKDataAccessLayer.h"
#include "ZELKLogger.h"

// Every row of a SHA-256, the newest first: one descent of the digest index
// answers both the lookup among ruleset rows and the one among all rows.
const char* const kLookupBySha256SQL =
    "SELECT inventoryItemId, isAuthorized, source, ruleset FROM InventoryItems WHERE sha256 = "
    ":hash and (size = 0 or size = :size) ORDER BY inventoryItemId DESC;";

ZELKDAL::ReadConnection::~ReadConnection() {
    Close();
}

void ZELKDAL::ReadConnection::Close() {
    for (sqlite3_stmt** stmt : {&set.ruleset, &set.sha1, &set.md5, &set.all, &set.both}) {
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
    }
    sqlite3_finalize(dataVersion);
    dataVersion = nullptr;
    if (set.db != nullptr) {
        sqlite3_close_v2(set.db);
        set.db = nullptr;
    }
    lastDataVersion = -1;
}

bool ZELKDAL::ReadConnection::Open(const std::string& path, uint64_t openGeneration) {
    Close();
    // Never creates the file: a store that is being replaced is read again
    // once the writer has made the new one.  No mutex of SQLite's own: the
    // connection is used by one thread at a time, under `mutex`.
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) !=
        SQLITE_OK) {
        sqlite3_close_v2(db);
        return false;
    }
    set.db = db;
    sqlite3_busy_timeout(db, 5000);
    struct Prepared {
        sqlite3_stmt** stmt;
        const char* sql;
    };
    const Prepared prepared[] = {
        {&set.ruleset, LookupItemAuthRulesetSQL},  {&set.sha1, LookupItemAlternateSHA1HashSQL},
        {&set.md5, LookupItemAlternateMD5HashSQL}, {&set.all, LookupItemAuthSQL},
        {&set.both, kLookupBySha256SQL},           {&dataVersion, "PRAGMA data_version;"},
    };
    for (const Prepared& p : prepared) {
        if (sqlite3_prepare_v3(db, p.sql, -1, SQLITE_PREPARE_PERSISTENT, p.stmt, nullptr) !=
            SQLITE_OK) {
            Close();
            return false;
        }
    }
    generation = openGeneration;
    return true;
}

bool ZELKDAL::ReadConnection::Changed() {
    if (dataVersion == nullptr || sqlite3_step(dataVersion) != SQLITE_ROW) {
        sqlite3_reset(dataVersion);
        return true;
    }
    const int64_t version = sqlite3_column_int64(dataVersion, 0);
    sqlite3_reset(dataVersion);
    const bool changed = version != lastDataVersion;
    lastDataVersion = version;
    return changed;
}

std::shared_ptr<ZELKDAL::ReadConnection>& ZELKDAL::ThreadReader() {
    thread_local std::shared_ptr<ReadConnection> t_Reader;
    if (!t_Reader) {
        t_Reader = std::make_shared<ReadConnection>();
        std::lock_guard<std::mutex> lock(m_ReadersMutex);
        m_Readers.push_back(t_Reader);
    }
    return t_Reader;
}

ZELKDAL::ReadLease::ReadLease(ZELKDAL& dal, const char* name) : m_Reader(dal.ThreadReader().get()) {
    m_Lock.emplace(m_Reader->mutex, name);
    const uint64_t generation = dal.m_ReaderGeneration.load(std::memory_order_acquire);
    if (m_Reader->set.db != nullptr && m_Reader->generation == generation) {
        return;
    }
    // The path only changes while the store is closed, and then no
    // decision runs (engine_start and engine_stop do not overlap them).
    if (!dal.IsOpen() || !m_Reader->Open(dal.GetDBPath(), generation)) {
        m_Reader->Close();
    }
}

ZELKDAL::ReadLease::~ReadLease() = default;

void ZELKDAL::CloseReaders() {
    std::lock_guard<std::mutex> lock(m_ReadersMutex);
    for (auto it = m_Readers.begin(); it != m_Readers.end();) {
        {
            std::lock_guard<std::mutex> readerLock((*it)->mutex);
            (*it)->Close();
        }
        // A thread that has ended no longer holds its connection.
        it = it->use_count() == 1 ? m_Readers.erase(it) : it + 1;
    }
}
