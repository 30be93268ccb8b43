#include "Verdict.h"

#include <cstring>

namespace zelkctl {
namespace {

std::string Quoted(const std::string& ruleset) {
    return ruleset.empty() ? std::string() : " '" + ruleset + "'";
}

std::string AllowReason(const ac_wrapper_response_s& r, const std::string& rs) {
    if (r.authorizedState == 1) {
        return "written during the maintenance window";
    }
    switch (r.source) {
        case ZELK_SOURCE_AGENT_RULES:
            return "allowed by the agent manifest" + Quoted(rs);
        case ZELK_SOURCE_EXECUTION_RULES:
            return "allowed by ruleset" + Quoted(rs);
        case ZELK_SOURCE_SCANNED:
            return "in the scanned inventory";
        case ZELK_SOURCE_APPROVED_DRIFT:
            return "approved drift";
        case ZELK_SOURCE_PRELINK:
            return "prelink-maintained item";
        case ZELK_SOURCE_TRUST_RULES:
            return "trusted-execution trust rule" + Quoted(rs);
        default:
            break;
    }
    if (r.authorizedState == 4) {
        return "trusted updater or time-stamp mode";
    }
    return "allowed";
}

std::string BlockReason(const ac_wrapper_response_s& r, const std::string& rs) {
    switch (r.source) {
        case ZELK_SOURCE_TRUST_RULES:
            return "block-by-target trust rule" + Quoted(rs);
        case ZELK_SOURCE_AGENT_RULES:
            return "blocked by the agent manifest" + Quoted(rs);
        case ZELK_SOURCE_EXECUTION_RULES:
            return "blocked by ruleset" + Quoted(rs);
        case ZELK_SOURCE_SCANNED:
            return "inventory entry not valid during a rebuild";
        default:
            return std::string("refused by its ") + SourceName(r.source) + " entry";
    }
}

std::string NoDecisionReason(const ac_wrapper_response_s& r) {
    if (r.authorizedState == 5) {
        return "excluded (skipped folder or exclude trust rule)";
    }
    if (r.eventType == ZELK_ABSTRACT_DRIFT) {
        if (r.isAuthorized == 2 && r.source == ZELK_SOURCE_TRUST_RULES) {
            return "drift; target matches a block-by-target trust rule";
        }
        switch (r.authorizedState) {
            case 1:
                return "drift approved by the maintenance window";
            case 2:
                return "drift of a block-listed file";
            case 3:
                return "drift of an allow-listed file";
            case 4:
                return "drift trusted (updater or trust rule)";
            default:
                return "drift not trusted: the file stays unknown";
        }
    }
    if (r.eventType == ZELK_ABSTRACT_DELETE) {
        return "delete noted (inventory changes only in maintenance)";
    }
    return "nothing to decide for this event";
}

}  // namespace

std::string ResponseRuleset(const ac_wrapper_response_s& response) {
    return std::string(response.ruleset, strnlen(response.ruleset, sizeof(response.ruleset)));
}

const char* SourceName(uint32_t source) {
    switch (source) {
        case ZELK_SOURCE_AGENT_RULES:
            return "agent manifest";
        case ZELK_SOURCE_EXECUTION_RULES:
            return "ruleset";
        case ZELK_SOURCE_SCANNED:
            return "scanned inventory";
        case ZELK_SOURCE_APPROVED_DRIFT:
            return "approved drift";
        case ZELK_SOURCE_PRELINK:
            return "prelink";
        case ZELK_SOURCE_TRUST_RULES:
            return "trust rule";
        default:
            return "none";
    }
}

Verdict ReadVerdict(const ac_wrapper_response_s& r, uint32_t status) {
    Verdict v;
    const std::string rs = ResponseRuleset(r);
    switch (r.action) {
        case ZELK_ACTION_ALLOW:
            if (r.authorizedState == 3 && r.source == 0 && r.isAuthorized == 0) {
                v.kind = VerdictKind::kAllow;
                v.why = "answered from the allow cache";
            } else if (r.isAuthorized == 0 && r.authorizedState == 0) {
                v.kind = VerdictKind::kUnknownAllowed;
                v.why = "not in inventory or rules; log-only mode lets it run";
            } else {
                v.kind = VerdictKind::kAllow;
                v.why = AllowReason(r, rs);
            }
            break;
        case ZELK_ACTION_BLOCK:
            if (r.isAuthorized == 0) {
                v.kind = VerdictKind::kUnknownBlocked;
                v.why = "not in inventory or rules; lockdown blocks it";
            } else {
                v.kind = VerdictKind::kBlock;
                v.why = BlockReason(r, rs);
            }
            if (status != ZELK_STATUS_BLOCKED) {
                v.notEnforced = true;
                v.why += " (not enforced: waiting for the agent manifest)";
            }
            break;
        case ZELK_ACTION_ERROR:
            v.kind = VerdictKind::kError;
            v.why = "no verdict possible (no target path, or target not executable)";
            break;
        default:
            v.kind = VerdictKind::kNone;
            v.why = NoDecisionReason(r);
            break;
    }
    switch (v.kind) {
        case VerdictKind::kAllow:
            v.word = "allow";
            break;
        case VerdictKind::kBlock:
            v.word = "block";
            break;
        case VerdictKind::kUnknownAllowed:
            v.word = "unknown: allowed";
            break;
        case VerdictKind::kUnknownBlocked:
            v.word = "unknown: blocked";
            break;
        case VerdictKind::kNone:
            v.word = "no decision";
            break;
        case VerdictKind::kError:
            v.word = "error";
            break;
    }
    return v;
}

bool IsBlock(VerdictKind kind) {
    return kind == VerdictKind::kBlock || kind == VerdictKind::kUnknownBlocked;
}

bool IsDecided(VerdictKind kind) {
    return kind != VerdictKind::kNone && kind != VerdictKind::kError;
}

void VerdictTotals::Add(const Verdict& v) {
    ++events;
    switch (v.kind) {
        case VerdictKind::kAllow:
            ++allowed;
            break;
        case VerdictKind::kBlock:
            ++blocked;
            break;
        case VerdictKind::kUnknownAllowed:
            ++unknownAllowed;
            break;
        case VerdictKind::kUnknownBlocked:
            ++unknownBlocked;
            break;
        case VerdictKind::kNone:
            ++none;
            break;
        case VerdictKind::kError:
            ++errors;
            break;
    }
}

std::string VerdictTotals::Summary() const {
    unsigned decided = allowed + blocked + unknownAllowed + unknownBlocked;
    unsigned rate = events == 0 ? 0 : (decided * 100 + events / 2) / events;
    std::string text = std::to_string(events) + " events: " + std::to_string(allowed) +
                       " allowed, " + std::to_string(blocked) + " blocked, " +
                       std::to_string(unknownAllowed) + " unknown allowed, " +
                       std::to_string(unknownBlocked) + " unknown blocked, " +
                       std::to_string(none) + " without decision, " + std::to_string(errors) +
                       " errors; decision rate " + std::to_string(rate) + "%";
    if (malformed != 0) {
        text += "; " + std::to_string(malformed) + " malformed lines skipped";
    }
    return text;
}

}  // namespace zelkctl
