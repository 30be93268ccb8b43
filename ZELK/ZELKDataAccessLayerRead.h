// The store's read connections (ZELKDataAccessLayerRead.cpp); internal to the
// store's sources.
#ifndef ZELK_ZELKDATAACCESSLAYERREAD_H_
#define ZELK_ZELKDATAACCESSLAYERREAD_H_

#include <sqlite3.h>

#include <mutex>
#include <optional>
#include <string>

#include "ZELKDataAccessLayer.h"

// The allow lookup's one-descent statement on read connections.
extern const char* const kLookupBySha256SQL;

struct ZELKDAL::ReadConnection {
    // The first copy of the log index's header: any commit by any connection
    // or process changes it.
    static constexpr size_t kShmHeaderBytes = 48;

    // Taken by the owning thread for one lookup, and by CloseReaders.
    std::mutex mutex;
    // Guarded by `mutex`.
    LookupStatements set;                 // set.db null: closed
    sqlite3_stmt* dataVersion = nullptr;  // "PRAGMA data_version;"
    int64_t lastDataVersion = -1;
    uint64_t generation = 0;  // of the file it was opened on
    // The write-ahead log's index header, mapped read-only, and the copy of
    // it taken when the open read transaction began (see Refresh).
    const volatile unsigned char* shm = nullptr;
    unsigned char seen[kShmHeaderBytes] = {};
    bool inRead = false;

    ReadConnection() = default;
    ~ReadConnection();
    ReadConnection(const ReadConnection&) = delete;
    ReadConnection& operator=(const ReadConnection&) = delete;

    void Close();
    // Opens `path` (never creating it) and prepares the statements.
    bool Open(const std::string& path, uint64_t openGeneration);
    // The connection's data version (it moves when another connection
    // commits); -1 when it cannot be read.
    int64_t DataVersion();
    // Keeps a read transaction open across lookups and begins a new one only
    // when a commit happened since the open one began, so a lookup costs no
    // system call and no process-wide lock.
    void Refresh();
    // Ends the open read transaction, so the log can be checkpointed past it.
    void EndRead();
};

// The calling thread's read connection, locked for one lookup.
class ZELKDAL::ReadLease {
  public:
    ReadLease(ZELKDAL& dal, const char* name);
    ~ReadLease();
    ReadLease(const ReadLease&) = delete;
    ReadLease& operator=(const ReadLease&) = delete;

    // Null when no read connection could be had (the store is closed, or the
    // file cannot be opened): the caller then uses the writer.
    ReadConnection* Reader() const { return m_Reader->set.db != nullptr ? m_Reader : nullptr; }

  private:
    ReadConnection* m_Reader;  // kept alive by the thread's own reference
    std::optional<DataLock> m_Lock;
};

#endif  // ZELK_ZELKDATAACCESSLAYERREAD_H_
