#include "Progress.h"

#include <unistd.h>

namespace zelkctl {
namespace {
// A terminal redraws often enough to look live; a log gets a line now and
// then.
constexpr std::chrono::milliseconds kTerminalInterval(100);
constexpr std::chrono::seconds kPlainInterval(5);
constexpr int kBarWidth = 24;

std::string Duration(double seconds) {
    if (seconds < 0 || seconds > 99 * 3600) {
        return "--:--";
    }
    unsigned s = static_cast<unsigned>(seconds + 0.5);
    char text[32];
    if (s >= 3600) {
        snprintf(text, sizeof(text), "%u:%02u:%02u", s / 3600, s / 60 % 60, s % 60);
    } else {
        snprintf(text, sizeof(text), "%u:%02u", s / 60, s % 60);
    }
    return text;
}
}  // namespace

Progress::Progress(FILE* out, uint64_t totalFiles, uint64_t totalBytes)
    : m_Out(out),
      m_Terminal(isatty(fileno(out)) != 0),
      m_TotalFiles(totalFiles),
      m_TotalBytes(totalBytes),
      m_Start(Clock::now()),
      m_LastDraw(m_Start) {}

std::string Progress::Bytes(double bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
    return text;
}

void Progress::AddBytes(uint64_t bytes) {
    m_Bytes += bytes;
    Draw(false);
}

void Progress::FileDone() {
    ++m_Files;
    Draw(false);
}

std::string Progress::Line(double seconds) const {
    double rate = seconds > 0 ? m_Bytes / seconds : 0;
    std::string text;
    if (m_Terminal) {
        double done = m_TotalBytes > 0   ? static_cast<double>(m_Bytes) / m_TotalBytes
                      : m_TotalFiles > 0 ? static_cast<double>(m_Files) / m_TotalFiles
                                         : 0;
        int fill = static_cast<int>(done * kBarWidth);
        fill = fill > kBarWidth ? kBarWidth : fill;
        text = "[" + std::string(fill, '#') + std::string(kBarWidth - fill, '.') + "] ";
    }
    text += std::to_string(m_Files) + "/" + std::to_string(m_TotalFiles) + " files, " +
            Bytes(static_cast<double>(m_Bytes)) + "/" + Bytes(static_cast<double>(m_TotalBytes)) +
            ", " + Bytes(rate) + "/s";
    if (rate > 0 && m_TotalBytes > m_Bytes) {
        text += ", ETA " + Duration((m_TotalBytes - m_Bytes) / rate);
    }
    return text;
}

void Progress::Draw(bool force) {
    Clock::time_point now = Clock::now();
    auto interval = m_Terminal ? std::chrono::duration_cast<Clock::duration>(kTerminalInterval)
                               : std::chrono::duration_cast<Clock::duration>(kPlainInterval);
    if (!force && now - m_LastDraw < interval) {
        return;
    }
    m_LastDraw = now;
    double seconds = std::chrono::duration<double>(now - m_Start).count();
    if (m_Terminal) {
        fprintf(m_Out, "\r\033[K%s", Line(seconds).c_str());
    } else {
        fprintf(m_Out, "progress: %s\n", Line(seconds).c_str());
    }
    fflush(m_Out);
}

void Progress::Finish() {
    Draw(true);
    if (m_Terminal) {
        fputc('\n', m_Out);
    }
}

}  // namespace zelkctl
