// Rule path matching.  Input: "path\npattern\nlist" (the list is the rest, so
// it may hold newlines).  Besides running clean under the sanitizers, the
// results must keep the rules that callers rely on.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ZELKMatch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t first = input.find('\n');
    const size_t second = first == std::string::npos ? first : input.find('\n', first + 1);
    std::string text = input.substr(0, first);
    std::string pattern =
        first == std::string::npos ? "" : input.substr(first + 1, second - first - 1);
    std::string list = second == std::string::npos ? "" : input.substr(second + 1);

    const bool prefix = text.rfind(pattern, 0) == 0;
    const bool matched = MatchFunction(text, pattern);
    if (prefix && !matched) {
        abort();  // a literal prefix always matches
    }
    if (pattern.find_first_of("*?") == std::string::npos && matched != prefix) {
        abort();  // without wildcards only the prefix rule applies
    }
    if (!MatchFunction(text, text)) {
        abort();
    }

    const bool inList = MatchEventPathWithRulePath(text, list);
    // A list matches exactly when one of its non-empty pieces does.
    bool anyPiece = false;
    size_t from = 0;
    while (from <= list.size()) {
        size_t end = list.find(';', from);
        if (end == std::string::npos) {
            end = list.size();
        }
        if (end > from && MatchFunction(text, list.substr(from, end - from))) {
            anyPiece = true;
        }
        from = end + 1;
    }
    if (inList != anyPiece) {
        abort();
    }
    return 0;
}
