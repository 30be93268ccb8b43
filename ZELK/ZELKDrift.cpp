#define ZELK_LOG_FILE "ZELK/ZELKEventAbstraction"
#include "ZELKDrift.h"

#include <cassert>

#include "ZELKFile.h"
#include "ZELKLogger.h"

void ZELKDrift::Open(const ac_event& event) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    ++m_Counters.opened;
    Track(event);
}

void ZELKDrift::CondOpen(const ac_event& event) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    uint64_t probes = 0;
    if (Find(event.pid, event.result, &probes) != m_Tail) {
        ++m_Counters.condOpenAlreadyTracked;
    } else {
        ++m_Counters.condOpenTracked;
        Track(event);
    }
    m_Counters.probes += probes;
}

void ZELKDrift::Close(const ac_event& event) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    uint64_t probes = 0;
    const uint64_t seq = Find(event.pid, event.result, &probes);
    if (seq != m_Tail) {
        Free(seq);
        ++m_Counters.freedOnCloseOrDup;
    } else {
        ++m_Counters.closeNotFound;
        ++m_Counters.closeMisses;
    }
    m_Counters.probes += probes;
}

void ZELKDrift::Dup(const ac_event& event, uint64_t newFd) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    uint64_t probes = 0;
    const uint64_t seq = Find(event.pid, event.result, &probes);
    if (seq != m_Tail) {
        Free(seq);
        ++m_Counters.freedOnCloseOrDup;
    }
    if (Find(event.pid, newFd, &probes) == m_Tail) {
        // The record stands for the new descriptor, so a later Close of it
        // finds the record.
        ac_event copy = event;
        copy.result = newFd;
        Track(copy);
        ++m_Counters.dupTracked;
    } else {
        ++m_Counters.dupMisses;
    }
    m_Counters.probes += probes;
}

void ZELKDrift::DupTrackPossibleClose(const ac_event& event, uint64_t newFd) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    ++m_Counters.possibleCloseSearches;
    uint64_t probes = 0;
    for (uint64_t fd : {event.result, newFd}) {
        if (Find(event.pid, fd, &probes) != m_Tail) {
            ++m_Counters.possibleCloseHits;
        } else {
            ++m_Counters.closeMisses;
        }
    }
    m_Counters.probes += probes;
}

void ZELKDrift::Clear() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    for (ac_event& record : m_Ring) {
        record = ac_event();
    }
    m_Head = 0;
    m_Tail = 0;
    m_NextSweep = 0;
    m_Counters = ZELKDriftCounters();
}

ZELKDriftCounters ZELKDrift::GetCounters() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    ZELKDriftCounters snapshot = m_Counters;
    snapshot.records = m_Tail - m_Head;
    snapshot.nextSweepSeconds = m_NextSweep;
    return snapshot;
}

uint64_t ZELKDrift::NowSeconds() const {
    return GetCurrentTimeInMillis() / 1000;
}

bool ZELKDrift::SweepFrees(uint64_t pid) const {
    return IsProcessAlive(pid);
}

void ZELKDrift::Track(const ac_event& event) {
    if (m_Tail - m_Head == kSlots) {
        const uint64_t now = NowSeconds();
        if (m_NextSweep >= now) {
            Free(m_Head);
            ++m_Counters.evicted;
        } else {
            uint64_t freed = 0;
            // Free() fills the slot with the head record, which this walk
            // has already looked at, and advances the head; so just step on.
            for (uint64_t seq = m_Head; seq != m_Tail; ++seq) {
                if (SweepFrees(m_Ring[seq % kSlots].pid)) {
                    Free(seq);
                    ++freed;
                }
            }
            m_Counters.sweepFreed += freed;
            ++m_Counters.sweeps;
            ZTRACE("Drift tracker sweep freed %lu of %zu records",
                   static_cast<unsigned long>(freed), kSlots);
            if (freed < kSweepEnough) {
                // Few processes went away: sweeping again soon would mostly
                // walk the ring for nothing.
                m_NextSweep = now + kSweepIntervalSeconds;
                if (freed == 0) {
                    Free(m_Head);
                    ++m_Counters.evicted;
                }
            }
        }
    }
    assert(m_Tail - m_Head < kSlots);
    m_Ring[m_Tail % kSlots] = event;
    ++m_Counters.tracked;
    ++m_Tail;
}

void ZELKDrift::Free(uint64_t seq) {
    assert(seq - m_Head < m_Tail - m_Head);
    const size_t slot = seq % kSlots;
    const size_t headSlot = m_Head % kSlots;
    if (slot != headSlot) {
        m_Ring[slot] = std::move(m_Ring[headSlot]);
    }
    m_Ring[headSlot] = ac_event();
    ++m_Head;
}

uint64_t ZELKDrift::Find(uint64_t pid, uint64_t fd, uint64_t* probes) const {
    for (uint64_t seq = m_Head; seq != m_Tail; ++seq) {
        ++*probes;
        const ac_event& record = m_Ring[seq % kSlots];
        if (record.pid == pid && record.result == fd) {
            return seq;
        }
    }
    return m_Tail;
}
