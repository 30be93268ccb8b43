// Verdicts for everything that wants to execute: program starts, executable
// mappings and script starts.  The three handlers share IsAllowedToRun, whose
// checks run in a fixed order: the inventory lookup, then (for unknown files
// only) trusted updaters, the maintenance window and time-stamp mode, then
// block-by-target rules, then trusted-execution rules.  A ruleset verdict is
// final and skips everything after the lookup.
#define ZELK_LOG_FILE "ZELK/ZELKEventAbstraction"
#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKEventAbstraction.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKStats.h"

namespace {
constexpr unsigned long long kWindowNotSet = ~0ULL;

unsigned long long ToMillis(const struct timespec& t) {
    return static_cast<unsigned long long>(t.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(t.tv_nsec) / 1000000ULL;
}

void Count(const char* key) {
    ZELKStats::GetStats().Inc(key);
}
}  // namespace

bool ZELKEngine::IsAllowedToRun(ac_event& event, bool checkExecutable) {
    if (event.name.empty()) {
        Count("RunErrorPath");
        event.action = AC_ACTION_ERROR;
        ZTRACE("Event name is empty, failing to check in DB");
        return false;
    }
    if (checkExecutable && event.isexec == 0) {
        Count("RunErrorNotExec");
        event.action = AC_ACTION_ERROR;
        ZTRACE("Not Executable %s. Setting action", event.name.c_str());
        return false;
    }

    event.lookupPath = event.name;
    ZELKDAL& dal = ZELKDAL::GetDAL();
    if (!dal.IsAllowedInDB(event)) {
        return false;
    }
    if (event.source == DAL_SOURCE_EXECUTION_RULES) {
        return true;  // a ruleset verdict is final
    }

    if (event.isAuthorized == 0) {
        const unsigned long processType =
            GetProcessCache().GetProcess(event.pid, event.processFileName);

        bool store = false;
        if (GetQuery().ShouldTrustDrift(processType, event, store)) {
            event.isAuthorized = 1;
            event.authorizedState = AC_AUTH_TRUSTED;
            if (store) {
                dal.WhitelistFile(event);
            }
            Count("EventTrustedDrift");
            ZTRACE("internal trusted update %s and path %s", event.processName.c_str(),
                   event.name.c_str());
        }

        if (event.isAuthorized == 0) {
            const unsigned long long start = config.GetAutoAuthorizeStartTime();
            const unsigned long long end = config.GetAutoAuthorizeEndTime();
            ZTRACE("[Maintenance] start time: %llu end time: %llu Handling event of type: %d",
                   start, end, event.eventType);
            if (AutoAuthorizeByFileTime(event, start, end)) {
                Count("AutoAuthorizeByFileTime");
                event.isAuthorized = 1;
                event.action = AC_ACTION_ALLOW;
                event.authorizedState = AC_AUTH_MAINTENANCE;
                dal.WhitelistFile(event);
                ZTRACE(
                    "[Maintenance] Process %s approved pid %lu. Setting isAuthorized to "
                    "maintenance mode. Event type: %d",
                    event.name.c_str(), static_cast<unsigned long>(event.pid), event.eventType);
            }
        }

        if (event.isAuthorized == 0 && GetQuery().IsProcessTypeInTimeStampMode(processType)) {
            unsigned long upgradeTime = 0;
            dal.GetAppControlState("upgradetime", upgradeTime);
            const unsigned long long end = static_cast<unsigned long long>(upgradeTime) * 1000ULL;
            ZTRACE("[TIMESTAMP MODE] start time: %llu end time: %llu Handling event of type: %d",
                   1000ULL, end, event.eventType);
            if (AutoAuthorizeByFileTime(event, 1000ULL, end)) {
                Count("AutoAuthorizeByTimeStamp");
                event.authorizedState = AC_AUTH_TRUSTED;
                event.action = AC_ACTION_ALLOW;
                event.isAuthorized = 1;
                dal.WhitelistFile(event);
                ZTRACE(
                    "[TIMESTAMP_MODE] Process %s approved pid %lu. Setting isAuthorized. Event "
                    "type: %d",
                    event.name.c_str(), static_cast<unsigned long>(event.pid), event.eventType);
            }
        }
    }

    // Block-by-target outranks every approval above.
    if (dal.IsFoundInTrustRules(DAL_TRUST_BLOCK_TARGET, event)) {
        event.isAuthorized = 2;
        event.source = DAL_SOURCE_TRUST_RULES;
        event.authorizedState = AC_AUTH_BLOCKED;
        Count("EventBlockByTarget");
        ZTRACE("Target is blocked due to trust rule for %s", event.name.c_str());
        return true;
    }
    if (event.isAuthorized == 1) {
        return true;
    }
    // Trusted execution ranks above an inventory block, below block-by-target.
    if (dal.IsFoundInTrustRules(DAL_TRUST_EXECUTION, event)) {
        event.isAuthorized = 1;
        event.authorizedState = AC_AUTH_TRUSTED;
        event.source = DAL_SOURCE_TRUST_RULES;
        Count("EventTrustedExecution");
        ZTRACE("Target is in trust rule for %s", event.name.c_str());
    }
    return true;
}

bool ZELKEngine::AutoAuthorizeByFileTime(ac_event& event, unsigned long long startMillis,
                                         unsigned long long endMillis) {
    if (startMillis == 0 || startMillis == kWindowNotSet) {
        return false;
    }
    if (!ZELKQuery::Lstat(event)) {
        ZTRACE("Error getting attributes of path %s, returning false", event.name.c_str());
        return false;
    }
    const unsigned long long createTime = ToMillis(event.targetStat.st_ctim);
    const unsigned long long modifiedTime = ToMillis(event.targetStat.st_mtim);
    const unsigned long long now = GetCurrentTimeInMillis();
    const unsigned long long latest = createTime > modifiedTime ? createTime : modifiedTime;
    const unsigned long long limit =
        (endMillis > startMillis && endMillis != kWindowNotSet) ? endMillis : now + 1;
    if (now > latest && latest < limit &&
        (startMillis < createTime || startMillis < modifiedTime)) {
        ZTRACE(
            "[Maintenance] Unrecognized file %s approved because create/modified time is after "
            "authorize start time. createTime: %llu modifiedTime: %llu authorizeStartTime: %llu",
            event.name.c_str(), createTime, modifiedTime, startMillis);
        return true;
    }
    ZTRACE(
        "[Maintenance] Unrecognized file %s not approved because create/modified time is before "
        "authorize start time. createTime: %llu modifiedTime: %llu authorizeStartTime: %llu now: "
        "%llu",
        event.name.c_str(), createTime, modifiedTime, startMillis, now);
    return false;
}

bool ZELKEngine::HandleProcessStartEvent(ac_event& event) {
    const unsigned long pid = static_cast<unsigned long>(event.pid);
    if (!IsAllowedToRun(event, true)) {
        ZTRACE("IsAllowedInDB Returned false");
        ZTRACE("Returning false from HandleProcessStartEvent");
        return false;
    }
    if (event.isAuthorized == 1) {
        if (!event.processName.empty()) {
            const unsigned long cachedType =
                GetProcessCache().GetProcess(pid, event.processFileName);
            if (cachedType == 0) {
                const size_t type = GetQuery().GetProcessInterpreterType(event);
                if (type != ZELKQuery::kNoProcessType) {
                    ZTRACE("Adding pid %s (%lu) as interpreter with PTI %lu", event.name.c_str(),
                           pid, static_cast<unsigned long>(type));
                    GetProcessCache().AddProcess(pid, type, event.processFileName);
                    ZTRACE("Process %s with pid %lu to added process map",
                           event.processName.c_str(), pid);
                }
            } else if (GetQuery().IsPrelink(cachedType)) {
                Count("RunPrelink");
            }
        }
        ZTRACE("Incrementing RunAllowedRule stats for %s with pid %lu", event.name.c_str(), pid);
        Count("RunAllowedRule");
        event.action = AC_ACTION_ALLOW;
        ZTRACE("User %s, process %s and target %s approved pid %lu. Setting isAuthorized to 3",
               event.user.c_str(), event.processName.c_str(), event.name.c_str(), pid);
        RememberAllowed(event);
    } else if (event.isAuthorized == 2) {
        ZTRACE("Process %s blocked pid %lu", event.name.c_str(), pid);
        Count("RunBlockedRule");
        event.action = AC_ACTION_BLOCK;
        event.authorizedState = AC_AUTH_BLOCKED;
        event.abstractEventType = AC_TYPE_RUN_BLOCKED;
        ZTRACE("Process %s was not approved pid %lu. Setting isAuthorized to 2, returning false",
               event.name.c_str(), pid);
    } else {
        ZTRACE("Process %s (%lu) not found in DB", event.name.c_str(), pid);
        event.lockdownBlocked = 0;
        event.authorizedState = AC_AUTH_NONE;
        if (config.GetLockdown()) {
            Count("RunBlockedLockdown");
            ZTRACE("Run blocked due to lockdown");
            event.action = AC_ACTION_BLOCK;
            event.abstractEventType = AC_TYPE_RUN_BLOCKED;
            ZTRACE("Unrecognized process %s was not approved due to lockdown.", event.name.c_str());
            event.lockdownBlocked = 1;
        } else {
            Count("RunAllowedLogOnly");
            ZTRACE("Run Allowed Log Only");
            event.lockdownBlocked = 0;
            event.action = AC_ACTION_ALLOW;
            event.abstractEventType = AC_TYPE_RUN_LOG_ONLY;
        }
    }
    ZTRACE("Returning false from HandleProcessStartEvent");
    return false;
}

bool ZELKEngine::HandleMmapStartEvent(ac_event& event) {
    const unsigned long pid = static_cast<unsigned long>(event.pid);
    if (!IsAllowedToRun(event, false)) {
        ZTRACE("IsAllowedToRun returned false");
        return false;
    }
    if (event.isAuthorized == 1) {
        ZTRACE("Process %s (%lu) was approved to create executable mapping for %s",
               event.processName.c_str(), pid, event.name.c_str());
        Count("RunAllowedRule");
        event.action = AC_ACTION_ALLOW;
        RememberAllowed(event);
        return true;
    }
    if (event.isAuthorized == 2) {
        ZTRACE("Process %s (%lu) was not approved to create executable mapping for %s",
               event.processName.c_str(), pid, event.name.c_str());
        Count("RunBlockedRule");
        event.action = AC_ACTION_BLOCK;
        event.abstractEventType = AC_TYPE_RUN_BLOCKED;
        return false;
    }
    ZTRACE("File %s not found in the db", event.name.c_str());
    if (config.GetLockdown()) {
        Count("RunBlockedLockdown");
        event.action = AC_ACTION_BLOCK;
        event.abstractEventType = AC_TYPE_RUN_BLOCKED;
        ZTRACE(
            "Process %s (%lu) was not approved to create executable mapping for %s due to "
            "LOCKDOWN",
            event.processName.c_str(), pid, event.name.c_str());
        return false;
    }
    Count("RunAllowedLogOnly");
    event.action = AC_ACTION_ALLOW;
    event.abstractEventType = AC_TYPE_RUN_LOG_ONLY;
    return true;
}

bool ZELKEngine::HandleScriptStartEvent(ac_event& event) {
    const unsigned long pid = static_cast<unsigned long>(event.pid);
    if (!IsAllowedToRun(event, true)) {
        ZTRACE("Returning false from HandleScriptStartEvent");
        return false;
    }
    if (event.isAuthorized == 1) {
        Count("RunAllowedRule");
        event.action = AC_ACTION_ALLOW;
        ZTRACE("Process %s approved pid %lu", event.name.c_str(), pid);
        RememberAllowed(event);
    } else if (event.isAuthorized == 2) {
        ZTRACE("Process %s blocked pid %lu", event.name.c_str(), pid);
        Count("RunBlockedRule");
        event.action = AC_ACTION_BLOCK;
        event.abstractEventType = AC_TYPE_RUN_BLOCKED;
    } else {
        ZTRACE("Process %s not in DB", event.name.c_str());
        if (!config.GetLockdown()) {
            Count("RunAllowedLogOnly");
            event.lockdownBlocked = 0;
            event.action = AC_ACTION_ALLOW;
            event.abstractEventType = AC_TYPE_RUN_LOG_ONLY;
            return true;
        }
        Count("RunBlockedLockdown");
        event.action = AC_ACTION_BLOCK;
        event.lockdownBlocked = 1;
        event.abstractEventType = AC_TYPE_RUN_BLOCKED;
        ZTRACE("Process %s was not approved", event.name.c_str());
    }
    ZTRACE("Returning false from HandleScriptStartEvent");
    return false;
}
