// Drift: executable files added to or changed on the machine after the
// inventory was taken.  A changed file loses its cached approvals, and is
// recorded as approved drift, trusted, or left unknown for the execution
// decisions to judge.  While maintenance mode is on, renames and deletes keep
// the inventory in step with the file system.
#define ZELK_LOG_FILE "ZELK/ZELKEventAbstraction"
#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKEventAbstraction.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKStats.h"

namespace {
bool IsDriftKind(uint32_t kind) {
    return kind == AC_TYPE_DRIFT || kind == AC_TYPE_RENAME || kind == AC_TYPE_DRIFT_WRITE;
}
}  // namespace

bool ZELKEngine::HandleFileSystemMonitorEvent(ac_event& event) {
    ZTRACE("Start HandleFileSystemMonitorEvent. processName:%s path:%s", event.processName.c_str(),
           event.name.c_str());
    if (event.name.empty()) {
        ZWARNING("Realpath of Event %lu unknown: PID %lu, returnining false",
                 static_cast<unsigned long>(event.trustMatch),
                 static_cast<unsigned long>(event.pid));
        event.action = AC_ACTION_ERROR;
        return false;
    }
    event.leadingWord = 0;
    if (event.abstractEventType == 0) {
        event.abstractEventType = AC_TYPE_DRIFT;
    }
    if (!ZELKQuery::Lstat(event)) {
        ZTRACE("Error getting attributes of path %s, returning false", event.name.c_str());
        event.action = AC_ACTION_ERROR;
        return false;
    }
    ZELKStats& stats = ZELKStats::GetStats();
    if (IsDriftKind(event.abstractEventType)) {
        GetQuery().GetItemType(event);
        if (!GetQuery().ShouldPersistInInventory(event)) {
            // Still drift: an unknown extension is only counted.
            stats.IncType(ZELKStats::GROUP_DRIFT_EXTENSIONS, event.extension);
            stats.Inc("TotalDriftUnknownExtension");
            ZTRACE("Drift for unknown extension path:%s, size:%lu, type:%d, mode:%d",
                   event.name.c_str(), static_cast<unsigned long>(event.size), event.eventType,
                   static_cast<int>(event.mode));
        }
        event.source = DAL_SOURCE_APPROVED_DRIFT;
    }
    if (!ScanFile(event)) {
        ZTRACE("Scanfile failed: %s, returning false", event.name.c_str());
        event.action = AC_ACTION_ERROR;
        return false;
    }

    if (event.source == DAL_SOURCE_APPROVED_DRIFT) {
        // The file changed: earlier approvals of it must be asked again.
        GetAllowCache().RemoveCacheNode(event.name);
        ZELKDAL& dal = ZELKDAL::GetDAL();
        const bool maintenance = config.GetInventoryAutoAuthorize();
        uint32_t currentSource = event.source;
        if (dal.IsAllowedInDB(event)) {
            if (event.isAuthorized == 1) {
                currentSource = event.source;
                ZTRACE("Allowlisted drift %s", event.fileName.c_str());
                event.authorizedState = AC_AUTH_ALLOW_CACHE;
                if (maintenance && (currentSource == DAL_SOURCE_SCANNED ||
                                    currentSource == DAL_SOURCE_APPROVED_DRIFT)) {
                    // Store a scanned or drift item again with its new digests.
                    event.source = DAL_SOURCE_APPROVED_DRIFT;
                    dal.WhitelistFile(event);
                    ZTRACE("Drift is authorized due to previously approved. Filename: %s",
                           event.name.c_str());
                }
            } else if (event.isAuthorized == 2) {
                ZTRACE("Blocklisted drift %s", event.fileName.c_str());
                event.authorizedState = AC_AUTH_BLOCKED;
            } else {
                ZTRACE("Unrecognized Drift %s", event.fileName.c_str());
                bool store = false;
                if (maintenance) {
                    event.authorizedState = AC_AUTH_MAINTENANCE;
                    dal.WhitelistFile(event);
                    ZTRACE("Drift is authorized due to maintenance mode. Filename: %s",
                           event.fileName.c_str());
                } else if (GetQuery().ShouldTrustDrift(
                               GetProcessCache().GetProcess(event.pid, event.processFileName),
                               event, store)) {
                    event.authorizedState = AC_AUTH_TRUSTED;
                    if (store) {
                        dal.WhitelistFile(event);
                    }
                    stats.Inc("EventTrustedDrift");
                    ZTRACE("Drift is trusted update %s and path %s", event.processName.c_str(),
                           event.name.c_str());
                } else if (dal.IsFoundInTrustRules(DAL_TRUST_SOURCE_PROCESS, event)) {
                    event.authorizedState = AC_AUTH_TRUSTED;
                    dal.WhitelistFile(event);
                    stats.Inc("EventTrustRuleSourceDrift");
                    ZTRACE("Drift source is in trust rule for %s", event.processName.c_str());
                } else if (dal.IsFoundInTrustRules(DAL_TRUST_EXECUTION, event)) {
                    // The rule approves the file at every run: no row needed.
                    event.authorizedState = AC_AUTH_TRUSTED;
                    stats.Inc("EventTrustRuleSourceDrift");
                    ZTRACE("Drift source is in trust rule for %s", event.name.c_str());
                } else {
                    event.authorizedState = AC_AUTH_NONE;
                    ZTRACE("Drift was not trusted for process %s and path %s",
                           event.processName.c_str(), event.name.c_str());
                }
            }
            if (maintenance && event.abstractEventType == AC_TYPE_RENAME) {
                ac_event old(event);
                old.name = event.oldName;
                AbstractEvent(old);
                ZTRACE(
                    "AC_TYPE_RENAME removing old inventory item with oldName: %s, path %s, "
                    "fileName %s",
                    event.oldName.c_str(), old.path.c_str(), old.fileName.c_str());
                dal.DeleteInventoryItems(old);
            }
        }
        if (event.isAuthorized == 1 && currentSource != DAL_SOURCE_EXECUTION_RULES &&
            dal.IsFoundInTrustRules(DAL_TRUST_BLOCK_TARGET, event)) {
            event.isAuthorized = 2;
            event.source = DAL_SOURCE_TRUST_RULES;
            event.authorizedState = AC_AUTH_NONE;
            stats.Inc("EventBlockByTarget");
            ZTRACE("Target is blocked due to trust rule for %s", event.name.c_str());
        }
    }
    ZTRACE("Returning true from HandleFileSystemMonitorEvent");
    return true;
}

bool ZELKEngine::HandleDeleteEvent(ac_event& event) {
    if (!config.GetInventoryAutoAuthorize()) {
        ZTRACE("File %s was not deleted because not in maintenance mode", event.name.c_str());
        return true;
    }
    if (ZELKDAL::GetDAL().DeleteInventoryItems(event)) {
        ZTRACE("File %s was successfully deleted", event.name.c_str());
        return true;
    }
    ZTRACE("File %s, was unable to be deleted", event.name.c_str());
    return false;
}

bool ZELKEngine::CheckExcludeTrustRules(ac_event& event) {
    if (event.eventType != AC_TYPE_NONE) {
        return true;
    }
    if (ZELKDAL::GetDAL().IsFoundInTrustRules(DAL_TRUST_EXCLUDE, event)) {
        ZTRACE("Exclude event in directory %s because of exclude trust rule", event.path.c_str());
        ZELKStats::GetStats().Inc("EventExcludedByTrustRule");
        event.action = AC_ACTION_NOT_HANDLED;
        event.authorizedState = AC_AUTH_EXCLUDED;
        RememberAllowed(event);
        return false;
    }
    return true;
}
