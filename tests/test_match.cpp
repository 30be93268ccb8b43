#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "TestUtil.h"
#include "ZELKLogger.h"
#include "ZELKMatch.h"

namespace {

// text, pattern, matched
using MatchCase = std::tuple<const char*, const char*, bool>;

void ExpectCases(const std::vector<MatchCase>& cases) {
    for (const auto& [text, pattern, expected] : cases) {
        EXPECT_EQ(MatchFunction(text, pattern), expected)
            << "text [" << text << "] pattern [" << pattern << "]";
    }
}

// The whole (m+1)x(n+1) table filled row by row exactly as the matching rules
// read, rows i+1 and i+2 of a directory wildcard written out.  The library
// keeps two packed rows instead; this catches its bit and row bookkeeping.
bool ReferenceMatch(const std::string& text, std::string pattern) {
    auto sep = [](char ch) { return ch == '/' || ch == '\\'; };
    if (text.find(pattern) == 0) {
        return true;
    }
    if (pattern.find('*') == std::string::npos && pattern.find('?') == std::string::npos) {
        return false;
    }
    if (pattern.size() > 1 && pattern.compare(pattern.size() - 2, 2, "**") == 0) {
        pattern += "/*";
    } else if (sep(pattern.back())) {
        pattern += "*";
    }
    const size_t m = pattern.size();
    const size_t n = text.size();
    std::vector<std::vector<bool>> d(m + 1, std::vector<bool>(n + 1, false));
    d[0][0] = true;
    for (size_t i = 1; i <= m; ++i) {
        const char c = pattern[i - 1];
        d[i][0] = c == '*' && d[i - 1][0];
        const bool g = c == '*' && i + 1 < m && pattern[i] == '*' && sep(pattern[i + 1]);
        if (g) {
            bool after = false;
            for (size_t j = 1; j <= n; ++j) {
                const char t = text[j - 1];
                if (!after) {
                    d[i][j] = d[i - 1][j] || d[i][j - 1];
                    if (d[i][j - 1] && sep(t)) {
                        after = true;
                    }
                } else {
                    d[i][j] = sep(t);
                }
                d[i + 1][j] = d[i + 2][j] = d[i][j];
            }
            d[i + 1][0] = d[i + 2][0] = d[i][0];
            i += 2;
            continue;
        }
        for (size_t j = 1; j <= n; ++j) {
            const char t = text[j - 1];
            if (c == '*') {
                d[i][j] = sep(t) ? d[i - 1][j] : (d[i - 1][j] || d[i][j - 1]);
            } else {
                d[i][j] = d[i - 1][j - 1] && (c == t || (c == '?' && !sep(t)));
            }
        }
    }
    return d[m][n];
}

}  // namespace

TEST(Match, LiteralPrefixAndPlainPatterns) {
    // clang-format off
    ExpectCases({
        {"/usr/bin/ls", "/usr/bin", true}, {"/usr/binx", "/usr/bin", true},
        {"/usr/bin", "/usr/bin", true}, {"/usr/bi", "/usr/bin", false},
        {"/opt/app/bin/x", "/opt/app", true}, {"/opt/application", "/opt/app", true},
        {"/opt/anything/below", "/opt/", true}, {"C:\\dir\\file.exe", "C:\\dir\\", true},
        {"/x/opt/app", "/opt/app", false},  // must start at position 0
        {"/OPT/app", "/opt/app", false}, {"/any/path", "", true}, {"", "", true}, {"", "/a", false},
        // Wildcard bytes are taken literally by the prefix test.
        {"/usr/*/ls/x", "/usr/*/ls", true}, {"/tmp/?.sh", "/tmp/?.sh", true},
        // A plain pattern that is not a prefix never matches, even when it
        // ends in a separator that would otherwise gain a "*".
        {"/optx/a", "/opt/", false}, {"/opt\\a", "/opt/", false},
    });
    // clang-format on
}

TEST(Match, SingleStarAndQuestionMark) {
    // clang-format off
    ExpectCases({
        {"/usr/bin/ls", "/usr/*/ls", true}, {"/usr/bin/sub/ls", "/usr/*/ls", false},
        {"/usr//ls", "/usr/*/ls", true},  // a star may be empty
        {"/usr\\bin\\ls", "/usr/*/ls", false}, 
        {"/usr/bin\\x/ls", "/usr/*/ls", false},  // nor cross a backslash
        {"/tmp/a.sh", "/tmp/?.sh", true}, {"/tmp//.sh", "/tmp/?.sh", false},
        {"/tmp/\\.sh", "/tmp/?.sh", false}, {"/tmp/ab.sh", "/tmp/?.sh", false},
        {"/tmp/.sh", "/tmp/?.sh", false}, {"/a/x", "/A/*", false}, {"/A/x", "/A/*", true},
        {"/A/x/y", "/A/*", false}, {"/a/bc", "/a/*c", true}, {"/a/bcd", "/a/*c", false},
        {"/a/b", "/a/**b", true},  // "**" without a separator is two plain stars
        {"/a/x/b", "/a/**b", false}, {"abc", "*", true}, {"", "*", true}, {"/", "*", false},
        {"x", "?", true}, {"", "?", false},
        // A pattern with wildcards ending in a separator gains a "*".
        {"/opt/x", "/op?/", true}, {"/opt/x/y", "/op?/", false}, {"\\opt\\x", "\\op?\\", true},
        {"\\opt\\x\\y", "\\op?\\", false},
    });
    // clang-format on
}

TEST(Match, DirectoryWildcard) {
    // clang-format off
    ExpectCases({
        // Trailing "**" is read as "**/*".
        {"/usr/a/b/c", "/usr/**", true}, {"/usr/a", "/usr/**", true}, {"/usr/", "/usr/*", true},
        {"/usrx/a", "/us?/**", false}, {"/usr/a/b\\c", "/us?/**", true}, {"abc", "**", true},
        {"a/b/c", "**", true}, {"a/b/c", "?**", true},
        // Permissive before the first separator, strict after it.
        {"/a/b", "/a/**/b", true}, {"/a/xb", "/a/**/b", true}, {"/a/x/y/b", "/a/**/b", true},
        {"/a//b", "/a/**/b", true}, {"/a/x/yb", "/a/**/b", false}, {"/a/x/y/bc", "/a/**/b", false},
        {"/a/", "/a/**/b", false}, {"/ab", "/a/**/b", false}, {"/a/x/y/b", "/a/**\\b", true},
        {"\\a\\x\\y\\b", "\\a\\**\\b", true}, {"\\a\\x/y\\b", "\\a\\**/b", true},
        {"C:\\dir\\a\\b", "C:\\dir\\**", true},
        // Row 1 is the wildcard: column 0 must carry into the two rows it
        // consumes, or "b" alone would fail.
        {"b", "**/b", true}, {"ab", "**/b", true}, {"/b", "**/b", true}, {"x/y/b", "**/b", true},
        {"a/xb", "**/b", false},
        // The switch to strict needs the cell to the left, not the one above:
        // reading the row above would end the permissive part at the very
        // first "/" and reject this.
        {"/xb", "/**/b", true}, {"/x/b", "/**/b", true}, {"/x/yb", "/**/b", false},
        // Next row after the wildcard is the byte after its separator: a
        // wildcard that consumed one row too few or too many shows here.
        {"/a/b/c", "/a/**/?/c", true}, {"/a/x/b/c", "/a/**/?/c", true},
        {"/a/x/bc/c", "/a/**/?/c", false}, {"/a/x/c", "/a/**/*/c", true},
        {"/a/x/y/c", "/a/**/*/c", true},
        // Two wildcards in one pattern, each switching once in its own row.
        {"/a/x/y/b/z/c", "/a/**/b/**/c", true}, {"/a/b/c", "/a/**/b/**/c", true},
        {"/a/b/zc", "/a/**/b/**/c", true}, {"/a/b/z/qc", "/a/**/b/**/c", false},
    });
    // clang-format on
}

TEST(Match, LongTextsCrossWordBoundaries) {
    // Separators and the final byte placed around bits 63/64/65 and 127/128.
    for (size_t len : {61u, 62u, 63u, 64u, 65u, 66u, 126u, 127u, 128u, 129u, 5000u}) {
        std::string dir(len, 'd');
        std::string text = "/" + dir + "/z";
        EXPECT_TRUE(MatchFunction(text, "/*/z")) << len;
        EXPECT_TRUE(MatchFunction(text, "/**/z")) << len;
        EXPECT_FALSE(MatchFunction(text, "/*/y")) << len;
        EXPECT_FALSE(MatchFunction(text + "/z", "/*/z")) << len;
        EXPECT_TRUE(MatchFunction(text + "/z", "/**/z")) << len;
        EXPECT_EQ(MatchFunction(text, "/" + std::string(len, '?') + "/?"), true) << len;
        EXPECT_EQ(MatchFunction(text, "/" + std::string(len - 1, '?') + "/?"), false) << len;
    }
}

TEST(Match, AgreesWithFullTable) {
    // Short alphabets make separators, stars and literal hits frequent.
    std::mt19937 rng(20240611);
    const std::string textBytes = "ab/\\";
    const std::string patternBytes = "ab/\\*?";
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        std::string pattern;
        const size_t textLen = rng() % (round % 10 == 0 ? 150 : 12);
        const size_t patternLen = rng() % 9;
        for (size_t k = 0; k < textLen; ++k) {
            text += textBytes[rng() % textBytes.size()];
        }
        for (size_t k = 0; k < patternLen; ++k) {
            pattern += patternBytes[rng() % patternBytes.size()];
        }
        ASSERT_EQ(MatchFunction(text, pattern), ReferenceMatch(text, pattern))
            << "text [" << text << "] pattern [" << pattern << "]";
    }
}

TEST(Match, RulePathLists) {
    ASSERT_EQ(ZELKLogger::GetInstance().InitLogger(&zelktest::LogCapture::Callback, 15), 0);

    // path, ";"-separated rule paths, matched
    // clang-format off
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"/opt/tool", "x;;/opt/*;", true}, {"x", "x;;/opt/*;", true},
        {"/opt/a/b", "x;;/opt/*;", false}, {"/anything", "", false},
        {"/anything", ";", false}, {"/anything", ";;;", false},
        {"/usr/bin/ls", "/bin;/usr/bin", true}, {"/usr/bin/ls", "/usr/bin;/bin", true},
        {"/usr/bin/ls", "/bin;/sbin", false}, {"/srv/a.sh", ";/srv/?.sh", true},
        {"/srv/a/b", "/srv/**", true}};
    // clang-format on
    for (const auto& [path, list, expected] : cases) {
        std::string p = path, l = list;  // the arguments must come back unchanged
        EXPECT_EQ(MatchEventPathWithRulePath(p, l), expected)
            << "[" << path << "] [" << list << "]";
        EXPECT_EQ(p + "|" + l, path + "|" + list);
    }

    // The first matching piece is the one reported.
    zelktest::LogCapture::Get().Clear();
    std::string path = "/usr/bin/ls";
    std::string list = "/etc;/usr/*/ls;/usr";
    EXPECT_TRUE(MatchEventPathWithRulePath(path, list));
    EXPECT_TRUE(zelktest::LogCapture::Get().Contains(
        "Match found between event path [/usr/bin/ls] and rule path [/usr/*/ls]"));
    EXPECT_EQ(zelktest::LogCapture::Get().CountContaining("Match found"), 1u);
}
