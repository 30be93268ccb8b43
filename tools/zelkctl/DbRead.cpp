#include "DbRead.h"

#include <sqlite3.h>

#include <cstdlib>
#include <functional>
#include <memory>

namespace zelkctl {
namespace {

struct DbCloser {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Db = std::unique_ptr<sqlite3, DbCloser>;

Db OpenReadOnly(const std::string& path, std::string& error) {
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    Db db(raw);
    if (rc != SQLITE_OK) {
        error = path + ": " + (db ? sqlite3_errmsg(db.get()) : sqlite3_errstr(rc));
        return nullptr;
    }
    sqlite3_busy_timeout(db.get(), 5000);
    return db;
}

bool Query(sqlite3* db, const char* sql, const std::function<void(sqlite3_stmt*)>& row,
           std::string& error) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        error = sqlite3_errmsg(db);
        return false;
    }
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        row(stmt);
    }
    if (rc != SQLITE_DONE) {
        error = sqlite3_errmsg(db);
    }
    sqlite3_finalize(stmt);
    return rc == SQLITE_DONE;
}

std::string Text(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

}  // namespace

bool CountPolicy(const std::string& dbPath, PolicyCounts& counts) {
    std::string error;
    Db db = OpenReadOnly(dbPath, error);
    if (!db) {
        return false;
    }
    counts = PolicyCounts();
    return Query(
        db.get(),
        "SELECT (SELECT count(*) FROM InventoryItems WHERE source = 1), "
        "(SELECT count(*) FROM InventoryItems WHERE source = 2), "
        "(SELECT count(*) FROM TrustRules), (SELECT count(DISTINCT id) FROM UserList);",
        [&](sqlite3_stmt* s) {
            counts.agentRules = sqlite3_column_int64(s, 0);
            counts.rulesetRules = sqlite3_column_int64(s, 1);
            counts.trustRules = sqlite3_column_int64(s, 2);
            counts.userLists = sqlite3_column_int64(s, 3);
        },
        error);
}

bool ReadUserLists(const std::string& dbPath, UserLists& lists, std::string& error) {
    Db db = OpenReadOnly(dbPath, error);
    if (!db) {
        return false;
    }
    lists.clear();
    return Query(
        db.get(), "SELECT id, user FROM UserList ORDER BY id, rowid;",
        [&](sqlite3_stmt* s) {
            std::string id = Text(s, 0);
            if (lists.empty() || lists.back().first != id) {
                lists.emplace_back(id, std::vector<std::string>());
            }
            lists.back().second.push_back(Text(s, 1));
        },
        error);
}

bool ReadScannedRows(const std::string& dbPath, std::set<std::string>& rows, std::string& error) {
    Db db = OpenReadOnly(dbPath, error);
    if (!db) {
        return false;
    }
    rows.clear();
    return Query(
        db.get(), "SELECT nativePath, hex(sha256) FROM InventoryItems WHERE source = 3;",
        [&](sqlite3_stmt* s) { rows.insert(Text(s, 0) + "\n" + Text(s, 1)); }, error);
}

bool ReadStoredWindow(const std::string& dbPath, long long& start, long long& end) {
    std::string error;
    Db db = OpenReadOnly(dbPath, error);
    if (!db) {
        return false;
    }
    start = end = -1;
    Query(
        db.get(),
        "SELECT settingName, settingValue FROM AppControlState WHERE settingName IN "
        "('autoAuthorizeStartTime', 'autoAuthorizeEndTime');",
        [&](sqlite3_stmt* s) {
            long long value = strtoll(Text(s, 1).c_str(), nullptr, 10);
            (Text(s, 0) == "autoAuthorizeStartTime" ? start : end) = value;
        },
        error);
    return end > 0;
}

bool CheckIntegrity(const std::string& dbPath, std::vector<std::string>& problems) {
    std::string error;
    Db db = OpenReadOnly(dbPath, error);
    problems.clear();
    if (!db) {
        problems.push_back(error);
        return false;
    }
    bool ran = Query(
        db.get(), "PRAGMA integrity_check;",
        [&](sqlite3_stmt* s) { problems.push_back(Text(s, 0)); }, error);
    if (!ran) {
        problems.push_back(error);
        return false;
    }
    if (problems.size() == 1 && problems[0] == "ok") {
        problems.clear();
        return true;
    }
    return false;
}

}  // namespace zelkctl
