// Test helpers for the policy store: an independent SQLite connection on the
// engine's file, and databases of older schema versions built from the
// store's own scripts.
#ifndef ZELK_TESTS_DBTESTUTIL_H_
#define ZELK_TESTS_DBTESTUTIL_H_

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ZELKDataAccessLayer.h"

namespace zelktest {

// A second connection on a database file, as the host or an administrator
// would have.  Failures are reported as test failures.
class Db {
  public:
    explicit Db(const std::string& path) {
        int rc = sqlite3_open_v2(path.c_str(), &m_Db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                 nullptr);
        EXPECT_EQ(rc, SQLITE_OK) << path;
        sqlite3_busy_timeout(m_Db, 5000);
    }
    ~Db() { sqlite3_close_v2(m_Db); }
    Db(const Db&) = delete;
    Db& operator=(const Db&) = delete;

    void Exec(const std::string& sql) {
        char* message = nullptr;
        int rc = sqlite3_exec(m_Db, sql.c_str(), nullptr, nullptr, &message);
        EXPECT_EQ(rc, SQLITE_OK) << sql << ": " << (message ? message : "");
        sqlite3_free(message);
    }

    // Column 0 of every row, as text ("<null>" for NULL).
    std::vector<std::string> Column(const std::string& sql) {
        std::vector<std::string> out;
        sqlite3_stmt* stmt = nullptr;
        int rc = sqlite3_prepare_v2(m_Db, sql.c_str(), -1, &stmt, nullptr);
        EXPECT_EQ(rc, SQLITE_OK) << sql << ": " << sqlite3_errmsg(m_Db);
        while (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* text = sqlite3_column_text(stmt, 0);
            out.push_back(text ? reinterpret_cast<const char*>(text) : "<null>");
        }
        sqlite3_finalize(stmt);
        return out;
    }

    // Column 0 of the first row ("" when there is none).
    std::string Text(const std::string& sql) {
        std::vector<std::string> rows = Column(sql);
        return rows.empty() ? std::string() : rows[0];
    }

    int64_t Int(const std::string& sql) {
        std::string text = Text(sql);
        return text.empty() ? 0 : std::stoll(text);
    }

    int Version() { return static_cast<int>(Int("PRAGMA user_version;")); }

    std::string Setting(const std::string& name) {
        return Text("SELECT settingValue FROM AppControlState WHERE settingName = '" + name + "';");
    }

  private:
    sqlite3* m_Db = nullptr;
};

// Builds a database at `version` (4 to 15) by running the first scripts.
inline void BuildDatabase(const std::string& path, int version) {
    Db db(path);
    for (int i = 0; i <= version - 4; ++i) {
        db.Exec(ZELKDAL::SchemaScript(static_cast<size_t>(i)));
    }
    ASSERT_EQ(db.Version(), version);
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace zelktest

#endif  // ZELK_TESTS_DBTESTUTIL_H_
