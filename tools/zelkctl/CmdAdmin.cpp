// zelkctl import, export, metrics, config and purge: thin wrappers over one
// exported function each.
#include <cjson/cJSON.h>

#include <cstring>
#include <memory>

#include "Commands.h"

namespace zelkctl {
namespace {

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

std::string Print(const cJSON* json, bool pretty) {
    char* text = pretty ? cJSON_Print(json) : cJSON_PrintUnformatted(json);
    std::string out = text != nullptr ? text : "";
    free(text);
    return out;
}

void CopyKey(const cJSON* from, const char* fromKey, cJSON* to, const char* toKey) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(from, fromKey);
    if (item != nullptr) {
        cJSON_AddItemToObject(to, toKey, cJSON_Duplicate(item, true));
    }
}

// An export document ({"items": [...]}) back into the document the importer
// reads: inventory rows become hash rules (allowed when their isAuthorized is
// non-zero), trust-rule rows become "Trustrules" elements.  Returns null when
// `doc` is not an export.
Json ExportToRuleset(const cJSON* doc, bool& trustRules) {
    const cJSON* items = cJSON_GetObjectItemCaseSensitive(doc, "items");
    if (!cJSON_IsArray(items) || cJSON_GetObjectItemCaseSensitive(doc, "lastId") == nullptr) {
        return nullptr;
    }
    const cJSON* first = items->child;
    trustRules = first != nullptr && cJSON_GetObjectItemCaseSensitive(first, "trustRuleId");
    Json out(cJSON_CreateObject());
    cJSON* list = cJSON_AddArrayToObject(out.get(), trustRules ? "Trustrules" : "rules");
    for (const cJSON* row = items->child; row != nullptr; row = row->next) {
        cJSON* rule = cJSON_CreateObject();
        if (trustRules) {
            static const char* const kSame[] = {
                "processName", "paths",   "trustType", "signerName", "productName",
                "companyName", "sha256",  "issuerCN",  "issuerC",    "issuerS",
                "issuerL",     "issuerO", "issuerOU",  "userList"};
            for (const char* key : kSame) {
                CopyKey(row, key, rule, key);
            }
            CopyKey(row, "procUser", rule, "user");
            CopyKey(row, "procGroup", rule, "group");
        } else {
            for (const char* key : {"sha256", "sha1", "md5", "size", "fileName"}) {
                CopyKey(row, key, rule, key);
            }
            const cJSON* auth = cJSON_GetObjectItemCaseSensitive(row, "isAuthorized");
            bool allowed = !cJSON_IsNumber(auth) || auth->valuedouble != 0;
            cJSON_AddStringToObject(rule, "action", allowed ? "allow" : "block");
        }
        cJSON_AddItemToArray(list, rule);
    }
    return out;
}

long RulesImported(EngineSession& session, const std::string& name) {
    Json metrics(cJSON_Parse(session.Metrics().c_str()));
    const cJSON* m = cJSON_GetObjectItemCaseSensitive(metrics.get(), "metrics");
    const cJSON* rulesets = cJSON_GetObjectItemCaseSensitive(m, "rulesets");
    const cJSON* count = cJSON_GetObjectItemCaseSensitive(rulesets, name.c_str());
    return cJSON_IsNumber(count) ? static_cast<long>(count->valuedouble) : -1;
}

}  // namespace

int ImportFile(EngineSession& session, const std::string& file, const std::string& name,
               bool incremental, bool quiet) {
    bool ok = false;
    std::string text = ReadWholeFile(file, ok);
    if (!ok) {
        fprintf(stderr, "zelkctl: %s: cannot read: %s\n", file.c_str(), strerror(errno));
        return kExitUsage;
    }
    DocKind kind = KindForName(name);
    Json doc(cJSON_Parse(text.c_str()));
    bool trustRules = false;
    Json converted = doc ? ExportToRuleset(doc.get(), trustRules) : nullptr;
    uint32_t rc;
    if (converted) {
        if (trustRules != (kind == DocKind::kTrustRules)) {
            fprintf(stderr,
                    "zelkctl: %s: an export of %s; give it a --name that %s \"TrustRules\"\n",
                    file.c_str(), trustRules ? "trust rules" : "inventory rows",
                    trustRules ? "contains" : "does not contain");
            return kExitUsage;
        }
        std::string buffer = Print(converted.get(), false);
        rc = set_ruleset_buffer(incremental, buffer.c_str(), name.c_str());
    } else {
        // The engine takes every element as it comes (odd digests decoded,
        // numbers read as strtol reads them); the administrator hears here
        // what lint would say about the document.
        bool readable = false;
        const std::string text = ReadWholeFile(file, readable);
        if (readable && !quiet) {
            size_t elements = 0;
            const std::vector<std::string> findings = LintText(text, name, elements);
            const size_t shown = std::min<size_t>(findings.size(), 20);
            for (size_t i = 0; i < shown; ++i) {
                fprintf(stderr, "zelkctl: warning: %s:%s\n", file.c_str(), findings[i].c_str());
            }
            if (findings.size() > shown) {
                fprintf(stderr, "zelkctl: warning: %s: %zu more findings (zelkctl lint %s)\n",
                        file.c_str(), findings.size() - shown, file.c_str());
            }
        }
        rc = set_ruleset(incremental, file.c_str(), name.c_str());
    }
    if (rc != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "zelkctl: %s\n", StatusMessage(file, rc).c_str());
        return kExitEngine;
    }
    if (!quiet) {
        long count = RulesImported(session, name);
        printf("imported %s as '%s' (%s%s%s)", file.c_str(), name.c_str(), KindName(kind),
               converted ? ", from an export" : "", incremental ? ", incremental" : "");
        if (count >= 0) {
            printf(": %ld %s", count, kind == DocKind::kTrustRules ? "trust rules" : "rules");
        }
        printf("\n");
    }
    return kExitOk;
}

int RunImport(const LogOptions& log, const ImportOptions& options) {
    EngineSession session(log);
    if (!session.Start(options.db)) {
        return kExitEngine;
    }
    std::string name = options.name.empty() ? DefaultRulesetName(options.file) : options.name;
    return ImportFile(session, options.file, name, options.incremental, false);
}

int RunExport(const LogOptions& log, const ExportOptions& options) {
    EngineSession session(log);
    if (!session.Start(options.db)) {
        return kExitEngine;
    }
    uint32_t rc = get_inventory(options.from, options.limit, options.source, options.out.c_str(),
                                options.trustRules ? "TrustRules" : "");
    if (rc != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "zelkctl: %s\n", StatusMessage(options.out, rc).c_str());
        return kExitEngine;
    }
    bool ok = false;
    Json doc(cJSON_Parse(ReadWholeFile(options.out, ok).c_str()));
    const cJSON* count = cJSON_GetObjectItemCaseSensitive(doc.get(), "count");
    const cJSON* last = cJSON_GetObjectItemCaseSensitive(doc.get(), "lastId");
    printf("exported %s to %s", options.trustRules ? "trust rules" : "inventory rows",
           options.out.c_str());
    if (cJSON_IsNumber(count) && cJSON_IsNumber(last)) {
        printf(": %.0f rows, last id %.0f", count->valuedouble, last->valuedouble);
    }
    printf("\n");
    return kExitOk;
}

int RunMetrics(const LogOptions& log, const std::string& db, bool pretty) {
    EngineSession session(log);
    if (!session.Start(db)) {
        return kExitEngine;
    }
    std::string text = session.Metrics();
    if (text.empty()) {
        return kExitEngine;
    }
    if (pretty) {
        Json doc(cJSON_Parse(text.c_str()));
        if (doc) {
            text = Print(doc.get(), true);
        }
    }
    printf("%s\n", text.c_str());
    return kExitOk;
}

int RunConfig(const LogOptions& log, const ConfigOptions& options) {
    HostModes modes;
    modes.flags = (options.lockdown ? ZELK_CONFIG_LOCKDOWN : 0) |
                  (options.inventoryExists ? ZELK_CONFIG_INVENTORY_EXISTS : 0) |
                  (options.rulesetExists ? ZELK_CONFIG_RULESET_EXISTS : 0) |
                  (options.allowlistInventory ? ZELK_CONFIG_ALLOWLIST_INVENTORY : 0);
    if (!options.maintenance.empty()) {
        if (!ParseWindow(options.maintenance, modes.maintenanceStart, modes.maintenanceEnd)) {
            fprintf(stderr, "zelkctl: --maintenance wants START,END in milliseconds or \"now\"\n");
            return kExitUsage;
        }
        modes.flags |= ZELK_CONFIG_AUTO_AUTHORIZE;
    }
    EngineSession session(log);
    if (!session.Start(options.db) || !ApplyModes(modes)) {
        return kExitEngine;
    }
    std::string error;
    if (!SaveModes(options.db, modes, error)) {
        fprintf(stderr, "zelkctl: %s\n", error.c_str());
        return kExitEngine;
    }
    printf("modes: %s (kept in %s)\n", DescribeModes(modes).c_str(), ModesPath(options.db).c_str());
    return kExitOk;
}

int RunPurge(const LogOptions& log, const std::string& db, unsigned source) {
    EngineSession session(log);
    if (!session.Start(db)) {
        return kExitEngine;
    }
    uint32_t rc = purge_db(source);
    if (rc != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "zelkctl: %s\n", StatusMessage(db, rc).c_str());
        return kExitEngine;
    }
    printf("purged source %u (%s)\n", source,
           source == 0   ? "whole database"
           : source == 6 ? "trust rules and user lists"
                         : "inventory rows");
    return kExitOk;
}

}  // namespace zelkctl
