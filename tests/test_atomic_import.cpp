// A policy change is one step: while a ruleset is re-imported again and again,
// a decision thread of the engine's own process and a reader in another
// process only ever see the old ruleset or the new one, whole; a process
// killed at any moment of a 100,000-rule import leaves the old ruleset or the
// new one, never a mix and never a damaged file.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "zelk.h"

namespace {

// `rules` hash rules; rule 0 allows the digest 0x5a5a..., the others are
// filler distinguished by `salt`.
std::string Ruleset(int rules, int salt) {
    std::string json = "{\"rules\":[{\"sha256\":\"" + std::string(64, '5') +
                       "\",\"size\":4,\"action\":\"allow\",\"fileName\":\"allowed\"}";
    char sha[65];
    for (int i = 1; i < rules; ++i) {
        snprintf(sha, sizeof(sha), "%08x%08x%048d", salt, i, 0);
        json += std::string(",{\"sha256\":\"") + sha + "\",\"size\":10,\"action\":\"allow\"}";
    }
    return json + "]}";
}

TEST(AtomicImport, ReadersSeeTheOldPolicyOrTheNewOneWhole) {
    const std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(db, ZELK_LOG_ERROR);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    const std::string target = dir + "/allowed";
    zelktest::WriteFile(target, "body");
    const std::string rulesets[2] = {Ruleset(20001, 1), Ruleset(20002, 2)};
    ASSERT_EQ(set_ruleset_buffer(false, rulesets[0].c_str(), "Weekly"), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(set_config(ZELK_CONFIG_LOCKDOWN, 0, 0), ZELK_STATUS_SUCCESS);

    // Another process counts the ruleset's rows as a host or sqlite3 would.
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        sqlite3* handle = nullptr;
        if (sqlite3_open_v2(db.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            _exit(2);
        }
        sqlite3_busy_timeout(handle, 5000);
        sqlite3_stmt* count = nullptr;
        sqlite3_prepare_v2(handle, "SELECT count(*) FROM InventoryItems WHERE source = 2;", -1,
                           &count, nullptr);
        (void)!write(ready[1], "r", 1);
        int reads = 0;
        for (;;) {
            pollfd p{done[0], POLLIN, 0};
            if (poll(&p, 1, 0) > 0) {
                break;
            }
            if (sqlite3_step(count) != SQLITE_ROW) {
                _exit(3);
            }
            const int64_t rows = sqlite3_column_int64(count, 0);
            sqlite3_reset(count);
            if (rows != 20001 && rows != 20002) {
                _exit(4);  // a mix of the two rulesets, or an empty one
            }
            ++reads;
        }
        sqlite3_finalize(count);
        sqlite3_close(handle);
        _exit(reads > 0 ? 0 : 5);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);

    // A decision thread of this process starts the allowed file throughout.
    std::atomic<bool> stop{false};
    std::atomic<int> decisions{0}, refused{0};
    std::thread decider([&] {
        uint8_t sha[32];
        memset(sha, 0x55, sizeof(sha));
        while (!stop.load()) {
            ac_wrapper_event_s e = zelktest::ExecEvent(target, sha);
            ac_wrapper_response_s response;
            const uint32_t status = app_ctl(&e, &response);
            if (status != ZELK_STATUS_SUCCESS || response.action != ZELK_ACTION_ALLOW) {
                ++refused;
            }
            ++decisions;
        }
    });
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(set_ruleset_buffer(false, rulesets[(i + 1) % 2].c_str(), "Weekly"),
                  ZELK_STATUS_SUCCESS);
    }
    stop = true;
    decider.join();
    (void)!write(done[1], "d", 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the other process saw a partial policy (exit " << WEXITSTATUS(status) << ")";
    EXPECT_GT(decisions.load(), 0);
    EXPECT_EQ(refused.load(), 0) << "of " << decisions.load() << " decisions";
    zelktest::Db check(db);
    EXPECT_EQ(check.Int("SELECT count(*) FROM InventoryItems WHERE source = 2;"), 20001);
    EXPECT_EQ(check.Text("PRAGMA journal_mode;"), "wal");
    engine_stop();
}

TEST(AtomicImport, KilledImportLeavesOldOrNewRulesetWhole) {
    const std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    {
        ac_engine_start_s start = zelktest::StartRecord(db, ZELK_LOG_ERROR);
        ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
        ASSERT_EQ(set_ruleset_buffer(false, Ruleset(1000, 7).c_str(), "Old"), ZELK_STATUS_SUCCESS);
        engine_stop();
    }
    const std::string next = Ruleset(100000, 9);
    std::mt19937 random(20261124);
    int sawOld = 0, sawNew = 0;
    for (int round = 0; round < 6; ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ac_engine_start_s start = zelktest::StartRecord(db, ZELK_LOG_ERROR);
            if (engine_start(&start) != ZELK_STATUS_SUCCESS) {
                _exit(3);
            }
            set_ruleset_buffer(false, next.c_str(), "New");
            engine_stop();
            _exit(0);
        }
        // Anywhere from before the purge to after the commit.
        usleep(std::uniform_int_distribution<int>(0, 600000)(random));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);

        zelktest::Db check(db);
        ASSERT_EQ(check.Text("PRAGMA integrity_check;"), "ok") << "round " << round;
        const int64_t rows = check.Int("SELECT count(*) FROM InventoryItems WHERE source = 2;");
        const std::vector<std::string> names =
            check.Column("SELECT DISTINCT ruleset FROM InventoryItems WHERE source = 2;");
        ASSERT_EQ(names.size(), 1u) << "round " << round;
        if (names[0] == "Old") {
            EXPECT_EQ(rows, 1000);
            ++sawOld;
        } else {
            EXPECT_EQ(names[0], "New");
            EXPECT_EQ(rows, 100000);
            ++sawNew;
            // Start the next round from the old ruleset again.
            ac_engine_start_s start = zelktest::StartRecord(db, ZELK_LOG_ERROR);
            ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
            ASSERT_EQ(set_ruleset_buffer(false, Ruleset(1000, 7).c_str(), "Old"),
                      ZELK_STATUS_SUCCESS);
            engine_stop();
        }
    }
    EXPECT_EQ(sawOld + sawNew, 6);
}

}  // namespace
