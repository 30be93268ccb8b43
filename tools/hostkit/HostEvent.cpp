#include "HostEvent.h"

#include <cstring>

namespace hostkit {
namespace {

struct EventName {
    const char* name;
    uint32_t code;
};

// First entry of a code is its canonical name.
const EventName kEventNames[] = {
    {"exec", ZELK_EVENT_EXEC_PRE},
    {"mmap", ZELK_EVENT_MMAP_PRE},
    {"create", ZELK_EVENT_CREATE_PRE},
    {"create", ZELK_EVENT_CREATE_PRE_ALT},
    {"create-post", ZELK_EVENT_CREATE_POST},
    {"close", ZELK_EVENT_CLOSE_POST},
    {"rename", ZELK_EVENT_RENAME_POST},
    {"delete", ZELK_EVENT_DELETE_POST},
    {"delete", ZELK_EVENT_DELETE_POST_ALT},
    {"chmod", ZELK_EVENT_CHMOD_POST},
    {"chmod", ZELK_EVENT_CHMOD_POST_ALT},
    {"chown", ZELK_EVENT_CHOWN_POST},
    {"chown", 44},
    {"chown", 46},
    {"chown", 48},
    {"cleanup", ZELK_EVENT_CLEANUP_PRE},
    {"open", ZELK_EVENT_OPEN_POST},
    {"cached", ZELK_EVENT_CACHED},
};

const char* const kIssuerLabels[kIssuerCount] = {"CN", "C", "S", "L", "O", "OU"};

const char* Ptr(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}

}  // namespace

bool EventCodeForName(const std::string& name, uint32_t& code) {
    for (const EventName& e : kEventNames) {
        if (name == e.name) {
            code = e.code;
            return true;
        }
    }
    return false;
}

std::string NameForEvent(uint32_t code) {
    for (const EventName& e : kEventNames) {
        if (code == e.code) {
            return e.name;
        }
    }
    return "code " + std::to_string(code);
}

const char* EventNames() {
    return "exec, mmap, create, create-post, close, rename, delete, chmod, chown, cleanup, open, "
           "cached";
}

const char* IssuerLabel(int index) {
    return index >= 0 && index < kIssuerCount ? kIssuerLabels[index] : "";
}

ac_wrapper_event_s HostEvent::Raw() const {
    ac_wrapper_event_s raw;
    memset(&raw, 0, sizeof(raw));
    raw.pid = pid;
    raw.flags = flags;
    raw.result = result;
    raw.size = size;
    raw.mode = mode;
    raw.dirty = dirty ? 1 : 0;
    raw.isexec = isexec ? 1 : 0;
    raw.isSymlink = isSymlink ? 1 : 0;
    raw.eventType = eventType;
    raw.processName = Ptr(processName);
    raw.name = Ptr(name);
    raw.cmdLine = Ptr(cmdLine);
    raw.processSignerName = Ptr(processSignerName);
    raw.processCompanyName = Ptr(processCompanyName);
    raw.processProductName = Ptr(processProductName);
    raw.fileSignerName = Ptr(fileSignerName);
    raw.fileCompanyName = Ptr(fileCompanyName);
    raw.fileProductName = Ptr(fileProductName);
    for (int i = 0; i < kIssuerCount; ++i) {
        raw.processIssuer[i] = Ptr(processIssuer[i]);
        raw.fileIssuer[i] = Ptr(fileIssuer[i]);
    }
    raw.fileSha256 = fileSha256 ? fileSha256->data() : nullptr;
    raw.fileSha1 = fileSha1 ? fileSha1->data() : nullptr;
    raw.fileMd5 = fileMd5 ? fileMd5->data() : nullptr;
    raw.processSha256 = processSha256 ? processSha256->data() : nullptr;
    raw.user = Ptr(user);
    raw.group = Ptr(group);
    raw.oldName = Ptr(oldName);
    return raw;
}

}  // namespace hostkit
