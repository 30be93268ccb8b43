// Read-only looks into a policy database beside a running engine, for what
// the exported interface does not report: how much policy an import removed,
// and the user lists a trust-rule export leaves out.
#ifndef ZELK_TOOLS_ZELKCTL_DBREAD_H_
#define ZELK_TOOLS_ZELKCTL_DBREAD_H_

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zelkctl {

struct PolicyCounts {
    long long agentRules = 0;    // source 1
    long long rulesetRules = 0;  // source 2
    long long trustRules = 0;
    long long userLists = 0;
};
bool CountPolicy(const std::string& dbPath, PolicyCounts& counts);

using UserLists = std::vector<std::pair<std::string, std::vector<std::string>>>;
bool ReadUserLists(const std::string& dbPath, UserLists& lists, std::string& error);

// The scanned rows as "nativePath\nSHA256 in upper-case hex", so that a
// rescan stores only what is new or changed.
bool ReadScannedRows(const std::string& dbPath, std::set<std::string>& rows, std::string& error);

// The maintenance window the engine keeps in its settings and recovers at
// every start.  False when none was ever stored.
bool ReadStoredWindow(const std::string& dbPath, long long& start, long long& end);

// Runs PRAGMA integrity_check; `problems` gets its lines when it fails.
bool CheckIntegrity(const std::string& dbPath, std::vector<std::string>& problems);

}  // namespace zelkctl

#endif  // ZELK_TOOLS_ZELKCTL_DBREAD_H_
