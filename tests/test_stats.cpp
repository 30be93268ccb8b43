#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "ZELKStats.h"

namespace {
struct JsonDeleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// Fetches the document through the size protocol.
Json FetchMetrics(std::string* text = nullptr) {
    ZELKStats& stats = ZELKStats::GetStats();
    unsigned size = 0;
    EXPECT_EQ(stats.GetMetrics(nullptr, &size), 0xC000000Fu);
    std::vector<char> buffer(size);
    EXPECT_EQ(stats.GetMetrics(buffer.data(), &size), 0u);
    EXPECT_EQ(size, strlen(buffer.data()) + 1);
    if (text) {
        *text = buffer.data();
    }
    return Json(cJSON_Parse(buffer.data()));
}
}  // namespace

TEST(Stats, PlainCountersAndKeyRules) {
    ZELKStats& stats = ZELKStats::GetStats();
    stats.Inc("");
    stats.Inc("RunProgram");
    stats.Inc("RunProgram");
    stats.Set("", 5);
    stats.Set("TotalDeletedEvents", 7);
    EXPECT_EQ(stats.Get("RunProgram"), 2);
    EXPECT_EQ(stats.Get("TotalDeletedEvents"), 7);
    EXPECT_EQ(stats.Get("NeverCounted"), 0);

    Json doc = FetchMetrics();
    ASSERT_TRUE(doc);
    cJSON* metrics = cJSON_GetObjectItemCaseSensitive(doc.get(), "metrics");
    ASSERT_TRUE(metrics);
    EXPECT_STREQ(cJSON_GetObjectItemCaseSensitive(metrics, "ACVersion")->valuestring, "12.0.178");
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(metrics, "RunProgram")->valuedouble, 2);
    // Inc ignores an empty key, Set creates it; Get never creates a key.
    EXPECT_NE(cJSON_GetObjectItemCaseSensitive(metrics, ""), nullptr);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(metrics, "NeverCounted"), nullptr);
    // Without an engine there is no allow-cache section; the store sections
    // are always present.
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(metrics, "AllowCache"), nullptr);
    EXPECT_TRUE(cJSON_IsArray(cJSON_GetObjectItemCaseSensitive(metrics, "trustrules_stats")));
    EXPECT_TRUE(cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(metrics, "dbinfo")));
}

TEST(Stats, TypedGroupsAreCappedAndClearedByPrefix) {
    ZELKStats& stats = ZELKStats::GetStats();
    for (int i = 0; i < 150; ++i) {
        char key[16];
        snprintf(key, sizeof(key), "ext%03d", i);
        stats.IncType(1, key);
    }
    stats.IncType(2, "bin");
    stats.IncType(2, "bin");
    stats.IncType(4, "ignored");
    stats.SetType(3, "ruleset-a", 0);
    stats.IncType(3, "ruleset-a");
    stats.SetType(3, "trust-b", 4);
    stats.SetType(3, "other", 1);
    EXPECT_EQ(stats.GetType(2, "bin"), 2);
    EXPECT_EQ(stats.GetType(4, "ignored"), 0);
    EXPECT_EQ(stats.GetType(1, ""), 0);

    std::string text;
    Json doc = FetchMetrics(&text);
    cJSON* metrics = cJSON_GetObjectItemCaseSensitive(doc.get(), "metrics");
    cJSON* drift = cJSON_GetObjectItemCaseSensitive(metrics, "DriftUnknownExtensions");
    EXPECT_EQ(cJSON_GetArraySize(drift), 100);
    EXPECT_NE(cJSON_GetObjectItemCaseSensitive(drift, "ext099"), nullptr);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(drift, "ext100"), nullptr);
    cJSON* inventory = cJSON_GetObjectItemCaseSensitive(metrics, "InventoryUnknownExtensons");
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(inventory, "bin")->valuedouble, 2);
    // Section order is part of the document hosts read.
    EXPECT_LT(text.find("\"InventoryUnknownExtensons\""), text.find("\"DriftUnknownExtensions\""));
    EXPECT_LT(text.find("\"DriftUnknownExtensions\""), text.find("\"rulesets\""));
    EXPECT_LT(text.find("\"rulesets\""), text.find("\"trustrules_stats\""));
    EXPECT_LT(text.find("\"trustrules_stats\""), text.find("\"dbinfo\""));

    stats.ClearType(3, "ruleset");
    stats.ClearType(3, "trust");
    EXPECT_EQ(stats.GetType(3, "ruleset-a"), 0);
    EXPECT_EQ(stats.GetType(3, "trust-b"), 0);
    EXPECT_EQ(stats.GetType(3, "other"), 1);
    stats.ClearType(1, "");
    EXPECT_EQ(stats.GetType(1, "ext000"), 0);
}

TEST(Stats, SizeProtocol) {
    ZELKStats& stats = ZELKStats::GetStats();
    char buffer[8] = {0};
    EXPECT_EQ(stats.GetMetrics(buffer, nullptr), 3221225473u);

    unsigned needed = 0;
    EXPECT_EQ(stats.GetMetrics(nullptr, &needed), 3221225487u);
    ASSERT_GT(needed, 1u);
    std::vector<char> exact(needed, 'z');
    unsigned size = needed - 1;
    EXPECT_EQ(stats.GetMetrics(exact.data(), &size), 3221225487u);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(exact[0], 'z') << "a refused buffer is left untouched";
    EXPECT_EQ(stats.GetMetrics(exact.data(), &size), 0u);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(exact[needed - 1], '\0');
}
