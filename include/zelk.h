/*
 * zelk.h - host-facing interface of the zelk application-control engine.
 *
 * A host agent loads zelk.so, starts the engine with engine_start(), hands it
 * every monitored operation through app_ctl() and obeys the verdict.  Every
 * function returns a 32-bit status code (ZELK_STATUS_*).  No function keeps a
 * pointer it was given beyond the call, and none allocates memory that the host
 * must free.
 *
 * The records below are fixed little-endian layouts for a 64-bit host; every
 * offset is pinned by a static assertion at the end of this file.
 *
 * Threads: app_ctl() and the other calls may run on several host threads at
 * once; engine_start() and engine_stop() must not overlap any other call.
 */
#ifndef ZELK_H_
#define ZELK_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <cstdbool>
extern "C" {
#else
#include <stdbool.h>
#endif

#if defined(__GNUC__)
#define ZELK_EXPORT __attribute__((visibility("default")))
#else
#define ZELK_EXPORT
#endif

/* ---- status codes ------------------------------------------------------ */
#define ZELK_STATUS_SUCCESS 0x00000000u
#define ZELK_STATUS_BLOCKED 0x00000001u        /* app_ctl: deny the operation */
#define ZELK_STATUS_FAILURE 0xC0000000u        /* failed, or verdict "error" */
#define ZELK_STATUS_NO_SIZE 0xC0000001u        /* get_metrics_mem: size is null */
#define ZELK_STATUS_NOT_STARTED 0xC0000002u    /* engine not started */
#define ZELK_STATUS_BAD_PATH 0xC0000004u       /* path missing or refused */
#define ZELK_STATUS_DB_INIT_FAILED 0xC0000006u /* database not opened */
#define ZELK_STATUS_LOGGER_FAILED 0xC0000007u  /* logger not initialised */
#define ZELK_STATUS_NO_EVENT 0xC000000Bu       /* app_ctl: event is null */
#define ZELK_STATUS_BAD_ITEM 0xC000000Cu       /* store_item: field missing */
#define ZELK_STATUS_NO_BUFFER 0xC000000Du      /* set_ruleset_buffer: null */
#define ZELK_STATUS_NO_START 0xC000000Eu       /* engine_start: record null */
#define ZELK_STATUS_BUFFER_SMALL 0xC000000Fu   /* get_metrics_mem: retry */

/* ---- log levels (bits of the log mask) ---------------------------------- */
#define ZELK_LOG_INFO 1u
#define ZELK_LOG_WARNING 2u
#define ZELK_LOG_ERROR 4u
#define ZELK_LOG_TRACE 8u

/* ---- verdicts (ac_wrapper_response_s.action) ---------------------------- */
#define ZELK_ACTION_NOT_HANDLED 7u
#define ZELK_ACTION_ERROR 8u
#define ZELK_ACTION_ALLOW 9u
#define ZELK_ACTION_BLOCK 10u

/* ---- raw host event codes (ac_wrapper_event_s.eventType) ---------------- */
#define ZELK_EVENT_CACHED 0u /* answered from the allow cache when possible */
#define ZELK_EVENT_CREATE_PRE 15u
#define ZELK_EVENT_CREATE_POST 16u
#define ZELK_EVENT_CLEANUP_PRE 17u
#define ZELK_EVENT_EXEC_PRE 23u
#define ZELK_EVENT_CREATE_PRE_ALT 29u
#define ZELK_EVENT_OPEN_POST 30u
#define ZELK_EVENT_CHMOD_POST 32u
#define ZELK_EVENT_CHMOD_POST_ALT 34u
#define ZELK_EVENT_CLOSE_POST 36u
#define ZELK_EVENT_RENAME_POST 40u
#define ZELK_EVENT_CHOWN_POST 42u
#define ZELK_EVENT_DELETE_POST 50u
#define ZELK_EVENT_MMAP_PRE 53u
#define ZELK_EVENT_DELETE_POST_ALT 57u

/* ---- abstract event types (ac_wrapper_response_s.eventType) ------------- */
#define ZELK_ABSTRACT_NONE 0u
#define ZELK_ABSTRACT_PROCESS_START 1u
#define ZELK_ABSTRACT_DRIFT 4u
#define ZELK_ABSTRACT_DELETE 7u
#define ZELK_ABSTRACT_SCRIPT_START 8u
#define ZELK_ABSTRACT_MMAP 9u

/* ---- item sources (ac_wrapper_response_s.source, purge_db) -------------- */
#define ZELK_SOURCE_ALL 0u
#define ZELK_SOURCE_AGENT_RULES 1u
#define ZELK_SOURCE_EXECUTION_RULES 2u
#define ZELK_SOURCE_SCANNED 3u
#define ZELK_SOURCE_APPROVED_DRIFT 4u
#define ZELK_SOURCE_PRELINK 5u
#define ZELK_SOURCE_TRUST_RULES 6u

/* ---- set_config flags --------------------------------------------------- */
#define ZELK_CONFIG_LOCKDOWN 0x01u
#define ZELK_CONFIG_INVENTORY_EXISTS 0x02u
#define ZELK_CONFIG_RULESET_EXISTS 0x04u
#define ZELK_CONFIG_AUTO_AUTHORIZE 0x08u
#define ZELK_CONFIG_ALLOWLIST_INVENTORY 0x10u

/*
 * Log callback.  Called on the logging thread with no lock held, so it must be
 * thread-safe.  message is NUL-terminated and messageLength is its length;
 * file names the engine module ("ZELK/ZELK", "ZELK/ZELKQuery", ...).  The
 * return value is ignored.
 */
typedef int (*ac_log_callback_t)(unsigned level, unsigned line, const char* function,
                                 const char* file, const char* message, unsigned messageLength);

/* Start record for engine_start().  Only dbPath, logMask and logCallback are
 * read; the reserved fields belong to the host. */
typedef struct ac_engine_start_s {
    uint64_t reserved0;
    const char* dbPath; /* database file; null keeps the current path */
    uint32_t logMask;   /* ZELK_LOG_* bits; ignored without a callback */
    uint32_t reserved1;
    uint64_t reserved2;
    uint64_t reserved3;
    ac_log_callback_t logCallback; /* null: log to "LogFile.log" */
} ac_engine_start_s;

/* One monitored operation, as the host describes it.  Every pointer may be
 * null (value not supplied); texts are NUL-terminated; digests point to raw
 * bytes (32 for SHA-256, 20 for SHA-1, 16 for MD5).  Issuer arrays hold the
 * certificate issuer attributes in the order CN, C, S, L, O, OU. */
typedef struct ac_wrapper_event_s {
    uint64_t reserved0;
    uint64_t pid;
    uint64_t passThrough1;
    uint64_t flags;  /* open flags; O_CREAT|O_TRUNC are tested */
    uint64_t result; /* 0: the operation succeeded (post events) */
    uint64_t passThrough2;
    uint64_t size;
    uint64_t mode;
    uint64_t passThrough3;
    uint8_t dirty;
    uint8_t isexec;
    uint8_t passThroughFlag;
    uint8_t isSymlink;
    uint32_t eventType; /* ZELK_EVENT_* */
    const char* processName;
    const char* name;
    const char* cmdLine;
    const char* processSignerName;
    const char* processIssuer[6];
    const char* processCompanyName;
    const char* processProductName;
    const char* fileSignerName;
    const char* fileIssuer[6];
    const char* fileCompanyName;
    const char* fileProductName;
    const uint8_t* fileSha256;
    const uint8_t* fileSha1;
    const uint8_t* fileMd5;
    const uint8_t* processSha256;
    const char* user;
    const char* group;
    const char* oldName;
} ac_wrapper_event_s;

/* The verdict, written by app_ctl() into host memory (cleared first). */
typedef struct ac_wrapper_response_s {
    uint32_t action; /* ZELK_ACTION_* */
    uint32_t itemType;
    uint32_t source;
    uint32_t authorizedState;
    uint32_t eventType; /* abstract type, ZELK_ABSTRACT_* */
    uint32_t extra;
    uint32_t isAuthorized;
    char ruleset[80]; /* not terminated when 80 bytes long */
    uint32_t padding;
    uint64_t ctimeNs; /* status-change time of the target, nanoseconds */
} ac_wrapper_response_s;

/* An inventory item for store_item().  fileName, path, nativePath and ruleset
 * are required. */
typedef struct ac_db_item_s {
    uint64_t reserved0;
    uint8_t md5[16];
    uint8_t sha1[20];
    uint8_t sha256[32];
    uint32_t source; /* ZELK_SOURCE_* */
    uint64_t reserved1;
    const char* fileName;
    const char* path;
    const char* nativePath;
    uint64_t size;
    uint64_t reserved2;
    uint8_t authorized; /* non-zero: allowed */
    uint8_t reserved3[7];
    const char* ruleset;
} ac_db_item_s;

/* Starts the engine: logger, database (created or upgraded), engine object.
 * A second call keeps the running engine. */
ZELK_EXPORT uint32_t engine_start(const ac_engine_start_s* start);
/* Stops the engine and closes the database after writing pending items. */
ZELK_EXPORT uint32_t engine_stop(void);
/* Decides one event.  response may be null.  Returns ZELK_STATUS_BLOCKED when
 * the host must deny the operation. */
ZELK_EXPORT uint32_t app_ctl(ac_wrapper_event_s* event, ac_wrapper_response_s* response);
/* Sets the modes (ZELK_CONFIG_* bits) and the maintenance window (ms). */
ZELK_EXPORT uint32_t set_config(unsigned flags, unsigned long autoAuthorizeStartTime,
                                unsigned long autoAuthorizeEndTime);
ZELK_EXPORT uint32_t set_loglevel(unsigned mask);
/* Metrics document as JSON.  *size is the buffer size on entry and the
 * length needed (terminating zero included) on return. */
ZELK_EXPORT uint32_t get_metrics_mem(char* buffer, unsigned* size);
ZELK_EXPORT uint32_t delete_db(void);
ZELK_EXPORT uint32_t purge_db(unsigned source);
ZELK_EXPORT uint32_t flush_db_buffer(void);
ZELK_EXPORT uint32_t store_item(ac_db_item_s* item, bool buffered);
ZELK_EXPORT uint32_t set_ruleset(bool flag, const char* path, const char* name);
ZELK_EXPORT uint32_t set_ruleset_buffer(bool flag, const char* buffer, const char* name);
ZELK_EXPORT uint32_t get_inventory(unsigned long fromItemId, unsigned long limit, unsigned source,
                                   const char* first, const char* second);

#ifdef __cplusplus
} /* extern "C" */
#define ZELK_STATIC_ASSERT static_assert
#else
#define ZELK_STATIC_ASSERT _Static_assert
#endif

/* Layout pins: a wrong field order or width fails the build. */
ZELK_STATIC_ASSERT(sizeof(void*) == 8, "zelk records assume a 64-bit host");
ZELK_STATIC_ASSERT(offsetof(ac_engine_start_s, dbPath) == 8, "dbPath");
ZELK_STATIC_ASSERT(offsetof(ac_engine_start_s, logMask) == 16, "logMask");
ZELK_STATIC_ASSERT(offsetof(ac_engine_start_s, logCallback) == 40, "logCallback");
ZELK_STATIC_ASSERT(sizeof(ac_engine_start_s) == 48, "ac_engine_start_s size");

ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, pid) == 8, "pid");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, passThrough1) == 16, "passThrough1");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, flags) == 24, "flags");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, result) == 32, "result");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, passThrough2) == 40, "passThrough2");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, size) == 48, "size");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, mode) == 56, "mode");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, passThrough3) == 64, "passThrough3");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, dirty) == 72, "dirty");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, isexec) == 73, "isexec");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, passThroughFlag) == 74, "passThroughFlag");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, isSymlink) == 75, "isSymlink");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, eventType) == 76, "eventType");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, processName) == 80, "processName");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, name) == 88, "name");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, cmdLine) == 96, "cmdLine");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, processSignerName) == 104, "processSigner");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, processIssuer) == 112, "processIssuer");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, processCompanyName) == 160, "processCompany");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, processProductName) == 168, "processProduct");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, fileSignerName) == 176, "fileSignerName");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, fileIssuer) == 184, "fileIssuer");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, fileCompanyName) == 232, "fileCompanyName");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, fileProductName) == 240, "fileProductName");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, fileSha256) == 248, "fileSha256");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, fileSha1) == 256, "fileSha1");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, fileMd5) == 264, "fileMd5");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, processSha256) == 272, "processSha256");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, user) == 280, "user");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, group) == 288, "group");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_event_s, oldName) == 296, "oldName");
ZELK_STATIC_ASSERT(sizeof(ac_wrapper_event_s) == 304, "ac_wrapper_event_s size");

ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, action) == 0, "action");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, itemType) == 4, "itemType");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, source) == 8, "source");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, authorizedState) == 12, "authorizedState");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, eventType) == 16, "eventType");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, extra) == 20, "extra");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, isAuthorized) == 24, "isAuthorized");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, ruleset) == 28, "ruleset");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, padding) == 108, "padding");
ZELK_STATIC_ASSERT(offsetof(ac_wrapper_response_s, ctimeNs) == 112, "ctimeNs");
ZELK_STATIC_ASSERT(sizeof(ac_wrapper_response_s) == 120, "ac_wrapper_response_s size");

ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, md5) == 8, "md5");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, sha1) == 24, "sha1");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, sha256) == 44, "sha256");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, source) == 76, "source");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, fileName) == 88, "item fileName");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, path) == 96, "item path");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, nativePath) == 104, "item nativePath");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, size) == 112, "item size");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, authorized) == 128, "item authorized");
ZELK_STATIC_ASSERT(offsetof(ac_db_item_s, ruleset) == 136, "item ruleset");
ZELK_STATIC_ASSERT(sizeof(ac_db_item_s) == 144, "ac_db_item_s size");

#endif /* ZELK_H_ */
