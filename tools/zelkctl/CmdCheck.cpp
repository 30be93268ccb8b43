// zelkctl check: "would this file run?", asked as a program start.
#include <cjson/cJSON.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "HostDigest.h"
#include "HostEvent.h"
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
        if (!ParseWindow(options.maintenance, modes.maintenanceStart, modes.maintenanceEnd)) {
            fprintf(stderr, "zelkctl: --maintenance wants START,END in milliseconds or \"now\"\n");
            exit = kExitUsage;
            return false;
        }
        modes.flags |= ZELK_CONFIG_AUTO_AUTHORIZE;
    }
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

    EngineSession session(log);
    if (!session.Start(options.db) || !ApplyModes(modes)) {
        return kExitEngine;
    }
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
        if (v.kind == VerdictKind::kError && result != kExitBlocked) {
            result = kExitEngine;
        }
        if (IsBlock(v.kind)) {
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
