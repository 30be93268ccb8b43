#include "HostProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace hostkit {
namespace {

// Reads at most `limit` bytes of /proc/PID/cmdline or /proc/PID/status into
// `out`.  Both are produced whole for each read call, so a read that returns
// less than was asked has reached the end and no second call is needed.
// False when the file cannot be opened or read.
bool ReadProcFile(const char* path, size_t limit, std::string& out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    out.clear();
    char block[8192];
    bool ok = true;
    while (out.size() < limit) {
        const size_t want = std::min(sizeof(block), limit - out.size());
        ssize_t n = read(fd, block, want);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            ok = false;
            break;
        }
        out.append(block, static_cast<size_t>(n));
        if (static_cast<size_t>(n) < want) {
            break;
        }
    }
    close(fd);
    return ok;
}

// Real user and group ids through a pidfd (PIDFD_GET_INFO, Linux 6.13).  The
// C library's headers may predate it; the request's layout is fixed by the
// kernel's interface, so it is spelled out here.
struct PidfdInfo {
    uint64_t mask;
    uint64_t cgroupid;
    uint32_t pid, tgid, ppid, ruid, rgid, euid, egid, suid, sgid, fsuid, fsgid;
    uint32_t spare0;
};
static_assert(sizeof(PidfdInfo) == 64, "first version of the pidfd information request");
constexpr uint64_t kPidfdInfoCreds = 1u << 1;
constexpr unsigned long kPidfdGetInfo = _IOWR(0xFF, 11, PidfdInfo);

bool IdsOfPidfd(int pidfd, ProcessInfo& info) {
    PidfdInfo request;
    memset(&request, 0, sizeof(request));
    request.mask = kPidfdInfoCreds;
    if (ioctl(pidfd, kPidfdGetInfo, &request) != 0 || !(request.mask & kPidfdInfoCreds)) {
        return false;
    }
    info.uid = static_cast<uid_t>(request.ruid);
    info.gid = static_cast<gid_t>(request.rgid);
    return true;
}

bool ReadLink(int dirFd, const char* link, std::string& out) {
    char buffer[4096];
    ssize_t n = readlinkat(dirFd, link, buffer, sizeof(buffer));
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(buffer)) {
        return false;
    }
    out.assign(buffer, static_cast<size_t>(n));
    return true;
}

// The first number after `key` in /proc/PID/status ("Uid:\t0\t0\t0\t0").
bool StatusId(const std::string& status, const char* key, unsigned long& id) {
    size_t at = status.find(key);
    if (at == std::string::npos) {
        return false;
    }
    const char* p = status.c_str() + at + strlen(key);
    char* end = nullptr;
    id = strtoul(p, &end, 10);
    return end != p;
}

template <typename Entry, typename Id, typename Lookup>
std::string ResolveName(Id id, Lookup lookup, char* Entry::*field) {
    long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 1024);
    for (;;) {
        Entry entry;
        Entry* found = nullptr;
        int rc = lookup(id, &entry, buffer.data(), buffer.size(), &found);
        if (rc == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (rc == 0 && found != nullptr) {
            return found->*field;
        }
        return std::to_string(id);
    }
}

}  // namespace

ProcessInfo ReadProcessInfo(pid_t pid, int pidfd, size_t maxCmdLine) {
    ProcessInfo info;
    char path[64];

    snprintf(path, sizeof(path), "/proc/%d/exe", static_cast<int>(pid));
    info.exe.emplace();
    if (!ReadLink(AT_FDCWD, path, *info.exe)) {
        info.exe.reset();
    }
    snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(pid));
    info.cmdLine.emplace();
    std::string& text = *info.cmdLine;
    if (ReadProcFile(path, maxCmdLine, text) && !text.empty()) {
        // Arguments are NUL separated, with a NUL after the last one.
        while (!text.empty() && text.back() == '\0') {
            text.pop_back();
        }
        for (char& c : text) {
            if (c == '\0') {
                c = ' ';
            }
        }
    } else {
        info.cmdLine.reset();
    }
    if (pidfd >= 0 && IdsOfPidfd(pidfd, info)) {
        return info;
    }
    snprintf(path, sizeof(path), "/proc/%d/status", static_cast<int>(pid));
    std::string status;
    if (ReadProcFile(path, 8192, status)) {
        unsigned long id = 0;
        if (StatusId(status, "\nUid:", id)) {
            info.uid = static_cast<uid_t>(id);
        }
        if (StatusId(status, "\nGid:", id)) {
            info.gid = static_cast<gid_t>(id);
        }
    }
    return info;
}

bool PathOfFd(int fd, std::string& path, int fdDir) {
    char link[64];
    if (fdDir >= 0) {
        snprintf(link, sizeof(link), "%d", fd);
        return ReadLink(fdDir, link, path);
    }
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    return ReadLink(AT_FDCWD, link, path);
}

std::string IdNames::User(uid_t uid) {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        auto it = m_Users.find(uid);
        if (it != m_Users.end()) {
            return it->second;
        }
    }
    std::string name = ResolveName<passwd>(uid, getpwuid_r, &passwd::pw_name);
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Users.emplace(uid, name);
    return name;
}

std::string IdNames::Group(gid_t gid) {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        auto it = m_Groups.find(gid);
        if (it != m_Groups.end()) {
            return it->second;
        }
    }
    std::string name = ResolveName<group>(gid, getgrgid_r, &group::gr_name);
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Groups.emplace(gid, name);
    return name;
}

}  // namespace hostkit
