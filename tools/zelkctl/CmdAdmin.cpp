// zelkctl import, export, metrics, config and purge: thin wrappers over one
// exported function each.
#include <cjson/cJSON.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "Commands.h"
#include "DbRead.h"
#include "Snapshot.h"

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
            // Numbers in the export, texts or numbers in a document.
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
    // zelkctl's trust-rule export carries the user lists its rules name.
    if (trustRules) {
        CopyKey(doc, "Userlists", out.get(), "Userlists");
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

int ImportFile(EngineSession& session, const ImportRequest& request) {
    const std::string& file = request.file;
    const std::string& name = request.name;
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
    if (converted && trustRules != (kind == DocKind::kTrustRules)) {
        fprintf(stderr, "zelkctl: %s: an export of %s; give it a --name that %s \"TrustRules\"\n",
                file.c_str(), trustRules ? "trust rules" : "inventory rows",
                trustRules ? "contains" : "does not contain");
        return kExitUsage;
    }
    std::string buffer = converted ? Print(converted.get(), false) : std::string();

    // The engine takes what it can from any document and replaces that kind
    // of content with it; the user hears here what lint would say.
    LintReport report = LintDocument(converted ? buffer : text, kind);
    for (const std::string& finding : report.findings) {
        fprintf(stderr, "zelkctl: %s: %s: %s\n", file.c_str(),
                report.errors != 0 && !request.force ? "refused" : "warning", finding.c_str());
    }
    if (report.errors != 0 && !request.force) {
        fprintf(stderr,
                "zelkctl: %s: not imported: %zu finding%s would empty or weaken the policy it "
                "replaces (see zelkctl lint; --force imports it anyway)\n",
                file.c_str(), report.errors, report.errors == 1 ? "" : "s");
        return kExitBlocked;
    }

    PolicyCounts before, after;
    const bool counted = !request.db.empty() && CountPolicy(request.db, before);
    uint32_t rc;
    if (converted) {
        rc = set_ruleset_buffer(request.incremental, buffer.c_str(), name.c_str());
    } else {
        rc = set_ruleset(request.incremental, file.c_str(), name.c_str());
    }
    if (rc != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "zelkctl: %s\n", StatusMessage(file, rc).c_str());
        return kExitEngine;
    }
    if (!request.quiet) {
        long count = RulesImported(session, name);
        printf("imported %s as '%s' (%s%s%s)", file.c_str(), name.c_str(), KindName(kind),
               converted ? ", from an export" : "", request.incremental ? ", incremental" : "");
        if (count >= 0) {
            printf(": %ld %s", count, kind == DocKind::kTrustRules ? "trust rules" : "rules");
        }
        printf("\n");
        // An agent manifest replaces more than its own rules; say what went.
        if (counted && CountPolicy(request.db, after)) {
            std::string removed;
            auto add = [&removed](long long gone, const char* what) {
                if (gone > 0) {
                    removed += (removed.empty() ? "" : ", ") + std::to_string(gone) + " " + what;
                }
            };
            if (kind != DocKind::kHashRuleset) {
                add(before.rulesetRules - after.rulesetRules, "hash-ruleset rules");
            }
            if (kind != DocKind::kTrustRules) {
                add(before.trustRules - after.trustRules, "trust rules");
                add(before.userLists - after.userLists, "user lists");
            }
            if (kind != DocKind::kAgentManifest) {
                add(before.agentRules - after.agentRules, "agent-manifest rules");
            }
            if (!removed.empty()) {
                printf("removed with it: %s\n", removed.c_str());
            }
        }
    }
    return kExitOk;
}

int RunImport(const LogOptions& log, const ImportOptions& options) {
    EngineSession session(log);
    if (!session.Start(options.db)) {
        return kExitEngine;
    }
    ImportRequest request;
    request.file = options.file;
    request.name = options.name.empty() ? DefaultRulesetName(options.file) : options.name;
    request.incremental = options.incremental;
    request.force = options.force;
    request.db = options.db;
    return ImportFile(session, request);
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
    if (options.trustRules && doc) {
        // Rules limited to a user list are useless without the list.
        UserLists lists;
        std::string error;
        if (!ReadUserLists(options.db, lists, error)) {
            fprintf(stderr, "zelkctl: %s: cannot read the user lists: %s\n", options.db.c_str(),
                    error.c_str());
            return kExitEngine;
        }
        cJSON* array = cJSON_AddArrayToObject(doc.get(), "Userlists");
        for (const auto& list : lists) {
            cJSON* entry = cJSON_CreateObject();
            cJSON_AddStringToObject(entry, "id", list.first.c_str());
            cJSON* users = cJSON_AddArrayToObject(entry, "users");
            for (const std::string& user : list.second) {
                cJSON_AddItemToArray(users, cJSON_CreateString(user.c_str()));
            }
            cJSON_AddItemToArray(array, entry);
        }
        std::string text = Print(doc.get(), true);
        FILE* out = fopen(options.out.c_str(), "w");
        if (out == nullptr || fputs(text.c_str(), out) < 0 || fclose(out) != 0) {
            fprintf(stderr, "zelkctl: %s: cannot write: %s\n", options.out.c_str(),
                    strerror(errno));
            return kExitEngine;
        }
        printf("exported %zu user lists with the trust rules\n", lists.size());
    }
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
    // Starting the engine on a mistyped path would create an empty database
    // and report its metrics as if they were the real one's.
    if (!DatabaseExists(db)) {
        return kExitEngine;
    }
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
        std::string error;
        if (!CheckWindow(options.maintenance, modes.maintenanceStart, modes.maintenanceEnd,
                         error)) {
            fprintf(stderr, "zelkctl: %s\n", error.c_str());
            return kExitUsage;
        }
        modes.flags |= ZELK_CONFIG_AUTO_AUTHORIZE;
    }
    EngineSession session(log);
    if (!session.Start(options.db)) {
        return kExitEngine;
    }
    // The engine recovers the last window from the database at every start
    // and goes on approving by it, so a window that is still running is
    // closed now: it opens once more, and a closing call ends it at this
    // moment.
    long long storedStart = 0, storedEnd = 0;
    bool closedNow = false;
    if ((modes.flags & ZELK_CONFIG_AUTO_AUTHORIZE) == 0 &&
        ReadStoredWindow(options.db, storedStart, storedEnd) &&
        static_cast<uint64_t>(storedEnd) > hostkit::NowMillis()) {
        HostModes reopen = modes;
        reopen.flags |= ZELK_CONFIG_AUTO_AUTHORIZE;
        reopen.maintenanceStart = static_cast<uint64_t>(storedStart);
        reopen.maintenanceEnd = static_cast<uint64_t>(storedEnd);
        if (!ApplyModes(reopen)) {
            return kExitEngine;
        }
        closedNow = true;
    }
    if (!ApplyModes(modes)) {
        return kExitEngine;
    }
    std::string error;
    if (!SaveModes(options.db, modes, error)) {
        fprintf(stderr, "zelkctl: %s\n", error.c_str());
        return kExitEngine;
    }
    printf("modes: %s (kept in %s)\n", DescribeModes(modes).c_str(), ModesPath(options.db).c_str());
    printf("maintenance window: %s\n", DescribeWindow(modes).c_str());
    if (closedNow) {
        printf("closed the window the database still held (%s .. %s) at %s\n",
               FormatMillis(static_cast<uint64_t>(storedStart)).c_str(),
               FormatMillis(static_cast<uint64_t>(storedEnd)).c_str(),
               FormatMillis(hostkit::NowMillis()).c_str());
    }
    if (ReadStoredWindow(options.db, storedStart, storedEnd)) {
        printf("window stored in the database: %s .. %s\n",
               FormatMillis(static_cast<uint64_t>(storedStart)).c_str(),
               FormatMillis(static_cast<uint64_t>(storedEnd)).c_str());
    }
    return kExitOk;
}

int RunModes(const std::string& db) {
    HostModes modes;
    std::string error;
    if (!LoadModes(db, modes, error)) {
        fprintf(stderr, "zelkctl: %s\n", error.c_str());
        return kExitUsage;
    }
    printf("modes: %s\n", DescribeModes(modes).c_str());
    printf("maintenance window: %s\n", DescribeWindow(modes).c_str());
    printf("kept in: %s%s\n", ModesPath(db).c_str(),
           access(ModesPath(db).c_str(), F_OK) == 0 ? "" : " (not written yet: defaults)");
    long long start = 0, end = 0;
    if (access(db.c_str(), F_OK) == 0 && ReadStoredWindow(db, start, end)) {
        printf("window stored in the database: %s .. %s%s\n",
               FormatMillis(static_cast<uint64_t>(start)).c_str(),
               FormatMillis(static_cast<uint64_t>(end)).c_str(),
               static_cast<uint64_t>(end) > hostkit::NowMillis()
                   ? " (still running: the engine recovers it at start; zelkctl config closes it)"
                   : "");
    }
    return kExitOk;
}

int RunPurge(const LogOptions& log, const std::string& db, unsigned source, bool yes) {
    if (source == 0 && !yes) {
        fprintf(stderr,
                "zelkctl: purge --source 0 removes the whole inventory, every ruleset and "
                "every trust rule; add --yes to do it\n");
        return kExitUsage;
    }
    if (!DatabaseExists(db)) {
        return kExitEngine;
    }
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
