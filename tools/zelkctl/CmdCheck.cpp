// zelkctl check: "would this file run?", asked as a program start.
#include <cjson/cJSON.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "HostDigest.h"
#include "HostEvent.h"
#include "Snapshot.h"
#include "Verdict.h"

namespace zelkctl {

// The text form of one verdict.
void PrintVerdictText(const std::string& path, const std::string& word, const Verdict& v,
                      const ac_wrapper_response_s& response,
                      const std::vector<std::string>& reasoning);

bool ResolveModes(const std::string& db, const ModeOptions& options, HostModes& modes, int& exit) {
    std::string error;
    if (!LoadModes(db, modes, error)) {
        fprintf(stderr, "zelkctl: %s\n", error.c_str());
        exit = kExitUsage;
        return false;
    }
    if (options.lockdown && options.logOnly) {
        fprintf(stderr, "zelkctl: --lockdown and --log-only exclude each other\n");
        exit = kExitUsage;
        return false;
    }
    if (options.lockdown) {
        modes.flags |= ZELK_CONFIG_LOCKDOWN;
    }
    if (options.logOnly) {
        modes.flags &= ~ZELK_CONFIG_LOCKDOWN;
    }
    if (!options.maintenance.empty()) {
        std::string error;
        if (!CheckWindow(options.maintenance, modes.maintenanceStart, modes.maintenanceEnd,
                         error)) {
            fprintf(stderr, "zelkctl: %s\n", error.c_str());
            exit = kExitUsage;
            return false;
        }
        modes.flags |= ZELK_CONFIG_AUTO_AUTHORIZE;
    }
    return true;
}

bool DecisionDatabase(const std::string& db, bool record, bool allowMissing, Snapshot& snapshot,
                      std::string& path) {
    const bool missing = access(db.c_str(), F_OK) != 0 && errno == ENOENT;
    if (missing && allowMissing) {
        fprintf(stderr, "zelkctl: %s does not exist: starting from an empty database%s\n",
                db.c_str(), record ? "" : " (not kept)");
        if (record) {
            path = db;
            return true;
        }
    } else if (record) {
        path = db;
        return DatabaseExists(db);
    }
    std::string error;
    if (!(missing && allowMissing ? snapshot.Empty(error) : snapshot.Take(db, error))) {
        fprintf(stderr, "zelkctl: %s\n", error.c_str());
        return false;
    }
    path = snapshot.Path();
    return true;
}

namespace {

std::string CurrentUser() {
    struct passwd* pw = getpwuid(geteuid());
    return pw != nullptr ? pw->pw_name : std::to_string(geteuid());
}

std::string CurrentGroup() {
    struct group* gr = getgrgid(getegid());
    return gr != nullptr ? gr->gr_name : std::to_string(getegid());
}

}  // namespace

int RunCheck(const LogOptions& log, const CheckOptions& options) {
    HostModes modes;
    int exit = kExitOk;
    if (!ResolveModes(options.db, options.modes, modes, exit)) {
        return exit;
    }
    struct Target {
        std::string path;
        hostkit::HostEvent event;
    };
    std::vector<Target> targets;
    for (const std::string& file : options.files) {
        char resolved[PATH_MAX];
        struct stat st;
        if (realpath(file.c_str(), resolved) == nullptr || stat(resolved, &st) != 0 ||
            !S_ISREG(st.st_mode)) {
            fprintf(stderr, "zelkctl: %s: not a regular file\n", file.c_str());
            return kExitUsage;
        }
        hostkit::FileDigests digests;
        int err = 0;
        if (!hostkit::DigestFile(resolved, digests, err)) {
            fprintf(stderr, "zelkctl: %s: cannot read: %s\n", resolved, strerror(err));
            return kExitUsage;
        }
        Target t;
        t.path = resolved;
        hostkit::HostEvent& ev = t.event;
        ev.eventType = ZELK_EVENT_EXEC_PRE;
        ev.pid = static_cast<uint64_t>(getpid());
        ev.processName = options.asProcess;
        ev.name = t.path;
        ev.cmdLine = options.asProcess + " " + t.path;
        ev.user = options.user.empty() ? CurrentUser() : options.user;
        ev.group = CurrentGroup();
        ev.size = digests.size;
        ev.mode = st.st_mode;
        ev.isexec = (st.st_mode & 0111) != 0;
        ev.fileSha256.emplace();
        memcpy(ev.fileSha256->data(), digests.sha256, 32);
        ev.fileSha1.emplace();
        memcpy(ev.fileSha1->data(), digests.sha1, 20);
        ev.fileMd5.emplace();
        memcpy(ev.fileMd5->data(), digests.md5, 16);
        targets.push_back(std::move(t));
    }

    Snapshot snapshot;
    std::string dbPath;
    if (!DecisionDatabase(options.db, options.record, false, snapshot, dbPath)) {
        return kExitEngine;
    }
    EngineSession session(log);
    if (!session.Start(dbPath) || !ApplyModes(modes)) {
        return kExitEngine;
    }
    session.TakeErrorCount();
    // --json: one document with every verdict, printed at the end.
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> json(
        options.json ? cJSON_CreateObject() : nullptr, cJSON_Delete);
    cJSON* verdicts = nullptr;
    if (json) {
        cJSON_AddStringToObject(json.get(), "mode", DescribeModes(modes).c_str());
        verdicts = cJSON_AddArrayToObject(json.get(), "verdicts");
    } else {
        printf("mode: %s\n", DescribeModes(modes).c_str());
    }
    int result = kExitOk;
    for (Target& t : targets) {
        if (options.verbose) {
            session.Capture(ZELK_LOG_TRACE | ZELK_LOG_WARNING | ZELK_LOG_ERROR);
        }
        ac_wrapper_event_s raw = t.event.Raw();
        ac_wrapper_response_s response;
        memset(&response, 0, sizeof(response));
        uint32_t rc = app_ctl(&raw, &response);
        std::vector<std::string> reasoning = session.TakeCaptured();
        session.Capture(0);
        const unsigned errors = session.TakeErrorCount();
        if (rc != ZELK_STATUS_SUCCESS && rc != ZELK_STATUS_BLOCKED &&
            !(rc == ZELK_STATUS_FAILURE && response.action == ZELK_ACTION_ERROR)) {
            fprintf(stderr, "zelkctl: %s\n", StatusMessage(t.path, rc).c_str());
            return kExitEngine;
        }
        Verdict v = ReadVerdict(response, rc);
        std::string word = v.word;
        if (v.kind == VerdictKind::kUnknownAllowed || v.kind == VerdictKind::kUnknownBlocked) {
            word = "unknown";
        }
        if (json) {
            cJSON* item = cJSON_CreateObject();
            cJSON_AddItemToArray(verdicts, item);
            cJSON_AddStringToObject(item, "path", t.path.c_str());
            cJSON_AddStringToObject(item, "verdict", word.c_str());
            cJSON_AddStringToObject(item, "reason", v.why.c_str());
            cJSON_AddNumberToObject(item, "source", response.source);
            cJSON_AddStringToObject(item, "ruleset", ResponseRuleset(response).c_str());
            cJSON* lines = cJSON_AddArrayToObject(item, "reasoning");
            for (const std::string& line : reasoning) {
                cJSON_AddItemToArray(lines, cJSON_CreateString(line.c_str()));
            }
        } else {
            PrintVerdictText(t.path, word, v, response, reasoning);
        }
        if (errors != 0) {
            fprintf(stderr,
                    "zelkctl: %s: the engine reported %u error%s while deciding; the verdict "
                    "cannot be trusted (see --log-level error)\n",
                    t.path.c_str(), errors, errors == 1 ? "" : "s");
        }
        // An error outweighs a block: a script must not read a verdict from a
        // damaged store as policy.
        if (v.kind == VerdictKind::kError || errors != 0) {
            result = kExitEngine;
        } else if (IsBlock(v.kind) && result != kExitEngine) {
            result = kExitBlocked;
        }
    }
    if (json) {
        char* text = cJSON_Print(json.get());
        printf("%s\n", text != nullptr ? text : "{}");
        cJSON_free(text);
    }
    return result;
}

void PrintVerdictText(const std::string& path, const std::string& word, const Verdict& v,
                      const ac_wrapper_response_s& response,
                      const std::vector<std::string>& reasoning) {
    printf("%-8s %s\n", word.c_str(), path.c_str());
    printf("         %s", v.why.c_str());
    if (response.source != 0 || !ResponseRuleset(response).empty()) {
        printf(" [source %u %s", response.source, SourceName(response.source));
        if (!ResponseRuleset(response).empty()) {
            printf(", ruleset '%s'", ResponseRuleset(response).c_str());
        }
        printf("]");
    }
    printf("\n");
    for (const std::string& line : reasoning) {
        printf("           | %s\n", line.c_str());
    }
}

}  // namespace zelkctl
