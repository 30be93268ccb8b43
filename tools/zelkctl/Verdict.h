// Reading an engine response the way an administrator asks about it: what
// was decided (allow, block, unknown, no decision, error) and why.
#ifndef ZELK_TOOLS_ZELKCTL_VERDICT_H_
#define ZELK_TOOLS_ZELKCTL_VERDICT_H_

#include <cstdint>
#include <string>

#include "zelk.h"

namespace zelkctl {

enum class VerdictKind { kAllow, kBlock, kUnknownAllowed, kUnknownBlocked, kNone, kError };

struct Verdict {
    VerdictKind kind = VerdictKind::kNone;
    std::string word;  // "allow", "block", "unknown: allowed", ...
    std::string why;   // one line
    // The block is in the response but app_ctl did not enforce it (the
    // engine waits for the agent manifest of its version).
    bool notEnforced = false;
};

// `status` is app_ctl's return value.
Verdict ReadVerdict(const ac_wrapper_response_s& response, uint32_t status);

// The response's ruleset text (not terminated when it fills the field).
std::string ResponseRuleset(const ac_wrapper_response_s& response);

// "agent manifest", "ruleset", "scanned inventory", ... for a source code.
const char* SourceName(uint32_t source);

bool IsBlock(VerdictKind kind);
bool IsDecided(VerdictKind kind);

// Counts of a run, for the summary lines.
struct VerdictTotals {
    unsigned events = 0, allowed = 0, blocked = 0, unknownAllowed = 0, unknownBlocked = 0, none = 0,
             errors = 0, malformed = 0;
    void Add(const Verdict& v);
    // "12 events: 4 allowed, 3 blocked, ... ; decision rate 58%"
    std::string Summary() const;
};

}  // namespace zelkctl

#endif  // ZELK_TOOLS_ZELKCTL_VERDICT_H_
