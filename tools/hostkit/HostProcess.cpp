#include "HostProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace hostkit {
namespace {

// Reads at most `limit` bytes of a small /proc file.  False when it cannot be
// opened or read.
bool ReadSmallFile(const char* path, size_t limit, std::string& out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    out.clear();
    char block[4096];
    bool ok = true;
    while (out.size() < limit) {
        ssize_t n = read(fd, block, std::min(sizeof(block), limit - out.size()));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            ok = false;
            break;
        }
        if (n == 0) {
            break;
        }
        out.append(block, static_cast<size_t>(n));
    }
    close(fd);
    return ok;
}

bool ReadLink(const char* link, std::string& out) {
    char buffer[4096];
    ssize_t n = readlink(link, buffer, sizeof(buffer));
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

ProcessInfo ReadProcessInfo(pid_t pid, size_t maxCmdLine) {
    ProcessInfo info;
    char path[64];
    std::string text;

    snprintf(path, sizeof(path), "/proc/%d/exe", static_cast<int>(pid));
    if (ReadLink(path, text)) {
        info.exe = text;
    }
    snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(pid));
    if (ReadSmallFile(path, maxCmdLine, text) && !text.empty()) {
        // Arguments are NUL separated, with a NUL after the last one.
        while (!text.empty() && text.back() == '\0') {
            text.pop_back();
        }
        for (char& c : text) {
            if (c == '\0') {
                c = ' ';
            }
        }
        info.cmdLine = text;
    }
    snprintf(path, sizeof(path), "/proc/%d/status", static_cast<int>(pid));
    if (ReadSmallFile(path, 8192, text)) {
        unsigned long id = 0;
        if (StatusId(text, "\nUid:", id)) {
            info.uid = static_cast<uid_t>(id);
        }
        if (StatusId(text, "\nGid:", id)) {
            info.gid = static_cast<gid_t>(id);
        }
    }
    return info;
}

bool PathOfFd(int fd, std::string& path) {
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    return ReadLink(link, path);
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
