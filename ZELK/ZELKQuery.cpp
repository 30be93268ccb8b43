#define ZELK_LOG_FILE "ZELK/ZELKQuery"
#include "ZELKQuery.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKFile.h"
#include "ZELKLogger.h"
#include "ZELKStats.h"

ZELKQuery::ProcessType::ProcessType(std::string name, bool isInterpreter, bool isNormal,
                                    bool trustedUpdate, bool signatureCheck, uint32_t op,
                                    std::vector<std::string> extensions,
                                    std::vector<std::string> paths, std::string enableSetting)
    : name(std::move(name)),
      isInterpreter(isInterpreter),
      isNormal(isNormal),
      trustedUpdate(trustedUpdate),
      signatureCheck(signatureCheck),
      op(static_cast<ac_type>(op)),
      paths(std::move(paths)),
      extensions(std::move(extensions)),
      enableSetting(std::move(enableSetting)) {}

ZELKQuery::ScriptInterpreter::ScriptInterpreter(ac_interpreter_rule_type ruleType, std::string path,
                                                std::string name, std::string nameContains,
                                                std::string processTypeName)
    : ruleType(ruleType),
      path(std::move(path)),
      name(std::move(name)),
      nameContains(std::move(nameContains)),
      processTypeName(std::move(processTypeName)),
      processTypeIndex(kNoProcessType) {}

ZELKQuery::ScriptInterpreter::ScriptInterpreter(const ScriptInterpreter& other)
    : ruleType(other.ruleType),
      path(other.path),
      name(other.name),
      nameContains(other.nameContains),
      processTypeName(other.processTypeName),
      hash(other.hash),
      processTypeIndex(other.processTypeIndex.load(std::memory_order_relaxed)) {}

ZELKQuery::ScriptInterpreter& ZELKQuery::ScriptInterpreter::operator=(
    const ScriptInterpreter& other) {
    if (this != &other) {
        ruleType = other.ruleType;
        path = other.path;
        name = other.name;
        nameContains = other.nameContains;
        processTypeName = other.processTypeName;
        hash = other.hash;
        processTypeIndex.store(other.processTypeIndex.load(std::memory_order_relaxed),
                               std::memory_order_relaxed);
    }
    return *this;
}

ZELKQuery::ZELKQuery() {
    // Drift in these folders is never looked at: scratch space, and the data
    // folders of a few products that churn files there constantly.
    m_SkippedFolders = {"/tmp/",
                        "/dev/null",
                        "/opt/zenoss/var/zeneventserver/index",
                        "/yarn/nodemanager/usercache",
                        "/apps/ecp/inventory/scripts",
                        "/var/spool/postfix"};
    // Hidden files and folders anywhere.
    m_SkippedPathParts = {"/."};
    InitScriptExtToRecognizeAndInclude();
    InitExecutableExtensions();
    InitScriptInterpreterRules();
    InitProcessTypes();
}

void ZELKQuery::InitScriptExtToRecognizeAndInclude() {
    // Targets with these extensions are scripts: a created file is reported as
    // item type 2 even without the executable flag.  "chm", "htm", "html" and
    // "js" are scripts here but not executables in the set below.
    std::set<std::string> extensions = {
        "class", "jar",      "ear", "inf", "sys", "tmp", "war",  "py",   "pyc", "pyo",  "pyz",
        "pyd",   "rb",       "erb", "php", "pl",  "sh",  "bash", "cron", "ps1", "psm1", "vb",
        "vbs",   "vbscript", "ws",  "wsf", "wsh", "bat", "cmd",  "chm",  "htm", "html", "js",
    };
    m_ScriptExtToRecognizeAndInclude = std::move(extensions);
}

void ZELKQuery::InitExecutableExtensions() {
    // Targets with these extensions belong in the inventory.
    std::set<std::string> extensions = {
        "class",    "jar", "ear", "war", "py",       "pyc",  "pyo", "pyz",  "pyd", "rb",
        "erb",      "php", "pl",  "sh",  "bash",     "cron", "ps1", "psm1", "vb",  "vbs",
        "vbscript", "ws",  "wsf", "wsh", "bat",      "cmd",  "tmp", "acm",  "ax",  "cpl",
        "com",      "dll", "drv", "efi", "exe",      "mui",  "ocx", "scr",  "sys", "tsp",
        "inf",      "ins", "inx", "isu", "job",      "jse",  "ko",  "msc",  "msi", "msp",
        "mst",      "paf", "pif", "ini", "manifest", "so",
    };
    m_ExecutableExtensions = std::move(extensions);
}

void ZELKQuery::InitScriptInterpreterRules() {
    constexpr ac_interpreter_rule_type NONE = AC_RULE_NONE;
    constexpr ac_interpreter_rule_type PATH_NAME = AC_RULE_PATH_NAME;
    constexpr ac_interpreter_rule_type NAME = AC_RULE_NAME;
    constexpr ac_interpreter_rule_type CONTAINS = AC_RULE_NAME_CONTAINS;
    // One rule per row: how a process is recognised (rule type, directory,
    // exact file name, file-name fragment) and the process type it gets.  The
    // first matching row wins, so the order is significant: exact names come
    // before fragments ("javaws" must reach "java", not an earlier fragment).
    // Row 0 is a placeholder that is never tested.  The two prelink rows are
    // the same on purpose; the table is kept as it has always been built.
    // clang-format off
    std::vector<ScriptInterpreter> rules = {
        // type     path                     name                            nameContains    process type
        {NONE,      "",                      "",                             "",             ""},
        {NAME,      "",                      "powershell.exe",               "",             "power"},
        {NAME,      "",                      "powershell_ise.exe",           "",             "power"},
        {NAME,      "",                      "cmd.exe",                      "",             "batch"},
        {NAME,      "",                      "cscript.exe",                  "",             "wscript"},
        {NAME,      "",                      "wscript.exe",                  "",             "wscript"},
        {NAME,      "",                      "mscorsvw.exe",                 "",             "dotnet"},
        {NAME,      "",                      "tiworker.exe",                 "",             "tiworker"},
        {NAME,      "",                      "ngentask.exe",                 "",             "tiworker"},
        {NAME,      "",                      "ngen.exe",                     "",             "tiworker"},
        {NAME,      "",                      "wmiprvse.exe",                 "",             "wmiprvse"},
        {NAME,      "",                      "spoolsv.exe",                  "",             "spoolsv"},
        {NAME,      "",                      "trustedinstaller.exe",         "",             "trustedinstaller"},
        {NAME,      "",                      "RemoteFXvGPUDisablement.exe",  "",             "trustedinstaller"},
        {NAME,      "",                      "updateplatform.exe",           "",             "trustedinstaller"},
        {NAME,      "",                      "csc.exe",                      "",             "trustedinstaller"},
        {NAME,      "",                      "msiexec.exe",                  "",             "msiexec"},
        {NAME,      "",                      "mpsigstub.exe",                "",             "mpsigstub"},
        {NAME,      "",                      "sdiagnhost.exe",               "",             "sdiagnhost"},
        {NAME,      "",                      "msmpeng.exe",                  "",             "msmpeng"},
        {NAME,      "",                      "wuauclt.exe",                  "",             "msmpeng"},
        {NAME,      "",                      "cleanmgr.exe",                 "",             "cleanmgr"},
        {NAME,      "",                      "mrt.exe",                      "",             "mrt"},
        {NAME,      "",                      "patch.exe",                    "",             "patch"},
        {NAME,      "",                      "dism.exe",                     "",             "dism"},
        {NAME,      "",                      "taskhostw.exe",                "",             "svchost"},
        {NAME,      "",                      "svchost.exe",                  "",             "svchost"},
        {NAME,      "",                      "poqexec.exe",                  "",             "poqexec"},
        {NAME,      "",                      "sh.exe",                       "",             "shell"},
        {NAME,      "",                      "sh",                           "",             "shell"},
        {NAME,      "",                      "processexplorer.exe",          "",             "aspentech"},
        {NAME,      "",                      "aspensplash.exe",              "",             "aspentech"},
        {NAME,      "",                      "iqtask.exe",                   "",             "aspentech"},
        {NAME,      "",                      "sihclient.exe",                "",             "sihclient"},
        {NAME,      "",                      "git.exe",                      "",             "web"},
        {NAME,      "",                      "mismatchop.exe",               "",             "mismatchop"},
        {NAME,      "",                      "devcon.exe",                   "",             "driver"},
        {NAME,      "",                      "pnputil.exe",                  "",             "driver"},
        {NAME,      "",                      "drvinst.exe",                  "",             "driver"},
        {NAME,      "",                      "InfDefaultInstall.exe",        "",             "driver"},
        {PATH_NAME, "/opt/zelk_agent/bin/",  "tar",                          "",             "trustedtar"},
        {NAME,      "",                      "rundll32.exe",                 "",             "control"},
        {NAME,      "",                      "hh.exe",                       "",             "chm"},
        {NAME,      "",                      "calibre-parallel.exe",         "",             "chm"},
        {CONTAINS,  "",                      "",                             "sumatrapdf",   "chm"},
        {NAME,      "",                      "cr3.exe",                      "",             "chm"},
        {NAME,      "",                      "freechmreader.exe",            "",             "chm"},
        {NAME,      "",                      "chmviewer.exe",                "",             "chm"},
        {CONTAINS,  "",                      "",                             "kb2901983",    "kb2901983"},
        {CONTAINS,  "",                      "",                             "kb890830",     "kb890830"},
        {CONTAINS,  "",                      "",                             "mpam-",        "mpam"},
        {CONTAINS,  "",                      "",                             "ie11-windows", "ie"},
        {CONTAINS,  "",                      "",                             "java",         "java"},
        {CONTAINS,  "",                      "",                             "sma_lsam",     "java"},
        {CONTAINS,  "",                      "",                             "python",       "python"},
        {CONTAINS,  "",                      "",                             "php",          "php"},
        {CONTAINS,  "",                      "",                             "nginx",        "web"},
        {CONTAINS,  "",                      "",                             "apache2",      "web"},
        {CONTAINS,  "",                      "",                             "httpd",        "web"},
        {CONTAINS,  "",                      "",                             "lighttpd",     "web"},
        {CONTAINS,  "",                      "",                             "perl",         "perl"},
        {CONTAINS,  "",                      "",                             "bash",         "shell"},
        {CONTAINS,  "",                      "",                             "dash",         "shell"},
        {CONTAINS,  "",                      "",                             "csh",          "shell"},
        {CONTAINS,  "",                      "",                             "ksh",          "shell"},
        {CONTAINS,  "",                      "",                             "kmod",         "linuxmod"},
        {PATH_NAME, "/usr/sbin/",            "prelink",                      "",             "prelink"},
        {PATH_NAME, "/usr/sbin/",            "prelink",                      "",             "prelink"},
        {NAME,      "",                      "chromium",                     "",             "browser"},
        {NAME,      "",                      "chrome",                       "",             "browser"},
        {NAME,      "",                      "firefox",                      "",             "browser"},
    };
    // clang-format on
    m_ScriptInterpreterRules = std::move(rules);
}

void ZELKQuery::InitProcessTypes() {
    // One process type per row; its position is the process type index that
    // the process cache stores and every query takes, so the order is
    // significant (0 the empty type, 2 prelink).  Columns: name, I(nterpreter),
    // N(ormal), T(rusted update), S(ignature check), the one raw event that
    // trusted update covers (0 any, 40 rename), the extensions it runs, the
    // folder fragments it may write to, the engine setting that takes it out
    // of time-stamp mode.  Windows path fragments are data and kept exactly,
    // trailing separators included, since they change what a search matches.
    constexpr bool I = true, N = true, T = true, _ = false;
    using L = std::vector<std::string>;
    const L none;
    // clang-format off
    std::vector<ProcessType> types = {
        // name               I  N  T  S  op  extensions                                                  paths                                                                                                                                                                                                  enableSetting
        {"",                  _, _, _, _, 0,  none,                                                       none,                                                                                                                                                                                                  ""},
        {"normal",            _, N, _, _, 0,  none,                                                       none,                                                                                                                                                                                                  ""},
        {"prelink",           _, _, T, _, 40, none,                                                       none,                                                                                                                                                                                                  ""},
        {"java",              I, _, T, _, 0,  L{"class", "jar", "ear", "war"},                            L{"/opt/IBM/WebSphere/AppServer/profiles", "/opt/apps/lsam18s/tmp/SMA"},                                                                                                                              ""},
        {"python",            I, _, _, _, 0,  L{"py", "pyc", "pyo", "pyz", "pyd", "rb", "erb"},           none,                                                                                                                                                                                                  ""},
        {"php",               I, _, _, _, 0,  L{"php"},                                                   none,                                                                                                                                                                                                  ""},
        {"web",               I, _, T, _, 0,  L{"php", "py", "pyc", "pyo", "pyz", "pyd", "rb", "erb"},    L{R"(\xampp\htdocs\portal)"},                                                                                                                                                                          ""},
        {"perl",              I, _, _, _, 0,  L{"pl"},                                                    none,                                                                                                                                                                                                  ""},
        {"shell",             I, _, T, _, 0,  L{"sh"},                                                    L{"/opt/IBM/WebSphere/AppServer/profiles", "/opt/apps/lsam18s/tmp/SMA"},                                                                                                                              ""},
        {"power",             I, _, T, _, 0,  L{"ps1", "psm1"},                                           L{R"(\temp\)", R"(\AppData\Local\Microsoft_Corporation\)"},                                                                                                                                            ""},
        {"batch",             I, _, _, _, 0,  L{"bat", "cmd"},                                            none,                                                                                                                                                                                                  ""},
        {"wscript",           I, _, _, _, 0,  L{"wsh", "vb", "vbs", "js", "jse", "ws", "wsf"},            none,                                                                                                                                                                                                  ""},
        {"sihclient",         I, _, T, _, 0,  L{"dll"},                                                   L{R"(\windows\softwaredistribution\)"},                                                                                                                                                                ""},
        {"linuxmod",          I, _, T, _, 0,  L{"ko"},                                                    L{"/zelk_agent/"},                                                                                                                                                                                     ""},
        {"driver",            I, _, T, _, 0,  L{"inf", "sys"},                                            L{R"(\veltrix\)"},                                                                                                                                                                                     ""},
        {"trustedtar",        _, _, T, _, 0,  none,                                                       L{"/opt/zelk_agent/"},                                                                                                                                                                                 ""},
        {"control",           I, _, _, _, 0,  L{"cpl"},                                                   none,                                                                                                                                                                                                  ""},
        {"dotnet",            _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\assembly)"},                                                                                                                                                                ""},
        {"spoolsv",           _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\system32\spool\drivers)", R"(\windows\syswow64)"},                                                                                                                          ""},
        {"patch",             _, _, T, _, 0,  none,                                                       L{R"(\kbrx\)"},                                                                                                                                                                                        ""},
        {"wmiprvse",          _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\microsoft.net)"},                                                                                                                                                           ""},
        {"sdiagnhost",        _, _, T, _, 0,  none,                                                       L{R"(\temp\)"},                                                                                                                                                                                        ""},
        {"mpam",              _, _, T, _, 0,  none,                                                       L{R"(\temp\)"},                                                                                                                                                                                        ""},
        {"cleanmgr",          _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\users\)"},                                                                                                                                                                          ""},
        {"dism",              _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\users\)"},                                                                                                                                                                          ""},
        {"ie",                _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\users\)"},                                                                                                                                                                          ""},
        {"mrt",               _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\system32\)"},                                                                                                                                                               ""},
        {"poqexec",           _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\program files)", R"(\windows\system32)"},                                                                                                                                           ""},
        {"trustedinstaller",  _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\softwaredistribution)", R"(\windows\winsxs)", R"(\windows\system32)", R"(\windows\syswow64)", R"(\users)"},                                                               ""},
        {"msiexec",           _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\)", R"(\program files\veltrix)"},                                                                                                                                           ""},
        {"mpsigstub",         _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\system32)"},                                                                                                                                                                ""},
        {"msmpeng",           _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\programdata\microsoft)", R"(\windows\winsxs)", R"(\windows\softwaredistribution\)"},                                                                                                ""},
        {"kb2901983",         _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\8b5bc664f2d37f112f84bdc9)"},                                                                                                                                                        ""},
        {"kb890830",          _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\system32)"},                                                                                                                                                                ""},
        {"svchost",           _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\windows\winsxs)", R"(\windows\microsoft.net)", R"(\windows\softwaredistribution)"},                                                                                                 ""},
        {"tiworker",          _, _, T, _, 0,  none,                                                       L{R"(\temp\)", R"(\boot\)", R"(\windows\system32)", R"(\windows\assembly)", R"(\windows\winsxs)", R"(\windows\softwaredistribution\download)", R"(\windows\microsoft.net)", R"(\windows\inf)"},        ""},
        {"aspentech",         _, _, T, _, 0,  none,                                                       L{R"(\aspentech\)", R"(\safenet sentinel\)"},                                                                                                                                                          ""},
        {"mismatchop",        I, _, T, _, 40, none,                                                       L{R"(\temp\)"},                                                                                                                                                                                        ""},
        {"chm",               I, _, _, _, 0,  L{"chm"},                                                   none,                                                                                                                                                                                                  "enableHTML"},
        {"browser",           I, _, _, _, 40, L{"html", "htm", "js"},                                     none,                                                                                                                                                                                                  "enableHTML"},
    };
    // clang-format on
    m_ProcessTypes = std::move(types);
}

bool ZELKQuery::IsInterpreter(size_t pti) const {
    if (pti < m_ProcessTypes.size() && m_ProcessTypes[pti].isInterpreter) {
        ZTRACE("processType %lu is interpreter", pti);
        return true;
    }
    ZTRACE("processType %lu is not interpreter", pti);
    return false;
}

bool ZELKQuery::IsPrelink(size_t pti) const {
    return pti == kPrelinkProcessType;
}

size_t ZELKQuery::GetProcessTypeId(ScriptInterpreter& rule) const {
    const uint64_t cached = rule.processTypeIndex.load(std::memory_order_relaxed);
    if (cached != kNoProcessType) {
        return cached;
    }
    for (size_t i = 0; i < m_ProcessTypes.size(); ++i) {
        if (m_ProcessTypes[i].name == rule.processTypeName) {
            // Every thread that gets here stores the same index.
            rule.processTypeIndex.store(i, std::memory_order_relaxed);
            return i;
        }
    }
    // Not cached: a later call searches again.
    return 0;
}

bool ZELKQuery::IsProcessTypeInTimeStampMode(size_t pti) const {
    if (pti < m_ProcessTypes.size() && !m_ProcessTypes[pti].enableSetting.empty()) {
        const std::string& setting = m_ProcessTypes[pti].enableSetting;
        ZTRACE("processType %lu has an enableSetting %s", pti, setting.c_str());
        unsigned long value = 0;
        if (!ZELKDAL::GetDAL().GetAppControlState(setting, value) || value == 0) {
            ZTRACE(
                "processType %lu with enableSetting %s running in time stamp mode until "
                "enabled",
                pti, setting.c_str());
            return true;
        }
        ZTRACE("processType %lu with setting %s has been enabled in regular mode", pti,
               setting.c_str());
    }
    ZTRACE("processType %lu is not n time stamp mode", pti);
    return false;
}

size_t ZELKQuery::ApplyInterpreterRule(ac_process_info& proc, ScriptInterpreter& rule) {
    switch (rule.ruleType) {
        case AC_RULE_NONE:
            return kNoProcessType;
        case AC_RULE_HASH:
            if (!proc.sha256.HasBytes() || !rule.hash.HasBytes()) {
                return kNoProcessType;
            }
            if (memcmp(rule.hash.Bytes(), proc.sha256.Bytes(), proc.sha256.Length()) != 0) {
                return kNoProcessType;
            }
            return GetProcessTypeId(rule);
        case AC_RULE_PATH_NAME:
            if (proc.path != rule.path) {
                return kNoProcessType;
            }
            return proc.fileName == rule.name ? GetProcessTypeId(rule) : kNoProcessType;
        case AC_RULE_NAME:
            return proc.fileName == rule.name ? GetProcessTypeId(rule) : kNoProcessType;
        case AC_RULE_NAME_CONTAINS: {
            // "python3.9" is searched as "python3", "libphp.so" as "libphp".
            const std::string stem = proc.fileName.substr(0, proc.fileName.rfind('.'));
            return stem.find(rule.nameContains) != std::string::npos ? GetProcessTypeId(rule)
                                                                     : kNoProcessType;
        }
    }
    ZWARNING("Unknown rule type %d", static_cast<int>(rule.ruleType));
    return kNoProcessType;
}

size_t ZELKQuery::GetProcessInterpreterType(ac_process_info& proc) {
    ZTRACE("GetProcessInterpreterType");
    // Rule 0 is a placeholder and never tested.
    for (size_t r = 1; r < m_ScriptInterpreterRules.size(); ++r) {
        const size_t pti = ApplyInterpreterRule(proc, m_ScriptInterpreterRules[r]);
        if (pti == kNoProcessType) {
            continue;
        }
        const bool signatureCheck =
            pti < m_ProcessTypes.size() && m_ProcessTypes[pti].signatureCheck;
        ZTRACE("Signature check %s", signatureCheck ? "true" : "false");
        ZTRACE("ScriptInterpreter Match rule match for %s", proc.fileName.c_str());
        if (!signatureCheck || VerifyCert(proc.path + proc.fileName)) {
            return pti;
        }
    }
    ZTRACE("No ScriptInterpreter Match rule match for %s", proc.fileName.c_str());
    return 0;
}

size_t ZELKQuery::GetProcessInterpreterType(ac_event& evt) {
    // The event's process digest is left out on purpose, so hash rules never
    // match here.
    ac_process_info proc;
    proc.pid = evt.pid;
    proc.path = evt.processPath;
    proc.fileName = evt.processFileName;
    return GetProcessInterpreterType(proc);
}

bool ZELKQuery::GetItemType(ac_event& evt) const {
    uint32_t type;
    if (evt.isSymlink) {
        type = 6;
    } else {
        const unsigned fileType = evt.targetStat.st_mode & 0xF000;
        if (fileType == 0x4000) {
            type = 5;
        } else if (fileType != 0x8000) {
            type = 1;
        } else if (IsFileExecutable(evt)) {
            type = 3;
        } else {
            type = m_ScriptExtToRecognizeAndInclude.count(evt.extension) != 0 ? 2 : 4;
        }
    }
    evt.itemType = type;
    return true;
}

bool ZELKQuery::IsLibrary(ac_event& evt) const {
    if (evt.fileName.empty() || evt.extension.empty()) {
        return false;
    }
    if (evt.extension == "dll" || evt.extension == "so") {
        return true;
    }
    // Versioned shared objects: libssl.so.1.1.
    std::istringstream pieces(evt.fileName);
    std::string piece;
    while (std::getline(pieces, piece, '.')) {
        if (piece == "so") {
            return true;
        }
    }
    return false;
}

bool ZELKQuery::ShouldPersistInInventory(ac_event& evt) const {
    if (evt.extension.empty() || IsLibrary(evt)) {
        return true;
    }
    // Versioned names such as x.1 are kept.
    for (char c : evt.extension) {
        if (c >= '0' && c <= '9') {
            return true;
        }
    }
    return m_ExecutableExtensions.count(evt.extension) != 0;
}

bool ZELKQuery::ShouldScanFolder(ac_event& evt) const {
    if (m_SkippedFolders.count(evt.path) != 0) {
        return false;
    }
    for (const std::string& folder : m_SkippedFolders) {
        if (evt.path.find(folder) != std::string::npos) {
            return false;
        }
    }
    for (const std::string& part : m_SkippedPathParts) {
        if (evt.path.find(part) != std::string::npos) {
            return false;
        }
    }
    return true;
}

bool ZELKQuery::ShouldScanFile(ac_event& evt) const {
    return evt.path.empty() || ShouldScanFolder(evt);
}

bool ZELKQuery::IsExtensionInterpreted(size_t pti, const std::string& ext) const {
    if (pti == kNoProcessType) {
        ZTRACE("processTypeIndex is nil");
        return false;
    }
    assert(pti < m_ProcessTypes.size());
    if (pti < m_ProcessTypes.size()) {
        for (const std::string& candidate : m_ProcessTypes[pti].extensions) {
            if (candidate == ext) {
                ZTRACE("Extension %s is interpreted by process type index: %d", ext.c_str(),
                       static_cast<int>(pti));
                return true;
            }
        }
    }
    ZTRACE("Extension %s is NOT interpreted by process type index: %d", ext.c_str(),
           static_cast<int>(pti));
    return false;
}

bool ZELKQuery::ShouldTrustDrift(size_t pti, ac_event& evt, bool& trusted) {
    if (evt.passThroughFlag) {
        evt.trustMatch = 1;
        trusted = true;
        return true;
    }
    // The first inventory build takes whatever is on the machine.
    if (!config.GetInventoryExists() && config.GetWhitelistInventory()) {
        evt.trustMatch = 1;
        trusted = true;
        ZELKStats::GetStats().Inc("TotalApprovedDriftDuringInventory");
        return true;
    }
    if (pti == 0 && !evt.processFileName.empty()) {
        pti = GetProcessInterpreterType(evt);
        if (pti != kNoProcessType) {
            m_ProcessCache.AddProcess(evt.pid, pti, evt.processFileName);
        }
    }
    ZTRACE("processType %lu for %s pid %lu", pti, evt.processName.c_str(), evt.pid);

    if (pti != 0 && pti < m_ProcessTypes.size()) {
        const ProcessType& type = m_ProcessTypes[pti];
        const char* process = evt.processName.c_str();
        bool pathMatched = false;
        if (!type.paths.empty()) {
            ZTRACE("process has non empty paths");
            if (type.trustedUpdate) {
                ZTRACE("process %s is trustedUpdate", process);
                if (type.op != 0 && type.op != evt.abstractEventType) {
                    ZTRACE("process %s is item.op %lu does not much process.op %lu", process,
                           static_cast<unsigned long>(evt.abstractEventType),
                           static_cast<unsigned long>(type.op));
                } else {
                    for (const std::string& fragment : type.paths) {
                        if (evt.path.find(fragment) != std::string::npos) {
                            pathMatched = true;
                            break;
                        }
                        ZTRACE("process %s is evt.path %s does not match process.path %s", process,
                               evt.path.c_str(), fragment.c_str());
                    }
                }
            }
        }
        if (pathMatched) {
            ZTRACE("process %s is trusted for path %s", process, evt.path.c_str());
            bool interpretsTarget = false;
            for (const std::string& ext : type.extensions) {
                interpretsTarget = interpretsTarget || ext == evt.extension;
            }
            if (type.name != "power" || !interpretsTarget) {
                evt.trustMatch = 4;
                ZELKStats::GetStats().Inc(type.name + "TrustedDrift");
                trusted = true;
                return true;
            }
            // A PowerShell script dropped by PowerShell is trusted only when it
            // is trivially harmless; `trusted` is left false even then, so the
            // caller does not record the script as approved drift.
            trusted = false;
            const bool trustedScript = ShouldTrustPowershell(evt);
            if (trustedScript) {
                evt.trustMatch = 4;
                ZELKStats::GetStats().Inc("powerTrustedDrift");
            }
            return trustedScript;
        }
    }

    // prelink rewrites binaries in place; what it writes stays allowed.
    if (IsPrelink(pti)) {
        evt.trustMatch = 4;
        evt.source = DAL_SOURCE_PRELINK;
        trusted = true;
        return true;
    }
    trusted = false;
    return false;
}

bool ZELKQuery::ShouldTrustPowershell(ac_event& evt) {
    const char* script = evt.name.c_str();
    int lines = 1;
    {
        std::ifstream in(evt.name, std::ios::binary);
        if (in) {
            lines += static_cast<int>(std::count(std::istreambuf_iterator<char>(in),
                                                 std::istreambuf_iterator<char>(), '\n'));
        }
    }
    if (lines > 1) {
        ZTRACE(
            "%s not detected as trusted script because the file has more than 1 line (%d "
            "lines)",
            script, lines);
        return false;
    }
    ac_file_s file;
    fileopen_read(evt.name, file);
    if (!fileok(file)) {
        ZTRACE("%s could not be parsed properly", script);
        return false;
    }
    char header[2] = {0, 0};
    const size_t read = fileread(&file, header, sizeof(header));
    fileclose(&file);
    if (read >= 2 && header[0] == '#' && header[1] == ' ') {
        ZTRACE("%s detected as trusted script because of '# ' header and only %d line", script,
               lines);
        return true;
    }
    if (read == 1 && header[0] == '1') {
        ZTRACE("%s detected as trusted script because of '1' header and only %d line", script,
               lines);
        return true;
    }
    ZTRACE("%s not detected as trusted script because lack of '# ' or '1' header", script);
    return false;
}

bool ZELKQuery::StatItem(const char* path, struct stat& st) {
    struct statx stx;
    // Directory descriptor 0 rather than AT_FDCWD: callers pass absolute paths.
    if (statx(0, path, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &stx) != 0) {
        return false;
    }
    ZTRACE("STATX timestamp being used for file %s", path);
    StatxToStat(stx, st);
    return true;
}

bool ZELKQuery::Lstat(ac_event& evt) {
    evt.isSymlink = 0;
    const bool ok = StatItem(evt.name.c_str(), evt.targetStat);
    if (ok && (evt.targetStat.st_mode & 0xF000) == 0xA000) {
        evt.isSymlink = 1;
    }
    return ok;
}

void StatxTimestampToTimespec(const struct statx_timestamp& ts, timespec& out) {
    out.tv_sec = ts.tv_sec;
    out.tv_nsec = ts.tv_nsec;
}

void StatxToStat(const struct statx& stx, struct stat& st) {
    st.st_dev = makedev(stx.stx_dev_major, stx.stx_dev_minor);
    st.st_ino = stx.stx_ino;
    st.st_mode = stx.stx_mode;
    st.st_nlink = stx.stx_nlink;
    st.st_uid = stx.stx_uid;
    st.st_gid = stx.stx_gid;
    st.st_rdev = makedev(stx.stx_rdev_major, stx.stx_rdev_minor);
    st.st_size = stx.stx_size;
    st.st_blksize = stx.stx_blksize;
    st.st_blocks = stx.stx_blocks;
    StatxTimestampToTimespec(stx.stx_atime, st.st_atim);
    StatxTimestampToTimespec(stx.stx_mtime, st.st_mtim);
    StatxTimestampToTimespec(stx.stx_btime, st.st_ctim);
}
