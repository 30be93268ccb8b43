// ZELKDrift: a bounded tracker of open files, one record per (process, file
// descriptor).  Records live in a fixed ring of 64 event copies; when the ring
// is full a new record makes room by sweeping out records of processes the
// liveness check reports, at most once a minute, and otherwise by evicting
// the oldest record.  The tracker never influences a verdict; it only keeps
// records and counters.
//
// Thread safety: every public method takes m_Mutex for its whole span; the
// members below are all guarded by it.  The tracker calls no other store.
#ifndef ZELK_ZELKDRIFT_H_
#define ZELK_ZELKDRIFT_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "ZELKEvent.h"

// A copy of the tracker's counters and ring position, taken under its mutex.
struct ZELKDriftCounters {
    uint64_t tracked = 0;            // records written into the ring
    uint64_t opened = 0;             // Open calls
    uint64_t evicted = 0;            // oldest records dropped to make room
    uint64_t sweepFreed = 0;         // records freed by sweeps
    uint64_t sweeps = 0;             // sweeps run
    uint64_t freedOnCloseOrDup = 0;  // records freed by Close or Dup
    uint64_t closeNotFound = 0;      // Close calls without a record
    uint64_t closeMisses = 0;        // lookups by Close or DupTrackPossibleClose that failed
    uint64_t condOpenAlreadyTracked = 0;
    uint64_t condOpenTracked = 0;
    uint64_t dupTracked = 0;
    uint64_t dupMisses = 0;  // Dup whose new descriptor was already tracked
    uint64_t possibleCloseHits = 0;
    uint64_t possibleCloseSearches = 0;
    uint64_t probes = 0;            // ring slots examined by all searches
    uint64_t records = 0;           // records now held (tail - head)
    uint64_t nextSweepSeconds = 0;  // no sweep runs while now <= this
};

class ZELKDrift {
  public:
    static constexpr size_t kSlots = 64;
    // A sweep that frees fewer records than this postpones the next one.
    static constexpr uint64_t kSweepEnough = 32;
    static constexpr uint64_t kSweepIntervalSeconds = 60;

    ZELKDrift() = default;
    virtual ~ZELKDrift() = default;
    ZELKDrift(const ZELKDrift&) = delete;
    ZELKDrift& operator=(const ZELKDrift&) = delete;

    // Records `event` (keyed by its pid and its result, the new descriptor).
    // Always succeeds; a full ring loses a record to make room.
    void Open(const ac_event& event);
    // Like Open, unless (pid, result) is tracked already; then nothing changes.
    void CondOpen(const ac_event& event);
    // Frees the record of (pid, result) when there is one.
    void Close(const ac_event& event);
    // The descriptor event.result was duplicated to `newFd`: frees the record
    // of the old descriptor, then records a copy of `event` under `newFd`
    // unless (pid, newFd) is tracked already.
    void Dup(const ac_event& event, uint64_t newFd);
    // Only counts: whether (pid, result) and (pid, newFd) are tracked.  The
    // ring is left as it is.
    void DupTrackPossibleClose(const ac_event& event, uint64_t newFd);
    // Releases every record and zeroes counters, ring positions and the
    // next-sweep time.
    void Clear();
    // Kept for the tracker's interface; they do nothing.
    void FreshFilter() {}
    void Stats() {}

    ZELKDriftCounters GetCounters() const;

  protected:
    // The clock for sweep scheduling, in seconds; wall-clock by default.
    virtual uint64_t NowSeconds() const;
    // Whether a sweep frees the records of `pid`; IsProcessAlive by default.
    virtual bool SweepFrees(uint64_t pid) const;

  private:
    // Writes a copy of `event` at the tail, first making room when full.
    // Caller holds m_Mutex.
    void Track(const ac_event& event);
    // Releases the record at ring sequence `seq` and moves the head record
    // into its slot, so removal costs O(1) but disturbs the age order.
    // Caller holds m_Mutex.
    void Free(uint64_t seq);
    // Sequence number of the record for (pid, fd), or m_Tail when absent;
    // adds the slots examined to *probes.  Caller holds m_Mutex.
    uint64_t Find(uint64_t pid, uint64_t fd, uint64_t* probes) const;

    mutable std::mutex m_Mutex;
    std::array<ac_event, kSlots> m_Ring;  // slot = sequence % kSlots
    uint64_t m_Head = 0;                  // sequence of the oldest record
    uint64_t m_Tail = 0;                  // sequence the next record gets
    uint64_t m_NextSweep = 0;             // seconds
    ZELKDriftCounters m_Counters;         // records/nextSweepSeconds unused here
};

#endif  // ZELK_ZELKDRIFT_H_
