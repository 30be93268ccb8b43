// End-to-end verdicts: a host drives the engine only through the exported C
// interface, against a real database file and real files in a scratch folder,
// and checks the response bytes, the status, the counters in the metrics
// document and the rows in the database.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKEventAbstraction.h"
#include "zelk.h"

namespace {

// A host event with owned texts; Raw() points the record at them.
struct HostEvent {
    uint32_t type = ZELK_EVENT_EXEC_PRE;
    uint64_t pid = 100;
    std::string process = "/usr/bin/bash";
    std::string target;
    std::string user = "alice";
    std::string group = "staff";
    std::string cmdLine;
    std::string oldName;
    uint8_t isexec = 1;
    uint8_t dirty = 0;
    uint64_t mode = 0;
    uint64_t size = 4;
    uint64_t result = 0;
    uint8_t sha[32] = {0};
    bool hasSha = true;
    ac_wrapper_event_s raw;

    ac_wrapper_event_s* Raw() {
        raw = zelktest::EmptyEvent();
        raw.eventType = type;
        raw.pid = pid;
        raw.processName = process.c_str();
        raw.name = target.c_str();
        raw.user = user.c_str();
        raw.group = group.c_str();
        raw.cmdLine = cmdLine.empty() ? nullptr : cmdLine.c_str();
        raw.oldName = oldName.empty() ? nullptr : oldName.c_str();
        raw.isexec = isexec;
        raw.dirty = dirty;
        raw.mode = mode;
        raw.size = size;
        raw.result = result;
        raw.fileSha256 = hasSha ? sha : nullptr;
        return &raw;
    }
};

std::string Hex(const uint8_t* bytes, size_t n) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

struct Verdict {
    uint32_t status;
    ac_wrapper_response_s response;
};

class EndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        m_Dir = zelktest::ScratchDir();
        m_DbPath = m_Dir + "/ac.db";
        ac_engine_start_s start = zelktest::StartRecord(m_DbPath);
        ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    }
    void TearDown() override { engine_stop(); }

    // A real file in the scratch folder, distinguished by `id` in its digest.
    HostEvent File(const std::string& relative, uint8_t id) {
        const std::string path = m_Dir + "/" + relative;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        zelktest::WriteFile(path, "body");
        HostEvent e;
        e.target = path;
        e.sha[0] = id;
        e.sha[31] = 0x5a;
        return e;
    }

    Verdict Run(HostEvent& e) {
        Verdict v;
        memset(&v.response, 0xcd, sizeof(v.response));
        v.status = app_ctl(e.Raw(), &v.response);
        return v;
    }

    void Import(const std::string& name, const std::string& json, bool incremental = false) {
        ASSERT_EQ(set_ruleset_buffer(incremental, json.c_str(), name.c_str()), ZELK_STATUS_SUCCESS)
            << name;
    }

    static std::string HashRule(const HostEvent& e, const char* action) {
        return "{\"sha256\":\"" + Hex(e.sha, 32) + "\",\"size\":" + std::to_string(e.size) +
               ",\"action\":\"" + action + "\",\"fileName\":\"x\"}";
    }

    void StoreScanned(const HostEvent& e, bool authorized = true) {
        ac_db_item_s item;
        memset(&item, 0, sizeof(item));
        memcpy(item.sha256, e.sha, 32);
        item.source = ZELK_SOURCE_SCANNED;
        const std::string dir = e.target.substr(0, e.target.rfind('/') + 1);
        const std::string file = e.target.substr(e.target.rfind('/') + 1);
        item.fileName = file.c_str();
        item.path = dir.c_str();
        item.nativePath = e.target.c_str();
        item.size = e.size;
        item.authorized = authorized ? 1 : 0;
        item.ruleset = "";
        ASSERT_EQ(store_item(&item, false), ZELK_STATUS_SUCCESS);
    }

    // A number of the metrics document: "metrics".<key>, or
    // "metrics".<section>.<key> when a section is named; 0 when absent.
    long Metric(const std::string& key, const char* section = nullptr) {
        unsigned size = 0;
        get_metrics_mem(nullptr, &size);
        std::vector<char> buffer(size);
        EXPECT_EQ(get_metrics_mem(buffer.data(), &size), ZELK_STATUS_SUCCESS);
        cJSON* doc = cJSON_Parse(buffer.data());
        cJSON* parent = cJSON_GetObjectItemCaseSensitive(doc, "metrics");
        if (section != nullptr) {
            parent = cJSON_GetObjectItemCaseSensitive(parent, section);
        }
        cJSON* item = cJSON_GetObjectItemCaseSensitive(parent, key.c_str());
        long value = item ? static_cast<long>(item->valuedouble) : 0;
        cJSON_Delete(doc);
        return value;
    }

    std::string m_Dir;
    std::string m_DbPath;
};

void ExpectVerdict(const Verdict& v, uint32_t status, uint32_t action, uint32_t source,
                   uint32_t authorizedState, uint32_t isAuthorized, const char* what) {
    EXPECT_EQ(v.status, status) << what;
    EXPECT_EQ(v.response.action, action) << what;
    EXPECT_EQ(v.response.source, source) << what;
    EXPECT_EQ(v.response.authorizedState, authorizedState) << what;
    EXPECT_EQ(v.response.isAuthorized, isAuthorized) << what;
}

}  // namespace

TEST_F(EndToEnd, ProgramStartsBeforeAndAfterTheManifest) {
    HostEvent allowed = File("bin/allowed", 1);
    HostEvent blocked = File("bin/blocked", 2);
    HostEvent unknown = File("bin/unknown", 3);
    Import("Weekly",
           "{\"rules\":[" + HashRule(allowed, "allow") + "," + HashRule(blocked, "block") + "]}");

    // Log-only: the block-listed file is blocked, the unknown one allowed.
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);
    Verdict v = Run(allowed);
    ExpectVerdict(v, 0, ZELK_ACTION_ALLOW, 2, 3, 1, "allow-listed");
    EXPECT_EQ(v.response.eventType, ZELK_ABSTRACT_PROCESS_START);
    EXPECT_EQ(std::string(v.response.ruleset), "Weekly");
    v = Run(blocked);
    ExpectVerdict(v, ZELK_STATUS_BLOCKED, ZELK_ACTION_BLOCK, 2, 2, 2, "block-listed");
    v = Run(unknown);
    ExpectVerdict(v, 0, ZELK_ACTION_ALLOW, 0, 0, 0, "unknown, log-only");
    EXPECT_EQ(Metric("RunAllowedLogOnly"), 1);

    // Lockdown on a fresh database is an upgrade: blocks wait for the manifest.
    ASSERT_EQ(set_config(ZELK_CONFIG_LOCKDOWN, 0, 0), ZELK_STATUS_SUCCESS);
    EXPECT_FALSE(config.GetManifestApplied());
    v = Run(unknown);
    ExpectVerdict(v, 0, ZELK_ACTION_BLOCK, 0, 0, 0, "unknown in lockdown, waiting");
    v = Run(blocked);
    EXPECT_EQ(v.status, 0u);
    EXPECT_EQ(Metric("ALLOWED_WAITING_FOR_MANIFEST"), 2);
    EXPECT_EQ(Metric("RunBlockedLockdown"), 1);

    Import("agent_manifest", "{\"rules\":[]}", true);
    v = Run(unknown);
    ExpectVerdict(v, ZELK_STATUS_BLOCKED, ZELK_ACTION_BLOCK, 0, 0, 0, "unknown in lockdown");
    v = Run(blocked);
    EXPECT_EQ(v.status, ZELK_STATUS_BLOCKED);
    v = Run(allowed);
    ExpectVerdict(v, 0, ZELK_ACTION_ALLOW, 2, 3, 1, "allow-listed in lockdown");
    EXPECT_EQ(Metric("ALLOWED_WAITING_FOR_MANIFEST"), 2);
    EXPECT_EQ(Metric("RunProgram"), 8);

    // An empty target is an error before any lookup; a file without the exec
    // flag is refused for a program start.
    HostEvent noPath = allowed;
    noPath.target.clear();
    v = Run(noPath);
    EXPECT_EQ(v.status, ZELK_STATUS_FAILURE);
    EXPECT_EQ(Metric("RunErrorPath"), 1);
    HostEvent notExec = allowed;
    notExec.isexec = 0;
    v = Run(notExec);
    EXPECT_EQ(v.response.action, ZELK_ACTION_ERROR);
    EXPECT_EQ(Metric("RunErrorNotExec"), 1);
}

TEST_F(EndToEnd, TrustRulesRankAsDesigned) {
    HostEvent scanned = File("srv/scanned", 10);
    HostEvent ruleBlocked = File("srv/ruleset-blocked", 11);
    HostEvent refused = File("srv/refused", 12);
    StoreScanned(scanned);
    StoreScanned(refused);
    Import("Weekly", "{\"rules\":[" + HashRule(ruleBlocked, "block") + "]}");
    Import("TrustRules-site",
           "{\"Trustrules\":["
           "{\"paths\":\"" +
               scanned.target +
               "\",\"trustType\":4},"
               "{\"paths\":\"" +
               m_Dir + "/srv/r*\",\"trustType\":2}]}");
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);

    // Block by target overrides an inventory approval.
    Verdict v = Run(scanned);
    ExpectVerdict(v, ZELK_STATUS_BLOCKED, ZELK_ACTION_BLOCK, 6, 2, 2, "block by target");
    EXPECT_EQ(std::string(v.response.ruleset), "TrustRules-site");
    EXPECT_EQ(Metric("EventBlockByTarget"), 1);

    // A ruleset verdict is final: the trusted-execution rule does not apply.
    v = Run(ruleBlocked);
    ExpectVerdict(v, ZELK_STATUS_BLOCKED, ZELK_ACTION_BLOCK, 2, 2, 2, "ruleset is final");

    // Trusted execution turns an inventory refusal into an approval.  A scan
    // row is refused while a rebuild ignores rows newer than the last scan.
    config.SetRebuildState(1);
    v = Run(refused);
    ExpectVerdict(v, 0, ZELK_ACTION_ALLOW, 6, 4, 1, "trusted execution over a refusal");
    EXPECT_EQ(Metric("EventTrustedExecution"), 1);
    config.SetRebuildState(0);

    zelktest::Db db(m_DbPath);
    EXPECT_EQ(db.Int("SELECT SUM(hitcount) FROM TrustRules;"), 2);
}

TEST_F(EndToEnd, MaintenanceWindowApprovesOnlyFilesWrittenInIt) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    const unsigned long nowMs = now.tv_sec * 1000UL + now.tv_usec / 1000;

    HostEvent fresh = File("app/fresh", 20);
    HostEvent old = File("app/old", 21);
    HostEvent future = File("app/future", 22);
    // An old file: its modification time long before the window, and the
    // window opens after its creation.
    struct timeval times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(old.target.c_str(), times), 0);
    struct timeval later[2] = {{now.tv_sec + 3600, 0}, {now.tv_sec + 3600, 0}};
    ASSERT_EQ(utimes(future.target.c_str(), later), 0);

    ASSERT_EQ(set_config(ZELK_CONFIG_AUTO_AUTHORIZE, nowMs - 60000, 0), ZELK_STATUS_SUCCESS);
    Verdict v = Run(fresh);
    // The approval is recorded as approved drift.
    ExpectVerdict(v, 0, ZELK_ACTION_ALLOW, 4, 1, 1, "written in the window");
    EXPECT_EQ(Metric("AutoAuthorizeByFileTime"), 1);
    // A file whose latest time is not before now is never approved.
    v = Run(future);
    EXPECT_EQ(v.response.isAuthorized, 0u);

    ASSERT_EQ(set_config(ZELK_CONFIG_AUTO_AUTHORIZE, nowMs + 5000, 0), ZELK_STATUS_SUCCESS);
    v = Run(old);
    EXPECT_EQ(v.response.isAuthorized, 0u) << "created before the window opened";
    EXPECT_EQ(Metric("AutoAuthorizeByFileTime"), 1);

    zelktest::Db db(m_DbPath);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE source = 4 AND fileName = 'fresh'"
                     " AND isAuthorized = 1;"),
              1);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE fileName IN ('old', 'future');"),
              0);
    // Approved once, the file is known from now on.
    ASSERT_EQ(set_config(ZELK_CONFIG_LOCKDOWN, 0, 0), ZELK_STATUS_SUCCESS);
    v = Run(fresh);
    EXPECT_EQ(v.response.action, ZELK_ACTION_ALLOW);
    EXPECT_EQ(v.response.source, 4u);
}

TEST_F(EndToEnd, DriftIsRecordedTrustedOrLeftUnknown) {
    zelktest::Db db(m_DbPath);
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);

    // A trusted updater writing into its trusted folder.
    HostEvent updated = File("opt/zelk_agent/lib/plugin.so", 30);
    updated.type = ZELK_EVENT_CLOSE_POST;
    updated.process = "/opt/zelk_agent/bin/tar";
    updated.dirty = 1;
    Verdict v = Run(updated);
    EXPECT_EQ(v.status, 0u);
    EXPECT_EQ(v.response.eventType, ZELK_ABSTRACT_DRIFT);
    EXPECT_EQ(v.response.authorizedState, 4u);
    EXPECT_EQ(Metric("EventTrustedDrift"), 1);
    EXPECT_EQ(Metric("trustedtarTrustedDrift"), 1);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE fileName='plugin.so' AND "
                     "source=4;"),
              1);

    // Unknown drift is left unknown and stores nothing.
    HostEvent unknown = File("srv/drift/tool", 31);
    unknown.type = ZELK_EVENT_CLOSE_POST;
    unknown.process = "/usr/bin/cp";
    v = Run(unknown);
    EXPECT_EQ(v.status, 0u);
    EXPECT_EQ(v.response.authorizedState, 0u);
    EXPECT_EQ(v.response.source, 4u);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE fileName='tool';"), 0);

    // A trusted-source-process rule stores the drift.
    Import("TrustRules-deploy",
           "{\"Trustrules\":[{\"processName\":\"/usr/bin/rsync\",\"trustType\":1}]}");
    HostEvent deployed = File("srv/drift/deployed", 32);
    deployed.type = ZELK_EVENT_CLOSE_POST;
    deployed.process = "/usr/bin/rsync";
    v = Run(deployed);
    EXPECT_EQ(v.response.authorizedState, 4u);
    EXPECT_EQ(Metric("EventTrustRuleSourceDrift"), 1);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE fileName='deployed' AND "
                     "source=4;"),
              1);

    // An unknown extension is counted but still handled as drift.
    HostEvent odd = File("srv/drift/data.zzz", 33);
    odd.type = ZELK_EVENT_CREATE_POST;
    odd.dirty = 1;
    v = Run(odd);
    EXPECT_EQ(v.response.eventType, ZELK_ABSTRACT_DRIFT);
    EXPECT_EQ(Metric("TotalDriftUnknownExtension"), 1);

    // Rename in maintenance: the new path is approved, the old rows go.
    ASSERT_EQ(set_config(ZELK_CONFIG_AUTO_AUTHORIZE, 1, 0), ZELK_STATUS_SUCCESS);
    HostEvent renamed = File("srv/drift/deployed2", 34);
    renamed.type = ZELK_EVENT_RENAME_POST;
    renamed.process = "/usr/bin/mv";
    renamed.oldName = deployed.target;
    v = Run(renamed);
    EXPECT_EQ(v.response.authorizedState, 1u);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE fileName='deployed';"), 0);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE fileName='deployed2';"), 1);

    // Deletes remove rows only in maintenance.
    HostEvent gone = renamed;
    gone.type = ZELK_EVENT_DELETE_POST;
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);
    v = Run(gone);
    EXPECT_EQ(v.response.eventType, ZELK_ABSTRACT_DELETE);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE fileName='deployed2';"), 1);
    ASSERT_EQ(set_config(ZELK_CONFIG_AUTO_AUTHORIZE, 1, 0), ZELK_STATUS_SUCCESS);
    v = Run(gone);
    EXPECT_EQ(db.Int("SELECT COUNT(*) FROM InventoryItems WHERE fileName='deployed2';"), 0);
    EXPECT_GE(Metric("TotalDeletedEvents"), 2);

    // Drift under /tmp/ or in a hidden folder is excluded by directory.
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);
    for (const char* path : {"/tmp/dropped", "/home/u/.cache/dropped"}) {
        HostEvent excluded;
        excluded.type = ZELK_EVENT_CLOSE_POST;
        excluded.target = path;
        v = Run(excluded);
        EXPECT_EQ(v.response.action, ZELK_ACTION_NOT_HANDLED) << path;
        EXPECT_EQ(v.response.authorizedState, 5u) << path;
    }
    EXPECT_EQ(Metric("EventExcludedBasedOnDirectory"), 2);
}

TEST_F(EndToEnd, ScriptsMappingsAndTheAllowCache) {
    ASSERT_EQ(set_config(ZELK_CONFIG_LOCKDOWN, 0, 0), ZELK_STATUS_SUCCESS);
    Import("agent_manifest", "{\"rules\":[]}", true);

    // A script started by an interpreter that names it on its command line.
    HostEvent script = File("jobs/nightly.job", 40);
    script.type = ZELK_EVENT_CREATE_PRE;
    script.process = "/usr/bin/python3";
    script.pid = 4001;
    script.cmdLine = "/usr/bin/python3 " + script.target;
    Verdict v = Run(script);
    EXPECT_EQ(v.response.eventType, ZELK_ABSTRACT_SCRIPT_START);
    ExpectVerdict(v, ZELK_STATUS_BLOCKED, ZELK_ACTION_BLOCK, 0, 0, 0, "unknown script, lockdown");
    EXPECT_EQ(Metric("RunScript"), 1);
    StoreScanned(script);
    v = Run(script);
    EXPECT_EQ(v.response.action, ZELK_ACTION_ALLOW);

    // A library mapped executable needs no exec flag.
    HostEvent library = File("lib/libfoo.so", 41);
    library.type = ZELK_EVENT_MMAP_PRE;
    library.mode = 4;
    library.isexec = 0;
    StoreScanned(library);
    v = Run(library);
    EXPECT_EQ(v.response.eventType, ZELK_ABSTRACT_MMAP);
    ExpectVerdict(v, 0, ZELK_ACTION_ALLOW, 3, 3, 1, "mapped library");

    // An approved program start is remembered for raw type 0 events...
    HostEvent program = File("bin/cached", 42);
    StoreScanned(program);
    v = Run(program);
    ASSERT_EQ(v.response.action, ZELK_ACTION_ALLOW);
    HostEvent cached = program;
    cached.type = ZELK_EVENT_CACHED;
    v = Run(cached);
    EXPECT_EQ(v.response.action, ZELK_ACTION_ALLOW);
    EXPECT_EQ(v.response.authorizedState, 3u);
    EXPECT_EQ(Metric("Hit", "AllowCache"), 1);

    // ...until the file drifts...
    HostEvent drift = program;
    drift.type = ZELK_EVENT_CLOSE_POST;
    Run(drift);
    v = Run(cached);
    EXPECT_EQ(v.response.action, ZELK_ACTION_NOT_HANDLED);
    EXPECT_EQ(Metric("TotalIgnoredEvent"), 0) << "type 0 goes to the handler, which declines";

    // ...or a ruleset is imported.
    Run(program);
    EXPECT_EQ(Run(cached).response.action, ZELK_ACTION_ALLOW);
    Import("Weekly", "{\"rules\":[]}");
    EXPECT_EQ(Run(cached).response.action, ZELK_ACTION_NOT_HANDLED);
    EXPECT_EQ(Metric("Clear", "AllowCache"), 2) << "the manifest import flushed it once already";
}

TEST_F(EndToEnd, ApprovalsReachedBeforeAnImportAreNotCached) {
    HostEvent program = File("bin/raced", 50);
    StoreScanned(program);
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);

    // A decision that read the store before an import replaced the policy
    // finishes after it: its approval must not enter the cache.
    ac_event decision;
    ZELKEngine::ConvertEvent(program.Raw(), decision);
    decision.policyGeneration = engine->GetAllowCache().PolicyGeneration();
    Import("Weekly", "{\"rules\":[" + HashRule(program, "block") + "]}");
    engine->RememberAllowed(decision);

    HostEvent cached = program;
    cached.type = ZELK_EVENT_CACHED;
    EXPECT_EQ(Run(cached).response.action, ZELK_ACTION_NOT_HANDLED);
    Verdict v = Run(program);
    EXPECT_EQ(v.status, ZELK_STATUS_BLOCKED) << "the new ruleset decides";
}

TEST_F(EndToEnd, ConcurrentMixedEventsKeepCountersConsistent) {
    std::vector<HostEvent> files;
    std::string rules;
    for (int i = 0; i < 8; ++i) {
        files.push_back(File("mt/f" + std::to_string(i), static_cast<uint8_t>(100 + i)));
        if (i % 2 == 0) {
            rules += std::string(rules.empty() ? "" : ",") +
                     HashRule(files.back(), i % 4 == 0 ? "allow" : "block");
        }
    }
    Import("Weekly", "{\"rules\":[" + rules + "]}");
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);

    constexpr int kThreads = 4;
    constexpr int kPerThread = 2500;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                HostEvent e = files[(i + t) % files.size()];
                const int kind = i % 4;
                e.type = kind == 0   ? ZELK_EVENT_EXEC_PRE
                         : kind == 1 ? ZELK_EVENT_CACHED
                         : kind == 2 ? ZELK_EVENT_MMAP_PRE
                                     : ZELK_EVENT_CREATE_POST;
                e.mode = 4;
                e.pid = 1000 + t;
                ac_wrapper_response_s r;
                const uint32_t status = app_ctl(e.Raw(), &r);
                const size_t index = (i + t) % files.size();
                const bool blockListed = index % 4 == 2;
                if (e.type == ZELK_EVENT_EXEC_PRE &&
                    (status == ZELK_STATUS_BLOCKED) != blockListed) {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    const long starts = kThreads * kPerThread / 4;
    EXPECT_EQ(Metric("RunProgram"), starts);
    EXPECT_EQ(Metric("RunAllowedRule") + Metric("RunBlockedRule") + Metric("RunAllowedLogOnly"),
              starts * 2);
}
