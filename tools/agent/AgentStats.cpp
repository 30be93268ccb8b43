#include "AgentStats.h"

#include <cstdio>

namespace zelkagent {

const char* KindName(EventKind kind) {
    static const char* const kNames[kKindCount] = {"exec", "close-write", "create", "rename",
                                                   "delete"};
    return kind >= 0 && kind < kKindCount ? kNames[kind] : "?";
}

int AgentStats::BucketOf(uint64_t ns) {
    if (ns < 4) {
        return static_cast<int>(ns);
    }
    int octave = 63 - __builtin_clzll(ns);
    int quarter = static_cast<int>((ns >> (octave - 2)) & 3);
    int bucket = octave * 4 + quarter;
    return bucket < kBuckets ? bucket : kBuckets - 1;
}

uint64_t AgentStats::BucketTop(int bucket) {
    if (bucket < 4) {
        return static_cast<uint64_t>(bucket);
    }
    int octave = bucket / 4;
    uint64_t quarter = static_cast<uint64_t>(bucket % 4);
    if (octave >= 63) {
        return UINT64_MAX;
    }
    return ((4 + quarter + 1) << (octave - 2)) - 1;
}

void AgentStats::RecordDecision(uint64_t ns) {
    Add(m_Decisions);
    m_DecisionNs.fetch_add(ns, std::memory_order_relaxed);
    Add(m_Histogram[BucketOf(ns)]);
}

uint64_t AgentStats::MeanNs() const {
    uint64_t n = m_Decisions.load();
    return n == 0 ? 0 : m_DecisionNs.load() / n;
}

uint64_t AgentStats::P99Ns() const {
    uint64_t total = 0;
    for (const auto& b : m_Histogram) {
        total += b.load();
    }
    if (total == 0) {
        return 0;
    }
    // Smallest bucket below which at least 99% of the decisions lie.
    const uint64_t rank = total - total / 100;
    uint64_t seen = 0;
    for (int i = 0; i < kBuckets; ++i) {
        seen += m_Histogram[i].load();
        if (seen >= rank) {
            return BucketTop(i);
        }
    }
    return BucketTop(kBuckets - 1);
}

namespace {
double Mean(uint64_t totalNs, uint64_t count) {
    return count == 0 ? 0.0 : static_cast<double>(totalNs) / static_cast<double>(count) / 1000.0;
}
}  // namespace

std::string AgentStats::Report(uint64_t cacheHits, uint64_t cacheMisses,
                               uint64_t logDropped) const {
    std::string text = "zelk-agent counters:\n  events:";
    for (int k = 0; k < kKindCount; ++k) {
        text += std::string(" ") + KindName(static_cast<EventKind>(k)) + " " +
                std::to_string(m_Events[k].load());
    }
    char line[512];
    snprintf(
        line, sizeof(line),
        "\n  allowed %lu, denied %lu, errors %lu, engine errors %lu\n"
        "  digest cache hits %lu, misses %lu\n"
        "  decision time mean %.1f us, p99 %.1f us (%lu decisions; mean %.1f us queued, "
        "%.1f us in the engine)\n"
        "  own events %lu, queue full %lu, overflows %lu, log dropped %lu\n",
        static_cast<unsigned long>(m_Allowed.load()), static_cast<unsigned long>(m_Denied.load()),
        static_cast<unsigned long>(m_Errors.load()),
        static_cast<unsigned long>(m_EngineErrors.load()), static_cast<unsigned long>(cacheHits),
        static_cast<unsigned long>(cacheMisses), static_cast<double>(MeanNs()) / 1000.0,
        static_cast<double>(P99Ns()) / 1000.0, static_cast<unsigned long>(m_Decisions.load()),
        Mean(m_QueueNs.load(), m_Decisions.load()), Mean(m_EngineNs.load(), m_Decisions.load()),
        static_cast<unsigned long>(m_OwnEvents.load()),
        static_cast<unsigned long>(m_QueueFull.load()),
        static_cast<unsigned long>(m_Overflows.load()), static_cast<unsigned long>(logDropped));
    return text + line;
}

}  // namespace zelkagent
