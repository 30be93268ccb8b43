#define ZELK_LOG_FILE "ZELK/ZELKEventAbstraction"
#include "ZELKAllowCache.h"

#include "ZELKLogger.h"

ZELKAllowCache::~ZELKAllowCache() {
    std::lock_guard<std::shared_mutex> lock(m_Mutex);
    m_Map.clear();
}

void ZELKAllowCache::RaiseMaxDepth(uint64_t depth) {
    if (depth > m_MaxDepth.load(std::memory_order_relaxed)) {
        m_MaxDepth.store(depth, std::memory_order_relaxed);
    }
}

void ZELKAllowCache::AddCacheNode(const std::string& user, const std::string& process,
                                  const std::string& target) {
    // The size is tested outside the lock and the flush takes it itself; two
    // threads may then both flush, which only costs a second empty flush.
    if (Size() > kMaxTargets - 1) {
        FlushCache();
    }
    std::lock_guard<std::shared_mutex> lock(m_Mutex);
    AddLocked(user, process, target);
}

bool ZELKAllowCache::AddCacheNode(const std::string& user, const std::string& process,
                                  const std::string& target, uint64_t generation) {
    if (Size() > kMaxTargets - 1) {
        FlushCache();
    }
    std::lock_guard<std::shared_mutex> lock(m_Mutex);
    if (m_ChangesUnderWay != 0 || generation != m_Generation.load(std::memory_order_relaxed)) {
        return false;
    }
    AddLocked(user, process, target);
    return true;
}

void ZELKAllowCache::BeginPolicyChange() {
    std::lock_guard<std::shared_mutex> lock(m_Mutex);
    ++m_ChangesUnderWay;
    m_Generation.fetch_add(1, std::memory_order_acq_rel);
}

void ZELKAllowCache::EndPolicyChange() {
    std::lock_guard<std::shared_mutex> lock(m_Mutex);
    if (m_ChangesUnderWay != 0) {
        --m_ChangesUnderWay;
    }
    m_Generation.fetch_add(1, std::memory_order_acq_rel);
}

void ZELKAllowCache::AddLocked(const std::string& user, const std::string& process,
                               const std::string& target) {
    auto targetIt = m_Map.find(target);
    if (targetIt == m_Map.end()) {
        m_Map[target][process][user] = true;
        Bump(m_Add);
        RaiseMaxDepth(1);
        PublishSize();
        m_AddedSize.store(m_Map.size(), std::memory_order_relaxed);
        return;
    }
    Processes& processes = targetIt->second;
    auto processIt = processes.find(process);
    if (processIt == processes.end()) {
        processes[process][user] = true;
        Bump(m_Change);
        RaiseMaxDepth(1);
        return;
    }
    Users& users = processIt->second;
    if (users.emplace(user, true).second) {
        RaiseMaxDepth(users.size());
        Bump(m_Change);
    }
}

bool ZELKAllowCache::IsCached(const std::string& user, const std::string& process,
                              const std::string& target) {
    std::shared_lock<std::shared_mutex> lock(m_Mutex);
    auto targetIt = m_Map.find(target);
    if (targetIt == m_Map.end()) {
        Bump(m_Miss);
        Bump(m_TargetMiss);
        return false;
    }
    auto processIt = targetIt->second.find(process);
    if (processIt == targetIt->second.end()) {
        Bump(m_Miss);
        Bump(m_ProcessMiss);
        return false;
    }
    // Presence is what counts; the stored flag is never false.
    if (processIt->second.find(user) == processIt->second.end()) {
        Bump(m_Miss);
        Bump(m_UserMiss);
        return false;
    }
    Bump(m_Hit);
    return true;
}

void ZELKAllowCache::RemoveCacheNode(const std::string& target) {
    std::lock_guard<std::shared_mutex> lock(m_Mutex);
    if (m_Map.erase(target) != 0) {
        Bump(m_RemoveHit);
        PublishSize();
    } else {
        Bump(m_RemoveMiss);
    }
}

void ZELKAllowCache::FlushCache() {
    std::lock_guard<std::shared_mutex> lock(m_Mutex);
    m_Map.clear();
    PublishSize();
    for (Counter* counter :
         {&m_Add, &m_Change, &m_RemoveHit, &m_RemoveMiss, &m_Hit, &m_Miss, &m_TargetMiss,
          &m_UserMiss, &m_ProcessMiss, &m_AddedSize, &m_MaxDepth}) {
        counter->store(0, std::memory_order_relaxed);
    }
    Bump(m_Clear);
}

void ZELKAllowCache::GetMetrics(cJSON* parent) {
    cJSON* object = cJSON_AddObjectToObject(parent, "AllowCache");
    if (object == nullptr) {
        return;
    }
    // The key order is part of the document the host parses.
    const std::pair<const char*, const Counter*> values[] = {
        {"Add", &m_Add},
        {"Change", &m_Change},
        {"Clear", &m_Clear},
        {"Hit", &m_Hit},
        {"Miss", &m_Miss},
        {"processMiss", &m_ProcessMiss},
        {"removeHit", &m_RemoveHit},
        {"removeMiss", &m_RemoveMiss},
        {"targetMiss", &m_TargetMiss},
        {"userMiss", &m_UserMiss},
        {"mapSize", &m_MapSize},
        {"maxDepth", &m_MaxDepth},
    };
    for (const auto& value : values) {
        cJSON_AddNumberToObject(object, value.first,
                                static_cast<double>(value.second->load(std::memory_order_relaxed)));
    }
}
