// Deciding what wants to run: a program start, and an open that an
// interpreter, the loader or a process loading a shared object makes.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Agent.h"
#include "AgentEvent.h"
#include "EventLog.h"
#include "HostConfig.h"
#include "LogRing.h"
#include "zelk.h"

namespace zelkagent {
namespace {

std::string Ruleset(const ac_wrapper_response_s& r) {
    return std::string(r.ruleset, strnlen(r.ruleset, sizeof(r.ruleset)));
}

}  // namespace

uint32_t Agent::OpenKind(const Job& job) const {
    std::string interp;
    switch (ClassifyElf(job.fd, interp)) {
        case ElfKind::kLibrary:
            // LD_PRELOAD, dlopen and the loader's own search all open the
            // object before mapping it.
            return ZELK_EVENT_MMAP_PRE;
        case ElfKind::kProgram:
            // A started program was decided at its start; only the loader
            // run by hand reads one to run it.
            return IsLoaderOf(job.pid, interp) ? ZELK_EVENT_MMAP_PRE : 0;
        case ElfKind::kNone:
        default:
            // The engine knows which processes interpret which files.
            return ZELK_EVENT_CREATE_PRE;
    }
}

void Agent::HandleExec(Job& job, const KnownTarget* known) {
    const uint32_t rawType = job.type == Job::kExec ? ZELK_EVENT_EXEC_PRE : OpenKind(job);
    if (rawType == 0) {
        Answer(job.fd, true);
        close(job.fd);
        job.fd = -1;
        return;
    }
    const char* what = rawType == ZELK_EVENT_EXEC_PRE   ? "exec"
                       : rawType == ZELK_EVENT_MMAP_PRE ? "map"
                                                        : "script";
    m_Stats.Count(kKindExec);
    m_Stats.RecordQueueWait(MonotonicNs() - job.readNs);
    std::string path;
    std::string failure;
    hostkit::HostEvent event;
    ac_wrapper_response_s response;
    memset(&response, 0, sizeof(response));
    uint32_t rc = ZELK_STATUS_SUCCESS;
    struct stat st;
    hostkit::FileDigests digests;
    bool hit = false;
    int err = 0;
    bool unchanged = known != nullptr;
    if (known != nullptr) {
        st = known->st;
        digests = known->digests;
    }
    if (!job.path.empty()) {
        path = std::move(job.path);
    }
    if (path.empty() && !hostkit::PathOfFd(job.fd, path, m_FdDir)) {
        failure = "cannot read the target's path";
    } else if (!unchanged && !(unchanged = m_Cache.Cached(job.fd, st, digests)) &&
               !m_Cache.DigestOf(job.fd, st, digests, hit, err)) {
        failure = std::string("cannot hash the target: ") + strerror(err);
    } else {
        event.name = path;
        DescribeProcess(job.pid, job.pidfd.Get(), event);
        const uint64_t engineStart = MonotonicNs();
        // A policy reload of several documents is one change.
        std::shared_lock<std::shared_mutex> policy;
        if (m_Options.policyLock != nullptr) {
            policy = std::shared_lock<std::shared_mutex>(*m_Options.policyLock);
        }
        bool cachedAllow = false;
        if (unchanged) {
            // The file is as it was when last hashed, so an approval the
            // engine remembers for this user, process and file still holds:
            // its allow cache answers before a full event is built.
            event.eventType = ZELK_EVENT_CACHED;
            ac_wrapper_event_s probe = event.Raw();
            rc = app_ctl(&probe, &response);
            cachedAllow = rc == ZELK_STATUS_SUCCESS && response.action == ZELK_ACTION_ALLOW;
        }
        if (!cachedAllow) {
            memset(&response, 0, sizeof(response));
            event.eventType = rawType;
            SetFileStat(st, event);
            if (rawType == ZELK_EVENT_MMAP_PRE) {
                event.mode = kProtExec;  // a mapping reports its protection
            }
            SetDigests(digests, event);
            ac_wrapper_event_s raw = event.Raw();
            rc = app_ctl(&raw, &response);
        }
        m_Stats.RecordEngine(MonotonicNs() - engineStart);
    }
    bool allow = failure.empty() ? rc != ZELK_STATUS_BLOCKED : !m_Options.failClosed;
    // Permissive: decided and logged like any other, never enforced.
    const bool wouldDeny = !allow && m_Permissive.load(std::memory_order_relaxed);
    if (wouldDeny) {
        allow = true;
    }
    // Taken before the answer: once it is written the started program may
    // take this CPU, and that time is not the agent's.
    m_Stats.RecordDecision(MonotonicNs() - job.readNs);
    Answer(job.fd, allow);
    close(job.fd);
    job.fd = -1;
    if (allow) {
        m_Stats.Allowed();
    } else {
        m_Stats.Denied();
    }

    // The program has its answer; everything below is reporting.
    LogRing& log = Log();
    const int pid = static_cast<int>(job.pid);
    if (!failure.empty()) {
        m_Stats.Error();
        log.Log(ZELK_LOG_ERROR, "%s %s by pid %d: %s; %s", what, path.empty() ? "?" : path.c_str(),
                pid, failure.c_str(), allow ? "allowed (fail-open)" : "denied (fail-closed)");
        return;
    }
    if (rc != ZELK_STATUS_SUCCESS && rc != ZELK_STATUS_BLOCKED) {
        m_Stats.EngineError();
        log.Log(ZELK_LOG_WARNING, "%s %s by pid %d: the engine gave no verdict (0x%08X); allowed",
                what, path.c_str(), pid, rc);
        return;
    }
    const std::string ruleset = Ruleset(response);
    if (!allow || wouldDeny) {
        log.Log(ZELK_LOG_INFO, "%s %s %s by %s (pid %d, user %s): %s%s%s",
                wouldDeny ? "would deny (permissive)" : "denied", what, path.c_str(),
                Text(event.processName), pid, Text(event.user),
                ruleset.empty() ? "not allowed" : "ruleset '", ruleset.c_str(),
                ruleset.empty() ? "" : "'");
        if (m_Options.eventLog != nullptr) {
            EventRecord record;
            record.verdict = wouldDeny ? "would-deny" : "denied";
            record.target = path;
            record.sha256 = DigestHex(event.fileSha256);
            record.process = Text(event.processName);
            record.user = Text(event.user);
            record.rule = ruleset;
            record.reason = ruleset.empty() ? "not allowed" : "blocked by its ruleset";
            record.pid = pid;
            record.timeMs = hostkit::NowMillis();
            m_Options.eventLog->Record(std::move(record));
        }
    } else if (response.action == ZELK_ACTION_BLOCK) {
        log.Log(ZELK_LOG_INFO,
                "allowed %s %s by %s (pid %d): would be blocked, the agent manifest is not "
                "applied yet",
                what, path.c_str(), Text(event.processName), pid);
    } else if (response.action == ZELK_ACTION_ALLOW && response.isAuthorized == 0) {
        log.Log(ZELK_LOG_INFO, "allowed unknown %s %s by %s (pid %d, user %s): log-only", what,
                path.c_str(), Text(event.processName), pid, Text(event.user));
    } else if (log.Enabled(ZELK_LOG_TRACE)) {
        log.Log(ZELK_LOG_TRACE, "allowed %s %s by %s (pid %d): action %u, source %u%s%s%s", what,
                path.c_str(), Text(event.processName), pid, response.action, response.source,
                ruleset.empty() ? "" : ", ruleset '", ruleset.c_str(), ruleset.empty() ? "" : "'");
    }
}

}  // namespace zelkagent
