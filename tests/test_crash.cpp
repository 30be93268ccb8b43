// Crash consistency: a process killed at any point while it imports, stores
// and flushes leaves a database that opens, passes integrity_check and holds
// each flushed batch whole or not at all; a write that fails because the
// disk is full reports failure, keeps the store consistent, and the next
// write after space returns succeeds.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "zelk.h"

namespace {

constexpr int kRules = 3000;  // flushed in chunks of 1001 by the import
constexpr int kBatch = 500;   // items per drift batch, one flush each
constexpr int kRepetitions = 20;

std::string RulesetOf(int rules, int salt) {
    std::string json = "{\"rules\":[";
    char sha[65];
    for (int i = 0; i < rules; ++i) {
        snprintf(sha, sizeof(sha), "%08x%08x%048d", salt, i, 0);
        json += std::string(i ? "," : "") + "{\"sha256\":\"" + sha + "\",\"size\":10}";
    }
    return json + "]}";
}

// The item points at `name` and `ruleset`: both must outlive its use.
ac_db_item_s Item(int batch, int i, const char* name, const char* ruleset) {
    ac_db_item_s item{};
    memcpy(item.sha256, &batch, sizeof(batch));
    memcpy(item.sha256 + 4, &i, sizeof(i));
    item.source = ZELK_SOURCE_APPROVED_DRIFT;
    item.fileName = name;
    item.path = item.nativePath = "/opt/drift/";
    item.ruleset = ruleset;
    item.size = 10;
    item.authorized = 1;
    return item;
}

// The child's endless work; it reports each finished step on `progress`.
[[noreturn]] void Work(const std::string& db, int seed, int progress) {
    ac_engine_start_s start = zelktest::StartRecord(db, ZELK_LOG_ERROR);
    if (engine_start(&start) != ZELK_STATUS_SUCCESS) {
        _exit(3);
    }
    const std::string ruleset = RulesetOf(kRules, seed);
    for (int step = 0;; ++step) {
        if (step % 3 == 0) {
            set_ruleset_buffer(false, ruleset.c_str(), "Weekly");
        } else {
            const std::string batch = "batch-" + std::to_string(seed) + "-" + std::to_string(step);
            for (int i = 0; i < kBatch; ++i) {
                ac_db_item_s item = Item(seed * 1000 + step, i, "f", batch.c_str());
                store_item(&item, true);
            }
            flush_db_buffer();
        }
        if (write(progress, "+", 1) != 1) {
            _exit(4);
        }
    }
}

}  // namespace

TEST(Crash, KilledWriterLeavesWholeBatchesOrNone) {
    const std::string db = zelktest::ScratchDir() + "/ac.db";
    std::mt19937 random(20240601);
    for (int rep = 0; rep < kRepetitions; ++rep) {
        int pipeFds[2];
        ASSERT_EQ(pipe(pipeFds), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(pipeFds[0]);
            Work(db, rep, pipeFds[1]);
        }
        close(pipeFds[1]);
        // Let it finish a random number of steps, then kill it part way
        // through a later one.
        const int steps = static_cast<int>(random() % 4);
        char done;
        for (int i = 0; i < steps && read(pipeFds[0], &done, 1) == 1; ++i) {
        }
        usleep(static_cast<useconds_t>(random() % 40000));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        close(pipeFds[0]);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;

        SCOPED_TRACE("repetition " + std::to_string(rep));
        zelktest::Db check(db);
        EXPECT_EQ(check.Text("PRAGMA integrity_check;"), "ok");
        // An import commits in chunks of 1001 after its purge.
        const int64_t rules = check.Int("SELECT count(*) FROM InventoryItems WHERE source = 2;");
        EXPECT_TRUE(rules % 1001 == 0 || rules == kRules) << rules;
        EXPECT_EQ(check.Int("SELECT count(*) FROM (SELECT ruleset FROM InventoryItems WHERE "
                            "source = 4 GROUP BY ruleset HAVING count(*) != " +
                            std::to_string(kBatch) + ");"),
                  0);
        ac_engine_start_s start = zelktest::StartRecord(db, ZELK_LOG_ERROR);
        ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
        ac_db_item_s item = Item(-1, rep, "after-restart", "");
        item.source = ZELK_SOURCE_SCANNED;
        EXPECT_EQ(store_item(&item, false), ZELK_STATUS_SUCCESS);
        ASSERT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    }
    EXPECT_EQ(zelktest::Db(db).Int("SELECT count(*) FROM InventoryItems WHERE source = 3;"),
              kRepetitions);
}

TEST(Crash, DiskFullFailsCleanlyAndTheNextWriteSucceeds) {
    const std::string db = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(db, ZELK_LOG_ERROR);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    const std::string big(2000, 'x');
    int stored = 20;
    for (int i = 0; i < stored; ++i) {
        ac_db_item_s item = Item(1, i, big.c_str(), "");
        ASSERT_EQ(store_item(&item, false), ZELK_STATUS_SUCCESS);
    }

    // The file may not grow any more: writes that need space fail with EFBIG
    // (the signal a real full disk does not send is ignored here).
    struct rlimit original;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &original), 0);
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit full = original;
    full.rlim_cur = static_cast<rlim_t>(zelktest::Db(db).Int(
        "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size;"));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);

    uint32_t immediate = ZELK_STATUS_SUCCESS;
    int attempts = 0;
    for (; attempts < 200 && immediate == ZELK_STATUS_SUCCESS; ++attempts) {
        ac_db_item_s item = Item(2, attempts, big.c_str(), "");
        immediate = store_item(&item, false);
        stored += immediate == ZELK_STATUS_SUCCESS;
    }
    for (int i = 0; i < 300; ++i) {
        ac_db_item_s item = Item(3, i, big.c_str(), "queued");
        store_item(&item, true);
    }
    const uint32_t flushed = flush_db_buffer();
    const uint32_t imported =
        set_ruleset_buffer(false, RulesetOf(2000, 9).c_str(), "TooBigForTheDisk");

    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &original), 0);
    EXPECT_EQ(immediate, ZELK_STATUS_FAILURE) << "after " << attempts << " writes";
    EXPECT_EQ(flushed, ZELK_STATUS_FAILURE);
    EXPECT_EQ(imported, ZELK_STATUS_SUCCESS) << "single records that fail do not stop an import";

    // Space is back: the store works, and holds exactly what was reported.
    ac_db_item_s item = Item(4, 0, big.c_str(), "");
    EXPECT_EQ(store_item(&item, false), ZELK_STATUS_SUCCESS);
    ++stored;
    ASSERT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    zelktest::Db check(db);
    EXPECT_EQ(check.Text("PRAGMA integrity_check;"), "ok");
    EXPECT_EQ(check.Int("SELECT count(*) FROM InventoryItems WHERE source = 4;"), stored);
    EXPECT_EQ(check.Int("SELECT count(*) FROM InventoryItems WHERE ruleset = 'queued';"), 0);
}
