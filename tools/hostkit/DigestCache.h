// Digests of files already hashed, keyed by what changes when the content
// may have changed: device, inode, size, and modification and status-change
// times in nanoseconds.  A host that sees the same program started many
// times hashes it once.
//
// The key alone misses a rewrite of the same size within one tick of the
// file system's clock, so a host that learns of a write (a close after
// writing) calls Invalidate as well.
#ifndef ZELK_TOOLS_HOSTKIT_DIGESTCACHE_H_
#define ZELK_TOOLS_HOSTKIT_DIGESTCACHE_H_

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <unordered_map>

#include "HostDigest.h"

namespace hostkit {

struct FileKey {
    uint64_t dev = 0;
    uint64_t ino = 0;
    uint64_t size = 0;
    uint64_t mtimeNs = 0;
    uint64_t ctimeNs = 0;

    static FileKey Of(const struct stat& st);
    bool operator==(const FileKey& o) const {
        return dev == o.dev && ino == o.ino && size == o.size && mtimeNs == o.mtimeNs &&
               ctimeNs == o.ctimeNs;
    }
};

// A bounded least-recently-used map FileKey -> FileDigests.  Thread-safe; the
// lock is held for the map operations only, never while hashing.
class DigestCache {
  public:
    explicit DigestCache(size_t capacity = 4096);
    DigestCache(const DigestCache&) = delete;
    DigestCache& operator=(const DigestCache&) = delete;

    // True and `out` filled when `key` is cached.
    bool Find(const FileKey& key, FileDigests& out);
    // Stores `digests` for `key`, dropping the least recently used entry
    // when full.  Any older entry of the same file (dev, ino) goes.
    void Insert(const FileKey& key, const FileDigests& digests);
    // Drops every entry of the file (dev, ino).
    void Invalidate(uint64_t dev, uint64_t ino);

    // Digests of the file open on `fd` (rewound to offset 0 first, so the
    // descriptor's offset does not matter): from the cache when its fstat key
    // is known, else read once and stored.  False with errno in `error` when
    // fstat or a read fails.  `st` receives the fstat result; `hit` tells
    // whether the cache answered.
    bool DigestOf(int fd, struct stat& st, FileDigests& out, bool& hit, int& error);

    // The cheap half of DigestOf: fstat and a lookup, no reading.  True, a
    // hit counted, when the file's current key is cached.
    bool Cached(int fd, struct stat& st, FileDigests& out);

    uint64_t Hits() const { return m_Hits.load(std::memory_order_relaxed); }
    uint64_t Misses() const { return m_Misses.load(std::memory_order_relaxed); }

  private:
    struct InodeHash {
        size_t operator()(const std::pair<uint64_t, uint64_t>& k) const {
            return std::hash<uint64_t>()(k.first * 0x9e3779b97f4a7c15ULL ^ k.second);
        }
    };
    struct Entry {
        FileKey key;
        FileDigests digests;
    };
    using Lru = std::list<Entry>;  // most recently used first

    const size_t m_Capacity;
    std::mutex m_Mutex;  // guards m_Lru and m_Index
    Lru m_Lru;
    // One entry per file: a new key of the same inode replaces the old one.
    std::unordered_map<std::pair<uint64_t, uint64_t>, Lru::iterator, InodeHash> m_Index;
    std::atomic<uint64_t> m_Hits{0};
    std::atomic<uint64_t> m_Misses{0};
};

// Rewinds `fd` to offset 0, then DigestFd.
bool DigestFdFromStart(int fd, FileDigests& out, int& error);

}  // namespace hostkit

#endif  // ZELK_TOOLS_HOSTKIT_DIGESTCACHE_H_
