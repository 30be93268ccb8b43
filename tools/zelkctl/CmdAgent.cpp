#include "CmdAgent.h"

#include <cjson/cJSON.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "ControlChannel.h"
#include "Engine.h"

namespace zelkctl {

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string Print(const cJSON* value, bool pretty) {
    char* text = pretty ? cJSON_Print(value) : cJSON_PrintUnformatted(value);
    std::string out = text != nullptr ? text : "";
    cJSON_free(text);
    return out;
}

// Sends the request; prints the reason and returns null when the agent cannot
// be asked or refuses.
Json Ask(const std::string& socket, const cJSON* request, int& exit) {
    std::string reply, error;
    if (!hostkit::ControlRequest(socket, Print(request, false), reply, error)) {
        fprintf(stderr, "zelkctl: %s\n", error.c_str());
        exit = kExitEngine;
        return Json(nullptr, cJSON_Delete);
    }
    Json answer(cJSON_Parse(reply.c_str()), cJSON_Delete);
    if (!answer || !cJSON_IsObject(answer.get())) {
        fprintf(stderr, "zelkctl: the agent's answer is not a JSON object\n");
        exit = kExitEngine;
        return Json(nullptr, cJSON_Delete);
    }
    if (!cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(answer.get(), "ok"))) {
        const cJSON* why = cJSON_GetObjectItemCaseSensitive(answer.get(), "error");
        fprintf(stderr, "zelkctl: the agent refused: %s\n",
                cJSON_IsString(why) ? why->valuestring : "no reason given");
        exit = kExitEngine;
        return Json(nullptr, cJSON_Delete);
    }
    return answer;
}

// "key: value" lines, nested objects indented, for people.
void PrintReadable(const cJSON* object, int depth) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, object) {
        if (depth == 0 && item->string != nullptr && strcmp(item->string, "ok") == 0) {
            continue;
        }
        if (item->string != nullptr) {
            printf("%*s%s:", depth * 2, "", item->string);
        } else {
            printf("%*s-", depth * 2, "");  // an element of a list
        }
        if (cJSON_IsObject(item)) {
            printf("\n");
            PrintReadable(item, depth + 1);
        } else if (cJSON_IsString(item)) {
            printf(" %s\n", item->valuestring);
        } else {
            printf(" %s\n", Print(item, false).c_str());
        }
    }
}

void Report(const cJSON* answer, bool json) {
    if (json) {
        printf("%s\n", Print(answer, true).c_str());
    } else {
        PrintReadable(answer, 0);
    }
}

}  // namespace

void AddAgentCommand(CLI::App& app, AgentOptions& o) {
    o.socket = hostkit::kDefaultControlSocket;
    o.command = app.add_subcommand("agent", "Ask the running zelk-agent (root only)");
    o.command->require_subcommand(1);
    o.command->add_option("--socket", o.socket, "The agent's control socket")
        ->capture_default_str();
    o.command->add_flag("--json", o.json, "Print the agent's answer as JSON");
    o.status = o.command->add_subcommand(
        "status", "Mode, whether it enforces (and why not), uptime, counters, queue, caches");
    o.metrics = o.command->add_subcommand("metrics", "The running engine's metrics document");
    o.reload = o.command->add_subcommand(
        "reload", "Import the policy directory again, as one change, and show what changed");
    o.mode = o.command->add_subcommand("mode", "Change the running agent's mode");
    for (CLI::App* sub : {o.status, o.reload, o.mode}) {
        sub->add_flag("--json", o.json, "Print the agent's answer as JSON");
    }
    o.mode->add_flag("--lockdown", o.lockdown, "Deny programs the policy does not know");
    o.mode->add_flag("--log-only", o.logOnly, "Enforce block rules only");
    o.mode->add_flag("--permissive", o.permissive, "Deny nothing; log would-be denials");
    o.mode->add_option("--maintenance", o.maintenance,
                       "Open a maintenance window START,END (ms since the epoch, or \"now\")");
    o.check = o.command->add_subcommand(
        "check", "The running engine's verdict on files, recording nothing (exit 1: blocked)");
    o.check->add_option("files", o.files, "Files to check")->required();
    o.check->add_option("--user", o.user, "User that starts the file (default: you)");
    o.check->add_option("--as-process", o.asProcess, "Process that starts the file");
    o.check->add_flag("--json", o.json, "Print the agent's answer as JSON");
}

int RunAgent(const AgentOptions& o) {
    Json request(cJSON_CreateObject(), cJSON_Delete);
    cJSON* r = request.get();
    if (*o.status) {
        cJSON_AddStringToObject(r, "command", "status");
    } else if (*o.metrics) {
        cJSON_AddStringToObject(r, "command", "metrics");
    } else if (*o.reload) {
        cJSON_AddStringToObject(r, "command", "reload");
    } else if (*o.mode) {
        const int chosen = int(o.lockdown) + int(o.logOnly) + int(o.permissive);
        if (chosen > 1 || (chosen == 0 && o.maintenance.empty())) {
            fprintf(stderr,
                    "zelkctl: give one of --lockdown, --log-only, --permissive, and/or "
                    "--maintenance\n");
            return kExitUsage;
        }
        cJSON_AddStringToObject(r, "command", "mode");
        if (chosen == 1) {
            cJSON_AddStringToObject(r, "mode",
                                    o.lockdown  ? "lockdown"
                                    : o.logOnly ? "log-only"
                                                : "permissive");
        }
        if (!o.maintenance.empty()) {
            cJSON_AddStringToObject(r, "maintenance", o.maintenance.c_str());
        }
    } else if (*o.check) {
        cJSON_AddStringToObject(r, "command", "check");
        cJSON* files = cJSON_AddArrayToObject(r, "files");
        for (const std::string& file : o.files) {
            // The agent resolves nothing relative to its own folder.
            char resolved[PATH_MAX];
            const std::string absolute =
                realpath(file.c_str(), resolved) != nullptr ? std::string(resolved) : file;
            cJSON_AddItemToArray(files, cJSON_CreateString(absolute.c_str()));
        }
        if (!o.user.empty()) {
            cJSON_AddStringToObject(r, "user", o.user.c_str());
        }
        if (!o.asProcess.empty()) {
            cJSON_AddStringToObject(r, "process", o.asProcess.c_str());
        }
    }
    int exit = kExitOk;
    Json answer = Ask(o.socket, r, exit);
    if (!answer) {
        return exit;
    }
    if (*o.metrics) {
        const cJSON* metrics = cJSON_GetObjectItemCaseSensitive(answer.get(), "metrics");
        printf("%s\n", Print(metrics, true).c_str());
        return kExitOk;
    }
    if (*o.check) {
        const cJSON* verdicts = cJSON_GetObjectItemCaseSensitive(answer.get(), "verdicts");
        bool blocked = false, failed = false;
        const cJSON* v = nullptr;
        cJSON_ArrayForEach(v, verdicts) {
            const cJSON* verdict = cJSON_GetObjectItemCaseSensitive(v, "verdict");
            const char* text = cJSON_IsString(verdict) ? verdict->valuestring : "";
            blocked = blocked || strcmp(text, "blocked") == 0;
            failed = failed || strcmp(text, "error") == 0;
        }
        Report(o.json ? answer.get() : verdicts, o.json);
        return failed ? kExitEngine : blocked ? kExitBlocked : kExitOk;
    }
    Report(answer.get(), o.json);
    return kExitOk;
}

bool AgentDatabase(const std::string& socket, std::string& database) {
    std::string reply, error;
    if (!hostkit::ControlRequest(socket, "{\"command\":\"status\"}", reply, error, 2000)) {
        return false;
    }
    Json answer(cJSON_Parse(reply.c_str()), cJSON_Delete);
    const cJSON* db = cJSON_GetObjectItemCaseSensitive(answer.get(), "database");
    if (!cJSON_IsString(db)) {
        return false;
    }
    database = db->valuestring;
    return true;
}

}  // namespace zelkctl
