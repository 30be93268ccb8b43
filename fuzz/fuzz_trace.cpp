// zelkctl's trace-line parser with any line; an accepted line must give a
// record whose texts are terminated where the host record points.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "TraceParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    hostkit::TraceVariables vars = {{"DIR", "/opt/app"}, {"EMPTY", ""}};
    hostkit::TraceLine out;
    std::string error;
    hostkit::IsTraceFiller(line);
    if (hostkit::ParseTraceLine(line, vars, out, error)) {
        ac_wrapper_event_s raw = out.event.Raw();
        volatile size_t sum = 0;
        for (const char* text : {raw.processName, raw.name, raw.cmdLine, raw.user, raw.group,
                                 raw.oldName, raw.fileSignerName, raw.processSignerName}) {
            if (text != nullptr) {
                sum = sum + strlen(text);
            }
        }
        for (const char* issuer : raw.fileIssuer) {
            if (issuer != nullptr)
                sum = sum + strlen(issuer);
        }
        (void)hostkit::NameForEvent(raw.eventType);
    } else if (error.empty()) {
        abort();  // a refused line always says why
    }
    std::string expanded;
    hostkit::ExpandVariables(line, vars, expanded, error);
    return 0;
}
