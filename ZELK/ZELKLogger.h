// ZELKLogger: the one process-wide logger.  Messages go either to the host's
// callback (already formatted) or, without a callback, to "LogFile.log" in the
// working directory.  A bit mask selects which levels pass.
#ifndef ZELK_ZELKLOGGER_H_
#define ZELK_ZELKLOGGER_H_

#include <atomic>
#include <fstream>
#include <mutex>
#include <string>

#include "zelk.h"

enum ZELKLogLevel : unsigned {
    ZLOG_INFO = 1,
    ZLOG_WARNING = 2,
    ZLOG_ERROR = 4,
    ZLOG_TRACE = 8,
};

class ZELKLogger {
  public:
    using Callback = ac_log_callback_t;

    // The singleton, created on first use and destroyed at process exit.
    // Defined here so every log call site tests the level after an inlined
    // guard check instead of a call into another file.
    static ZELKLogger& GetInstance() {
        static ZELKLogger instance;
        return instance;
    }

    // First call: with a callback stores it and the mask; without one logs
    // every level to "LogFile.log".  Later calls only warn.  Always returns 0.
    int InitLogger(Callback callback, unsigned mask);

    // True when a message of `level` would be written: the logger is
    // initialised and every bit of `level` is in the mask.  Lets call sites
    // skip formatting entirely.
    bool IsEnabled(unsigned level) const {
        return m_Inited.load(std::memory_order_acquire) &&
               (level & ~m_LogMask.load(std::memory_order_relaxed)) == 0;
    }

    // printf-style; messages longer than 1023 bytes are cut.
    void Log(int level, const char* function, const char* file, int line, const char* format, ...)
        __attribute__((format(printf, 6, 7)));

    void SetLogMask(unsigned mask) { m_LogMask.store(mask, std::memory_order_relaxed); }
    unsigned GetLogMask() const { return m_LogMask.load(std::memory_order_relaxed); }
    void SetLogPath(const std::string& path);
    void SetCallback(Callback callback) { m_Callback.store(callback, std::memory_order_release); }
    bool GetInited() const { return m_Inited.load(std::memory_order_acquire); }
    void SetInited(bool inited) { m_Inited.store(inited, std::memory_order_release); }
    // Opens the log file for appending when a path is set and it is not open.
    void OpenFile();
    void CloseFile();
    // Appends `line` and a newline to the file, when it is open.
    void WriteLog(const std::string& line);
    static const char* LogLevelToString(unsigned level);

    ZELKLogger(const ZELKLogger&) = delete;
    ZELKLogger& operator=(const ZELKLogger&) = delete;

  private:
    ZELKLogger() = default;
    ~ZELKLogger();

    // Guarded by m_FileMutex.
    std::string m_LogPath;
    std::ofstream m_File;
    std::mutex m_FileMutex;

    // Read without a lock on every log call.
    std::atomic<unsigned> m_LogMask{0};
    std::atomic<bool> m_Inited{false};
    std::atomic<Callback> m_Callback{nullptr};
};

// The function name a message carries.  It is the calling function's
// __func__, except inside a lambda, whose __func__ is "operator()": a lambda
// that logs on behalf of its enclosing function declares that function's name
// as `zelkLogFunction_` (a parameter written ZELK_LOG_FUNCTION, or an
// init-capture), which hides this null default.  The exception guard of the
// exported functions passes each body its function's name that way, so every
// message of an exported function names the function the host called.
constexpr const char* zelkLogFunction_ = nullptr;
#define ZELK_LOG_FUNCTION const char* zelkLogFunction_

// Every source file defines ZELK_LOG_FILE (the module text the host sees, e.g.
// "ZELK/ZELKQuery") before including this header.  The macros supply the
// function name and line and cost one mask test when the level is off.
#define ZELK_LOG(level, ...)                                                         \
    do {                                                                             \
        ZELKLogger& zelkLogger_ = ZELKLogger::GetInstance();                         \
        if (zelkLogger_.IsEnabled(level))                                            \
            zelkLogger_.Log((level), zelkLogFunction_ ? zelkLogFunction_ : __func__, \
                            ZELK_LOG_FILE, __LINE__, __VA_ARGS__);                   \
    } while (0)

#define ZTRACE(...) ZELK_LOG(ZLOG_TRACE, __VA_ARGS__)
#define ZINFO(...) ZELK_LOG(ZLOG_INFO, __VA_ARGS__)
#define ZWARNING(...) ZELK_LOG(ZLOG_WARNING, __VA_ARGS__)
#define ZERROR(...) ZELK_LOG(ZLOG_ERROR, __VA_ARGS__)

#endif  // ZELK_ZELKLOGGER_H_
