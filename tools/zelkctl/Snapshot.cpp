#include "Snapshot.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace zelkctl {

bool DatabaseExists(const std::string& dbPath) {
    struct stat st;
    if (stat(dbPath.c_str(), &st) != 0) {
        fprintf(stderr, "zelkctl: %s: no database: %s\n", dbPath.c_str(), strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        fprintf(stderr, "zelkctl: %s: no database: not a regular file\n", dbPath.c_str());
        return false;
    }
    return true;
}

bool Snapshot::Take(const std::string& dbPath, std::string& error) {
    struct stat st;
    if (stat(dbPath.c_str(), &st) != 0) {
        error = dbPath + ": no database: " + strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        error = dbPath + ": no database: not a regular file";
        return false;
    }
    if (!Empty(error)) {
        return false;
    }
    // The backup API reads a consistent state including the -wal file, which
    // a plain file copy could tear while an agent writes.
    sqlite3* from = nullptr;
    sqlite3* to = nullptr;
    int rc = sqlite3_open_v2(dbPath.c_str(), &from, SQLITE_OPEN_READONLY, nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_busy_timeout(from, 5000);
        rc = sqlite3_open_v2(m_Path.c_str(), &to, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                             nullptr);
    }
    if (rc == SQLITE_OK) {
        sqlite3_backup* backup = sqlite3_backup_init(to, "main", from, "main");
        if (backup == nullptr) {
            rc = sqlite3_errcode(to);
        } else {
            rc = sqlite3_backup_step(backup, -1);
            sqlite3_backup_finish(backup);
            rc = rc == SQLITE_DONE ? SQLITE_OK : rc;
        }
    }
    if (rc != SQLITE_OK) {
        error = dbPath + ": cannot copy the database: " +
                (from != nullptr ? sqlite3_errmsg(from) : sqlite3_errstr(rc));
    }
    sqlite3_close_v2(to);
    sqlite3_close_v2(from);
    return rc == SQLITE_OK;
}

bool Snapshot::Empty(std::string& error) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/zelkctl-snapshot-XXXXXX";
    std::vector<char> dir(pattern.begin(), pattern.end());
    dir.push_back('\0');
    if (mkdtemp(dir.data()) == nullptr) {
        error = pattern + ": cannot create a scratch folder: " + strerror(errno);
        return false;
    }
    m_Dir = dir.data();
    m_Path = m_Dir + "/snapshot.db";
    return true;
}

Snapshot::~Snapshot() {
    if (m_Dir.empty()) {
        return;
    }
    // Only what the engine wrote beside the copy lives here.
    if (DIR* dir = opendir(m_Dir.c_str())) {
        while (struct dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..") {
                unlink((m_Dir + "/" + name).c_str());
            }
        }
        closedir(dir);
    }
    rmdir(m_Dir.c_str());
}

}  // namespace zelkctl
