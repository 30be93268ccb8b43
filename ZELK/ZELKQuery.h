// ZELKQuery: the engine's built-in classification tables and the questions
// asked of them: which process type a process is, whether that type runs
// scripts or is trusted to write files, what kind of item a target file is,
// whether it belongs in the inventory and whether its folder is scanned at
// all.  It also owns the allow cache and the process cache, which the engine
// reaches through it.
//
// A process type is named everywhere by its position in the process type
// table (the process type index); kNoProcessType means no type, 0 is the
// empty row that also stands for "no particular type", 2 is prelink.
//
// Thread safety: the tables are built by the constructor and never change
// afterwards, so every query runs without a lock from any thread.  The one
// write is the per-rule cache of the resolved process type index, an atomic
// that always receives the same value.  The caches lock themselves.
#ifndef ZELK_ZELKQUERY_H_
#define ZELK_ZELKQUERY_H_

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "ZELKAllowCache.h"
#include "ZELKEvent.h"
#include "ZELKHash.h"
#include "ZELKProcessCache.h"

// The test an interpreter rule makes of a process.
enum ac_interpreter_rule_type : uint32_t {
    AC_RULE_NONE = 0,           // never matches
    AC_RULE_HASH = 1,           // image SHA-256 equals the rule's digest
    AC_RULE_PATH_NAME = 2,      // directory and file name equal exactly
    AC_RULE_NAME = 3,           // file name equals exactly
    AC_RULE_NAME_CONTAINS = 4,  // file name, cut before its last ".", contains
};

class ZELKQuery {
  public:
    static constexpr size_t kNoProcessType = static_cast<size_t>(-1);
    static constexpr size_t kPrelinkProcessType = 2;

    struct ProcessType {
        // The lists come in the order extensions, paths although the record
        // declares paths first: every row of the built-in table is written
        // against this order.
        ProcessType(std::string name, bool isInterpreter, bool isNormal, bool trustedUpdate,
                    bool signatureCheck, uint32_t op, std::vector<std::string> extensions,
                    std::vector<std::string> paths, std::string enableSetting);

        std::string name;                     // unique; rules refer to the type by it
        bool isInterpreter;                   // runs scripts with one of `extensions`
        bool isNormal;                        // carried only; no decision reads it
        bool trustedUpdate;                   // files it writes under `paths` are trusted
        bool signatureCheck;                  // a rule match also needs a valid certificate
        ac_type op;                           // the only raw event trustedUpdate covers; 0 any
        std::vector<std::string> paths;       // substrings of a trusted folder
        std::vector<std::string> extensions;  // without the dot, exact case
        std::string enableSetting;            // engine state gating the type
    };

    struct ScriptInterpreter {
        ScriptInterpreter(ac_interpreter_rule_type ruleType, std::string path, std::string name,
                          std::string nameContains, std::string processTypeName);
        ScriptInterpreter(const ScriptInterpreter& other);
        ScriptInterpreter& operator=(const ScriptInterpreter& other);

        ac_interpreter_rule_type ruleType;
        std::string path;  // image directory with its trailing "/"
        std::string name;  // image file name
        std::string nameContains;
        std::string processTypeName;
        SHA256Hash hash;  // empty unless the rule tests a digest
        // Resolved index of processTypeName, kNoProcessType until resolved.
        std::atomic<uint64_t> processTypeIndex;
    };

    // Builds every table (see the source for the order).
    ZELKQuery();
    ~ZELKQuery() = default;
    ZELKQuery(const ZELKQuery&) = delete;
    ZELKQuery& operator=(const ZELKQuery&) = delete;

    // Each replaces its member with the built-in contents.
    void InitScriptExtToRecognizeAndInclude();
    void InitExecutableExtensions();
    void InitScriptInterpreterRules();
    void InitProcessTypes();

    // --- Process types ---------------------------------------------------
    // True for an index inside the table whose row runs scripts.
    bool IsInterpreter(size_t pti) const;
    // True exactly for index 2; does not consult the table.
    bool IsPrelink(size_t pti) const;
    // Index of the row named by the rule, cached in the rule once found; 0
    // (without caching) when no row has that name.
    size_t GetProcessTypeId(ScriptInterpreter& rule) const;
    // True while the type's enableSetting is not set to a non-zero value in
    // the engine state; false for types without one and bad indexes.
    bool IsProcessTypeInTimeStampMode(size_t pti) const;

    // --- Interpreter rules -----------------------------------------------
    // The type index the rule yields for `proc`, or kNoProcessType.
    size_t ApplyInterpreterRule(ac_process_info& proc, ScriptInterpreter& rule);
    // The first matching rule's type index, 0 when none matches.
    size_t GetProcessInterpreterType(ac_process_info& proc);
    // The same for the event's acting process, without its digest.
    size_t GetProcessInterpreterType(ac_event& evt);

    // --- Target files ----------------------------------------------------
    // Stores the item type code (1 to 6) of the target in evt.itemType.
    // Always true.
    bool GetItemType(ac_event& evt) const;
    bool IsLibrary(ac_event& evt) const;
    bool ShouldPersistInInventory(ac_event& evt) const;
    // False when the target's folder lies in a folder never scanned for drift.
    bool ShouldScanFolder(ac_event& evt) const;
    // True for an empty folder, else ShouldScanFolder.
    bool ShouldScanFile(ac_event& evt) const;
    // True when type `pti` runs files with extension `ext`.  `pti` must be
    // kNoProcessType or an index from this object.
    bool IsExtensionInterpreted(size_t pti, const std::string& ext) const;

    // --- Trust -----------------------------------------------------------
    // Whether the file `evt` describes is trusted drift because of the
    // process that wrote it.  May classify the process (when `pti` is 0) and
    // add it to the process cache; writes evt.trustMatch and evt.source.
    // `trusted` receives the decision too, except for PowerShell scripts,
    // where it stays false whatever is returned.
    bool ShouldTrustDrift(size_t pti, ac_event& evt, bool& trusted);
    // True for a one-line script that starts with "# " or is exactly "1".
    bool ShouldTrustPowershell(ac_event& evt);

    // --- File status -----------------------------------------------------
    // statx of `path` (a final symbolic link is not followed); `st` is
    // unchanged on failure.
    static bool StatItem(const char* path, struct stat& st);
    // StatItem of evt.name into evt.targetStat; sets evt.isSymlink for a link.
    static bool Lstat(ac_event& evt);

    ZELKProcessCache& GetProcessCache() { return m_ProcessCache; }
    ZELKAllowCache& GetAllowCache() { return m_AllowCache; }
    const std::vector<ProcessType>& GetProcessTypes() const { return m_ProcessTypes; }
    const std::vector<ScriptInterpreter>& GetScriptInterpreterRules() const {
        return m_ScriptInterpreterRules;
    }

  private:
    ZELKProcessCache m_ProcessCache;
    ZELKAllowCache m_AllowCache;
    std::set<std::string> m_SkippedFolders;    // a folder containing one is skipped
    std::set<std::string> m_SkippedPathParts;  // likewise ("/.": hidden)
    std::set<std::string> m_ScriptExtToRecognizeAndInclude;
    std::set<std::string> m_ExecutableExtensions;
    std::vector<ProcessType> m_ProcessTypes;
    std::vector<ScriptInterpreter> m_ScriptInterpreterRules;
};

// Fills a stat record from a statx record.  The change time is taken from the
// birth time on purpose: decisions that read a target's change time get the
// time the file was created.
void StatxToStat(const struct statx& stx, struct stat& st);
void StatxTimestampToTimespec(const struct statx_timestamp& ts, timespec& out);

#endif  // ZELK_ZELKQUERY_H_
