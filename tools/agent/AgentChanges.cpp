// File changes: closes after writing (drift), creates, renames and
// deletes, and new folders in a watched tree.
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

// How a drift decision reads in the log.
const char* DriftState(uint32_t authorizedState) {
    switch (authorizedState) {
        case 1:
            return "approved (maintenance window)";
        case 2:
            return "block-listed";
        case 3:
            return "already allow-listed";
        case 4:
            return "trusted";
        case 5:
            return "excluded";
        default:
            return "not trusted, left unknown";
    }
}

}  // namespace

void Agent::HandleCloseWrite(Job& job) {
    m_Stats.Count(kKindCloseWrite);
    std::string path;
    struct stat st;
    if (!hostkit::PathOfFd(job.fd, path, m_FdDir) || DeletedPath(path) || fstat(job.fd, &st) != 0 ||
        !S_ISREG(st.st_mode)) {
        close(job.fd);
        job.fd = -1;
        return;
    }
    // The key changes with the write in most cases; not when the write fell
    // into the same clock tick and kept the size.
    m_Cache.Invalidate(static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino));
    hostkit::FileDigests digests;
    bool hit = false;
    int err = 0;
    const bool hashed = m_Cache.DigestOf(job.fd, st, digests, hit, err);
    close(job.fd);
    job.fd = -1;
    if (!hashed) {
        m_Stats.Error();
        Log().Log(ZELK_LOG_ERROR, "written file %s: cannot hash it: %s", path.c_str(),
                  strerror(err));
        return;
    }
    hostkit::HostEvent event;
    event.eventType = ZELK_EVENT_CLOSE_POST;
    event.dirty = true;
    event.name = path;
    SetFileStat(st, event);
    SetDigests(digests, event);
    DescribeProcess(job.pid, job.pidfd.Get(), event);
    ac_wrapper_event_s raw = event.Raw();
    ac_wrapper_response_s response;
    uint32_t rc = app_ctl(&raw, &response);
    if (rc != ZELK_STATUS_SUCCESS && rc != ZELK_STATUS_BLOCKED) {
        m_Stats.EngineError();
    }
    if (response.eventType == ZELK_ABSTRACT_DRIFT) {
        Log().Log(ZELK_LOG_INFO, "drift %s written by %s (pid %d): %s", path.c_str(),
                  Text(event.processName), static_cast<int>(job.pid),
                  DriftState(response.authorizedState));
        if (m_Options.eventLog != nullptr) {
            EventRecord record;
            record.verdict = "drift";
            record.target = path;
            record.sha256 = DigestHex(event.fileSha256);
            record.process = Text(event.processName);
            record.user = Text(event.user);
            record.reason = DriftState(response.authorizedState);
            record.pid = static_cast<int64_t>(job.pid);
            record.timeMs = hostkit::NowMillis();
            m_Options.eventLog->Record(std::move(record));
        }
    } else {
        Log().Log(ZELK_LOG_TRACE, "written file %s: no drift decision (action %u)", path.c_str(),
                  response.action);
    }
}

bool Agent::ResolveName(const char* record, std::string& path, bool& isOld) const {
    const auto* fid = reinterpret_cast<const struct fanotify_event_info_fid*>(record);
    isOld = false;
#ifdef FAN_EVENT_INFO_TYPE_OLD_DFID_NAME
    isOld = fid->hdr.info_type == FAN_EVENT_INFO_TYPE_OLD_DFID_NAME;
#endif
    const auto* handle = reinterpret_cast<const struct file_handle*>(fid->handle);
    const char* name = reinterpret_cast<const char*>(handle->f_handle + handle->handle_bytes);
    int mountFd = -1;
    for (const MountRef& m : m_Mounts) {
        if (memcmp(m.fsid, &fid->fsid, sizeof(m.fsid)) == 0) {
            mountFd = m.fd;
        }
    }
    if (mountFd < 0) {
        return false;
    }
    int dirFd =
        open_by_handle_at(mountFd, const_cast<struct file_handle*>(handle), O_PATH | O_CLOEXEC);
    if (dirFd < 0) {
        return false;
    }
    std::string dir;
    bool ok = hostkit::PathOfFd(dirFd, dir, m_FdDir);
    close(dirFd);
    if (!ok || DeletedPath(dir)) {
        return false;
    }
    path = dir == "/" ? "/" + std::string(name) : dir + "/" + name;
    return true;
}

void Agent::MarkNewFolder(const std::string& dir) {
    if (m_MarkFlags != 0) {
        return;  // whole mounts cover it already
    }
    // The folder may have filled before this mark: its own folders too.
    for (const std::string& sub : FoldersBelow({dir})) {
        const bool held =
            fanotify_mark(m_PermFd, FAN_MARK_ADD,
                          FAN_OPEN_EXEC_PERM | FAN_OPEN_PERM | FAN_CLOSE_WRITE | FAN_EVENT_ON_CHILD,
                          AT_FDCWD, sub.c_str()) == 0;
        if (!held) {
            m_Stats.Error();
            Log().Log(ZELK_LOG_ERROR, "new folder %s is not watched: %s", sub.c_str(),
                      strerror(errno));
            continue;
        }
        fanotify_mark(m_NameFd, FAN_MARK_ADD, FAN_CREATE | FAN_DELETE | FAN_MOVED_TO | FAN_ONDIR,
                      AT_FDCWD, sub.c_str());
        Log().Log(ZELK_LOG_TRACE, "watching new folder %s", sub.c_str());
    }
}

void Agent::HandleName(Job& job) {
    if (job.mask & FAN_ONDIR) {
        uint64_t arrived = FAN_CREATE | FAN_MOVED_TO;
#ifdef FAN_RENAME
        arrived |= FAN_RENAME;
#endif
        if (job.mask & arrived) {
            for (size_t at = 0;
                 at + sizeof(struct fanotify_event_info_header) <= job.info.size();) {
                const auto* hdr =
                    reinterpret_cast<const struct fanotify_event_info_header*>(&job.info[at]);
                if (hdr->len == 0 || at + hdr->len > job.info.size()) {
                    break;
                }
                std::string path;
                bool isOld = false;
                bool named = hdr->info_type == FAN_EVENT_INFO_TYPE_DFID_NAME;
#ifdef FAN_EVENT_INFO_TYPE_NEW_DFID_NAME
                named = named || hdr->info_type == FAN_EVENT_INFO_TYPE_NEW_DFID_NAME;
#endif
                if (named && ResolveName(&job.info[at], path, isOld) && !isOld) {
                    MarkNewFolder(path);
                }
                at += hdr->len;
            }
        }
        return;
    }
    std::string name, oldName;
    for (size_t at = 0; at + sizeof(struct fanotify_event_info_header) <= job.info.size();) {
        const auto* hdr = reinterpret_cast<const struct fanotify_event_info_header*>(&job.info[at]);
        if (hdr->len == 0 || at + hdr->len > job.info.size()) {
            break;
        }
        bool dfidName = hdr->info_type == FAN_EVENT_INFO_TYPE_DFID_NAME;
#if defined(FAN_EVENT_INFO_TYPE_OLD_DFID_NAME) && defined(FAN_EVENT_INFO_TYPE_NEW_DFID_NAME)
        dfidName = dfidName || hdr->info_type == FAN_EVENT_INFO_TYPE_OLD_DFID_NAME ||
                   hdr->info_type == FAN_EVENT_INFO_TYPE_NEW_DFID_NAME;
#endif
        std::string path;
        bool isOld = false;
        if (dfidName && ResolveName(&job.info[at], path, isOld)) {
            (isOld ? oldName : name) = path;
        }
        at += hdr->len;
    }
    hostkit::HostEvent event;
    EventKind kind;
    if (job.mask & FAN_CREATE) {
        kind = kKindCreate;
        event.eventType = ZELK_EVENT_CREATE_POST;
    } else if (job.mask & FAN_DELETE) {
        kind = kKindDelete;
        event.eventType = ZELK_EVENT_DELETE_POST;
    } else {
        kind = kKindRename;
        event.eventType = ZELK_EVENT_RENAME_POST;
    }
    m_Stats.Count(kind);
    if (name.empty()) {
        Log().Log(ZELK_LOG_TRACE, "%s event of pid %d: path not resolved", KindName(kind),
                  static_cast<int>(job.pid));
        return;
    }
    event.name = name;
    if (!oldName.empty()) {
        event.oldName = oldName;
    }
    if (kind != kKindDelete) {
        // Content arrives with the close after writing; a rename brings
        // finished content along, so its digests go with it.
        int fd = open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        struct stat st;
        hostkit::FileDigests digests;
        bool hit = false;
        int err = 0;
        if (fd >= 0) {
            if (kind == kKindRename && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
                m_Cache.DigestOf(fd, st, digests, hit, err)) {
                SetDigests(digests, event);
                SetFileStat(st, event);
            } else if (fstat(fd, &st) == 0) {
                SetFileStat(st, event);
            }
            close(fd);
        }
    }
    DescribeProcess(job.pid, -1, event);
    ac_wrapper_event_s raw = event.Raw();
    ac_wrapper_response_s response;
    uint32_t rc = app_ctl(&raw, &response);
    if (rc != ZELK_STATUS_SUCCESS && rc != ZELK_STATUS_BLOCKED) {
        m_Stats.EngineError();
    }
    Log().Log(ZELK_LOG_TRACE, "%s %s%s%s by pid %d: action %u, state %u", KindName(kind),
              name.c_str(), oldName.empty() ? "" : " from ", oldName.c_str(),
              static_cast<int>(job.pid), response.action, response.authorizedState);
}

}  // namespace zelkagent
