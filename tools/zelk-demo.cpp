// zelk-demo: starts the engine on a scratch database, feeds it a handful of
// host events through app_ctl and prints each response.  It uses only the
// exported C interface, as a host would.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "zelk.h"

namespace {
int PrintLog(unsigned level, unsigned line, const char* function, const char* file,
             const char* message, unsigned /*length*/) {
    if (level & (ZELK_LOG_WARNING | ZELK_LOG_ERROR)) {
        fprintf(stderr, "  [log %u] %s:%u %s: %s\n", level, file, line, function, message);
    }
    return 0;
}

const char* ActionText(uint32_t action) {
    switch (action) {
        case ZELK_ACTION_NOT_HANDLED:
            return "not handled";
        case ZELK_ACTION_ERROR:
            return "error";
        case ZELK_ACTION_ALLOW:
            return "allow";
        case ZELK_ACTION_BLOCK:
            return "block";
        default:
            return "-";
    }
}

struct DemoEvent {
    const char* label;
    uint32_t type;
    const char* process;
    const char* target;
    uint8_t isexec;
    uint8_t dirty;
};
}  // namespace

int main(int argc, char** argv) {
    std::string dir = argc > 1 ? argv[1] : "demo-scratch";
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        fprintf(stderr, "cannot create %s: %s\n", dir.c_str(), strerror(errno));
        return 1;
    }
    std::string db = dir + "/ac.db";

    ac_engine_start_s start;
    memset(&start, 0, sizeof(start));
    start.dbPath = db.c_str();
    start.logMask = ZELK_LOG_WARNING | ZELK_LOG_ERROR;
    start.logCallback = PrintLog;
    uint32_t rc = engine_start(&start);
    printf("engine_start(%s) -> 0x%08x\n", db.c_str(), rc);
    if (rc != ZELK_STATUS_SUCCESS) {
        return 1;
    }

    const uint8_t digest[32] = {0x5a, 0x17, 0x09};
    const std::vector<DemoEvent> events = {
        {"program start", ZELK_EVENT_EXEC_PRE, "/usr/bin/bash", "/usr/bin/ls", 1, 0},
        {"script create", ZELK_EVENT_CREATE_PRE, "/usr/bin/python3", "/srv/app/run.py", 0, 0},
        {"file written", ZELK_EVENT_CLOSE_POST, "/usr/bin/cp", "/opt/tool/bin/tool", 1, 1},
        {"mapping", ZELK_EVENT_MMAP_PRE, "/usr/bin/ls", "/usr/lib/libc.so.6", 0, 0},
        {"delete", ZELK_EVENT_DELETE_POST, "/usr/bin/rm", "/opt/tool/bin/tool", 0, 0},
    };
    printf("%-14s %-18s %-22s %-12s %-6s %s\n", "event", "process", "target", "verdict", "type",
           "status");
    for (const DemoEvent& e : events) {
        ac_wrapper_event_s event;
        memset(&event, 0, sizeof(event));
        event.pid = 4242;
        event.eventType = e.type;
        event.processName = e.process;
        event.name = e.target;
        event.isexec = e.isexec;
        event.dirty = e.dirty;
        event.user = "demo";
        event.group = "demo";
        event.fileSha256 = digest;
        ac_wrapper_response_s response;
        rc = app_ctl(&event, &response);
        printf("%-14s %-18s %-22s %-12s %-6u 0x%08x\n", e.label, e.process, e.target,
               ActionText(response.action), response.eventType, rc);
    }

    unsigned size = 0;
    get_metrics_mem(nullptr, &size);
    std::vector<char> metrics(size);
    if (get_metrics_mem(metrics.data(), &size) == ZELK_STATUS_SUCCESS) {
        printf("metrics: %s\n", metrics.data());
    }
    rc = engine_stop();
    printf("engine_stop() -> 0x%08x\n", rc);
    return 0;
}
