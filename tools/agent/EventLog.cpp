#include "EventLog.h"

#include <cjson/cJSON.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace zelkagent {

EventLog::~EventLog() {
    Close();
}

bool EventLog::Open(const std::string& destination, std::string& error) {
    Close();
    if (destination.empty() || destination == "none") {
        m_Sink = Sink::kNone;
        return true;
    }
    if (destination == "journal") {
        struct stat st {};
        if (stat("/run/systemd/journal/socket", &st) != 0) {
            error = "the systemd journal is not running (no /run/systemd/journal/socket)";
            return false;
        }
        m_Sink = Sink::kJournal;
    } else {
        m_File = fopen(destination.c_str(), "ae");
        if (m_File == nullptr) {
            error = "cannot open event log " + destination + ": " + strerror(errno);
            return false;
        }
        m_Sink = Sink::kFile;
    }
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Stop = false;
    }
    m_Thread = std::thread([this] { Run(); });
    return true;
}

void EventLog::Record(EventRecord record) {
    if (m_Sink == Sink::kNone) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Queue.size() >= kQueueLimit) {
            m_Dropped.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        m_Queue.push_back(std::move(record));
    }
    m_Wake.notify_one();
}

void EventLog::Close() {
    if (m_Thread.joinable()) {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Stop = true;
        }
        m_Wake.notify_one();
        m_Thread.join();
    }
    if (m_File != nullptr) {
        fclose(m_File);
        m_File = nullptr;
    }
    m_Sink = Sink::kNone;
}

void EventLog::Run() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    for (;;) {
        m_Wake.wait(lock, [this] { return m_Stop || !m_Queue.empty(); });
        while (!m_Queue.empty()) {
            EventRecord record = std::move(m_Queue.front());
            m_Queue.pop_front();
            lock.unlock();
            Write(record);
            lock.lock();
        }
        if (m_Stop) {
            return;
        }
        if (m_File != nullptr) {
            fflush(m_File);
        }
    }
}

void EventLog::Write(const EventRecord& r) {
    if (m_Sink == Sink::kJournal) {
        const int priority = r.verdict == "denied" ? LOG_WARNING : LOG_NOTICE;
        sd_journal_send(
            "MESSAGE=%s %s (process %s, user %s)%s%s", r.verdict.c_str(), r.target.c_str(),
            r.process.c_str(), r.user.c_str(), r.reason.empty() ? "" : ": ", r.reason.c_str(),
            "PRIORITY=%d", priority, "SYSLOG_IDENTIFIER=zelk-agent", "ZELK_VERDICT=%s",
            r.verdict.c_str(), "ZELK_TARGET=%s", r.target.c_str(), "ZELK_SHA256=%s",
            r.sha256.c_str(), "ZELK_PROCESS=%s", r.process.c_str(), "ZELK_PID=%lld",
            static_cast<long long>(r.pid), "ZELK_USER=%s", r.user.c_str(), "ZELK_RULE=%s",
            r.rule.c_str(), "ZELK_REASON=%s", r.reason.c_str(), nullptr);
    } else if (m_Sink == Sink::kFile) {
        std::unique_ptr<cJSON, decltype(&cJSON_Delete)> line(cJSON_CreateObject(), cJSON_Delete);
        cJSON* o = line.get();
        cJSON_AddNumberToObject(o, "time_ms", static_cast<double>(r.timeMs));
        cJSON_AddStringToObject(o, "verdict", r.verdict.c_str());
        cJSON_AddStringToObject(o, "target", r.target.c_str());
        cJSON_AddStringToObject(o, "sha256", r.sha256.c_str());
        cJSON_AddStringToObject(o, "process", r.process.c_str());
        cJSON_AddNumberToObject(o, "pid", static_cast<double>(r.pid));
        cJSON_AddStringToObject(o, "user", r.user.c_str());
        cJSON_AddStringToObject(o, "rule", r.rule.c_str());
        cJSON_AddStringToObject(o, "reason", r.reason.c_str());
        char* text = cJSON_PrintUnformatted(o);
        if (text != nullptr) {
            fprintf(m_File, "%s\n", text);
            cJSON_free(text);
        }
    }
    m_Written.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace zelkagent
