// Each TEST runs in its own process, so the logger singleton starts
// uninitialised in every one of them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>

#include "TestUtil.h"
#define ZELK_LOG_FILE "ZELK/ZELKLogger"
#include "ZELKLogger.h"

using zelktest::LogCapture;

TEST(Logger, NothingIsLoggedBeforeInit) {
    const std::string dir = zelktest::ScratchDir();
    ASSERT_EQ(0, chdir(dir.c_str()));
    ZTRACE("before init");
    ZERROR("before init");
    EXPECT_FALSE(ZELKLogger::GetInstance().GetInited());
    EXPECT_TRUE(LogCapture::Get().Records().empty());
    EXPECT_FALSE(std::ifstream(dir + "/LogFile.log").good());
}

TEST(Logger, MaskSelectsLevelsAndCallbackGetsEveryArgument) {
    ZELKLogger& logger = ZELKLogger::GetInstance();
    ASSERT_EQ(0, logger.InitLogger(&LogCapture::Callback, ZLOG_TRACE));

    ZWARNING("dropped warning");
    const int traceLine = __LINE__ + 1;
    ZTRACE("kept %s %d", "trace", 42);
    auto records = LogCapture::Get().Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 8u);
    EXPECT_EQ(records[0].line, static_cast<unsigned>(traceLine));
    EXPECT_EQ(records[0].function, "TestBody");
    EXPECT_EQ(records[0].file, "ZELK/ZELKLogger");
    EXPECT_EQ(records[0].message, "kept trace 42");
    EXPECT_EQ(records[0].length, records[0].message.size());

    // A level of two bits passes only when both are in the mask.
    LogCapture::Get().Clear();
    logger.SetLogMask(ZLOG_TRACE | ZLOG_WARNING);
    logger.Log(3, "f", "ZELK/ZELK", 1, "three");
    logger.Log(10, "f", "ZELK/ZELK", 1, "ten");
    logger.SetLogMask(15);
    logger.Log(ZLOG_INFO, "f", "ZELK/ZELK", 1, "info");
    ZINFO("%s", std::string(2000, 'x').c_str());  // cut to 1023 bytes
    records = LogCapture::Get().Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].message, "ten");
    EXPECT_EQ(records[1].message, "info");
    EXPECT_EQ(records[2].message, std::string(1023, 'x'));
    EXPECT_EQ(records[2].length, 1023u);

    // A second init changes nothing and warns.
    logger.SetLogMask(ZLOG_WARNING | ZLOG_ERROR);
    EXPECT_EQ(0, logger.InitLogger(nullptr, 15));
    EXPECT_EQ(logger.GetLogMask(), static_cast<unsigned>(ZLOG_WARNING | ZLOG_ERROR));
    EXPECT_TRUE(LogCapture::Get().Contains("ZELK Logging already initialized!"));
}

TEST(Logger, WithoutCallbackWritesEveryLevelToLogFile) {
    const std::string dir = zelktest::ScratchDir();
    ASSERT_EQ(0, chdir(dir.c_str()));
    ZELKLogger& logger = ZELKLogger::GetInstance();
    // The mask argument is ignored without a callback: all four levels pass.
    ASSERT_EQ(0, logger.InitLogger(nullptr, ZLOG_ERROR));
    EXPECT_EQ(logger.GetLogMask(), 15u);
    logger.Log(ZLOG_TRACE, "engine_stop", "ZELK/ZELK", 102, "Engine Stop");
    // A second init keeps the file and logs its warning into it.
    logger.InitLogger(nullptr, 15);

    std::ifstream in(dir + "/LogFile.log");
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const std::regex first(
        R"(^\d{4} \d{2} \d{2} \d{2}:\d{2}:\d{2} TRACE ZELK/ZELK engine_stop 102: Engine Stop\n)");
    EXPECT_TRUE(std::regex_search(text, first)) << text;
    EXPECT_NE(text.find(" WARNING ZELK/ZELKLogger InitLogger "), std::string::npos) << text;
    EXPECT_NE(text.find(": ZELK Logging already initialized!\n"), std::string::npos) << text;
}

TEST(Logger, LevelNames) {
    const char* const names[] = {"UNKNOWN", "INFO",    "WARNING", "UNKNOWN", "ERROR",
                                 "UNKNOWN", "UNKNOWN", "UNKNOWN", "TRACE"};
    for (unsigned level = 0; level < 9; ++level) {
        EXPECT_STREQ(ZELKLogger::LogLevelToString(level), names[level]) << level;
    }
}
