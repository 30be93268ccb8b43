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

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "ZELKDataAccessLayer.h"
#include "ZELKLogger.h"

// Every row of a SHA-256, the newest first: one descent of the digest index
// answers both the lookup among ruleset rows and the one among all rows.
namespace {
// The index header lies in the first page of the -shm file.
constexpr size_t kShmMapBytes = 4096;
}  // namespace

const char* const kLookupBySha256SQL =
    "SELECT inventoryItemId, isAuthorized, source, ruleset FROM InventoryItems WHERE sha256 = "
    ":hash and (size = 0 or size = :size) ORDER BY inventoryItemId DESC;";

ZELKDAL::ReadConnection::~ReadConnection() {
    Close();
}

void ZELKDAL::ReadConnection::Close() {
    EndRead();
    if (shm != nullptr) {
        munmap(const_cast<unsigned char*>(shm), kShmMapBytes);
        shm = nullptr;
    }
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
    // Lookups read the file through a memory map: a page is then a memory
    // access instead of a pread system call, and threads do not queue in the
    // kernel for the same file.  The map is address space, not memory.
    sqlite3_exec(db, "PRAGMA mmap_size=1073741824;", nullptr, nullptr, nullptr);
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
    // The log's index header tells, without a system call or a lock,
    // whether anything was committed since this connection's read
    // transaction began.  Without it every lookup is a transaction of its
    // own, which is correct, only slower.
    const int fd = open((path + "-shm").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        void* map = mmap(nullptr, kShmMapBytes, PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        if (map != MAP_FAILED) {
            shm = static_cast<const volatile unsigned char*>(map);
        }
    }
    generation = openGeneration;
    return true;
}

void ZELKDAL::ReadConnection::Refresh() {
    if (shm == nullptr || set.db == nullptr) {
        return;
    }
    unsigned char now[kShmHeaderBytes];
    for (size_t i = 0; i < kShmHeaderBytes; ++i) {
        now[i] = shm[i];
    }
    if (inRead && memcmp(now, seen, sizeof(now)) == 0) {
        return;  // nothing committed since: the open snapshot is the latest
    }
    EndRead();
    // The header is copied before the transaction takes its snapshot: a
    // commit in between makes the next lookup begin again, never miss it.
    memcpy(seen, now, sizeof(now));
    inRead = sqlite3_exec(set.db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
}

void ZELKDAL::ReadConnection::EndRead() {
    if (inRead && set.db != nullptr) {
        sqlite3_exec(set.db, "COMMIT", nullptr, nullptr, nullptr);
    }
    inRead = false;
}

int64_t ZELKDAL::ReadConnection::DataVersion() {
    if (dataVersion == nullptr || sqlite3_step(dataVersion) != SQLITE_ROW) {
        sqlite3_reset(dataVersion);
        return -1;
    }
    const int64_t version = sqlite3_column_int64(dataVersion, 0);
    sqlite3_reset(dataVersion);
    return version;
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
    if (m_Reader->set.db == nullptr || m_Reader->generation != generation) {
        // The path only changes while the store is closed, and then no
        // decision runs (engine_start and engine_stop do not overlap them).
        if (!dal.IsOpen() || !m_Reader->Open(dal.GetDBPath(), generation)) {
            m_Reader->Close();
            return;
        }
    }
    m_Reader->Refresh();
}

ZELKDAL::ReadLease::~ReadLease() = default;

void ZELKDAL::ReleaseIdleReaders() {
    // Readers busy with a lookup end their transaction soon by themselves
    // (their next lookup sees this commit); idle ones are ended here, so an
    // idle thread never holds the log back from being checkpointed.
    std::lock_guard<std::mutex> lock(m_ReadersMutex);
    for (const std::shared_ptr<ReadConnection>& reader : m_Readers) {
        std::unique_lock<std::mutex> readerLock(reader->mutex, std::try_to_lock);
        if (readerLock.owns_lock()) {
            reader->EndRead();
        }
    }
}

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
