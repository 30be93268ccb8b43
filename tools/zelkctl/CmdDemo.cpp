// zelkctl demo: the whole host workflow on a scratch folder.  It writes a
// few small programs, takes an inventory of some of them, loads the example
// policy from examples/, and replays the example trace first in log-only mode
// and then in lockdown, printing every verdict with its reason.
#include <cjson/cJSON.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "Commands.h"

namespace zelkctl {
namespace {

struct DemoFile {
    const char* path;  // below the scratch folder
    unsigned mode;
    const char* content;
};

// The digests of approved-app, banned-app and installer are in the example
// ruleset and manifest: change a content here and they must change there.
const DemoFile kDemoFiles[] = {
    {"inventory/backup-tool", 0755, "#!/bin/sh\n# nightly backup\necho backing up\n"},
    {"inventory/libdemo.so.1", 0644, "demo shared library\n"},
    {"inventory/README.txt", 0644, "not an executable: the scan leaves it out\n"},
    {"apps/approved-app", 0755, "#!/bin/sh\necho approved\n"},
    {"apps/banned-app", 0755, "#!/bin/sh\necho banned\n"},
    {"apps/unknown-app", 0755, "#!/bin/sh\necho nobody knows me\n"},
    {"apps/admin-tool", 0755, "#!/bin/sh\necho admin only\n"},
    {"apps/new-plugin", 0755, "#!/bin/sh\necho plugin installed later\n"},
    {"apps/report.py", 0755, "#!/usr/bin/python3\nprint('report')\n"},
    {"vendor/installer", 0755, "#!/bin/sh\necho installing\n"},
    {"vendor/vendor-tool", 0755, "#!/bin/sh\necho vendor\n"},
    {"quarantine/backup-tool", 0755, "#!/bin/sh\n# nightly backup\necho backing up\n"},
};

// Folders and files the demo owns inside its scratch folder; only these are
// removed when it starts again, so pointing --dir at a used folder is safe.
const char* const kOwned[] = {"inventory", "apps",          "vendor",           "quarantine",
                              "ac.db",     "ac.db-journal", "ac.db.modes.json", "engine.log"};

bool Refused(const std::filesystem::path& dir, std::string& reason) {
    // The engine skips drift in any folder whose path holds "/tmp/".
    if ((dir.string() + "/").find("/tmp/") != std::string::npos) {
        reason = "the engine never watches drift below /tmp/; choose another folder";
        return true;
    }
    for (const auto& part : dir) {
        std::string name = part.string();
        if (name.size() > 1 && name[0] == '.' && name != "..") {
            reason = "the engine skips hidden folders; choose a folder without a '.' name";
            return true;
        }
    }
    return false;
}

bool WriteDemoFiles(const std::filesystem::path& dir) {
    for (const DemoFile& f : kDemoFiles) {
        std::filesystem::path path = dir / f.path;
        std::error_code ec;
        std::filesystem::create_directories(path.parent_path(), ec);
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << f.content;
        out.close();
        if (!out || chmod(path.c_str(), f.mode) != 0) {
            fprintf(stderr, "zelkctl: %s: cannot write: %s\n", path.c_str(), strerror(errno));
            return false;
        }
    }
    return true;
}

void PrintCounters(EngineSession& session) {
    cJSON* doc = cJSON_Parse(session.Metrics().c_str());
    const cJSON* m = cJSON_GetObjectItemCaseSensitive(doc, "metrics");
    static const char* const kKeys[] = {"RunProgram",         "RunAllowedRule",
                                        "RunBlockedRule",     "RunBlockedLockdown",
                                        "RunAllowedLogOnly",  "EventTrustedExecution",
                                        "EventBlockByTarget", "EventTrustRuleSourceDrift",
                                        "TotalIgnoredEvent"};
    printf("engine counters:");
    for (const char* key : kKeys) {
        const cJSON* v = cJSON_GetObjectItemCaseSensitive(m, key);
        printf(" %s=%.0f", key, cJSON_IsNumber(v) ? v->valuedouble : 0.0);
    }
    printf("\n");
    cJSON_Delete(doc);
}

}  // namespace

int RunDemo(const LogOptions& logIn, const DemoOptions& options, bool logGiven) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::path dir = fs::absolute(options.dir, ec).lexically_normal();
    if (dir.has_filename() == false) {
        dir = dir.parent_path();
    }
    std::string reason;
    if (Refused(dir, reason)) {
        fprintf(stderr, "zelkctl: %s: %s\n", dir.c_str(), reason.c_str());
        return kExitUsage;
    }
    fs::path examples =
        options.examples.empty() ? fs::path(ZELKCTL_EXAMPLES_DIR) : fs::path(options.examples);
    const fs::path manifest = examples / "demo-agent-manifest.json";
    const fs::path ruleset = examples / "demo-ruleset.json";
    const fs::path trust = examples / "demo-trustrules.json";
    const fs::path trace = examples / "demo-trace.jsonl";
    for (const fs::path& p : {manifest, ruleset, trust, trace}) {
        if (!fs::is_regular_file(p)) {
            fprintf(stderr, "zelkctl: %s: example missing (give --examples DIR)\n", p.c_str());
            return kExitUsage;
        }
    }
    fs::create_directories(dir, ec);
    for (const char* owned : kOwned) {
        fs::remove_all(dir / owned, ec);
    }
    if (!WriteDemoFiles(dir)) {
        return kExitEngine;
    }

    // The engine's TRACE reasoning goes to a file in the scratch folder, so
    // the verdict table stays readable and the "why" can be looked up there.
    LogOptions log = logIn;
    if (!logGiven) {
        log.mask = ZELK_LOG_ERROR | ZELK_LOG_WARNING | ZELK_LOG_INFO | ZELK_LOG_TRACE;
        log.file = (dir / "engine.log").string();
    }
    const std::string db = (dir / "ac.db").string();
    printf("== zelk demo in %s\n", dir.c_str());
    printf("   database %s, engine log %s\n\n", db.c_str(),
           log.file.empty() ? "(stderr)" : log.file.c_str());
    EngineSession session(log);
    if (!session.Start(db)) {
        return kExitEngine;
    }

    printf("== inventory: zelkctl scan --db %s %s/inventory\n", db.c_str(), dir.c_str());
    ScanOptions scan;
    scan.db = db;
    scan.dirs = {(dir / "inventory").string()};
    scan.noProgress = true;
    int rc = ScanFolders(scan);
    if (rc != kExitOk) {
        return rc;
    }

    printf("\n== policy from %s\n", examples.c_str());
    // The manifest first: importing it in full replaces agent rules, hash
    // rulesets and trust rules alike.
    const std::pair<fs::path, const char*> imports[] = {
        {manifest, "demo-agent-manifest"}, {ruleset, "demo-ruleset"}, {trust, "demo-trustrules"}};
    for (const auto& import : imports) {
        ImportRequest request;
        request.file = import.first.string();
        request.name = import.second;
        rc = ImportFile(session, request);
        if (rc != kExitOk) {
            return rc;
        }
    }

    ReplayRun run;
    run.trace = trace.string();
    run.vars = {{"DEMO", dir.string()}};
    run.strip = dir.string() + "/";
    std::string summaries[2];
    const struct {
        const char* title;
        unsigned flags;
    } passes[] = {
        {"log-only mode: unknown files may run, and are reported", ZELK_CONFIG_INVENTORY_EXISTS},
        {"lockdown: unknown files are blocked",
         ZELK_CONFIG_INVENTORY_EXISTS | ZELK_CONFIG_LOCKDOWN}};
    for (int i = 0; i < 2; ++i) {
        HostModes modes;
        modes.flags = passes[i].flags;
        if (!ApplyModes(modes)) {
            return kExitEngine;
        }
        printf("\n== replay %d, %s (paths below %s)\n", i + 1, passes[i].title, dir.c_str());
        rc = ReplayTrace(run, &summaries[i]);
        if (rc != kExitOk) {
            return rc;
        }
    }
    printf("\n== totals\n");
    printf("log-only: %s\n", summaries[0].c_str());
    printf("lockdown: %s\n", summaries[1].c_str());
    PrintCounters(session);
    if (!log.file.empty()) {
        printf("the engine's reasoning for every verdict is in %s\n", log.file.c_str());
    }
    return kExitOk;
}

}  // namespace zelkctl
