#define ZELK_LOG_FILE "ZELK/ZELKEventAbstraction"
#include "ZELKEventAbstraction.h"

#include <cstring>

#include "ZELK.h"
#include "ZELKLogger.h"

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

uint32_t ZELKEngine::ProcessEvent(ac_wrapper_event_s* in, ac_wrapper_response_s* response) {
    ac_event event;
    ConvertEvent(in, event);
    const bool decided = ProcessEvent(event);
    UpdateResponse(event, response);
    return decided ? 1 : 0;
}

bool ZELKEngine::ProcessEvent(ac_event& event) {
    // No decision logic yet: every event is reported as not handled.
    event.action = AC_ACTION_NOT_HANDLED;
    return false;
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

void ZELKEngine::AddMetrics(cJSON* metrics) { GetAllowCache().GetMetrics(metrics); }
