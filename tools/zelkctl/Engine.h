// zelkctl's side of the engine: one started engine per command run, the log
// callback that routes engine messages to the user, the host-side mode file,
// and status codes in words.  Everything here goes through zelk.h only.
#ifndef ZELK_TOOLS_ZELKCTL_ENGINE_H_
#define ZELK_TOOLS_ZELKCTL_ENGINE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "HostConfig.h"
#include "zelk.h"

namespace zelkctl {

// Exit codes of every command.
enum ExitCode {
    kExitOk = 0,
    kExitBlocked = 1,
    kExitUsage = 2,
    kExitEngine = 3,
    kExitInterrupted = 130  // stopped by SIGINT, as a shell reports it
};

// Global options.
struct LogOptions {
    unsigned mask = ZELK_LOG_ERROR;  // levels written to the log file or stderr
    std::string file;                // empty: stderr
};

// Shared with the other host programs.
using hostkit::DefaultRulesetName;
using hostkit::ParseLogLevel;
using hostkit::ParseWindow;
using hostkit::StatusMessage;
using hostkit::StatusText;

// One started engine; stops it when destroyed.  Only one may exist at a time
// (the engine is a process singleton).
class EngineSession {
  public:
    explicit EngineSession(const LogOptions& log);
    ~EngineSession();
    EngineSession(const EngineSession&) = delete;
    EngineSession& operator=(const EngineSession&) = delete;

    // Starts the engine on `dbPath`.  On failure prints the one-line error
    // and returns false.
    bool Start(const std::string& dbPath);

    // While on, every engine message of the levels in `mask` is also kept
    // (in addition to the log options' routing) for TakeCaptured.
    void Capture(unsigned mask);
    std::vector<std::string> TakeCaptured();

    // How many errors the engine reported since the last call.  A verdict
    // reached while it reported errors (a damaged database, say) cannot be
    // trusted.
    unsigned TakeErrorCount();

    // The metrics document, or empty with the status printed.
    std::string Metrics();

  private:
    bool m_Started = false;
};

// Modes a host must apply at every start: the engine keeps them in memory
// only.  zelkctl keeps them beside the database in "<db>.modes.json".
struct HostModes {
    unsigned flags = 0;  // ZELK_CONFIG_* bits
    uint64_t maintenanceStart = 0;
    uint64_t maintenanceEnd = 0;
};
std::string ModesPath(const std::string& dbPath);
// Missing file: default modes, true.  Unreadable or malformed: false.
bool LoadModes(const std::string& dbPath, HostModes& modes, std::string& error);
bool SaveModes(const std::string& dbPath, const HostModes& modes, std::string& error);
// "lockdown, maintenance 2026-01-01 10:00:00 UTC .. ... (open now)" or
// "log-only".
std::string DescribeModes(const HostModes& modes);
// "closed", or the window as dates and whether it is open now.
std::string DescribeWindow(const HostModes& modes);
std::string FormatMillis(uint64_t millis);

// Parses --maintenance START,END and refuses what is surely a mistake: END
// not after START, a time in seconds, a number past any date.
bool CheckWindow(const std::string& text, uint64_t& start, uint64_t& end, std::string& error);

// Applies `modes` with set_config; prints the error and returns false.
bool ApplyModes(const HostModes& modes);

std::string ReadWholeFile(const std::string& path, bool& ok);

// The engine picks a document's kind by its ruleset name, not its content:
// "agent" anywhere (any case) is the agent manifest, else "trustrules" a
// trust-rule document, else a hash ruleset.
enum class DocKind { kHashRuleset, kAgentManifest, kTrustRules };
DocKind KindForName(const std::string& name);
const char* KindName(DocKind kind);

}  // namespace zelkctl

#endif  // ZELK_TOOLS_ZELKCTL_ENGINE_H_
