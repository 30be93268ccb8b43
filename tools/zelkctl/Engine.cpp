#include "Engine.h"

#include <cjson/cJSON.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <sstream>

namespace zelkctl {
namespace {

// The engine calls back on the calling thread; app_ctl may run on several, so
// the sink has its own lock.
struct LogSink {
    std::mutex mutex;
    unsigned mask = ZELK_LOG_ERROR;
    FILE* out = stderr;
    unsigned captureMask = 0;
    std::vector<std::string> captured;
    unsigned errors = 0;  // ERROR messages other than lifecycle chatter
};

LogSink& Sink() {
    static LogSink sink;
    return sink;
}

// The store reports every statement it releases at shutdown, and the size of
// its schema when it creates a database, at ERROR level although nothing is
// wrong.  A user of the command line is shown them only when asking for TRACE.
bool IsLifecycleChatter(const std::string& text) {
    return text.rfind("Finalize m_", 0) == 0 || text.rfind("ignore Finalize m_", 0) == 0 ||
           text.rfind("SCHEMA SIZE: ", 0) == 0;
}

int OnEngineLog(unsigned level, unsigned line, const char* function, const char* file,
                const char* message, unsigned length) {
    LogSink& sink = Sink();
    std::string text(message != nullptr ? message : "", message != nullptr ? length : 0);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    std::lock_guard<std::mutex> lock(sink.mutex);
    const bool shown =
        (level & sink.mask) != 0 &&
        ((sink.mask & ZELK_LOG_TRACE) != 0 || level != ZELK_LOG_ERROR || !IsLifecycleChatter(text));
    if (shown) {
        fprintf(sink.out, "[%s] %s:%u %s: %s\n", hostkit::LevelName(level), file ? file : "?", line,
                function ? function : "?", text.c_str());
    }
    if (level == ZELK_LOG_ERROR && !IsLifecycleChatter(text)) {
        ++sink.errors;
    }
    if (level & sink.captureMask) {
        sink.captured.push_back(text);
    }
    return 0;
}

}  // namespace

EngineSession::EngineSession(const LogOptions& log) {
    LogSink& sink = Sink();
    std::lock_guard<std::mutex> lock(sink.mutex);
    sink.mask = log.mask;
    sink.out = stderr;
    if (!log.file.empty()) {
        FILE* f = fopen(log.file.c_str(), "a");
        if (f != nullptr) {
            setvbuf(f, nullptr, _IOLBF, 0);
            sink.out = f;
        } else {
            fprintf(stderr, "zelkctl: %s: cannot open log file: %s\n", log.file.c_str(),
                    strerror(errno));
        }
    }
}

EngineSession::~EngineSession() {
    if (m_Started) {
        engine_stop();
    }
    LogSink& sink = Sink();
    std::lock_guard<std::mutex> lock(sink.mutex);
    if (sink.out != stderr) {
        fclose(sink.out);
        sink.out = stderr;
    }
    sink.captureMask = 0;
    sink.captured.clear();
    sink.errors = 0;
}

bool EngineSession::Start(const std::string& dbPath) {
    ac_engine_start_s start;
    memset(&start, 0, sizeof(start));
    start.dbPath = dbPath.c_str();
    {
        LogSink& sink = Sink();
        std::lock_guard<std::mutex> lock(sink.mutex);
        // The engine formats only what the mask lets through, so ask for
        // TRACE only when someone reads it.
        start.logMask = sink.mask | ZELK_LOG_ERROR | ZELK_LOG_WARNING;
    }
    start.logCallback = &OnEngineLog;
    uint32_t rc = engine_start(&start);
    if (rc != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "zelkctl: %s\n", StatusMessage(dbPath, rc).c_str());
        return false;
    }
    m_Started = true;
    return true;
}

void EngineSession::Capture(unsigned mask) {
    LogSink& sink = Sink();
    unsigned engineMask;
    {
        std::lock_guard<std::mutex> lock(sink.mutex);
        sink.captureMask = mask;
        engineMask = sink.mask | mask | ZELK_LOG_ERROR | ZELK_LOG_WARNING;
    }
    set_loglevel(engineMask);
}

std::vector<std::string> EngineSession::TakeCaptured() {
    LogSink& sink = Sink();
    std::lock_guard<std::mutex> lock(sink.mutex);
    std::vector<std::string> out;
    out.swap(sink.captured);
    return out;
}

unsigned EngineSession::TakeErrorCount() {
    LogSink& sink = Sink();
    std::lock_guard<std::mutex> lock(sink.mutex);
    unsigned errors = sink.errors;
    sink.errors = 0;
    return errors;
}

std::string EngineSession::Metrics() {
    unsigned size = 0;
    uint32_t rc = get_metrics_mem(nullptr, &size);
    for (int attempt = 0; attempt < 4 && rc == ZELK_STATUS_BUFFER_SMALL; ++attempt) {
        // The document can grow between the two calls; leave some room.
        std::vector<char> buffer(size + 256);
        unsigned capacity = static_cast<unsigned>(buffer.size());
        rc = get_metrics_mem(buffer.data(), &capacity);
        if (rc == ZELK_STATUS_SUCCESS) {
            return std::string(buffer.data());
        }
        size = capacity;
    }
    fprintf(stderr, "zelkctl: %s\n", StatusMessage("metrics", rc).c_str());
    return std::string();
}

std::string ModesPath(const std::string& dbPath) {
    return dbPath + ".modes.json";
}

std::string ReadWholeFile(const std::string& path, bool& ok) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        ok = false;
        return std::string();
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    ok = !in.bad();
    return buffer.str();
}

bool LoadModes(const std::string& dbPath, HostModes& modes, std::string& error) {
    modes = HostModes();
    std::ifstream probe(ModesPath(dbPath));
    if (!probe) {
        return true;
    }
    bool ok = false;
    std::string text = ReadWholeFile(ModesPath(dbPath), ok);
    cJSON* root = ok ? cJSON_Parse(text.c_str()) : nullptr;
    const cJSON* flags = cJSON_GetObjectItemCaseSensitive(root, "flags");
    const cJSON* start = cJSON_GetObjectItemCaseSensitive(root, "maintenanceStart");
    const cJSON* end = cJSON_GetObjectItemCaseSensitive(root, "maintenanceEnd");
    bool good = cJSON_IsNumber(flags) && flags->valuedouble >= 0 && flags->valuedouble < 32;
    if (good) {
        modes.flags = static_cast<unsigned>(flags->valuedouble);
        modes.maintenanceStart =
            cJSON_IsNumber(start) ? static_cast<uint64_t>(start->valuedouble) : 0;
        modes.maintenanceEnd = cJSON_IsNumber(end) ? static_cast<uint64_t>(end->valuedouble) : 0;
    } else {
        error = ModesPath(dbPath) + ": not a zelkctl modes file";
    }
    cJSON_Delete(root);
    return good;
}

bool SaveModes(const std::string& dbPath, const HostModes& modes, std::string& error) {
    cJSON* root = cJSON_CreateObject();
    cJSON_AddNumberToObject(root, "flags", modes.flags);
    cJSON_AddBoolToObject(root, "lockdown", (modes.flags & ZELK_CONFIG_LOCKDOWN) != 0);
    cJSON_AddBoolToObject(root, "inventoryExists",
                          (modes.flags & ZELK_CONFIG_INVENTORY_EXISTS) != 0);
    cJSON_AddBoolToObject(root, "rulesetExists", (modes.flags & ZELK_CONFIG_RULESET_EXISTS) != 0);
    cJSON_AddBoolToObject(root, "maintenance", (modes.flags & ZELK_CONFIG_AUTO_AUTHORIZE) != 0);
    cJSON_AddBoolToObject(root, "allowlistInventory",
                          (modes.flags & ZELK_CONFIG_ALLOWLIST_INVENTORY) != 0);
    cJSON_AddNumberToObject(root, "maintenanceStart", static_cast<double>(modes.maintenanceStart));
    cJSON_AddNumberToObject(root, "maintenanceEnd", static_cast<double>(modes.maintenanceEnd));
    char* text = cJSON_Print(root);
    cJSON_Delete(root);
    std::string path = ModesPath(dbPath);
    std::string temp = path + ".new";
    bool ok = false;
    {
        std::ofstream out(temp, std::ios::trunc);
        out << text << "\n";
        ok = static_cast<bool>(out);
    }
    free(text);
    if (!ok || rename(temp.c_str(), path.c_str()) != 0) {
        error = path + ": cannot write: " + strerror(errno);
        remove(temp.c_str());
        return false;
    }
    return true;
}

namespace {

// Anything later is a typo or an overflow, not a maintenance window.
constexpr uint64_t kLastMillis = 253402300799999ULL;  // 9999-12-31 23:59:59.999 UTC
// Earlier than March 1973 in milliseconds, but a plausible date in seconds.
constexpr uint64_t kSecondsLookAlike = 100000000000ULL;

}  // namespace

std::string FormatMillis(uint64_t millis) {
    time_t seconds = static_cast<time_t>(millis / 1000);
    struct tm tm;
    char text[64];
    if (millis > kLastMillis || gmtime_r(&seconds, &tm) == nullptr ||
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &tm) == 0) {
        return std::to_string(millis) + " ms";
    }
    return text;
}

bool CheckWindow(const std::string& text, uint64_t& start, uint64_t& end, std::string& error) {
    size_t comma = text.find(',');
    if (!ParseWindow(text, start, end)) {
        error = "--maintenance wants START,END in milliseconds since the epoch or \"now\"";
        return false;
    }
    const std::string names[2] = {"START " + text.substr(0, comma),
                                  "END " + text.substr(comma + 1)};
    const uint64_t values[2] = {start, end};
    for (int i = 0; i < 2; ++i) {
        if (values[i] > kLastMillis) {
            error = "--maintenance " + names[i] + " is past the year 9999: too large a number";
            return false;
        }
        if (values[i] != 0 && values[i] < kSecondsLookAlike) {
            error = "--maintenance " + names[i] +
                    " looks like seconds; times are milliseconds since the epoch (" +
                    std::to_string(values[i]) + "000 is " + FormatMillis(values[i] * 1000) + ")";
            return false;
        }
    }
    if (end <= start) {
        error = "--maintenance END (" + FormatMillis(end) + ") is not after START (" +
                FormatMillis(start) + ")";
        return false;
    }
    return true;
}

std::string DescribeWindow(const HostModes& modes) {
    if ((modes.flags & ZELK_CONFIG_AUTO_AUTHORIZE) == 0) {
        return "closed";
    }
    uint64_t now = hostkit::NowMillis();
    const char* state = now < modes.maintenanceStart ? "opens later"
                        : now < modes.maintenanceEnd ? "open now"
                                                     : "over";
    return FormatMillis(modes.maintenanceStart) + " .. " + FormatMillis(modes.maintenanceEnd) +
           " (" + state + ")";
}

std::string DescribeModes(const HostModes& modes) {
    std::string text = (modes.flags & ZELK_CONFIG_LOCKDOWN) ? "lockdown" : "log-only";
    if (modes.flags & ZELK_CONFIG_AUTO_AUTHORIZE) {
        text += ", maintenance " + DescribeWindow(modes);
    }
    if (modes.flags & ZELK_CONFIG_INVENTORY_EXISTS) {
        text += ", inventory exists";
    }
    if (modes.flags & ZELK_CONFIG_RULESET_EXISTS) {
        text += ", ruleset exists";
    }
    if (modes.flags & ZELK_CONFIG_ALLOWLIST_INVENTORY) {
        text += ", allow-list inventory";
    }
    return text;
}

bool ApplyModes(const HostModes& modes) {
    uint32_t rc = set_config(modes.flags, modes.maintenanceStart, modes.maintenanceEnd);
    if (rc != ZELK_STATUS_SUCCESS) {
        fprintf(stderr, "zelkctl: %s\n", StatusMessage("set_config", rc).c_str());
        return false;
    }
    return true;
}

DocKind KindForName(const std::string& name) {
    std::string lower = name;
    for (char& c : lower) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    if (lower.find("agent") != std::string::npos) {
        return DocKind::kAgentManifest;
    }
    if (lower.find("trustrules") != std::string::npos) {
        return DocKind::kTrustRules;
    }
    return DocKind::kHashRuleset;
}

const char* KindName(DocKind kind) {
    switch (kind) {
        case DocKind::kAgentManifest:
            return "agent manifest";
        case DocKind::kTrustRules:
            return "trust rules";
        default:
            return "hash ruleset";
    }
}

}  // namespace zelkctl
