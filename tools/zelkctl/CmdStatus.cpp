// zelkctl status: what a database holds, read straight from the file.
// Starting the engine would create a missing database or upgrade an old one;
// status must show the file as it is, so it opens it read-only with SQLite
// and never starts the engine.
#include <limits.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

#include "CmdAgent.h"
#include "Commands.h"
#include "ControlChannel.h"
#include "DbRead.h"
#include "Progress.h"
#include "Verdict.h"

namespace zelkctl {
namespace {

struct DbCloser {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StmtFinalizer {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};

// Runs `sql` and calls `row` for each result row.  False when the statement
// cannot run (a table an older schema lacks).
bool Query(sqlite3* db, const char* sql, const std::function<void(sqlite3_stmt*)>& row) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK) {
        return false;
    }
    std::unique_ptr<sqlite3_stmt, StmtFinalizer> stmt(raw);
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        row(stmt.get());
    }
    return rc == SQLITE_DONE;
}

std::string Text(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

const char* TrustTypeName(int type) {
    switch (type) {
        case 0:
            return "any type";
        case 1:
            return "trusted source process";
        case 2:
            return "trusted execution";
        case 3:
            return "exclude";
        case 4:
            return "block by target";
        default:
            return "unknown type";
    }
}

}  // namespace

int RunStatus(const std::string& dbPath, bool integrity) {
    struct stat st;
    if (stat(dbPath.c_str(), &st) != 0) {
        fprintf(stderr, "zelkctl: %s: no database: %s\n", dbPath.c_str(), strerror(errno));
        return kExitEngine;
    }
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(dbPath.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    std::unique_ptr<sqlite3, DbCloser> db(raw);
    int version = -1;
    if (rc != SQLITE_OK || !Query(db.get(), "PRAGMA user_version;",
                                  [&](sqlite3_stmt* s) { version = sqlite3_column_int(s, 0); })) {
        fprintf(stderr, "zelkctl: %s: not a readable database: %s\n", dbPath.c_str(),
                db ? sqlite3_errmsg(db.get()) : sqlite3_errstr(rc));
        return kExitEngine;
    }
    sqlite3_busy_timeout(db.get(), 2000);
    printf("database:        %s (%s)\n", dbPath.c_str(),
           Progress::Bytes(static_cast<double>(st.st_size)).c_str());
    printf("schema version:  %d\n", version);
    // A running agent has its own modes and caches; say whether one works on
    // this file, and where to ask it.
    std::string agentDb;
    char here[PATH_MAX], there[PATH_MAX];
    if (AgentDatabase(hostkit::kDefaultControlSocket, agentDb)) {
        const bool same = realpath(dbPath.c_str(), here) != nullptr &&
                          realpath(agentDb.c_str(), there) != nullptr && strcmp(here, there) == 0;
        printf("running agent:   %s (ask it: zelkctl agent status)\n",
               same ? "yes, on this database" : ("on another database, " + agentDb).c_str());
    } else {
        printf("running agent:   none on %s\n", hostkit::kDefaultControlSocket);
    }

    HostModes modes;
    std::string error;
    if (LoadModes(dbPath, modes, error)) {
        printf("host modes:      %s\n", DescribeModes(modes).c_str());
    } else {
        printf("host modes:      %s\n", error.c_str());
    }
    printf("engine settings:\n");
    Query(db.get(), "SELECT settingName, settingValue FROM AppControlState ORDER BY id;",
          [](sqlite3_stmt* s) {
              printf("  %-24s %s\n", Text(s, 0).c_str(),
                     Text(s, 1).empty() ? "(empty)" : Text(s, 1).c_str());
          });

    int exit = kExitOk;
    if (integrity) {
        std::vector<std::string> problems;
        if (CheckIntegrity(dbPath, problems)) {
            printf("integrity:       ok\n");
        } else {
            printf("integrity:       DAMAGED (%zu problem%s)\n", problems.size(),
                   problems.size() == 1 ? "" : "s");
            for (size_t i = 0; i < problems.size() && i < 20; ++i) {
                printf("  %s\n", problems[i].c_str());
            }
            fprintf(stderr, "zelkctl: %s: the database is damaged: %s\n", dbPath.c_str(),
                    problems.empty() ? "integrity check failed" : problems[0].c_str());
            exit = kExitEngine;
        }
    }

    printf("inventory rows by source:\n");
    bool any = false;
    if (!Query(db.get(),
               "SELECT source, count(*) FROM InventoryItems GROUP BY source ORDER BY source;",
               [&](sqlite3_stmt* s) {
                   any = true;
                   int source = sqlite3_column_int(s, 0);
                   printf("  %d %-20s %lld\n", source, SourceName(static_cast<uint32_t>(source)),
                          static_cast<long long>(sqlite3_column_int64(s, 1)));
               })) {
        // Every schema the engine writes has this table: a database whose
        // table cannot be read is damaged or not the engine's.
        printf("  (unreadable)\n");
        fprintf(stderr, "zelkctl: %s: cannot read the inventory: %s\n", dbPath.c_str(),
                sqlite3_errmsg(db.get()));
        exit = kExitEngine;
    } else if (!any) {
        printf("  (none)\n");
    }

    printf("trust rules by type:\n");
    any = false;
    if (!Query(db.get(),
               "SELECT trustType, count(*), sum(hitcount) FROM TrustRules GROUP BY trustType "
               "ORDER BY trustType;",
               [&](sqlite3_stmt* s) {
                   any = true;
                   int type = sqlite3_column_int(s, 0);
                   printf("  %d %-24s %lld (hits %lld)\n", type, TrustTypeName(type),
                          static_cast<long long>(sqlite3_column_int64(s, 1)),
                          static_cast<long long>(sqlite3_column_int64(s, 2)));
               })) {
        printf("  (no trust-rule table at this version)\n");
    } else if (!any) {
        printf("  (none)\n");
    }
    Query(db.get(), "SELECT count(DISTINCT id), count(*) FROM UserList;", [](sqlite3_stmt* s) {
        printf("user lists:      %lld lists, %lld members\n",
               static_cast<long long>(sqlite3_column_int64(s, 0)),
               static_cast<long long>(sqlite3_column_int64(s, 1)));
    });

    printf("rulesets in force:\n");
    any = false;
    Query(db.get(),
          "SELECT ruleset, source, count(*) FROM InventoryItems WHERE source IN (1, 2) "
          "GROUP BY ruleset, source ORDER BY ruleset;",
          [&](sqlite3_stmt* s) {
              any = true;
              printf("  %-28s %-16s %lld rules\n", Text(s, 0).c_str(),
                     SourceName(static_cast<uint32_t>(sqlite3_column_int(s, 1))),
                     static_cast<long long>(sqlite3_column_int64(s, 2)));
          });
    Query(db.get(), "SELECT ruleset, count(*) FROM TrustRules GROUP BY ruleset ORDER BY ruleset;",
          [&](sqlite3_stmt* s) {
              any = true;
              printf("  %-28s %-16s %lld rules\n",
                     Text(s, 0).empty() ? "(unnamed)" : Text(s, 0).c_str(), "trust rules",
                     static_cast<long long>(sqlite3_column_int64(s, 1)));
          });
    if (!any) {
        printf("  (none)\n");
    }
    return exit;
}

}  // namespace zelkctl
