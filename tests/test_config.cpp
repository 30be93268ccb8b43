// set_config: the modes, the maintenance window persisted in AppControlState
// and the lockdown upgrade check, against a real database file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <utility>

#include "DbTestUtil.h"
#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKFile.h"
#include "zelk.h"

using zelktest::Db;
using zelktest::LogCapture;

namespace {

std::string StartFresh() {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(path);
    EXPECT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    return path;
}

void SetAgentVersion(const std::string& path, const std::string& version) {
    Db(path).Exec("UPDATE AppControlState SET settingValue = '" + version +
                  "' WHERE settingName = 'agentVersion';");
}

// The stored window as "start end", and the one in effect.
std::string StoredWindow(const std::string& path) {
    Db db(path);
    return db.Setting("autoAuthorizeStartTime") + " " + db.Setting("autoAuthorizeEndTime");
}
std::pair<unsigned long, unsigned long> Window() {
    return {config.GetAutoAuthorizeStartTime(), config.GetAutoAuthorizeEndTime()};
}

const std::string kUpgradeFromEmpty =
    "Upgrade detected old version  new version 12.0.178 waiting for manifest to be applied";

}  // namespace

TEST(SetConfig, NeedsARunningEngine) {
    EXPECT_EQ(set_config(0x1F, 1, 2), ZELK_STATUS_NOT_STARTED);
    EXPECT_FALSE(config.GetLockdown());
    EXPECT_EQ(config.GetAutoAuthorizeEndTime(), ULONG_MAX);
}

TEST(SetConfig, EveryBitIsAppliedOnEveryCall) {
    StartFresh();
    ASSERT_EQ(set_config(0x1F, 100, 200), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(config.GetInventoryAutoAuthorize() && config.GetInventoryExists() &&
                config.GetLockdown() && config.GetRulesetExists() &&
                config.GetWhitelistInventory());
    for (const char* text :
         {"Setting AUTO AUTHORIZE", "Setting INVENTORY EXISTS", "Setting LOCKDOWN",
          "Setting RULESET EXISTS", "Setting ALLOWLIST INVENTORY"}) {
        EXPECT_TRUE(LogCapture::Get().Contains(text)) << text;
    }

    // Each bit alone switches the others off.
    struct Case {
        unsigned bit;
        bool (ZELKConfig::*getter)() const;
    };
    const Case cases[] = {{0x02, &ZELKConfig::GetInventoryExists},
                          {0x01, &ZELKConfig::GetLockdown},
                          {0x04, &ZELKConfig::GetRulesetExists},
                          {0x10, &ZELKConfig::GetWhitelistInventory}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bit);
        ASSERT_EQ(set_config(c.bit, 0, 0), ZELK_STATUS_SUCCESS);
        EXPECT_FALSE(config.GetInventoryAutoAuthorize());
        for (const Case& other : cases) {
            EXPECT_EQ((config.*other.getter)(), other.bit == c.bit) << other.bit;
        }
    }
    ASSERT_EQ(set_config(0, 0, 0), ZELK_STATUS_SUCCESS);
    for (const Case& c : cases) {
        EXPECT_FALSE((config.*c.getter)());
    }
}

TEST(SetConfig, LockdownOnFreshDatabaseWaitsForManifest) {
    StartFresh();
    ASSERT_TRUE(config.GetManifestApplied());
    ASSERT_EQ(set_config(0x01, 0, 0), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(config.GetLockdown());
    EXPECT_FALSE(config.GetManifestApplied()) << "an empty stored version counts as an upgrade";
    EXPECT_FALSE(config.GetInventoryAutoAuthorize() || config.GetInventoryExists() ||
                 config.GetRulesetExists() || config.GetWhitelistInventory());
    EXPECT_TRUE(LogCapture::Get().Contains(kUpgradeFromEmpty));
}

TEST(SetConfig, LockdownWithCurrentVersionKeepsManifest) {
    std::string path = StartFresh();
    SetAgentVersion(path, "12.0.178");
    ASSERT_EQ(set_config(0x01, 0, 0), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(config.GetManifestApplied());
    EXPECT_EQ(LogCapture::Get().CountContaining("Upgrade detected"), 0u);

    // A version that differs only in part is still another version.
    SetAgentVersion(path, "12.0.17");
    ASSERT_EQ(set_config(0x01, 0, 0), ZELK_STATUS_SUCCESS);
    EXPECT_FALSE(config.GetManifestApplied());
    EXPECT_TRUE(LogCapture::Get().Contains(
        "Upgrade detected old version 12.0.17 new version 12.0.178 waiting for manifest to be "
        "applied"));
    // Equal versions never set it back: that is the manifest import's job.
    SetAgentVersion(path, "12.0.178");
    ASSERT_EQ(set_config(0x01, 0, 0), ZELK_STATUS_SUCCESS);
    EXPECT_FALSE(config.GetManifestApplied());
    EXPECT_EQ(Db(path).Setting("agentVersion"), "12.0.178") << "set_config never writes it";
}

TEST(SetConfig, MaintenanceWindowIsStoredAndClosedNow) {
    std::string path = StartFresh();
    ASSERT_EQ(set_config(0x08, 1000, 2000), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(config.GetInventoryAutoAuthorize());
    EXPECT_EQ(Window(), std::make_pair(1000ul, 2000ul));
    EXPECT_EQ(StoredWindow(path), "1000 2000");

    uint64_t before = GetCurrentTimeInMillis();
    ASSERT_EQ(set_config(0, 7, 8), ZELK_STATUS_SUCCESS);
    uint64_t after = GetCurrentTimeInMillis();
    EXPECT_FALSE(config.GetInventoryAutoAuthorize());
    EXPECT_EQ(config.GetAutoAuthorizeStartTime(), 1000u);
    EXPECT_GE(config.GetAutoAuthorizeEndTime(), before);
    EXPECT_LE(config.GetAutoAuthorizeEndTime(), after);
    EXPECT_EQ(StoredWindow(path), "1000 " + std::to_string(config.GetAutoAuthorizeEndTime()));

    // Closed once: a further call changes neither time.
    const auto closed = Window();
    ASSERT_EQ(set_config(0, 9, 10), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Window(), closed);
}

TEST(SetConfig, AllOnesWindowIsStoredAsMinusOne) {
    std::string path = StartFresh();
    ASSERT_EQ(set_config(0x08, 5, ULONG_MAX), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(StoredWindow(path), "5 -1");
}

// A real restart: one process opens a window and stops; this process, with
// its config still at the defaults, takes the window back from the file and
// ignores the times it passes.
TEST(SetConfig, RestartRecoversTheStoredWindow) {
    std::string path = zelktest::ScratchDir() + "/ac.db";
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        ac_engine_start_s start = zelktest::StartRecord(path, 0);
        bool ok = engine_start(&start) == ZELK_STATUS_SUCCESS &&
                  set_config(0x08, 5000, 6000) == ZELK_STATUS_SUCCESS &&
                  engine_stop() == ZELK_STATUS_SUCCESS;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    ASSERT_EQ(config.GetAutoAuthorizeEndTime(), ULONG_MAX);
    ac_engine_start_s start = zelktest::StartRecord(path);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    ASSERT_EQ(set_config(0, 5, 6), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Window(), std::make_pair(5000ul, 6000ul));
    EXPECT_FALSE(config.GetInventoryAutoAuthorize());
    // Recovered once; later calls keep it, and recovery writes nothing.
    ASSERT_EQ(set_config(0, 7, 8), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Window(), std::make_pair(5000ul, 6000ul));
    EXPECT_EQ(StoredWindow(path), "5000 6000");
}

TEST(SetConfig, RestartWithNoStoredWindowStaysUnset) {
    StartFresh();
    ASSERT_EQ(set_config(0, 5, 6), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(Window(), std::make_pair(ULONG_MAX, ULONG_MAX)) << "stored -1";
}
