// What a host learns about the process behind an event from /proc, and the
// names of user and group ids.  Every reader tolerates a process that has
// already exited: the field stays unset and the engine sees a null pointer.
#ifndef ZELK_TOOLS_HOSTKIT_HOSTPROCESS_H_
#define ZELK_TOOLS_HOSTKIT_HOSTPROCESS_H_

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace hostkit {

struct ProcessInfo {
    std::optional<std::string> exe;      // target of /proc/PID/exe
    std::optional<std::string> cmdLine;  // arguments joined by single spaces
    std::optional<uid_t> uid;            // real ids
    std::optional<gid_t> gid;
};

// Reads the image, command line and real ids of `pid`.  Never fails as a
// whole; what could not be read is left unset.  A command line longer than
// `maxCmdLine` bytes is cut there.  `pidfd`, when not -1, refers to the same
// process (a pidfd, such as the one a fanotify event carries): the ids are
// then asked of the kernel through it, a tenth of the cost of formatting
// /proc/PID/status; a kernel without that request still gets the status file.
ProcessInfo ReadProcessInfo(pid_t pid, int pidfd = -1, size_t maxCmdLine = 4096);

// The path an open descriptor refers to (readlink of /proc/self/fd/N).  False
// when the link cannot be read.  A deleted file keeps the kernel's
// " (deleted)" suffix, which callers may test for.  `fdDir`, when not -1, is
// an open /proc/self/fd of the calling process, which spares resolving three
// path components per call (never use one inherited across fork: it names
// the opener's descriptors).
bool PathOfFd(int fd, std::string& path, int fdDir = -1);

// User and group names resolved with getpwuid_r / getgrgid_r, remembered per
// id so a busy host does not read the account databases for every event.  An
// id without an entry is named by its decimal number.  Thread-safe; the
// lock is held only to look up or store a name, never around the lookup in
// the account database.
class IdNames {
  public:
    std::string User(uid_t uid);
    std::string Group(gid_t gid);

  private:
    std::mutex m_Mutex;                               // guards both maps
    std::unordered_map<uid_t, std::string> m_Users;   // guarded by m_Mutex
    std::unordered_map<gid_t, std::string> m_Groups;  // guarded by m_Mutex
};

}  // namespace hostkit

#endif  // ZELK_TOOLS_HOSTKIT_HOSTPROCESS_H_
