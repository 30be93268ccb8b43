// zelk-agent: a reference host for the zelk engine on Linux.  It watches
// folders (or whole mounts) with fanotify, holds every program start there
// until the engine has decided, and reports written, created, renamed and
// deleted files so new executables go through drift handling.
#include <signal.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "Agent.h"
#include "AgentConfig.h"
#include "AgentService.h"
#include "AgentStats.h"
#include "ControlChannel.h"
#include "DigestCache.h"
#include "EventLog.h"
#include "HostConfig.h"
#include "LogRing.h"
#include "zelk.h"
#include "zelk_build_info.h"

namespace {

using zelkagent::Log;

enum ExitCode { kExitOk = 0, kExitUsage = 2, kExitEngine = 3, kExitWatch = 4 };

// Engine messages join the agent's own in the ring: the engine calls back on
// the worker deciding a program start, which must not wait on a write.
int OnEngineLog(unsigned level, unsigned line, const char* function, const char* file,
                const char* message, unsigned length) {
    size_t n = message != nullptr ? length : 0;
    while (n > 0 && (message[n - 1] == '\n' || message[n - 1] == ' ')) {
        --n;
    }
    Log().Log(level, "%s:%u %s: %.*s", file ? file : "?", line, function ? function : "?",
              static_cast<int>(n), message ? message : "");
    return 0;
}

struct Options {
    std::string db;
    std::vector<std::string> watch;
    bool lockdown = false;
    std::string maintenance;
    std::vector<std::string> rulesets;
    bool failClosed = false;
    double duration = 0;
    bool mount = false;
    bool allMounts = false;
    std::vector<std::string> skipFsTypes;
    std::string logFile;
    std::string logLevel = "info";
    unsigned workers = 4;
    size_t queue = 256;
    bool permissive = false;
    std::string config;
    std::string policyDir;
    std::string socket = hostkit::kDefaultControlSocket;
    std::string eventLog;
};

void PrintCounters(const zelkagent::AgentStats& stats, const hostkit::DigestCache& cache,
                   bool toLog) {
    const std::string report = stats.Report(cache.Hits(), cache.Misses(), Log().Dropped());
    fputs(report.c_str(), stderr);
    fflush(stderr);
    if (toLog) {
        Log().Log(ZELK_LOG_INFO, "%s", report.c_str());
    }
}

// Starts the engine, applies the modes and loads the rulesets.  Prints the
// reason and returns false on failure (the engine is stopped again).
bool StartEngine(const Options& o, unsigned logMask, unsigned flags, uint64_t start, uint64_t end) {
    ac_engine_start_s record;
    memset(&record, 0, sizeof(record));
    record.dbPath = o.db.c_str();
    record.logMask = logMask;
    record.logCallback = &OnEngineLog;
    uint32_t rc = engine_start(&record);
    if (rc != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "zelk-agent: %s\n", hostkit::StatusMessage(o.db, rc).c_str());
        return false;
    }
    if (!(flags & ZELK_CONFIG_AUTO_AUTHORIZE)) {
        // The command line is the authority on modes.  A restarted engine
        // would take back the window an earlier run left in the database and
        // keep approving files by their times until its end; opening an empty
        // window (start 0 approves nothing) and closing it at once ends it now.
        rc = set_config(flags | ZELK_CONFIG_AUTO_AUTHORIZE, 0, 0);
        if (rc == ZELK_STATUS_SUCCESS) {
            rc = set_config(flags, 0, 0);
        }
    } else {
        rc = set_config(flags, start, end);
    }
    if (rc != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "zelk-agent: %s\n", hostkit::StatusMessage("set_config", rc).c_str());
        engine_stop();
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    CLI::App app(
        "zelk-agent: application control for program starts in the watched folders, decided by "
        "the zelk engine and enforced with fanotify.  Runs in the foreground as root; stops on "
        "SIGINT or SIGTERM; prints its counters on SIGUSR1 and on exit.");
    app.set_version_flag("--version",
                         "zelk-agent " ZELK_PRODUCT_VERSION " (engine " ZELK_ENGINE_VERSION ")");
    app.add_option("--config", o.config,
                   "Read zelk-agent.conf(5) keys from this file first; options given here win");
    CLI::Option* dbOpt = app.add_option("--db", o.db, "Database file");
    CLI::Option* watchOpt =
        app.add_option("--watch", o.watch, "Folder whose files are watched (repeatable)")
            ->check(CLI::ExistingDirectory);
    CLI::Option* permissiveOpt = app.add_flag(
        "--permissive", o.permissive,
        "Decide and log everything, deny nothing (would-be denials are logged as such)");
    CLI::Option* policyDirOpt = app.add_option(
        "--policy-dir", o.policyDir,
        "Import every document of this folder at start and on every reload (SIGHUP)");
    CLI::Option* socketOpt =
        app.add_option("--socket", o.socket, "Control socket for zelkctl agent")
            ->capture_default_str();
    CLI::Option* eventLogOpt = app.add_option(
        "--event-log", o.eventLog,
        "Denials, would-be denials and drift as records: journal, or a file of JSON lines");
    CLI::Option* lockdownOpt = app.add_flag("--lockdown", o.lockdown,
                                            "Block files the engine does not know (else log-only)");
    app.add_option("--maintenance", o.maintenance,
                   "Maintenance window START,END in ms since the epoch (\"now\" allowed; END 0: "
                   "open until the next start without it); files written in it are approved");
    app.add_option("--ruleset", o.rulesets,
                   "Import FILE[:NAME] at start and on every reload (repeatable), with the "
                   "policy directory's documents; \"agent\" in NAME makes it the agent manifest, "
                   "\"TrustRules\" a trust-rule document.  The first document of each kind "
                   "replaces what that kind holds, so restarts never duplicate rules");
    CLI::Option* failClosedOpt =
        app.add_flag("--fail-closed", o.failClosed,
                     "Deny a program start the agent cannot describe (unreadable target, hashing "
                     "failure); default: allow it and log");
    app.add_option("--duration", o.duration, "Stop after this many seconds")
        ->check(CLI::NonNegativeNumber);
    CLI::Option* mountOpt =
        app.add_flag("--mount", o.mount, "Watch the whole mounts that hold the --watch folders");
    CLI::Option* allMountsOpt =
        app.add_flag("--all-mounts", o.allMounts,
                     "Watch every mount of the machine except kernel and pseudo file systems");
    CLI::Option* skipFsOpt =
        app.add_option("--skip-fs-type", o.skipFsTypes,
                       "With --all-mounts: a file-system type left unwatched (repeatable; replaces "
                       "the default list of pseudo file systems)");
    CLI::Option* logFileOpt =
        app.add_option("--log-file", o.logFile, "Append the log to this file, not stderr");
    CLI::Option* logLevelOpt =
        app.add_option("--log-level", o.logLevel,
                       "none, error, warning, info (default), trace, or a mask of bits 1 info, "
                       "2 warning, 4 error, 8 trace");
    CLI::Option* workersOpt =
        app.add_option("--workers", o.workers, "Threads answering events (default 4)")
            ->check(CLI::Range(1u, 64u));
    CLI::Option* queueOpt =
        app.add_option("--queue", o.queue,
                       "Events taken from the kernel but not yet decided "
                       "before the agent stops reading (default 256)")
            ->check(CLI::Range(static_cast<size_t>(1), static_cast<size_t>(65536)));
    CLI11_PARSE(app, argc, argv);

    // The agent needs root (fanotify needs CAP_SYS_ADMIN, hashing every file
    // CAP_DAC_READ_SEARCH): say so before anything is created or opened.
    if (geteuid() != 0) {
        fprintf(stderr,
                "zelk-agent: needs root (CAP_SYS_ADMIN for fanotify, CAP_DAC_READ_SEARCH to read "
                "every file); run it as root or through its systemd unit\n");
        return kExitWatch;
    }

    // The configuration file: every key is an option, and an option given on
    // the command line wins over its key.
    if (!o.config.empty()) {
        using zelkagent::ConfigKey;
        const std::vector<ConfigKey> keys = {
            {"database", ConfigKey::kText},
            {"watch", ConfigKey::kList},
            {"mount", ConfigKey::kBool},
            {"all_mounts", ConfigKey::kBool},
            {"skip_fs_types", ConfigKey::kList},
            {"mode", ConfigKey::kChoice, 0, 0, {"log-only", "lockdown", "permissive"}},
            {"fail_closed", ConfigKey::kBool},
            {"workers", ConfigKey::kUnsigned, 1, 64},
            {"queue", ConfigKey::kUnsigned, 1, 65536},
            {"log_level", ConfigKey::kChoice, 0, 0, {"none", "error", "warning", "info", "trace"}},
            {"log_file", ConfigKey::kText},
            {"policy_dir", ConfigKey::kText},
            {"socket", ConfigKey::kText},
            {"event_log", ConfigKey::kText},
        };
        zelkagent::ConfigValues values;
        std::string error;
        if (!zelkagent::ReadConfigFile(o.config, keys, values, error)) {
            fprintf(stderr, "zelk-agent: %s\n", error.c_str());
            return kExitUsage;
        }
        auto text = [&](const char* key, CLI::Option* opt, std::string& out) {
            if (values.count(key) && opt->count() == 0) {
                out = values[key].text;
            }
        };
        auto flag = [&](const char* key, CLI::Option* opt, bool& out) {
            if (values.count(key) && opt->count() == 0) {
                out = values[key].flag;
            }
        };
        text("database", dbOpt, o.db);
        if (values.count("watch") && watchOpt->count() == 0) {
            o.watch = values["watch"].words;
        }
        flag("mount", mountOpt, o.mount);
        flag("all_mounts", allMountsOpt, o.allMounts);
        if (values.count("skip_fs_types") && skipFsOpt->count() == 0) {
            o.skipFsTypes = values["skip_fs_types"].words;
        }
        if (values.count("mode") && lockdownOpt->count() == 0 && permissiveOpt->count() == 0) {
            o.lockdown = values["mode"].text == "lockdown";
            o.permissive = values["mode"].text == "permissive";
        }
        flag("fail_closed", failClosedOpt, o.failClosed);
        if (values.count("workers") && workersOpt->count() == 0) {
            o.workers = static_cast<unsigned>(values["workers"].number);
        }
        if (values.count("queue") && queueOpt->count() == 0) {
            o.queue = static_cast<size_t>(values["queue"].number);
        }
        text("log_level", logLevelOpt, o.logLevel);
        text("log_file", logFileOpt, o.logFile);
        text("policy_dir", policyDirOpt, o.policyDir);
        text("socket", socketOpt, o.socket);
        text("event_log", eventLogOpt, o.eventLog);
    }
    if (o.allMounts && o.watch.empty()) {
        o.watch.push_back("/");
    }
    if (o.db.empty() || o.watch.empty()) {
        fprintf(stderr,
                "zelk-agent: a database (--db or database =) and at least one folder "
                "(--watch or watch =) are needed\n");
        return kExitUsage;
    }
    for (const std::string& dir : o.watch) {
        struct stat st {};
        if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            fprintf(stderr, "zelk-agent: %s is not a folder\n", dir.c_str());
            return kExitUsage;
        }
    }

    unsigned logMask = 0;
    if (!hostkit::ParseLogLevel(o.logLevel, logMask)) {
        fprintf(stderr, "zelk-agent: unknown log level %s\n", o.logLevel.c_str());
        return kExitUsage;
    }
    // Permissive decides as lockdown would; the agent does not enforce it.
    unsigned flags = (o.lockdown || o.permissive) ? ZELK_CONFIG_LOCKDOWN : 0;
    uint64_t windowStart = 0, windowEnd = 0;
    if (!o.maintenance.empty()) {
        if (!hostkit::ParseWindow(o.maintenance, windowStart, windowEnd)) {
            fprintf(stderr, "zelk-agent: --maintenance wants START,END, got \"%s\"\n",
                    o.maintenance.c_str());
            return kExitUsage;
        }
        if (windowEnd != 0 && windowEnd <= hostkit::NowMillis()) {
            fprintf(stderr, "zelk-agent: the maintenance window has already closed\n");
            return kExitUsage;
        }
        flags |= ZELK_CONFIG_AUTO_AUTHORIZE;
    }

    // Signals are taken by the main thread alone, with sigtimedwait; every
    // thread started below inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGINT, SIGTERM, SIGUSR1, SIGHUP}) {
        sigaddset(&signals, s);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::string error;
    if (!Log().Start(o.logFile, logMask, error)) {
        fprintf(stderr, "zelk-agent: %s\n", error.c_str());
        return kExitUsage;
    }
    if (!StartEngine(o, logMask, flags, windowStart, windowEnd)) {
        Log().Stop();
        return kExitEngine;
    }
    zelkagent::AgentService::Settings settings;
    settings.database = o.db;
    settings.policyDir = o.policyDir;
    settings.rulesets = o.rulesets;
    settings.lockdown = o.lockdown;
    settings.permissive = o.permissive;
    settings.failClosed = o.failClosed;
    zelkagent::AgentService service(settings);
    // Leaving before the agent runs: the engine and the log stop first.
    const auto fail = [](const std::string& why, int code) {
        fprintf(stderr, "zelk-agent: %s\n", why.c_str());
        engine_stop();
        Log().Stop();
        return code;
    };
    {
        std::string changes;
        if (!service.LoadPolicy(changes, error)) {
            return fail("policy: " + error, kExitEngine);
        }
        Log().Log(ZELK_LOG_INFO, "policy loaded: %s", changes.c_str());
    }
    const std::string notEnforcing = service.NotEnforcingReason();
    if (o.lockdown && !notEnforcing.empty()) {
        Log().Log(ZELK_LOG_WARNING, "%s", notEnforcing.c_str());
    }
    zelkagent::EventLog eventLog;
    if (!eventLog.Open(o.eventLog, error)) {
        return fail(error, kExitUsage);
    }

    zelkagent::AgentStats stats;
    hostkit::DigestCache cache;
    zelkagent::AgentOptions agentOptions;
    agentOptions.watch = o.watch;
    agentOptions.mount = o.mount;
    agentOptions.allMounts = o.allMounts;
    agentOptions.skipFsTypes = o.skipFsTypes;
    agentOptions.failClosed = o.failClosed;
    agentOptions.workers = o.workers;
    agentOptions.queueCapacity = o.queue;
    agentOptions.permissive = o.permissive;
    agentOptions.eventLog = &eventLog;
    agentOptions.policyLock = &service.PolicyLock();
    zelkagent::Agent agent(agentOptions, stats, cache);
    if (!agent.Start(error)) {
        return fail(error, kExitWatch);
    }
    service.Attach(&agent, &stats, &cache);
    hostkit::ControlServer control;
    if (!o.socket.empty() &&
        !control.Start(
            o.socket, [&service](const std::string& request) { return service.Handle(request); },
            error)) {
        // Enforcing matters more than being asked: run on, say why.
        Log().Log(ZELK_LOG_WARNING, "no control socket: %s", error.c_str());
    }
    sd_notify(0, "READY=1");
    Log().Log(ZELK_LOG_INFO,
              "ready: pid %d, %zu folder(s)%s, %s%s, fail-%s, %u workers, name events %s",
              static_cast<int>(getpid()), o.watch.size(), o.mount ? " (whole mounts)" : "",
              o.permissive ? "permissive"
              : o.lockdown ? "lockdown"
                           : "log-only",
              (flags & ZELK_CONFIG_AUTO_AUTHORIZE) ? ", maintenance window open" : "",
              o.failClosed ? "closed" : "open", o.workers, agent.HasNameEvents() ? "on" : "off");

    const uint64_t startMs = hostkit::NowMillis();
    const uint64_t stopMs =
        o.duration > 0 ? startMs + static_cast<uint64_t>(std::llround(o.duration * 1000)) : 0;
    bool windowOpen = (flags & ZELK_CONFIG_AUTO_AUTHORIZE) && windowEnd != 0;
    for (;;) {
        const uint64_t now = hostkit::NowMillis();
        if (stopMs != 0 && now >= stopMs) {
            Log().Log(ZELK_LOG_INFO, "duration reached, stopping");
            break;
        }
        if (windowOpen && now >= windowEnd) {
            // The engine closes the window (and records its end) on the first
            // set_config without it.
            flags &= ~ZELK_CONFIG_AUTO_AUTHORIZE;
            uint32_t rc = set_config(flags, 0, 0);
            Log().Log(rc == ZELK_STATUS_SUCCESS ? ZELK_LOG_INFO : ZELK_LOG_ERROR,
                      "maintenance window closed (status 0x%08X)", rc);
            windowOpen = false;
        }
        uint64_t waitMs = 1000;
        if (stopMs != 0) {
            waitMs = std::min(waitMs, stopMs - now);
        }
        if (windowOpen) {
            waitMs = std::min(waitMs, windowEnd - now);
        }
        struct timespec timeout = {static_cast<time_t>(waitMs / 1000),
                                   static_cast<long>(waitMs % 1000) * 1000000L};
        int sig = sigtimedwait(&signals, nullptr, &timeout);
        if (sig == SIGUSR1) {
            PrintCounters(stats, cache, !o.logFile.empty());
        } else if (sig == SIGHUP) {
            sd_notify(0, "RELOADING=1");
            std::string changes;
            if (service.LoadPolicy(changes, error)) {
                Log().Log(ZELK_LOG_INFO, "policy reloaded: %s", changes.c_str());
            } else {
                Log().Log(ZELK_LOG_ERROR, "policy reload failed: %s", error.c_str());
            }
            sd_notify(0, "READY=1");
        } else if (sig == SIGINT || sig == SIGTERM) {
            Log().Log(ZELK_LOG_INFO, "signal %d, stopping", sig);
            break;
        }
    }

    sd_notify(0, "STOPPING=1");
    control.Stop();
    agent.Stop();
    eventLog.Close();
    uint32_t rc = engine_stop();
    if (rc != ZELK_STATUS_SUCCESS) {
        Log().Log(ZELK_LOG_ERROR, "%s", hostkit::StatusMessage("engine_stop", rc).c_str());
    }
    PrintCounters(stats, cache, !o.logFile.empty());
    Log().Log(ZELK_LOG_INFO, "stopped");
    Log().Stop();
    return rc == ZELK_STATUS_SUCCESS ? kExitOk : kExitEngine;
}
