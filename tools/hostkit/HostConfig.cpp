#include "HostConfig.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>

#include "zelk.h"

namespace hostkit {
namespace {

bool ParseTime(const std::string& text, uint64_t& out) {
    if (text == "now") {
        out = NowMillis();
        return true;
    }
    if (text.empty() || text[0] == '-') {
        return false;
    }
    char* end = nullptr;
    out = strtoull(text.c_str(), &end, 10);
    return end != nullptr && *end == '\0';
}

}  // namespace

uint64_t NowMillis() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

const char* LevelName(unsigned level) {
    switch (level) {
        case ZELK_LOG_INFO:
            return "INFO";
        case ZELK_LOG_WARNING:
            return "WARNING";
        case ZELK_LOG_ERROR:
            return "ERROR";
        case ZELK_LOG_TRACE:
            return "TRACE";
        default:
            return "LOG";
    }
}

bool ParseLogLevel(const std::string& text, unsigned& mask) {
    static const struct {
        const char* name;
        unsigned mask;
    } kLevels[] = {
        {"none", 0},
        {"error", ZELK_LOG_ERROR},
        {"warning", ZELK_LOG_ERROR | ZELK_LOG_WARNING},
        {"info", ZELK_LOG_ERROR | ZELK_LOG_WARNING | ZELK_LOG_INFO},
        {"trace", ZELK_LOG_ERROR | ZELK_LOG_WARNING | ZELK_LOG_INFO | ZELK_LOG_TRACE},
    };
    for (const auto& level : kLevels) {
        if (text == level.name) {
            mask = level.mask;
            return true;
        }
    }
    char* end = nullptr;
    unsigned long value = strtoul(text.c_str(), &end, 0);
    if (!text.empty() && end != nullptr && *end == '\0' && value <= 15) {
        mask = static_cast<unsigned>(value);
        return true;
    }
    return false;
}

std::string StatusText(uint32_t status) {
    switch (status) {
        case ZELK_STATUS_SUCCESS:
            return "success";
        case ZELK_STATUS_BLOCKED:
            return "blocked";
        case ZELK_STATUS_FAILURE:
            return "operation failed";
        case ZELK_STATUS_NO_SIZE:
            return "size missing";
        case ZELK_STATUS_NOT_STARTED:
            return "engine not started";
        case ZELK_STATUS_BAD_PATH:
            return "path missing or refused";
        case ZELK_STATUS_DB_INIT_FAILED:
            return "database could not be opened";
        case ZELK_STATUS_LOGGER_FAILED:
            return "logger could not be initialised";
        case ZELK_STATUS_NO_EVENT:
            return "no event";
        case ZELK_STATUS_BAD_ITEM:
            return "item lacks a required field";
        case ZELK_STATUS_NO_BUFFER:
            return "ruleset buffer missing";
        case ZELK_STATUS_NO_START:
            return "start record missing";
        case ZELK_STATUS_BUFFER_SMALL:
            return "buffer too small";
        default:
            return "unknown status";
    }
}

std::string StatusMessage(const std::string& what, uint32_t status) {
    char code[16];
    snprintf(code, sizeof(code), "0x%08X", status);
    return what + ": " + StatusText(status) + " (" + code + ")";
}

bool ParseWindow(const std::string& text, uint64_t& start, uint64_t& end) {
    size_t comma = text.find(',');
    if (comma == std::string::npos) {
        return false;
    }
    return ParseTime(text.substr(0, comma), start) && ParseTime(text.substr(comma + 1), end);
}

std::string DefaultRulesetName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string suffix = ".json";
    if (base.size() > suffix.size() &&
        base.compare(base.size() - suffix.size(), suffix.size(), suffix) == 0) {
        base.erase(base.size() - suffix.size());
    }
    return base;
}

void SplitRulesetSpec(const std::string& spec, std::string& file, std::string& name) {
    file = spec;
    name.clear();
    struct stat st;
    size_t colon = spec.rfind(':');
    if (stat(spec.c_str(), &st) != 0 && colon != std::string::npos && colon > 0) {
        file = spec.substr(0, colon);
        name = spec.substr(colon + 1);
    }
    if (name.empty()) {
        name = DefaultRulesetName(file);
    }
}

}  // namespace hostkit
