// Host record to engine event and engine event to response record.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "ZELKEventAbstraction.h"
#include "ZELKLogger.h"

using zelktest::LogCapture;

TEST(EventConversion, AllNullHostRecordGivesEmptyEvent) {
    ZELKLogger::GetInstance().InitLogger(&LogCapture::Callback, 15);
    ac_wrapper_event_s in = zelktest::EmptyEvent();
    in.pid = 77;
    in.flags = 0x240;
    in.result = 3;
    in.size = 1234;
    in.mode = 0100755;
    in.passThrough1 = 11;
    in.passThrough2 = 22;
    in.passThrough3 = 33;
    in.dirty = in.isexec = in.passThroughFlag = in.isSymlink = 1;
    in.eventType = 23;

    ac_event out;
    out.lockdownBlocked = 1;  // never taken from the host
    ZELKEngine::ConvertEvent(&in, out);
    using V = std::vector<uint64_t>;
    EXPECT_EQ(
        V({out.pid, out.flags, out.result, out.size, out.mode, out.passThrough1, out.passThrough2,
           out.passThrough3, out.dirty, out.isexec, out.passThroughFlag, out.isSymlink,
           out.lockdownBlocked, out.eventType, out.abstractEventType, out.itemType}),
        V({77, 0x240, 3, 1234, 0100755, 11, 22, 33, 1, 1, 1, 1, 1, 23, 23, 1}));
    EXPECT_TRUE(out.name.empty());
    EXPECT_TRUE(out.processName.empty());
    EXPECT_TRUE(out.fileIssuer[5].empty());
    EXPECT_FALSE(out.fileSha256.HasBytes());
    EXPECT_TRUE(out.fileSha256.Text().empty());
    EXPECT_FALSE(out.processSha256.HasBytes());
    EXPECT_EQ(out.fileSha1.Length(), 20u);
    EXPECT_EQ(out.fileMd5.Length(), 16u);

    auto records = LogCapture::Get().Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message, "Start ConvertEvent");
    EXPECT_EQ(records[0].file, "ZELK/ZELKEventAbstraction");
}

TEST(EventConversion, TextsDigestsAndTrimming) {
    ZELKLogger::GetInstance().InitLogger(&LogCapture::Callback, 15);
    unsigned char sha[32];
    for (int i = 0; i < 32; ++i) {
        sha[i] = static_cast<unsigned char>(i);
    }
    const unsigned char sha1[20] = {0xaa, 0xbb};
    const unsigned char md5[16] = {0x01, 0x02};
    ac_wrapper_event_s in = zelktest::EmptyEvent();
    in.processName = "/usr/bin/python3";
    in.name = "/srv/app/run.py";
    in.user = "alice";
    in.group = "staff";
    in.processCompanyName = "  Acme   ";
    in.processProductName = "   ";
    in.fileCompanyName = "Tabbed\t";
    in.fileProductName = "Prod ";
    in.processIssuer[0] = "Root CA";
    in.fileIssuer[5] = "Unit";
    in.fileSha256 = sha;
    in.fileSha1 = sha1;
    in.fileMd5 = md5;
    in.processSha256 = sha;

    ac_event out;
    ZELKEngine::ConvertEvent(&in, out);
    EXPECT_EQ(out.processCompanyName, "  Acme");
    EXPECT_EQ(out.processProductName, "");
    EXPECT_EQ(out.fileCompanyName, "Tabbed\t");
    EXPECT_EQ(out.fileProductName, "Prod");
    EXPECT_EQ(out.processIssuer[0], "Root CA");
    EXPECT_EQ(out.fileIssuer[5], "Unit");
    EXPECT_EQ(out.fileSha256.Text(),
              "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    EXPECT_EQ(out.processSha256.Text(), out.fileSha256.Text());
    EXPECT_EQ(out.fileSha1.Text(), "aabb" + std::string(36, '0'));
    EXPECT_EQ(out.fileMd5.Text(), "0102" + std::string(28, '0'));

    // The log shows the host's untrimmed text and the capitalised issuer label.
    EXPECT_TRUE(LogCapture::Get().Contains("processCompanyName from plugin:'  Acme   '"));
    EXPECT_TRUE(LogCapture::Get().Contains("processIssuerCN from plugin:'Root CA'"));
    EXPECT_TRUE(LogCapture::Get().Contains("fileIssuerOU from plugin:'Unit'"));
    EXPECT_TRUE(LogCapture::Get().Contains(
        "fileSha256 from plugin: "
        "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"));

    // Copies are deep: the copy survives the original.
    ac_event* original = new ac_event(out);
    ac_event copy(*original);
    delete original;
    EXPECT_EQ(copy.fileSha256.Text(), out.fileSha256.Text());
    EXPECT_EQ(0, memcmp(copy.fileSha256.Bytes(), sha, 32));
}

TEST(EventConversion, ResponseSlotsRulesetAndCtime) {
    ac_event e;
    e.action = 9;
    e.itemType = 3;
    e.source = 2;
    e.authorizedState = 4;
    e.eventType = 1;
    e.responseExtra = 0xabcd;
    e.isAuthorized = 1;
    e.targetStat.st_ctim.tv_sec = 1;
    e.targetStat.st_ctim.tv_nsec = 5;

    ac_wrapper_response_s r;
    memset(&r, 0xee, sizeof(r));
    ZELKEngine::UpdateResponse(e, &r);
    uint32_t slots[7];
    memcpy(slots, &r, sizeof(slots));
    EXPECT_EQ(std::vector<uint32_t>(slots, slots + 7),
              (std::vector<uint32_t>{9, 3, 2, 4, 1, 0xabcd, 1}));
    EXPECT_EQ(r.ctimeNs, 1000000005u);
    // Without a ruleset the ruleset slot and padding are cleared.
    const char* bytes = reinterpret_cast<const char*>(&r);
    EXPECT_EQ(std::string(bytes + 28, 84), std::string(84, '\0'));

    e.ruleset = std::string(79, 'r');
    ZELKEngine::UpdateResponse(e, &r);
    EXPECT_EQ(std::string(r.ruleset, 79), e.ruleset);
    EXPECT_EQ(r.ruleset[79], '\0');

    e.ruleset = std::string(100, 'R');
    ZELKEngine::UpdateResponse(e, &r);
    EXPECT_EQ(std::string(r.ruleset, 80), std::string(80, 'R'));
    EXPECT_EQ(r.padding, 0u) << "no terminator spills past the 80 bytes";

    ZELKEngine::UpdateResponse(e, nullptr);  // harmless
}
