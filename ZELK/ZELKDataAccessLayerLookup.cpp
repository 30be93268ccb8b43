// ZELKDAL lookups: the allow lookup over InventoryItems, the prelink update
// and the trust-rule lookup.
#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include <cstdint>
#include <string>

#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKMatch.h"
#include "ZELKStats.h"

namespace {

// Columns of "SELECT * FROM InventoryItems".
constexpr int kColItemId = 0;
constexpr int kColIsAuthorized = 9;
constexpr int kColSource = 10;
constexpr int kColRuleset = 11;

// Columns of LookupTrustRuleSQL.
constexpr int kColRuleId = 0;
constexpr int kColRulePaths = 1;
constexpr int kColRuleHitcount = 2;
constexpr int kColRuleProcessName = 3;
constexpr int kColRuleRuleset = 4;

// event.isAuthorized as the lookup reports it.
constexpr uint32_t kNotFound = 0;
constexpr uint32_t kAllowed = 1;
constexpr uint32_t kRefused = 2;

// event.authorizedState for a later store: 3 keeps the row allowed, 2 records
// a refusal.
constexpr uint32_t kStateStoreAllowed = 3;
constexpr uint32_t kStateStoreRefused = 2;

std::string ColumnText(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    return text != nullptr ? reinterpret_cast<const char*>(text) : std::string();
}

void ResetAndClear(sqlite3_stmt* stmt) {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
}

// Resets a statement the search handed over, on every way out.
class ResetOnExit {
  public:
    explicit ResetOnExit(sqlite3_stmt* stmt) : m_Stmt(stmt) {}
    ~ResetOnExit() { ResetAndClear(m_Stmt); }
    ResetOnExit(const ResetOnExit&) = delete;
    ResetOnExit& operator=(const ResetOnExit&) = delete;

  private:
    sqlite3_stmt* m_Stmt;
};

int BindBlobByName(sqlite3_stmt* stmt, const char* name, const Hash& hash) {
    return sqlite3_bind_blob(stmt, sqlite3_bind_parameter_index(stmt, name), hash.Bytes(),
                             static_cast<int>(hash.Length()), SQLITE_TRANSIENT);
}

int BindInt64ByName(sqlite3_stmt* stmt, const char* name, int64_t value) {
    return sqlite3_bind_int64(stmt, sqlite3_bind_parameter_index(stmt, name), value);
}

bool HasWildcard(const std::string& text) {
    return text.find_first_of("*?") != std::string::npos;
}

}  // namespace

// ---- Allow lookup -----------------------------------------------------------

bool ZELKDAL::IsAllowedInDB(ac_event& event) {
    DataLock lock(*this, "IsAllowedInDB");
    return IsAllowedInDBInternal(event);
}

ZELKDAL::StmtHolder ZELKDAL::IsAllowedInDBSearch(ac_event& event, int& rc) {
    // SHA-256 among the ruleset sources first: an administrator's rule beats
    // whatever the scan or drift recorded for the same file.
    StmtHolder ruleset = std::atomic_load(&m_pLookupItemAuthRulesetStmt);
    if (!ruleset) {
        ZERROR("m_pLookupItemAuthRulesetStmt is released");
        event.isAuthorized = kNotFound;
        return StmtHolder();
    }
    if (!event.fileSha256.HasBytes()) {
        ZERROR("SHA256 value is empty, unable to create query");
        return StmtHolder();
    }
    sqlite3_stmt* stmt = ruleset.get();
    if (BindInt64ByName(stmt, ":size", static_cast<int64_t>(event.size)) != SQLITE_OK ||
        BindBlobByName(stmt, ":hash", event.fileSha256) != SQLITE_OK) {
        ZWARNING("Unable to create query");
        event.isAuthorized = kNotFound;
        ResetAndClear(stmt);
        return StmtHolder();
    }
    rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
        return ruleset;
    }
    ZTRACE("Did not find sha256 match with source=2 or source=1. Checking for sha1 or md5 match");
    ResetAndClear(stmt);

    // Rules that came without a SHA-256 can only be found by their older
    // digests; the counts skip these queries when no such rule exists.
    struct Alternate {
        int64_t count;
        const Hash& digest;
        const StmtHolder& holder;
        const char* countMessage;
        const char* releasedMessage;
        const char* bindName;
        const char* bindFailure;
    };
    const Alternate alternates[] = {
        {GetSHA1RuleCount(), event.fileSha1, m_pLookupItemAlternateSHA1HashStmt,
         "The number of sha1 rules is: %d", "m_pLookupItemAlternateSHA1HashStmt is released",
         ":sha1", "Unable to create query from sha1"},
        {GetMD5RuleCount(), event.fileMd5, m_pLookupItemAlternateMD5HashStmt,
         "The number of md5 rules is: %d", "m_pLookupItemAlternateMD5HashStmt is released", ":md5",
         "Unable to create query from md5"},
    };
    for (const Alternate& alt : alternates) {
        if (alt.count == 0 || !alt.digest.HasBytes()) {
            continue;
        }
        ZTRACE(alt.countMessage, static_cast<int>(alt.count));
        StmtHolder holder = std::atomic_load(&alt.holder);
        if (!holder) {
            ZERROR("%s", alt.releasedMessage);
            event.isAuthorized = kNotFound;
            return StmtHolder();
        }
        if (BindBlobByName(holder.get(), alt.bindName, alt.digest) != SQLITE_OK) {
            ZWARNING("%s", alt.bindFailure);
            event.isAuthorized = kNotFound;
            ResetAndClear(holder.get());
            return StmtHolder();
        }
        rc = sqlite3_step(holder.get());
        if (rc == SQLITE_ROW) {
            return holder;
        }
        ResetAndClear(holder.get());
    }
    ZTRACE("Did not find item with source=2 or source=1.");

    StmtHolder all = std::atomic_load(&m_pLookupItemAuthStmt);
    if (!all) {
        ZERROR("m_pLookupItemAuthStmt is released");
        event.isAuthorized = kNotFound;
        return StmtHolder();
    }
    stmt = all.get();
    if (BindInt64ByName(stmt, ":size", static_cast<int64_t>(event.size)) != SQLITE_OK ||
        BindBlobByName(stmt, ":hash", event.fileSha256) != SQLITE_OK) {
        ZWARNING("Unable to create query");
        event.isAuthorized = kNotFound;
        ResetAndClear(stmt);
        return StmtHolder();
    }
    rc = sqlite3_step(stmt);
    return all;
}

bool ZELKDAL::IsAllowedInDBInternal(ac_event& event) {
    int rc = SQLITE_OK;
    StmtHolder holder = IsAllowedInDBSearch(event, rc);
    if (!holder) {
        return false;
    }
    sqlite3_stmt* stmt = holder.get();
    ResetOnExit reset(stmt);
    if (rc == SQLITE_DONE) {
        event.isAuthorized = kNotFound;
        event.authorizedState = 0;
        ZTRACE("No results found in database");
        return true;
    }
    while (rc == SQLITE_ROW) {
        int source = sqlite3_column_int(stmt, kColSource);
        int rowAuthorized = sqlite3_column_int(stmt, kColIsAuthorized);
        ZTRACE("Found result in inventory with Source= %d and isAuthorized= %d.", source,
               rowAuthorized);
        if (source == DAL_SOURCE_AGENT_RULES) {
            // The agent's own rules allow even when stored as not authorized.
            event.isAuthorized = kAllowed;
            event.authorizedState = kStateStoreAllowed;
        } else if (source == DAL_SOURCE_EXECUTION_RULES) {
            bool allowed = IsAllowedInRuleSet(stmt);
            event.isAuthorized = allowed ? kAllowed : kRefused;
            event.authorizedState = allowed ? kStateStoreAllowed : kStateStoreRefused;
        } else if (source == DAL_SOURCE_SCANNED) {
            // A refused scanned item still stays on the list when stored
            // again: only the rebuild decides about it.
            event.isAuthorized = IsAllowedInInventory(stmt) ? kAllowed : kRefused;
            event.authorizedState = kStateStoreAllowed;
        } else if (rowAuthorized != 0) {
            event.isAuthorized = IsAllowedInDrift(stmt) ? kAllowed : kRefused;
            event.authorizedState = kStateStoreAllowed;
        }
        event.source = static_cast<uint32_t>(source);
        event.ruleset = ColumnText(stmt, kColRuleset);
        rc = sqlite3_step(stmt);
    }
    if (rc == SQLITE_DONE) {
        return true;
    }
    DBHolder db = DBHandle();
    ZERROR("DAL Error%s\n", sqlite3_errstr(db ? sqlite3_errcode(db.get()) : -1));
    return false;
}

bool ZELKDAL::IsAllowedInRuleSet(sqlite3_stmt* stmt) {
    ZTRACE("Checking %s\n", "IsAllowedInRuleSet");
    uint64_t id = static_cast<uint64_t>(sqlite3_column_int64(stmt, kColItemId));
    int importState = config.GetImportState();
    switch (importState) {
        case 0:
            break;
        case 1:
            // Rows added by the import still running are not confirmed yet.
            if (id > config.GetPreviousMaxInventoryItemId()) {
                return false;
            }
            break;
        case 2:
            // Rows of the ruleset being replaced no longer count.
            if (id <= config.GetPreviousMaxRulesetItemId()) {
                return false;
            }
            break;
        default:
            ZERROR("Unsupported importState: %d\n", importState);
            return false;
    }
    return sqlite3_column_int(stmt, kColIsAuthorized) != 0;
}

bool ZELKDAL::IsAllowedInDrift(sqlite3_stmt* stmt) {
    ZTRACE("Checking %s\n", "IsAllowedInDrift");
    int rebuildState = config.GetRebuildState();
    if (rebuildState == 0 || rebuildState == 1) {
        return true;
    }
    if (rebuildState == 2) {
        uint64_t id = static_cast<uint64_t>(sqlite3_column_int64(stmt, kColItemId));
        return id > config.GetPreviousMaxInventoryItemId();
    }
    ZERROR("Unsupported rebuildState: %d\n", rebuildState);
    return false;
}

bool ZELKDAL::IsAllowedInInventory(sqlite3_stmt* stmt) {
    ZTRACE("Checking if allowed in inventory!");
    int rebuildState = config.GetRebuildState();
    ZTRACE("Rebuild state: %d", rebuildState);
    // Read as 32 bits on purpose: the check has always compared the id this
    // way, and rows past 2^31 behave as they did before.
    int32_t narrow = sqlite3_column_int(stmt, kColItemId);
    uint64_t id = static_cast<uint64_t>(static_cast<int64_t>(narrow));
    switch (rebuildState) {
        case 0:
            ZTRACE("REBUILD_STATE_IDLE returning true from IsAllowedInInventory");
            return true;
        case 1:
            ZTRACE(
                "REBUILD_STATE_SCAN checking inventory item id less than max inventory item "
                "id");
            return id <= config.GetPreviousMaxInventoryItemId();
        case 2:
            ZTRACE(
                "REBUILD_STATE_SCAN checking inventory item id greater than max inventory "
                "item id");
            return id > config.GetPreviousMaxInventoryItemId();
        default:
            ZERROR("Unsupported rebuildState: %d\n", rebuildState);
            return false;
    }
}

// ---- Prelink update ----------------------------------------------------------

void ZELKDAL::SetPreviousPrelinkHash(const SHA256Hash& previous) {
    DataLock lock(*this, "SetPreviousPrelinkHash");
    m_PreviousPrelinkHash = previous;
}

bool ZELKDAL::UpdatePrelinkItem(ac_event& event) {
    if (!std::atomic_load(&m_pUpdatePrelinkItemStmt)) {
        ZERROR("m_pUpdatePrelinkItemStmt is released");
        return false;
    }
    const char* counter = nullptr;
    bool result;
    {
        ZTRACE("Updating prelink item lock");
        std::lock_guard<std::mutex> lock(m_DataMutex);
        result = UpdatePrelinkItemLocked(event, counter);
        ZTRACE("UpdatePrelinkItem unlock");
    }
    if (counter != nullptr) {
        ZELKStats::GetStats().Inc(counter);
    }
    return result;
}

bool ZELKDAL::UpdatePrelinkItemLocked(ac_event& event, const char*& counter) {
    // The slot is used once: a later update must not see a stale digest.
    SHA256Hash previous = m_PreviousPrelinkHash;
    m_PreviousPrelinkHash = SHA256Hash();
    if (!previous.HasBytes() || !event.fileSha256.HasBytes()) {
        counter = "RunPrelinkNohash";
        return false;
    }

    {
        StmtScope stmt(m_pUpdatePrelinkItemStmt);
        if (!stmt) {
            ZERROR("m_pUpdatePrelinkItemStmt is released");
            return false;
        }
        const int binds[] = {
            stmt.BindBlob(":hash", event.fileSha256.Bytes(),
                          static_cast<int>(event.fileSha256.Length())),
            stmt.BindInt64(":size", static_cast<int64_t>(event.size)),
            stmt.BindInt64(":recordTime", static_cast<int64_t>(GetCurrentTimeInMillis())),
            stmt.BindBlob(":oldhash", previous.Bytes(), static_cast<int>(previous.Length())),
            stmt.BindText(":path", event.path),
            stmt.BindText(":fileName", event.fileName),
        };
        for (int rc : binds) {
            if (rc != SQLITE_OK) {
                ZWARNING(
                    "SQLite error %d binding attribute parameters to update statement for "
                    "file '%s'\n",
                    rc, event.name.c_str());
            }
        }
        int rc = sqlite3_step(stmt.get());
        if (rc != SQLITE_DONE) {
            ZWARNING("Prelink update failed: %s", GetLastDBErrorString().c_str());
            return false;
        }
        DBHolder db = DBHandle();
        if (!db) {
            ZERROR("m_DB is released");
            return false;
        }
        int changed = sqlite3_changes(db.get());
        if (changed > 0) {
            counter = "RunPrelinkUpdated";
            if (changed != 1) {
                ZWARNING("Prelink updated more (%d) then we expected\n", changed);
            }
            return true;
        }
    }

    // No prelink row carried the old digest: if the file was known under it,
    // record the new content as allowed.
    ac_event before = event;
    before.fileSha256 = previous;
    if (!IsAllowedInDBInternal(before) || before.isAuthorized == kNotFound) {
        ZTRACE("Unapproved %s %s %d", event.path.c_str(), event.fileName.c_str(),
               static_cast<int>(event.size));
        counter = "RunPrelinkUnapproved";
    } else {
        StoreItemInternal(event);
        counter = "RunPrelinkApproved";
    }
    return event.isAuthorized == kAllowed;
}

// ---- Trust-rule lookup ---------------------------------------------------------

bool ZELKDAL::CallMatchEventPath(std::string& eventPath, std::string& rulePaths) {
    return MatchEventPathWithRulePath(eventPath, rulePaths);
}

bool ZELKDAL::IsFoundInTrustRules(unsigned trustType, ac_event& event) {
    // Most machines have no trust rules: answer without touching the lock.
    if (!HasTrustRules()) {
        return false;
    }
    DataLock lock(*this, "IsFoundInTrustRules");
    StmtScope stmt(m_pLookupTrustRuleStmt);
    if (!stmt) {
        ZERROR("m_pLookupTrustRuleStmt is released");
        return false;
    }

    // A drift's trusted source is judged by the acting process; every other
    // type by the target file.
    const bool byProcess = trustType == DAL_TRUST_SOURCE_PROCESS;
    const std::string& signer = byProcess ? event.processSignerName : event.fileSignerName;
    const std::string& product = byProcess ? event.processProductName : event.fileProductName;
    const std::string& company = byProcess ? event.processCompanyName : event.fileCompanyName;
    const SHA256Hash& sha256 = byProcess ? event.processSha256 : event.fileSha256;
    const std::string* issuer = byProcess ? event.processIssuer : event.fileIssuer;

    auto bindText = [&stmt](const char* name, const std::string& value) {
        return value.empty() ? stmt.BindNull(name) : stmt.BindText(name, value);
    };
    int rc = stmt.BindText(":processName", event.processName);
    rc |= stmt.BindInt64(":trustType", trustType);
    rc |= bindText(":signerName", signer);
    rc |= bindText(":productName", product);
    rc |= bindText(":companyName", company);
    rc |= sha256.HasBytes()
              ? stmt.BindBlob(":sha256", sha256.Bytes(), static_cast<int>(sha256.Length()))
              : stmt.BindNull(":sha256");
    for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
        rc |= bindText(IssuerMetaArrayUtil::kBind[i], issuer[i]);
    }
    rc |= stmt.BindText(":procUser", event.user);
    rc |= stmt.BindText(":procGroup", event.group);
    if (rc != SQLITE_OK) {
        ZWARNING("Unable to bind trust rule lookup: %s", GetLastDBErrorString().c_str());
        return false;
    }

    int64_t ruleId = 0;
    int64_t hitcount = 0;
    bool found = false;
    while (!found && (rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        std::string ruleProcess = ColumnText(stmt.get(), kColRuleProcessName);
        // The query lets every wildcard rule through; the pattern is tested
        // here.
        bool processMatches =
            sqlite3_column_type(stmt.get(), kColRuleProcessName) == SQLITE_NULL ||
            ruleProcess == event.processName ||
            (HasWildcard(ruleProcess) && MatchFunction(event.processName, ruleProcess));
        if (!processMatches) {
            continue;
        }
        std::string paths = ColumnText(stmt.get(), kColRulePaths);
        if (!paths.empty() && !MatchEventPathWithRulePath(event.name, paths)) {
            continue;
        }
        found = true;
        ruleId = sqlite3_column_int64(stmt.get(), kColRuleId);
        hitcount = sqlite3_column_int64(stmt.get(), kColRuleHitcount);
        event.trustMatch = 4;
        event.ruleset = ColumnText(stmt.get(), kColRuleRuleset);
        ZTRACE("Trust rule %lld (type %u, process '%s', paths '%s', ruleset '%s') matched %s",
               static_cast<long long>(ruleId), trustType, ruleProcess.c_str(), paths.c_str(),
               event.ruleset.c_str(), event.name.c_str());
    }
    if (!found) {
        if (rc != SQLITE_DONE) {
            ZERROR("DAL Error%s\n", GetLastDBErrorString().c_str());
        }
        return false;
    }
    // The lookup must be finished before its table is written.
    sqlite3_reset(stmt.get());

    StmtScope update(m_pUpdateTrustRuleHitcountStmt);
    if (!update) {
        ZERROR("m_pUpdateTrustRuleHitcountStmt is released");
        return true;
    }
    update.BindInt64(":hitcount", hitcount + 1);
    update.BindInt64(":trustRuleId", ruleId);
    if (sqlite3_step(update.get()) != SQLITE_DONE) {
        ZWARNING("Unable to update hitcount of trust rule %lld: %s", static_cast<long long>(ruleId),
                 GetLastDBErrorString().c_str());
    }
    return true;
}
