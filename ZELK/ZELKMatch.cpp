#define ZELK_LOG_FILE "ZELK/ZELKDataAccessLayer"
#include "ZELKMatch.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "ZELKLogger.h"

namespace {

using Word = uint64_t;
constexpr size_t kWordBits = 64;
// Rows for texts up to PATH_MAX and a little more live on the stack, so the
// common case allocates nothing.
constexpr size_t kStackWords = 4096 / kWordBits + 1;

inline bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

inline bool GetBit(const Word* row, size_t j) {
    return (row[j / kWordBits] >> (j % kWordBits)) & 1u;
}
inline void SetBit(Word* row, size_t j) {
    row[j / kWordBits] |= Word{1} << (j % kWordBits);
}

// The pattern as the table reads it: the caller's bytes followed by what the
// normalisation appends ("/*" after a trailing "**", "*" after a trailing
// separator), without copying the caller's bytes.
class NormalisedPattern {
  public:
    explicit NormalisedPattern(std::string_view body) : m_Body(body) {
        if (body.size() > 1 && body.compare(body.size() - 2, 2, "**") == 0) {
            m_Tail[0] = '/';
            m_Tail[1] = '*';
            m_TailLength = 2;
        } else if (!body.empty() && IsSeparator(body.back())) {
            m_Tail[0] = '*';
            m_TailLength = 1;
        }
    }
    size_t size() const { return m_Body.size() + m_TailLength; }
    char operator[](size_t k) const {
        return k < m_Body.size() ? m_Body[k] : m_Tail[k - m_Body.size()];
    }

  private:
    std::string_view m_Body;
    char m_Tail[2] = {0, 0};
    size_t m_TailLength = 0;
};

// D[i][j]: the first i pattern bytes match the first j text bytes.  Each row
// depends only on the one before it, and the two rows a directory wildcard
// consumes are copies of its own row, so two bit rows of n+1 bits suffice.
bool MatchTable(std::string_view text, const NormalisedPattern& pattern) {
    const size_t n = text.size();
    const size_t m = pattern.size();
    const size_t words = n / kWordBits + 1;

    Word stackRows[2 * kStackWords];
    std::vector<Word> heapRows;
    Word* storage = stackRows;
    if (words > kStackWords) {
        heapRows.resize(2 * words);
        storage = heapRows.data();
    }
    Word* prev = storage;
    Word* cur = storage + words;
    std::fill(prev, prev + words, Word{0});
    SetBit(prev, 0);

    for (size_t i = 1; i <= m;) {
        const char c = pattern[i - 1];
        const bool dirWildcard =
            c == '*' && i + 2 <= m && pattern[i] == '*' && IsSeparator(pattern[i + 1]);
        std::fill(cur, cur + words, Word{0});

        bool left = c == '*' && GetBit(prev, 0);  // D[i][j-1], starting with column 0
        bool any = left;
        if (left) {
            SetBit(cur, 0);
        }

        if (dirWildcard) {
            // Permissive until the row first steps over a separator, then only
            // separator positions stay reachable; the switch is once per row.
            bool afterSeparator = false;
            for (size_t j = 1; j <= n; ++j) {
                const char t = text[j - 1];
                bool value;
                if (!afterSeparator) {
                    value = GetBit(prev, j) || left;
                    if (left && IsSeparator(t)) {
                        afterSeparator = true;
                    }
                } else {
                    value = IsSeparator(t);
                }
                if (value) {
                    SetBit(cur, j);
                    any = true;
                }
                left = value;
            }
            i += 3;
        } else if (c == '*') {
            for (size_t j = 1; j <= n; ++j) {
                const char t = text[j - 1];
                const bool value = IsSeparator(t) ? GetBit(prev, j) : (GetBit(prev, j) || left);
                if (value) {
                    SetBit(cur, j);
                    any = true;
                }
                left = value;
            }
            i += 1;
        } else {
            for (size_t j = 1; j <= n; ++j) {
                const char t = text[j - 1];
                if (GetBit(prev, j - 1) && (c == t || (c == '?' && !IsSeparator(t)))) {
                    SetBit(cur, j);
                    any = true;
                }
            }
            i += 1;
        }

        // A row without a reachable cell leaves every later row empty too.
        if (!any) {
            return false;
        }
        std::swap(prev, cur);
    }
    return GetBit(prev, n);
}

bool MatchPattern(std::string_view text, std::string_view pattern) {
    // Same answer as "the first occurrence of pattern is at 0", without
    // scanning the rest of the text.
    if (text.compare(0, pattern.size(), pattern) == 0) {
        return true;
    }
    if (pattern.find_first_of("*?") == std::string_view::npos) {
        return false;
    }
    return MatchTable(text, NormalisedPattern(pattern));
}

}  // namespace

bool MatchEventPathWithRulePath(std::string& eventPath, std::string& rulePaths) {
    const std::string_view list(rulePaths);
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(';', start);
        if (end == std::string_view::npos) {
            end = list.size();
        }
        const std::string_view piece = list.substr(start, end - start);
        if (!piece.empty() && MatchPattern(eventPath, piece)) {
            const std::string pieceText(piece);
            ZTRACE("Match found between event path [%s] and rule path [%s]", eventPath.c_str(),
                   pieceText.c_str());
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool MatchFunction(std::string text, std::string pattern) {
    return MatchPattern(text, pattern);
}
