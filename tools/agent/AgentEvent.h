// What the agent's handlers share to describe an event to the engine and
// to the log.
#ifndef ZELK_TOOLS_AGENT_AGENTEVENT_H_
#define ZELK_TOOLS_AGENT_AGENTEVENT_H_

#include <sys/stat.h>
#include <time.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "HostDigest.h"
#include "HostEvent.h"

namespace zelkagent {

// A digest as the event log shows it: lowercase hex, "" when unknown.
inline std::string DigestHex(const std::optional<std::array<uint8_t, 32>>& digest) {
    static const char* digits = "0123456789abcdef";
    std::string hex;
    if (digest) {
        for (uint8_t b : *digest) {
            hex += digits[b >> 4];
            hex += digits[b & 15];
        }
    }
    return hex;
}

constexpr uint64_t kProtExec = 4;

inline uint64_t MonotonicNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

inline void SetDigests(const hostkit::FileDigests& d, hostkit::HostEvent& e) {
    e.fileMd5.emplace();
    e.fileSha1.emplace();
    e.fileSha256.emplace();
    memcpy(e.fileMd5->data(), d.md5, sizeof(d.md5));
    memcpy(e.fileSha1->data(), d.sha1, sizeof(d.sha1));
    memcpy(e.fileSha256->data(), d.sha256, sizeof(d.sha256));
}

inline void SetFileStat(const struct stat& st, hostkit::HostEvent& e) {
    e.size = static_cast<uint64_t>(st.st_size);
    e.mode = static_cast<uint64_t>(st.st_mode);
    e.isexec = S_ISREG(st.st_mode) && (st.st_mode & 0111) != 0;
}

inline const char* Text(const std::optional<std::string>& s) {
    return s ? s->c_str() : "?";
}

inline bool DeletedPath(const std::string& path) {
    static const std::string kSuffix = " (deleted)";
    return path.size() > kSuffix.size() &&
           path.compare(path.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}

}  // namespace zelkagent

#endif  // ZELK_TOOLS_AGENT_AGENTEVENT_H_
