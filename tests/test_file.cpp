#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "TestUtil.h"
#include "ZELKEvent.h"
#include "ZELKFile.h"

TEST(File, ReadsWritesAndReportsFailuresWithoutThrowing) {
    const std::string dir = zelktest::ScratchDir();
    const std::string target = dir + "/target", link = dir + "/link";
    ac_file_s f;
    fileopen_write(target, f);
    ASSERT_GE(f.fd, 0);
    EXPECT_EQ(filewrite(&f, "hello", 5), 5u);
    fileclose(&f);
    fileclose(&f);  // twice is harmless

    // Reading to the end closes the file and is not an error.
    fileopen_read(target, f);
    ASSERT_GE(f.fd, 0);
    char buf[16];
    EXPECT_EQ(fileread(&f, buf, sizeof(buf)), 5u);
    EXPECT_FALSE(fileend(f));
    EXPECT_EQ(fileread(&f, buf, sizeof(buf)), 0u);
    EXPECT_TRUE(fileend(f));
    EXPECT_TRUE(fileok(f));

    // A final symbolic link is refused for reading and writing.
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    fileopen_read(link, f);
    EXPECT_LT(f.fd, 0);
    EXPECT_EQ(fileerror(f), ELOOP);
    EXPECT_TRUE(fileend(f));
    fileopen_write(link, f);
    EXPECT_EQ(fileerror(f), ELOOP);
    fileopen_read(dir + "/nope", f);
    EXPECT_EQ(fileerror(f), ENOENT);

    // A read on a descriptor that was closed underneath forgets it.
    fileopen_read(target, f);
    ASSERT_GE(f.fd, 0);
    close(f.fd);
    EXPECT_EQ(fileread(&f, buf, 1), 0u);
    EXPECT_EQ(fileerror(f), EBADF);
    EXPECT_TRUE(fileend(f));
}

TEST(File, TimeHelpers) {
    // Seconds, milliseconds and microseconds all come out as milliseconds;
    // the cut-overs sit at 10^10 and 10^13.
    EXPECT_EQ(convertTimeToMillis(1700000000ULL), 1700000000000ULL);
    EXPECT_EQ(convertTimeToMillis(1700000000000ULL), 1700000000000ULL);
    EXPECT_EQ(convertTimeToMillis(1700000000000000ULL), 1700000000000ULL);
    EXPECT_EQ(convertTimeToMillis(9999999999ULL), 9999999999000ULL);
    EXPECT_EQ(convertTimeToMillis(10000000000ULL), 10000000000ULL);
    EXPECT_EQ(convertTimeToMillis(9999999999999ULL), 9999999999999ULL);
    EXPECT_EQ(convertTimeToMillis(10000000000000ULL), 10000000000ULL);
    const uint64_t wall = static_cast<uint64_t>(time(nullptr)) * 1000;
    const uint64_t now = GetCurrentTimeInMillis();
    EXPECT_TRUE(now + 2000 >= wall && now <= wall + 3000) << now << " " << wall;
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
