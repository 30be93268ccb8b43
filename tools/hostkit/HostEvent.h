// A host event with owned storage.  ac_wrapper_event_s only borrows its texts
// and digests; HostEvent keeps them so a host can fill an event from any
// source (a trace line, a fanotify record) and hand out the raw record for one
// app_ctl call.  Not thread-safe; one HostEvent per call in flight.
#ifndef ZELK_TOOLS_HOSTKIT_HOSTEVENT_H_
#define ZELK_TOOLS_HOSTKIT_HOSTEVENT_H_

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "zelk.h"

namespace hostkit {

// Names of the raw host event codes ("exec", "mmap", "create", ...).  Returns
// false for an unknown name.  Several codes share an operation; NameForEvent
// gives the name of each code and "code N" for codes without a name.
bool EventCodeForName(const std::string& name, uint32_t& code);
std::string NameForEvent(uint32_t code);
// Every name EventCodeForName accepts, comma separated, for help texts.
const char* EventNames();

// Order of the issuer attributes in the host record.
enum IssuerIndex { kIssuerCN, kIssuerC, kIssuerS, kIssuerL, kIssuerO, kIssuerOU, kIssuerCount };
// Short labels "CN", "C", "S", "L", "O", "OU" in that order.
const char* IssuerLabel(int index);

class HostEvent {
  public:
    uint32_t eventType = ZELK_EVENT_EXEC_PRE;
    uint64_t pid = 0;
    uint64_t flags = 0;
    uint64_t result = 0;
    uint64_t size = 0;
    uint64_t mode = 0;
    bool dirty = false;
    bool isexec = false;
    bool isSymlink = false;

    // Unset texts are passed as null pointers, as a host that does not know
    // the value would.
    std::optional<std::string> processName, name, oldName, cmdLine, user, group;
    std::optional<std::string> processSignerName, processCompanyName, processProductName;
    std::optional<std::string> fileSignerName, fileCompanyName, fileProductName;
    std::array<std::optional<std::string>, kIssuerCount> processIssuer, fileIssuer;

    std::optional<std::array<uint8_t, 32>> fileSha256, processSha256;
    std::optional<std::array<uint8_t, 20>> fileSha1;
    std::optional<std::array<uint8_t, 16>> fileMd5;

    // The raw record pointing into this object; valid until this object is
    // changed or destroyed.
    ac_wrapper_event_s Raw() const;
};

}  // namespace hostkit

#endif  // ZELK_TOOLS_HOSTKIT_HOSTEVENT_H_
