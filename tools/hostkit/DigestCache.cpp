#include "DigestCache.h"

#include <unistd.h>

#include <cerrno>

namespace hostkit {

FileKey FileKey::Of(const struct stat& st) {
    FileKey key;
    key.dev = static_cast<uint64_t>(st.st_dev);
    key.ino = static_cast<uint64_t>(st.st_ino);
    key.size = static_cast<uint64_t>(st.st_size);
    key.mtimeNs = static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000ULL +
                  static_cast<uint64_t>(st.st_mtim.tv_nsec);
    key.ctimeNs = static_cast<uint64_t>(st.st_ctim.tv_sec) * 1000000000ULL +
                  static_cast<uint64_t>(st.st_ctim.tv_nsec);
    return key;
}

DigestCache::DigestCache(size_t capacity) : m_Capacity(capacity > 0 ? capacity : 1) {}

bool DigestCache::Find(const FileKey& key, FileDigests& out) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Index.find({key.dev, key.ino});
    if (it == m_Index.end() || !(it->second->key == key)) {
        return false;
    }
    m_Lru.splice(m_Lru.begin(), m_Lru, it->second);
    out = it->second->digests;
    return true;
}

void DigestCache::Insert(const FileKey& key, const FileDigests& digests) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Index.find({key.dev, key.ino});
    if (it != m_Index.end()) {
        m_Lru.erase(it->second);
        m_Index.erase(it);
    }
    if (m_Lru.size() >= m_Capacity) {
        const Entry& oldest = m_Lru.back();
        m_Index.erase({oldest.key.dev, oldest.key.ino});
        m_Lru.pop_back();
    }
    m_Lru.push_front(Entry{key, digests});
    m_Index[{key.dev, key.ino}] = m_Lru.begin();
}

void DigestCache::Invalidate(uint64_t dev, uint64_t ino) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Index.find({dev, ino});
    if (it != m_Index.end()) {
        m_Lru.erase(it->second);
        m_Index.erase(it);
    }
}

bool DigestCache::Cached(int fd, struct stat& st, FileDigests& out) {
    if (fstat(fd, &st) != 0 || !Find(FileKey::Of(st), out)) {
        return false;
    }
    m_Hits.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool DigestCache::DigestOf(int fd, struct stat& st, FileDigests& out, bool& hit, int& error) {
    hit = false;
    error = 0;
    if (fstat(fd, &st) != 0) {
        error = errno;
        return false;
    }
    const FileKey key = FileKey::Of(st);
    if (Find(key, out)) {
        hit = true;
        m_Hits.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    m_Misses.fetch_add(1, std::memory_order_relaxed);
    if (!DigestFdFromStart(fd, out, error)) {
        return false;
    }
    // A file that changed while it was read is not worth remembering: the
    // digests may mix two versions, and the next event hashes it again.
    struct stat after;
    if (fstat(fd, &after) == 0 && FileKey::Of(after) == key) {
        Insert(key, out);
    }
    return true;
}

bool DigestFdFromStart(int fd, FileDigests& out, int& error) {
    // The caller owns the descriptor for the event (a fanotify event's is
    // opened for that event alone), so moving its offset disturbs no one.
    if (lseek(fd, 0, SEEK_SET) < 0) {
        error = errno;
        return false;
    }
    return DigestFd(fd, out, error);
}

}  // namespace hostkit
