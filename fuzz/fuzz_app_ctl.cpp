// Whole host events through app_ctl.  Input, so that seeds can be real events:
//   byte 0      options: bit 7 calls set_config(bits 0-4, window always open)
//               first, bit 6 passes a null response
//   bytes 1-47  eventType (4), pid, flags, result, size, mode (8 each, little
//               endian), dirty, isexec, isSymlink (1 each)
//   then the texts and digests of the record in their order, each ended by a
//   zero byte: processName, name, cmdLine, processSignerName, 6 process
//   issuers, processCompanyName, processProductName, fileSignerName, 6 file
//   issuers, fileCompanyName, fileProductName, fileSha256, fileSha1, fileMd5,
//   processSha256, user, group, oldName.  A field of the single byte 0xff,
//   and every field after the end of the input, is a null pointer.  Digests
//   are hex text, decoded leniently into whole digests.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzEngine.h"

namespace {

constexpr size_t kHeader = 48;
constexpr size_t kFields = 30;

struct Fields {
    std::vector<std::string> texts;
    std::vector<bool> present;
    std::vector<std::vector<uint8_t>> digests;
    size_t next = 0;

    Fields(const uint8_t* data, size_t size) {
        size_t at = 0;
        while (at < size && texts.size() < kFields) {
            const uint8_t* end = static_cast<const uint8_t*>(memchr(data + at, 0, size - at));
            const size_t length = end ? static_cast<size_t>(end - (data + at)) : size - at;
            std::string text(reinterpret_cast<const char*>(data + at), length);
            present.push_back(text != "\xff");
            texts.push_back(std::move(text));
            at += length + 1;
        }
        texts.resize(kFields);
        present.resize(kFields, false);
        digests.reserve(4);
    }
    const char* Text() {
        const size_t i = next++;
        return present[i] ? texts[i].c_str() : nullptr;
    }
    const uint8_t* Digest(size_t length) {
        const size_t i = next++;
        if (!present[i]) {
            return nullptr;
        }
        std::vector<uint8_t> bytes(length, 0);
        for (size_t k = 0; k < length && 2 * k + 1 < texts[i].size(); ++k) {
            bytes[k] =
                static_cast<uint8_t>(strtoul(texts[i].substr(2 * k, 2).c_str(), nullptr, 16));
        }
        digests.push_back(std::move(bytes));
        return digests.back().data();
    }
};

uint64_t Read64(const uint8_t* p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return v;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zelkfuzz::StartEngine("app_ctl");
    // Policy for the seeds' files, so that inputs reach the rule and trust
    // decisions and not only "unknown file".
    set_ruleset_buffer(false,
                       R"({"rules": [
        {"sha256": "25d2c09673fb1fed6b81fa005949ae3400d35fe3e665bcf7c9086321f87e27cb",
         "md5": "61a20d6683e3ed37847fd9304925a098", "size": 24, "action": "allow"},
        {"sha256": "982d5afb957a06ebf88f7606c8401146664fa7df79cd68fd92c24c9848f464a3",
         "size": "22", "action": "block"}]})",
                       "Weekly");
    set_ruleset_buffer(false,
                       R"({"Trustrules": [
        {"trustType": 2, "paths": "**/vendor/*"},
        {"trustType": 4, "paths": "/opt/quarantine/;/srv/q?/*"},
        {"trustType": 1, "processName": "**/installer", "paths": "**/apps/*"},
        {"trustType": 3, "paths": "/var/cache/**"},
        {"trustType": 2, "signerName": "Example Corp", "issuerCN": "Example CA"},
        {"trustType": 2, "paths": "/opt/admin/*", "userList": "admins", "group": "wheel"}],
        "Userlists": [{"id": "admins", "users": ["root", "alice"]}]})",
                       "FuzzTrustRules");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kHeader) {
        return 0;
    }
    const uint8_t options = data[0];
    if (options & 0x80) {
        set_config(options & 0x1f, 0, ~0UL);
    }
    ac_wrapper_event_s e;
    memset(&e, 0, sizeof(e));
    memcpy(&e.eventType, data + 1, 4);
    e.pid = Read64(data + 5);
    e.flags = Read64(data + 13);
    e.result = Read64(data + 21);
    e.size = Read64(data + 29);
    e.mode = Read64(data + 37);
    e.dirty = data[45];
    e.isexec = data[46];
    e.isSymlink = data[47];

    Fields f(data + kHeader, size - kHeader);
    e.processName = f.Text();
    e.name = f.Text();
    e.cmdLine = f.Text();
    e.processSignerName = f.Text();
    for (const char*& issuer : e.processIssuer) {
        issuer = f.Text();
    }
    e.processCompanyName = f.Text();
    e.processProductName = f.Text();
    e.fileSignerName = f.Text();
    for (const char*& issuer : e.fileIssuer) {
        issuer = f.Text();
    }
    e.fileCompanyName = f.Text();
    e.fileProductName = f.Text();
    e.fileSha256 = f.Digest(32);
    e.fileSha1 = f.Digest(20);
    e.fileMd5 = f.Digest(16);
    e.processSha256 = f.Digest(32);
    e.user = f.Text();
    e.group = f.Text();
    e.oldName = f.Text();

    ac_wrapper_response_s response;
    memset(&response, 0xa5, sizeof(response));
    const bool withResponse = (options & 0x40) == 0;
    const uint32_t status = app_ctl(&e, withResponse ? &response : nullptr);
    if (!withResponse) {
        if (status != ZELK_STATUS_SUCCESS)
            abort();
        return 0;
    }
    // The status follows the verdict.  Action 0 is an event that some step
    // dropped before any verdict was written; the host treats it as allowed.
    switch (response.action) {
        case 0:
        case ZELK_ACTION_NOT_HANDLED:
        case ZELK_ACTION_ALLOW:
            if (status != ZELK_STATUS_SUCCESS)
                abort();
            break;
        case ZELK_ACTION_ERROR:
            if (status != ZELK_STATUS_FAILURE)
                abort();
            break;
        case ZELK_ACTION_BLOCK:
            if (status != ZELK_STATUS_BLOCKED && status != ZELK_STATUS_SUCCESS)
                abort();
            break;
        default:
            abort();
    }
    return 0;
}
