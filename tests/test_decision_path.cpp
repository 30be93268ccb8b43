// The allow-cache answer of app_ctl has a short road when tracing is off.
// These tests drive the same host events once with every level traced (the
// full conversion) and once without TRACE, and require the same response
// bytes, status codes and allow-cache counters from both.  (The plain
// counters are process-wide and add up over both drives.)
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "TestUtil.h"
#include "zelk.h"

namespace {

struct Step {
    uint32_t type;
    const char* user;  // null: not supplied
    const char* process;
    std::string target;
};

struct Outcome {
    std::vector<uint32_t> statuses;
    std::vector<std::vector<unsigned char>> responses;
    std::string metrics;  // the "AllowCache" section
};

std::string AllowCacheMetrics() {
    unsigned size = 0;
    get_metrics_mem(nullptr, &size);
    std::vector<char> buffer(size);
    EXPECT_EQ(get_metrics_mem(buffer.data(), &size), ZELK_STATUS_SUCCESS);
    cJSON* doc = cJSON_Parse(buffer.data());
    cJSON* metrics = cJSON_GetObjectItemCaseSensitive(doc, "metrics");
    char* text = cJSON_PrintUnformatted(cJSON_GetObjectItemCaseSensitive(metrics, "AllowCache"));
    std::string out = text;
    cJSON_free(text);
    cJSON_Delete(doc);
    return out;
}

// Stores `target` as an allowed scanned item with digest `sha` and size 4.
void StoreAllowed(const uint8_t* sha, const std::string& target) {
    ac_db_item_s item;
    memset(&item, 0, sizeof(item));
    memcpy(item.sha256, sha, 32);
    item.source = ZELK_SOURCE_SCANNED;
    item.fileName = "tool";
    item.path = "/opt/x/";
    item.nativePath = target.c_str();
    item.size = 4;
    item.authorized = 1;
    item.ruleset = "";
    EXPECT_EQ(store_item(&item, false), ZELK_STATUS_SUCCESS);
}

// A host event of `type` for `target` run by `process` as `user`.
ac_wrapper_event_s HostEvent(uint32_t type, const char* user, const char* process,
                             const std::string& target, uint8_t* sha) {
    ac_wrapper_event_s e = zelktest::EmptyEvent();
    e.eventType = type;
    e.pid = 77;
    e.isexec = 1;
    e.size = 4;
    e.user = user;
    e.processName = process;
    e.name = target.c_str();
    e.group = "staff";
    e.fileSha256 = sha;
    return e;
}

// Runs `steps` on a fresh database with log mask `mask`; `target` is stored
// as an allowed scanned item first.
Outcome Drive(const std::string& dir, unsigned mask, const std::string& target,
              const std::vector<Step>& steps) {
    const std::string db = dir + "/ac-" + std::to_string(mask) + ".db";
    ac_engine_start_s start = zelktest::StartRecord(db, 15);
    EXPECT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(set_loglevel(mask), ZELK_STATUS_SUCCESS);
    uint8_t sha[32] = {7, 1, 2, 3};
    StoreAllowed(sha, target);
    Outcome out;
    for (const Step& step : steps) {
        ac_wrapper_event_s e = HostEvent(step.type, step.user, step.process, step.target, sha);
        ac_wrapper_response_s response;
        memset(&response, 0xcd, sizeof(response));
        out.statuses.push_back(app_ctl(&e, &response));
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&response);
        out.responses.emplace_back(bytes, bytes + sizeof(response));
    }
    out.metrics = AllowCacheMetrics();
    engine_stop();
    return out;
}

}  // namespace

TEST(DecisionPath, CacheAnswersMatchWithAndWithoutTracing) {
    const std::string dir = zelktest::ScratchDir();
    const std::string target = "/opt/x/a-rather-long-tool-name-beyond-short-strings";
    const std::vector<Step> steps = {
        {ZELK_EVENT_CACHED, "alice", "/usr/bin/bash", target},       // target miss
        {ZELK_EVENT_EXEC_PRE, "alice", "/usr/bin/bash", target},     // allowed, cached
        {ZELK_EVENT_CACHED, "alice", "/usr/bin/bash", target},       // hit
        {ZELK_EVENT_CACHED, "bob", "/usr/bin/bash", target},         // user miss
        {ZELK_EVENT_CACHED, "alice", "/usr/bin/zsh", target},        // process miss
        {ZELK_EVENT_CACHED, nullptr, nullptr, target},               // no keys: miss
        {ZELK_EVENT_EXEC_PRE, nullptr, nullptr, target},             // allowed, cached empty
        {ZELK_EVENT_CACHED, nullptr, nullptr, target},               // hit with empty keys
        {ZELK_EVENT_CACHED, "", "", target},                         // the same hit
        {ZELK_EVENT_DELETE_POST, "alice", "/usr/bin/bash", target},  // drops the target
        {ZELK_EVENT_CACHED, "alice", "/usr/bin/bash", target},       // target miss again
        {ZELK_EVENT_CACHED, "alice", "/usr/bin/bash", ""},           // empty target
    };
    const Outcome traced = Drive(dir, 15, target, steps);
    const Outcome quiet = Drive(dir, ZELK_LOG_ERROR | ZELK_LOG_WARNING, target, steps);
    ASSERT_EQ(traced.responses.size(), steps.size());
    for (size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(traced.statuses[i], quiet.statuses[i]) << "step " << i;
        EXPECT_EQ(traced.responses[i], quiet.responses[i]) << "step " << i;
    }
    // The hits really were hits, and every lookup was counted once.
    ac_wrapper_response_s hit;
    memcpy(&hit, quiet.responses[2].data(), sizeof(hit));
    EXPECT_EQ(hit.action, ZELK_ACTION_ALLOW);
    EXPECT_EQ(hit.authorizedState, 3u);
    EXPECT_EQ(traced.metrics, quiet.metrics);
    EXPECT_NE(quiet.metrics.find("\"Hit\":3"), std::string::npos) << quiet.metrics;
    EXPECT_NE(quiet.metrics.find("\"Miss\":6"), std::string::npos) << quiet.metrics;
}

TEST(DecisionPath, ThreadsKeepTheirOwnCacheKeys) {
    // Each host thread asks for its own triple; the reused key buffers must
    // never answer one thread with another's keys.
    const std::string dir = zelktest::ScratchDir();
    ac_engine_start_s start = zelktest::StartRecord(dir + "/ac.db", ZELK_LOG_ERROR);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    uint8_t sha[32] = {9};
    const std::string cached = "/opt/cached/tool-that-is-allowed-and-remembered";
    StoreAllowed(sha, cached);
    ac_wrapper_event_s warm = HostEvent(ZELK_EVENT_EXEC_PRE, "alice", "/usr/bin/bash", cached, sha);
    ac_wrapper_response_s response;
    ASSERT_EQ(app_ctl(&warm, &response), ZELK_STATUS_SUCCESS);

    std::vector<int> wrong(2, 0);
    auto worker = [&](int index) {
        const std::string other = "/opt/other/never-allowed-tool-" + std::to_string(index);
        for (int i = 0; i < 2000; ++i) {
            const bool expectHit = (i + index) % 2 == 0;
            ac_wrapper_event_s e = HostEvent(ZELK_EVENT_CACHED, "alice", "/usr/bin/bash",
                                             expectHit ? cached : other, nullptr);
            ac_wrapper_response_s r;
            app_ctl(&e, &r);
            if ((r.authorizedState == 3) != expectHit) {
                ++wrong[index];
            }
        }
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    EXPECT_EQ(wrong[0], 0);
    EXPECT_EQ(wrong[1], 0);
    engine_stop();
}
