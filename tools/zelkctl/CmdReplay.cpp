// zelkctl replay: recorded host events through app_ctl, one verdict each.
#include <cjson/cJSON.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>

#include "Commands.h"
#include "Snapshot.h"
#include "TraceParser.h"
#include "Verdict.h"

namespace zelkctl {
namespace {

std::string Shorten(std::string text, const std::string& strip, size_t width) {
    if (!strip.empty() && text.compare(0, strip.size(), strip) == 0) {
        text = text.substr(strip.size());
    }
    if (text.size() > width) {
        text = "..." + text.substr(text.size() - (width - 3));
    }
    return text;
}

void PrintJsonLine(unsigned lineNo, const hostkit::TraceLine& line, uint32_t status,
                   const ac_wrapper_response_s& r, const Verdict& v) {
    cJSON* o = cJSON_CreateObject();
    cJSON_AddNumberToObject(o, "line", lineNo);
    if (!line.label.empty()) {
        cJSON_AddStringToObject(o, "label", line.label.c_str());
    }
    cJSON_AddStringToObject(o, "event", hostkit::NameForEvent(line.event.eventType).c_str());
    cJSON_AddNumberToObject(o, "code", line.event.eventType);
    cJSON_AddStringToObject(o, "process", line.event.processName.value_or("").c_str());
    cJSON_AddStringToObject(o, "target", line.event.name.value_or("").c_str());
    cJSON_AddNumberToObject(o, "status", status);
    cJSON_AddStringToObject(o, "statusText", StatusText(status).c_str());
    cJSON_AddStringToObject(o, "verdict", v.word.c_str());
    cJSON_AddStringToObject(o, "why", v.why.c_str());
    cJSON_AddNumberToObject(o, "action", r.action);
    cJSON_AddNumberToObject(o, "itemType", r.itemType);
    cJSON_AddNumberToObject(o, "source", r.source);
    cJSON_AddNumberToObject(o, "authorizedState", r.authorizedState);
    cJSON_AddNumberToObject(o, "eventType", r.eventType);
    cJSON_AddNumberToObject(o, "extra", r.extra);
    cJSON_AddNumberToObject(o, "isAuthorized", r.isAuthorized);
    cJSON_AddStringToObject(o, "ruleset", ResponseRuleset(r).c_str());
    cJSON_AddNumberToObject(o, "ctimeNs", static_cast<double>(r.ctimeNs));
    char* text = cJSON_PrintUnformatted(o);
    printf("%s\n", text);
    free(text);
    cJSON_Delete(o);
}

void PrintSummaryJson(const VerdictTotals& t) {
    cJSON* o = cJSON_CreateObject();
    cJSON* s = cJSON_AddObjectToObject(o, "summary");
    cJSON_AddNumberToObject(s, "events", t.events);
    cJSON_AddNumberToObject(s, "allowed", t.allowed);
    cJSON_AddNumberToObject(s, "blocked", t.blocked);
    cJSON_AddNumberToObject(s, "unknownAllowed", t.unknownAllowed);
    cJSON_AddNumberToObject(s, "unknownBlocked", t.unknownBlocked);
    cJSON_AddNumberToObject(s, "noDecision", t.none);
    cJSON_AddNumberToObject(s, "errors", t.errors);
    cJSON_AddNumberToObject(s, "malformed", t.malformed);
    unsigned decided = t.allowed + t.blocked + t.unknownAllowed + t.unknownBlocked;
    cJSON_AddNumberToObject(s, "decisionRate", t.events == 0 ? 0.0 : double(decided) / t.events);
    char* text = cJSON_PrintUnformatted(o);
    printf("%s\n", text);
    free(text);
    cJSON_Delete(o);
}

}  // namespace

int ReplayTrace(const ReplayRun& run, std::string* summary) {
    std::ifstream in(run.trace);
    if (!in) {
        fprintf(stderr, "zelkctl: %s: cannot open trace: %s\n", run.trace.c_str(), strerror(errno));
        return kExitUsage;
    }
    hostkit::TraceVariables vars(run.vars.begin(), run.vars.end());
    const bool table = run.format == "table";
    if (table) {
        printf("%4s  %-11s %-16s %-28s %-17s %s\n", "line", "event", "process", "target", "verdict",
               "why");
    }
    VerdictTotals totals;
    std::string text;
    unsigned lineNo = 0;
    while (std::getline(in, text)) {
        ++lineNo;
        if (hostkit::IsTraceFiller(text)) {
            continue;
        }
        hostkit::TraceLine line;
        std::string error;
        if (!hostkit::ParseTraceLine(text, vars, line, error) ||
            !hostkit::HashTraceTarget(line, error)) {
            fprintf(stderr, "zelkctl: %s:%u: %s; line skipped\n", run.trace.c_str(), lineNo,
                    error.c_str());
            ++totals.malformed;
            continue;
        }
        for (const std::string& warning : line.warnings) {
            fprintf(stderr, "zelkctl: %s:%u: %s\n", run.trace.c_str(), lineNo, warning.c_str());
        }
        ac_wrapper_event_s raw = line.event.Raw();
        ac_wrapper_response_s response;
        memset(&response, 0, sizeof(response));
        uint32_t rc = app_ctl(&raw, &response);
        if (rc != ZELK_STATUS_SUCCESS && rc != ZELK_STATUS_BLOCKED && rc != ZELK_STATUS_FAILURE) {
            fprintf(stderr, "zelkctl: %s\n",
                    StatusMessage(run.trace + ":" + std::to_string(lineNo), rc).c_str());
            return kExitEngine;
        }
        Verdict v = ReadVerdict(response, rc);
        totals.Add(v);
        if (table) {
            std::string event =
                line.label.empty() ? hostkit::NameForEvent(line.event.eventType) : line.label;
            std::string process = line.event.processName.value_or("-");
            size_t slash = process.find_last_of('/');
            if (slash != std::string::npos) {
                process = process.substr(slash + 1);
            }
            printf("%4u  %-11s %-16s %-28s %-17s %s\n", lineNo, Shorten(event, "", 11).c_str(),
                   Shorten(process, "", 16).c_str(),
                   Shorten(line.event.name.value_or("-"), run.strip, 28).c_str(), v.word.c_str(),
                   v.why.c_str());
        } else {
            PrintJsonLine(lineNo, line, rc, response, v);
        }
    }
    if (table) {
        printf("summary: %s\n", totals.Summary().c_str());
    } else {
        PrintSummaryJson(totals);
    }
    if (summary != nullptr) {
        *summary = totals.Summary();
    }
    if (totals.events == 0) {
        fprintf(stderr, "zelkctl: %s: no valid event line\n", run.trace.c_str());
        return kExitUsage;
    }
    return kExitOk;
}

int RunReplay(const LogOptions& log, const ReplayOptions& options) {
    if (options.format != "table" && options.format != "jsonl") {
        fprintf(stderr, "zelkctl: --format is table or jsonl\n");
        return kExitUsage;
    }
    HostModes modes;
    int exit = kExitOk;
    if (!ResolveModes(options.db, options.modes, modes, exit)) {
        return exit;
    }
    ReplayRun run;
    run.trace = options.trace;
    run.format = options.format;
    for (const std::string& var : options.vars) {
        size_t eq = var.find('=');
        if (eq == std::string::npos || eq == 0) {
            fprintf(stderr, "zelkctl: --set wants NAME=VALUE, got \"%s\"\n", var.c_str());
            return kExitUsage;
        }
        run.vars.emplace_back(var.substr(0, eq), var.substr(eq + 1));
    }
    Snapshot snapshot;
    std::string dbPath;
    if (!DecisionDatabase(options.db, options.record, true, snapshot, dbPath)) {
        return kExitEngine;
    }
    EngineSession session(log);
    if (!session.Start(dbPath)) {
        return kExitEngine;
    }
    for (const std::string& spec : options.rulesets) {
        std::string file, name;
        hostkit::SplitRulesetSpec(spec, file, name);
        // Each ruleset adds to the store, and only to the snapshot unless
        // --record: a what-if may use any document.
        ImportRequest request;
        request.file = file;
        request.name = name;
        request.incremental = true;
        request.quiet = options.format != "table";
        request.force = true;
        int rc = ImportFile(session, request);
        if (rc != kExitOk) {
            return rc;
        }
    }
    if (!ApplyModes(modes)) {
        return kExitEngine;
    }
    if (options.format == "table") {
        printf("mode: %s\n", DescribeModes(modes).c_str());
    }
    return ReplayTrace(run, nullptr);
}

}  // namespace zelkctl
