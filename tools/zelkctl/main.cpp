// zelkctl: drives the zelk engine the way a host agent does, through the
// exported C interface of zelk.so only.
#include <CLI/CLI.hpp>

#include "CmdAgent.h"
#include "Commands.h"
#include "HostEvent.h"
#include "zelk_build_info.h"

namespace {

void AddModeOptions(CLI::App* cmd, zelkctl::ModeOptions& modes) {
    cmd->add_flag("--lockdown", modes.lockdown, "Block files that are not known");
    cmd->add_flag("--log-only", modes.logOnly, "Allow unknown files even if lockdown is kept");
    cmd->add_option("--maintenance", modes.maintenance,
                    "Open the maintenance window START,END (ms since the epoch, or \"now\")");
}

}  // namespace

int main(int argc, char** argv) {
    using namespace zelkctl;
    CLI::App app(
        "zelkctl: build an inventory, load policy, ask the zelk engine for verdicts, "
        "replay recorded events and read its metrics.");
    app.require_subcommand(1);
    app.set_help_all_flag("--help-all", "Help for every command");
    app.set_version_flag("--version",
                         "zelkctl " ZELK_PRODUCT_VERSION " (engine " ZELK_ENGINE_VERSION ")");

    LogOptions log;
    std::string logLevel;
    app.add_option("--log-level", logLevel,
                   "Engine messages to show: none, error (default), warning, info, trace, or a "
                   "mask of bits 1 info, 2 warning, 4 error, 8 trace")
        ->check([](const std::string& text) {
            unsigned mask;
            return ParseLogLevel(text, mask) ? std::string() : "unknown log level " + text;
        });
    app.add_option("--log-file", log.file, "Append engine messages to this file, not stderr");

    int exitCode = kExitOk;

    ScanOptions scan;
    CLI::App* scanCmd = app.add_subcommand(
        "scan", "Build the inventory from folders, files, or what Debian packages installed");
    scanCmd->add_option("--db", scan.db, "Database file")->required();
    scanCmd->add_option("dirs", scan.dirs,
                        "Folders to walk (programs are kept by name or content: ELF, #!) and "
                        "files to store whatever their name; a rescan stores only what changed");
    scanCmd->add_flag("--packages", scan.packages,
                      "Also the files installed Debian packages own, each checked against the "
                      "MD5 dpkg recorded; a file that no longer matches is reported, not stored");
    scanCmd->add_option("--package-root", scan.packageRoot,
                        "Root holding var/lib/dpkg and the files (default /)");
    scanCmd->add_flag("--cross-filesystems", scan.crossFilesystems,
                      "Descend into folders on other file systems");
    scanCmd->add_option("--ruleset", scan.ruleset, "Ruleset name stored with each item");
    scanCmd->add_flag("--no-progress", scan.noProgress, "No progress output");
    scanCmd->add_option("-j,--jobs", scan.jobs, "Threads computing digests (default: up to 2)")
        ->check(CLI::Range(0u, 64u));

    CheckOptions check;
    CLI::App* checkCmd =
        app.add_subcommand("check", "Ask whether files may run (exit 1 when one is blocked)");
    checkCmd->add_option("--db", check.db, "Database file")->required();
    checkCmd->add_option("files", check.files, "Files to check")->required();
    AddModeOptions(checkCmd, check.modes);
    checkCmd->add_option("--as-process", check.asProcess, "Process that starts the file");
    checkCmd->add_option("--user", check.user, "User that starts the file (default: you)");
    checkCmd->add_flag("-v,--verbose", check.verbose, "Show the engine's reasoning");
    checkCmd->add_flag("--json", check.json, "Print the verdicts as one JSON document");
    checkCmd->add_flag("--record", check.record,
                       "Decide on the database itself, keeping what the engine stores (hit "
                       "counts, approved drift); by default a private copy is used");

    ReplayOptions replay;
    CLI::App* replayCmd = app.add_subcommand("replay", "Replay a JSONL event trace");
    replayCmd->add_option("--db", replay.db, "Database file")->required();
    replayCmd->add_option("trace", replay.trace, "Trace file, one JSON event per line")->required();
    replayCmd->add_option("--ruleset", replay.rulesets,
                          "Import FILE[:NAME] (added to the store) before the replay");
    replayCmd->add_option("--set", replay.vars, "NAME=VALUE for ${NAME} in the trace");
    AddModeOptions(replayCmd, replay.modes);
    replayCmd->add_flag("--record", replay.record,
                        "Replay on the database itself and keep what the events and --ruleset "
                        "imports store; by default a private copy is used");
    replayCmd->add_option("--format", replay.format, "table or jsonl")
        ->check(CLI::IsMember({"table", "jsonl"}));
    replayCmd->footer(std::string("Event types: ") + hostkit::EventNames() +
                      ", or a raw code number.");

    std::string statusDb;
    bool statusCheck = false;
    CLI::App* statusCmd = app.add_subcommand("status", "Show what a database holds");
    statusCmd->add_option("--db", statusDb, "Database file")->required();
    statusCmd->add_flag("--check", statusCheck,
                        "Also run SQLite's integrity check (exit 3 when the file is damaged)");

    std::string modesDb;
    CLI::App* modesCmd =
        app.add_subcommand("modes", "Show the modes kept beside a database, changing nothing");
    modesCmd->add_option("--db", modesDb, "Database file")->required();

    LintOptions lint;
    CLI::App* lintCmd = app.add_subcommand(
        "lint", "Check a ruleset or trust-rule document without importing it (exit 1: findings)");
    lintCmd->add_option("file", lint.file, "Document")->required();
    lintCmd->add_option("--name", lint.name, "Ruleset name (default: the file name)");

    ImportOptions import;
    CLI::App* importCmd = app.add_subcommand("import", "Import a ruleset or trust-rule document");
    importCmd->add_option("--db", import.db, "Database file")->required();
    importCmd->add_option("file", import.file, "Document, or a file written by export")->required();
    importCmd->add_option("--name", import.name,
                          "Ruleset name; \"agent\" in it makes an agent manifest, \"TrustRules\" "
                          "a trust-rule document (default: the file name)");
    importCmd->add_flag("--incremental", import.incremental,
                        "Add to the store instead of replacing that kind of content");
    importCmd->add_flag("--force", import.force,
                        "Import even a document that lint says would empty or weaken the "
                        "policy it replaces");
    importCmd->footer(
        "An import replaces what its kind owns: a hash ruleset its own rules, a trust-rule "
        "document every trust rule and user list, and an agent manifest every agent rule, "
        "hash-ruleset rule, trust rule and user list. What went is printed.");

    ExportOptions exportOpts;
    CLI::App* exportCmd = app.add_subcommand("export", "Export inventory rows or trust rules");
    exportCmd->add_option("--db", exportOpts.db, "Database file")->required();
    exportCmd->add_option("--out", exportOpts.out, "JSON file to write")->required();
    exportCmd->add_flag("--trust-rules", exportOpts.trustRules, "Export trust rules");
    exportCmd->add_option("--from", exportOpts.from, "Only rows with a larger id");
    exportCmd->add_option("--limit", exportOpts.limit, "At most this many rows (0: all)");
    exportCmd->add_option("--source", exportOpts.source, "Only rows of this source (0: all)")
        ->check(CLI::Range(0, 6));

    std::string metricsDb;
    bool pretty = false;
    CLI::App* metricsCmd = app.add_subcommand("metrics", "Print the metrics document");
    metricsCmd->add_option("--db", metricsDb, "Database file")->required();
    metricsCmd->add_flag("--pretty", pretty, "Indent the JSON");

    ConfigOptions configOpts;
    CLI::App* configCmd = app.add_subcommand(
        "config", "Set the modes; they are kept beside the database for later commands");
    configCmd->add_option("--db", configOpts.db, "Database file")->required();
    configCmd->add_flag("--lockdown", configOpts.lockdown, "Block unknown files");
    configCmd->add_option("--maintenance", configOpts.maintenance,
                          "Maintenance window START,END (ms since the epoch, or \"now\")");
    configCmd->add_flag("--inventory-exists", configOpts.inventoryExists,
                        "The first inventory is complete");
    configCmd->add_flag("--ruleset-exists", configOpts.rulesetExists, "A ruleset is loaded");
    configCmd->add_flag("--allowlist-inventory", configOpts.allowlistInventory,
                        "Trust drift while the first inventory is being built");

    std::string purgeDb;
    unsigned purgeSource = 0;
    CLI::App* purgeCmd = app.add_subcommand("purge", "Remove one source's content");
    purgeCmd->add_option("--db", purgeDb, "Database file")->required();
    purgeCmd
        ->add_option("--source", purgeSource,
                     "0 everything, 1 agent rules, 2 ruleset rules, 3 scanned, 4 drift, "
                     "5 prelink, 6 trust rules and user lists")
        ->required()
        ->check(CLI::Range(0, 6));
    bool purgeYes = false;
    purgeCmd->add_flag("--yes", purgeYes, "Confirm --source 0 (everything)");

    DemoOptions demo;
    CLI::App* demoCmd = app.add_subcommand(
        "demo", "Run the whole workflow on a scratch folder and print the verdicts");
    demoCmd->add_option("--dir", demo.dir, "Scratch folder (default ./demo-scratch)");
    demoCmd->add_option("--examples", demo.examples, "Folder with the example documents");

    AgentOptions agent;
    AddAgentCommand(app, agent);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    bool logGiven = !logLevel.empty() || !log.file.empty();
    if (!logLevel.empty()) {
        ParseLogLevel(logLevel, log.mask);
    } else if (!log.file.empty()) {
        log.mask = ZELK_LOG_ERROR | ZELK_LOG_WARNING | ZELK_LOG_INFO | ZELK_LOG_TRACE;
    }

    if (*scanCmd) {
        exitCode = RunScan(log, scan);
    } else if (*checkCmd) {
        exitCode = RunCheck(log, check);
    } else if (*replayCmd) {
        exitCode = RunReplay(log, replay);
    } else if (*statusCmd) {
        exitCode = RunStatus(statusDb, statusCheck);
    } else if (*modesCmd) {
        exitCode = RunModes(modesDb);
    } else if (*lintCmd) {
        exitCode = RunLint(lint);
    } else if (*importCmd) {
        exitCode = RunImport(log, import);
    } else if (*exportCmd) {
        exitCode = RunExport(log, exportOpts);
    } else if (*metricsCmd) {
        exitCode = RunMetrics(log, metricsDb, pretty);
    } else if (*configCmd) {
        exitCode = RunConfig(log, configOpts);
    } else if (*purgeCmd) {
        exitCode = RunPurge(log, purgeDb, purgeSource, purgeYes);
    } else if (*demoCmd) {
        exitCode = RunDemo(log, demo, logGiven);
    } else if (*agent.command) {
        exitCode = RunAgent(agent);
    }
    fflush(stdout);
    return exitCode;
}
