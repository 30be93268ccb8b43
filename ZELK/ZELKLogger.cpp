#define ZELK_LOG_FILE "ZELK/ZELKLogger"
#include "ZELKLogger.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {
constexpr size_t kMessageBufferSize = 1024;
constexpr size_t kTimeBufferSize = 160;
constexpr unsigned kAllLevels = ZLOG_INFO | ZLOG_WARNING | ZLOG_ERROR | ZLOG_TRACE;
}  // namespace

ZELKLogger::~ZELKLogger() {
    std::lock_guard<std::mutex> lock(m_FileMutex);
    CloseFile();
}

int ZELKLogger::InitLogger(Callback callback, unsigned mask) {
    if (GetInited()) {
        ZWARNING("ZELK Logging already initialized!");
        return 0;
    }
    if (callback != nullptr) {
        SetCallback(callback);
        SetLogMask(mask);
    } else {
        // Without a host to filter for, the file gets every level.
        SetLogMask(kAllLevels);
        SetLogPath("LogFile.log");
        std::lock_guard<std::mutex> lock(m_FileMutex);
        OpenFile();
    }
    SetInited(true);
    return 0;
}

void ZELKLogger::SetLogPath(const std::string& path) {
    std::lock_guard<std::mutex> lock(m_FileMutex);
    m_LogPath = path;
}

void ZELKLogger::OpenFile() {
    if (!m_LogPath.empty() && !m_File.is_open()) {
        m_File.open(m_LogPath, std::ios::out | std::ios::app);
    }
}

void ZELKLogger::CloseFile() {
    if (m_File.is_open()) {
        m_File.close();
    }
}

void ZELKLogger::WriteLog(const std::string& line) {
    std::lock_guard<std::mutex> lock(m_FileMutex);
    if (m_File.is_open() && m_File.good()) {
        m_File << line << '\n';
        m_File.flush();
    }
}

const char* ZELKLogger::LogLevelToString(unsigned level) {
    switch (level) {
        case ZLOG_INFO:
            return "INFO";
        case ZLOG_WARNING:
            return "WARNING";
        case ZLOG_ERROR:
            return "ERROR";
        case ZLOG_TRACE:
            return "TRACE";
        default:
            return "UNKNOWN";
    }
}

void ZELKLogger::Log(int level, const char* function, const char* file, int line,
                     const char* format, ...) {
    if (!IsEnabled(static_cast<unsigned>(level))) {
        return;
    }
    char message[kMessageBufferSize];
    va_list args;
    va_start(args, format);
    int written = vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    if (written < 0) {
        message[0] = '\0';
    }

    Callback callback = m_Callback.load(std::memory_order_acquire);
    if (callback != nullptr) {
        callback(static_cast<unsigned>(level), static_cast<unsigned>(line), function, file, message,
                 static_cast<unsigned>(strlen(message)));
        return;
    }

    char timeText[kTimeBufferSize] = {0};
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) != nullptr) {
        strftime(timeText, sizeof(timeText), "%Y %m %d %X ", &local);
    }
    std::string text;
    text.reserve(strlen(timeText) + strlen(message) + 96);
    text.append(timeText)
        .append(LogLevelToString(static_cast<unsigned>(level)))
        .append(" ")
        .append(file ? file : "")
        .append(" ")
        .append(function ? function : "")
        .append(" ")
        .append(std::to_string(line))
        .append(": ")
        .append(message);
    WriteLog(text);
}
