// zelkctl agent ...: ask the running zelk-agent over its control socket for
// its status, its engine's metrics, a policy reload, a change of mode, or the
// verdict on files (decided by the running engine, recording nothing).
#ifndef ZELK_TOOLS_ZELKCTL_CMDAGENT_H_
#define ZELK_TOOLS_ZELKCTL_CMDAGENT_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace zelkctl {

struct AgentOptions {
    std::string socket;
    bool json = false;
    // mode
    bool lockdown = false, logOnly = false, permissive = false;
    std::string maintenance;
    // check
    std::vector<std::string> files;
    std::string user, asProcess;

    CLI::App* command = nullptr;
    CLI::App *status = nullptr, *metrics = nullptr, *reload = nullptr, *mode = nullptr,
             *check = nullptr;
};

// Adds "agent" and its subcommands to `app`.
void AddAgentCommand(CLI::App& app, AgentOptions& options);
// Runs the chosen subcommand; an ExitCode.
int RunAgent(const AgentOptions& options);

// Asks the agent at `socket` for its status; true with the database it runs
// on when one answers.  Quiet: for `zelkctl status`.
bool AgentDatabase(const std::string& socket, std::string& database);

}  // namespace zelkctl

#endif  // ZELK_TOOLS_ZELKCTL_CMDAGENT_H_
