#include "Agent.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "AgentEvent.h"
#include "EventLog.h"
#include "HostConfig.h"
#include "HostEvent.h"
#include "LogRing.h"
#include "zelk.h"

namespace zelkagent {
namespace {

std::string Errno(const char* what) {
    return std::string(what) + ": " + strerror(errno);
}

// The pidfd a permission group's event carries (FAN_REPORT_PIDFD), or -1.
// The kernel opened it for this reader, so whoever gets it must close it.
int PidfdOf(const struct fanotify_event_metadata* m) {
    const char* at = reinterpret_cast<const char*>(m) + m->metadata_len;
    const char* end = reinterpret_cast<const char*>(m) + m->event_len;
    while (at + sizeof(struct fanotify_event_info_header) <= end) {
        const auto* hdr = reinterpret_cast<const struct fanotify_event_info_header*>(at);
        if (hdr->len == 0 || at + hdr->len > end) {
            break;
        }
        if (hdr->info_type == FAN_EVENT_INFO_TYPE_PIDFD &&
            hdr->len >= sizeof(struct fanotify_event_info_pidfd)) {
            const int fd = reinterpret_cast<const struct fanotify_event_info_pidfd*>(at)->pidfd;
            return fd >= 0 ? fd : -1;
        }
        at += hdr->len;
    }
    return -1;
}

}  // namespace

Agent::Agent(const AgentOptions& options, AgentStats& stats, hostkit::DigestCache& cache)
    : m_Options(options),
      m_Stats(stats),
      m_Cache(cache),
      m_Queue(options.queueCapacity),
      m_FileQueue(options.queueCapacity),
      m_Self(getpid()),
      m_Permissive(options.permissive) {}

Agent::~Agent() {
    Stop();
}

bool Agent::Start(std::string& error) {
    // A pidfd with each event names the acting process even after its pid
    // is reused, and lets the kernel hand out its ids far cheaper than
    // /proc/PID/status does.  Kernels before 5.15 refuse the flag.
    const unsigned permFlags = FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE;
    const unsigned eventFlags = O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NOATIME;
    m_PermFd = fanotify_init(permFlags | FAN_REPORT_PIDFD, eventFlags);
    if (m_PermFd < 0 && errno == EINVAL) {
        m_PermFd = fanotify_init(permFlags, eventFlags);
    }
    if (m_PermFd < 0) {
        error = Errno("fanotify_init(FAN_CLASS_CONTENT)");
        return false;
    }
    // Opens are held too, as an interpreter reads its script and the loader
    // its program and shared objects by plain opens.  A watched tree has a
    // mark on each of its folders (a mark on the whole mount would hold every
    // open of the machine's other files too); folders made later are marked
    // as their creation is reported.
    const bool mounts = m_Options.mount || m_Options.allMounts;
    m_MarkFlags = mounts ? FAN_MARK_MOUNT : 0;
    const uint64_t mask =
        FAN_OPEN_EXEC_PERM | FAN_OPEN_PERM | FAN_CLOSE_WRITE | (mounts ? 0 : FAN_EVENT_ON_CHILD);
    const std::vector<std::string> marked =
        m_Options.allMounts ? MountPoints(m_Options.skipFsTypes.empty() ? DefaultSkippedFsTypes()
                                                                        : m_Options.skipFsTypes)
        : m_Options.mount   ? m_Options.watch
                            : FoldersBelow(m_Options.watch);
    size_t markedCount = 0;
    for (const std::string& dir : marked) {
        if (fanotify_mark(m_PermFd, FAN_MARK_ADD | m_MarkFlags, mask, AT_FDCWD, dir.c_str()) != 0) {
            error = Errno(("fanotify_mark(FAN_OPEN_EXEC_PERM) on " + dir).c_str());
            if (m_Options.allMounts) {
                // Some file systems take no permission marks; the rest are
                // still worth holding.
                Log().Log(ZELK_LOG_WARNING, "mount not watched: %s", error.c_str());
                error.clear();
                continue;
            }
            Stop();
            return false;
        }
        ++markedCount;
        int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        struct statfs sfs;
        if (fd >= 0 && fstatfs(fd, &sfs) == 0) {
            MountRef ref;
            memcpy(ref.fsid, &sfs.f_fsid, sizeof(ref.fsid));
            ref.fd = fd;
            bool known = false;
            for (const MountRef& m : m_Mounts) {
                known = known || memcmp(m.fsid, ref.fsid, sizeof(ref.fsid)) == 0;
            }
            if (!known) {
                m_Mounts.push_back(ref);
                fd = -1;
            }
        }
        if (fd >= 0) {
            close(fd);
        }
    }

    if (markedCount == 0) {
        error = "no mount could be watched";
        Stop();
        return false;
    }

    // Creates, renames and deletes arrive as directory handle plus name; a
    // kernel without that reporting still gets program starts and writes.
    m_NameFd = fanotify_init(
        FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME | FAN_UNLIMITED_QUEUE,
        O_RDONLY | O_CLOEXEC);
    std::string nameError = m_NameFd < 0 ? Errno("fanotify_init(FAN_REPORT_DFID_NAME)") : "";
    const unsigned nameFlags = FAN_MARK_ADD | (mounts ? FAN_MARK_FILESYSTEM : 0);
    for (const std::string& dir : marked) {
        if (m_NameFd < 0) {
            break;
        }
        uint64_t nameMask = FAN_CREATE | FAN_DELETE | FAN_MOVED_TO | FAN_ONDIR;
#ifdef FAN_RENAME
        nameMask = FAN_CREATE | FAN_DELETE | FAN_RENAME | FAN_ONDIR;
#endif
        int rc = fanotify_mark(m_NameFd, nameFlags, nameMask, AT_FDCWD, dir.c_str());
        if (rc != 0 && errno == EINVAL) {
            // Before FAN_RENAME a move is seen only at its destination.
            rc = fanotify_mark(m_NameFd, nameFlags,
                               FAN_CREATE | FAN_DELETE | FAN_MOVED_TO | FAN_ONDIR, AT_FDCWD,
                               dir.c_str());
        }
        if (rc != 0 && m_Options.allMounts) {
            Log().Log(ZELK_LOG_WARNING, "creates, renames and deletes on %s are not reported: %s",
                      dir.c_str(), strerror(errno));
        } else if (rc != 0) {
            nameError = Errno(("fanotify_mark(FAN_CREATE) on " + dir).c_str());
            close(m_NameFd);
            m_NameFd = -1;
        }
    }
    if (m_NameFd < 0) {
        Log().Log(ZELK_LOG_WARNING, "creates, renames and deletes are not reported: %s",
                  nameError.c_str());
    }

    // Room for the descriptors that events hold until they are answered
    // (see ReaderLoop); the usual soft limit of 1024 is too tight.
    struct rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    m_FdDir = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    m_StopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_StopFd < 0) {
        error = Errno("eventfd");
        Stop();
        return false;
    }
    for (unsigned i = 0; i < (m_Options.workers > 0 ? m_Options.workers : 1); ++i) {
        m_Workers.emplace_back(&Agent::WorkerLoop, this, &m_Queue);
    }
    m_FileWorker = std::thread(&Agent::WorkerLoop, this, &m_FileQueue);
    m_Reader = std::thread(&Agent::ReaderLoop, this);
    return true;
}

void Agent::Stop() {
    if (m_Reader.joinable()) {
        m_Stopping.store(true);
        // No new events from here on; those already queued are still read.
        fanotify_mark(m_PermFd, FAN_MARK_FLUSH | m_MarkFlags, 0, AT_FDCWD, nullptr);
        if (m_NameFd >= 0) {
            fanotify_mark(m_NameFd, FAN_MARK_FLUSH | (m_MarkFlags != 0 ? FAN_MARK_FILESYSTEM : 0),
                          0, AT_FDCWD, nullptr);
        }
        uint64_t one = 1;
        ssize_t ignored = write(m_StopFd, &one, sizeof(one));
        (void)ignored;
        m_Reader.join();
    }
    m_Queue.Close();
    m_FileQueue.Close();
    for (std::thread& t : m_Workers) {
        t.join();
    }
    m_Workers.clear();
    if (m_FileWorker.joinable()) {
        m_FileWorker.join();
    }
    // Closing the permission group allows anything the kernel still holds.
    for (int* fd : {&m_PermFd, &m_NameFd, &m_StopFd, &m_FdDir}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
    for (const MountRef& m : m_Mounts) {
        close(m.fd);
    }
    m_Mounts.clear();
}

void Agent::ReaderLoop() {
    // Every event taken holds a descriptor, two with its pidfd, until it is
    // answered, and a read that runs out of descriptors makes the kernel
    // refuse the program start it was copying.  16 KiB is at most 512
    // permission events per read; with both queues full the agent holds
    // about 2,000 descriptors, which Start makes room for.
    std::vector<char> buffer(16 * 1024);
    struct pollfd fds[3] = {{m_PermFd, POLLIN, 0}, {m_StopFd, POLLIN, 0}, {m_NameFd, POLLIN, 0}};
    const nfds_t count = m_NameFd >= 0 ? 3 : 2;
    while (!m_Stopping.load()) {
        int n = poll(fds, count, -1);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            Log().Log(ZELK_LOG_ERROR, "poll on the fanotify groups failed: %s", strerror(errno));
            break;
        }
        if (fds[1].revents != 0) {
            break;
        }
        if (fds[0].revents & POLLIN) {
            ReadEvents(m_PermFd, false, buffer);
        }
        if (count == 3 && (fds[2].revents & POLLIN)) {
            ReadEvents(m_NameFd, true, buffer);
        }
    }
    // The marks are gone: hand out what the kernel had already queued, so
    // every waiting program start gets its answer from the engine.
    while (ReadEvents(m_PermFd, false, buffer)) {
    }
    while (m_NameFd >= 0 && ReadEvents(m_NameFd, true, buffer)) {
    }
}

bool Agent::ReadEvents(int fd, bool nameGroup, std::vector<char>& buffer) {
    ssize_t length = read(fd, buffer.data(), buffer.size());
    if (length <= 0) {
        if (length < 0 && errno != EAGAIN && errno != EINTR) {
            Log().Log(ZELK_LOG_ERROR, "reading fanotify events failed: %s", strerror(errno));
        }
        return false;
    }
    const uint64_t now = MonotonicNs();
    auto* m = reinterpret_cast<struct fanotify_event_metadata*>(buffer.data());
    for (; FAN_EVENT_OK(m, length); m = FAN_EVENT_NEXT(m, length)) {
        if (m->vers != FANOTIFY_METADATA_VERSION) {
            Log().Log(ZELK_LOG_ERROR, "fanotify metadata version %u, expected %u",
                      static_cast<unsigned>(m->vers), FANOTIFY_METADATA_VERSION);
            if (m->fd >= 0) {
                close(m->fd);
            }
            continue;
        }
        Job job;
        if (!nameGroup) {
            job.pidfd = OwnedFd(PidfdOf(m));
        }
        if (m->mask & FAN_Q_OVERFLOW) {
            m_Stats.Overflow();
            Log().Log(ZELK_LOG_WARNING, "fanotify queue overflow: events were lost");
            continue;
        }
        job.pid = static_cast<pid_t>(m->pid);
        job.mask = m->mask;
        job.readNs = now;
        if (nameGroup) {
            job.type = Job::kName;
            const char* start = reinterpret_cast<const char*>(m);
            job.info.assign(start + m->metadata_len, start + m->event_len);
        } else {
            job.fd = m->fd;
            job.type = (m->mask & FAN_OPEN_EXEC_PERM) ? Job::kExec
                       : (m->mask & FAN_OPEN_PERM)    ? Job::kOpen
                                                      : Job::kCloseWrite;
            if (job.fd < 0) {
                continue;
            }
        }
        if (job.pid == m_Self) {
            // The agent's own files (its database, its log) never wait on it.
            m_Stats.OwnEvent();
            if (job.Held()) {
                Answer(job.fd, true);
            }
            if (job.fd >= 0) {
                close(job.fd);
            }
            continue;
        }
        if (!nameGroup && !OnDecisionPath(job)) {
            continue;
        }
        // Every decision goes to the pool, even for a file hashed before: the
        // engine may open its database, and on a marked mount that open waits
        // for this very thread to answer it.
        Dispatch(std::move(job));
    }
    return true;
}

bool Agent::OnDecisionPath(Job& job) {
    bool keep = true;
    if (job.type == Job::kOpen) {
        struct stat st;
        keep = fstat(job.fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
    }
    if (!keep) {
        if (job.Held()) {
            Answer(job.fd, true);
        }
        close(job.fd);
        job.fd = -1;
    }
    return keep;
}

void Agent::Dispatch(Job&& job) {
    bool waited = false;
    const int fd = job.fd;
    const bool exec = job.Held();
    WorkQueue<Job>& queue = exec ? m_Queue : m_FileQueue;
    if (!queue.Push(std::move(job), waited)) {
        if (exec) {
            Answer(fd, true);
        }
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    if (waited) {
        m_Stats.QueueFull();
    }
}

void Agent::WorkerLoop(WorkQueue<Job>* queue) {
    Job job;
    while (queue->Pop(job)) {
        try {
            switch (job.type) {
                case Job::kExec:
                case Job::kOpen:
                    HandleExec(job);
                    break;
                case Job::kCloseWrite:
                    HandleCloseWrite(job);
                    break;
                case Job::kName:
                    HandleName(job);
                    break;
            }
        } catch (const std::exception& e) {
            // Only allocation can throw here; the handlers answer before they
            // log, so at worst the answer is given and a message is lost.
            m_Stats.Error();
            Log().Log(ZELK_LOG_ERROR, "event of pid %d: %s", static_cast<int>(job.pid), e.what());
            if (job.fd >= 0) {
                if (job.Held()) {
                    Answer(job.fd, !m_Options.failClosed);
                }
                close(job.fd);
            }
        }
        job = Job();
    }
}

size_t Agent::QueueDepth() const {
    return const_cast<WorkQueue<Job>&>(m_Queue).Size();
}

void Agent::Answer(int fd, bool allow) {
    struct fanotify_response response;
    response.fd = fd;
    response.response = allow ? FAN_ALLOW : FAN_DENY;
    if (write(m_PermFd, &response, sizeof(response)) != static_cast<ssize_t>(sizeof(response))) {
        m_Stats.Error();
        Log().Log(ZELK_LOG_ERROR, "answering a program start failed: %s", strerror(errno));
    }
}

void Agent::DescribeProcess(pid_t pid, int pidfd, hostkit::HostEvent& event) {
    hostkit::ProcessInfo process = hostkit::ReadProcessInfo(pid, pidfd);
    event.pid = static_cast<uint64_t>(pid);
    event.processName = std::move(process.exe);
    event.cmdLine = std::move(process.cmdLine);
    if (process.uid) {
        event.user = m_Names.User(*process.uid);
    }
    if (process.gid) {
        event.group = m_Names.Group(*process.gid);
    }
}

}  // namespace zelkagent
