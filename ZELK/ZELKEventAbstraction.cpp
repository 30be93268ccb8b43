#define ZELK_LOG_FILE "ZELK/ZELKEventAbstraction"
#include "ZELKEventAbstraction.h"

#include <cstring>

#include "ZELK.h"
#include "ZELKLogger.h"
#include "ZELKStats.h"

namespace {
// Assigns a host text when present and returns whether it was.
bool CopyText(const char* from, std::string& to) {
    if (from == nullptr) {
        return false;
    }
    to.assign(from);
    return true;
}

// Company and product names arrive padded with blanks; only trailing spaces
// are removed (tabs and leading blanks are data).
void TrimTrailingSpaces(std::string& text) {
    size_t end = text.find_last_not_of(' ');
    text.erase(end == std::string::npos ? 0 : end + 1);
}
}  // namespace

// The classifier builds its tables and both caches in its own constructor;
// members declared after it are built after it and destroyed before it.
ZELKEngine::ZELKEngine() = default;
ZELKEngine::~ZELKEngine() = default;

ZELKEngine* ZELKEngine::GetEngine() {
    return engine;
}

namespace {
// The decision of an event the allow cache did not answer.
bool DecideUncached(ZELKEngine& engine, ac_event& event) {
    // Recorded before any policy is read, so an approval reached on a policy
    // that an import replaces meanwhile is not cached.
    event.policyGeneration = engine.GetAllowCache().PolicyGeneration();
    if (engine.AbstractEvent(event) && engine.CheckExcludeTrustRules(event)) {
        return engine.HandleEvent(event);
    }
    ZTRACE("Not Handling Event of type: %d", event.eventType);
    ZELKStats::GetStats().Inc("TotalIgnoredEvent");
    return false;
}

void CopyKey(const char* from, std::string& to) {
    if (from != nullptr) {
        to.assign(from);
    } else {
        to.clear();
    }
}
}  // namespace

uint32_t ZELKEngine::ProcessEvent(ac_wrapper_event_s* in, ac_wrapper_response_s* response) {
    // Most events of a busy host are repeats that the allow cache answers.
    // With tracing off nothing of the full conversion is observable on a hit,
    // so only the three keys are copied, into buffers this thread reuses (no
    // allocation once they have grown), and the response a converted event
    // would give is written directly.  A miss continues with the full event
    // without asking the cache a second time, so the counters stay exact.
    if (in->eventType == AC_TYPE_NONE && !ZELKLogger::GetInstance().IsEnabled(ZLOG_TRACE)) {
        thread_local std::string user, process, target;
        CopyKey(in->user, user);
        CopyKey(in->processName, process);
        CopyKey(in->name, target);
        if (GetAllowCache().IsCached(user, process, target)) {
            if (response != nullptr) {
                memset(response, 0, sizeof(*response));
                response->action = AC_ACTION_ALLOW;
                static const uint32_t kItemType = ac_event().itemType;
                response->itemType = kItemType;
                response->authorizedState = AC_AUTH_ALLOW_CACHE;
                response->eventType = AC_TYPE_NONE;
            }
            return 1;
        }
        ac_event event;
        ConvertEvent(in, event);
        const bool decided = DecideUncached(*this, event);
        UpdateResponse(event, response);
        return decided ? 1 : 0;
    }
    ac_event event;
    ConvertEvent(in, event);
    const bool decided = ProcessEvent(event);
    UpdateResponse(event, response);
    return decided ? 1 : 0;
}

bool ZELKEngine::ProcessEvent(ac_event& event) {
    ZTRACE("Processing event. EventType: %d Maintenance Mode: %d LockDown: %d", event.eventType,
           config.GetInventoryAutoAuthorize(), config.GetLockdown());
    if (event.eventType == AC_TYPE_NONE) {
        if (GetAllowCache().IsCached(event.user, event.processName, event.name)) {
            event.action = AC_ACTION_ALLOW;
            event.authorizedState = AC_AUTH_ALLOW_CACHE;
            return true;
        }
        ZTRACE("AllowCache miss for user: %s process: %s target: %s", event.user.c_str(),
               event.processName.c_str(), event.name.c_str());
    }
    return DecideUncached(*this, event);
}

namespace {
// The text after the last "." of `name`.  A name without any "." yields the
// whole name (the not-found position plus one is 0); a name whose only "."
// is its first character yields nothing.  Hosts rely on both quirks.
void SetSuffix(ac_event& event) {
    event.suffix.clear();
    const size_t dot = event.name.rfind('.');
    if (dot != 0) {
        event.suffix = event.name.substr(dot + 1);
    }
}
}  // namespace

bool ZELKEngine::AbstractEvent(ac_event& event) {
    ZTRACE("EventAbstraction");
    if (!event.name.empty()) {
        const size_t slash = event.name.rfind('/');
        if (slash != std::string::npos) {
            event.path.assign(event.name, 0, slash + 1);
            event.fileName.assign(event.name, slash + 1, std::string::npos);
        } else {
            event.fileName = event.name;
        }
    }
    if (event.extension.empty()) {
        const size_t dot = event.fileName.rfind('.');
        if (dot != std::string::npos) {
            event.extension.assign(event.fileName, dot + 1, std::string::npos);
        }
    }

    ac_process_info process;
    process.pid = event.pid;
    if (!event.processName.empty()) {
        const size_t slash = event.processName.rfind('/');
        if (slash != std::string::npos) {
            process.path.assign(event.processName, 0, slash + 1);
            process.fileName.assign(event.processName, slash + 1, std::string::npos);
            event.processPath = process.path;
            event.processFileName = process.fileName;
        }
        ZTRACE("Process name=%s path=%s fileName=%s procUser=%s procGroup=%s \n",
               event.processName.c_str(), process.path.c_str(), process.fileName.c_str(),
               event.user.c_str(), event.group.c_str());
    }

    event.abstractEventType = event.eventType;
    bool handled = true;
    switch (event.eventType) {
        case 15:
        case 29:
            handled = EventCreatePre(event, process);
            break;
        case 16:
            handled = EventCreatePost(event);
            break;
        case 17:
            handled = EventCleanupPre(event);
            break;
        case 23:
            handled = EventExecPre(event);
            break;
        case 30:
            handled = EventOpenPost(event);
            break;
        case 32:
        case 34:
            handled = EventChmodPost(event);
            break;
        case 36:
            handled = EventClosePost(event);
            break;
        case 40:
            handled = EventRenamePost(event);
            break;
        case 42:
        case 44:
        case 46:
        case 48:
            handled = EventChownPost(event);
            break;
        case 50:
        case 57:
            handled = EventDeletePost(event);
            break;
        case 53:
            handled = EventMmapPre(event);
            break;
        default:
            ZTRACE("Event not processed fell through");
            event.action = AC_ACTION_NOT_HANDLED;
            break;
    }
    // Directory exclusion is evaluated whatever the handler said, so its
    // side effects (allow-cache removal, counter) always happen.
    const bool included = DirectoryExclude(event);
    const bool result = handled && included;
    ZTRACE("Returning %d from EventAbstraction | EventAbs: %d && DynamicRules: %d", result, handled,
           included);
    return result;
}

bool ZELKEngine::EventCreatePre(ac_event& event, ac_process_info& process) {
    ZTRACE("Event Create Pre Abstraction");
    size_t typeIndex = 0;
    bool cached = false;
    if (process.fileName.empty()) {
        ZTRACE("process filename is empty");
    } else if ((typeIndex = GetProcessCache().GetProcess(process.pid, process.fileName)) != 0) {
        cached = true;
        ZTRACE("process type index is empty");
        if (event.name.empty()) {
            ZTRACE("Event name empty. Returning false from event abstraction.");
            return false;
        }
    }
    if (!cached) {
        typeIndex = GetQuery().GetProcessInterpreterType(process);
        ZTRACE("processTypeIndex=%d", static_cast<int>(typeIndex));
        if (typeIndex != ZELKQuery::kNoProcessType) {
            GetProcessCache().AddProcess(process.pid, typeIndex, process.fileName);
        }
        if (event.name.empty()) {
            ZTRACE("Event name empty. Returning false from event abstraction.");
            return false;
        }
        if (typeIndex == 0) {
            ZTRACE("Script exec not detected. Process type index: %lu",
                   static_cast<unsigned long>(typeIndex));
            ZTRACE("Returning false from EventCreatePre");
            return false;
        }
    }
    if (!GetQuery().IsInterpreter(typeIndex)) {
        ZTRACE("Script exec not detected. Process type index: %lu",
               static_cast<unsigned long>(typeIndex));
        ZTRACE("Returning false from EventCreatePre");
        return false;
    }
    const bool interpreted = GetQuery().IsExtensionInterpreted(typeIndex, event.extension);
    const bool onCommandLine = IsOnCommandLine(event);
    ZTRACE("bIsExtensionInterpreted %d bIsOnTheCommandLine %d isexec %d", interpreted,
           onCommandLine, event.isexec);
    if (!interpreted && (!onCommandLine || event.isexec == 0)) {
        ZTRACE("File extension is not interpreted by process type %d", static_cast<int>(typeIndex));
        ZTRACE("Returning false from EventCreatePre");
        return false;
    }
    ZELKStats::GetStats().Inc("RunScript");
    event.eventType = AC_TYPE_SCRIPT_START;
    return true;
}

bool ZELKEngine::EventCreatePost(ac_event& event) {
    if (event.dirty) {
        event.eventType = AC_TYPE_DRIFT;
        event.abstractEventType = AC_TYPE_DRIFT_WRITE;
        event.action = AC_ACTION_NOT_HANDLED;
    } else {
        event.action = AC_ACTION_NOT_HANDLED;
        ZTRACE("Create Post event not dirty, ignoring");
    }
    return event.dirty != 0;
}

bool ZELKEngine::EventCleanupPre(ac_event& event) {
    event.action = AC_ACTION_NOT_HANDLED;
    if (event.dirty && event.name.find(':') == std::string::npos) {
        event.eventType = AC_TYPE_DRIFT;
    }
    return true;
}

bool ZELKEngine::EventExecPre(ac_event& event) {
    ZELKStats::GetStats().Inc("RunProgram");
    event.eventType = AC_TYPE_PROCESS_START;
    return true;
}

bool ZELKEngine::EventOpenPost(ac_event& event) {
    constexpr uint64_t kCreateOrTruncate = 0x240;  // O_CREAT | O_TRUNC
    if ((event.flags & kCreateOrTruncate) != 0 &&
        GetQuery().IsPrelink(GetProcessCache().GetProcess(event.pid, event.processFileName))) {
        ZWARNING("Not supported yet\n");
    }
    return true;
}

bool ZELKEngine::EventChmodPost(ac_event& event) {
    if (event.result == 0) {
        event.eventType = AC_TYPE_DRIFT;
        event.abstractEventType = AC_TYPE_DRIFT;
    }
    return true;
}

bool ZELKEngine::EventClosePost(ac_event& event) {
    event.eventType = AC_TYPE_DRIFT;
    event.abstractEventType = AC_TYPE_DRIFT_WRITE;
    return true;
}

bool ZELKEngine::EventRenamePost(ac_event& event) {
    if (event.result == 0) {
        event.eventType = AC_TYPE_DRIFT;
        event.abstractEventType = AC_TYPE_RENAME;
    }
    return true;
}

bool ZELKEngine::EventChownPost(ac_event& event) {
    if (event.result == 0) {
        SetSuffix(event);
        event.eventType = AC_TYPE_DRIFT;
        event.abstractEventType = AC_TYPE_DRIFT;
    }
    return true;
}

bool ZELKEngine::EventDeletePost(ac_event& event) {
    if (event.result == 0) {
        SetSuffix(event);
        event.eventType = AC_TYPE_DELETE;
        event.abstractEventType = AC_TYPE_DELETE;
        GetAllowCache().RemoveCacheNode(event.name);
    }
    return true;
}

bool ZELKEngine::EventMmapPre(ac_event& event) {
    constexpr uint64_t kProtExec = 4;
    if ((event.mode & kProtExec) != 0) {
        event.eventType = AC_TYPE_MMAP;
    }
    return true;
}

bool ZELKEngine::IsOnCommandLine(ac_event& event) {
    if (event.fileName.empty() || event.cmdLine.empty()) {
        ZTRACE("No cmdline or file to check");
        return false;
    }
    if (event.cmdLine.find(event.fileName) != std::string::npos) {
        ZTRACE("Filename matches process command line");
        return true;
    }
    ZTRACE("Filename does not match process command line");
    return false;
}

bool ZELKEngine::DirectoryExclude(ac_event& event) {
    const uint32_t kind = event.abstractEventType;
    if (kind != AC_TYPE_DRIFT && kind != AC_TYPE_RENAME && kind != AC_TYPE_DRIFT_WRITE) {
        return true;
    }
    if (config.GetInventoryAutoAuthorize()) {
        return true;
    }
    if (GetQuery().ShouldScanFolder(event)) {
        return true;
    }
    ZTRACE("Excluding event %s, based on directory", event.path.c_str());
    event.action = AC_ACTION_NOT_HANDLED;
    event.authorizedState = AC_AUTH_EXCLUDED;
    ZELKStats::GetStats().Inc("EventExcludedBasedOnDirectory");
    GetAllowCache().RemoveCacheNode(event.name);
    return false;
}

bool ZELKEngine::HandleEvent(ac_event& event) {
    if (event.eventType == AC_TYPE_NONE) {
        event.authorizedState = AC_AUTH_NONE;
        event.action = AC_ACTION_NOT_HANDLED;
        return false;
    }
    ZTRACE("Handling event of type: %d", event.eventType);
    switch (event.eventType) {
        case AC_TYPE_PROCESS_START:
            return HandleProcessStartEvent(event);
        case AC_TYPE_DRIFT:
            return HandleFileSystemMonitorEvent(event);
        case AC_TYPE_DELETE:
            return HandleDeleteEvent(event);
        case AC_TYPE_SCRIPT_START:
            return HandleScriptStartEvent(event);
        case AC_TYPE_MMAP:
            return HandleMmapStartEvent(event);
        default:
            ZWARNING("Unknown event type %d", event.eventType);
            event.action = AC_ACTION_ERROR;
            return false;
    }
}

void ZELKEngine::ConvertEvent(const ac_wrapper_event_s* in, ac_event& out) {
    ZTRACE("Start ConvertEvent");
    out.pid = in->pid;
    out.passThrough1 = in->passThrough1;
    out.flags = in->flags;
    out.result = in->result;
    out.passThrough2 = in->passThrough2;
    out.size = in->size;
    out.mode = in->mode;
    out.passThrough3 = in->passThrough3;
    out.dirty = in->dirty;
    out.isexec = in->isexec;
    out.passThroughFlag = in->passThroughFlag;
    out.isSymlink = in->isSymlink;
    out.eventType = in->eventType;
    out.abstractEventType = in->eventType;

    if (CopyText(in->processName, out.processName)) {
        ZTRACE("processName from plugin:'%s'", in->processName);
    }
    if (CopyText(in->user, out.user)) {
        ZTRACE("user from plugin:'%s'", in->user);
    }
    if (CopyText(in->group, out.group)) {
        ZTRACE("group from plugin:'%s'", in->group);
    }
    if (CopyText(in->name, out.name)) {
        ZTRACE("name from plugin:'%s'", in->name);
    }
    if (CopyText(in->oldName, out.oldName)) {
        ZTRACE("oldName from plugin:'%s'", in->oldName);
    }
    if (CopyText(in->cmdLine, out.cmdLine)) {
        ZTRACE("cmdLine from plugin:'%s'", in->cmdLine);
    }
    if (CopyText(in->processSignerName, out.processSignerName)) {
        ZTRACE("processSignerName from plugin:'%s'", in->processSignerName);
    }
    for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
        if (in->processIssuer[i] != nullptr) {
            ZTRACE("process%s from plugin:'%s'", IssuerMetaArrayUtil::kCapital[i],
                   in->processIssuer[i]);
            out.processIssuer[i].assign(in->processIssuer[i]);
        }
    }
    if (CopyText(in->processCompanyName, out.processCompanyName)) {
        TrimTrailingSpaces(out.processCompanyName);
        ZTRACE("processCompanyName from plugin:'%s'", in->processCompanyName);
    }
    if (CopyText(in->processProductName, out.processProductName)) {
        TrimTrailingSpaces(out.processProductName);
        ZTRACE("processProductName from plugin:'%s'", in->processProductName);
    }
    if (in->processSha256 != nullptr) {
        out.processSha256.SetHash(reinterpret_cast<const char*>(in->processSha256));
        ZTRACE("processSha256 from plugin: %s", out.processSha256.Text().c_str());
    }
    if (CopyText(in->fileSignerName, out.fileSignerName)) {
        ZTRACE("fileSignerName from plugin:'%s'", in->fileSignerName);
    }
    for (int i = 0; i < IssuerMetaArrayUtil::kCount; ++i) {
        if (in->fileIssuer[i] != nullptr) {
            ZTRACE("file%s from plugin:'%s'", IssuerMetaArrayUtil::kCapital[i], in->fileIssuer[i]);
            out.fileIssuer[i].assign(in->fileIssuer[i]);
        }
    }
    if (CopyText(in->fileCompanyName, out.fileCompanyName)) {
        TrimTrailingSpaces(out.fileCompanyName);
        ZTRACE("fileCompanyName from plugin:'%s'", in->fileCompanyName);
    }
    if (CopyText(in->fileProductName, out.fileProductName)) {
        TrimTrailingSpaces(out.fileProductName);
        ZTRACE("fileProductName from plugin:'%s'", in->fileProductName);
    }
    if (in->fileSha256 != nullptr) {
        out.fileSha256.SetHash(reinterpret_cast<const char*>(in->fileSha256));
        ZTRACE("fileSha256 from plugin: %s", out.fileSha256.Text().c_str());
    }
    if (in->fileSha1 != nullptr) {
        out.fileSha1 = SHA1Hash(reinterpret_cast<const char*>(in->fileSha1));
    }
    if (in->fileMd5 != nullptr) {
        out.fileMd5 = MD5Hash(reinterpret_cast<const char*>(in->fileMd5));
    }
}

void ZELKEngine::UpdateResponse(const ac_event& event, ac_wrapper_response_s* out) {
    if (out == nullptr) {
        return;
    }
    memset(out, 0, sizeof(*out));
    out->action = event.action;
    out->itemType = event.itemType;
    out->source = event.source;
    out->authorizedState = event.authorizedState;
    out->eventType = event.eventType;
    out->extra = event.responseExtra;
    out->isAuthorized = event.isAuthorized;
    out->ctimeNs = static_cast<uint64_t>(event.targetStat.st_ctim.tv_sec) * 1000000000ULL +
                   static_cast<uint64_t>(event.targetStat.st_ctim.tv_nsec);
    if (!event.ruleset.empty()) {
        // strncpy semantics: at most 80 bytes, no terminator when that long.
        memcpy(out->ruleset, event.ruleset.c_str(),
               strnlen(event.ruleset.c_str(), sizeof(out->ruleset)));
    }
}

void ZELKEngine::RememberAllowed(ac_event& event) {
    if (event.policyGeneration == 0) {
        // Decided outside ProcessEvent (a direct handler call): no window to
        // guard against.
        GetAllowCache().AddCacheNode(event.user, event.processName, event.name);
    } else {
        GetAllowCache().AddCacheNode(event.user, event.processName, event.name,
                                     event.policyGeneration);
    }
}

void ZELKEngine::AddMetrics(cJSON* metrics) {
    GetAllowCache().GetMetrics(metrics);
}
