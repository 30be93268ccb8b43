#define ZELK_LOG_FILE "ZELK/ZELKEventAbstraction"
#include "ZELKAllowCache.h"

#include <thread>

#include "ZELKLogger.h"

namespace {
// Each thread keeps one slot number for its life, handed out in turn, so the
// first kReaderSlots threads each have a slot of their own in every cache.
size_t ThreadSlotIndex() {
    static std::atomic<size_t> next{0};
    thread_local const size_t index =
        next.fetch_add(1, std::memory_order_relaxed) % ZELKAllowCache::kReaderSlots;
    return index;
}

// Short waits: a lookup holds the cache for three hash lookups.
void Pause(unsigned& spins) {
    if (++spins < 64) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    } else {
        std::this_thread::yield();
    }
}
}  // namespace

class ZELKAllowCache::ReadScope {
  public:
    explicit ReadScope(ZELKAllowCache& cache) : m_Cache(cache), m_Slot(cache.MySlot()) {
        for (;;) {
            // Announce first, then look for a writer; a writer raises its flag
            // first, then looks for readers.  Both sequentially consistent, so
            // at least one of the two sees the other.
            m_Slot.readers.fetch_add(1, std::memory_order_seq_cst);
            if (!m_Cache.m_WriterActive.load(std::memory_order_seq_cst)) {
                return;
            }
            m_Slot.readers.fetch_sub(1, std::memory_order_release);
            // Wait for the writer without spinning on its flag: its mutex is
            // free again once it is done.
            std::lock_guard<std::mutex> wait(m_Cache.m_WriterMutex);
        }
    }
    ~ReadScope() { m_Slot.readers.fetch_sub(1, std::memory_order_release); }
    ReadScope(const ReadScope&) = delete;
    ReadScope& operator=(const ReadScope&) = delete;

    ReaderSlot& Slot() { return m_Slot; }

  private:
    ZELKAllowCache& m_Cache;
    ReaderSlot& m_Slot;
};

class ZELKAllowCache::WriteScope {
  public:
    explicit WriteScope(ZELKAllowCache& cache) : m_Cache(cache), m_Lock(cache.m_WriterMutex) {
        m_Cache.m_WriterActive.store(true, std::memory_order_seq_cst);
        for (size_t i = 0; i < kReaderSlots; ++i) {
            unsigned spins = 0;
            while (m_Cache.m_Slots[i].readers.load(std::memory_order_seq_cst) != 0) {
                Pause(spins);
            }
        }
    }
    ~WriteScope() { m_Cache.m_WriterActive.store(false, std::memory_order_release); }
    WriteScope(const WriteScope&) = delete;
    WriteScope& operator=(const WriteScope&) = delete;

  private:
    ZELKAllowCache& m_Cache;
    std::lock_guard<std::mutex> m_Lock;
};

ZELKAllowCache::ZELKAllowCache() : m_Slots(new ReaderSlot[kReaderSlots]) {}

ZELKAllowCache::~ZELKAllowCache() {
    WriteScope write(*this);
    m_Map.clear();
}

ZELKAllowCache::ReaderSlot& ZELKAllowCache::MySlot() {
    return m_Slots[ThreadSlotIndex()];
}

uint64_t ZELKAllowCache::SumSlots(Counter ReaderSlot::*counter) const {
    uint64_t sum = 0;
    for (size_t i = 0; i < kReaderSlots; ++i) {
        sum += (m_Slots[i].*counter).load(std::memory_order_relaxed);
    }
    return sum;
}

void ZELKAllowCache::RaiseMaxDepth(uint64_t depth) {
    if (depth > m_MaxDepth.load(std::memory_order_relaxed)) {
        m_MaxDepth.store(depth, std::memory_order_relaxed);
    }
}

bool ZELKAllowCache::Contains(const std::string& user, const std::string& process,
                              const std::string& target) {
    ReadScope read(*this);
    auto targetIt = m_Map.find(target);
    if (targetIt == m_Map.end()) {
        return false;
    }
    auto processIt = targetIt->second.find(process);
    return processIt != targetIt->second.end() &&
           processIt->second.find(user) != processIt->second.end();
}

void ZELKAllowCache::AddCacheNode(const std::string& user, const std::string& process,
                                  const std::string& target) {
    // Most additions repeat a triple that is already there, which changes
    // and counts nothing: a lookup answers that without the writer's lock.
    if (Contains(user, process, target)) {
        return;
    }
    // The size is tested outside the lock and the flush takes it itself; two
    // threads may then both flush, which only costs a second empty flush.
    if (Size() > kMaxTargets - 1) {
        FlushCache();
    }
    WriteScope write(*this);
    AddLocked(user, process, target);
}

bool ZELKAllowCache::AddCacheNode(const std::string& user, const std::string& process,
                                  const std::string& target, uint64_t generation) {
    if (generation == m_Generation.load(std::memory_order_acquire) &&
        Contains(user, process, target)) {
        return false;  // already there: nothing added
    }
    if (Size() > kMaxTargets - 1) {
        FlushCache();
    }
    WriteScope write(*this);
    if (m_ChangesUnderWay != 0 || generation != m_Generation.load(std::memory_order_relaxed)) {
        return false;
    }
    AddLocked(user, process, target);
    return true;
}

void ZELKAllowCache::BeginPolicyChange() {
    WriteScope write(*this);
    ++m_ChangesUnderWay;
    m_Generation.fetch_add(1, std::memory_order_acq_rel);
}

void ZELKAllowCache::EndPolicyChange() {
    WriteScope write(*this);
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
    ReadScope read(*this);
    ReaderSlot& slot = read.Slot();
    auto targetIt = m_Map.find(target);
    if (targetIt == m_Map.end()) {
        Bump(slot.miss);
        Bump(slot.targetMiss);
        return false;
    }
    auto processIt = targetIt->second.find(process);
    if (processIt == targetIt->second.end()) {
        Bump(slot.miss);
        Bump(slot.processMiss);
        return false;
    }
    // Presence is what counts; the stored flag is never false.
    if (processIt->second.find(user) == processIt->second.end()) {
        Bump(slot.miss);
        Bump(slot.userMiss);
        return false;
    }
    Bump(slot.hit);
    return true;
}

void ZELKAllowCache::RemoveCacheNode(const std::string& target) {
    WriteScope write(*this);
    if (m_Map.erase(target) != 0) {
        Bump(m_RemoveHit);
        PublishSize();
    } else {
        Bump(m_RemoveMiss);
    }
}

void ZELKAllowCache::FlushCache() {
    WriteScope write(*this);
    m_Map.clear();
    PublishSize();
    for (Counter* counter :
         {&m_Add, &m_Change, &m_RemoveHit, &m_RemoveMiss, &m_AddedSize, &m_MaxDepth}) {
        counter->store(0, std::memory_order_relaxed);
    }
    // No lookup runs while the writer holds the cache, so the slots' lookup
    // counters can be zeroed without losing a count.
    for (size_t i = 0; i < kReaderSlots; ++i) {
        ReaderSlot& slot = m_Slots[i];
        for (Counter* counter :
             {&slot.hit, &slot.miss, &slot.targetMiss, &slot.userMiss, &slot.processMiss}) {
            counter->store(0, std::memory_order_relaxed);
        }
    }
    Bump(m_Clear);
}

void ZELKAllowCache::GetMetrics(cJSON* parent) {
    cJSON* object = cJSON_AddObjectToObject(parent, "AllowCache");
    if (object == nullptr) {
        return;
    }
    const auto own = [](const Counter& counter) { return counter.load(std::memory_order_relaxed); };
    // The key order is part of the document the host parses.
    const std::pair<const char*, uint64_t> values[] = {
        {"Add", own(m_Add)},
        {"Change", own(m_Change)},
        {"Clear", own(m_Clear)},
        {"Hit", SumSlots(&ReaderSlot::hit)},
        {"Miss", SumSlots(&ReaderSlot::miss)},
        {"processMiss", SumSlots(&ReaderSlot::processMiss)},
        {"removeHit", own(m_RemoveHit)},
        {"removeMiss", own(m_RemoveMiss)},
        {"targetMiss", SumSlots(&ReaderSlot::targetMiss)},
        {"userMiss", SumSlots(&ReaderSlot::userMiss)},
        {"mapSize", own(m_MapSize)},
        {"maxDepth", own(m_MaxDepth)},
    };
    for (const auto& value : values) {
        cJSON_AddNumberToObject(object, value.first, static_cast<double>(value.second));
    }
}
