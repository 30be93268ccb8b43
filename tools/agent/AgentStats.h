// Counters of one agent run.  Every member is a relaxed atomic so workers
// count without a lock; a report is a snapshot that may mix counts taken a
// moment apart.
#ifndef ZELK_TOOLS_AGENT_AGENTSTATS_H_
#define ZELK_TOOLS_AGENT_AGENTSTATS_H_

#include <atomic>
#include <cstdint>
#include <string>

namespace zelkagent {

enum EventKind { kKindExec, kKindCloseWrite, kKindCreate, kKindRename, kKindDelete, kKindCount };
const char* KindName(EventKind kind);

class AgentStats {
  public:
    void Count(EventKind kind) { Add(m_Events[kind]); }
    void Allowed() { Add(m_Allowed); }
    void Denied() { Add(m_Denied); }
    // Failures of the agent's own work (unreadable target, hashing failure,
    // a failed answer) and verdicts the engine could not give.
    void Error() { Add(m_Errors); }
    void EngineError() { Add(m_EngineErrors); }
    void OwnEvent() { Add(m_OwnEvents); }
    void Overflow() { Add(m_Overflows); }
    void QueueFull() { Add(m_QueueFull); }

    // Time from reading a permission event to answering it, and the part of
    // it spent waiting in the queue and inside app_ctl.
    void RecordDecision(uint64_t ns);
    void RecordQueueWait(uint64_t ns) { m_QueueNs.fetch_add(ns, std::memory_order_relaxed); }
    void RecordEngine(uint64_t ns) { m_EngineNs.fetch_add(ns, std::memory_order_relaxed); }

    uint64_t Events(EventKind kind) const { return m_Events[kind].load(); }
    uint64_t AllowedCount() const { return m_Allowed.load(); }
    uint64_t DeniedCount() const { return m_Denied.load(); }
    uint64_t ErrorCount() const { return m_Errors.load(); }

    // Mean and 99th percentile in nanoseconds; the percentile is the upper
    // edge of its histogram bucket (buckets are a quarter octave wide).
    uint64_t MeanNs() const;
    uint64_t P99Ns() const;

    // Multi-line text: events by kind, allowed, denied, errors, digest cache
    // hits, decision times and the other counters.
    std::string Report(uint64_t cacheHits, uint64_t cacheMisses, uint64_t logDropped) const;

  private:
    static void Add(std::atomic<uint64_t>& c) { c.fetch_add(1, std::memory_order_relaxed); }
    static constexpr int kBuckets = 64 * 4;
    static int BucketOf(uint64_t ns);
    static uint64_t BucketTop(int bucket);

    std::atomic<uint64_t> m_Events[kKindCount] = {};
    std::atomic<uint64_t> m_Allowed{0}, m_Denied{0}, m_Errors{0}, m_EngineErrors{0};
    std::atomic<uint64_t> m_OwnEvents{0}, m_Overflows{0}, m_QueueFull{0};
    std::atomic<uint64_t> m_Decisions{0}, m_DecisionNs{0}, m_QueueNs{0}, m_EngineNs{0};
    std::atomic<uint64_t> m_Histogram[kBuckets] = {};
};

}  // namespace zelkagent

#endif  // ZELK_TOOLS_AGENT_AGENTSTATS_H_
