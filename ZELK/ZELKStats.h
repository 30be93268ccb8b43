// ZELKStats: the process-wide named counters and the metrics document.
#ifndef ZELK_ZELKSTATS_H_
#define ZELK_ZELKSTATS_H_

#include <map>
#include <mutex>
#include <string>

class ZELKStats {
  public:
    // Typed counter groups, each reported under its own key.
    enum Group : int {
        GROUP_DRIFT_EXTENSIONS = 1,      // "DriftUnknownExtensions"
        GROUP_INVENTORY_EXTENSIONS = 2,  // "InventoryUnknownExtensons"
        GROUP_RULESETS = 3,              // "rulesets"
    };

    // The singleton, created on first use.
    static ZELKStats& GetStats();

    // Plain counters.  Inc ignores an empty key; Set creates the key; Get
    // answers 0 for an absent key without creating it.
    void Inc(const std::string& key);
    // The same for a literal key: an existing counter is found without
    // building a string, so counting on the decision path never allocates.
    void Inc(const char* key);
    void Set(const std::string& key, long value);
    long Get(const std::string& key);

    // The same on typed group 1, 2 or 3; any other type does nothing.
    void IncType(int type, const std::string& key);
    void SetType(int type, const std::string& key, long value);
    long GetType(int type, const std::string& key);
    // Erases the keys of a group that begin with `prefix` (all when empty).
    void ClearType(int type, const std::string& prefix);

    // Builds the metrics document into `buffer`.  Returns 0 with the length
    // (terminating zero included) in *size; 0xC0000001 when `size` is null;
    // 0xC000000F with the needed length in *size when `buffer` is null or too
    // small.
    unsigned int GetMetrics(char* buffer, unsigned int* size);

    ZELKStats(const ZELKStats&) = delete;
    ZELKStats& operator=(const ZELKStats&) = delete;

  private:
    // Transparent comparison lets a literal key be looked up as it is.
    using Counters = std::map<std::string, long, std::less<>>;
    ZELKStats() = default;
    // Returns the map of a typed group, or null for an unknown type.
    // Caller holds m_Mutex.
    Counters* TypedGroup(int type);

    // Guarded by m_Mutex.
    std::mutex m_Mutex;
    Counters m_Counters;
    Counters m_DriftExtensions;
    Counters m_InventoryExtensions;
    Counters m_Rulesets;
};

#endif  // ZELK_ZELKSTATS_H_
