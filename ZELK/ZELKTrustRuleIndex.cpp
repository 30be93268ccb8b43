#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include "ZELKTrustRuleIndex.h"

#include <algorithm>
#include <cstring>

#include "ZELKLogger.h"
#include "ZELKMatch.h"

const char* const LoadTrustRulesSQL =
    "SELECT trustRuleId, hitcount, processName, paths, trustType, signerName, productName, "
    "companyName, sha256, issuerCN, issuerC, issuerS, issuerL, issuerO, issuerOU, ruleset, "
    "procUser, procGroup, userList FROM TrustRules ORDER BY trustRuleId ;";
const char* const LoadUserListsSQL = "SELECT id, user FROM UserList ;";

namespace {

struct StmtDeleter {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using UniqueStmt = std::unique_ptr<sqlite3_stmt, StmtDeleter>;

bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

bool HasWildcardBytes(const std::string& bytes) {
    return bytes.find_first_of("*?") != std::string::npos;
}

// The part of a pattern every path it matches begins with, cut after its last
// separator: the key of the pattern's bucket.
std::string BucketKey(const std::string& pattern) {
    const std::string head = pattern.substr(0, pattern.find_first_of("*?"));
    size_t cut = head.size();
    while (cut > 0 && !IsSeparator(head[cut - 1])) {
        --cut;
    }
    return head.substr(0, cut);
}

ZELKTrustRuleIndex::Value ReadValue(sqlite3_stmt* stmt, int column) {
    using Value = ZELKTrustRuleIndex::Value;
    Value value;
    switch (sqlite3_column_type(stmt, column)) {
        case SQLITE_TEXT: {
            value.kind = Value::kText;
            const unsigned char* text = sqlite3_column_text(stmt, column);
            value.bytes.assign(reinterpret_cast<const char*>(text),
                               static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
            break;
        }
        case SQLITE_BLOB: {
            value.kind = Value::kBlob;
            const void* blob = sqlite3_column_blob(stmt, column);
            const int length = sqlite3_column_bytes(stmt, column);
            if (blob != nullptr && length > 0) {
                value.bytes.assign(static_cast<const char*>(blob), static_cast<size_t>(length));
            }
            break;
        }
        case SQLITE_INTEGER:
            value.kind = Value::kInteger;
            value.integer = sqlite3_column_int64(stmt, column);
            break;
        case SQLITE_FLOAT:
            value.kind = Value::kReal;
            value.real = sqlite3_column_double(stmt, column);
            break;
        default:
            break;
    }
    return value;
}

// What C code reading the column as text sees.
std::string ColumnCText(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    return text != nullptr ? reinterpret_cast<const char*>(text) : std::string();
}

// "column = :param" with the parameter bound as text, or as NULL when the
// event's text is empty.
bool TextEquals(const ZELKTrustRuleIndex::Value& column, const std::string& bound) {
    return column.kind == ZELKTrustRuleIndex::Value::kText && !bound.empty() &&
           column.bytes == bound;
}

// "(column is NULL or column = :param)".
bool UnsetOrEqual(const ZELKTrustRuleIndex::Value& column, const std::string& bound) {
    return column.IsNull() || TextEquals(column, bound);
}

void AddOnce(std::vector<uint32_t>& bucket, uint32_t index) {
    if (bucket.empty() || bucket.back() != index) {
        bucket.push_back(index);
    }
}

}  // namespace

std::string ZELKTrustRuleIndex::Value::CText() const {
    if (kind != kText && kind != kBlob) {
        return std::string();
    }
    return bytes.substr(0, strnlen(bytes.data(), bytes.size()));
}

std::shared_ptr<const ZELKTrustRuleIndex> ZELKTrustRuleIndex::Load(sqlite3* db,
                                                                   std::string& error) {
    std::shared_ptr<ZELKTrustRuleIndex> index(new ZELKTrustRuleIndex());
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, LoadTrustRulesSQL, -1, &raw, nullptr) != SQLITE_OK) {
        error = sqlite3_errmsg(db);
        sqlite3_finalize(raw);
        return nullptr;
    }
    UniqueStmt rules(raw);
    int rc;
    while ((rc = sqlite3_step(rules.get())) == SQLITE_ROW) {
        sqlite3_stmt* s = rules.get();
        Rule rule;
        rule.id = sqlite3_column_int64(s, 0);
        rule.hitcount = sqlite3_column_int64(s, 1);
        rule.processName = ReadValue(s, 2);
        rule.paths = ReadValue(s, 3);
        rule.trustType = ReadValue(s, 4);
        rule.signerName = ReadValue(s, 5);
        rule.productName = ReadValue(s, 6);
        rule.companyName = ReadValue(s, 7);
        rule.sha256 = ReadValue(s, 8);
        for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
            rule.issuer[i] = ReadValue(s, 9 + i);
        }
        rule.ruleset = ReadValue(s, 15);
        rule.procUser = ReadValue(s, 16);
        rule.procGroup = ReadValue(s, 17);
        rule.userList = ReadValue(s, 18);
        rule.processText = ColumnCText(s, 2);
        rule.pathsText = ColumnCText(s, 3);
        rule.rulesetText = ColumnCText(s, 15);
        index->m_Rules.push_back(std::move(rule));
    }
    if (rc != SQLITE_DONE) {
        error = sqlite3_errmsg(db);
        return nullptr;
    }

    raw = nullptr;
    if (sqlite3_prepare_v2(db, LoadUserListsSQL, -1, &raw, nullptr) != SQLITE_OK) {
        error = sqlite3_errmsg(db);
        sqlite3_finalize(raw);
        return nullptr;
    }
    UniqueStmt lists(raw);
    while ((rc = sqlite3_step(lists.get())) == SQLITE_ROW) {
        const Value id = ReadValue(lists.get(), 0);
        const Value user = ReadValue(lists.get(), 1);
        // The join compares ids of the same kind; a member is found only as
        // text equal to the bound user.
        if ((id.kind == Value::kText || id.kind == Value::kBlob) && user.kind == Value::kText) {
            index->m_Lists[ListKey{id.kind, id.bytes}].push_back(user.bytes);
        }
    }
    if (rc != SQLITE_DONE) {
        error = sqlite3_errmsg(db);
        return nullptr;
    }

    for (uint32_t i = 0; i < index->m_Rules.size(); ++i) {
        index->File(i);
    }
    return index;
}

void ZELKTrustRuleIndex::File(uint32_t index) {
    const Rule& rule = m_Rules[index];
    TypeIndex* type = nullptr;
    if (rule.trustType.kind == Value::kInteger) {
        type = &m_ByType[rule.trustType.integer];
    } else if (rule.trustType.kind == Value::kReal) {
        m_OddType.push_back(index);
        return;
    } else {
        return;  // NULL, text or blob: equals neither 0 nor the type asked
    }

    const Value& process = rule.processName;
    const bool wildcardProcess = !process.IsNull() && HasWildcardBytes(process.bytes);
    if (process.kind == Value::kText && !wildcardProcess) {
        AddOnce(type->byProcess[process.bytes], index);
        return;
    }
    if (!process.IsNull() && !wildcardProcess) {
        return;  // a blob without wildcards never passes the process test
    }
    if (!rule.pathsText.empty()) {
        size_t start = 0;
        while (start <= rule.pathsText.size()) {
            size_t end = rule.pathsText.find(';', start);
            if (end == std::string::npos) {
                end = rule.pathsText.size();
            }
            if (end > start) {
                AddOnce(type->byPath[BucketKey(rule.pathsText.substr(start, end - start))], index);
            }
            start = end + 1;
        }
        return;  // a list of empty pieces only matches nothing
    }
    if (wildcardProcess) {
        AddOnce(type->byWildcard[BucketKey(rule.processText)], index);
        return;
    }
    // Equality fields: an event matches only with the same text or digest
    // (an empty one is bound as NULL and equals nothing).
    if (!rule.signerName.IsNull()) {
        if (rule.signerName.kind == Value::kText && !rule.signerName.bytes.empty()) {
            AddOnce(type->bySigner[rule.signerName.bytes], index);
        }
        return;
    }
    if (!rule.sha256.IsNull()) {
        if (rule.sha256.kind == Value::kBlob && !rule.sha256.bytes.empty()) {
            AddOnce(type->bySha256[rule.sha256.bytes], index);
        }
        return;
    }
    type->always.push_back(index);
}

void ZELKTrustRuleIndex::Gather(const TypeIndex& type, const Probe& probe,
                                std::vector<uint32_t>& out) const {
    const auto append = [&out](const Buckets& buckets, const std::string& key) {
        auto it = buckets.find(key);
        if (it != buckets.end()) {
            out.insert(out.end(), it->second.begin(), it->second.end());
        }
    };
    // Every directory prefix of `text` (and the empty one) names a bucket.
    thread_local std::string key;
    const auto appendPrefixes = [&](const Buckets& buckets, const std::string& text) {
        if (buckets.empty()) {
            return;
        }
        key.clear();
        append(buckets, key);
        for (size_t i = 0; i < text.size(); ++i) {
            if (IsSeparator(text[i])) {
                key.assign(text, 0, i + 1);
                append(buckets, key);
            }
        }
    };
    append(type.byProcess, probe.processName);
    appendPrefixes(type.byPath, probe.name);
    appendPrefixes(type.byWildcard, probe.processName);
    if (!probe.signerName.empty()) {
        append(type.bySigner, probe.signerName);
    }
    if (probe.sha256.HasBytes() && !type.bySha256.empty()) {
        key.assign(reinterpret_cast<const char*>(probe.sha256.Bytes()), probe.sha256.Length());
        append(type.bySha256, key);
    }
    out.insert(out.end(), type.always.begin(), type.always.end());
}

const ZELKTrustRuleIndex::Rule* ZELKTrustRuleIndex::Find(unsigned trustType,
                                                         const Probe& probe) const {
    thread_local std::vector<uint32_t> candidates;
    candidates.clear();
    auto typed = m_ByType.find(static_cast<int64_t>(trustType));
    if (typed != m_ByType.end()) {
        Gather(typed->second, probe, candidates);
    }
    if (trustType != 0) {
        auto any = m_ByType.find(0);
        if (any != m_ByType.end()) {
            Gather(any->second, probe, candidates);
        }
    }
    candidates.insert(candidates.end(), m_OddType.begin(), m_OddType.end());
    // Rules are numbered in id order: the lowest matching index wins.
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    for (uint32_t index : candidates) {
        if (Matches(m_Rules[index], trustType, probe)) {
            return &m_Rules[index];
        }
    }
    return nullptr;
}

bool ZELKTrustRuleIndex::UserMatches(const Rule& rule, const std::string& user) const {
    if (rule.userList.IsNull() && rule.procUser.IsNull()) {
        return true;
    }
    // The user parameter is always bound as text, an empty one included.
    if (rule.procUser.kind == Value::kText && rule.procUser.bytes == user) {
        return true;
    }
    if (rule.userList.kind != Value::kText && rule.userList.kind != Value::kBlob) {
        return false;
    }
    auto list = m_Lists.find(ListKey{rule.userList.kind, rule.userList.bytes});
    if (list == m_Lists.end()) {
        return false;
    }
    return std::find(list->second.begin(), list->second.end(), user) != list->second.end();
}

bool ZELKTrustRuleIndex::Matches(const Rule& rule, unsigned trustType, const Probe& probe) const {
    const Value& type = rule.trustType;
    if (type.kind == Value::kInteger) {
        if (type.integer != 0 && type.integer != static_cast<int64_t>(trustType)) {
            return false;
        }
    } else if (type.kind == Value::kReal) {
        if (type.real != 0.0 && type.real != static_cast<double>(trustType)) {
            return false;
        }
    } else {
        return false;
    }

    if (!UnsetOrEqual(rule.signerName, probe.signerName) ||
        !UnsetOrEqual(rule.productName, probe.productName) ||
        !UnsetOrEqual(rule.companyName, probe.companyName)) {
        return false;
    }
    for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
        if (!UnsetOrEqual(rule.issuer[i], probe.issuer[i])) {
            return false;
        }
    }
    if (!rule.sha256.IsNull()) {
        // A blob parameter, or NULL when the event has no digest.
        if (rule.sha256.kind != Value::kBlob || !probe.sha256.HasBytes() ||
            rule.sha256.bytes.size() != probe.sha256.Length() ||
            memcmp(rule.sha256.bytes.data(), probe.sha256.Bytes(), probe.sha256.Length()) != 0) {
            return false;
        }
    }
    // INSTR(:procGroup, procGroup): an empty group text is found everywhere.
    if (!rule.procGroup.IsNull() &&
        (rule.procGroup.kind == Value::kText || rule.procGroup.kind == Value::kBlob)) {
        if (probe.group.find(rule.procGroup.bytes) == std::string::npos) {
            return false;
        }
    }
    if (!UserMatches(rule, probe.user)) {
        return false;
    }

    // The process: unset, equal, or a wildcard pattern that matches.
    const Value& process = rule.processName;
    if (!process.IsNull()) {
        const bool sqlPasses =
            (process.kind == Value::kText && process.bytes == probe.processName) ||
            HasWildcardBytes(process.bytes);
        if (!sqlPasses) {
            return false;
        }
        const std::string& pattern = rule.processText;
        if (pattern != probe.processName && !(pattern.find_first_of("*?") != std::string::npos &&
                                              MatchFunction(probe.processName, pattern))) {
            return false;
        }
    }
    if (!rule.pathsText.empty()) {
        // The matcher takes its arguments by reference but changes neither.
        if (!MatchEventPathWithRulePath(const_cast<std::string&>(probe.name),
                                        const_cast<std::string&>(rule.pathsText))) {
            return false;
        }
    }
    return true;
}
