// Shared helpers for the test suites: a fresh scratch folder per test, a log
// capture callback, and a host event builder.
#ifndef ZELK_TESTS_TESTUTIL_H_
#define ZELK_TESTS_TESTUTIL_H_

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "zelk.h"

namespace zelktest {

// A folder of its own for the running test, emptied first:
// <build>/scratch/<suite>.<test>.
inline std::string ScratchDir() {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "." + info->name();
    for (char& c : name) {
        if (c == '/') {
            c = '_';
        }
    }
    std::filesystem::path dir = std::filesystem::path(ZELK_TEST_SCRATCH_ROOT) / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir.string();
}

inline void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// One captured log record.
struct LogRecord {
    unsigned level;
    unsigned line;
    std::string function;
    std::string file;
    std::string message;
    unsigned length;
};

// Collects log records from the engine's callback (thread-safe).
class LogCapture {
  public:
    static LogCapture& Get() {
        static LogCapture capture;
        return capture;
    }
    static int Callback(unsigned level, unsigned line, const char* function, const char* file,
                        const char* message, unsigned length) {
        LogCapture& c = Get();
        std::lock_guard<std::mutex> lock(c.m_Mutex);
        c.m_Records.push_back({level, line, function ? function : "", file ? file : "",
                               message ? message : "", length});
        return 0;
    }
    std::vector<LogRecord> Records() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Records;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Records.clear();
    }
    // True when some record's message equals `message` exactly.
    bool Contains(const std::string& message) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        for (const LogRecord& r : m_Records) {
            if (r.message == message) {
                return true;
            }
        }
        return false;
    }
    // Number of records whose message contains `part`.
    size_t CountContaining(const std::string& part) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        size_t n = 0;
        for (const LogRecord& r : m_Records) {
            if (r.message.find(part) != std::string::npos) {
                ++n;
            }
        }
        return n;
    }

  private:
    std::mutex m_Mutex;
    std::vector<LogRecord> m_Records;
};

// A start record that logs every level to LogCapture.  The record points at
// a copy of `dbPath` that lives until the next call, so a temporary path is
// safe to pass.
inline ac_engine_start_s StartRecord(const std::string& dbPath, unsigned mask = 15) {
    static std::string path;
    path = dbPath;
    ac_engine_start_s start;
    memset(&start, 0, sizeof(start));
    start.dbPath = path.c_str();
    start.logMask = mask;
    start.logCallback = &LogCapture::Callback;
    return start;
}

// A host event with every pointer null and every number zero.
inline ac_wrapper_event_s EmptyEvent() {
    ac_wrapper_event_s event;
    memset(&event, 0, sizeof(event));
    return event;
}

// A program start of `target` (4 bytes, SHA-256 `sha`) by /usr/bin/bash run
// by alice; the record points at `target` and `sha`, which must outlive it.
inline ac_wrapper_event_s ExecEvent(const std::string& target, uint8_t* sha) {
    ac_wrapper_event_s e = EmptyEvent();
    e.eventType = ZELK_EVENT_EXEC_PRE;
    e.pid = 100;
    e.processName = "/usr/bin/bash";
    e.name = target.c_str();
    e.user = "alice";
    e.group = "staff";
    e.isexec = 1;
    e.size = 4;
    e.fileSha256 = sha;
    return e;
}

}  // namespace zelktest

#endif  // ZELK_TESTS_TESTUTIL_H_
