// ZELKDAL export and metrics: the inventory and trust-rule export behind
// get_inventory, and the database sections of the metrics document.
//
// Every database read here holds the data mutex for the query only; building
// and writing the export file happen after it is released, so a slow disk
// never stalls the decision path.  On a closed store the statements are gone:
// the metrics sections stay empty and the export fails without a file.
#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "ZELKDataAccessLayer.h"
#include "ZELKHash.h"
#include "ZELKLogger.h"

namespace {

// The trust-rule section of the metrics document is capped so that a policy
// with thousands of busy rules cannot blow up the host's buffer.
constexpr int kMaxTrustRuleStats = 100;

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using UniqueJson = std::unique_ptr<cJSON, JsonDeleter>;

struct JsonTextDeleter {
    void operator()(char* text) const { cJSON_free(text); }
};

struct SqliteStmtDeleter {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using UniqueStmt = std::unique_ptr<sqlite3_stmt, SqliteStmtDeleter>;

// Integers go into the document as their exact decimal text: a double would
// round 64-bit sizes and times above 2^53.
void AddInteger(cJSON* object, const char* name, int64_t value) {
    cJSON_AddRawToObject(object, name, std::to_string(value).c_str());
}

// Adds the current row as members named after its columns.  NULL columns are
// left out (a reader tells "unset" from "empty" by the key's absence) and
// blobs, which are always digests, become lowercase hex.
void AddRowColumns(sqlite3_stmt* stmt, cJSON* object) {
    const int columns = sqlite3_column_count(stmt);
    for (int i = 0; i < columns; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        switch (sqlite3_column_type(stmt, i)) {
            case SQLITE_INTEGER:
                AddInteger(object, name, sqlite3_column_int64(stmt, i));
                break;
            case SQLITE_FLOAT:
                cJSON_AddNumberToObject(object, name, sqlite3_column_double(stmt, i));
                break;
            case SQLITE_TEXT: {
                const unsigned char* text = sqlite3_column_text(stmt, i);
                cJSON_AddStringToObject(object, name,
                                        text ? reinterpret_cast<const char*>(text) : "");
                break;
            }
            case SQLITE_BLOB: {
                const void* bytes = sqlite3_column_blob(stmt, i);
                const int length = sqlite3_column_bytes(stmt, i);
                std::string hex;
                if (bytes != nullptr && length > 0) {
                    Hash::ToHex(static_cast<const unsigned char*>(bytes),
                                static_cast<size_t>(length), hex);
                }
                cJSON_AddStringToObject(object, name, hex.c_str());
                break;
            }
            default:  // SQLITE_NULL
                break;
        }
    }
}

bool IsTrustRulesTable(const std::string& table) {
    static const char kName[] = "trustrules";
    if (table.size() != sizeof(kName) - 1) {
        return false;
    }
    for (size_t i = 0; i < table.size(); ++i) {
        if (tolower(static_cast<unsigned char>(table[i])) != kName[i]) {
            return false;
        }
    }
    return true;
}

// Writes `text` to a fresh file beside `target` and renames it into place, so
// a reader sees either the old file or the whole new one.  On failure the
// temporary file is removed and the target is left as it was.
bool WriteFileAtomically(const std::string& target, const char* text, size_t length) {
    std::string temp = target + ".XXXXXX";
    int fd = mkostemp(&temp[0], O_CLOEXEC);
    if (fd < 0) {
        ZERROR("Unable to create export file beside %s. Errno: %d", target.c_str(), errno);
        return false;
    }
    // mkostemp creates 0600; the host's reader may run under another account.
    bool ok = fchmod(fd, 0644) == 0;
    size_t written = 0;
    while (ok && written < length) {
        ssize_t n = write(fd, text + written, length - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ok = false;
            break;
        }
        written += static_cast<size_t>(n);
    }
    ok = ok && fsync(fd) == 0;
    int error = ok ? 0 : errno;
    if (close(fd) != 0 && ok) {
        ok = false;
        error = errno;
    }
    if (ok && rename(temp.c_str(), target.c_str()) != 0) {
        ok = false;
        error = errno;
    }
    if (!ok) {
        ZERROR("Unable to write export file %s. Errno: %d", target.c_str(), error);
        unlink(temp.c_str());
    }
    return ok;
}

}  // namespace

// ---- Inventory export -----------------------------------------------------

bool ZELKDAL::GetItems(unsigned long fromItemId, unsigned long limit, unsigned source,
                       const std::string& outPath, const std::string& table) {
    if (outPath.empty()) {
        ZERROR("GetItems: no output path");
        return false;
    }
    const bool trustRules = IsTrustRulesTable(table);
    // Ids above the signed range cannot exist; clamping keeps the bind exact
    // and yields an empty page.  SQLite reads a negative LIMIT as "no limit".
    const int64_t maxId = std::numeric_limits<int64_t>::max();
    const int64_t fromId =
        fromItemId > static_cast<unsigned long>(maxId) ? maxId : static_cast<int64_t>(fromItemId);
    const int64_t rowLimit = (limit == 0 || limit > static_cast<unsigned long>(maxId))
                                 ? -1
                                 : static_cast<int64_t>(limit);

    std::string sql;
    const char* idColumn;
    if (trustRules) {
        idColumn = "trustRuleId";
        sql =
            "SELECT * FROM TrustRules WHERE trustRuleId > :fromId ORDER BY trustRuleId "
            "LIMIT :limit;";
    } else {
        idColumn = "inventoryItemId";
        sql = "SELECT * FROM Items WHERE inventoryItemId > :fromId";
        if (source != 0) {
            sql += " AND source = :source";
        }
        sql += " ORDER BY inventoryItemId LIMIT :limit;";
    }

    UniqueJson root(cJSON_CreateObject());
    cJSON* items = cJSON_AddArrayToObject(root.get(), "items");
    if (!root || items == nullptr) {
        ZERROR("GetItems: out of memory");
        return false;
    }
    int64_t count = 0;
    int64_t lastId = fromId;
    {
        DataLock lock(*this, "GetItems");
        WritePendingHitCountsLocked();
        DBHolder db = DBHandle();
        if (!db) {
            ZERROR("GetItems: m_DB is released");
            return false;
        }
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
            sqlite3_finalize(raw);
            ZERROR("GetItems prepare failed: %s", GetLastDBErrorString().c_str());
            return false;
        }
        UniqueStmt stmt(raw);
        sqlite3_bind_int64(raw, sqlite3_bind_parameter_index(raw, ":fromId"), fromId);
        sqlite3_bind_int64(raw, sqlite3_bind_parameter_index(raw, ":limit"), rowLimit);
        if (source != 0 && !trustRules) {
            sqlite3_bind_int64(raw, sqlite3_bind_parameter_index(raw, ":source"), source);
        }
        int idIndex = -1;
        for (int i = 0; i < sqlite3_column_count(raw); ++i) {
            if (std::string(sqlite3_column_name(raw, i)) == idColumn) {
                idIndex = i;
            }
        }
        int rc;
        while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
            cJSON* row = cJSON_CreateObject();
            if (row == nullptr || !cJSON_AddItemToArray(items, row)) {
                cJSON_Delete(row);
                ZERROR("GetItems: out of memory");
                return false;
            }
            AddRowColumns(raw, row);
            if (idIndex >= 0) {
                lastId = sqlite3_column_int64(raw, idIndex);
            }
            ++count;
        }
        if (rc != SQLITE_DONE) {
            ZERROR("GetItems step failed: %s", GetLastDBErrorString().c_str());
            return false;
        }
    }
    AddInteger(root.get(), "count", count);
    AddInteger(root.get(), "lastId", lastId);

    std::unique_ptr<char, JsonTextDeleter> text(cJSON_PrintUnformatted(root.get()));
    root.reset();
    if (!text) {
        ZERROR("GetItems: unable to print the export document");
        return false;
    }
    if (!WriteFileAtomically(outPath, text.get(), strlen(text.get()))) {
        return false;
    }
    ZTRACE("Exported %lld rows of %s after id %lld to %s", static_cast<long long>(count),
           trustRules ? "TrustRules" : "Items", static_cast<long long>(fromId), outPath.c_str());
    return true;
}

// ---- Metrics --------------------------------------------------------------

void ZELKDAL::PrepareMetrics(cJSON* trustRulesStats) {
    assert(trustRulesStats != nullptr);
    if (trustRulesStats == nullptr) {
        return;
    }
    DataLock lock(*this, "PrepareMetrics");
    WritePendingHitCountsLocked();  // the document shows every hit counted so far
    StmtScope stmt(m_pMetricsLookupTrustRuleStmt);
    if (!stmt) {
        return;
    }
    int rows = 0;
    while (rows < kMaxTrustRuleStats && sqlite3_step(stmt.get()) == SQLITE_ROW) {
        cJSON* rule = cJSON_CreateObject();
        if (rule == nullptr || !cJSON_AddItemToArray(trustRulesStats, rule)) {
            cJSON_Delete(rule);
            return;
        }
        AddRowColumns(stmt.get(), rule);
        ++rows;
    }
}

void ZELKDAL::PrepareMetricsDBInfo(cJSON* dbInfo) {
    assert(dbInfo != nullptr);
    if (dbInfo == nullptr) {
        return;
    }
    DataLock lock(*this, "PrepareMetricsDBInfo");
    StmtScope stmt(m_pLookupRuleCountStmt);
    if (!stmt || sqlite3_step(stmt.get()) != SQLITE_ROW) {
        return;
    }
    // The SUM columns are NULL on an empty table; they count nothing then.
    const int columns = sqlite3_column_count(stmt.get());
    for (int i = 0; i < columns; ++i) {
        AddInteger(dbInfo, sqlite3_column_name(stmt.get(), i), sqlite3_column_int64(stmt.get(), i));
    }
}

void ZELKDAL::PrepareMetricsDBInfoTrustRules(cJSON* dbInfo) {
    assert(dbInfo != nullptr);
    if (dbInfo == nullptr) {
        return;
    }
    DataLock lock(*this, "PrepareMetricsDBInfoTrustRules");
    for (const StmtHolder* holder :
         {&m_pLookupTrustRuleCountStmt, &m_pLookupUserGroupTrustRuleCountStmt}) {
        StmtScope stmt(*holder);
        if (stmt && sqlite3_step(stmt.get()) == SQLITE_ROW) {
            AddInteger(dbInfo, sqlite3_column_name(stmt.get(), 0),
                       sqlite3_column_int64(stmt.get(), 0));
        }
    }
}

void ZELKDAL::PrepareMetricsDBInfoRulesets(cJSON* dbInfo) {
    assert(dbInfo != nullptr);
    if (dbInfo == nullptr) {
        return;
    }
    DataLock lock(*this, "PrepareMetricsDBInfoRulesets");
    StmtScope stmt(m_pLookupRulesetCountStmt);
    if (!stmt) {
        return;
    }
    cJSON* rulesets = cJSON_AddObjectToObject(dbInfo, "rulesets");
    if (rulesets == nullptr) {
        return;
    }
    while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
        const unsigned char* name = sqlite3_column_text(stmt.get(), 0);
        cJSON* entry = cJSON_AddObjectToObject(
            rulesets, name != nullptr ? reinterpret_cast<const char*>(name) : "");
        if (entry == nullptr) {
            return;
        }
        AddInteger(entry, "totalRules", sqlite3_column_int64(stmt.get(), 1));
    }
}

void ZELKDAL::PrepareMetricsDBSize(cJSON* dbInfo) {
    assert(dbInfo != nullptr);
    if (dbInfo == nullptr) {
        return;
    }
    std::string path;
    {
        DataLock lock(*this, "PrepareMetricsDBSize");
        if (!DBHandle()) {
            return;
        }
        path = m_DBPath;
    }
    struct stat info {};
    if (stat(path.c_str(), &info) == 0) {
        AddInteger(dbInfo, "dbSize", static_cast<int64_t>(info.st_size));
    }
}
