// The shared library's dynamic symbol table is part of its contract: hosts
// resolve exactly these names, and nothing else of ours may leak.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>

namespace {
const std::set<std::string> kExported = {
    "engine_start", "engine_stop",        "app_ctl",         "set_config",      "set_loglevel",
    "set_ruleset",  "set_ruleset_buffer", "get_inventory",   "get_metrics_mem", "store_item",
    "purge_db",     "delete_db",          "flush_db_buffer", "engine",          "config"};

std::string RunCommand(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return out;
    }
    std::array<char, 4096> buf;
    size_t n;
    while ((n = fread(buf.data(), 1, buf.size(), pipe)) > 0) {
        out.append(buf.data(), n);
    }
    pclose(pipe);
    return out;
}
}  // namespace

TEST(Exports, DynamicSymbolTableHoldsExactlyTheInterface) {
    const std::string listing = RunCommand(std::string("nm -D --defined-only ") + ZELK_SO_PATH);
    ASSERT_FALSE(listing.empty()) << "nm produced nothing";
    std::set<std::string> defined;
    std::istringstream lines(listing);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string address, type, name;
        fields >> address >> type >> name;
        if (!name.empty()) {
            defined.insert(name);
        }
    }
    EXPECT_EQ(defined, kExported);
}

TEST(Exports, HostFindsInterfaceAndCJsonThroughOneHandle) {
    void* handle = dlopen(ZELK_SO_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    for (const std::string& name : kExported) {
        EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
    }
    for (const char* name : {"cJSON_Parse", "cJSON_Delete", "cJSON_PrintUnformatted",
                             "cJSON_CreateObject", "cJSON_GetErrorPtr"}) {
        EXPECT_NE(dlsym(handle, name), nullptr) << name;
    }
    EXPECT_EQ(dlsym(handle, "_ZN10ZELKEngine12ProcessEventER8ac_event"), nullptr);

    using EngineStop = unsigned (*)();
    auto stop = reinterpret_cast<EngineStop>(dlsym(handle, "engine_stop"));
    ASSERT_NE(stop, nullptr);
    EXPECT_EQ(stop(), 0u) << "stopping an engine that never ran is harmless";
    dlclose(handle);
}
