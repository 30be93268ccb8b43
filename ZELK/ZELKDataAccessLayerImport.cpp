// ZELKDAL ruleset import: hash rulesets, the agent's manifest, trust rules and
// user lists arrive as JSON documents from the administrator.
//
// The document's kind comes from its name, never from its content.  Only a
// file that cannot be read or text that is not JSON at all fails the import,
// and then before anything was purged.  A valid document with elements of the
// wrong shape imports every well-formed element and skips the others with a
// WARNING that names the element: one typo in a large policy must not leave
// the machine without its allow list.
//
// The import takes no lock of its own: each purge, buffered store and flush
// it calls takes the data mutex for itself.
#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include <sys/stat.h>

#include <cassert>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKStats.h"

namespace {

// Ruleset counts live in statistics group 3, keyed by ruleset name.
constexpr int kRulesetStats = 3;
// A document with thousands of broken elements gets this many warnings and
// then one summary line, so it cannot flood the host's log.
constexpr int kMaxSkipWarnings = 100;

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using UniqueJson = std::unique_ptr<cJSON, JsonDeleter>;

enum class Field { kAbsent, kOk, kBad };

// A text member, left in the document: missing or JSON null give kAbsent
// and leave `out` alone; any other type is bad.
Field ReadText(const cJSON* object, const char* key, const char*& out) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    if (item == nullptr || cJSON_IsNull(item)) {
        return Field::kAbsent;
    }
    if (!cJSON_IsString(item) || item->valuestring == nullptr) {
        return Field::kBad;
    }
    out = item->valuestring;
    return Field::kOk;
}

// The same, copied: missing or JSON null leave `out` empty.
Field ReadText(const cJSON* object, const char* key, std::string& out) {
    const char* text = nullptr;
    Field field = ReadText(object, key, text);
    if (field == Field::kOk) {
        out = text;
    }
    return field;
}

// A count (size, trust type): a JSON number or a text of decimal digits,
// non-negative and within 64 bits.  A fractional number keeps its integer part.
Field ReadCount(const cJSON* object, const char* key, int64_t& out) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    if (item == nullptr || cJSON_IsNull(item)) {
        return Field::kAbsent;
    }
    if (cJSON_IsNumber(item)) {
        const double value = item->valuedouble;
        // 2^63 is the first double past the signed 64-bit range.
        if (!std::isfinite(value) || value < 0 || value >= 9223372036854775808.0) {
            return Field::kBad;
        }
        out = static_cast<int64_t>(value);
        return Field::kOk;
    }
    if (!cJSON_IsString(item) || item->valuestring == nullptr) {
        return Field::kBad;
    }
    const char* text = item->valuestring;
    if (*text == '\0') {
        return Field::kBad;
    }
    for (const char* c = text; *c != '\0'; ++c) {
        if (!isdigit(static_cast<unsigned char>(*c))) {
            return Field::kBad;
        }
    }
    errno = 0;
    long long value = strtoll(text, nullptr, 10);
    if (errno == ERANGE) {
        return Field::kBad;
    }
    out = value;
    return Field::kOk;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// A digest member: exactly two hex digits (either case) per byte.  An empty
// text counts as missing, as hosts send "" for digests they do not know.
// `text` is left pointing at the digits as the author wrote them.
Field ReadDigest(const cJSON* object, const char* key, unsigned length, const char*& text,
                 unsigned char* bytes) {
    Field field = ReadText(object, key, text);
    if (field != Field::kOk) {
        return field;
    }
    if (*text == '\0') {
        return Field::kAbsent;
    }
    if (strlen(text) != 2 * static_cast<size_t>(length)) {
        return Field::kBad;
    }
    for (unsigned i = 0; i < length; ++i) {
        int high = HexDigit(text[2 * i]);
        int low = HexDigit(text[2 * i + 1]);
        if (high < 0 || low < 0) {
            return Field::kBad;
        }
        bytes[i] = static_cast<unsigned char>(high * 16 + low);
    }
    return Field::kOk;
}

// Counts skipped elements and warns about the first kMaxSkipWarnings.
class SkipReport {
  public:
    explicit SkipReport(const std::string& name) : m_Name(name) {}
    ~SkipReport() {
        if (m_Skipped > kMaxSkipWarnings) {
            ZWARNING("Skipped %d malformed elements of ruleset %s", m_Skipped, m_Name.c_str());
        }
    }
    SkipReport(const SkipReport&) = delete;
    SkipReport& operator=(const SkipReport&) = delete;

    void Skip(const char* array, int index, const std::string& problem) {
        if (++m_Skipped <= kMaxSkipWarnings) {
            ZWARNING("Skipping %s[%d] of ruleset %s: %s", array, index, m_Name.c_str(),
                     problem.c_str());
        }
    }

  private:
    std::string m_Name;
    int m_Skipped = 0;
};

std::string Quoted(const char* key) {
    return std::string("\"") + key + "\"";
}

// The array member `key`, or null when it is missing (nothing to import) or
// not an array (warned: the document's author meant something else).
const cJSON* GetArray(const cJSON* root, const char* key, const std::string& name) {
    const cJSON* array = cJSON_GetObjectItemCaseSensitive(root, key);
    if (array == nullptr || cJSON_IsNull(array)) {
        return nullptr;
    }
    if (!cJSON_IsArray(array)) {
        ZWARNING("\"%s\" of ruleset %s is not an array; nothing imported from it", key,
                 name.c_str());
        return nullptr;
    }
    return array;
}

// Fills `row` from one element of "rules"; false with `problem` set when
// the element has the wrong shape.  The digests are decoded straight into
// the row: a large ruleset builds no event and no digest objects per rule.
bool BuildHashRule(const cJSON* element, ZELKDAL::ItemRow& row, std::string& problem) {
    if (!cJSON_IsObject(element)) {
        problem = "not an object";
        return false;
    }
    if (ReadText(element, "fileName", row.fileName) == Field::kBad) {
        problem = "\"fileName\" is not a string";
        return false;
    }
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
        const char* text = nullptr;
        Field field = ReadDigest(element, digest.key, digest.length, text, digest.bytes);
        if (field == Field::kBad) {
            problem = Quoted(digest.key) + " is not " + std::to_string(2 * digest.length) +
                      " hexadecimal characters";
            return false;
        }
        *digest.has = field == Field::kOk;
    }
    int64_t size = 0;
    if (ReadCount(element, "size", size) == Field::kBad) {
        problem = "\"size\" is not a non-negative integer";
        return false;
    }
    row.size = static_cast<uint64_t>(size);
    const char* action = "";
    if (ReadText(element, "action", action) == Field::kBad) {
        problem = "\"action\" is not a string";
        return false;
    }
    // Five characters decide, so "allowed" allows.  Anything else stays 0,
    // which the store writes as allowed with a warning.
    if (strncmp(action, "block", 5) == 0) {
        row.authorizedState = AC_AUTH_BLOCKED;
    } else if (strncmp(action, "allow", 5) == 0) {
        row.authorizedState = 3;
    }
    return true;
}

void ImportHashRules(ZELKDAL& dal, const cJSON* root, const std::string& name, DALSource source) {
    ZELKStats& stats = ZELKStats::GetStats();
    ZTRACE("Importing item ruleset into db: %s", name.c_str());
    stats.SetType(kRulesetStats, name, 0);
    const cJSON* rules = GetArray(root, "rules", name);
    if (rules == nullptr) {
        return;
    }
    SkipReport report(name);
    int index = 0;
    const cJSON* element = nullptr;
    std::string problem;
    cJSON_ArrayForEach(element, rules) {
        ZELKDAL::ItemRow row;
        if (!BuildHashRule(element, row, problem)) {
            report.Skip("rules", index++, problem);
            continue;
        }
        ++index;
        stats.IncType(kRulesetStats, name);
        row.source = source;
        row.ruleset = name;
        dal.StoreItemBuffer(std::move(row));
    }
    dal.StoreItemFlush();
}

// Fills `rule` from one element of "Trustrules".
bool BuildTrustRule(const cJSON* element, ac_trust_rule& rule, std::string& problem) {
    if (!cJSON_IsObject(element)) {
        problem = "not an object";
        return false;
    }
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
        if (ReadText(element, text.key, *text.field) == Field::kBad) {
            problem = Quoted(text.key) + " is not a string";
            return false;
        }
    }
    for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
        if (ReadText(element, IssuerMetaArrayUtil::kLower[i], rule.issuer[i]) == Field::kBad) {
            problem = Quoted(IssuerMetaArrayUtil::kLower[i]) + " is not a string";
            return false;
        }
    }
    if (ReadCount(element, "trustType", rule.trustType) == Field::kBad) {
        problem = "\"trustType\" is not a non-negative integer";
        return false;
    }
    const char* text = nullptr;
    unsigned char bytes[Hash::SHA256];
    Field field = ReadDigest(element, "sha256", Hash::SHA256, text, bytes);
    if (field == Field::kBad) {
        problem = "\"sha256\" is not 64 hexadecimal characters";
        return false;
    }
    if (field == Field::kOk) {
        rule.sha256.SetHash(std::string(text));
    }
    return true;
}

void ImportTrustRules(ZELKDAL& dal, const cJSON* root, const std::string& name) {
    ZELKStats& stats = ZELKStats::GetStats();
    ZTRACE("Importing trust ruleset into db: %s", name.c_str());
    stats.SetType(kRulesetStats, name, 0);
    SkipReport report(name);
    if (const cJSON* rules = GetArray(root, "Trustrules", name)) {
        int index = 0;
        const cJSON* element = nullptr;
        cJSON_ArrayForEach(element, rules) {
            ac_trust_rule rule;
            std::string problem;
            if (!BuildTrustRule(element, rule, problem)) {
                report.Skip("Trustrules", index++, problem);
                continue;
            }
            ++index;
            rule.ruleset = name;
            stats.IncType(kRulesetStats, name);
            dal.StoreTrustRuleBuffer(rule);
        }
        dal.StoreTrustRuleFlush();
    }

    ZTRACE("Importing user lists into db: %s", name.c_str());
    const cJSON* lists = GetArray(root, "Userlists", name);
    if (lists == nullptr) {
        return;
    }
    int index = 0;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, lists) {
        const int listIndex = index++;
        ac_user_list entry;
        if (!cJSON_IsObject(element)) {
            report.Skip("Userlists", listIndex, "not an object");
            continue;
        }
        if (ReadText(element, "id", entry.id) != Field::kOk || entry.id.empty()) {
            report.Skip("Userlists", listIndex, "\"id\" is missing or not a non-empty string");
            continue;
        }
        const cJSON* users = cJSON_GetObjectItemCaseSensitive(element, "users");
        if (!cJSON_IsArray(users)) {
            report.Skip("Userlists", listIndex, "\"users\" is not an array");
            continue;
        }
        int userIndex = 0;
        const cJSON* user = nullptr;
        cJSON_ArrayForEach(user, users) {
            if (cJSON_IsString(user) && user->valuestring != nullptr) {
                entry.user = user->valuestring;
                dal.StoreUserListBuffer(entry);
            } else {
                report.Skip("Userlists", listIndex,
                            "user " + std::to_string(userIndex) + " is not a string");
            }
            ++userIndex;
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
        ZERROR("%.64s", errorAt != nullptr ? errorAt : "");
        return false;
    }
    // A valid document of another shape imports nothing, but it is still the
    // policy the host sent: the purges below happen as for an empty one.
    if (!cJSON_IsObject(root.get())) {
        ZWARNING("Ruleset %s is not a JSON object, nothing to import", name.c_str());
    }

    ZELKStats& stats = ZELKStats::GetStats();
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
        }
        ImportHashRules(*this, root.get(), name, DAL_SOURCE_AGENT_RULES);
    } else if (lowerName.find("trustrules") == std::string::npos) {
        if (!incremental) {
            PurgeDB(DAL_SOURCE_EXECUTION_RULES);
            stats.ClearType(kRulesetStats, "ruleset");
        }
        ImportHashRules(*this, root.get(), name, DAL_SOURCE_EXECUTION_RULES);
    } else {
        if (!incremental) {
            PurgeDB(DAL_SOURCE_TRUST_RULES);
            stats.ClearType(kRulesetStats, "trust");
        }
        ImportTrustRules(*this, root.get(), name);
    }
    root.reset();
    // Sets the trust-rules-present flag from the table itself, so lookups
    // start running the moment the first rule is stored.
    RefreshRuleSummaries();
    return true;
}
