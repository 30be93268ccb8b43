#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <tuple>
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

// Expected counter values, compared against std::tie of the fields.
template <typename... T>
std::tuple<T...> Want(T... values) {
    return std::make_tuple(values...);
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
    // First overflow: the next-sweep time (0) is past, so a sweep runs; the
    // default hook frees nothing, so the oldest record goes and the next sweep
    // is a minute away.
    ZELKDrift plain;
    Fill(plain, 7, 0, ZELKDrift::kSlots + 1);
    ZELKDriftCounters c = plain.GetCounters();
    EXPECT_EQ(std::tie(c.sweeps, c.sweepFreed, c.evicted, c.records, c.tracked, c.opened),
              Want(1u, 0u, 1u, 64u, 65u, 65u));
    EXPECT_GT(c.nextSweepSeconds, 60u);
    EXPECT_FALSE(CloseFound(plain, 7, 0));
    EXPECT_TRUE(CloseFound(plain, 7, 64));

    TestDrift drift;
    Fill(drift, 7, 0, ZELKDrift::kSlots);
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.records, c.evicted, c.sweeps), Want(64u, 0u, 0u));
    drift.Open(FdEvent(7, 64));
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.sweeps, c.evicted, c.nextSweepSeconds), Want(1u, 1u, 1060u));

    // Not due before and at exactly the next-sweep time: evict only.
    for (uint64_t t : {1001u, 1059u, 1060u}) {
        drift.now = t;
        drift.Open(FdEvent(7, 100 + t));
    }
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.sweeps, c.evicted, c.nextSweepSeconds), Want(1u, 4u, 1060u));

    // One second later it is due; nothing frees, so evict and postpone.
    drift.now = 1061;
    drift.Open(FdEvent(7, 200));
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.sweeps, c.evicted, c.nextSweepSeconds, c.records),
              Want(2u, 5u, 1121u, 64u));

    // Exactly the five oldest descriptors 0..4 went.
    for (uint64_t fd = 0; fd < 64; ++fd) {
        EXPECT_EQ(CloseFound(drift, 7, fd), fd >= 5) << fd;
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
    auto ofTwo = [](uint64_t k) { return k % 6 == 0 && k < 60; };
    for (uint64_t k = 0; k < ZELKDrift::kSlots; ++k) {
        drift.Open(FdEvent(ofTwo(k) ? 2 : 1, k));
    }
    drift.Open(FdEvent(1, 500));
    ZELKDriftCounters c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.sweeps, c.sweepFreed, c.evicted, c.records, c.nextSweepSeconds),
              Want(1u, 10u, 0u, 55u, 1060u));
    // Every record of process 1 survived the in-place removal, none of 2.
    for (uint64_t k = 0; k < ZELKDrift::kSlots; ++k) {
        EXPECT_FALSE(CloseFound(drift, 2, k)) << k;
        EXPECT_EQ(CloseFound(drift, 1, k), !ofTwo(k)) << k;
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
    EXPECT_EQ(std::tie(c.sweepFreed, c.evicted, c.records, c.nextSweepSeconds),
              Want(32u, 0u, 33u, 0u));
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
    EXPECT_EQ(std::tie(c.evicted, c.sweeps, c.freedOnCloseOrDup), Want(2u, 1u, 1u));
    // Records match on the pair: same descriptor, other process.
    EXPECT_FALSE(CloseFound(drift, 4, 3));
    for (auto [fd, held] :
         {std::pair{0u, true}, {1u, false}, {2u, false}, {10u, false}, {102u, true}, {3u, true}}) {
        EXPECT_EQ(CloseFound(drift, 3, fd), held) << fd;
    }
}

TEST(Drift, CountersOfCloseDupAndCondOpen) {
    TestDrift drift;
    drift.Open(FdEvent(1, 3));
    drift.Open(FdEvent(1, 4));

    // Probes count every slot looked at: fd 4 is the second record.
    drift.CondOpen(FdEvent(1, 4));
    ZELKDriftCounters c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.condOpenAlreadyTracked, c.condOpenTracked, c.records, c.probes),
              Want(1u, 0u, 2u, 2u));
    drift.CondOpen(FdEvent(1, 5));
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.condOpenTracked, c.records, c.tracked, c.opened, c.probes),
              Want(1u, 3u, 3u, 2u, 4u));

    drift.Close(FdEvent(1, 9));
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.closeNotFound, c.closeMisses, c.probes), Want(1u, 1u, 7u));

    // Dup 3 -> 8: the old record goes and one for 8 is tracked.
    drift.Dup(FdEvent(1, 3), 8);
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.freedOnCloseOrDup, c.dupTracked, c.records), Want(1u, 1u, 3u));
    // Dup of an untracked descriptor onto a tracked one: a miss, no change.
    drift.Dup(FdEvent(1, 30), 8);
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.freedOnCloseOrDup, c.dupMisses, c.dupTracked, c.records),
              Want(1u, 1u, 1u, 3u));

    // Only counts: 4 and 8 are tracked, 30 is not.
    drift.DupTrackPossibleClose(FdEvent(1, 4), 8);
    drift.DupTrackPossibleClose(FdEvent(1, 30), 4);
    c = drift.GetCounters();
    EXPECT_EQ(std::tie(c.possibleCloseSearches, c.possibleCloseHits, c.closeMisses, c.records),
              Want(2u, 3u, 2u, 3u));

    for (auto [fd, held] : {std::pair{8u, true}, {3u, false}, {4u, true}, {5u, true}}) {
        EXPECT_EQ(CloseFound(drift, 1, fd), held) << fd;
    }
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
