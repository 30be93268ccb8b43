// Shared set-up for the fuzz targets that need a running engine: one engine
// per fuzzing process, on a database of its own below the build tree, with
// every log level formatted (so format strings see the hostile texts) and
// then thrown away.
#ifndef ZELK_FUZZ_FUZZENGINE_H_
#define ZELK_FUZZ_FUZZENGINE_H_

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "zelk.h"

namespace zelkfuzz {

inline int DiscardLog(unsigned, unsigned, const char*, const char*, const char* message,
                      unsigned length) {
    // Touch the message the way a host would, so a bad length is noticed.
    volatile size_t n = strnlen(message, length + 1);
    (void)n;
    return 0;
}

// Starts the engine on <scratch>/<name>.<pid>.db, replacing an old file.
// Aborts when the engine does not start: nothing could be fuzzed.
inline void StartEngine(const char* name) {
    std::filesystem::create_directories(ZELK_FUZZ_SCRATCH);
    static std::string path;
    path = std::string(ZELK_FUZZ_SCRATCH) + "/" + name + "." + std::to_string(getpid()) + ".db";
    std::remove(path.c_str());
    ac_engine_start_s start;
    memset(&start, 0, sizeof(start));
    start.dbPath = path.c_str();
    start.logMask = ZELK_LOG_INFO | ZELK_LOG_WARNING | ZELK_LOG_ERROR | ZELK_LOG_TRACE;
    start.logCallback = &DiscardLog;
    if (engine_start(&start) != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "engine_start failed on %s\n", path.c_str());
        abort();
    }
    // The file is only scratch: remove it when the fuzzer exits.
    atexit([] {
        engine_stop();
        std::remove(path.c_str());
    });
}

}  // namespace zelkfuzz

#endif  // ZELK_FUZZ_FUZZENGINE_H_
