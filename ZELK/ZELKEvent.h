// The engine's own event record.  A host event is copied into an ac_event on
// the caller's stack; every decision, classification and store step works on
// it by reference.  It is an ordinary value: copies are deep (texts and
// digest buffers), so a queued copy never points into host memory.
#ifndef ZELK_ZELKEVENT_H_
#define ZELK_ZELKEVENT_H_

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "ZELKHash.h"

// The six certificate issuer attributes, always in this order.  Host records,
// events, JSON keys, columns and bind names all follow it.
struct IssuerMetaArrayUtil {
    static constexpr int kCount = 6;
    // "issuerCN" ... "issuerOU": JSON keys and database columns.
    static const char* const kLower[kCount];
    // "IssuerCN" ... "IssuerOU": used in log texts.
    static const char* const kCapital[kCount];
    // ":issuerCN" ... ":issuerOU": statement parameters.
    static const char* const kBind[kCount];
};

// Inventory item sources (InventoryItems.source); 0 and 6 only in purges.
enum DALSource : unsigned {
    DAL_SOURCE_ALL = 0,
    DAL_SOURCE_AGENT_RULES = 1,
    DAL_SOURCE_EXECUTION_RULES = 2,
    DAL_SOURCE_SCANNED = 3,
    DAL_SOURCE_APPROVED_DRIFT = 4,
    DAL_SOURCE_PRELINK = 5,
    DAL_SOURCE_TRUST_RULES = 6,
};

// Trust-rule types; a rule of type 0 matches every type.
enum DALTrustType : unsigned {
    DAL_TRUST_ANY = 0,
    DAL_TRUST_SOURCE_PROCESS = 1,
    DAL_TRUST_EXECUTION = 2,
    DAL_TRUST_EXCLUDE = 3,
    DAL_TRUST_BLOCK_TARGET = 4,
};

// Verdict codes (`action`).
enum ac_action : uint32_t {
    AC_ACTION_NOT_HANDLED = 7,
    AC_ACTION_ERROR = 8,
    AC_ACTION_ALLOW = 9,
    AC_ACTION_BLOCK = 10,
};

// `authorizedState` codes.
enum ac_authorized_state : uint32_t {
    AC_AUTH_NONE = 0,
    AC_AUTH_MAINTENANCE = 1,
    AC_AUTH_BLOCKED = 2,
    AC_AUTH_ALLOW_CACHE = 3,
    AC_AUTH_TRUSTED = 4,
    AC_AUTH_EXCLUDED = 5,
};

// Raw host codes that the engine names, and the abstract types it makes of
// them.  A rename post is also the `op` of process types trusted only for the
// files they rename into place.
enum ac_type : uint32_t {
    AC_TYPE_NONE = 0,
    AC_TYPE_PROCESS_START = 1,
    AC_TYPE_DRIFT = 4,
    AC_TYPE_RENAME = 5,
    AC_TYPE_DRIFT_WRITE = 6,
    AC_TYPE_DELETE = 7,
    AC_TYPE_SCRIPT_START = 8,
    AC_TYPE_MMAP = 9,
    AC_TYPE_RUN_BLOCKED = 10,
    AC_TYPE_RUN_LOG_ONLY = 11,
    AC_RAW_RENAME_POST = 40,
};

struct ac_event {
    // Fourteen 64-bit numbers.
    uint64_t leadingWord = 0;  // reset by the drift handler; no other use
    uint64_t pid = 0;
    uint64_t passThrough1 = 0;
    uint64_t flags = 0;
    uint64_t result = 0;
    uint64_t trustMatch = 0;  // 4 once a trust rule matched this event
    uint64_t passThrough2 = 0;
    uint64_t size = 0;
    uint64_t spareNumber1 = 0;
    uint64_t mode = 0;
    uint64_t passThrough3 = 0;
    uint64_t spareNumber2 = 0;
    uint64_t spareNumber3 = 0;
    uint64_t policyGeneration = 0;  // allow-cache generation when deciding began

    // Byte flags.
    uint8_t dirty = 0;
    uint8_t isexec = 0;
    uint8_t lockdownBlocked = 0;  // a run blocked because of lockdown
    uint8_t passThroughFlag = 0;
    uint8_t isSymlink = 0;

    // 32-bit codes.
    uint32_t action = 0;
    uint32_t eventType = 0;          // abstract type once abstracted
    uint32_t abstractEventType = 0;  // raw code, then drift kind / 10 / 11
    uint32_t responseExtra = 0;      // copied to the response as is
    uint32_t isAuthorized = 0;       // 0 unknown, 1 authorized, 2 not
    uint32_t itemType = 1;
    uint32_t source = 0;
    uint32_t authorizedState = 0;

    // Texts.
    std::string processName;
    std::string processPath;      // directory of processName, with the "/"
    std::string processFileName;  // the rest of processName
    std::string fileName;         // last component of name
    std::string name;             // full path of the target
    std::string extension;        // text after the last "." of fileName
    std::string path;             // directory of name, with the "/"
    std::string suffix;           // filled by the delete and chown handlers
    std::string oldName;
    std::string lookupPath;  // name as handed to the database lookup
    std::string nativePath;  // full path as stored in the inventory
    std::string spareText1;
    std::string spareText2;
    std::string user;
    std::string group;
    std::string spareText3;
    std::string ruleset;  // ruleset of the matching item or trust rule
    std::string cmdLine;
    std::string processSignerName;
    std::string processIssuer[IssuerMetaArrayUtil::kCount];
    std::string processCompanyName;
    std::string processProductName;
    std::string fileSignerName;
    std::string fileIssuer[IssuerMetaArrayUtil::kCount];
    std::string fileCompanyName;
    std::string fileProductName;

    struct stat targetStat {};  // filled by ZELKQuery::Lstat

    SHA256Hash fileSha256;
    SHA1Hash fileSha1;
    MD5Hash fileMd5;
    SHA256Hash processSha256;
};

// The acting process as the abstraction step splits it.
struct ac_process_info {
    uint64_t pid = 0;
    std::string path;
    std::string fileName;
    SHA256Hash sha256;
};

#endif  // ZELK_ZELKEVENT_H_
