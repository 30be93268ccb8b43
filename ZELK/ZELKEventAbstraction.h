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

    // ---- Dispatch and abstraction (ZELKEventAbstraction.cpp) -------------

    // Splits paths, maps the raw operation to a decision kind and filters
    // events that need no decision.  True when the event must be decided.
    bool AbstractEvent(ac_event& event);
    // Calls the handler of the abstract type.  Unknown types get action 8.
    bool HandleEvent(ac_event& event);
    // False when a drift event lies in a folder that is never scanned (and
    // maintenance is off); the event is then excluded.
    bool DirectoryExclude(ac_event& event);
    // True when the target's file name occurs in the process command line.
    bool IsOnCommandLine(ac_event& event);
    unsigned GetCurrentModeBits() const { return 1; }

    // Per-operation steps of AbstractEvent; each returns whether the event
    // still needs a decision.
    bool EventCreatePre(ac_event& event, ac_process_info& process);
    bool EventCreatePost(ac_event& event);
    bool EventCleanupPre(ac_event& event);
    bool EventExecPre(ac_event& event);
    bool EventOpenPost(ac_event& event);
    bool EventChmodPost(ac_event& event);
    bool EventClosePost(ac_event& event);
    bool EventRenamePost(ac_event& event);
    bool EventChownPost(ac_event& event);
    bool EventDeletePost(ac_event& event);
    bool EventMmapPre(ac_event& event);

    // ---- Execution decisions (ZELKExecution.cpp) --------------------------

    // The shared verdict routine of program starts, mappings and scripts.
    // True when a verdict is in the event; false when none could be reached
    // (empty target, not executable, store failure).
    bool IsAllowedToRun(ac_event& event, bool checkExecutable);
    // True when the target's create or modify time falls in the window.
    bool AutoAuthorizeByFileTime(ac_event& event, unsigned long long startMillis,
                                 unsigned long long endMillis);
    // Always false; the verdict is in event.action.
    bool HandleProcessStartEvent(ac_event& event);
    // True when the mapping is allowed (authorized or log-only).
    bool HandleMmapStartEvent(ac_event& event);
    // True only when allowed because of log-only mode.
    bool HandleScriptStartEvent(ac_event& event);

    // Adds (user, process, target) to the allow cache, unless the policy
    // changed since the event's decision began.
    void RememberAllowed(ac_event& event);

    // ---- Drift (ZELKDriftHandling.cpp) ------------------------------------

    // True when the changed file was examined, whatever the verdict.
    bool HandleFileSystemMonitorEvent(ac_event& event);
    // False only when removing the file's inventory rows failed.
    bool HandleDeleteEvent(ac_event& event);
    // False when an exclude trust rule ends the event's handling.
    bool CheckExcludeTrustRules(ac_event& event);

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
