#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "TestUtil.h"
#include "ZELKEvent.h"
#include "ZELKFile.h"

TEST(File, ReadToEndClosesAndStaysOk) {
    const std::string dir = zelktest::ScratchDir();
    const std::string path = dir + "/data.bin";
    zelktest::WriteFile(path, "hello");

    ac_file_s f;
    fileopen_read(path, f);
    ASSERT_GE(f.fd, 0);
    EXPECT_TRUE(fileok(f));
    char buf[16];
    EXPECT_EQ(fileread(&f, buf, sizeof(buf)), 5u);
    EXPECT_FALSE(fileend(f));
    EXPECT_EQ(fileread(&f, buf, sizeof(buf)), 0u);
    EXPECT_TRUE(fileend(f));
    EXPECT_TRUE(fileok(f));
    fileclose(&f);
    fileclose(&f);  // twice is harmless
    EXPECT_TRUE(fileok(f));
}

TEST(File, OpenFailuresAreReportedNotThrown) {
    const std::string dir = zelktest::ScratchDir();
    const std::string target = dir + "/target";
    const std::string link = dir + "/link";
    zelktest::WriteFile(target, "x");
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));

    ac_file_s f;
    fileopen_read(link, f);
    EXPECT_LT(f.fd, 0);
    EXPECT_EQ(fileerror(f), ELOOP);
    EXPECT_TRUE(fileend(f));

    ac_file_s missing;
    fileopen_read(dir + "/nope", missing);
    EXPECT_EQ(fileerror(missing), ENOENT);

    // Writing through a link is refused too; a plain path is created.
    ac_file_s w;
    fileopen_write(link, w);
    EXPECT_EQ(fileerror(w), ELOOP);
    fileopen_write(dir + "/out", w);
    ASSERT_GE(w.fd, 0);
    EXPECT_EQ(filewrite(&w, "abc", 3), 3u);
    fileclose(&w);

    // A read on a descriptor that was closed underneath forgets it.
    ac_file_s stale;
    fileopen_read(target, stale);
    ASSERT_GE(stale.fd, 0);
    close(stale.fd);
    char c;
    EXPECT_EQ(fileread(&stale, &c, 1), 0u);
    EXPECT_EQ(fileerror(stale), EBADF);
    EXPECT_TRUE(fileend(stale));
}

TEST(File, TimeHelpers) {
    EXPECT_EQ(convertTimeToMillis(1700000000ULL), 1700000000000ULL);
    EXPECT_EQ(convertTimeToMillis(1700000000000ULL), 1700000000000ULL);
    EXPECT_EQ(convertTimeToMillis(1700000000000000ULL), 1700000000000ULL);
    EXPECT_EQ(convertTimeToMillis(9999999999ULL), 9999999999000ULL);
    EXPECT_EQ(convertTimeToMillis(10000000000ULL), 10000000000ULL);
    EXPECT_EQ(convertTimeToMillis(9999999999999ULL), 9999999999999ULL);
    EXPECT_EQ(convertTimeToMillis(10000000000000ULL), 10000000000ULL);

    const uint64_t now = GetCurrentTimeInMillis();
    EXPECT_GT(now, 1700000000000ULL);
    const uint64_t wall = static_cast<uint64_t>(time(nullptr)) * 1000;
    EXPECT_LE(now, wall + 1000);
    EXPECT_GE(now + 2000, wall);
}

TEST(File, FixedAnswerHooks) {
    ac_event e;
    EXPECT_TRUE(VerifyCert("/usr/bin/ls"));
    EXPECT_FALSE(IsFileExecutable(e));
    e.isexec = 1;
    EXPECT_TRUE(IsFileExecutable(e));
    EXPECT_FALSE(IsProcessAlive(static_cast<unsigned long>(getpid())));
    EXPECT_TRUE(ScanFile(e));
}
