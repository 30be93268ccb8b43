// Ruleset import: the first byte chooses the document kind by its name and
// whether the import is incremental; the rest is the document.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzEngine.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zelkfuzz::StartEngine("ruleset");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    static const char* const kNames[] = {"Weekly", "Agent_Manifest", "MyTrustRules",
                                         "agent-trustrules"};
    const char* name = kNames[data[0] & 3];
    const bool incremental = (data[0] & 4) != 0;
    // The buffer import reads up to a terminating zero.
    const std::string document(reinterpret_cast<const char*>(data + 1), size - 1);
    set_ruleset_buffer(incremental, document.c_str(), name);
    return 0;
}
