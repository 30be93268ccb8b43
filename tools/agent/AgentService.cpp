#include "AgentService.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "Agent.h"
#include "AgentStats.h"
#include "DigestCache.h"
#include "HostConfig.h"
#include "HostDigest.h"
#include "HostEvent.h"
#include "LogRing.h"
#include "zelk.h"
#include "zelk_build_info.h"

namespace zelkagent {

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string Print(cJSON* object) {
    char* text = cJSON_PrintUnformatted(object);
    std::string out = text != nullptr ? text : "{\"ok\":false,\"error\":\"out of memory\"}";
    cJSON_free(text);
    return out;
}

std::string Refuse(const std::string& why) {
    Json answer(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddBoolToObject(answer.get(), "ok", false);
    cJSON_AddStringToObject(answer.get(), "error", why.c_str());
    return Print(answer.get());
}

// The engine's metrics document, parsed; null when it cannot be had.
cJSON* EngineMetrics() {
    unsigned size = 0;
    get_metrics_mem(nullptr, &size);
    for (int attempt = 0; attempt < 3 && size > 0; ++attempt) {
        std::vector<char> buffer(size + 4096);
        unsigned length = static_cast<unsigned>(buffer.size());
        const uint32_t rc = get_metrics_mem(buffer.data(), &length);
        if (rc == ZELK_STATUS_SUCCESS) {
            return cJSON_Parse(buffer.data());
        }
        size = length;
    }
    return nullptr;
}

const char* VerdictName(uint32_t status, const ac_wrapper_response_s& response) {
    if (status == ZELK_STATUS_BLOCKED) {
        return "blocked";
    }
    switch (response.action) {
        case ZELK_ACTION_ALLOW:
            return "allowed";
        case ZELK_ACTION_BLOCK:
            return "blocked, not enforced (no agent manifest)";
        case ZELK_ACTION_ERROR:
            return "error";
        default:
            return status == ZELK_STATUS_SUCCESS ? "allowed (no decision needed)" : "error";
    }
}

}  // namespace

AgentService::AgentService(Settings settings)
    : m_Settings(std::move(settings)), m_StartMs(hostkit::NowMillis()) {}

void AgentService::Attach(Agent* agent, AgentStats* stats, hostkit::DigestCache* cache) {
    m_Agent = agent;
    m_Stats = stats;
    m_Cache = cache;
}

bool AgentService::LoadPolicy(std::string& changes, std::string& error) {
    std::vector<PolicyDocument> documents;
    if (!m_Settings.policyDir.empty() && !ReadPolicyDir(m_Settings.policyDir, documents, error)) {
        return false;
    }
    for (const std::string& spec : m_Settings.rulesets) {
        PolicyDocument doc;
        hostkit::SplitRulesetSpec(spec, doc.path, doc.name);
        struct stat st {};
        if (stat(doc.path.c_str(), &st) != 0) {
            error = doc.path + ": " + strerror(errno);
            return false;
        }
        doc.kind = KindOfDocument(doc.name);
        doc.sha256 = std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) +
                     "/" + std::to_string(st.st_size);
        documents.push_back(std::move(doc));
    }
    PlanImport(documents);
    {
        // Decisions wait while the documents are imported, so no decision
        // sees some of them new and others old.
        std::unique_lock<std::shared_mutex> lock(m_PolicyLock);
        for (const PolicyDocument& doc : documents) {
            const uint32_t rc = set_ruleset(doc.incremental, doc.path.c_str(), doc.name.c_str());
            if (rc != ZELK_STATUS_SUCCESS) {
                error = hostkit::StatusMessage(doc.path, rc);
                return false;
            }
        }
    }
    std::lock_guard<std::mutex> lock(m_ModeMutex);
    changes = DescribeChanges(m_Applied, documents);
    m_Applied = std::move(documents);
    m_LastReload = changes;
    m_LastReloadMs = hostkit::NowMillis();
    return true;
}

unsigned AgentService::EngineFlags() const {
    // Permissive decides as lockdown would; the agent does not enforce it.
    return (m_Settings.lockdown || m_Settings.permissive) ? ZELK_CONFIG_LOCKDOWN : 0;
}

std::string AgentService::NotEnforcingReason() const {
    std::lock_guard<std::mutex> lock(m_ModeMutex);
    if (m_Settings.permissive) {
        return "permissive mode: verdicts are logged, not enforced";
    }
    if (m_Settings.lockdown && !ManifestApplied(m_Settings.database)) {
        return "lockdown requested, not enforcing: no agent manifest";
    }
    return "";
}

std::string AgentService::Handle(const std::string& request) {
    Json parsed(cJSON_Parse(request.c_str()), cJSON_Delete);
    const cJSON* command = cJSON_GetObjectItemCaseSensitive(parsed.get(), "command");
    if (!cJSON_IsString(command)) {
        return Refuse("the request names no command");
    }
    const std::string name = command->valuestring;
    if (name == "ping") {
        return "{\"ok\":true}";
    }
    if (name == "status") {
        return Status();
    }
    if (name == "metrics") {
        Json answer(cJSON_CreateObject(), cJSON_Delete);
        cJSON* metrics = EngineMetrics();
        if (metrics == nullptr) {
            return Refuse("the engine's metrics could not be read");
        }
        cJSON_AddBoolToObject(answer.get(), "ok", true);
        cJSON_AddItemToObject(answer.get(), "metrics", metrics);
        return Print(answer.get());
    }
    if (name == "reload") {
        return Reload();
    }
    if (name == "mode") {
        const cJSON* mode = cJSON_GetObjectItemCaseSensitive(parsed.get(), "mode");
        const cJSON* window = cJSON_GetObjectItemCaseSensitive(parsed.get(), "maintenance");
        return SetMode(cJSON_IsString(mode) ? mode->valuestring : "",
                       cJSON_IsString(window) ? window->valuestring : "");
    }
    if (name == "check") {
        std::vector<std::string> files;
        const cJSON* list = cJSON_GetObjectItemCaseSensitive(parsed.get(), "files");
        const cJSON* file = nullptr;
        cJSON_ArrayForEach(file, list) {
            if (cJSON_IsString(file)) {
                files.push_back(file->valuestring);
            }
        }
        const cJSON* user = cJSON_GetObjectItemCaseSensitive(parsed.get(), "user");
        const cJSON* process = cJSON_GetObjectItemCaseSensitive(parsed.get(), "process");
        return Check(files, cJSON_IsString(user) ? user->valuestring : "root",
                     cJSON_IsString(process) ? process->valuestring : "/usr/bin/bash");
    }
    return Refuse("unknown command '" + name + "'");
}

std::string AgentService::Status() {
    const std::string reason = NotEnforcingReason();
    Json answer(cJSON_CreateObject(), cJSON_Delete);
    cJSON* a = answer.get();
    cJSON_AddBoolToObject(a, "ok", true);
    cJSON_AddStringToObject(a, "version", ZELK_PRODUCT_VERSION);
    cJSON_AddStringToObject(a, "engine_version", ZELK_ENGINE_VERSION);
    cJSON_AddStringToObject(a, "database", m_Settings.database.c_str());
    {
        std::lock_guard<std::mutex> lock(m_ModeMutex);
        cJSON_AddStringToObject(a, "mode",
                                m_Settings.permissive ? "permissive"
                                : m_Settings.lockdown ? "lockdown"
                                                      : "log-only");
        cJSON_AddBoolToObject(a, "fail_closed", m_Settings.failClosed);
        cJSON* policy = cJSON_AddObjectToObject(a, "policy");
        cJSON* names = cJSON_AddArrayToObject(policy, "documents");
        for (const PolicyDocument& doc : m_Applied) {
            cJSON_AddItemToArray(names, cJSON_CreateString(doc.name.c_str()));
        }
        cJSON_AddStringToObject(policy, "last_load", m_LastReload.c_str());
        cJSON_AddNumberToObject(policy, "last_load_age_s",
                                static_cast<double>(hostkit::NowMillis() - m_LastReloadMs) / 1000);
    }
    cJSON_AddBoolToObject(a, "enforcing", reason.empty());
    cJSON_AddStringToObject(a, "not_enforcing_reason", reason.c_str());
    cJSON_AddNumberToObject(a, "uptime_s",
                            static_cast<double>(hostkit::NowMillis() - m_StartMs) / 1000);
    if (m_Agent != nullptr && m_Stats != nullptr && m_Cache != nullptr) {
        cJSON_AddNumberToObject(a, "queue_depth", static_cast<double>(m_Agent->QueueDepth()));
        cJSON* counters = cJSON_AddObjectToObject(a, "counters");
        cJSON_AddNumberToObject(counters, "program_starts",
                                static_cast<double>(m_Stats->Events(kKindExec)));
        cJSON_AddNumberToObject(counters, "allowed", static_cast<double>(m_Stats->AllowedCount()));
        cJSON_AddNumberToObject(counters, "denied", static_cast<double>(m_Stats->DeniedCount()));
        cJSON_AddNumberToObject(counters, "errors", static_cast<double>(m_Stats->ErrorCount()));
        cJSON* times = cJSON_AddObjectToObject(a, "decision_us");
        cJSON_AddNumberToObject(times, "mean", static_cast<double>(m_Stats->MeanNs()) / 1000);
        cJSON_AddNumberToObject(times, "p99", static_cast<double>(m_Stats->P99Ns()) / 1000);
        cJSON* caches = cJSON_AddObjectToObject(a, "caches");
        cJSON_AddNumberToObject(caches, "digest_hits", static_cast<double>(m_Cache->Hits()));
        cJSON_AddNumberToObject(caches, "digest_misses", static_cast<double>(m_Cache->Misses()));
        if (cJSON* metrics = EngineMetrics()) {
            const cJSON* inner = cJSON_GetObjectItemCaseSensitive(metrics, "metrics");
            if (cJSON* allow = cJSON_GetObjectItemCaseSensitive(inner, "AllowCache")) {
                cJSON_AddItemToObject(caches, "allow_cache", cJSON_Duplicate(allow, 1));
            }
            cJSON_Delete(metrics);
        }
    }
    return Print(a);
}

std::string AgentService::Reload() {
    std::string changes, error;
    if (!LoadPolicy(changes, error)) {
        Log().Log(ZELK_LOG_ERROR, "policy reload failed: %s", error.c_str());
        return Refuse("reload failed: " + error);
    }
    Log().Log(ZELK_LOG_INFO, "policy reloaded: %s", changes.c_str());
    Json answer(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddBoolToObject(answer.get(), "ok", true);
    cJSON_AddStringToObject(answer.get(), "changes", changes.c_str());
    return Print(answer.get());
}

std::string AgentService::SetMode(const std::string& mode, const std::string& maintenance) {
    uint64_t start = 0, end = 0;
    if (!maintenance.empty() && !hostkit::ParseWindow(maintenance, start, end)) {
        return Refuse("maintenance wants START,END, got \"" + maintenance + "\"");
    }
    std::lock_guard<std::mutex> lock(m_ModeMutex);
    if (mode == "lockdown" || mode == "log-only" || mode == "permissive") {
        m_Settings.lockdown = mode == "lockdown";
        m_Settings.permissive = mode == "permissive";
    } else if (!mode.empty()) {
        return Refuse("unknown mode '" + mode + "'");
    }
    unsigned flags = EngineFlags();
    if (!maintenance.empty()) {
        flags |= ZELK_CONFIG_AUTO_AUTHORIZE;
    }
    const uint32_t rc = set_config(flags, start, end);
    if (rc != ZELK_STATUS_SUCCESS) {
        return Refuse(hostkit::StatusMessage("set_config", rc));
    }
    if (m_Agent != nullptr) {
        m_Agent->SetPermissive(m_Settings.permissive);
    }
    const char* now = m_Settings.permissive ? "permissive"
                      : m_Settings.lockdown ? "lockdown"
                                            : "log-only";
    Log().Log(ZELK_LOG_INFO, "mode set to %s%s", now,
              maintenance.empty() ? "" : ", maintenance window open");
    Json answer(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddBoolToObject(answer.get(), "ok", true);
    cJSON_AddStringToObject(answer.get(), "mode", now);
    cJSON_AddBoolToObject(answer.get(), "maintenance", !maintenance.empty());
    return Print(answer.get());
}

std::string AgentService::Check(const std::vector<std::string>& files, const std::string& user,
                                const std::string& process) {
    Json answer(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddBoolToObject(answer.get(), "ok", true);
    cJSON* verdicts = cJSON_AddArrayToObject(answer.get(), "verdicts");
    for (const std::string& file : files) {
        cJSON* v = cJSON_CreateObject();
        cJSON_AddItemToArray(verdicts, v);
        cJSON_AddStringToObject(v, "path", file.c_str());
        hostkit::FileDigests digests;
        int err = 0;
        struct stat st {};
        if (stat(file.c_str(), &st) != 0 || !hostkit::DigestFile(file, digests, err)) {
            cJSON_AddStringToObject(v, "verdict", "error");
            cJSON_AddStringToObject(v, "reason", strerror(err != 0 ? err : errno));
            continue;
        }
        hostkit::HostEvent event;
        event.eventType = ZELK_EVENT_EXEC_PRE;
        event.pid = static_cast<uint64_t>(getpid());
        event.name = file;
        event.size = static_cast<uint64_t>(st.st_size);
        event.mode = st.st_mode;
        event.isexec = (st.st_mode & 0111) != 0;
        event.processName = process;
        event.user = user;
        event.group = user;
        std::array<uint8_t, 32> sha{};
        memcpy(sha.data(), digests.sha256, sha.size());
        event.fileSha256 = sha;
        std::array<uint8_t, 20> sha1{};
        memcpy(sha1.data(), digests.sha1, sha1.size());
        event.fileSha1 = sha1;
        std::array<uint8_t, 16> md5{};
        memcpy(md5.data(), digests.md5, md5.size());
        event.fileMd5 = md5;
        ac_wrapper_event_s raw = event.Raw();
        ac_wrapper_response_s response;
        memset(&response, 0, sizeof(response));
        uint32_t rc;
        {
            std::shared_lock<std::shared_mutex> policy(m_PolicyLock);
            rc = app_ctl(&raw, &response);
        }
        cJSON_AddStringToObject(v, "verdict", VerdictName(rc, response));
        cJSON_AddStringToObject(v, "sha256",
                                hostkit::ToHex(digests.sha256, sizeof(digests.sha256)).c_str());
        cJSON_AddNumberToObject(v, "source", response.source);
    }
    return Print(answer.get());
}

bool ManifestApplied(const std::string& database) {
    sqlite3* db = nullptr;
    bool applied = false;
    if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db, 1000);
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db,
                               "SELECT settingValue FROM AppControlState WHERE settingName = "
                               "'agentVersion';",
                               -1, &stmt, nullptr) == SQLITE_OK &&
            sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* text = sqlite3_column_text(stmt, 0);
            applied = text != nullptr &&
                      strcmp(reinterpret_cast<const char*>(text), ZELK_ENGINE_VERSION) == 0;
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close_v2(db);
    return applied;
}

}  // namespace zelkagent
