// Classification: process types, interpreter rules, file classification,
// drift trust and file status.  The expected values are written from the
// product's documented behaviour, independently of the source tables, so a
// wrong, missing or reordered row shows up as a failed case.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKDataAccessLayer.h"
#include "ZELKLogger.h"
#include "ZELKQuery.h"
#include "ZELKStats.h"

namespace {

constexpr size_t kNone = ZELKQuery::kNoProcessType;

zelktest::LogCapture& CaptureLogs() {
    ZELKLogger::GetInstance().InitLogger(&zelktest::LogCapture::Callback, 15);
    zelktest::LogCapture::Get().Clear();
    return zelktest::LogCapture::Get();
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

// ShouldTrustDrift's answer and the flag it leaves, the flag preset to `preset`.
std::pair<bool, bool> Drift(ZELKQuery& query, size_t pti, ac_event& evt, bool preset) {
    bool trusted = preset;
    const bool answer = query.ShouldTrustDrift(pti, evt, trusted);
    return {answer, trusted};
}
const std::pair<bool, bool> kTrusted{true, true};
const std::pair<bool, bool> kRejected{false, false};

size_t TypeOf(ZELKQuery& query, const std::string& dir, const std::string& file) {
    ac_process_info proc;
    proc.pid = 42;
    proc.path = dir;
    proc.fileName = file;
    return query.GetProcessInterpreterType(proc);
}

// The engine relies on the positions 0, 2, 35, 37, 38 and 39; the rest are
// spot checks of names, interpreter flags and extension lists.
TEST(ProcessTypes, FixedPositionsAndSpotRows) {
    ZELKQuery query;
    const auto& types = query.GetProcessTypes();
    ASSERT_EQ(types.size(), 40u);
    // index, name, interpreter flag, the whole extension list
    // clang-format off
    const std::tuple<size_t, const char*, bool, std::vector<const char*>> rows[] = {
        {0, "", false, {}}, {1, "normal", false, {}}, {2, "prelink", false, {}},
        {4, "python", true, {"py", "pyc", "pyo", "pyz", "pyd", "rb", "erb"}},
        {6, "web", true, {"php", "py", "pyc", "pyo", "pyz", "pyd", "rb", "erb"}},
        {11, "wscript", true, {"wsh", "vb", "vbs", "js", "jse", "ws", "wsf"}},
        {14, "driver", true, {"inf", "sys"}}, {15, "trustedtar", false, {}}, {35, "tiworker", false, {}},
        {37, "mismatchop", true, {}},  // an interpreter without extensions
        {38, "chm", true, {"chm"}}, {39, "browser", true, {"html", "htm", "js"}}};
    // clang-format on
    for (const auto& [pti, name, interpreter, runs] : rows) {
        SCOPED_TRACE(pti);
        EXPECT_EQ(types[pti].name, name);
        EXPECT_EQ(query.IsInterpreter(pti), interpreter);
        EXPECT_EQ(types[pti].extensions.size(), runs.size());
        for (const char* ext : runs) {
            EXPECT_TRUE(query.IsExtensionInterpreted(pti, ext)) << ext;
        }
    }
    for (size_t i = 0; i < types.size(); ++i) {
        EXPECT_EQ(types[i].isNormal, i == 1) << i;
        EXPECT_FALSE(types[i].signatureCheck) << i;
    }
    EXPECT_FALSE(query.IsExtensionInterpreted(4, "PY"));  // exact case
    EXPECT_FALSE(query.IsExtensionInterpreted(8, "bash"));

    auto& logs = CaptureLogs();
    EXPECT_FALSE(query.IsInterpreter(40));
    EXPECT_FALSE(query.IsInterpreter(kNone));
    EXPECT_TRUE(logs.Contains("processType 40 is not interpreter"));
    EXPECT_TRUE(logs.Contains("processType 18446744073709551615 is not interpreter"));
    EXPECT_FALSE(query.IsExtensionInterpreted(kNone, "sh"));
    EXPECT_TRUE(logs.Contains("processTypeIndex is nil"));

    EXPECT_TRUE(query.IsPrelink(2));
    for (size_t pti : {size_t{0}, size_t{1}, size_t{3}, size_t{40}, kNone}) {
        EXPECT_FALSE(query.IsPrelink(pti)) << pti;
    }
}

TEST(InterpreterRules, ExamplesYieldTheirType) {
    ZELKQuery query;
    // process folder, process file, type index.  Exact names are tried
    // before fragments, so javaws, kshell and sumatrapdf-3 show an ordering
    // fault.
    // clang-format off
    const std::tuple<const char*, const char*, size_t> cases[] = {
        {"/usr/sbin/", "prelink", 2},   {"/usr/bin/", "prelink", 0},    {"/opt/zelk_agent/bin/", "tar", 15},
        {"/bin/", "tar", 0},            {"/usr/bin/", "python3.9", 4},  {"/usr/lib/", "libphp.so", 5},
        {"/bin/", "sh", 8},             {"/bin/", "bash", 8},           {"/bin/", "zsh", 0},
        {"/usr/lib/firefox/", "firefox-bin", 0}, {"/opt/google/", "chrome", 39}, {"/usr/bin/", "firefox", 39},
        {"/usr/bin/", "chromium", 39},  {"/usr/bin/", "java", 3},       {"/usr/bin/", "javaws", 3},
        {"/opt/", "sma_lsam.bin", 3},   {"/usr/sbin/", "php-fpm8.1", 5}, {"/usr/sbin/", "nginx", 6},
        {"/usr/sbin/", "httpd", 6},     {"/usr/bin/", "perl5.36", 7},   {"/bin/", "ksh93", 8},
        {"/usr/bin/", "kshell", 8},     {"/sbin/", "kmod", 13},         {"/usr/bin/", "ls", 0},
        {"", "", 0},                    {"C:/", "powershell.exe", 9},   {"C:/", "cmd.exe", 10},
        {"C:/", "wscript.exe", 11},     {"C:/", "sihclient.exe", 12},   {"C:/", "devcon.exe", 14},
        {"C:/", "rundll32.exe", 16},    {"C:/", "mscorsvw.exe", 17},    {"C:/", "msiexec.exe", 29},
        {"C:/", "git.exe", 6},          {"C:/", "windows-kb890830-x64.exe", 33},
        {"C:/", "ie11-windows6.1.exe", 25}, {"C:/", "tiworker.exe", 35}, {"C:/", "ngen.exe", 35},
        {"C:/", "mismatchop.exe", 37},  {"C:/", "hh.exe", 38},          {"C:/", "SumatraPDF.exe", 0},
        {"C:/", "sumatrapdf-3.exe", 38}};
    // clang-format on
    for (const auto& [dir, file, pti] : cases) {
        EXPECT_EQ(TypeOf(query, dir, file), pti) << dir << file;
    }

    const auto& rules = query.GetScriptInterpreterRules();
    ASSERT_EQ(rules.size(), 71u);
    EXPECT_EQ(rules[0].ruleType, AC_RULE_NONE);
    // The second prelink rule is a copy of the first and is kept.
    EXPECT_EQ(rules[66].ruleType, rules[67].ruleType);
    EXPECT_EQ(rules[66].path + rules[66].name, rules[67].path + rules[67].name);
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
    // The cache is trusted: a stale value is returned without a search.
    known.processTypeIndex = 7;
    EXPECT_EQ(query.GetProcessTypeId(known), 7u);
    EXPECT_EQ(ZELKQuery::ScriptInterpreter(known).processTypeIndex.load(), 7u);  // copies keep it

    ZELKQuery::ScriptInterpreter unknown(AC_RULE_NAME, "", "x", "", "nosuchtype");
    EXPECT_EQ(query.GetProcessTypeId(unknown), 0u);
    EXPECT_EQ(query.GetProcessTypeId(unknown), 0u);
    EXPECT_EQ(unknown.processTypeIndex.load(), kNone);

    ZELKQuery::ScriptInterpreter empty(AC_RULE_NONE, "", "", "", "");
    EXPECT_EQ(query.GetProcessTypeId(empty), 0u);
    EXPECT_EQ(empty.processTypeIndex.load(), 0u);
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
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i], (std::vector<size_t>{4, 2, 8}[i % 3])) << i;
    }
    EXPECT_EQ(query.GetScriptInterpreterRules()[54].processTypeIndex.load(), 4u);
}

TEST(InterpreterRules, HashRulesAndUnknownRuleTypes) {
    ZELKQuery query;
    auto& logs = CaptureLogs();
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
    EXPECT_TRUE(logs.Contains("Unknown rule type 5"));

    // An empty fragment matches every name; a path rule needs the exact path.
    ZELKQuery::ScriptInterpreter anything(AC_RULE_NAME_CONTAINS, "", "", "", "perl");
    EXPECT_EQ(query.ApplyInterpreterRule(proc, anything), 7u);
    ZELKQuery::ScriptInterpreter path(AC_RULE_PATH_NAME, "/usr/bin", "tool", "", "perl");
    EXPECT_EQ(query.ApplyInterpreterRule(proc, path), kNone);  // trailing "/" matters

    ac_event evt;
    evt.processPath = "/usr/sbin/";
    evt.processFileName = "prelink";
    EXPECT_EQ(query.GetProcessInterpreterType(evt), 2u);
    evt.processFileName = "ls";
    EXPECT_EQ(query.GetProcessInterpreterType(evt), 0u);
    EXPECT_TRUE(logs.Contains("No ScriptInterpreter Match rule match for ls"));
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
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(38));  // a new database enables HTML
    ASSERT_TRUE(dal.SetAppControlState("enableHTML", 0UL));
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(38));
    EXPECT_TRUE(query.IsProcessTypeInTimeStampMode(39));
    for (size_t pti : {size_t{0}, size_t{2}, size_t{9}, size_t{37}, size_t{40}, kNone}) {
        EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(pti)) << pti;
    }
    ASSERT_TRUE(dal.SetAppControlState("enableHTML", 5UL));
    EXPECT_FALSE(query.IsProcessTypeInTimeStampMode(39));
    dal.ShutdownDAL();
}

TEST(FileClassification, ItemTypes) {
    ZELKQuery query;
    // file, file type bits, exec flag, symlink flag, item type
    const std::tuple<const char*, unsigned, bool, bool, uint32_t> cases[] = {
        {"run.sh", S_IFDIR, false, false, 5},    {"run.sh", S_IFREG, false, true, 6},
        {"run.sh", S_IFLNK, false, false, 1},    {"dev", S_IFCHR, false, false, 1},
        {"dev", S_IFBLK, false, false, 1},       {"pipe", S_IFIFO, false, false, 1},
        {"sock", S_IFSOCK, false, false, 1},     {"run.sh", S_IFREG, false, false, 2},
        {"run.sh", S_IFREG, true, false, 3},     {"notes.txt", S_IFREG, false, false, 4},
        {"page.html", S_IFREG, false, false, 2}, {"setup.exe", S_IFREG, false, false, 4},
        {"x.jse", S_IFREG, false, false, 4},     {"x.tmp", S_IFREG, false, false, 2},
        {"README", S_IFREG, false, false, 4},    {"notes.txt", S_IFREG, true, false, 3}};
    for (const auto& [file, mode, exec, symlink, type] : cases) {
        ac_event evt = Target("/home/u/", file);
        evt.targetStat.st_mode = mode | 0755;
        evt.isexec = exec;
        evt.isSymlink = symlink;
        evt.itemType = 0;
        EXPECT_TRUE(query.GetItemType(evt));
        EXPECT_EQ(evt.itemType, type) << file << " mode " << mode;
    }
}

TEST(FileClassification, LibrariesInventoryAndScannedFolders) {
    ZELKQuery query;
    // file, is a library, kept in the inventory
    const std::tuple<const char*, bool, bool> cases[] = {
        {"libssl.so.1.1", true, true}, {"lib.so.6", true, true},      {"libc.so", true, true},
        {"x.dll", true, true},         {"libso.a", false, false},     {"x.so1", false, true},
        {"README", false, true},       {"photo.jpg", false, false},   {"setup.exe", false, true},
        {"module.ko", false, true},    {"x.1", false, true},          {"page.html", false, false},
        {"x.jse", false, true},        {"app.manifest", false, true}, {"x.SO", false, false},
        {"tool.so.d", true, true}};
    for (const auto& [file, library, persist] : cases) {
        ac_event evt = Target("/usr/lib/", file);
        EXPECT_EQ(query.IsLibrary(evt), library) << file;
        EXPECT_EQ(query.ShouldPersistInInventory(evt), persist) << file;
    }
    ac_event noName = Target("/usr/lib/", "");
    noName.extension = "so";
    EXPECT_FALSE(query.IsLibrary(noName));

    // folder, scanned
    // clang-format off
    const std::pair<const char*, bool> folders[] = {
        {"/tmp/", false}, {"/tmp/x/", false}, {"/var/tmp/x/", false}, {"/home/u/.cache/", false},
        {"/dev/null", false}, {"/opt/zenoss/var/zeneventserver/index/a/", false},
        {"/data/yarn/nodemanager/usercache/", false}, {"/apps/ecp/inventory/scripts/", false},
        {"/var/spool/postfix/", false}, {"/var/spool/", true}, {"/home/u/bin/", true},
        {"/tmp", true}, {"/", true}};
    // clang-format on
    for (const auto& [path, scanned] : folders) {
        ac_event evt = Target(path, "x");
        EXPECT_EQ(query.ShouldScanFolder(evt), scanned) << path;
        EXPECT_EQ(query.ShouldScanFile(evt), scanned) << path;
    }
    ac_event noFolder = Target("", "x");
    EXPECT_TRUE(query.ShouldScanFile(noFolder));
}

TEST(DriftTrust, PassThroughInventoryBuildAndPrelink) {
    ZELKQuery query;
    ac_event evt = Target("/home/u/", "a.bin");
    evt.passThroughFlag = 1;
    EXPECT_EQ(Drift(query, kNone, evt, false), kTrusted);
    EXPECT_EQ(evt.trustMatch, 1u);

    evt = Target("/home/u/", "a.bin");
    config.SetInventoryExists(false);
    config.SetWhitelistInventory(true);
    EXPECT_EQ(Drift(query, 0, evt, false), kTrusted);
    EXPECT_EQ(evt.trustMatch, 1u);
    EXPECT_EQ(ZELKStats::GetStats().Get("TotalApprovedDriftDuringInventory"), 1);
    config.SetWhitelistInventory(false);

    evt = Target("/usr/bin/", "ls");
    EXPECT_EQ(Drift(query, 2, evt, false), kTrusted);
    EXPECT_EQ(evt.trustMatch, 4u);
    EXPECT_EQ(evt.source, 5u);

    // A process of no type is classified on the spot and remembered.
    evt = Target("/usr/bin/", "ls");
    evt.pid = 77;
    evt.processName = "/usr/sbin/prelink";
    evt.processPath = "/usr/sbin/";
    evt.processFileName = "prelink";
    EXPECT_EQ(Drift(query, 0, evt, false), kTrusted);
    EXPECT_EQ(evt.source, 5u);
    EXPECT_EQ(query.GetProcessCache().GetProcess(77, "prelink"), 2u);

    evt = Target("/usr/bin/", "ls");
    evt.pid = 78;
    evt.processFileName = "ls";
    EXPECT_EQ(Drift(query, 0, evt, true), kRejected);
    EXPECT_EQ(evt.trustMatch, 0u);
    EXPECT_EQ(query.GetProcessCache().GetAdditions(), 2u);  // type 0 is cached too
    for (size_t pti : {size_t{1}, size_t{4}, size_t{40}, kNone}) {
        EXPECT_EQ(Drift(query, pti, evt, true), kRejected) << pti;
    }
}

TEST(DriftTrust, TrustedUpdatersTrustTheirFoldersOnly) {
    ZELKQuery query;
    // type, its counter, folders that each contain one of its fragments
    // clang-format off
    const std::tuple<size_t, const char*, std::vector<const char*>> cases[] = {
        {3, "javaTrustedDrift", {"/opt/IBM/WebSphere/AppServer/profiles/a/", "/opt/apps/lsam18s/tmp/SMA/"}},
        {15, "trustedtarTrustedDrift", {"/opt/zelk_agent/bin/"}},
        {29, "msiexecTrustedDrift", {R"(C:\temp\)", R"(C:\windows\)", R"(C:\program files\veltrix)"}},
        {35, "tiworkerTrustedDrift", {R"(C:\boot\)", R"(C:\windows\inf)"}},
        {36, "aspentechTrustedDrift", {R"(C:\aspentech\)", R"(C:\safenet sentinel\)"}}};
    // clang-format on
    for (const auto& [pti, counter, folders] : cases) {
        for (const char* folder : folders) {
            ac_event evt = Target(folder, "update.txt");
            EXPECT_EQ(Drift(query, pti, evt, false), kTrusted) << pti << " " << folder;
            EXPECT_EQ(evt.trustMatch, 4u);
        }
        EXPECT_EQ(ZELKStats::GetStats().Get(counter), static_cast<long>(folders.size()));
    }
    // No row trusts a folder none of its fragments names; rows without
    // fragments trust nothing (prelink trusts all, mismatchop only renames).
    const auto& types = query.GetProcessTypes();
    for (size_t pti = 0; pti < types.size(); ++pti) {
        ac_event evt = Target(types[pti].paths.empty() ? R"(C:\temp\windows\users\)" : "/home/u/",
                              "update.txt");
        if (pti != 2 && pti != 37) {
            EXPECT_EQ(Drift(query, pti, evt, true), kRejected) << pti;
        }
    }
    ac_event upper = Target(R"(C:\WINDOWS\)", "x.msi");  // fragments keep their case
    EXPECT_EQ(Drift(query, 29, upper, true), kRejected);
}

TEST(DriftTrust, RenameOnlyTypes) {
    ZELKQuery query;
    ac_event evt = Target(R"(C:\temp\)", "x.dll");
    evt.abstractEventType = 6;
    EXPECT_EQ(Drift(query, 37, evt, true), kRejected);
    evt.abstractEventType = 40;
    EXPECT_EQ(Drift(query, 37, evt, false), kTrusted);
    EXPECT_EQ(ZELKStats::GetStats().Get("mismatchopTrustedDrift"), 1);
}

TEST(DriftTrust, PowerShellScriptsNeedOneHarmlessLine) {
    // The folder must contain the "\temp\" fragment of the PowerShell row.
    const std::string folder = zelktest::ScratchDir() + "/" + R"(\temp\)";
    ZELKQuery query;
    auto& logs = CaptureLogs();
    // file, content (null: no such file), trusted
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"comment.ps1", "# just a comment", true},
        {"one.ps1", "1", true},
        {"module.psm1", "# x", true},
        {"bare.ps1", "#", false},
        {"onenl.ps1", "1\n", false},
        {"onetwo.ps1", "12", false},
        {"code.ps1", "Remove-Item x", false},
        {"twolines.ps1", "# a\n# b", false},
        {"hash.ps1", "#x", false},
        {"empty.ps1", "", false},
        {"missing.ps1", nullptr, false}};
    long trustedCount = 0;
    for (const auto& [file, content, trust] : cases) {
        if (content != nullptr) {
            zelktest::WriteFile(folder + file, content);
        }
        ac_event evt = Target(folder, file);
        // A trusted script is never reported through the flag.
        EXPECT_EQ(Drift(query, 9, evt, true), std::make_pair(trust, false)) << file;
        EXPECT_EQ(evt.trustMatch, trust ? 4u : 0u) << file;
        trustedCount += trust ? 1 : 0;
    }
    EXPECT_EQ(ZELKStats::GetStats().Get("powerTrustedDrift"), trustedCount);
    EXPECT_TRUE(logs.Contains(folder + "one.ps1 detected as trusted script because of '1' " +
                              "header and only 1 line"));
    EXPECT_TRUE(logs.Contains(folder + "twolines.ps1 not detected as trusted script because " +
                              "the file has more than 1 line (2 lines)"));
    EXPECT_TRUE(logs.Contains(folder + "missing.ps1 could not be parsed properly"));

    // Other files written by PowerShell there are trusted outright.
    zelktest::WriteFile(folder + "data.txt", "a\nb\nc\n");
    ac_event evt = Target(folder, "data.txt");
    EXPECT_EQ(Drift(query, 9, evt, false), kTrusted);
}

TEST(FileStatus, LstatDescribesTheEntryItself) {
    const std::string dir = zelktest::ScratchDir();
    const std::string file = dir + "/file.bin";
    zelktest::WriteFile(file, "12345");
    ASSERT_EQ(symlink(file.c_str(), (dir + "/link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir + "/fifo").c_str(), 0600), 0);
    ZELKQuery query;

    // entry, file type bits, item type
    const std::tuple<std::string, unsigned, uint32_t> cases[] = {
        {dir + "/link", S_IFLNK, 6}, {dir, S_IFDIR, 5}, {dir + "/fifo", S_IFIFO, 1}};
    for (const auto& [name, format, itemType] : cases) {
        ac_event evt;
        evt.name = name;
        ASSERT_TRUE(ZELKQuery::Lstat(evt)) << name;
        EXPECT_EQ(evt.isSymlink, format == S_IFLNK) << name;
        EXPECT_EQ(evt.targetStat.st_mode & S_IFMT, format) << name;
        query.GetItemType(evt);
        EXPECT_EQ(evt.itemType, itemType) << name;
        if (format == S_IFLNK) {
            EXPECT_EQ(evt.targetStat.st_size, static_cast<off_t>(file.size()));  // the link text
        }
    }

    ac_event evt;
    evt.name = file;
    ASSERT_TRUE(ZELKQuery::Lstat(evt));
    struct stat plain;
    ASSERT_EQ(lstat(file.c_str(), &plain), 0);
    EXPECT_EQ(evt.targetStat.st_ino, plain.st_ino);
    EXPECT_EQ(evt.targetStat.st_dev, plain.st_dev);
    EXPECT_EQ(evt.targetStat.st_size, 5);
    EXPECT_EQ(evt.targetStat.st_mtim.tv_nsec, plain.st_mtim.tv_nsec);
    // The change time is the birth time, where the file system keeps one.
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
    EXPECT_EQ(std::make_tuple(st.st_dev, st.st_rdev, st.st_ino, st.st_mode, st.st_nlink),
              std::make_tuple(makedev(8, 3), makedev(4, 64), ino_t{1234},
                              static_cast<mode_t>(S_IFREG | 0644), nlink_t{2}));
    EXPECT_EQ(std::make_tuple(st.st_uid, st.st_gid, st.st_size, st.st_blksize, st.st_blocks),
              std::make_tuple(uid_t{1000}, gid_t{100}, off_t{4096}, blksize_t{512}, blkcnt_t{8}));
    EXPECT_EQ(std::make_tuple(st.st_atim.tv_sec, st.st_atim.tv_nsec, st.st_mtim.tv_sec,
                              st.st_mtim.tv_nsec, st.st_ctim.tv_sec, st.st_ctim.tv_nsec),
              std::make_tuple(11, 1, 22, 2, 44, 4))  // the change time is the birth time
        << "times";
}

}  // namespace
