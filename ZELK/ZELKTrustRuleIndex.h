// ZELKTrustRuleIndex: the TrustRules and UserList tables held in memory, so a
// trust-rule lookup tests only the rules that can match the event instead of
// every rule whose process is a wildcard or unset.
//
// The answer is the one of the lookup statement over the tables (rules in
// ascending trustRuleId order; process name unset, equal or a wildcard that
// matches; trust type 0 or the one asked; signer, product, company, SHA-256
// and issuer fields unset or equal; group unset or contained in the event's
// group text; user and user list unset, or the user named or listed) followed
// by the path test of the rule's path list.  Values are compared the way
// SQLite compares them: a text column never equals a blob and a parameter
// bound as NULL (an empty event text) equals nothing.
//
// Buckets.  Each rule is filed once under its most selective key:
//   - a plain process name: the exact name;
//   - otherwise, with a path list: the literal head of each of its patterns
//     (everything before the first "*" or "?"), cut after its last separator;
//     a pattern can only match paths that begin with its literal head;
//   - otherwise, a wildcard process name: its literal head, cut the same way;
//   - otherwise (no process, no paths), a signer name: the name (an event
//     without that signer cannot match), or else a SHA-256: the digest;
//   - otherwise: a list tested for every event.
// A lookup gathers the buckets of the event's process name and of every
// directory prefix of its paths, for the asked type and for type 0, and tests
// the gathered rules in id order until one matches.
//
// An index is immutable once built; the store swaps in a new one when the
// tables change, and lookups keep the one they started with.
#ifndef ZELK_ZELKTRUSTRULEINDEX_H_
#define ZELK_ZELKTRUSTRULEINDEX_H_

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ZELKEvent.h"

class ZELKTrustRuleIndex {
  public:
    // A column value as SQLite holds it.
    struct Value {
        enum Kind : uint8_t { kNull, kText, kBlob, kInteger, kReal };
        Kind kind = kNull;
        std::string bytes;  // text or blob bytes
        int64_t integer = 0;
        double real = 0;

        bool IsNull() const { return kind == kNull; }
        // The value as sqlite3_column_text gives it to C code: "" for NULL,
        // cut at the first NUL byte.
        std::string CText() const;
    };

    struct Rule {
        int64_t id = 0;
        int64_t hitcount = 0;
        Value processName, paths, trustType, signerName, productName, companyName, sha256;
        Value issuer[IssuerMetaArrayUtil::kCount];
        Value ruleset, procUser, procGroup, userList;
        // Derived: paths and processName as C text, ruleset as C text.
        std::string pathsText, processText, rulesetText;
    };

    // The event fields a lookup of one trust type compares: the file's, or
    // the acting process's for a drift's trusted source.
    struct Probe {
        const std::string& processName;
        const std::string& name;  // target path, for the rule's path list
        const std::string& user;
        const std::string& group;
        const std::string& signerName;
        const std::string& productName;
        const std::string& companyName;
        const Hash& sha256;
        const std::string* issuer;  // IssuerMetaArrayUtil::kCount texts
    };

    // Reads both tables through `db`.  Null, with the SQLite error in
    // `error`, when they cannot be read.
    static std::shared_ptr<const ZELKTrustRuleIndex> Load(sqlite3* db, std::string& error);

    // The first rule in id order that matches, or null.  Path matching logs
    // the piece that matched, as the path matcher does.
    const Rule* Find(unsigned trustType, const Probe& probe) const;

    size_t RuleCount() const { return m_Rules.size(); }

  private:
    using Bucket = std::vector<uint32_t>;  // indexes into m_Rules, ascending
    using Buckets = std::unordered_map<std::string, Bucket>;
    struct TypeIndex {
        Buckets byProcess;   // plain process names
        Buckets byPath;      // literal heads of path patterns
        Buckets byWildcard;  // literal heads of wildcard process names
        Buckets bySigner;    // no process, no paths: by signer name
        Buckets bySha256;    // no process, no paths, no signer: by digest
        Bucket always;
    };

    ZELKTrustRuleIndex() = default;
    void File(uint32_t index);
    void Gather(const TypeIndex& type, const Probe& probe, std::vector<uint32_t>& out) const;
    bool Matches(const Rule& rule, unsigned trustType, const Probe& probe) const;
    bool UserMatches(const Rule& rule, const std::string& user) const;

    std::vector<Rule> m_Rules;  // ascending id
    // Rules of an integer trust type, by type.
    std::unordered_map<int64_t, TypeIndex> m_ByType;
    // Rules whose trust type is not an integer: tested for every lookup.
    Bucket m_OddType;
    // UserList rows: list id (as its column bytes) -> members (text only; a
    // blob member never equals the bound user).
    struct ListKey {
        Value::Kind kind;
        std::string bytes;
        bool operator==(const ListKey& o) const { return kind == o.kind && bytes == o.bytes; }
    };
    struct ListKeyHash {
        size_t operator()(const ListKey& k) const {
            return std::hash<std::string>()(k.bytes) ^ static_cast<size_t>(k.kind);
        }
    };
    std::unordered_map<ListKey, std::vector<std::string>, ListKeyHash> m_Lists;
};

#endif  // ZELK_ZELKTRUSTRULEINDEX_H_
