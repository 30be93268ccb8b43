// The exported C interface as a host sees it: status codes, argument checks
// and a host event travelling through app_ctl into the response bytes.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "zelk.h"

using zelktest::LogCapture;

TEST(CInterface, StoppedEngineAnswersNotStarted) {
    ac_wrapper_event_s event = zelktest::EmptyEvent();
    ac_wrapper_response_s response;
    // The event test comes before the engine test.
    EXPECT_EQ(app_ctl(nullptr, &response), ZELK_STATUS_NO_EVENT);
    EXPECT_EQ(app_ctl(&event, &response), ZELK_STATUS_NOT_STARTED);
    EXPECT_EQ(set_config(0, 0, 0), ZELK_STATUS_NOT_STARTED);
    EXPECT_EQ(set_loglevel(15), ZELK_STATUS_NOT_STARTED);
    unsigned size = 0;
    EXPECT_EQ(get_metrics_mem(nullptr, &size), ZELK_STATUS_NOT_STARTED);
    EXPECT_EQ(delete_db(), ZELK_STATUS_NOT_STARTED);
    EXPECT_EQ(purge_db(0), ZELK_STATUS_NOT_STARTED);
    EXPECT_EQ(flush_db_buffer(), ZELK_STATUS_NOT_STARTED);
    ac_db_item_s item;
    memset(&item, 0, sizeof(item));
    EXPECT_EQ(store_item(&item, false), ZELK_STATUS_NOT_STARTED);
    EXPECT_EQ(set_ruleset(false, "x", "y"), ZELK_STATUS_NOT_STARTED);
    EXPECT_EQ(set_ruleset_buffer(false, nullptr, "y"), ZELK_STATUS_NO_BUFFER);
    EXPECT_EQ(set_ruleset_buffer(false, "{}", nullptr), ZELK_STATUS_NO_BUFFER);
    EXPECT_EQ(get_inventory(0, 0, 0, nullptr, ""), ZELK_STATUS_BAD_PATH);
    EXPECT_EQ(get_inventory(0, 0, 0, "out.json", ""), ZELK_STATUS_NOT_STARTED);
    EXPECT_EQ(engine_start(nullptr), ZELK_STATUS_NO_START);
    // Stopping an engine that never ran does nothing and logs nothing.
    EXPECT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    EXPECT_TRUE(LogCapture::Get().Records().empty());
}

TEST(CInterface, StartStopAndArgumentChecksWhileRunning) {
    const std::string db = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(db);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);
    // A database path while the store is open is refused, even the same one;
    // without a path a second start keeps the engine and its store.
    EXPECT_EQ(engine_start(&start), ZELK_STATUS_BAD_PATH);
    ac_engine_start_s noPath = start;
    noPath.dbPath = nullptr;
    EXPECT_EQ(engine_start(&noPath), ZELK_STATUS_SUCCESS) << "a second start keeps the engine";
    EXPECT_TRUE(LogCapture::Get().Contains("ZELK Logging already initialized!"));

    ac_db_item_s item;
    memset(&item, 0, sizeof(item));
    EXPECT_EQ(store_item(&item, true), ZELK_STATUS_BAD_ITEM);
    item.fileName = "ls";
    item.path = "/usr/bin/";
    item.nativePath = "/usr/bin/ls";
    EXPECT_EQ(store_item(&item, true), ZELK_STATUS_BAD_ITEM) << "ruleset is required too";
    EXPECT_EQ(set_ruleset(false, nullptr, "name"), ZELK_STATUS_BAD_PATH);
    EXPECT_EQ(set_loglevel(ZELK_LOG_ERROR), ZELK_STATUS_SUCCESS);

    unsigned size = 0;
    EXPECT_EQ(get_metrics_mem(nullptr, nullptr), ZELK_STATUS_NO_SIZE);
    EXPECT_EQ(get_metrics_mem(nullptr, &size), ZELK_STATUS_BUFFER_SMALL);
    std::vector<char> buffer(size);
    ASSERT_EQ(get_metrics_mem(buffer.data(), &size), ZELK_STATUS_SUCCESS);
    cJSON* doc = cJSON_Parse(buffer.data());
    ASSERT_NE(doc, nullptr);
    EXPECT_NE(cJSON_GetObjectItemCaseSensitive(doc, "metrics"), nullptr);
    cJSON_Delete(doc);

    EXPECT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
    ac_wrapper_event_s event = zelktest::EmptyEvent();
    EXPECT_EQ(app_ctl(&event, nullptr), ZELK_STATUS_NOT_STARTED);
}

TEST(CInterface, HostEventRoundTripIntoResponseBytes) {
    const std::string db = zelktest::ScratchDir() + "/ac.db";
    ac_engine_start_s start = zelktest::StartRecord(db);
    ASSERT_EQ(engine_start(&start), ZELK_STATUS_SUCCESS);

    // A create post of a clean file is an event the engine does not decide.
    ac_wrapper_event_s event = zelktest::EmptyEvent();
    event.pid = 1;
    event.eventType = ZELK_EVENT_CREATE_POST;
    event.processName = "/usr/bin/touch";
    event.name = "/srv/data/file.txt";
    event.user = "root";
    ac_wrapper_response_s response;
    memset(&response, 0xab, sizeof(response));
    EXPECT_EQ(app_ctl(&event, &response), ZELK_STATUS_SUCCESS);

    uint32_t slots[7];
    memcpy(slots, &response, sizeof(slots));
    EXPECT_EQ(slots[0], ZELK_ACTION_NOT_HANDLED);
    EXPECT_EQ(slots[1], 1u) << "item type of an unclassified target";
    EXPECT_EQ(slots[2], 0u);
    EXPECT_EQ(slots[3], 0u);
    EXPECT_EQ(slots[4], ZELK_EVENT_CREATE_POST);
    EXPECT_EQ(slots[5], 0u);
    EXPECT_EQ(slots[6], 0u);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&response);
    for (size_t i = 28; i < sizeof(response); ++i) {
        ASSERT_EQ(bytes[i], 0) << "byte " << i;
    }
    EXPECT_TRUE(LogCapture::Get().Contains("name from plugin:'/srv/data/file.txt'"));

    // A null response is allowed and reports success.
    EXPECT_EQ(app_ctl(&event, nullptr), ZELK_STATUS_SUCCESS);
    EXPECT_EQ(engine_stop(), ZELK_STATUS_SUCCESS);
}
