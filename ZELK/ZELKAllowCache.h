// ZELKAllowCache: remembers which acting process, run by which user, was
// recently allowed to execute which target, so that a repeated execution is
// allowed without asking the policy store.
//
// The target is the outer key so that everything known about one file can be
// dropped in one step when that file changes.  The cache holds at most 4096
// targets: adding a new target beyond that first empties the whole cache.
// Processes and users under one target are not bounded.
//
// Thread safety: every operation but GetMetrics holds m_Mutex for its whole
// run; m_Mutex guards m_Map and the counters.  Lookups hold it shared, so
// host threads answering cache hits do not wait for each other; everything
// that changes the map holds it exclusively.  The counters are atomics,
// counted with fetch_add (lookups count concurrently), so that GetMetrics
// (and the size test before a flush) can read them without the lock.
#ifndef ZELK_ZELKALLOWCACHE_H_
#define ZELK_ZELKALLOWCACHE_H_

#include <cjson/cJSON.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

class ZELKAllowCache {
  public:
    // Past this many targets, adding a new one flushes the cache first.
    static constexpr size_t kMaxTargets = 4096;

    ZELKAllowCache() = default;
    ~ZELKAllowCache();
    ZELKAllowCache(const ZELKAllowCache&) = delete;
    ZELKAllowCache& operator=(const ZELKAllowCache&) = delete;

    // Remembers that `process` run by `user` may execute `target`.  Adding a
    // triple that is already present changes nothing and counts nothing.
    void AddCacheNode(const std::string& user, const std::string& process,
                      const std::string& target);
    // The same, for a decision that began at policy generation `generation`
    // (PolicyGeneration()): the triple is added only when no policy change
    // began or ended since, so a verdict reached on the old policy never
    // outlives a ruleset import.  Returns whether it was added.
    bool AddCacheNode(const std::string& user, const std::string& process,
                      const std::string& target, uint64_t generation);
    // True when the exact triple was added and not removed or flushed since.
    // Counts a hit, or a miss with the level at which the lookup failed.
    bool IsCached(const std::string& user, const std::string& process, const std::string& target);
    // Forgets everything under `target`.
    void RemoveCacheNode(const std::string& target);
    // Forgets everything and zeroes every counter except the flush count.
    void FlushCache();
    // Adds the object "AllowCache" with the counters to `parent`; adds nothing
    // when the object cannot be created.  Reads without the lock, so the
    // numbers need not be from one instant.
    void GetMetrics(cJSON* parent);

    // Policy changes (ruleset imports) bracket their work with these calls;
    // both move the generation on, and while one is under way nothing is
    // added through the generation-checked AddCacheNode.  They nest.
    void BeginPolicyChange();
    void EndPolicyChange();
    // The generation a decision records before it reads any policy.  Never 0.
    uint64_t PolicyGeneration() const { return m_Generation.load(std::memory_order_acquire); }

    // Current number of targets.
    size_t Size() const { return m_MapSize.load(std::memory_order_relaxed); }

  private:
    using Users = std::unordered_map<std::string, bool>;
    using Processes = std::unordered_map<std::string, Users>;
    using Targets = std::unordered_map<std::string, Processes>;
    using Counter = std::atomic<uint64_t>;

    // Caller holds m_Mutex (shared or exclusive).
    static void Bump(Counter& counter) { counter.fetch_add(1, std::memory_order_relaxed); }
    void RaiseMaxDepth(uint64_t depth);
    // The insertion itself.  Caller holds m_Mutex.
    void AddLocked(const std::string& user, const std::string& process, const std::string& target);
    void PublishSize() { m_MapSize.store(m_Map.size(), std::memory_order_relaxed); }

    // Lookups share the lock; additions, removals and flushes hold it alone.
    std::shared_mutex m_Mutex;
    Targets m_Map;  // guarded by m_Mutex

    // Written under m_Mutex, read anywhere.
    Counter m_Add{0};          // a new target
    Counter m_Change{0};       // a new process or user under a known target
    Counter m_Clear{0};        // flushes
    Counter m_RemoveHit{0};    // removals that found their target
    Counter m_RemoveMiss{0};   // removals that did not
    Counter m_Hit{0};          // lookups that hit
    Counter m_Miss{0};         // lookups that missed, whatever the level
    Counter m_TargetMiss{0};   // ... because the target was absent
    Counter m_UserMiss{0};     // ... because the user was absent
    Counter m_ProcessMiss{0};  // ... because the process was absent
    Counter m_AddedSize{0};    // number of targets when one was last added
    Counter m_MaxDepth{0};     // most users seen under one target and process
    Counter m_MapSize{0};      // mirrors m_Map.size()

    // Policy generation and the number of changes under way.  Written under
    // m_Mutex; the generation is also read without it.
    std::atomic<uint64_t> m_Generation{1};
    uint64_t m_ChangesUnderWay = 0;  // guarded by m_Mutex
};

#endif  // ZELK_ZELKALLOWCACHE_H_
