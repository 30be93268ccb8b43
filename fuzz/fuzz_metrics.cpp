// The metrics size protocol.  Input: 4 bytes of offered buffer size (little
// endian, up to 64 KiB), 1 byte of options (bit 0 null buffer, bit 1 null
// size), then lines "T:key=value" that set counters of group T (0 plain, 1
// to 3 typed, anything else ignored by the engine) with hostile names.  The
// buffer is allocated exactly, so one byte written too many is caught.
#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "FuzzEngine.h"
#include "ZELKStats.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zelkfuzz::StartEngine("metrics");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5) {
        return 0;
    }
    uint32_t offered = 0;
    memcpy(&offered, data, 4);
    offered &= 0xffff;
    const uint8_t options = data[4];
    std::istringstream lines(std::string(reinterpret_cast<const char*>(data + 5), size - 5));
    ZELKStats& stats = ZELKStats::GetStats();
    // Plain counters cannot be removed and the typed groups are never capped
    // in memory: bound both so that a long run keeps its speed.
    static unsigned plainKeys = 0;
    static unsigned runs = 0;
    if (++runs % 256 == 0) {
        for (int type = 1; type <= 3; ++type) {
            stats.ClearType(type, "");
        }
    }
    std::string line;
    while (std::getline(lines, line)) {
        const size_t equals = line.rfind('=');
        if (line.size() < 2 || line[1] != ':' || equals == std::string::npos) {
            continue;
        }
        const int type = line[0] - '0';
        const std::string key = line.substr(2, equals - 2);
        const long value = strtol(line.c_str() + equals + 1, nullptr, 10);
        if (type == 0) {
            if (plainKeys < 2000) {
                ++plainKeys;
                stats.Set(key, value);
            }
        } else if (value < 0) {
            stats.ClearType(type, key);
        } else {
            stats.SetType(type, key, value);
        }
    }

    if (options & 2) {
        char small[4];
        if (get_metrics_mem(small, nullptr) != ZELK_STATUS_NO_SIZE)
            abort();
        return 0;
    }
    const bool nullBuffer = (options & 1) != 0;
    std::unique_ptr<char[]> buffer(nullBuffer ? nullptr : new char[offered ? offered : 1]);
    unsigned inOut = offered;
    const uint32_t status = get_metrics_mem(buffer.get(), &inOut);
    if (status == ZELK_STATUS_SUCCESS) {
        // The whole document, terminated, and no more than was offered.
        if (nullBuffer || inOut > offered || strnlen(buffer.get(), offered) + 1 != inOut)
            abort();
        cJSON* doc = cJSON_Parse(buffer.get());
        if (doc == nullptr || !cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(doc, "metrics"))) {
            abort();
        }
        cJSON_Delete(doc);
    } else if (status == ZELK_STATUS_BUFFER_SMALL) {
        if (!nullBuffer && inOut <= offered)
            abort();
        // Retrying with the size given back succeeds (nothing else runs).
        std::unique_ptr<char[]> retry(new char[inOut]);
        unsigned again = inOut;
        if (get_metrics_mem(retry.get(), &again) != ZELK_STATUS_SUCCESS || again != inOut)
            abort();
    } else {
        abort();
    }
    return 0;
}
