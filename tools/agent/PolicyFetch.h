// Fetching a policy bundle over HTTPS with libcurl.  Certificates are always
// verified (against the system's authorities, or the given CA file), and the
// ETag of the last good bundle is sent as If-None-Match so an unchanged bundle
// costs one small response.  The body goes to a temporary file beside the
// destination and replaces it only when complete.
#ifndef ZELK_AGENT_POLICYFETCH_H_
#define ZELK_AGENT_POLICYFETCH_H_

#include <cstdint>
#include <string>

namespace zelkagent {

struct FetchRequest {
    std::string url;
    std::string caFile;       // empty: the system's certificate store
    std::string etag;         // sent as If-None-Match when not empty
    std::string destination;  // where a new bundle is written
    uint64_t maxBytes = 256ull << 20;
    long timeoutSeconds = 60;
};

struct FetchResult {
    enum Outcome { kNew, kUnchanged, kFailed };
    Outcome outcome = kFailed;
    long httpStatus = 0;
    std::string etag;  // of the new bundle
    uint64_t bytes = 0;
    std::string error;  // kFailed: why
};

// One attempt; never throws.  Safe to call from any thread (curl is set up
// once per process, on first use).
FetchResult FetchBundle(const FetchRequest& request);

}  // namespace zelkagent

#endif  // ZELK_AGENT_POLICYFETCH_H_
