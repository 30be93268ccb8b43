// Progress of a long scan: a redrawn bar on a terminal (files, bytes, rate,
// ETA), plain lines every few seconds otherwise, so logs of unattended runs
// stay readable.
#ifndef ZELK_TOOLS_ZELKCTL_PROGRESS_H_
#define ZELK_TOOLS_ZELKCTL_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace zelkctl {

class Progress {
  public:
    // Totals known in advance (0 when not known); output goes to `out`.
    Progress(FILE* out, uint64_t totalFiles, uint64_t totalBytes);

    void AddBytes(uint64_t bytes);
    void FileDone();
    // Draws the final state and ends the line.
    void Finish();

    // "1.5 MiB"
    static std::string Bytes(double bytes);

  private:
    void Draw(bool force);
    std::string Line(double seconds) const;

    using Clock = std::chrono::steady_clock;
    FILE* m_Out;
    bool m_Terminal;
    uint64_t m_TotalFiles, m_TotalBytes;
    uint64_t m_Files = 0, m_Bytes = 0;
    Clock::time_point m_Start, m_LastDraw;
};

}  // namespace zelkctl

#endif  // ZELK_TOOLS_ZELKCTL_PROGRESS_H_
