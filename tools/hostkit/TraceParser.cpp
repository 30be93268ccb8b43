#include "TraceParser.h"

#include <cjson/cJSON.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include "HostDigest.h"

namespace hostkit {
namespace {

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

bool ReadUnsigned(const cJSON* item, const char* key, uint64_t& out, std::string& error) {
    if (cJSON_IsNumber(item)) {
        if (item->valuedouble < 0 || std::isnan(item->valuedouble)) {
            error = std::string("\"") + key + "\" must not be negative";
            return false;
        }
        // Converting a double of 2^64 or more to an integer is undefined.
        if (item->valuedouble >= 18446744073709551616.0) {
            error = std::string("\"") + key + "\" is too large";
            return false;
        }
        out = static_cast<uint64_t>(item->valuedouble);
        return true;
    }
    if (cJSON_IsString(item) && item->valuestring[0] != '\0' && item->valuestring[0] != '-') {
        char* end = nullptr;
        errno = 0;
        unsigned long long v = strtoull(item->valuestring, &end, 0);
        if (errno == 0 && end != nullptr && *end == '\0') {
            out = v;
            return true;
        }
    }
    error = std::string("\"") + key + "\" is not a number";
    return false;
}

bool ReadFlag(const cJSON* item, const char* key, bool& out, std::string& error) {
    if (cJSON_IsBool(item)) {
        out = cJSON_IsTrue(item);
        return true;
    }
    if (cJSON_IsNumber(item) && (item->valuedouble == 0 || item->valuedouble == 1)) {
        out = item->valuedouble != 0;
        return true;
    }
    error = std::string("\"") + key + "\" must be true, false, 0 or 1";
    return false;
}

template <size_t N>
bool ReadDigest(const cJSON* item, const char* key, std::optional<std::array<uint8_t, N>>& out,
                std::string& error) {
    std::array<uint8_t, N> bytes;
    if (!cJSON_IsString(item) || !FromHex(item->valuestring, bytes.data(), N)) {
        error = std::string("\"") + key + "\" must be " + std::to_string(N * 2) +
                " hexadecimal characters";
        return false;
    }
    out = bytes;
    return true;
}

}  // namespace

bool ExpandVariables(const std::string& text, const TraceVariables& vars, std::string& out,
                     std::string& error) {
    out.clear();
    size_t pos = 0;
    while (pos < text.size()) {
        size_t start = text.find("${", pos);
        if (start == std::string::npos) {
            out.append(text, pos, std::string::npos);
            break;
        }
        out.append(text, pos, start - pos);
        size_t end = text.find('}', start + 2);
        if (end == std::string::npos) {
            error = "unclosed ${ in \"" + text + "\"";
            return false;
        }
        std::string name = text.substr(start + 2, end - start - 2);
        auto it = vars.find(name);
        if (it != vars.end()) {
            out += it->second;
        } else if (const char* env = getenv(name.c_str())) {
            out += env;
        } else {
            error = "unknown variable ${" + name + "}";
            return false;
        }
        pos = end + 1;
    }
    return true;
}

bool IsTraceFiller(const std::string& line) {
    size_t first = line.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return true;
    }
    return line[first] == '#' || line.compare(first, 2, "//") == 0;
}

bool ParseTraceLine(const std::string& line, const TraceVariables& vars, TraceLine& out,
                    std::string& error) {
    out = TraceLine();
    Json root(cJSON_ParseWithLength(line.data(), line.size()));
    if (!root) {
        const char* where = cJSON_GetErrorPtr();
        error = "not valid JSON";
        if (where != nullptr && where >= line.data() && where <= line.data() + line.size()) {
            error += " (column " + std::to_string(where - line.data() + 1) + ")";
        }
        return false;
    }
    if (!cJSON_IsObject(root.get())) {
        error = "not a JSON object";
        return false;
    }
    HostEvent& ev = out.event;
    bool haveType = false;

    auto text = [&](const cJSON* item, const char* key, std::optional<std::string>& field) {
        if (cJSON_IsNull(item)) {
            return true;
        }
        if (!cJSON_IsString(item)) {
            error = std::string("\"") + key + "\" must be a text";
            return false;
        }
        std::string value;
        if (!ExpandVariables(item->valuestring, vars, value, error)) {
            return false;
        }
        field = value;
        return true;
    };
    auto issuer = [&](const cJSON* item, const char* key,
                      std::array<std::optional<std::string>, kIssuerCount>& field) {
        if (!cJSON_IsObject(item)) {
            error = std::string("\"") + key + "\" must be an object of CN, C, S, L, O, OU";
            return false;
        }
        for (const cJSON* part = item->child; part != nullptr; part = part->next) {
            int index = -1;
            for (int i = 0; i < kIssuerCount; ++i) {
                if (strcmp(part->string, IssuerLabel(i)) == 0) {
                    index = i;
                }
            }
            if (index < 0) {
                error =
                    std::string("\"") + key + "\" has unknown attribute \"" + part->string + "\"";
                return false;
            }
            if (!text(part, part->string, field[index])) {
                return false;
            }
        }
        return true;
    };

    using Handler = std::function<bool(const cJSON*, const char*)>;
    const std::pair<const char*, Handler> handlers[] = {
        {"type",
         [&](const cJSON* v, const char* k) {
             if (cJSON_IsString(v)) {
                 if (!EventCodeForName(v->valuestring, ev.eventType)) {
                     error = std::string("unknown event type \"") + v->valuestring + "\"";
                     return false;
                 }
             } else {
                 uint64_t code = 0;
                 if (!ReadUnsigned(v, k, code, error) || code > UINT32_MAX) {
                     error = "\"type\" must be an event name or a raw code";
                     return false;
                 }
                 ev.eventType = static_cast<uint32_t>(code);
             }
             haveType = true;
             return true;
         }},
        {"pid", [&](const cJSON* v, const char* k) { return ReadUnsigned(v, k, ev.pid, error); }},
        {"size", [&](const cJSON* v, const char* k) { return ReadUnsigned(v, k, ev.size, error); }},
        {"result",
         [&](const cJSON* v, const char* k) { return ReadUnsigned(v, k, ev.result, error); }},
        {"mode", [&](const cJSON* v, const char* k) { return ReadUnsigned(v, k, ev.mode, error); }},
        {"flags",
         [&](const cJSON* v, const char* k) { return ReadUnsigned(v, k, ev.flags, error); }},
        {"isexec", [&](const cJSON* v, const char* k) { return ReadFlag(v, k, ev.isexec, error); }},
        {"dirty", [&](const cJSON* v, const char* k) { return ReadFlag(v, k, ev.dirty, error); }},
        {"symlink",
         [&](const cJSON* v, const char* k) { return ReadFlag(v, k, ev.isSymlink, error); }},
        {"hash",
         [&](const cJSON* v, const char* k) { return ReadFlag(v, k, out.hashTarget, error); }},
        {"process", [&](const cJSON* v, const char* k) { return text(v, k, ev.processName); }},
        {"target", [&](const cJSON* v, const char* k) { return text(v, k, ev.name); }},
        {"oldName", [&](const cJSON* v, const char* k) { return text(v, k, ev.oldName); }},
        {"user", [&](const cJSON* v, const char* k) { return text(v, k, ev.user); }},
        {"group", [&](const cJSON* v, const char* k) { return text(v, k, ev.group); }},
        {"cmdline", [&](const cJSON* v, const char* k) { return text(v, k, ev.cmdLine); }},
        {"processSigner",
         [&](const cJSON* v, const char* k) { return text(v, k, ev.processSignerName); }},
        {"processCompany",
         [&](const cJSON* v, const char* k) { return text(v, k, ev.processCompanyName); }},
        {"processProduct",
         [&](const cJSON* v, const char* k) { return text(v, k, ev.processProductName); }},
        {"fileSigner",
         [&](const cJSON* v, const char* k) { return text(v, k, ev.fileSignerName); }},
        {"fileCompany",
         [&](const cJSON* v, const char* k) { return text(v, k, ev.fileCompanyName); }},
        {"fileProduct",
         [&](const cJSON* v, const char* k) { return text(v, k, ev.fileProductName); }},
        {"processIssuer",
         [&](const cJSON* v, const char* k) { return issuer(v, k, ev.processIssuer); }},
        {"fileIssuer", [&](const cJSON* v, const char* k) { return issuer(v, k, ev.fileIssuer); }},
        {"sha256", [&](const cJSON* v, const char* k) { return ReadDigest(v, k, ev.fileSha256, error); }},
        {"sha1", [&](const cJSON* v, const char* k) { return ReadDigest(v, k, ev.fileSha1, error); }},
        {"md5", [&](const cJSON* v, const char* k) { return ReadDigest(v, k, ev.fileMd5, error); }},
        {"processSha256",
         [&](const cJSON* v, const char* k) { return ReadDigest(v, k, ev.processSha256, error); }},
        {"label",
         [&](const cJSON* v, const char* k) {
             std::optional<std::string> label;
             if (!text(v, k, label)) {
                 return false;
             }
             out.label = label.value_or("");
             return true;
         }},
    };

    for (const cJSON* item = root->child; item != nullptr; item = item->next) {
        bool known = false;
        for (const auto& h : handlers) {
            if (strcmp(item->string, h.first) == 0) {
                known = true;
                if (!h.second(item, h.first)) {
                    return false;
                }
                break;
            }
        }
        if (!known) {
            out.warnings.push_back(std::string("unknown key \"") + item->string + "\" ignored");
        }
    }
    if (!haveType) {
        error = "no \"type\"";
        return false;
    }
    return true;
}

bool HashTraceTarget(TraceLine& line, std::string& error) {
    if (!line.hashTarget) {
        return true;
    }
    if (!line.event.name || line.event.name->empty()) {
        error = "\"hash\" needs a \"target\"";
        return false;
    }
    FileDigests digests;
    int err = 0;
    if (!DigestFile(*line.event.name, digests, err)) {
        error = "cannot hash " + *line.event.name + ": " + strerror(err);
        return false;
    }
    std::array<uint8_t, 32> sha256;
    std::array<uint8_t, 20> sha1;
    std::array<uint8_t, 16> md5;
    memcpy(sha256.data(), digests.sha256, sha256.size());
    memcpy(sha1.data(), digests.sha1, sha1.size());
    memcpy(md5.data(), digests.md5, md5.size());
    line.event.fileSha256 = sha256;
    line.event.fileSha1 = sha1;
    line.event.fileMd5 = md5;
    if (line.event.size == 0) {
        line.event.size = digests.size;
    }
    return true;
}

}  // namespace hostkit
