// ZELKEngine: turns each host event into at most one decision.  One instance
// lives behind the exported `engine` pointer between engine_start and
// engine_stop.  The engine holds no engine-wide lock: every event is decided
// on the caller's stack, and each shared piece it touches (caches, store,
// statistics, logger) protects itself.
#ifndef ZELK_ZELKEVENTABSTRACTION_H_
#define ZELK_ZELKEVENTABSTRACTION_H_

#include <cjson/cJSON.h>

#include <cstdint>

#include "ZELKEvent.h"
#include "ZELKQuery.h"
#include "zelk.h"

class ZELKEngine {
  public:
    ZELKEngine();
    ~ZELKEngine();
    ZELKEngine(const ZELKEngine&) = delete;
    ZELKEngine& operator=(const ZELKEngine&) = delete;

    // The running engine, or null.
    static ZELKEngine* GetEngine();

    // Converts the host record, decides, and writes the response (when
    // `response` is not null) whatever the decision returned.  Returns the
    // decision's result.  Never keeps a pointer of the host record.
    uint32_t ProcessEvent(ac_wrapper_event_s* in, ac_wrapper_response_s* response);
    // Decides an owned event in place.  True when a handler made a decision.
    bool ProcessEvent(ac_event& event);

    // Copies the host record into `out` (texts, trimmed company and product
    // names, digests with their hex text).  Null texts stay empty.
    static void ConvertEvent(const ac_wrapper_event_s* in, ac_event& out);
    // Clears the response and fills it from the event; null `out` is a no-op.
    static void UpdateResponse(const ac_event& event, ac_wrapper_response_s* out);

    // Adds the engine's sections ("AllowCache") to the metrics object.
    void AddMetrics(cJSON* metrics);

    // The classifier, and through it the two caches; they live as long as
    // the engine.
    ZELKQuery& GetQuery() { return m_Query; }
    ZELKAllowCache& GetAllowCache() { return m_Query.GetAllowCache(); }
    ZELKProcessCache& GetProcessCache() { return m_Query.GetProcessCache(); }

  private:
    // Built first, destroyed last; immutable apart from its caches, which
    // lock themselves.
    ZELKQuery m_Query;
};

#endif  // ZELK_ZELKEVENTABSTRACTION_H_
