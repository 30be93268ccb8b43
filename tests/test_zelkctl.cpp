// zelkctl end to end: each command runs as its own process on a scratch
// database, as a user would run it; the host-kit pieces it is built from are
// tested directly.
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "HostDigest.h"
#include "HostEvent.h"
#include "PersistRule.h"
#include "TestUtil.h"
#include "TraceParser.h"
#include "ZelkctlTestUtil.h"

using zelktest::ReadFile;

using namespace ctltest;

namespace {

// Null-safe text of a host event field.
std::string Text(const char* field) {
    return field ? field : "<null>";
}

}  // namespace

TEST(HostKit, DigestsEventsTracesAndPersistRule) {
    std::string dir = zelktest::ScratchDir();
    zelktest::WriteFile(dir + "/abc", "abc");
    hostkit::FileDigests d;
    int err = 0;
    ASSERT_TRUE(hostkit::DigestFile(dir + "/abc", d, err));
    EXPECT_EQ(hostkit::ToHex(d.md5, 16), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(hostkit::ToHex(d.sha1, 20), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(hostkit::ToHex(d.sha256, 32),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(d.size, 3u);
    // A symbolic link is not followed: the host hashes what is at the path.
    ASSERT_EQ(symlink((dir + "/abc").c_str(), (dir + "/link").c_str()), 0);
    EXPECT_FALSE(hostkit::DigestFile(dir + "/link", d, err));
    EXPECT_EQ(err, ELOOP);

    uint8_t bytes[2];
    EXPECT_TRUE(hostkit::FromHex("0aFf", bytes, 2));
    EXPECT_EQ(bytes[1], 0xff);
    EXPECT_FALSE(hostkit::FromHex("0aF", bytes, 2));
    EXPECT_FALSE(hostkit::FromHex("0g00", bytes, 2));
    uint32_t code = 0;
    EXPECT_TRUE(hostkit::EventCodeForName("create-post", code));
    EXPECT_EQ(code, ZELK_EVENT_CREATE_POST);
    EXPECT_FALSE(hostkit::EventCodeForName("execute", code));
    EXPECT_EQ(hostkit::NameForEvent(ZELK_EVENT_DELETE_POST_ALT), "delete");
    EXPECT_EQ(hostkit::NameForEvent(99), "code 99");

    hostkit::TraceLine line;
    std::string error;
    ASSERT_TRUE(hostkit::ParseTraceLine(
        R"({"type":"mmap","pid":7,"process":"${D}/p","target":"${D}/t","mode":"0755",)"
        R"("flags":"0x240","dirty":1,"fileIssuer":{"CN":"ca","OU":"unit"},"extra":1,)"
        R"("md5":"900150983CD24FB0D6963F7D28E17F72"})",
        {{"D", "/srv"}}, line, error))
        << error;
    ac_wrapper_event_s raw = line.event.Raw();
    EXPECT_EQ((std::vector<uint64_t>{raw.eventType, raw.pid, raw.mode, raw.flags, raw.dirty}),
              (std::vector<uint64_t>{ZELK_EVENT_MMAP_PRE, 7, 0755, 0x240, 1}));
    EXPECT_EQ((std::vector<std::string>{Text(raw.processName), Text(raw.name),
                                        Text(raw.fileIssuer[hostkit::kIssuerCN]),
                                        Text(raw.fileIssuer[hostkit::kIssuerOU]),
                                        Text(raw.fileIssuer[hostkit::kIssuerC]), Text(raw.user)}),
              (std::vector<std::string>{"/srv/p", "/srv/t", "ca", "unit", "<null>", "<null>"}));
    EXPECT_EQ(raw.fileSha256, nullptr);
    ASSERT_NE(raw.fileMd5, nullptr);
    EXPECT_EQ(raw.fileMd5[0], 0x90);
    EXPECT_EQ(line.warnings.size(), 1u) << "for \"extra\"";

    // Truncated, not an object, no type, unknown type, negative, numbers
    // beyond 64 bits, short digest, unset variable, wrong type.
    const char* const bad[] = {"{\"type\":\"exec\"",
                               "[1,2]",
                               "{\"pid\":1}",
                               "{\"type\":\"run\"}",
                               "{\"type\":\"exec\",\"pid\":-1}",
                               "{\"type\":\"exec\",\"pid\":1e60}",
                               "{\"type\":\"exec\",\"size\":18446744073709551616}",
                               "{\"type\":\"exec\",\"sha256\":\"ab\"}",
                               "{\"type\":\"exec\",\"target\":\"${NOPE_ZELK_VAR}\"}",
                               "{\"type\":\"exec\",\"isexec\":\"yes\"}"};
    for (const char* text : bad) {
        EXPECT_FALSE(hostkit::ParseTraceLine(text, {}, line, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
    EXPECT_TRUE(hostkit::IsTraceFiller("   "));
    EXPECT_TRUE(hostkit::IsTraceFiller("  # note"));
    EXPECT_FALSE(hostkit::IsTraceFiller("{}"));

    // The names the engine keeps in the inventory.
    for (const char* name : {"README", "lib.so.6", "setup.exe", "module.ko", "libssl.so.1.1",
                             "x.so1", "run.sh", "trailing."}) {
        EXPECT_TRUE(hostkit::ShouldPersistFile(name)) << name;
    }
    for (const char* name : {"photo.jpg", "libso.a", "page.html", ".bashrc", "notes.txt"}) {
        EXPECT_FALSE(hostkit::ShouldPersistFile(name)) << name;
    }
}

TEST(Zelkctl, UsageAndEngineErrorsHaveTheirExitCodes) {
    std::string dir = zelktest::ScratchDir();
    Zelkctl(dir, {"scan", dir}, 2);  // no --db
    Zelkctl(dir, {"frobnicate"}, 2);
    Zelkctl(dir, {"purge", "--db", dir + "/x.db", "--source", "9"}, 2);
    ExpectAll(Zelkctl(dir, {"--help"}).out, {"replay"});
    for (const char* cmd : {"scan", "check", "replay", "status", "lint", "import", "export",
                            "metrics", "config", "purge", "demo"}) {
        ExpectAll(Zelkctl(dir, {cmd, "--help"}).out, {"Usage"});
    }
    // A file that is not a database: the engine refuses it, named with the
    // status in words.
    zelktest::WriteFile(dir + "/not.db", std::string(4096, 'x'));
    ExpectAll(Zelkctl(dir, {"metrics", "--db", dir + "/not.db"}, 3).err,
              {dir + "/not.db: database could not be opened (0xC0000006)"});
    ExpectAll(Zelkctl(dir, {"status", "--db", dir + "/missing.db"}, 3).err, {"missing.db"});
}

TEST(Zelkctl, LintNamesEveryElementTheImporterWouldMishandle) {
    std::string dir = zelktest::ScratchDir();
    for (const char* example :
         {"demo-ruleset.json", "demo-agent-manifest.json", "demo-trustrules.json"}) {
        CtlRun r = Zelkctl(dir, {"lint", std::string(ZELK_EXAMPLES_DIR) + "/" + example});
        ExpectAll(r.out, {"0 findings"});
        EXPECT_EQ(Contains(r.out, "agent manifest"), Contains(example, "manifest")) << r.out;
    }

    const std::string sha = "{\"sha256\":\"";
    zelktest::WriteFile(dir + "/rules.json",
                        "{\"rules\":[" + sha + std::string(64, 'a') + "\",\"action\":\"allow\"}," +
                            sha + std::string(63, 'a') + "\",\"action\":\"allow\"},{\"sha1\":\"" +
                            std::string(40, 'g') + "\",\"action\":\"block\"}," + sha +
                            std::string(64, 'b') + "\",\"action\":\"deny\"}," + sha +
                            std::string(64, 'c') + "\",\"size\":\"12x\"},\"text\"]}");
    CtlRun r = Zelkctl(dir, {"lint", dir + "/rules.json"}, 1);
    EXPECT_FALSE(Contains(r.out, "rules[0]")) << r.out;
    ExpectAll(r.out,
              {"hash ruleset 'rules', 6 rules", "rules[1].sha256: 63 characters",
               "rules[2].sha1: holds characters that are not hexadecimal",
               "rules[2]: no usable digest", "rules[3].action: \"deny\" is neither allow nor block",
               "rules[4].size: \"12x\" has trailing text: read as 12",
               "rules[4].action: missing: stored as allowed", "rules[5]: not an object"});

    // The same text named as trust rules is judged as trust rules.
    zelktest::WriteFile(dir + "/t.json",
                        R"({"Trustrules":[{"trustType":2,"paths":"/opt/*"},)"
                        R"({"trustType":7,"paths":"opt/app;;"},{"trustType":"2","paths":";;"},)"
                        R"({"paths":"/x","userList":"ops","trusttype":1}]})");
    r = Zelkctl(dir, {"lint", dir + "/t.json", "--name", "SiteTrustRules"}, 1);
    EXPECT_FALSE(Contains(r.out, "Trustrules[0]")) << r.out;
    ExpectAll(r.out,
              {"trust rules 'SiteTrustRules', 4 trust rules",
               "Trustrules[1].trustType: 7 is outside 0 to 4", "\"opt/app\" does not start with",
               "Trustrules[2].paths: only separators", "Trustrules[3]: unknown key \"trusttype\"",
               "Trustrules[3].userList: \"ops\" is not defined"});

    for (const char* text : {"", "{\"rules\":[]}", "{\"rules\": [1,", "[]"}) {
        zelktest::WriteFile(dir + "/e.json", text);
        Zelkctl(dir, {"lint", dir + "/e.json"}, 1);
    }

}

TEST(Zelkctl, ScanStoresPersistedFilesAndListsUnreadableOnes) {
    std::string dir = zelktest::ScratchDir();
    std::string tree = dir + "/tree";
    mkdir(tree.c_str(), 0755);
    mkdir((tree + "/sub").c_str(), 0755);
    WriteExecutable(tree + "/tool", "#!/bin/sh\necho tool\n");
    WriteExecutable(tree + "/sub/libx.so.2", "library bytes", 0644);
    WriteExecutable(tree + "/notes.txt", "not kept", 0644);
    WriteExecutable(tree + "/secret", "nobody reads this", 0000);
    ASSERT_EQ(symlink((tree + "/tool").c_str(), (tree + "/tool-link").c_str()), 0);
    const std::string db = dir + "/ac.db";

    CtlRun r = Zelkctl(dir, {"scan", "--db", db, tree}, 0, true);
    ExpectAll(r.out, {"scanned 3 files", "1 not persisted by name, 1 symbolic links",
                      "unreadable: 1\n  " + tree + "/secret: Permission denied",
                      "2 stored as scanned items"});
    // Not a terminal: plain progress lines only, never a redrawn bar.
    EXPECT_FALSE(Contains(r.err, "\r")) << r.err;

    Zelkctl(dir, {"export", "--db", db, "--out", dir + "/inv.json"});
    ExportDoc doc = ReadExport(dir + "/inv.json", "nativePath");
    EXPECT_EQ(doc.RowSet(), (std::set<std::pair<std::string, std::string>>{
                                {tree + "/tool", Sha256Hex(tree + "/tool")},
                                {tree + "/sub/libx.so.2", Sha256Hex(tree + "/sub/libx.so.2")}}));
    EXPECT_EQ(doc.sources, std::set<int>{ZELK_SOURCE_SCANNED});
    ExpectAll(Zelkctl(dir, {"status", "--db", db}).out,
              {"schema version:  15", "3 scanned inventory    2"});
}

TEST(Zelkctl, ExportImportRoundTripAndPurge) {
    std::string dir = zelktest::ScratchDir();
    std::string tree = dir + "/tree";
    mkdir(tree.c_str(), 0755);
    for (int i = 0; i < 5; ++i) {
        WriteExecutable(tree + "/prog" + std::to_string(i), "#!/bin/sh\necho " + std::to_string(i));
    }
    const std::string a = dir + "/a.db", b = dir + "/b.db";
    Zelkctl(dir, {"scan", "--db", a, tree});
    Zelkctl(dir, {"import", "--db", a, std::string(ZELK_EXAMPLES_DIR) + "/demo-trustrules.json"});
    Zelkctl(dir, {"export", "--db", a, "--out", dir + "/a.json"});
    Zelkctl(dir, {"export", "--db", a, "--out", dir + "/at.json", "--trust-rules"});
    ExportDoc all = ReadExport(dir + "/a.json", "sha256");
    ASSERT_EQ(all.rows.size(), 5u);
    // Paging: from the first row's id, at most two rows.
    ExpectAll(Zelkctl(dir, {"export", "--db", a, "--out", dir + "/page.json", "--limit", "2"}).out,
              {"2 rows"});
    EXPECT_EQ(ReadExport(dir + "/page.json", "sha256").rows.size(), 2u);

    // An inventory export imported elsewhere becomes a hash ruleset with the
    // same digests; a trust-rule export becomes trust rules again, under a
    // TrustRules name only.
    ExpectAll(Zelkctl(dir, {"import", "--db", b, dir + "/a.json", "--name", "from-a"}).out,
              {"hash ruleset, from an export): 5 rules"});
    Zelkctl(dir, {"import", "--db", b, dir + "/at.json"}, 2);
    ExpectAll(Zelkctl(dir, {"import", "--db", b, dir + "/at.json", "--name", "copyTrustRules"}).out,
              {"4 trust rules"});
    Zelkctl(dir, {"export", "--db", b, "--out", dir + "/b.json"});
    ExportDoc copy = ReadExport(dir + "/b.json", "sha256");
    EXPECT_EQ(copy.RowSet(), all.RowSet());
    EXPECT_EQ(copy.sources, std::set<int>{ZELK_SOURCE_EXECUTION_RULES});
    Zelkctl(dir, {"export", "--db", b, "--out", dir + "/bt.json", "--trust-rules"});
    EXPECT_EQ(ReadExport(dir + "/bt.json", "paths").rows,
              ReadExport(dir + "/at.json", "paths").rows);

    Zelkctl(dir, {"purge", "--db", b, "--source", "2"});
    Zelkctl(dir, {"export", "--db", b, "--out", dir + "/b2.json"});
    EXPECT_TRUE(ReadExport(dir + "/b2.json", "sha256").rows.empty());
}

TEST(Zelkctl, MetricsAndConfigDocuments) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    // 2023-11-14 22:13:20 UTC for one hour.
    ExpectAll(Zelkctl(dir, {"config", "--db", db, "--lockdown", "--maintenance",
                            "1700000000000,1700003600000"})
                  .out,
              {"lockdown, maintenance 2023-11-14 22:13:20 UTC .. 2023-11-14 23:13:20 UTC (over)"});
    ExpectAll(Zelkctl(dir, {"status", "--db", db}).out,
              {"host modes:      lockdown, maintenance 2023-11-14 22:13:20 UTC",
               "autoAuthorizeStartTime   1700000000000", "autoAuthorizeEndTime     1700003600000"});
    Zelkctl(dir, {"config", "--db", db, "--maintenance", "9"}, 2);

    for (bool pretty : {false, true}) {
        CtlRun r = pretty ? Zelkctl(dir, {"metrics", "--db", db, "--pretty"})
                          : Zelkctl(dir, {"metrics", "--db", db});
        cJSON* doc = cJSON_Parse(r.out.c_str());
        const cJSON* version = cJSON_GetObjectItemCaseSensitive(
            cJSON_GetObjectItemCaseSensitive(doc, "metrics"), "ACVersion");
        ASSERT_TRUE(cJSON_IsString(version)) << r.out;
        EXPECT_STREQ(version->valuestring, "12.0.178");
        EXPECT_EQ(pretty, Contains(r.out, "\n\t")) << r.out;
        cJSON_Delete(doc);
    }
}

TEST(Zelkctl, CheckReportsAllowedBlockedAndUnknownFiles) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db", good = dir + "/good", bad = dir + "/bad",
                      stranger = dir + "/stranger";
    for (const std::string& file : {good, bad, stranger}) {
        WriteExecutable(file, "#!/bin/sh\necho " + file + "\n");
    }
    zelktest::WriteFile(dir + "/site.json", Ruleset({{good, "allow"}, {bad, "block"}}));
    ExpectAll(Zelkctl(dir, {"import", "--db", db, dir + "/site.json"}).out,
              {"hash ruleset): 2 rules"});

    ExpectAll(Zelkctl(dir, {"check", "--db", db, good}).out,
              {"allow    " + good, "allowed by ruleset 'site'"});
    // -v adds the engine's TRACE reasoning.
    ExpectAll(Zelkctl(dir, {"check", "--db", db, bad, "-v"}, 1).out,
              {"block    " + bad, "[source 2 ruleset, ruleset 'site']", "| Start ConvertEvent"});
    ExpectAll(Zelkctl(dir, {"check", "--db", db, stranger}).out,
              {"unknown  " + stranger, "log-only mode lets it run"});
    ExpectAll(Zelkctl(dir, {"check", "--db", db, stranger, "--lockdown"}, 1).out,
              {"lockdown blocks it"});
    // --json: the same verdicts as one document, the same exit code.
    CtlRun json = Zelkctl(dir, {"check", "--db", db, good, bad, "--json"}, 1);
    cJSON* doc = cJSON_Parse(json.out.c_str());
    ASSERT_NE(doc, nullptr) << json.out;
    const cJSON* verdicts = cJSON_GetObjectItemCaseSensitive(doc, "verdicts");
    ASSERT_EQ(cJSON_GetArraySize(verdicts), 2);
    EXPECT_STREQ(cJSON_GetObjectItem(cJSON_GetArrayItem(verdicts, 0), "verdict")->valuestring,
                 "allow");
    EXPECT_STREQ(cJSON_GetObjectItem(cJSON_GetArrayItem(verdicts, 1), "ruleset")->valuestring,
                 "site");
    cJSON_Delete(doc);

    // A persisted lockdown applies until --log-only overrides it.
    Zelkctl(dir, {"config", "--db", db, "--lockdown"});
    Zelkctl(dir, {"check", "--db", db, good, stranger}, 1);
    Zelkctl(dir, {"check", "--db", db, stranger, "--log-only"});
}

TEST(Zelkctl, ReplaySkipsMalformedLinesAndReportsEveryField) {
    std::string dir = zelktest::ScratchDir();
    WriteExecutable(dir + "/good", "#!/bin/sh\necho good\n");
    WriteExecutable(dir + "/stranger", "#!/bin/sh\necho stranger\n");
    zelktest::WriteFile(dir + "/site.json", Ruleset({{dir + "/good", "allow"}}));
    const std::string exec = R"({"type":"exec","process":"/usr/bin/bash","target":"${DIR}/)";
    zelktest::WriteFile(dir + "/trace.jsonl",
                        "# two programs, one broken line\n" + exec +
                            R"(good","isexec":true,"hash":true,"user":"u"})" + "\n" + exec +
                            "stranger\",\n" + exec +
                            R"(stranger","isexec":true,"hash":true,"user":"u"})" + "\n" +
                            R"({"type":"exec","target":"${DIR}/missing","hash":true})" + "\n");
    const std::string db = dir + "/ac.db";
    CtlRun r = Zelkctl(dir, {"replay", "--db", db, dir + "/trace.jsonl", "--ruleset",
                             dir + "/site.json:site", "--set", "DIR=" + dir, "--format", "jsonl"});
    ExpectAll(r.err, {dir + "/trace.jsonl:3: not valid JSON", dir + "/trace.jsonl:5: cannot hash"});

    std::vector<std::string> lines;
    std::istringstream out(r.out);
    for (std::string text; std::getline(out, text); lines.push_back(text)) {
        cJSON* json = cJSON_Parse(text.c_str());
        EXPECT_NE(json, nullptr) << text;
        cJSON_Delete(json);
    }
    ASSERT_EQ(lines.size(), 3u) << r.out;
    for (const char* key :
         {"event", "status", "why", "action", "itemType", "source", "authorizedState", "eventType",
          "extra", "isAuthorized", "ruleset", "ctimeNs"}) {
        const std::string field = "\"" + std::string(key) + "\":";
        EXPECT_TRUE(Contains(lines[0], field) && Contains(lines[1], field)) << key << "\n" << r.out;
    }
    ExpectAll(lines[0], {"{\"line\":2,", "\"verdict\":\"allow\""});
    ExpectAll(lines[1], {"{\"line\":4,", "\"verdict\":\"unknown: allowed\""});
    ExpectAll(lines[2], {"{\"summary\":{\"events\":2,", "\"malformed\":2"});

    // The table form, in lockdown: one row per event and the decision rate.
    r = Zelkctl(dir,
                {"replay", "--db", db, dir + "/trace.jsonl", "--set", "DIR=" + dir, "--lockdown"});
    ExpectAll(r.out, {"unknown: blocked", "decision rate 100%; 2 malformed lines skipped"});
}

TEST(Zelkctl, DemoShowsAllowedBlockedAndUnknownVerdicts) {
    std::string dir = zelktest::ScratchDir();
    CtlRun r = Zelkctl(dir, {"demo"});
    struct stat st;
    EXPECT_EQ(stat((dir + "/demo-scratch/apps/approved-app").c_str(), &st), 0);
    // The example ruleset names the digests of the files the demo writes.
    EXPECT_TRUE(std::regex_search(r.out, std::regex("apps/approved-app +allow "))) << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("apps/banned-app +block "))) << r.out;
    ExpectAll(r.out, {"== zelk demo in " + dir + "/demo-scratch", "unknown: allowed",
                      "unknown: blocked", "log-only: ", "lockdown: "});
    Zelkctl(dir, {"demo", "--dir", "/tmp/zelk-demo"}, 2);
    Zelkctl(dir, {"demo", "--dir", dir + "/.hidden"}, 2);
}
