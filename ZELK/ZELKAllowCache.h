// ZELKAllowCache: remembers which acting process, run by which user, was
// recently allowed to execute which target, so that a repeated execution is
// allowed without asking the policy store.
//
// The target is the outer key so that everything known about one file can be
// dropped in one step when that file changes.  The cache holds at most 4096
// targets: adding a new target beyond that first empties the whole cache.
// Processes and users under one target are not bounded.
//
// Thread safety.  Every host thread answering a program start asks the cache
// first, so a hit must not write any cache line that other threads also
// write: a single lock word or a shared hit counter makes every core wait for
// the same line, and hits then stop scaling with cores.  The map is therefore
// guarded by a reader-writer lock whose reader side is spread over
// kReaderSlots cache-line-sized slots:
//   - a lookup announces itself in its thread's slot (an increment of the
//     slot's count), checks that no writer holds the cache, reads the map and
//     withdraws; it counts its hit or miss in the same slot.  Threads share a
//     slot only when there are more of them than slots; the counts are atomic,
//     so sharing is correct, merely slower.
//   - everything that changes the map (add, remove, flush, policy changes)
//     takes m_WriterMutex, raises m_WriterActive and waits until every slot's
//     count is zero; no lookup runs while it changes the map.
// Lookups that find a writer at work withdraw and wait for it to finish, so a
// stream of lookups cannot starve the writer.
// Counters: additions, changes, removals and flushes are counted by writers
// (under m_WriterMutex); hits and misses in the reader slots.  GetMetrics sums
// the slots without any lock, so the figures are exact once the threads that
// counted have stopped, and never torn.
#ifndef ZELK_ZELKALLOWCACHE_H_
#define ZELK_ZELKALLOWCACHE_H_

#include <cjson/cJSON.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

class ZELKAllowCache {
  public:
    // Past this many targets, adding a new one flushes the cache first.
    static constexpr size_t kMaxTargets = 4096;
    // Reader slots; more host threads than this share slots.
    static constexpr size_t kReaderSlots = 64;

    ZELKAllowCache();
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
    // when the object cannot be created.  Reads without any lock, so the
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

    // One thread's (or a few threads') reader announcement and lookup
    // counters, alone on their cache line.
    struct alignas(64) ReaderSlot {
        std::atomic<uint32_t> readers{0};
        Counter hit{0};
        Counter miss{0};
        Counter targetMiss{0};
        Counter userMiss{0};
        Counter processMiss{0};
    };

    // Holds the cache against changes for a lookup; counts into its slot.
    class ReadScope;
    // Holds the cache alone for a change: m_WriterMutex plus no lookup.
    class WriteScope;

    static void Bump(Counter& counter) { counter.fetch_add(1, std::memory_order_relaxed); }
    ReaderSlot& MySlot();
    // Sum of one lookup counter over all slots.
    uint64_t SumSlots(Counter ReaderSlot::*counter) const;
    void RaiseMaxDepth(uint64_t depth);
    // Presence of the triple, without counting; takes a ReadScope.
    bool Contains(const std::string& user, const std::string& process, const std::string& target);
    // The insertion itself.  Caller holds a WriteScope.
    void AddLocked(const std::string& user, const std::string& process, const std::string& target);
    void PublishSize() { m_MapSize.store(m_Map.size(), std::memory_order_relaxed); }

    // Constant after construction (the array; its slots are atomics).
    std::unique_ptr<ReaderSlot[]> m_Slots;

    // Writer side: m_WriterMutex serialises changes; m_WriterActive tells
    // lookups to stay out while one runs.
    std::mutex m_WriterMutex;
    std::atomic<bool> m_WriterActive{false};

    Targets m_Map;  // changed under a WriteScope, read under a ReadScope

    // Counted by writers (under m_WriterMutex), read anywhere.
    Counter m_Add{0};         // a new target
    Counter m_Change{0};      // a new process or user under a known target
    Counter m_Clear{0};       // flushes
    Counter m_RemoveHit{0};   // removals that found their target
    Counter m_RemoveMiss{0};  // removals that did not
    Counter m_AddedSize{0};   // number of targets when one was last added
    Counter m_MaxDepth{0};    // most users seen under one target and process
    Counter m_MapSize{0};     // mirrors m_Map.size()

    // Policy generation and the number of changes under way.  Written under
    // m_WriterMutex; the generation is also read without it.
    std::atomic<uint64_t> m_Generation{1};
    uint64_t m_ChangesUnderWay = 0;  // guarded by m_WriterMutex
};

#endif  // ZELK_ZELKALLOWCACHE_H_
