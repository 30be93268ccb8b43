#include "LogRing.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "HostConfig.h"
#include "zelk.h"

namespace zelkagent {
namespace {

size_t RoundUpPow2(size_t n) {
    size_t p = 1;
    while (p < n) {
        p <<= 1;
    }
    return p;
}

uint64_t RealtimeNs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace

LogRing::LogRing(size_t capacity)
    : m_Capacity(RoundUpPow2(capacity < 2 ? 2 : capacity)), m_Slots(new Slot[m_Capacity]) {
    for (size_t i = 0; i < m_Capacity; ++i) {
        m_Slots[i].sequence.store(i, std::memory_order_relaxed);
    }
}

LogRing::~LogRing() {
    Stop();
}

bool LogRing::Start(const std::string& file, unsigned mask, std::string& error) {
    if (m_Running.load()) {
        return true;
    }
    m_Out = stderr;
    if (!file.empty()) {
        m_Out = fopen(file.c_str(), "ae");
        if (m_Out == nullptr) {
            error = file + ": cannot open log file: " + strerror(errno);
            m_Out = nullptr;
            return false;
        }
    }
    m_WakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_WakeFd < 0) {
        error = std::string("eventfd: ") + strerror(errno);
        return false;
    }
    m_Mask.store(mask);
    m_Stopping.store(false);
    m_Running.store(true);
    m_Thread = std::thread(&LogRing::Run, this);
    return true;
}

void LogRing::Stop() {
    if (!m_Running.exchange(false)) {
        return;
    }
    m_Stopping.store(true);
    Wake();
    m_Thread.join();
    close(m_WakeFd);
    m_WakeFd = -1;
    if (m_Out != nullptr && m_Out != stderr) {
        fclose(m_Out);
    }
    m_Out = nullptr;
    m_Mask.store(0);
}

void LogRing::Log(unsigned level, const char* format, ...) {
    if (!Enabled(level)) {
        return;
    }
    char text[kTextMax];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (n < 0) {
        return;
    }
    Write(level, text, std::min(static_cast<size_t>(n), sizeof(text) - 1));
}

void LogRing::Write(unsigned level, const char* text, size_t length) {
    if (!m_Running.load(std::memory_order_relaxed)) {
        m_Dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    uint64_t pos = m_Head.load(std::memory_order_relaxed);
    Slot* slot;
    for (;;) {
        slot = &m_Slots[pos & (m_Capacity - 1)];
        uint64_t seq = slot->sequence.load(std::memory_order_acquire);
        int64_t diff = static_cast<int64_t>(seq) - static_cast<int64_t>(pos);
        if (diff == 0) {
            if (m_Head.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
                break;
            }
        } else if (diff < 0) {
            // The consumer has not freed this slot yet: the ring is full.
            m_Dropped.fetch_add(1, std::memory_order_relaxed);
            return;
        } else {
            pos = m_Head.load(std::memory_order_relaxed);
        }
    }
    slot->timeNs = RealtimeNs();
    slot->level = level;
    slot->length = static_cast<unsigned>(std::min(length, kTextMax));
    memcpy(slot->text, text, slot->length);
    slot->sequence.store(pos + 1, std::memory_order_release);
    // Pairs with the fence in Run: either the logger sees this message before
    // it sleeps, or this thread sees it sleeping and wakes it.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (m_Sleeping.load(std::memory_order_relaxed)) {
        Wake();
    }
}

void LogRing::Wake() {
    uint64_t one = 1;
    // Non-blocking descriptor: a counter already set is wake enough.
    ssize_t ignored = write(m_WakeFd, &one, sizeof(one));
    (void)ignored;
}

bool LogRing::Ready() const {
    const Slot& slot = m_Slots[m_Tail & (m_Capacity - 1)];
    return slot.sequence.load(std::memory_order_acquire) == m_Tail + 1;
}

bool LogRing::TryPop(Slot& out) {
    Slot& slot = m_Slots[m_Tail & (m_Capacity - 1)];
    if (slot.sequence.load(std::memory_order_acquire) != m_Tail + 1) {
        return false;
    }
    out.timeNs = slot.timeNs;
    out.level = slot.level;
    out.length = slot.length;
    memcpy(out.text, slot.text, slot.length);
    slot.sequence.store(m_Tail + m_Capacity, std::memory_order_release);
    ++m_Tail;
    return true;
}

void LogRing::Run() {
    Slot message;
    uint64_t reportedDrops = 0;
    for (;;) {
        bool wrote = false;
        while (TryPop(message)) {
            time_t seconds = static_cast<time_t>(message.timeNs / 1000000000ULL);
            struct tm tm;
            localtime_r(&seconds, &tm);
            char stamp[32];
            strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &tm);
            fprintf(m_Out, "%s.%03u zelk-agent %s: %.*s\n", stamp,
                    static_cast<unsigned>(message.timeNs / 1000000ULL % 1000),
                    hostkit::LevelName(message.level), static_cast<int>(message.length),
                    message.text);
            wrote = true;
        }
        uint64_t drops = m_Dropped.load(std::memory_order_relaxed);
        if (drops != reportedDrops) {
            fprintf(m_Out, "zelk-agent WARNING: %lu log messages dropped (log ring full)\n",
                    static_cast<unsigned long>(drops - reportedDrops));
            reportedDrops = drops;
            wrote = true;
        }
        if (wrote) {
            fflush(m_Out);
        }
        if (m_Stopping.load()) {
            // Another pass while messages queued before Stop remain.
            if (!Ready()) {
                break;
            }
            continue;
        }
        m_Sleeping.store(true, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_seq_cst);
        if (!Ready() && !m_Stopping.load()) {
            struct pollfd pfd = {m_WakeFd, POLLIN, 0};
            poll(&pfd, 1, 1000);
            uint64_t count;
            ssize_t ignored = read(m_WakeFd, &count, sizeof(count));
            (void)ignored;
        }
        m_Sleeping.store(false, std::memory_order_relaxed);
    }
}

LogRing& Log() {
    static LogRing ring;
    return ring;
}

}  // namespace zelkagent
