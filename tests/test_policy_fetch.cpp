// Fetching a bundle over HTTPS: a new one is written, an unchanged one costs
// a 304 and no download, an untrusted certificate and a plain-HTTP address
// are refused, a stopped server leaves the last good bundle in place.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "HttpsTestServer.h"
#include "PolicyFetch.h"
#include "TestUtil.h"

namespace {

std::string Read(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(PolicyFetch, NewUnchangedRefusedAndOffline) {
    const std::string why = zelktest::HttpsTestServer::Unavailable();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    const std::string dir = zelktest::ScratchDir();
    zelktest::HttpsTestServer server(dir);
    ASSERT_TRUE(server.Start());
    zelktest::WriteFile(server.Www() + "/policy.bundle", "bundle version 1");

    zelkagent::FetchRequest request;
    request.url = server.Url("policy.bundle");
    request.caFile = server.CaFile();
    request.destination = dir + "/current.bundle";
    zelkagent::FetchResult first = zelkagent::FetchBundle(request);
    ASSERT_EQ(first.outcome, zelkagent::FetchResult::kNew) << first.error;
    EXPECT_EQ(Read(request.destination), "bundle version 1");
    EXPECT_FALSE(first.etag.empty());

    request.etag = first.etag;
    zelkagent::FetchResult second = zelkagent::FetchBundle(request);
    EXPECT_EQ(second.outcome, zelkagent::FetchResult::kUnchanged) << second.error;
    EXPECT_EQ(second.httpStatus, 304);
    EXPECT_NE(server.Requests().find("GET /policy.bundle 304"), std::string::npos);

    zelktest::WriteFile(server.Www() + "/policy.bundle", "bundle version 2");
    zelkagent::FetchResult third = zelkagent::FetchBundle(request);
    ASSERT_EQ(third.outcome, zelkagent::FetchResult::kNew) << third.error;
    EXPECT_NE(third.etag, first.etag);
    EXPECT_EQ(Read(request.destination), "bundle version 2");

    // Too large: refused, the last good bundle stays.
    zelkagent::FetchRequest small = request;
    small.etag.clear();
    small.maxBytes = 4;
    EXPECT_EQ(zelkagent::FetchBundle(small).outcome, zelkagent::FetchResult::kFailed);
    EXPECT_EQ(Read(request.destination), "bundle version 2");

    // A certificate nobody vouches for, and plain HTTP, are refused.
    zelkagent::FetchRequest untrusted = request;
    untrusted.caFile.clear();
    untrusted.etag.clear();
    zelkagent::FetchResult refused = zelkagent::FetchBundle(untrusted);
    EXPECT_EQ(refused.outcome, zelkagent::FetchResult::kFailed);
    EXPECT_FALSE(refused.error.empty());
    zelkagent::FetchRequest plain = request;
    plain.url = "http://127.0.0.1:1/policy.bundle";
    EXPECT_EQ(zelkagent::FetchBundle(plain).outcome, zelkagent::FetchResult::kFailed);

    server.Stop();
    zelkagent::FetchResult offline = zelkagent::FetchBundle(request);
    EXPECT_EQ(offline.outcome, zelkagent::FetchResult::kFailed);
    EXPECT_EQ(Read(request.destination), "bundle version 2");
}

}  // namespace
