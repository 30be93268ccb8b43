// The agent's event log: one structured record per denial, would-be denial
// (permissive mode) and approved drift, for a fleet's log pipeline.  Records
// go to the systemd journal with ZELK_* fields, or as JSON lines to a file.
// Recording only queues the record: a thread of the log's own writes it, so
// logging never delays an answer to the kernel.  When the queue is full the
// record is dropped and counted.
#ifndef ZELK_AGENT_EVENTLOG_H_
#define ZELK_AGENT_EVENTLOG_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace zelkagent {

struct EventRecord {
    std::string verdict;  // "denied", "would-deny", "approved-drift", ...
    std::string target;
    std::string sha256;   // hexadecimal, "" when unknown
    std::string process;  // acting process's executable
    std::string user;
    std::string rule;    // ruleset or rule that decided, "" when none
    std::string reason;  // the decision in words
    int64_t pid = 0;
    uint64_t timeMs = 0;  // milliseconds since the epoch
};

class EventLog {
  public:
    static constexpr size_t kQueueLimit = 65536;

    EventLog() = default;
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    // "journal", "none" (or ""), or a file that JSON lines are appended to.
    // False with `error` when the file cannot be opened or the journal is not
    // there.
    bool Open(const std::string& destination, std::string& error);
    // Queues a record; never blocks on the destination.
    void Record(EventRecord record);
    // Writes what is queued and stops the thread.
    void Close();

    uint64_t Written() const { return m_Written.load(std::memory_order_relaxed); }
    uint64_t Dropped() const { return m_Dropped.load(std::memory_order_relaxed); }

  private:
    void Run();
    void Write(const EventRecord& record);

    enum class Sink { kNone, kJournal, kFile };
    Sink m_Sink = Sink::kNone;
    FILE* m_File = nullptr;  // kFile; used by the writer thread only

    std::mutex m_Mutex;
    std::condition_variable m_Wake;
    std::deque<EventRecord> m_Queue;  // guarded by m_Mutex
    bool m_Stop = false;              // guarded by m_Mutex
    std::thread m_Thread;

    std::atomic<uint64_t> m_Written{0};
    std::atomic<uint64_t> m_Dropped{0};
};

}  // namespace zelkagent

#endif  // ZELK_AGENT_EVENTLOG_H_
