#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ZELKStats.h"

namespace {
// Fetches the document through the size protocol: a null buffer or one a
// byte short is refused with the size needed and left untouched.
cJSON* FetchMetrics(std::string& text) {
    ZELKStats& stats = ZELKStats::GetStats();
    unsigned size = 0;
    EXPECT_EQ(stats.GetMetrics(nullptr, &size), 0xC000000Fu);
    std::vector<char> buffer(size, 'z');
    unsigned shortSize = size - 1;
    EXPECT_EQ(stats.GetMetrics(buffer.data(), &shortSize), 0xC000000Fu);
    EXPECT_EQ(shortSize, size);
    EXPECT_EQ(buffer[0], 'z');
    EXPECT_EQ(stats.GetMetrics(buffer.data(), nullptr), 0xC0000001u);
    EXPECT_EQ(stats.GetMetrics(buffer.data(), &size), 0u);
    EXPECT_EQ(size, strlen(buffer.data()) + 1);
    text = buffer.data();
    return cJSON_Parse(text.c_str());
}
}  // namespace

TEST(Stats, CountersTypedGroupsAndTheDocument) {
    ZELKStats& stats = ZELKStats::GetStats();
    stats.Inc("");
    stats.Inc("RunProgram");
    stats.Inc("RunProgram");
    stats.Set("", 5);
    stats.Set("TotalDeletedEvents", 7);
    EXPECT_EQ(stats.Get("RunProgram"), 2);
    EXPECT_EQ(stats.Get("TotalDeletedEvents"), 7);
    EXPECT_EQ(stats.Get("NeverCounted"), 0);
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
    cJSON* doc = FetchMetrics(text);
    cJSON* metrics = cJSON_GetObjectItemCaseSensitive(doc, "metrics");
    ASSERT_TRUE(metrics) << text;
    EXPECT_STREQ(cJSON_GetObjectItemCaseSensitive(metrics, "ACVersion")->valuestring, "12.0.178");
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(metrics, "RunProgram")->valuedouble, 2);
    // Inc ignores an empty key, Set creates it; Get never creates a key.
    EXPECT_NE(cJSON_GetObjectItemCaseSensitive(metrics, ""), nullptr);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(metrics, "NeverCounted"), nullptr);
    // Without an engine there is no allow-cache section.
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(metrics, "AllowCache"), nullptr);
    EXPECT_TRUE(cJSON_IsArray(cJSON_GetObjectItemCaseSensitive(metrics, "trustrules_stats")));
    EXPECT_TRUE(cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(metrics, "dbinfo")));
    cJSON* drift = cJSON_GetObjectItemCaseSensitive(metrics, "DriftUnknownExtensions");
    EXPECT_EQ(cJSON_GetArraySize(drift), 100);
    EXPECT_NE(cJSON_GetObjectItemCaseSensitive(drift, "ext099"), nullptr);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(drift, "ext100"), nullptr);
    cJSON* inventory = cJSON_GetObjectItemCaseSensitive(metrics, "InventoryUnknownExtensons");
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(inventory, "bin")->valuedouble, 2);
    // Section order is part of the document hosts read.
    size_t previous = 0;
    for (const char* section : {"\"InventoryUnknownExtensons\"", "\"DriftUnknownExtensions\"",
                                "\"rulesets\"", "\"trustrules_stats\"", "\"dbinfo\""}) {
        EXPECT_LT(previous, text.find(section)) << section;
        previous = text.find(section);
    }
    cJSON_Delete(doc);

    stats.ClearType(3, "ruleset");
    stats.ClearType(3, "trust");
    EXPECT_EQ(stats.GetType(3, "ruleset-a") + stats.GetType(3, "trust-b"), 0);
    EXPECT_EQ(stats.GetType(3, "other"), 1);
    stats.ClearType(1, "");
    EXPECT_EQ(stats.GetType(1, "ext000"), 0);
}
