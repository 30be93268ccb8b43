// ZELKDAL ruleset import: hash rulesets, the agent's manifest, trust rules and
// user lists arrive as JSON documents from the administrator.
//
// The document's kind comes from its name, never from its content.  Only a
// file that cannot be read or text that is not JSON at all fails the import,
// and then before anything was purged.  Elements are read as the document
// gives them and never judged here: a member that is missing, null or not of
// its type leaves its field empty, digest texts are decoded pair by pair
// whatever their characters, numbers given as text go through strtol.  Host
// tools lint documents before they reach the engine.
//
// Atomicity.  An import, its purge included, is one transaction on the
// store's writer connection: readers (the decision path's read connections,
// other processes) see the old policy until the whole new one is committed,
// and a process killed half-way leaves the old policy whole.  Imports run one
// at a time.  The purges, buffered stores and flushes take the data mutex each
// time, as always; between them other writers of this process (drift
// approvals) add their rows to the open transaction.
#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include <sys/stat.h>

#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKStats.h"

namespace {

// Ruleset counts live in statistics group 3, keyed by ruleset name.
constexpr int kRulesetStats = 3;
// Rows handed to the store's queue at a time.
constexpr size_t kImportBatch = 1001;

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using UniqueJson = std::unique_ptr<cJSON, JsonDeleter>;

// A text member: null when the member is missing or its value is not a
// string (JSON null included).
const char* Text(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

void ReadText(const cJSON* object, const char* key, std::string& out) {
    if (const char* text = Text(object, key)) {
        out = text;
    }
}

// A number member: a string goes through strtol base 10 (leading blanks and
// a sign accepted, trailing text ignored, no digits at all giving 0); a
// number gives its integer part; anything else leaves `out` alone.
void ReadNumber(const cJSON* object, const char* key, int64_t& out) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    if (cJSON_IsString(item) && item->valuestring != nullptr) {
        out = strtol(item->valuestring, nullptr, 10);
    } else if (cJSON_IsNumber(item)) {
        const double value = item->valuedouble;
        // Out of range doubles saturate instead of being undefined.
        out = value >= 9223372036854775807.0    ? INT64_MAX
              : value <= -9223372036854775808.0 ? INT64_MIN
                                                : static_cast<int64_t>(value);
    }
}

// The array member `key`, or null when it is missing or not an array.
const cJSON* GetArray(const cJSON* root, const char* key) {
    const cJSON* array = cJSON_GetObjectItemCaseSensitive(root, key);
    return cJSON_IsArray(array) ? array : nullptr;
}

// Fills `row` from one element of "rules".  The digests are decoded straight
// into the row (two characters per byte, as the digest class decodes text),
// so a large ruleset builds no event and no digest objects per rule.
void BuildHashRule(const cJSON* element, ZELKDAL::ItemRow& row) {
    ReadText(element, "fileName", row.fileName);
    struct DigestKey {
        const char* key;
        unsigned length;
        unsigned char* bytes;
        bool* has;
    };
    const DigestKey digests[] = {{"sha256", Hash::SHA256, row.sha256, &row.hasSha256},
                                 {"sha1", Hash::SHA1, row.sha1, &row.hasSha1},
                                 {"md5", Hash::MD5, row.md5, &row.hasMd5}};
    for (const DigestKey& digest : digests) {
        if (const char* text = Text(element, digest.key)) {
            Hash::FromHex(text, digest.bytes, digest.length);
            *digest.has = true;
        }
    }
    int64_t size = 0;
    ReadNumber(element, "size", size);
    row.size = static_cast<uint64_t>(size);
    // Five characters decide, so "allowed" allows.  Anything else stays 0,
    // which the store writes as allowed with a warning.
    if (const char* action = Text(element, "action")) {
        if (strncmp(action, "block", 5) == 0) {
            row.authorizedState = AC_AUTH_BLOCKED;
        } else if (strncmp(action, "allow", 5) == 0) {
            row.authorizedState = 3;
        }
    }
}

// The import's steps log under the import's own name (ZELK_LOG_FUNCTION).
void ImportHashRules(ZELK_LOG_FUNCTION, ZELKDAL& dal, const cJSON* root, const std::string& name,
                     DALSource source) {
    ZELKStats& stats = ZELKStats::GetStats();
    ZTRACE("Importing item ruleset into db: %s", name.c_str());
    stats.SetType(kRulesetStats, name, 0);
    if (const cJSON* rules = GetArray(root, "rules")) {
        // Rows go to the store's queue in batches (one hold of its mutex for
        // each); the count is the number of elements, set once at the end.
        std::vector<ZELKDAL::ItemRow> batch;
        batch.reserve(kImportBatch);
        long count = 0;
        const cJSON* element = nullptr;
        cJSON_ArrayForEach(element, rules) {
            ++count;
            batch.emplace_back();
            ZELKDAL::ItemRow& row = batch.back();
            BuildHashRule(element, row);
            row.source = source;
            row.ruleset = name;
            if (batch.size() == kImportBatch) {
                dal.StoreItemBufferRows(batch);
            }
        }
        dal.StoreItemBufferRows(batch);
        stats.SetType(kRulesetStats, name, count);
    }
    dal.StoreItemFlush();
}

// Fills `rule` from one element of "Trustrules".
void BuildTrustRule(const cJSON* element, ac_trust_rule& rule) {
    struct TextKey {
        const char* key;
        std::string* field;
    };
    const TextKey texts[] = {
        {"processName", &rule.processName}, {"paths", &rule.paths},
        {"signerName", &rule.signerName},   {"productName", &rule.productName},
        {"companyName", &rule.companyName}, {"user", &rule.procUser},
        {"group", &rule.procGroup},         {"userList", &rule.userList},
    };
    for (const TextKey& text : texts) {
        ReadText(element, text.key, *text.field);
    }
    for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
        ReadText(element, IssuerMetaArrayUtil::kLower[i], rule.issuer[i]);
    }
    ReadNumber(element, "trustType", rule.trustType);
    if (const char* sha256 = Text(element, "sha256")) {
        rule.sha256.SetHash(std::string(sha256));
    }
}

void ImportTrustRules(ZELK_LOG_FUNCTION, ZELKDAL& dal, const cJSON* root, const std::string& name) {
    ZELKStats& stats = ZELKStats::GetStats();
    ZTRACE("Importing trust ruleset into db: %s", name.c_str());
    stats.SetType(kRulesetStats, name, 0);
    if (const cJSON* rules = GetArray(root, "Trustrules")) {
        const cJSON* element = nullptr;
        cJSON_ArrayForEach(element, rules) {
            ac_trust_rule rule;
            BuildTrustRule(element, rule);
            rule.ruleset = name;
            stats.IncType(kRulesetStats, name);
            dal.StoreTrustRuleBuffer(rule);
        }
    }
    dal.StoreTrustRuleFlush();

    ZTRACE("Importing user lists into db: %s", name.c_str());
    if (const cJSON* lists = GetArray(root, "Userlists")) {
        const cJSON* element = nullptr;
        cJSON_ArrayForEach(element, lists) {
            ac_user_list entry;
            ReadText(element, "id", entry.id);
            const cJSON* users = cJSON_GetObjectItemCaseSensitive(element, "users");
            if (entry.id.empty() || !cJSON_IsArray(users)) {
                continue;
            }
            const cJSON* user = nullptr;
            cJSON_ArrayForEach(user, users) {
                if (cJSON_IsString(user) && user->valuestring != nullptr) {
                    entry.user = user->valuestring;
                    dal.StoreUserListBuffer(entry);
                }
            }
        }
    }
    dal.StoreUserListFlush();
}

}  // namespace

bool ZELKDAL::ImportRuleset(bool incremental, const std::string& path, const std::string& name) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        ZERROR("ZELKDAL::ImportRuleset Unable to get ruleset file information");
        return false;
    }
    ac_file_s file;
    fileopen_read(path, file);
    if (fileend(file) || !fileok(file)) {
        ZERROR("Couldn't create payload");
        fileclose(&file);
        return false;
    }
    // The parser needs a terminating zero; the file does not bring one.
    const size_t size = info.st_size > 0 ? static_cast<size_t>(info.st_size) : 0;
    std::unique_ptr<char[]> buffer(new char[size + 1]);
    size_t total = 0;
    while (total < size) {
        size_t n = fileread(&file, buffer.get() + total, size - total);
        if (n == 0) {
            if (fileok(file)) {
                break;  // the file shrank since stat: parse what is there
            }
            if (!fileend(file) && (fileerror(file) == EINTR || fileerror(file) == EAGAIN)) {
                file.error = 0;
                continue;
            }
            ZERROR("Unable to read ruleset file %s. Errno: %d", path.c_str(), fileerror(file));
            fileclose(&file);
            return false;
        }
        total += n;
    }
    fileclose(&file);
    buffer[total] = '\0';
    return ImportRulesetBuffer(incremental, buffer.get(), name);
}

bool ZELKDAL::ImportRulesetBuffer(bool incremental, const char* buffer, const std::string& name) {
    assert(buffer != nullptr);
    if (buffer == nullptr) {
        ZERROR("Ruleset parse error ");
        return false;
    }
    std::string lowerName = name;
    for (char& c : lowerName) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }

    // The error position stays local (cJSON_GetErrorPtr is one global shared
    // by every thread).  cJSON's nesting limit turns absurdly deep documents
    // into parse errors instead of deep stacks.
    const char* errorAt = nullptr;
    UniqueJson root(cJSON_ParseWithOpts(buffer, &errorAt, 0));
    if (!root) {
        ZERROR("Ruleset parse error ");
        ZERROR("%s", errorAt != nullptr ? errorAt : "");
        return false;
    }

    ImportTransaction transaction(*this, name);
    ZELKStats& stats = ZELKStats::GetStats();
    bool trustRulesImported = false;
    if (lowerName.find("agent") != std::string::npos) {
        const std::string version = config.GetCurrentVersion();
        SetAppControlState("agentVersion", version);
        ZTRACE("Manifest applied to version %s", version.c_str());
        config.SetManifestApplied(true);
        if (!incremental) {
            PurgeDB(DAL_SOURCE_AGENT_RULES);
            PurgeDB(DAL_SOURCE_EXECUTION_RULES);
            PurgeDB(DAL_SOURCE_TRUST_RULES);
            stats.ClearType(kRulesetStats, "");
            m_TrustRulesPresent.store(false, std::memory_order_release);
            trustRulesImported = true;  // the trust rules are gone with the purge
        }
        ImportHashRules(__func__, *this, root.get(), name, DAL_SOURCE_AGENT_RULES);
    } else if (lowerName.find("trustrules") == std::string::npos) {
        if (!incremental) {
            PurgeDB(DAL_SOURCE_EXECUTION_RULES);
            stats.ClearType(kRulesetStats, "ruleset");
        }
        ImportHashRules(__func__, *this, root.get(), name, DAL_SOURCE_EXECUTION_RULES);
    } else {
        if (!incremental) {
            PurgeDB(DAL_SOURCE_TRUST_RULES);
            stats.ClearType(kRulesetStats, "trust");
        }
        ImportTrustRules(__func__, *this, root.get(), name);
        m_TrustRulesPresent.store(true, std::memory_order_release);
        trustRulesImported = true;
    }
    root.reset();
    transaction.Commit();
    if (trustRulesImported) {
        TrustRulesChanged();
    }
    RefreshDigestRuleCounts();
    return true;
}

// ---- The import's transaction ---------------------------------------------------

ZELKDAL::ImportTransaction::ImportTransaction(ZELKDAL& dal, const std::string& name)
    : m_Dal(dal), m_Import(dal.m_ImportMutex), m_Name(name) {
    std::lock_guard<std::mutex> lock(m_Dal.m_DataMutex);
    DBHolder db = m_Dal.DBHandle();
    if (!db) {
        return;  // closed: every step below reports its own failure
    }
    // IMMEDIATE takes the write lock now (waiting out another process's
    // writer for the busy timeout), so the purge cannot fail half-way for it.
    char* message = nullptr;
    if (sqlite3_exec(db.get(), "BEGIN IMMEDIATE", nullptr, nullptr, &message) == SQLITE_OK) {
        m_Open = true;
        m_Dal.m_InImport = true;
    } else {
        ZWARNING("Ruleset %s is imported without a transaction of its own: %s", m_Name.c_str(),
                 message != nullptr ? message : "");
    }
    sqlite3_free(message);
}

ZELKDAL::ImportTransaction::~ImportTransaction() {
    if (m_Open) {
        Finish("ROLLBACK");
    }
}

void ZELKDAL::ImportTransaction::Commit() {
    if (m_Open) {
        Finish("COMMIT");
    }
}

void ZELKDAL::ImportTransaction::Finish(const char* sql) {
    std::lock_guard<std::mutex> lock(m_Dal.m_DataMutex);
    m_Open = false;
    m_Dal.m_InImport = false;
    DBHolder db = m_Dal.DBHandle();
    if (!db || sqlite3_get_autocommit(db.get())) {
        return;  // the store was closed or replaced under the import
    }
    m_Dal.WritePendingHitCountsLocked();
    char* message = nullptr;
    if (sqlite3_exec(db.get(), sql, nullptr, nullptr, &message) != SQLITE_OK) {
        ZWARNING("%s of ruleset %s failed: %s", sql, m_Name.c_str(),
                 message != nullptr ? message : "");
        sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
    sqlite3_free(message);
}
