// The agent's log: a fixed ring of message slots that any thread fills
// without blocking and one logger thread writes out.  Permission answers must
// never wait on a disk, a full pipe or a lock held across a write, so a
// message that finds the ring full is dropped and counted instead.
#ifndef ZELK_TOOLS_AGENT_LOGRING_H_
#define ZELK_TOOLS_AGENT_LOGRING_H_

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

namespace zelkagent {

class LogRing {
  public:
    // `capacity` slots, rounded up to a power of two.
    explicit LogRing(size_t capacity = 4096);
    ~LogRing();
    LogRing(const LogRing&) = delete;
    LogRing& operator=(const LogRing&) = delete;

    // Opens `file` for appending (empty: stderr) and starts the logger
    // thread.  False with the reason when the file cannot be opened.
    bool Start(const std::string& file, unsigned mask, std::string& error);
    // Writes out what is queued and joins the logger thread.  Messages
    // logged afterwards are dropped.
    void Stop();

    bool Enabled(unsigned level) const {
        return (m_Mask.load(std::memory_order_relaxed) & level) != 0;
    }
    // Queues one message at `level` (ZELK_LOG_* bits); never blocks.  A
    // message longer than a slot is cut.
    void Log(unsigned level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void Write(unsigned level, const char* text, size_t length);

    uint64_t Dropped() const { return m_Dropped.load(std::memory_order_relaxed); }

  private:
    static constexpr size_t kTextMax = 496;
    struct Slot {
        std::atomic<uint64_t> sequence;
        uint64_t timeNs;
        unsigned level;
        unsigned length;
        char text[kTextMax];
    };

    bool Ready() const;  // a message waits at m_Tail
    bool TryPop(Slot& out);
    void Run();
    void Wake();

    // Producers claim slots with m_Head; the single consumer owns m_Tail.  A
    // slot whose sequence equals a producer's position is free for it; one
    // past it holds a message for the consumer (a bounded multi-producer
    // ring whose slots carry their own turn number).
    const size_t m_Capacity;
    std::unique_ptr<Slot[]> m_Slots;
    alignas(64) std::atomic<uint64_t> m_Head{0};
    alignas(64) uint64_t m_Tail = 0;  // logger thread only
    std::atomic<uint64_t> m_Dropped{0};
    std::atomic<unsigned> m_Mask{0};
    std::atomic<bool> m_Sleeping{false};
    std::atomic<bool> m_Stopping{false};
    std::atomic<bool> m_Running{false};
    int m_WakeFd = -1;
    FILE* m_Out = nullptr;  // logger thread only while running
    std::thread m_Thread;
};

// The process's one log, shared by the agent, its workers and the engine's
// log callback.
LogRing& Log();

}  // namespace zelkagent

#endif  // ZELK_TOOLS_AGENT_LOGRING_H_
