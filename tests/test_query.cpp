// Classification: process types, interpreter rules, file classification,
// drift trust and file status.  The tables below are written from the
// product's documented behaviour, independently of the source tables, so a
// wrong, missing or reordered row shows up as a failed case.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKLogger.h"
#include "ZELKQuery.h"
#include "ZELKStats.h"

namespace {

constexpr size_t kNone = ZELKQuery::kNoProcessType;

void CaptureLogs() {
    ZELKLogger::GetInstance().InitLogger(&zelktest::LogCapture::Callback, 15);
    zelktest::LogCapture::Get().Clear();
}

// An event whose target is `folder` + `file`, split as the abstraction does.
ac_event Target(const std::string& folder, const std::string& file) {
    ac_event evt;
    evt.path = folder;
    evt.fileName = file;
    evt.name = folder + file;
    const size_t dot = file.rfind('.');
    if (dot != std::string::npos) {
        evt.extension = file.substr(dot + 1);
    }
    return evt;
}

size_t TypeOf(ZELKQuery& query, const std::string& dir, const std::string& file) {
    ac_process_info proc;
    proc.pid = 42;
    proc.path = dir;
    proc.fileName = file;
    return query.GetProcessInterpreterType(proc);
}

TEST(ProcessTypes, NamesAndInterpreterFlagsByIndex) {
    ZELKQuery query;
    struct Row {
        const char* name;
        bool interpreter;
    };
    const std::vector<Row> rows = {
        {"", false},
        {"normal", false},
        {"prelink", false},
        {"java", true},
        {"python", true},
        {"php", true},
        {"web", true},
        {"perl", true},
        {"shell", true},
        {"power", true},
        {"batch", true},
        {"wscript", true},
        {"sihclient", true},
        {"linuxmod", true},
        {"driver", true},
        {"trustedtar", false},
        {"control", true},
        {"dotnet", false},
        {"spoolsv", false},
        {"patch", false},
        {"wmiprvse", false},
        {"sdiagnhost", false},
        {"mpam", false},
        {"cleanmgr", false},
        {"dism", false},
        {"ie", false},
        {"mrt", false},
        {"poqexec", false},
        {"trustedinstaller", false},
        {"msiexec", false},
        {"mpsigstub", false},
        {"msmpeng", false},
        {"kb2901983", false},
        {"kb890830", false},
        {"svchost", false},
        {"tiworker", false},
        {"aspentech", false},
        {"mismatchop", true},
        {"chm", true},
        {"browser", true},
    };
    const auto& types = query.GetProcessTypes();
    ASSERT_EQ(types.size(), rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(types[i].name, rows[i].name) << i;
        EXPECT_EQ(query.IsInterpreter(i), rows[i].interpreter) << i;
        EXPECT_EQ(types[i].isNormal, i == 1) << i;
        EXPECT_FALSE(types[i].signatureCheck) << i;
    }

    CaptureLogs();
    EXPECT_FALSE(query.IsInterpreter(40));
    EXPECT_FALSE(query.IsInterpreter(kNone));
    EXPECT_TRUE(zelktest::LogCapture::Get().Contains("processType 40 is not interpreter"));
    EXPECT_TRUE(zelktest::LogCapture::Get().Contains(
        "processType 18446744073709551615 is not interpreter"));
    EXPECT_TRUE(query.IsInterpreter(37));  // no extensions, still an interpreter

    EXPECT_TRUE(query.IsPrelink(2));
    for (size_t pti : {size_t{0}, size_t{1}, size_t{3}, size_t{40}, kNone}) {
        EXPECT_FALSE(query.IsPrelink(pti)) << pti;
    }
}

TEST(ProcessTypes, ExtensionsEachTypeRuns) {
    ZELKQuery query;
    struct Case {
        size_t pti;
        std::vector<const char*> runs;
    };
    const std::vector<Case> cases = {
        {3, {"class", "jar", "ear", "war"}},
        {4, {"py", "pyc", "pyo", "pyz", "pyd", "rb", "erb"}},
        {5, {"php"}},
        {6, {"php", "py", "pyc", "pyo", "pyz", "pyd", "rb", "erb"}},
        {7, {"pl"}},
        {8, {"sh"}},
        {9, {"ps1", "psm1"}},
        {10, {"bat", "cmd"}},
        {11, {"wsh", "vb", "vbs", "js", "jse", "ws", "wsf"}},
        {12, {"dll"}},
        {13, {"ko"}},
        {14, {"inf", "sys"}},
        {16, {"cpl"}},
        {38, {"chm"}},
        {39, {"html", "htm", "js"}},
    };
    size_t listed = 0;
    for (const Case& c : cases) {
        for (const char* ext : c.runs) {
            EXPECT_TRUE(query.IsExtensionInterpreted(c.pti, ext)) << c.pti << " " << ext;
        }
        EXPECT_EQ(query.GetProcessTypes()[c.pti].extensions.size(), c.runs.size()) << c.pti;
        listed += c.runs.size();
    }
    size_t total = 0;
    for (const auto& type : query.GetProcessTypes()) {
        total += type.extensions.size();
    }
    EXPECT_EQ(total, listed);  // no other row runs anything

    EXPECT_FALSE(query.IsExtensionInterpreted(4, "PY"));  // exact case
    EXPECT_FALSE(query.IsExtensionInterpreted(8, "bash"));
    CaptureLogs();
    EXPECT_FALSE(query.IsExtensionInterpreted(kNone, "sh"));
    EXPECT_TRUE(zelktest::LogCapture::Get().Contains("processTypeIndex is nil"));
}

TEST(InterpreterRules, EveryRuleYieldsItsType) {
    ZELKQuery query;
    struct Case {
        const char* dir;
        const char* file;
        size_t pti;
    };
    // clang-format off
    const std::vector<Case> cases = {
        {"C:/", "powershell.exe", 9},        {"C:/", "powershell_ise.exe", 9},
        {"C:/", "cmd.exe", 10},              {"C:/", "cscript.exe", 11},
        {"C:/", "wscript.exe", 11},          {"C:/", "mscorsvw.exe", 17},
        {"C:/", "tiworker.exe", 35},         {"C:/", "ngentask.exe", 35},
        {"C:/", "ngen.exe", 35},             {"C:/", "wmiprvse.exe", 20},
        {"C:/", "spoolsv.exe", 18},          {"C:/", "trustedinstaller.exe", 28},
        {"C:/", "RemoteFXvGPUDisablement.exe", 28}, {"C:/", "updateplatform.exe", 28},
        {"C:/", "csc.exe", 28},              {"C:/", "msiexec.exe", 29},
        {"C:/", "mpsigstub.exe", 30},        {"C:/", "sdiagnhost.exe", 21},
        {"C:/", "msmpeng.exe", 31},          {"C:/", "wuauclt.exe", 31},
        {"C:/", "cleanmgr.exe", 23},         {"C:/", "mrt.exe", 26},
        {"C:/", "patch.exe", 19},            {"C:/", "dism.exe", 24},
        {"C:/", "taskhostw.exe", 34},        {"C:/", "svchost.exe", 34},
        {"C:/", "poqexec.exe", 27},          {"C:/", "sh.exe", 8},
        {"/bin/", "sh", 8},                  {"C:/", "processexplorer.exe", 36},
        {"C:/", "aspensplash.exe", 36},      {"C:/", "iqtask.exe", 36},
        {"C:/", "sihclient.exe", 12},        {"C:/", "git.exe", 6},
        {"C:/", "mismatchop.exe", 37},       {"C:/", "devcon.exe", 14},
        {"C:/", "pnputil.exe", 14},          {"C:/", "drvinst.exe", 14},
        {"C:/", "InfDefaultInstall.exe", 14},
        {"/opt/zelk_agent/bin/", "tar", 15}, {"/bin/", "tar", 0},
        {"C:/", "rundll32.exe", 16},         {"C:/", "hh.exe", 38},
        {"C:/", "calibre-parallel.exe", 38}, {"C:/", "SumatraPDF.exe", 0},
        {"C:/", "sumatrapdf-3.exe", 38},     {"C:/", "cr3.exe", 38},
        {"C:/", "freechmreader.exe", 38},    {"C:/", "chmviewer.exe", 38},
        {"C:/", "windows-kb2901983-x64.exe", 32}, {"C:/", "windows-kb890830-x64.exe", 33},
        {"C:/", "mpam-fe.exe", 22},          {"C:/", "ie11-windows6.1.exe", 25},
        {"/usr/bin/", "java", 3},            {"/usr/bin/", "javaws", 3},
        {"/opt/", "sma_lsam.bin", 3},        {"/usr/bin/", "python3.9", 4},
        {"/usr/lib/", "libphp.so", 5},       {"/usr/sbin/", "php-fpm8.1", 5},
        {"/usr/sbin/", "nginx", 6},          {"/usr/sbin/", "apache2", 6},
        {"/usr/sbin/", "httpd", 6},          {"/usr/sbin/", "lighttpd", 6},
        {"/usr/bin/", "perl5.36", 7},        {"/bin/", "bash", 8},
        {"/bin/", "dash", 8},                {"/bin/", "tcsh", 8},
        {"/bin/", "ksh93", 8},               {"/usr/bin/", "kshell", 8},
        {"/bin/", "zsh", 0},                 {"/sbin/", "kmod", 13},
        {"/usr/sbin/", "prelink", 2},        {"/usr/bin/", "prelink", 0},
        {"/usr/bin/", "chromium", 39},       {"/opt/google/", "chrome", 39},
        {"/usr/bin/", "firefox", 39},        {"/usr/lib/firefox/", "firefox-bin", 0},
        {"/usr/bin/", "ls", 0},              {"", "", 0},
    };
    // clang-format on
    for (const Case& c : cases) {
        EXPECT_EQ(TypeOf(query, c.dir, c.file), c.pti) << c.dir << c.file;
    }

    const auto& rules = query.GetScriptInterpreterRules();
    ASSERT_EQ(rules.size(), 71u);
    EXPECT_EQ(rules[0].ruleType, AC_RULE_NONE);
    // The second prelink rule is a copy of the first and is kept.
    EXPECT_EQ(rules[66].ruleType, rules[67].ruleType);
    EXPECT_EQ(rules[66].path, rules[67].path);
    EXPECT_EQ(rules[66].name, rules[67].name);
    EXPECT_EQ(rules[67].processTypeName, "prelink");
    for (const auto& rule : rules) {
        EXPECT_NE(rule.ruleType, AC_RULE_HASH);
    }
}

TEST(InterpreterRules, ProcessTypeIdIsCachedOnlyWhenFound) {
    ZELKQuery query;
    ZELKQuery::ScriptInterpreter known(AC_RULE_NAME, "", "x", "", "tiworker");
    EXPECT_EQ(known.processTypeIndex.load(), kNone);
    EXPECT_EQ(query.GetProcessTypeId(known), 35u);
    EXPECT_EQ(known.processTypeIndex.load(), 35u);
    // The cache is trusted: a stale value is returned without a search.
    known.processTypeIndex = 7;
    EXPECT_EQ(query.GetProcessTypeId(known), 7u);

    ZELKQuery::ScriptInterpreter unknown(AC_RULE_NAME, "", "x", "", "nosuchtype");
    EXPECT_EQ(query.GetProcessTypeId(unknown), 0u);
    EXPECT_EQ(query.GetProcessTypeId(unknown), 0u);
    EXPECT_EQ(unknown.processTypeIndex.load(), kNone);

    ZELKQuery::ScriptInterpreter empty(AC_RULE_NONE, "", "", "", "");
    EXPECT_EQ(query.GetProcessTypeId(empty), 0u);
    EXPECT_EQ(empty.processTypeIndex.load(), 0u);

    // Copies carry the cache along.
    ZELKQuery::ScriptInterpreter copy = known;
    EXPECT_EQ(copy.processTypeIndex.load(), 7u);
}

// Rules resolve their type lazily from any thread; the first resolutions
// race by design and must agree.
TEST(InterpreterRules, ConcurrentFirstMatchesAgree) {
    ZELKQuery query;
    std::vector<std::thread> threads;
    std::vector<size_t> seen(4 * 3);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&query, &seen, t] {
            seen[t * 3] = TypeOf(query, "/usr/bin/", "python3.11");
            seen[t * 3 + 1] = TypeOf(query, "/usr/sbin/", "prelink");
            seen[t * 3 + 2] = TypeOf(query, "/bin/", "bash");
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(seen[t * 3], 4u);
        EXPECT_EQ(seen[t * 3 + 1], 2u);
        EXPECT_EQ(seen[t * 3 + 2], 8u);
    }
    EXPECT_EQ(query.GetScriptInterpreterRules()[54].processTypeIndex.load(), 4u);
}

TEST(InterpreterRules, HashRulesAndUnknownRuleTypes) {
    ZELKQuery query;
    CaptureLogs();
    ac_process_info proc;
    proc.path = "/usr/bin/";
    proc.fileName = "tool";
    const std::string digest(32, '\x5a');

    ZELKQuery::ScriptInterpreter hashRule(AC_RULE_HASH, "", "", "", "perl");
    hashRule.hash.SetHash(digest.data());
    EXPECT_EQ(query.ApplyInterpreterRule(proc, hashRule), kNone);  // no process digest
    proc.sha256.SetHash(digest.data());
    EXPECT_EQ(query.ApplyInterpreterRule(proc, hashRule), 7u);
    proc.sha256.SetHash(std::string(32, '\x5b').data());
    EXPECT_EQ(query.ApplyInterpreterRule(proc, hashRule), kNone);

    ZELKQuery::ScriptInterpreter odd(static_cast<ac_interpreter_rule_type>(5), "", "tool", "",
                                     "perl");
    EXPECT_EQ(query.ApplyInterpreterRule(proc, odd), kNone);
    EXPECT_TRUE(zelktest::LogCapture::Get().Contains("Unknown rule type 5"));

    // An empty fragment matches every name; a name rule needs the exact name.
    ZELKQuery::ScriptInterpreter anything(AC_RULE_NAME_CONTAINS, "", "", "", "perl");
    EXPECT_EQ(query.ApplyInterpreterRule(proc, anything), 7u);
    ZELKQuery::ScriptInterpreter path(AC_RULE_PATH_NAME, "/usr/bin", "tool", "", "perl");
    EXPECT_EQ(query.ApplyInterpreterRule(proc, path), kNone);  // trailing "/" matters

    // The event form splits nothing itself and finds no match logged.
    ac_event evt;
    evt.processPath = "/usr/sbin/";
    evt.processFileName = "prelink";
    EXPECT_EQ(query.GetProcessInterpreterType(evt), 2u);
    evt.processFileName = "ls";
    EXPECT_EQ(query.GetProcessInterpreterType(evt), 0u);
    EXPECT_TRUE(
        zelktest::LogCapture::Get().Contains("No ScriptInterpreter Match rule match for ls"));
}

TEST(ProcessTypes, TimeStampModeFollowsTheEnableSetting) {
    const std::string dir = zelktest::ScratchDir();
    ZELKQuery query;
    // Store not open: the setting cannot be read, so gated types wait.
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(38));
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(39));

    ZELKDAL& dal = ZELKDAL::GetDAL();
    ASSERT_TRUE(dal.SetDBPath(dir + "/ac.db"));
    ASSERT_TRUE(dal.InitDB());
    // A new database enables HTML handling.
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(38));
    ASSERT_TRUE(dal.SetAppControlState("enableHTML", 0UL));
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(38));
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(39));
    ASSERT_TRUE(dal.SetAppControlState("enableHTML", 5UL));
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(39));

    ASSERT_TRUE(dal.SetAppControlState("enableHTML", 0UL));
    for (size_t pti = 0; pti < 38; ++pti) {
        EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(pti)) << pti;
    }
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(40));
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(kNone));
    dal.ShutdownDAL();
}

TEST(FileClassification, ItemTypes) {
    ZELKQuery query;
    struct Case {
        const char* file;
        unsigned mode;
        bool exec;
        bool symlink;
        uint32_t type;
    };
    const std::vector<Case> cases = {
        {"run.sh", S_IFDIR, false, false, 5},    {"run.sh", S_IFREG, false, true, 6},
        {"run.sh", S_IFLNK, false, false, 1},    {"dev", S_IFCHR, false, false, 1},
        {"dev", S_IFBLK, false, false, 1},       {"pipe", S_IFIFO, false, false, 1},
        {"sock", S_IFSOCK, false, false, 1},     {"run.sh", S_IFREG, false, false, 2},
        {"run.sh", S_IFREG, true, false, 3},     {"notes.txt", S_IFREG, false, false, 4},
        {"page.html", S_IFREG, false, false, 2}, {"setup.exe", S_IFREG, false, false, 4},
        {"x.jse", S_IFREG, false, false, 4},     {"x.tmp", S_IFREG, false, false, 2},
        {"README", S_IFREG, false, false, 4},    {"notes.txt", S_IFREG, true, false, 3},
    };
    for (const Case& c : cases) {
        ac_event evt = Target("/home/u/", c.file);
        evt.targetStat.st_mode = c.mode | 0755;
        evt.isexec = c.exec;
        evt.isSymlink = c.symlink;
        evt.itemType = 0;
        EXPECT_TRUE(query.GetItemType(evt));
        EXPECT_EQ(evt.itemType, c.type) << c.file << " mode " << c.mode;
    }
}

TEST(FileClassification, LibrariesInventoryAndScannedFolders) {
    ZELKQuery query;
    struct Case {
        const char* file;
        bool library;
        bool persist;
    };
    const std::vector<Case> cases = {
        {"libssl.so.1.1", true, true}, {"lib.so.6", true, true},      {"libc.so", true, true},
        {"x.dll", true, true},         {"libso.a", false, false},     {"x.so1", false, true},
        {"README", false, true},       {"photo.jpg", false, false},   {"setup.exe", false, true},
        {"module.ko", false, true},    {"x.1", false, true},          {"page.html", false, false},
        {"x.jse", false, true},        {"app.manifest", false, true}, {"x.SO", false, false},
        {"tool.so.d", true, true},
    };
    for (const Case& c : cases) {
        ac_event evt = Target("/usr/lib/", c.file);
        EXPECT_EQ(query.IsLibrary(evt), c.library) << c.file;
        EXPECT_EQ(query.ShouldPersistInInventory(evt), c.persist) << c.file;
    }
    ac_event noName = Target("/usr/lib/", "");
    noName.extension = "so";
    EXPECT_FALSE(query.IsLibrary(noName));

    struct Folder {
        const char* path;
        bool scanned;
    };
    const std::vector<Folder> folders = {
        {"/tmp/", false},
        {"/tmp/x/", false},
        {"/var/tmp/x/", false},
        {"/home/u/.cache/", false},
        {"/dev/null", false},
        {"/opt/zenoss/var/zeneventserver/index/a/", false},
        {"/data/yarn/nodemanager/usercache/", false},
        {"/apps/ecp/inventory/scripts/", false},
        {"/var/spool/postfix/", false},
        {"/var/spool/", true},
        {"/home/u/bin/", true},
        {"/tmp", true},
        {"/", true},
    };
    for (const Folder& f : folders) {
        ac_event evt = Target(f.path, "x");
        EXPECT_EQ(query.ShouldScanFolder(evt), f.scanned) << f.path;
        EXPECT_EQ(query.ShouldScanFile(evt), f.scanned) << f.path;
    }
    ac_event noFolder = Target("", "x");
    EXPECT_TRUE(query.ShouldScanFile(noFolder));
}

TEST(DriftTrust, PassThroughInventoryBuildAndPrelink) {
    ZELKQuery query;
    ZELKStats& stats = ZELKStats::GetStats();

    ac_event evt = Target("/home/u/", "a.bin");
    evt.passThroughFlag = 1;
    bool trusted = false;
    EXPECT_TRUE(query.ShouldTrustDrift(kNone, evt, trusted));
    EXPECT_TRUE(trusted);
    EXPECT_EQ(evt.trustMatch, 1u);

    evt = Target("/home/u/", "a.bin");
    config.SetInventoryExists(false);
    config.SetWhitelistInventory(true);
    trusted = false;
    EXPECT_TRUE(query.ShouldTrustDrift(0, evt, trusted));
    EXPECT_TRUE(trusted);
    EXPECT_EQ(evt.trustMatch, 1u);
    EXPECT_EQ(stats.Get("TotalApprovedDriftDuringInventory"), 1);
    config.SetWhitelistInventory(false);

    evt = Target("/usr/bin/", "ls");
    trusted = false;
    EXPECT_TRUE(query.ShouldTrustDrift(2, evt, trusted));
    EXPECT_TRUE(trusted);
    EXPECT_EQ(evt.trustMatch, 4u);
    EXPECT_EQ(evt.source, 5u);

    // A process of no type is classified on the spot and remembered.
    evt = Target("/usr/bin/", "ls");
    evt.pid = 77;
    evt.processName = "/usr/sbin/prelink";
    evt.processPath = "/usr/sbin/";
    evt.processFileName = "prelink";
    trusted = false;
    EXPECT_TRUE(query.ShouldTrustDrift(0, evt, trusted));
    EXPECT_TRUE(trusted);
    EXPECT_EQ(evt.source, 5u);
    EXPECT_EQ(query.GetProcessCache().GetProcess(77, "prelink"), 2u);

    evt = Target("/usr/bin/", "ls");
    evt.pid = 78;
    evt.processFileName = "ls";
    trusted = true;
    EXPECT_FALSE(query.ShouldTrustDrift(0, evt, trusted));
    EXPECT_FALSE(trusted);
    EXPECT_EQ(evt.trustMatch, 0u);
    EXPECT_EQ(query.GetProcessCache().GetAdditions(), 2u);  // type 0 is cached too
    for (size_t pti : {size_t{1}, size_t{4}, size_t{40}, kNone}) {
        EXPECT_FALSE(query.ShouldTrustDrift(pti, evt, trusted)) << pti;
    }
}

TEST(DriftTrust, EveryTrustedUpdaterTrustsItsFoldersOnly) {
    ZELKQuery query;
    ZELKStats& stats = ZELKStats::GetStats();
    struct Case {
        size_t pti;
        const char* counter;
        std::vector<const char*> folders;  // one per listed fragment
    };
    // clang-format off
    const std::vector<Case> cases = {
        {3, "javaTrustedDrift", {"/opt/IBM/WebSphere/AppServer/profiles/a/", "/opt/apps/lsam18s/tmp/SMA/"}},
        {6, "webTrustedDrift", {R"(C:\xampp\htdocs\portal\)"}},
        {8, "shellTrustedDrift", {"/opt/IBM/WebSphere/AppServer/profiles/", "/x/opt/apps/lsam18s/tmp/SMA"}},
        {9, "powerTrustedDrift", {R"(C:\temp\)", R"(C:\Users\u\AppData\Local\Microsoft_Corporation\)"}},
        {12, "sihclientTrustedDrift", {R"(C:\windows\softwaredistribution\)"}},
        {13, "linuxmodTrustedDrift", {"/opt/zelk_agent/mod/"}},
        {14, "driverTrustedDrift", {R"(C:\veltrix\)"}},
        {15, "trustedtarTrustedDrift", {"/opt/zelk_agent/bin/"}},
        {17, "dotnetTrustedDrift", {R"(C:\temp\)", R"(C:\windows\assembly\)"}},
        {18, "spoolsvTrustedDrift", {R"(C:\temp\)", R"(C:\windows\system32\spool\drivers\)", R"(C:\windows\syswow64\)"}},
        {19, "patchTrustedDrift", {R"(C:\kbrx\)"}},
        {20, "wmiprvseTrustedDrift", {R"(C:\temp\)", R"(C:\windows\microsoft.net\)"}},
        {21, "sdiagnhostTrustedDrift", {R"(C:\temp\)"}},
        {22, "mpamTrustedDrift", {R"(C:\temp\)"}},
        {23, "cleanmgrTrustedDrift", {R"(C:\temp\)", R"(C:\users\)"}},
        {24, "dismTrustedDrift", {R"(C:\temp\)", R"(C:\users\)"}},
        {25, "ieTrustedDrift", {R"(C:\temp\)", R"(C:\users\)"}},
        {26, "mrtTrustedDrift", {R"(C:\temp\)", R"(C:\windows\system32\)"}},
        {27, "poqexecTrustedDrift", {R"(C:\temp\)", R"(C:\program files)", R"(C:\windows\system32)"}},
        {28, "trustedinstallerTrustedDrift", {R"(C:\temp\)", R"(C:\windows\softwaredistribution)", R"(C:\windows\winsxs)", R"(C:\windows\system32)", R"(C:\windows\syswow64)", R"(C:\users)"}},
        {29, "msiexecTrustedDrift", {R"(C:\temp\)", R"(C:\windows\)", R"(C:\program files\veltrix)"}},
        {30, "mpsigstubTrustedDrift", {R"(C:\temp\)", R"(C:\windows\system32)"}},
        {31, "msmpengTrustedDrift", {R"(C:\temp\)", R"(C:\programdata\microsoft)", R"(C:\windows\winsxs)", R"(C:\windows\softwaredistribution\)"}},
        {32, "kb2901983TrustedDrift", {R"(C:\temp\)", R"(C:\8b5bc664f2d37f112f84bdc9)"}},
        {33, "kb890830TrustedDrift", {R"(C:\temp\)", R"(C:\windows\system32)"}},
        {34, "svchostTrustedDrift", {R"(C:\temp\)", R"(C:\windows\winsxs)", R"(C:\windows\microsoft.net)", R"(C:\windows\softwaredistribution)"}},
        {35, "tiworkerTrustedDrift", {R"(C:\temp\)", R"(C:\boot\)", R"(C:\windows\system32)", R"(C:\windows\assembly)", R"(C:\windows\winsxs)", R"(C:\windows\softwaredistribution\download)", R"(C:\windows\microsoft.net)", R"(C:\windows\inf)"}},
        {36, "aspentechTrustedDrift", {R"(C:\aspentech\)", R"(C:\safenet sentinel\)"}},
    };
    // clang-format on
    size_t checked = 0;
    for (const Case& c : cases) {
        const auto& type = query.GetProcessTypes()[c.pti];
        EXPECT_EQ(type.paths.size(), c.folders.size()) << c.pti;
        for (const char* folder : c.folders) {
            ac_event evt = Target(folder, "update.txt");
            bool trusted = false;
            EXPECT_TRUE(query.ShouldTrustDrift(c.pti, evt, trusted)) << c.pti << " " << folder;
            EXPECT_TRUE(trusted);
            EXPECT_EQ(evt.trustMatch, 4u);
        }
        EXPECT_EQ(stats.Get(c.counter), static_cast<long>(c.folders.size())) << c.counter;
        ac_event elsewhere = Target("/home/u/", "update.txt");
        bool trusted = true;
        EXPECT_FALSE(query.ShouldTrustDrift(c.pti, elsewhere, trusted)) << c.pti;
        EXPECT_FALSE(trusted);
        ++checked;
    }
    // Every other row trusts nothing by folder.
    for (size_t pti = 0; pti < query.GetProcessTypes().size(); ++pti) {
        if (pti == 2 || pti == 37) {
            continue;  // prelink trusts everything, mismatchop only renames
        }
        bool listed = false;
        for (const Case& c : cases) {
            listed = listed || c.pti == pti;
        }
        if (!listed) {
            ac_event evt = Target(R"(C:\temp\windows\users\)", "update.txt");
            bool trusted = true;
            EXPECT_FALSE(query.ShouldTrustDrift(pti, evt, trusted)) << pti;
        }
    }
    EXPECT_EQ(checked, 28u);

    // Case matters: the fragments are compared as stored.
    ac_event upper = Target(R"(C:\WINDOWS\)", "x.msi");
    bool trusted = true;
    EXPECT_FALSE(query.ShouldTrustDrift(29, upper, trusted));
}

TEST(DriftTrust, RenameOnlyTypes) {
    ZELKQuery query;
    ac_event evt = Target(R"(C:\temp\)", "x.dll");
    evt.abstractEventType = 6;
    bool trusted = true;
    EXPECT_FALSE(query.ShouldTrustDrift(37, evt, trusted));
    EXPECT_FALSE(trusted);
    evt.abstractEventType = 40;
    EXPECT_TRUE(query.ShouldTrustDrift(37, evt, trusted));
    EXPECT_TRUE(trusted);
    EXPECT_EQ(ZELKStats::GetStats().Get("mismatchopTrustedDrift"), 1);
}

TEST(DriftTrust, PowerShellScriptsNeedOneHarmlessLine) {
    const std::string dir = zelktest::ScratchDir();
    // The folder must contain the "\temp\" fragment of the PowerShell row.
    const std::string folder = dir + "/" + R"(\temp\)";
    ZELKQuery query;
    CaptureLogs();
    struct Case {
        const char* file;
        const char* content;  // null: no such file
        bool trust;
    };
    const std::vector<Case> cases = {
        {"comment.ps1", "# just a comment", true},
        {"one.ps1", "1", true},
        {"module.psm1", "# x", true},
        {"bare.ps1", "#", false},
        {"onenl.ps1", "1\n", false},  // two lines
        {"onetwo.ps1", "12", false},
        {"code.ps1", "Remove-Item x", false},
        {"twolines.ps1", "# a\n# b", false},
        {"hash.ps1", "#x", false},
        {"empty.ps1", "", false},
        {"missing.ps1", nullptr, false},
    };
    long trustedCount = 0;
    for (const Case& c : cases) {
        if (c.content != nullptr) {
            zelktest::WriteFile(folder + c.file, c.content);
        }
        ac_event evt = Target(folder, c.file);
        bool trusted = true;
        EXPECT_EQ(query.ShouldTrustDrift(9, evt, trusted), c.trust) << c.file;
        EXPECT_FALSE(trusted) << c.file;  // never reported through the flag
        EXPECT_EQ(evt.trustMatch, c.trust ? 4u : 0u) << c.file;
        trustedCount += c.trust ? 1 : 0;
    }
    EXPECT_EQ(ZELKStats::GetStats().Get("powerTrustedDrift"), trustedCount);
    auto& logs = zelktest::LogCapture::Get();
    EXPECT_TRUE(logs.Contains(folder + "one.ps1 detected as trusted script because of '1' " +
                              "header and only 1 line"));
    EXPECT_TRUE(logs.Contains(folder + "twolines.ps1 not detected as trusted script because " +
                              "the file has more than 1 line (2 lines)"));
    EXPECT_TRUE(logs.Contains(folder + "missing.ps1 could not be parsed properly"));

    // Other files written by PowerShell there are trusted outright, multi-line
    // or not.
    zelktest::WriteFile(folder + "data.txt", "a\nb\nc\n");
    ac_event evt = Target(folder, "data.txt");
    bool trusted = false;
    EXPECT_TRUE(query.ShouldTrustDrift(9, evt, trusted));
    EXPECT_TRUE(trusted);
}

TEST(FileStatus, LstatDescribesTheEntryItself) {
    const std::string dir = zelktest::ScratchDir();
    const std::string file = dir + "/file.bin";
    zelktest::WriteFile(file, "12345");
    ASSERT_EQ(symlink(file.c_str(), (dir + "/link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir + "/fifo").c_str(), 0600), 0);
    ZELKQuery query;

    ac_event evt;
    evt.name = dir + "/link";
    ASSERT_TRUE(ZELKQuery::Lstat(evt));
    EXPECT_TRUE(evt.isSymlink);
    EXPECT_EQ(evt.targetStat.st_mode & S_IFMT, static_cast<unsigned>(S_IFLNK));
    EXPECT_EQ(evt.targetStat.st_size, static_cast<off_t>(file.size()));  // the link text
    query.GetItemType(evt);
    EXPECT_EQ(evt.itemType, 6u);

    evt.name = dir;
    ASSERT_TRUE(ZELKQuery::Lstat(evt));
    EXPECT_FALSE(evt.isSymlink);
    EXPECT_TRUE(S_ISDIR(evt.targetStat.st_mode));
    query.GetItemType(evt);
    EXPECT_EQ(evt.itemType, 5u);

    evt.name = dir + "/fifo";
    ASSERT_TRUE(ZELKQuery::Lstat(evt));
    EXPECT_TRUE(S_ISFIFO(evt.targetStat.st_mode));
    query.GetItemType(evt);
    EXPECT_EQ(evt.itemType, 1u);

    evt.name = file;
    ASSERT_TRUE(ZELKQuery::Lstat(evt));
    struct stat plain;
    ASSERT_EQ(lstat(file.c_str(), &plain), 0);
    EXPECT_EQ(evt.targetStat.st_ino, plain.st_ino);
    EXPECT_EQ(evt.targetStat.st_dev, plain.st_dev);
    EXPECT_EQ(evt.targetStat.st_size, 5);
    EXPECT_EQ(evt.targetStat.st_mtim.tv_sec, plain.st_mtim.tv_sec);
    EXPECT_EQ(evt.targetStat.st_mtim.tv_nsec, plain.st_mtim.tv_nsec);
    EXPECT_EQ(evt.targetStat.st_nlink, plain.st_nlink);

    // The change time is the birth time: touching the mode later moves the
    // real change time but not ours.
    struct statx stx;
    ASSERT_EQ(statx(AT_FDCWD, file.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &stx), 0);
    if (stx.stx_mask & STATX_BTIME) {
        EXPECT_EQ(evt.targetStat.st_ctim.tv_sec, static_cast<time_t>(stx.stx_btime.tv_sec));
        EXPECT_EQ(evt.targetStat.st_ctim.tv_nsec, static_cast<long>(stx.stx_btime.tv_nsec));
    }

    // A missing file leaves the record as it was.
    ac_event missing;
    missing.name = dir + "/nothing";
    missing.isSymlink = 1;
    missing.targetStat.st_size = 99;
    EXPECT_FALSE(ZELKQuery::Lstat(missing));
    EXPECT_FALSE(missing.isSymlink);
    EXPECT_EQ(missing.targetStat.st_size, 99);
}

TEST(FileStatus, StatxConversion) {
    struct statx stx {};
    stx.stx_dev_major = 8;
    stx.stx_dev_minor = 3;
    stx.stx_rdev_major = 4;
    stx.stx_rdev_minor = 64;
    stx.stx_ino = 1234;
    stx.stx_mode = S_IFREG | 0644;
    stx.stx_nlink = 2;
    stx.stx_uid = 1000;
    stx.stx_gid = 100;
    stx.stx_size = 4096;
    stx.stx_blksize = 512;
    stx.stx_blocks = 8;
    stx.stx_atime = {11, 1, 0};
    stx.stx_mtime = {22, 2, 0};
    stx.stx_ctime = {33, 3, 0};
    stx.stx_btime = {44, 4, 0};
    struct stat st {};
    StatxToStat(stx, st);
    EXPECT_EQ(st.st_dev, makedev(8, 3));
    EXPECT_EQ(st.st_rdev, makedev(4, 64));
    EXPECT_EQ(st.st_ino, 1234u);
    EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0644));
    EXPECT_EQ(st.st_nlink, 2u);
    EXPECT_EQ(st.st_uid, 1000u);
    EXPECT_EQ(st.st_gid, 100u);
    EXPECT_EQ(st.st_size, 4096);
    EXPECT_EQ(st.st_blksize, 512);
    EXPECT_EQ(st.st_blocks, 8);
    EXPECT_EQ(st.st_atim.tv_sec, 11);
    EXPECT_EQ(st.st_atim.tv_nsec, 1);
    EXPECT_EQ(st.st_mtim.tv_sec, 22);
    EXPECT_EQ(st.st_mtim.tv_nsec, 2);
    EXPECT_EQ(st.st_ctim.tv_sec, 44);  // birth, not change
    EXPECT_EQ(st.st_ctim.tv_nsec, 4);
}

}  // namespace
