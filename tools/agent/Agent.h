// The fanotify side of zelk-agent: one group of the content class that holds
// program starts (FAN_OPEN_EXEC_PERM) and opens (FAN_OPEN_PERM: scripts read
// by interpreters, programs and shared objects read by the loader) until the
// engine has decided, and reports files closed after writing; and, where the
// kernel offers it, a second group reporting creates, renames and deletes by
// directory and name.  A reader thread takes events from the kernel and hands
// them to a pool of workers through a bounded queue; each worker describes
// its event to the engine, answers the kernel, and only then logs.  File
// changes go to one worker of their own, in the order the kernel reported
// them: two writes of one file decided out of order would leave the older
// content approved.  Deciding lives in AgentDecide.cpp, file changes in
// AgentChanges.cpp.
#ifndef ZELK_TOOLS_AGENT_AGENT_H_
#define ZELK_TOOLS_AGENT_AGENT_H_

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <shared_mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AgentStats.h"
#include "DigestCache.h"
#include "HostEvent.h"
#include "HostProcess.h"
#include "Scope.h"
#include "WorkQueue.h"

namespace zelkagent {

class EventLog;

struct AgentOptions {
    std::vector<std::string> watch;        // folders; every file below them at any depth
    bool mount = false;                    // decide about everything on the folders' mounts
    bool allMounts = false;                // decide about every mount of the machine
    std::vector<std::string> skipFsTypes;  // with allMounts; empty: the usual pseudo types
    bool failClosed = false;               // deny a program start the agent cannot describe
    bool permissive = false;               // deny nothing; log would-be denials
    unsigned workers = 4;
    size_t queueCapacity = 256;
    // Denials, would-be denials and drift as structured records; may be null.
    EventLog* eventLog = nullptr;
    // Held shared around every decision and exclusively by a policy reload,
    // so a reload of several documents is one change; may be null.
    std::shared_mutex* policyLock = nullptr;
};

// A descriptor closed when its owner goes; moves hand it on.
class OwnedFd {
  public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : m_Fd(fd) {}
    OwnedFd(OwnedFd&& other) noexcept : m_Fd(std::exchange(other.m_Fd, -1)) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept {
        if (this != &other) {
            Reset();
            m_Fd = std::exchange(other.m_Fd, -1);
        }
        return *this;
    }
    ~OwnedFd() { Reset(); }
    int Get() const { return m_Fd; }
    void Reset() {
        if (m_Fd >= 0) {
            close(m_Fd);
            m_Fd = -1;
        }
    }

  private:
    int m_Fd = -1;
};

// One event taken from the kernel, owned by the queue until a worker takes it.
struct Job {
    // kOpen: a file opened by a running process, which may be an interpreter
    // reading a script or the loader reading a program or shared object.
    enum Type { kExec, kOpen, kCloseWrite, kName } type = kExec;
    bool Held() const { return type == kExec || type == kOpen; }
    // Event descriptor (kExec, kCloseWrite).  Closed by hand, as a permission
    // event's must be answered before it goes.
    int fd = -1;
    OwnedFd pidfd;  // the acting process, where the kernel reports it
    pid_t pid = 0;
    uint64_t mask = 0;
    uint64_t readNs = 0;     // monotonic time the reader took the event
    std::vector<char> info;  // the information records of a kName event
    std::string path;        // the target's path, where the reader read it already
};

class Agent {
  public:
    Agent(const AgentOptions& options, AgentStats& stats, hostkit::DigestCache& cache);
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // Sets up both groups and their marks and starts the reader and the
    // workers.  False with the reason (errno text included) when the
    // permission group or a mark cannot be set up; nothing is left running
    // then.  A missing name group is only logged.
    bool Start(std::string& error);

    // Removes the marks, answers every event already taken from the kernel,
    // joins all threads and closes the groups (the kernel allows whatever was
    // still pending).  Safe to call twice.
    void Stop();

    bool HasNameEvents() const { return m_NameFd >= 0; }

    // Permissive mode: every verdict is decided and logged, none enforced.
    void SetPermissive(bool on) { m_Permissive.store(on, std::memory_order_relaxed); }
    bool Permissive() const { return m_Permissive.load(std::memory_order_relaxed); }
    // Events taken from the kernel and not answered yet.
    size_t QueueDepth() const;

  private:
    void ReaderLoop();
    // Reads what is queued on `fd` and dispatches it; false on a read error
    // other than "nothing there".
    bool ReadEvents(int fd, bool nameGroup, std::vector<char>& buffer);
    void Dispatch(Job&& job);
    // False, with the event answered and closed, for an event that needs no
    // decision: outside the watched trees, or an open of no regular file.
    bool OnDecisionPath(Job& job);
    void WorkerLoop(WorkQueue<Job>* queue);
    // Decides a program start.  `known` carries the target's status and
    // digests when the caller already has them from the digest cache.
    struct KnownTarget {
        struct stat st;
        hostkit::FileDigests digests;
    };
    void HandleExec(Job& job, const KnownTarget* known = nullptr);
    // What an open means to the engine: the raw code to report it with, or
    // 0 for an open that starts nothing (a program read but not run).
    uint32_t OpenKind(const Job& job) const;
    void HandleCloseWrite(Job& job);
    void HandleName(Job& job);
    // Marks a folder created (or moved) into a watched tree, and its folders.
    void MarkNewFolder(const std::string& dir);
    // Writes the answer for a permission event; counts and logs a failure.
    void Answer(int fd, bool allow);
    // The acting process's image, command line, user and group; what has
    // vanished with an exited process stays unset.  `pidfd` is the job's, or -1.
    void DescribeProcess(pid_t pid, int pidfd, hostkit::HostEvent& event);
    // Resolves a directory handle plus name record to a full path.
    bool ResolveName(const char* record, std::string& path, bool& isOld) const;

    const AgentOptions m_Options;
    AgentStats& m_Stats;
    hostkit::DigestCache& m_Cache;
    hostkit::IdNames m_Names;
    WorkQueue<Job> m_Queue;      // program starts, for the worker pool
    WorkQueue<Job> m_FileQueue;  // writes, creates, renames, deletes: one worker, in order
    const pid_t m_Self;

    // Set up by Start and closed by Stop; read-only in between.
    int m_PermFd = -1;
    int m_NameFd = -1;
    int m_StopFd = -1;
    int m_FdDir = -1;          // /proc/self/fd, for the paths of event descriptors
    unsigned m_MarkFlags = 0;  // FAN_MARK_MOUNT or 0, for the flush at stop
    struct MountRef {
        int fsid[2];
        int fd;
    };
    std::vector<MountRef> m_Mounts;  // one open folder per file system, for handles

    std::atomic<bool> m_Stopping{false};
    std::atomic<bool> m_Permissive;
    std::thread m_Reader;
    std::vector<std::thread> m_Workers;
    std::thread m_FileWorker;
};

}  // namespace zelkagent

#endif  // ZELK_TOOLS_AGENT_AGENT_H_
