#define ZELK_LOG_FILE "ZELK/ZELKStats"
#include "ZELKStats.h"

#include <cjson/cJSON.h>

#include <cstring>
#include <memory>

#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKEventAbstraction.h"
#include "ZELKLogger.h"

namespace {
constexpr size_t kTypedGroupLimit = 100;
constexpr unsigned kStatusNoSize = 0xC0000001u;
constexpr unsigned kStatusBufferSmall = 0xC000000Fu;

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
struct TextDeleter {
    void operator()(char* text) const { cJSON_free(text); }
};

void AddCounters(cJSON* parent, const std::map<std::string, long, std::less<>>& counters,
                 size_t limit) {
    size_t added = 0;
    for (const auto& entry : counters) {
        if (added++ == limit) {
            break;
        }
        cJSON_AddNumberToObject(parent, entry.first.c_str(), static_cast<double>(entry.second));
    }
}
}  // namespace

ZELKStats& ZELKStats::GetStats() {
    static ZELKStats instance;
    return instance;
}

ZELKStats::Counters* ZELKStats::TypedGroup(int type) {
    switch (type) {
        case GROUP_DRIFT_EXTENSIONS:
            return &m_DriftExtensions;
        case GROUP_INVENTORY_EXTENSIONS:
            return &m_InventoryExtensions;
        case GROUP_RULESETS:
            return &m_Rulesets;
        default:
            return nullptr;
    }
}

void ZELKStats::Inc(const std::string& key) {
    if (key.empty()) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    ++m_Counters[key];
}

void ZELKStats::Inc(const char* key) {
    if (key == nullptr || *key == '\0') {
        return;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Counters.find(key);
    if (it != m_Counters.end()) {
        ++it->second;
    } else {
        m_Counters.emplace(key, 1);
    }
}

void ZELKStats::Set(const std::string& key, long value) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Counters[key] = value;
}

long ZELKStats::Get(const std::string& key) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Counters.find(key);
    return it == m_Counters.end() ? 0 : it->second;
}

void ZELKStats::IncType(int type, const std::string& key) {
    if (key.empty()) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (Counters* group = TypedGroup(type)) {
        ++(*group)[key];
    }
}

void ZELKStats::SetType(int type, const std::string& key, long value) {
    if (key.empty()) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (Counters* group = TypedGroup(type)) {
        (*group)[key] = value;
    }
}

long ZELKStats::GetType(int type, const std::string& key) {
    if (key.empty()) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    Counters* group = TypedGroup(type);
    if (group == nullptr) {
        return 0;
    }
    auto it = group->find(key);
    return it == group->end() ? 0 : it->second;
}

void ZELKStats::ClearType(int type, const std::string& prefix) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    Counters* group = TypedGroup(type);
    if (group == nullptr) {
        return;
    }
    if (prefix.empty()) {
        group->clear();
        return;
    }
    // Keys with the prefix are contiguous in key order.
    auto it = group->lower_bound(prefix);
    while (it != group->end() && it->first.compare(0, prefix.size(), prefix) == 0) {
        it = group->erase(it);
    }
}

unsigned int ZELKStats::GetMetrics(char* buffer, unsigned int* size) {
    std::unique_ptr<char, TextDeleter> text;
    {
        std::unique_ptr<cJSON, JsonDeleter> root(cJSON_CreateObject());
        cJSON* metrics = cJSON_AddObjectToObject(root.get(), "metrics");
        cJSON_AddStringToObject(metrics, "ACVersion", ZELKConfig::kVersion);
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            AddCounters(metrics, m_Counters, m_Counters.size());
        }
        // Each group is taken under its own lock span, as the sections of one
        // document need not be from the same instant.
        const std::pair<const char*, Counters*> groups[] = {
            {"InventoryUnknownExtensons", &m_InventoryExtensions},
            {"DriftUnknownExtensions", &m_DriftExtensions},
            {"rulesets", &m_Rulesets},
        };
        for (const auto& group : groups) {
            cJSON* object = cJSON_AddObjectToObject(metrics, group.first);
            std::lock_guard<std::mutex> lock(m_Mutex);
            AddCounters(object, *group.second, kTypedGroupLimit);
        }
        cJSON* trustRules = cJSON_AddArrayToObject(metrics, "trustrules_stats");
        ZELKDAL::GetDAL().PrepareMetrics(trustRules);
        if (ZELKEngine* engineObject = ZELKEngine::GetEngine()) {
            engineObject->AddMetrics(metrics);
        }
        cJSON* dbInfo = cJSON_AddObjectToObject(metrics, "dbinfo");
        ZELKDAL& dal = ZELKDAL::GetDAL();
        dal.PrepareMetricsDBInfo(dbInfo);
        dal.PrepareMetricsDBInfoTrustRules(dbInfo);
        dal.PrepareMetricsDBInfoRulesets(dbInfo);
        dal.PrepareMetricsDBSize(dbInfo);
        text.reset(cJSON_PrintUnformatted(root.get()));
    }
    if (!text) {
        // Out of memory while printing: report it as a failed call rather
        // than pretending an empty document.
        ZERROR("unable to print metrics document");
        return 0xC0000000u;
    }
    const unsigned int length = static_cast<unsigned int>(strlen(text.get()) + 1);
    if (size == nullptr) {
        ZERROR("parameter is null \n");
        return kStatusNoSize;
    }
    if (buffer == nullptr || *size < length) {
        *size = length;
        return kStatusBufferSmall;
    }
    memcpy(buffer, text.get(), length);
    *size = length;
    return 0;
}
