// A bounded first-in first-out queue between the fanotify reader and the
// workers.  When it is full the reader waits, so the kernel keeps the
// remaining events (and their processes wait) instead of the agent growing
// without limit.
#ifndef ZELK_TOOLS_AGENT_WORKQUEUE_H_
#define ZELK_TOOLS_AGENT_WORKQUEUE_H_

#include <condition_variable>
#include <deque>
#include <mutex>

namespace zelkagent {

template <typename T>
class WorkQueue {
  public:
    explicit WorkQueue(size_t capacity) : m_Capacity(capacity > 0 ? capacity : 1) {}

    // Waits while full.  False, `item` untouched, once the queue is closed.
    // `waited` tells whether the queue was full on arrival.
    bool Push(T&& item, bool& waited) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        waited = m_Items.size() >= m_Capacity;
        m_NotFull.wait(lock, [this] { return m_Closed || m_Items.size() < m_Capacity; });
        if (m_Closed) {
            return false;
        }
        m_Items.push_back(std::move(item));
        lock.unlock();
        m_NotEmpty.notify_one();
        return true;
    }

    // Waits for an item.  False once the queue is closed and empty: items
    // queued before Close are still handed out.
    bool Pop(T& item) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_NotEmpty.wait(lock, [this] { return m_Closed || !m_Items.empty(); });
        if (m_Items.empty()) {
            return false;
        }
        item = std::move(m_Items.front());
        m_Items.pop_front();
        lock.unlock();
        m_NotFull.notify_one();
        return true;
    }

    // Items waiting now.
    size_t Size() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Items.size();
    }

    void Close() {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Closed = true;
        }
        m_NotEmpty.notify_all();
        m_NotFull.notify_all();
    }

  private:
    const size_t m_Capacity;
    std::mutex m_Mutex;  // guards m_Items and m_Closed
    std::condition_variable m_NotEmpty, m_NotFull;
    std::deque<T> m_Items;
    bool m_Closed = false;
};

}  // namespace zelkagent

#endif  // ZELK_TOOLS_AGENT_WORKQUEUE_H_
