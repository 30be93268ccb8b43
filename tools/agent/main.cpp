// zelk-agent: a reference host for the zelk engine on Linux.  It watches
// folders (or whole mounts) with fanotify, holds every program start there
// until the engine has decided, and reports written, created, renamed and
// deleted files so new executables go through drift handling.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "Agent.h"
#include "AgentStats.h"
#include "DigestCache.h"
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
    std::string logFile;
    std::string logLevel = "info";
    unsigned workers = 4;
    size_t queue = 256;
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
    for (const std::string& spec : o.rulesets) {
        std::string file, name;
        hostkit::SplitRulesetSpec(spec, file, name);
        struct stat st;
        if (stat(file.c_str(), &st) != 0) {
            fprintf(stderr, "zelk-agent: %s: %s\n", file.c_str(), strerror(errno));
            engine_stop();
            return false;
        }
        // Rulesets add to the store: an agent restart never throws policy away.
        rc = set_ruleset(true, file.c_str(), name.c_str());
        if (rc != ZELK_STATUS_SUCCESS) {
            fprintf(stderr, "zelk-agent: %s\n", hostkit::StatusMessage(file, rc).c_str());
            engine_stop();
            return false;
        }
        Log().Log(ZELK_LOG_INFO, "ruleset %s loaded as '%s'", file.c_str(), name.c_str());
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
    app.add_option("--db", o.db, "Database file")->required();
    app.add_option("--watch", o.watch, "Folder whose files are watched (repeatable)")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_flag("--lockdown", o.lockdown, "Block files the engine does not know (else log-only)");
    app.add_option("--maintenance", o.maintenance,
                   "Maintenance window START,END in ms since the epoch (\"now\" allowed; END 0: "
                   "open until the next start without it); files written in it are approved");
    app.add_option("--ruleset", o.rulesets,
                   "Import FILE[:NAME] at start (repeatable); \"agent\" in NAME makes it the "
                   "agent manifest, \"TrustRules\" a trust-rule document");
    app.add_flag("--fail-closed", o.failClosed,
                 "Deny a program start the agent cannot describe (unreadable target, hashing "
                 "failure); default: allow it and log");
    app.add_option("--duration", o.duration, "Stop after this many seconds")
        ->check(CLI::NonNegativeNumber);
    app.add_flag("--mount", o.mount, "Watch the whole mounts that hold the --watch folders");
    app.add_option("--log-file", o.logFile, "Append the log to this file, not stderr");
    app.add_option("--log-level", o.logLevel,
                   "none, error, warning, info (default), trace, or a mask of bits 1 info, "
                   "2 warning, 4 error, 8 trace");
    app.add_option("--workers", o.workers, "Threads answering events (default 4)")
        ->check(CLI::Range(1u, 64u));
    app.add_option("--queue", o.queue,
                   "Events taken from the kernel but not yet decided "
                   "before the agent stops reading (default 256)")
        ->check(CLI::Range(static_cast<size_t>(1), static_cast<size_t>(65536)));
    CLI11_PARSE(app, argc, argv);

    unsigned logMask = 0;
    if (!hostkit::ParseLogLevel(o.logLevel, logMask)) {
        fprintf(stderr, "zelk-agent: unknown log level %s\n", o.logLevel.c_str());
        return kExitUsage;
    }
    unsigned flags = o.lockdown ? ZELK_CONFIG_LOCKDOWN : 0;
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
    for (int s : {SIGINT, SIGTERM, SIGUSR1}) {
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

    zelkagent::AgentStats stats;
    hostkit::DigestCache cache;
    zelkagent::AgentOptions agentOptions;
    agentOptions.watch = o.watch;
    agentOptions.mount = o.mount;
    agentOptions.failClosed = o.failClosed;
    agentOptions.workers = o.workers;
    agentOptions.queueCapacity = o.queue;
    zelkagent::Agent agent(agentOptions, stats, cache);
    if (!agent.Start(error)) {
        fprintf(stderr, "zelk-agent: %s\n", error.c_str());
        engine_stop();
        Log().Stop();
        return kExitWatch;
    }
    Log().Log(ZELK_LOG_INFO,
              "ready: pid %d, %zu folder(s)%s, %s%s, fail-%s, %u workers, name events %s",
              static_cast<int>(getpid()), o.watch.size(), o.mount ? " (whole mounts)" : "",
              o.lockdown ? "lockdown" : "log-only",
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
        } else if (sig == SIGINT || sig == SIGTERM) {
            Log().Log(ZELK_LOG_INFO, "signal %d, stopping", sig);
            break;
        }
    }

    agent.Stop();
    uint32_t rc = engine_stop();
    if (rc != ZELK_STATUS_SUCCESS) {
        Log().Log(ZELK_LOG_ERROR, "%s", hostkit::StatusMessage("engine_stop", rc).c_str());
    }
    PrintCounters(stats, cache, !o.logFile.empty());
    Log().Log(ZELK_LOG_INFO, "stopped");
    Log().Stop();
    return rc == ZELK_STATUS_SUCCESS ? kExitOk : kExitEngine;
}
