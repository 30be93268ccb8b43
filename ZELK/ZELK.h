// ZELKConfig, the engine's modes, and the two exported data symbols.
#ifndef ZELK_ZELK_H_
#define ZELK_ZELK_H_

#include <atomic>
#include <cstdint>
#include <string>

class ZELKEngine;

// The modes the host switches with set_config and the few values decisions
// read.  One static instance (`config`) lives for the whole process; it is not
// reset by engine_stop.  Fields are single words read and written without a
// lock (relaxed atomics): a reader may see a mode change between two events.
class ZELKConfig {
  public:
    static constexpr const char* kVersion = "12.0.178";
    static constexpr uint64_t kNotSet = ~0ULL;  // window times not yet known

    ZELKConfig() = default;

    unsigned long GetAutoAuthorizeStartTime() const { return Load(m_AutoAuthorizeStartTime); }
    void SetAutoAuthorizeStartTime(unsigned long v) { Store(m_AutoAuthorizeStartTime, v); }
    unsigned long GetAutoAuthorizeEndTime() const { return Load(m_AutoAuthorizeEndTime); }
    void SetAutoAuthorizeEndTime(unsigned long v) { Store(m_AutoAuthorizeEndTime, v); }
    unsigned long GetPreviousMaxInventoryItemId() const {
        return Load(m_PreviousMaxInventoryItemId);
    }
    void SetPreviousMaxInventoryItemId(unsigned long v) { Store(m_PreviousMaxInventoryItemId, v); }
    unsigned long GetPreviousMaxRulesetItemId() const { return Load(m_PreviousMaxRulesetItemId); }
    void SetPreviousMaxRulesetItemId(unsigned long v) { Store(m_PreviousMaxRulesetItemId, v); }
    bool GetInventoryAutoAuthorize() const { return Load(m_InventoryAutoAuthorize); }
    void SetInventoryAutoAuthorize(bool v) { Store(m_InventoryAutoAuthorize, v); }
    bool GetInventoryExists() const { return Load(m_InventoryExists); }
    void SetInventoryExists(bool v) { Store(m_InventoryExists, v); }
    bool GetLockdown() const { return Load(m_Lockdown); }
    void SetLockdown(bool v) { Store(m_Lockdown, v); }
    bool GetRulesetExists() const { return Load(m_RulesetExists); }
    void SetRulesetExists(bool v) { Store(m_RulesetExists, v); }
    bool GetWhitelistInventory() const { return Load(m_WhitelistInventory); }
    void SetWhitelistInventory(bool v) { Store(m_WhitelistInventory, v); }
    int GetImportState() const { return Load(m_ImportState); }
    void SetImportState(int v) { Store(m_ImportState, v); }
    int GetRebuildState() const { return Load(m_RebuildState); }
    void SetRebuildState(int v) { Store(m_RebuildState, v); }
    bool GetManifestApplied() const { return Load(m_ManifestApplied); }
    void SetManifestApplied(bool v) { Store(m_ManifestApplied, v); }
    std::string GetCurrentVersion() const { return m_CurrentVersion; }

  private:
    template <typename T>
    static T Load(const std::atomic<T>& field) {
        return field.load(std::memory_order_relaxed);
    }
    template <typename T, typename V>
    static void Store(std::atomic<T>& field, V value) {
        field.store(static_cast<T>(value), std::memory_order_relaxed);
    }

    std::atomic<unsigned long> m_AutoAuthorizeStartTime{kNotSet};
    std::atomic<unsigned long> m_AutoAuthorizeEndTime{kNotSet};
    std::atomic<unsigned long> m_PreviousMaxInventoryItemId{0};
    std::atomic<unsigned long> m_PreviousMaxRulesetItemId{0};
    std::atomic<bool> m_InventoryAutoAuthorize{false};
    std::atomic<bool> m_InventoryExists{false};
    std::atomic<bool> m_Lockdown{false};
    std::atomic<bool> m_RulesetExists{false};
    std::atomic<bool> m_WhitelistInventory{false};
    std::atomic<int> m_ImportState{0};
    std::atomic<int> m_RebuildState{0};
    std::atomic<bool> m_ManifestApplied{true};
    // Constant after construction.
    const std::string m_CurrentVersion{kVersion};
};

// Exported data: the running engine (null while stopped) and the modes.
extern "C" {
extern ZELKEngine* engine;
extern ZELKConfig config;
}

#endif  // ZELK_ZELK_H_
