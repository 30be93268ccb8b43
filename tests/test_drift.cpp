#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "ZELKDrift.h"

namespace {

// A tracker with a hand-set clock and, optionally, processes a sweep frees.
class TestDrift : public ZELKDrift {
  public:
    uint64_t now = 1000;
    std::set<uint64_t> sweepable;

  protected:
    uint64_t NowSeconds() const override { return now; }
    bool SweepFrees(uint64_t pid) const override { return sweepable.count(pid) != 0; }
};

ac_event FdEvent(uint64_t pid, uint64_t fd) {
    ac_event event;
    event.pid = pid;
    event.result = fd;
    event.name = "/tmp/file" + std::to_string(fd);
    return event;
}

// Close is the way to observe whether a record is held; it counts a hit as a
// free and a miss as "close not found".
bool CloseFound(ZELKDrift& drift, uint64_t pid, uint64_t fd) {
    const uint64_t before = drift.GetCounters().closeNotFound;
    drift.Close(FdEvent(pid, fd));
    return drift.GetCounters().closeNotFound == before;
}

void Fill(ZELKDrift& drift, uint64_t pid, uint64_t firstFd, size_t count) {
    for (size_t k = 0; k < count; ++k) {
        drift.Open(FdEvent(pid, firstFd + k));
    }
}

}  // namespace

TEST(Drift, FullRingEvictsOldestUntilSweepIsDue) {
    TestDrift drift;
    Fill(drift, 7, 0, ZELKDrift::kSlots);
    ZELKDriftCounters c = drift.GetCounters();
    EXPECT_EQ(c.records, 64u);
    EXPECT_EQ(c.evicted, 0u);
    EXPECT_EQ(c.sweeps, 0u);

    // First overflow: the next-sweep time (0) is in the past, so a sweep runs;
    // the default hook reports no process alive, so nothing is freed, the
    // oldest record goes and the next sweep is a minute away.
    ZELKDrift plain;
    Fill(plain, 7, 0, ZELKDrift::kSlots + 1);
    c = plain.GetCounters();
    EXPECT_EQ(c.sweeps, 1u);
    EXPECT_EQ(c.sweepFreed, 0u);
    EXPECT_EQ(c.evicted, 1u);
    EXPECT_EQ(c.records, 64u);
    EXPECT_EQ(c.tracked, 65u);
    EXPECT_EQ(c.opened, 65u);
    EXPECT_GT(c.nextSweepSeconds, 60u);
    EXPECT_FALSE(CloseFound(plain, 7, 0));
    EXPECT_TRUE(CloseFound(plain, 7, 64));

    drift.now = 1000;
    drift.Open(FdEvent(7, 64));
    c = drift.GetCounters();
    EXPECT_EQ(c.sweeps, 1u);
    EXPECT_EQ(c.evicted, 1u);
    EXPECT_EQ(c.nextSweepSeconds, 1060u);

    // Not due before and at exactly the next-sweep time: evict only.
    for (uint64_t t : {1001u, 1059u, 1060u}) {
        drift.now = t;
        drift.Open(FdEvent(7, 100 + t));
    }
    c = drift.GetCounters();
    EXPECT_EQ(c.sweeps, 1u);
    EXPECT_EQ(c.evicted, 4u);
    EXPECT_EQ(c.nextSweepSeconds, 1060u);

    // One second later it is due; nothing frees, so evict and postpone.
    drift.now = 1061;
    drift.Open(FdEvent(7, 200));
    c = drift.GetCounters();
    EXPECT_EQ(c.sweeps, 2u);
    EXPECT_EQ(c.evicted, 5u);
    EXPECT_EQ(c.nextSweepSeconds, 1121u);
    EXPECT_EQ(c.records, 64u);

    // Exactly the five oldest descriptors 0..4 went.
    for (uint64_t fd = 0; fd < 5; ++fd) {
        EXPECT_FALSE(CloseFound(drift, 7, fd)) << fd;
    }
    for (uint64_t fd = 5; fd < 64; ++fd) {
        EXPECT_TRUE(CloseFound(drift, 7, fd)) << fd;
    }
    for (uint64_t fd : {64u, 1101u, 1159u, 1160u, 200u}) {
        EXPECT_TRUE(CloseFound(drift, 7, fd)) << fd;
    }
    EXPECT_EQ(drift.GetCounters().records, 0u);
}

TEST(Drift, SweepFreesReportedProcesses) {
    // Ten records of a process the sweep frees: fewer than 32, so the next
    // sweep is postponed, but room was made and nothing is evicted.
    TestDrift drift;
    drift.sweepable = {2};
    for (uint64_t k = 0; k < ZELKDrift::kSlots; ++k) {
        drift.Open(FdEvent(k % 6 == 0 && k < 60 ? 2 : 1, k));
    }
    drift.Open(FdEvent(1, 500));
    ZELKDriftCounters c = drift.GetCounters();
    EXPECT_EQ(c.sweeps, 1u);
    EXPECT_EQ(c.sweepFreed, 10u);
    EXPECT_EQ(c.evicted, 0u);
    EXPECT_EQ(c.records, 55u);
    EXPECT_EQ(c.nextSweepSeconds, 1060u);
    // Every record of process 1 survived the in-place removal, none of 2.
    for (uint64_t k = 0; k < ZELKDrift::kSlots; ++k) {
        EXPECT_EQ(CloseFound(drift, 2, k), false) << k;
        if (!(k % 6 == 0 && k < 60)) {
            EXPECT_TRUE(CloseFound(drift, 1, k)) << k;
        }
    }
    EXPECT_TRUE(CloseFound(drift, 1, 500));

    // Half the ring swept: enough that the next sweep is not postponed.
    TestDrift busy;
    busy.sweepable = {2};
    for (uint64_t k = 0; k < ZELKDrift::kSlots; ++k) {
        busy.Open(FdEvent(k % 2 == 0 ? 2 : 1, k));
    }
    busy.Open(FdEvent(1, 500));
    c = busy.GetCounters();
    EXPECT_EQ(c.sweepFreed, 32u);
    EXPECT_EQ(c.evicted, 0u);
    EXPECT_EQ(c.records, 33u);
    EXPECT_EQ(c.nextSweepSeconds, 0u);
}

TEST(Drift, CloseFreesByMovingTheHeadRecord) {
    TestDrift drift;
    drift.now = 5;
    Fill(drift, 3, 0, ZELKDrift::kSlots);
    // Freeing fd 10 moves the oldest record (fd 0) into its slot and makes
    // fd 1 the oldest: the next evictions take 1 and 2, not 0.
    EXPECT_TRUE(CloseFound(drift, 3, 10));
    drift.Open(FdEvent(3, 100));
    drift.Open(FdEvent(3, 101));  // sweeps (nothing freed), evicts fd 1
    drift.Open(FdEvent(3, 102));  // sweep not due, evicts fd 2
    ZELKDriftCounters c = drift.GetCounters();
    EXPECT_EQ(c.evicted, 2u);
    EXPECT_EQ(c.sweeps, 1u);
    EXPECT_EQ(c.freedOnCloseOrDup, 1u);
    EXPECT_TRUE(CloseFound(drift, 3, 0));
    EXPECT_FALSE(CloseFound(drift, 3, 1));
    EXPECT_FALSE(CloseFound(drift, 3, 2));
    EXPECT_FALSE(CloseFound(drift, 3, 10));
    EXPECT_TRUE(CloseFound(drift, 3, 102));
    // Records match on the pair: same descriptor, other process.
    EXPECT_FALSE(CloseFound(drift, 4, 3));
    EXPECT_TRUE(CloseFound(drift, 3, 3));
}

TEST(Drift, CountersOfCloseDupAndCondOpen) {
    TestDrift drift;
    drift.Open(FdEvent(1, 3));
    drift.Open(FdEvent(1, 4));

    // Probes count every slot looked at: fd 4 is the second record.
    drift.CondOpen(FdEvent(1, 4));
    ZELKDriftCounters c = drift.GetCounters();
    EXPECT_EQ(c.condOpenAlreadyTracked, 1u);
    EXPECT_EQ(c.condOpenTracked, 0u);
    EXPECT_EQ(c.records, 2u);
    EXPECT_EQ(c.probes, 2u);
    drift.CondOpen(FdEvent(1, 5));
    c = drift.GetCounters();
    EXPECT_EQ(c.condOpenTracked, 1u);
    EXPECT_EQ(c.records, 3u);
    EXPECT_EQ(c.tracked, 3u);
    EXPECT_EQ(c.opened, 2u);
    EXPECT_EQ(c.probes, 4u);

    drift.Close(FdEvent(1, 9));
    c = drift.GetCounters();
    EXPECT_EQ(c.closeNotFound, 1u);
    EXPECT_EQ(c.closeMisses, 1u);
    EXPECT_EQ(c.probes, 7u);

    // Dup 3 -> 8: the old record goes and one for 8 is tracked.
    drift.Dup(FdEvent(1, 3), 8);
    c = drift.GetCounters();
    EXPECT_EQ(c.freedOnCloseOrDup, 1u);
    EXPECT_EQ(c.dupTracked, 1u);
    EXPECT_EQ(c.records, 3u);
    // Dup of an untracked descriptor onto a tracked one: a miss, no change.
    drift.Dup(FdEvent(1, 30), 8);
    c = drift.GetCounters();
    EXPECT_EQ(c.freedOnCloseOrDup, 1u);
    EXPECT_EQ(c.dupMisses, 1u);
    EXPECT_EQ(c.dupTracked, 1u);
    EXPECT_EQ(c.records, 3u);

    // Only counts: 4 and 8 are tracked, 30 is not.
    drift.DupTrackPossibleClose(FdEvent(1, 4), 8);
    drift.DupTrackPossibleClose(FdEvent(1, 30), 4);
    c = drift.GetCounters();
    EXPECT_EQ(c.possibleCloseSearches, 2u);
    EXPECT_EQ(c.possibleCloseHits, 3u);
    EXPECT_EQ(c.closeMisses, 2u);
    EXPECT_EQ(c.records, 3u);

    EXPECT_TRUE(CloseFound(drift, 1, 8));
    EXPECT_FALSE(CloseFound(drift, 1, 3));
    EXPECT_TRUE(CloseFound(drift, 1, 4));
    EXPECT_TRUE(CloseFound(drift, 1, 5));
    EXPECT_EQ(drift.GetCounters().freedOnCloseOrDup, 4u);
}

TEST(Drift, ClearZeroesEverything) {
    TestDrift drift;
    Fill(drift, 1, 0, ZELKDrift::kSlots + 3);
    drift.Close(FdEvent(1, 1000));
    drift.DupTrackPossibleClose(FdEvent(1, 5), 6);
    ASSERT_NE(drift.GetCounters().nextSweepSeconds, 0u);

    drift.Clear();
    const ZELKDriftCounters c = drift.GetCounters();
    const ZELKDriftCounters zero;
    EXPECT_EQ(0, memcmp(&c, &zero, sizeof(c)));
    // The next-sweep time is cleared too: the next overflow sweeps at once.
    Fill(drift, 1, 0, ZELKDrift::kSlots + 1);
    EXPECT_EQ(drift.GetCounters().sweeps, 1u);
    EXPECT_FALSE(CloseFound(drift, 1, 0));
    drift.FreshFilter();
    drift.Stats();
    EXPECT_EQ(drift.GetCounters().records, 64u);
}

TEST(Drift, ConcurrentOpenCloseKeepsRingConsistent) {
    ZELKDrift drift;
    std::vector<std::thread> threads;
    for (uint64_t pid = 1; pid <= 4; ++pid) {
        threads.emplace_back([&drift, pid] {
            for (uint64_t fd = 0; fd < 2000; ++fd) {
                drift.Open(FdEvent(pid, fd));
                if (fd % 2 == 1) {
                    drift.Close(FdEvent(pid, fd));
                }
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    const ZELKDriftCounters c = drift.GetCounters();
    EXPECT_EQ(c.tracked, 8000u);
    EXPECT_LE(c.records, 64u);
    EXPECT_EQ(c.tracked, c.records + c.evicted + c.sweepFreed + c.freedOnCloseOrDup);
}
