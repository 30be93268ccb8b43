// The zelkctl commands.  Each Run... returns an ExitCode (Engine.h) and prints
// its own one-line errors.
#ifndef ZELK_TOOLS_ZELKCTL_COMMANDS_H_
#define ZELK_TOOLS_ZELKCTL_COMMANDS_H_

#include <string>
#include <vector>

#include "Engine.h"

namespace zelkctl {

struct ScanOptions {
    std::string db;
    std::vector<std::string> dirs;
    bool crossFilesystems = false;
    std::string ruleset;  // stored with each item; empty by default
    bool noProgress = false;
    unsigned jobs = 0;              // digest threads; 0: up to two, as the machine allows
    bool packages = false;          // also the files installed Debian packages own
    std::string packageRoot = "/";  // where dpkg's database and the files are
};
int RunScan(const LogOptions& log, const ScanOptions& options);
// The scan itself, on an engine already started.
int ScanFolders(const ScanOptions& options);

// Mode options shared by the commands that decide events.
struct ModeOptions {
    bool lockdown = false;
    bool logOnly = false;     // overrides a persisted lockdown
    std::string maintenance;  // "START,END" or empty
};

struct CheckOptions {
    std::string db;
    std::vector<std::string> files;
    ModeOptions modes;
    std::string asProcess = "/usr/bin/bash";
    std::string user;
    bool verbose = false;
    bool json = false;
    bool record = false;  // decide on the database itself, not on a copy
};
int RunCheck(const LogOptions& log, const CheckOptions& options);

struct ReplayOptions {
    std::string db;
    std::string trace;
    std::vector<std::string> rulesets;  // FILE or FILE:NAME
    std::vector<std::string> vars;      // NAME=VALUE for ${NAME} in the trace
    ModeOptions modes;
    std::string format = "table";
    bool record = false;
};
int RunReplay(const LogOptions& log, const ReplayOptions& options);

int RunStatus(const std::string& db, bool integrity);

struct LintOptions {
    std::string file;
    std::string name;
};
int RunLint(const LintOptions& options);

// What lint finds in a document of `kind`; `errors` counts the findings that
// would empty or weaken the policy the document replaces.
struct LintReport {
    size_t elements = 0;
    size_t errors = 0;
    std::vector<std::string> findings;
};
LintReport LintDocument(const std::string& text, DocKind kind);

struct ImportOptions {
    std::string db;
    std::string file;
    std::string name;
    bool incremental = false;
    bool force = false;  // import even what lint says would weaken policy
};
int RunImport(const LogOptions& log, const ImportOptions& options);

struct ExportOptions {
    std::string db;
    std::string out;
    bool trustRules = false;
    unsigned long from = 0;
    unsigned long limit = 0;
    unsigned source = 0;
};
int RunExport(const LogOptions& log, const ExportOptions& options);

int RunMetrics(const LogOptions& log, const std::string& db, bool pretty);

struct ConfigOptions {
    std::string db;
    bool lockdown = false;
    bool inventoryExists = false;
    bool rulesetExists = false;
    bool allowlistInventory = false;
    std::string maintenance;
};
int RunConfig(const LogOptions& log, const ConfigOptions& options);

int RunPurge(const LogOptions& log, const std::string& db, unsigned source, bool yes);

// Prints the modes kept beside `db`; changes nothing.
int RunModes(const std::string& db);

struct DemoOptions {
    std::string dir = "demo-scratch";
    std::string examples;  // empty: the source tree's examples/
};
int RunDemo(const LogOptions& log, const DemoOptions& options, bool logGiven);

// ---- shared by several commands ------------------------------------------

// Persisted modes merged with a command's mode options; false with the
// message printed on a usage error.
bool ResolveModes(const std::string& db, const ModeOptions& options, HostModes& modes, int& exit);

// The database a deciding command starts the engine on: `db` itself with
// `record`, else a private copy in `snapshot`.  With `allowMissing` a
// database that does not exist is an empty one in the snapshot's place (a
// what-if from nothing).  False with the error printed.
class Snapshot;
bool DecisionDatabase(const std::string& db, bool record, bool allowMissing, Snapshot& snapshot,
                      std::string& path);

// Imports one ruleset file through set_ruleset and prints how many rules it
// brought.  Documents written by `zelkctl export` are turned back into the
// ruleset or trust-rule document they came from first.
// The document is linted first: findings are printed as warnings, and one that
// would empty or weaken the policy it replaces stops the import unless
// `force`.  With `db`, what the import removed besides is printed.
struct ImportRequest {
    std::string file;
    std::string name;
    bool incremental = false;
    bool quiet = false;
    bool force = false;
    std::string db;
};
int ImportFile(EngineSession& session, const ImportRequest& request);

// Replays a trace through app_ctl; shared by replay and demo.  `strip` is
// removed from the front of paths in the table.
struct ReplayRun {
    std::string trace;
    std::vector<std::pair<std::string, std::string>> vars;
    std::string format = "table";
    std::string strip;
};
int ReplayTrace(const ReplayRun& run, std::string* summary);

}  // namespace zelkctl

#endif  // ZELK_TOOLS_ZELKCTL_COMMANDS_H_
