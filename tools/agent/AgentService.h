// What makes zelk-agent a system service beside enforcing: its policy
// (the policy directory and --ruleset documents, imported in an order that
// leaves one copy of each rule, again on every reload), its modes as the
// administrator sets them at run time, and the answers to the control channel
// (status, metrics, reload, mode, check).
#ifndef ZELK_TOOLS_AGENT_AGENTSERVICE_H_
#define ZELK_TOOLS_AGENT_AGENTSERVICE_H_

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "PolicyDir.h"

namespace hostkit {
class DigestCache;
}

namespace zelkagent {

class Agent;
class AgentStats;

class AgentService {
  public:
    struct Settings {
        std::string database;
        std::string policyDir;              // may be empty: no directory
        std::vector<std::string> rulesets;  // FILE[:NAME] from the command line
        bool lockdown = false;
        bool permissive = false;
        bool failClosed = false;
    };

    explicit AgentService(Settings settings);

    // Shared around every decision, exclusive while the policy is replaced.
    std::shared_mutex& PolicyLock() { return m_PolicyLock; }

    // Imports every document (policy directory, then --ruleset files) as one
    // change: decisions wait while it runs.  `changes` says what changed
    // since the last load.  False with `error` when a document cannot be read
    // or imported; documents imported before it stay.
    bool LoadPolicy(std::string& changes, std::string& error);

    // Set once the enforcing part runs.
    void Attach(Agent* agent, AgentStats* stats, hostkit::DigestCache* cache);

    // Why lockdown is not enforced ("" when it is, or when not in lockdown).
    std::string NotEnforcingReason() const;

    // Answers one control request (a JSON object as text) with a JSON object.
    std::string Handle(const std::string& request);

  private:
    std::string Status();
    std::string Reload();
    std::string SetMode(const std::string& mode, const std::string& maintenance);
    std::string Check(const std::vector<std::string>& files, const std::string& user,
                      const std::string& process);
    unsigned EngineFlags() const;  // guarded by m_ModeMutex

    Settings m_Settings;
    const uint64_t m_StartMs;
    std::shared_mutex m_PolicyLock;

    // Guarded by m_ModeMutex: the modes and the last policy load.
    mutable std::mutex m_ModeMutex;
    std::vector<PolicyDocument> m_Applied;
    std::string m_LastReload;
    uint64_t m_LastReloadMs = 0;

    // Set by Attach before the control channel starts; read-only after.
    Agent* m_Agent = nullptr;
    AgentStats* m_Stats = nullptr;
    hostkit::DigestCache* m_Cache = nullptr;
};

// True when the database records that an agent manifest was applied for this
// engine version (its "agentVersion" setting).
bool ManifestApplied(const std::string& database);

}  // namespace zelkagent

#endif  // ZELK_TOOLS_AGENT_AGENTSERVICE_H_
