// The exported C interface.  Each function is a thin, defensive shell: it
// checks its arguments and whether the engine runs, calls into the engine's
// singletons, and maps the outcome to a status code.  No exception crosses
// this boundary: Guarded() turns any into ZELK_STATUS_FAILURE.
#define ZELK_LOG_FILE "ZELK/ZELK"
#include "ZELK.h"

#include <exception>
#include <new>
#include <string>

#include "ZELKDataAccessLayer.h"
#include "ZELKEventAbstraction.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKStats.h"
#include "zelk.h"

extern "C" {
__attribute__((visibility("default"))) ZELKEngine* engine = nullptr;
__attribute__((visibility("default"))) ZELKConfig config;
}

namespace {
// Runs `body` and converts an escaping exception into a logged failure, so a
// fault inside the engine never unwinds into the host.  The body gets the
// exported function's name as its parameter (ZELK_LOG_FUNCTION), so what it
// logs carries that name rather than the lambda's.
template <typename Body>
uint32_t Guarded(const char* function, Body&& body) noexcept {
    try {
        return body(function);
    } catch (const std::bad_alloc&) {
        ZELKLogger::GetInstance().Log(ZLOG_ERROR, function, ZELK_LOG_FILE, __LINE__,
                                      "out of memory");
    } catch (const std::exception& e) {
        ZELKLogger::GetInstance().Log(ZLOG_ERROR, function, ZELK_LOG_FILE, __LINE__,
                                      "unexpected exception: %s", e.what());
    } catch (...) {
        ZELKLogger::GetInstance().Log(ZLOG_ERROR, function, ZELK_LOG_FILE, __LINE__,
                                      "unexpected exception");
    }
    return ZELK_STATUS_FAILURE;
}

// Brackets a ruleset import.  Cached allow decisions must not outlive a
// ruleset change, even when the import then fails: the cache is flushed
// before the import starts, and decisions that read the old policy (or the
// store half-way through the import) are kept out of the cache until the
// import has ended.
class PolicyChange {
  public:
    explicit PolicyChange(ZELKAllowCache& cache) : m_Cache(cache) {
        m_Cache.BeginPolicyChange();
        m_Cache.FlushCache();
    }
    ~PolicyChange() { m_Cache.EndPolicyChange(); }
    PolicyChange(const PolicyChange&) = delete;
    PolicyChange& operator=(const PolicyChange&) = delete;

  private:
    ZELKAllowCache& m_Cache;
};
}  // namespace

extern "C" {

uint32_t engine_start(const ac_engine_start_s* start) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (start == nullptr) {
            return ZELK_STATUS_NO_START;
        }
        if (ZELKLogger::GetInstance().InitLogger(start->logCallback, start->logMask) != 0) {
            return ZELK_STATUS_LOGGER_FAILED;
        }
        if (start->dbPath != nullptr && !ZELKDAL::GetDAL().SetDBPath(start->dbPath)) {
            return ZELK_STATUS_BAD_PATH;
        }
        if (!ZELKDAL::GetDAL().InitDB(false)) {
            return ZELK_STATUS_DB_INIT_FAILED;
        }
        if (engine == nullptr) {
            engine = new ZELKEngine();
        }
        return ZELK_STATUS_SUCCESS;
    });
}

uint32_t engine_stop(void) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_SUCCESS;
        }
        ZTRACE("Engine Stop");
        ZELKEngine* stopping = engine;
        engine = nullptr;
        delete stopping;
        ZTRACE("Shutting down DAL for AC Engine");
        ZELKDAL::GetDAL().ShutdownDAL();
        return ZELK_STATUS_SUCCESS;
    });
}

uint32_t app_ctl(ac_wrapper_event_s* event, ac_wrapper_response_s* response) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (event == nullptr) {
            return ZELK_STATUS_NO_EVENT;
        }
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        engine->ProcessEvent(event, response);
        if (response == nullptr) {
            return ZELK_STATUS_SUCCESS;
        }
        if (response->action == AC_ACTION_BLOCK) {
            if (config.GetManifestApplied()) {
                ZWARNING("Blocking event: '%s'", event->name ? event->name : "");
                return ZELK_STATUS_BLOCKED;
            }
            // An upgrade waits for its manifest: blocks decided on older rules
            // are reported but not enforced.
            ZELKStats& stats = ZELKStats::GetStats();
            stats.Inc("ALLOWED_WAITING_FOR_MANIFEST");
            ZTRACE("Allowed waiting for manifest %d",
                   static_cast<int>(stats.Get("ALLOWED_WAITING_FOR_MANIFEST")));
        }
        if (response->action == AC_ACTION_ERROR) {
            return ZELK_STATUS_FAILURE;
        }
        return ZELK_STATUS_SUCCESS;
    });
}

uint32_t set_config(unsigned flags, unsigned long autoAuthorizeStartTime,
                    unsigned long autoAuthorizeEndTime) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        ZELKDAL& dal = ZELKDAL::GetDAL();
        // Every bit is applied on every call: a clear bit switches its mode off.
        if (flags & 0x08) {
            ZTRACE("Setting AUTO AUTHORIZE");
            config.SetInventoryAutoAuthorize(true);
            config.SetAutoAuthorizeStartTime(autoAuthorizeStartTime);
            config.SetAutoAuthorizeEndTime(autoAuthorizeEndTime);
            dal.SetAppControlState("autoAuthorizeStartTime", autoAuthorizeStartTime);
            dal.SetAppControlState("autoAuthorizeEndTime", autoAuthorizeEndTime);
        } else {
            if (config.GetInventoryAutoAuthorize()) {
                // The open maintenance window closes now; its start stays.
                unsigned long now = GetCurrentTimeInMillis();
                config.SetAutoAuthorizeEndTime(now);
                dal.SetAppControlState("autoAuthorizeEndTime", now);
            } else if (config.GetAutoAuthorizeEndTime() == ZELKConfig::kNotSet) {
                // First call after a restart: the last window is the stored
                // one, whatever the host passes.
                dal.GetAppControlState("autoAuthorizeStartTime", autoAuthorizeStartTime);
                dal.GetAppControlState("autoAuthorizeEndTime", autoAuthorizeEndTime);
                config.SetAutoAuthorizeStartTime(autoAuthorizeStartTime);
                config.SetAutoAuthorizeEndTime(autoAuthorizeEndTime);
            }
            config.SetInventoryAutoAuthorize(false);
        }
        if (flags & 0x02) {
            ZTRACE("Setting INVENTORY EXISTS");
        }
        config.SetInventoryExists((flags & 0x02) != 0);
        if (flags & 0x01) {
            ZTRACE("Setting LOCKDOWN");
            // Blocks decided on rules older than this agent version are not
            // enforced until its manifest arrives.  A fresh database stores
            // no version and so counts as an upgrade.
            std::string stored;
            dal.GetAppControlState("agentVersion", stored);
            std::string current = config.GetCurrentVersion();
            if (stored != current) {
                ZTRACE(
                    "Upgrade detected old version %s new version %s waiting for manifest to "
                    "be applied",
                    stored.c_str(), current.c_str());
                config.SetManifestApplied(false);
            }
        }
        config.SetLockdown((flags & 0x01) != 0);
        if (flags & 0x04) {
            ZTRACE("Setting RULESET EXISTS");
        }
        config.SetRulesetExists((flags & 0x04) != 0);
        if (flags & 0x10) {
            ZTRACE("Setting ALLOWLIST INVENTORY");
        }
        config.SetWhitelistInventory((flags & 0x10) != 0);
        return ZELK_STATUS_SUCCESS;
    });
}

uint32_t set_loglevel(unsigned mask) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        ZELKLogger::GetInstance().SetLogMask(mask);
        return ZELK_STATUS_SUCCESS;
    });
}

uint32_t get_metrics_mem(char* buffer, unsigned* size) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        return ZELKStats::GetStats().GetMetrics(buffer, size);
    });
}

uint32_t delete_db(void) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        return ZELKDAL::GetDAL().DeleteDB() ? ZELK_STATUS_SUCCESS : ZELK_STATUS_FAILURE;
    });
}

uint32_t purge_db(unsigned source) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        return ZELKDAL::GetDAL().PurgeDB(static_cast<DALSource>(source)) ? ZELK_STATUS_SUCCESS
                                                                         : ZELK_STATUS_FAILURE;
    });
}

uint32_t flush_db_buffer(void) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        // All three always run; only "nothing written anywhere" fails.
        ZELKDAL& dal = ZELKDAL::GetDAL();
        uint64_t written = static_cast<uint64_t>(dal.StoreItemFlush());
        written += static_cast<uint64_t>(dal.StoreTrustRuleFlush());
        written += static_cast<uint64_t>(dal.StoreUserListFlush());
        return written != 0 ? ZELK_STATUS_SUCCESS : ZELK_STATUS_FAILURE;
    });
}

uint32_t store_item(ac_db_item_s* item, bool buffered) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        if (item == nullptr || item->fileName == nullptr || item->path == nullptr ||
            item->nativePath == nullptr || item->ruleset == nullptr) {
            return ZELK_STATUS_BAD_ITEM;
        }
        ZELKDAL& dal = ZELKDAL::GetDAL();
        bool stored = buffered ? dal.StoreItemBuffer(item) : dal.StoreItem(item);
        return stored ? ZELK_STATUS_SUCCESS : ZELK_STATUS_FAILURE;
    });
}

uint32_t set_ruleset(bool flag, const char* path, const char* name) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        if (path == nullptr) {
            return ZELK_STATUS_BAD_PATH;
        }
        PolicyChange change(engine->GetAllowCache());
        return ZELKDAL::GetDAL().ImportRuleset(flag, path, name != nullptr ? name : "")
                   ? ZELK_STATUS_SUCCESS
                   : ZELK_STATUS_FAILURE;
    });
}

uint32_t set_ruleset_buffer(bool flag, const char* buffer, const char* name) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (buffer == nullptr || name == nullptr) {
            return ZELK_STATUS_NO_BUFFER;
        }
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        PolicyChange change(engine->GetAllowCache());
        return ZELKDAL::GetDAL().ImportRulesetBuffer(flag, buffer, name) ? ZELK_STATUS_SUCCESS
                                                                         : ZELK_STATUS_FAILURE;
    });
}

uint32_t get_inventory(unsigned long fromItemId, unsigned long limit, unsigned source,
                       const char* first, const char* second) {
    return Guarded(__func__, [&](ZELK_LOG_FUNCTION) -> uint32_t {
        if (first == nullptr) {
            return ZELK_STATUS_BAD_PATH;
        }
        if (engine == nullptr) {
            return ZELK_STATUS_NOT_STARTED;
        }
        // After an inventory rebuild the rows up to the previous maximum are
        // the host's already; never hand them out again.
        unsigned long previousMax = config.GetPreviousMaxInventoryItemId();
        if (fromItemId < previousMax) {
            fromItemId = previousMax;
        }
        // A missing table name selects the inventory, as an empty one does.
        std::string table = second != nullptr ? second : "";
        return ZELKDAL::GetDAL().GetItems(fromItemId, limit, source, first, table)
                   ? ZELK_STATUS_SUCCESS
                   : ZELK_STATUS_FAILURE;
    });
}

}  // extern "C"
