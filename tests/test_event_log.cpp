// The agent's event log: records reach their file as one JSON object per
// line, in order, with every field; the journal sink is used where journald
// runs.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "EventLog.h"
#include "TestUtil.h"

namespace {

TEST(EventLog, WritesJsonLinesInOrder) {
    const std::string path = zelktest::ScratchDir() + "/events.jsonl";
    zelkagent::EventLog log;
    std::string error;
    ASSERT_TRUE(log.Open(path, error)) << error;
    for (int i = 0; i < 100; ++i) {
        zelkagent::EventRecord r;
        r.verdict = i % 2 ? "denied" : "would-deny";
        r.target = "/opt/x" + std::to_string(i);
        r.sha256 = std::string(64, 'a');
        r.process = "/bin/sh";
        r.user = "alice \"quoted\"";
        r.rule = "Weekly";
        r.pid = 1000 + i;
        r.timeMs = 1700000000000ULL + i;
        log.Record(r);
    }
    log.Close();
    EXPECT_EQ(log.Written(), 100u);
    EXPECT_EQ(log.Dropped(), 0u);

    std::ifstream in(path);
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
        cJSON* o = cJSON_Parse(line.c_str());
        ASSERT_NE(o, nullptr) << line;
        EXPECT_STREQ(cJSON_GetObjectItem(o, "target")->valuestring,
                     ("/opt/x" + std::to_string(n)).c_str());
        EXPECT_STREQ(cJSON_GetObjectItem(o, "verdict")->valuestring,
                     n % 2 ? "denied" : "would-deny");
        EXPECT_STREQ(cJSON_GetObjectItem(o, "user")->valuestring, "alice \"quoted\"");
        EXPECT_EQ(cJSON_GetObjectItem(o, "pid")->valuedouble, 1000 + n);
        cJSON_Delete(o);
        ++n;
    }
    EXPECT_EQ(n, 100);

    zelkagent::EventLog bad;
    EXPECT_FALSE(bad.Open(zelktest::ScratchDir() + "/missing/dir/events.jsonl", error));
    EXPECT_NE(error.find("cannot open event log"), std::string::npos) << error;
}

TEST(EventLog, JournalSinkWhereJournaldRuns) {
    struct stat st {};
    if (stat("/run/systemd/journal/socket", &st) != 0) {
        GTEST_SKIP() << "systemd-journald is not running here (no /run/systemd/journal/socket)";
    }
    zelkagent::EventLog log;
    std::string error;
    ASSERT_TRUE(log.Open("journal", error)) << error;
    zelkagent::EventRecord r;
    r.verdict = "denied";
    r.target = "/opt/test-target";
    log.Record(r);
    log.Close();
    EXPECT_EQ(log.Written(), 1u);
}

}  // namespace
