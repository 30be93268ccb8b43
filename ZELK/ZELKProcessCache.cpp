#define ZELK_LOG_FILE "ZELK/ZELKEventAbstraction"
#include "ZELKProcessCache.h"

#include "ZELKLogger.h"

ZELKProcessCache::~ZELKProcessCache() = default;

unsigned long ZELKProcessCache::GetProcess(unsigned long pid, const std::string& processFileName) {
    if (pid == 0 || processFileName.empty()) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Map.find(pid);
    if (it != m_Map.end() && it->second.processKey == processFileName) {
        ++m_Hits;
        return it->second.processTypeId;
    }
    ++m_Misses;
    return 0;
}

bool ZELKProcessCache::AddProcess(unsigned long pid, unsigned long processTypeId,
                                  const std::string& processFileName) {
    if (pid == 0) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_Map.emplace(pid, ac_processMap_entry_t{processTypeId, processFileName}).second) {
        return false;
    }
    ++m_Additions;
    if (m_Additions % kPruneInterval == 0) {
        PruneProcessCache();
    }
    return false;
}

void ZELKProcessCache::RemoveProcess(unsigned long pid) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Map.erase(pid);
}

void ZELKProcessCache::ClearProcessCache() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Map.clear();
}

void ZELKProcessCache::PruneProcessCache() {}

uint64_t ZELKProcessCache::GetHits() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Hits;
}

uint64_t ZELKProcessCache::GetMisses() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Misses;
}

uint64_t ZELKProcessCache::GetAdditions() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Additions;
}

size_t ZELKProcessCache::Size() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Map.size();
}
