#include "PolicyFetch.h"

#include <curl/curl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace zelkagent {

namespace {

void GlobalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Sink {
    FILE* file = nullptr;
    uint64_t bytes = 0;
    uint64_t limit = 0;
    bool tooLarge = false;
};

size_t OnBody(char* data, size_t size, size_t count, void* user) {
    Sink& sink = *static_cast<Sink*>(user);
    const size_t n = size * count;
    if (sink.bytes + n > sink.limit) {
        sink.tooLarge = true;
        return 0;  // ends the transfer
    }
    if (fwrite(data, 1, n, sink.file) != n) {
        return 0;
    }
    sink.bytes += n;
    return n;
}

size_t OnHeader(char* data, size_t size, size_t count, void* user) {
    std::string& etag = *static_cast<std::string*>(user);
    const size_t n = size * count;
    const std::string line(data, n);
    if (line.size() > 5 && strncasecmp(line.c_str(), "etag:", 5) == 0) {
        size_t start = line.find_first_not_of(" \t", 5);
        size_t end = line.find_last_not_of(" \t\r\n");
        etag = start == std::string::npos ? "" : line.substr(start, end - start + 1);
    }
    return n;
}

}  // namespace

FetchResult FetchBundle(const FetchRequest& request) {
    FetchResult result;
    GlobalInit();
    if (request.url.compare(0, 8, "https://") != 0) {
        result.error = "policy_url must be an https:// address: " + request.url;
        return result;
    }
    const std::string partial = request.destination + ".part";
    Sink sink;
    sink.limit = request.maxBytes;
    sink.file = fopen(partial.c_str(), "we");
    if (sink.file == nullptr) {
        result.error = "cannot write " + partial + ": " + strerror(errno);
        return result;
    }
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        fclose(sink.file);
        unlink(partial.c_str());
        result.error = "curl_easy_init failed";
        return result;
    }
    char curlError[CURL_ERROR_SIZE] = "";
    curl_slist* headers = nullptr;
    if (!request.etag.empty()) {
        headers = curl_slist_append(headers, ("If-None-Match: " + request.etag).c_str());
    }
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!request.caFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, request.caFile.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");  // whatever curl can decode
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &OnBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &OnHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result.etag);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, curlError);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 15L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, request.timeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "zelk-agent");

    const CURLcode rc = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.httpStatus);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    const bool written = fflush(sink.file) == 0 && fsync(fileno(sink.file)) == 0;
    fclose(sink.file);

    if (rc != CURLE_OK) {
        result.error = sink.tooLarge
                           ? "bundle larger than " + std::to_string(request.maxBytes) + " bytes"
                           : std::string(curlError[0] ? curlError : curl_easy_strerror(rc));
    } else if (result.httpStatus == 304) {
        result.outcome = FetchResult::kUnchanged;
        result.etag = request.etag;
    } else if (result.httpStatus != 200) {
        result.error = "server answered HTTP " + std::to_string(result.httpStatus);
    } else if (!written) {
        result.error = "cannot write " + partial + ": " + strerror(errno);
    } else if (rename(partial.c_str(), request.destination.c_str()) != 0) {
        result.error = "cannot replace " + request.destination + ": " + strerror(errno);
    } else {
        result.outcome = FetchResult::kNew;
        result.bytes = sink.bytes;
        return result;
    }
    unlink(partial.c_str());
    return result;
}

}  // namespace zelkagent
