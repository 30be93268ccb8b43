// ZELKProcessCache: the process type of running processes that matter to
// later decisions (above all script interpreters), by pid.
//
// Each entry also keeps the process file name it was recorded for; a lookup
// under another name misses, so a stale entry whose pid was reused is
// harmless.  Entries stay until RemoveProcess or ClearProcessCache: the
// pruning hook is deliberately empty, as nothing here can tell a live process
// from a dead one cheaply.
//
// Thread safety: m_Mutex guards m_Map and the three counters; every public
// operation takes it, except PruneProcessCache, which runs with it held.
#ifndef ZELK_ZELKPROCESSCACHE_H_
#define ZELK_ZELKPROCESSCACHE_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

struct ac_processMap_entry_t {
    uint64_t processTypeId;
    std::string processKey;  // the process file name when it was recorded
};

class ZELKProcessCache {
  public:
    // AddProcess calls PruneProcessCache after every this many additions.
    static constexpr uint64_t kPruneInterval = 1024;

    ZELKProcessCache() = default;
    virtual ~ZELKProcessCache();
    ZELKProcessCache(const ZELKProcessCache&) = delete;
    ZELKProcessCache& operator=(const ZELKProcessCache&) = delete;

    // The type recorded for `pid` under exactly `processFileName`, or 0 when
    // there is none.  Pid 0 or an empty name answers 0 and counts nothing.
    unsigned long GetProcess(unsigned long pid, const std::string& processFileName);
    // Records `pid` unless it is 0 or already present (the first type stays).
    // Always returns false.
    bool AddProcess(unsigned long pid, unsigned long processTypeId,
                    const std::string& processFileName);
    void RemoveProcess(unsigned long pid);
    void ClearProcessCache();
    // Hook for bounding the cache; does nothing.  Called with m_Mutex held.
    virtual void PruneProcessCache();

    uint64_t GetHits();
    uint64_t GetMisses();
    uint64_t GetAdditions();
    size_t Size();

  private:
    std::mutex m_Mutex;
    std::map<uint64_t, ac_processMap_entry_t> m_Map;  // guarded by m_Mutex
    uint64_t m_Hits = 0;                              // guarded by m_Mutex
    uint64_t m_Misses = 0;                            // guarded by m_Mutex
    uint64_t m_Additions = 0;                         // guarded by m_Mutex
};

#endif  // ZELK_ZELKPROCESSCACHE_H_
