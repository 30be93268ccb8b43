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

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "HostDigest.h"
#include "HostEvent.h"
#include "PersistRule.h"
#include "TestUtil.h"
#include "TraceParser.h"

namespace {

struct CtlRun {
    int exit = -1;
    std::string out, err;
};

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Runs zelkctl with `args` in `cwd`.  With `withoutDacOverride` a root
// process gives up its power to read any file, so that a mode-000 file is
// unreadable to it as it would be to anyone else.
CtlRun Zelkctl(const std::string& cwd, std::vector<std::string> args,
               bool withoutDacOverride = false) {
    const std::string outPath = cwd + "/zelkctl.stdout";
    const std::string errPath = cwd + "/zelkctl.stderr";
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0) {
            _exit(126);
        }
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        if (withoutDacOverride && geteuid() == 0) {
            prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
            prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0);
        }
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(ZELKCTL_PATH));
        for (std::string& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        execv(ZELKCTL_PATH, argv.data());
        _exit(127);
    }
    CtlRun run;
    int status = 0;
    waitpid(pid, &status, 0);
    run.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = ReadFile(outPath);
    run.err = ReadFile(errPath);
    return run;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The first line of `text` that holds `part`, or "".
std::string LineWith(const std::string& text, const std::string& part) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (Contains(line, part)) {
            return line;
        }
    }
    return "";
}

void WriteExecutable(const std::string& path, const std::string& content, mode_t mode = 0755) {
    zelktest::WriteFile(path, content);
    chmod(path.c_str(), mode);
}

std::string Sha256Hex(const std::string& path) {
    hostkit::FileDigests d;
    int err = 0;
    EXPECT_TRUE(hostkit::DigestFile(path, d, err)) << path;
    return hostkit::ToHex(d.sha256, 32);
}

// Rows of an export document, by nativePath (inventory) or paths (rules).
struct ExportDoc {
    bool valid = false;
    std::vector<std::pair<std::string, std::string>> rows;  // key, sha256
    std::vector<int> sources;
};

ExportDoc ReadExport(const std::string& path, const char* key) {
    ExportDoc doc;
    cJSON* root = cJSON_Parse(ReadFile(path).c_str());
    const cJSON* items = cJSON_GetObjectItemCaseSensitive(root, "items");
    doc.valid = cJSON_IsArray(items);
    for (const cJSON* row = doc.valid ? items->child : nullptr; row != nullptr; row = row->next) {
        const cJSON* k = cJSON_GetObjectItemCaseSensitive(row, key);
        const cJSON* sha = cJSON_GetObjectItemCaseSensitive(row, "sha256");
        const cJSON* source = cJSON_GetObjectItemCaseSensitive(row, "source");
        doc.rows.emplace_back(cJSON_IsString(k) ? k->valuestring : "",
                              cJSON_IsString(sha) ? sha->valuestring : "");
        doc.sources.push_back(cJSON_IsNumber(source) ? source->valueint : -1);
    }
    cJSON_Delete(root);
    return doc;
}

// The engine answers "no decision" for a program start until its decision
// path is built; verdict checks then have nothing to check.
bool EngineDecides(const std::string& dir) {
    WriteExecutable(dir + "/probe", "#!/bin/sh\necho probe\n");
    CtlRun r = Zelkctl(dir, {"check", "--db", dir + "/probe.db", dir + "/probe"});
    return !Contains(r.out, "no decision");
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
    EXPECT_EQ(raw.eventType, ZELK_EVENT_MMAP_PRE);
    EXPECT_EQ(raw.pid, 7u);
    EXPECT_STREQ(raw.processName, "/srv/p");
    EXPECT_STREQ(raw.name, "/srv/t");
    EXPECT_EQ(raw.mode, 0755u);
    EXPECT_EQ(raw.flags, 0x240u);
    EXPECT_EQ(raw.dirty, 1);
    EXPECT_STREQ(raw.fileIssuer[hostkit::kIssuerCN], "ca");
    EXPECT_STREQ(raw.fileIssuer[hostkit::kIssuerOU], "unit");
    EXPECT_EQ(raw.fileIssuer[hostkit::kIssuerC], nullptr);
    EXPECT_EQ(raw.user, nullptr);
    EXPECT_EQ(raw.fileSha256, nullptr);
    ASSERT_NE(raw.fileMd5, nullptr);
    EXPECT_EQ(raw.fileMd5[0], 0x90);
    ASSERT_EQ(line.warnings.size(), 1u);  // "extra"

    const char* const bad[] = {
        "{\"type\":\"exec\"",                // truncated
        "[1,2]",                             // not an object
        "{\"pid\":1}",                       // no type
        "{\"type\":\"run\"}",                // unknown name
        "{\"type\":\"exec\",\"pid\":-1}",    // negative
        "{\"type\":\"exec\",\"pid\":1e60}",  // beyond 64 bits
        "{\"type\":\"exec\",\"size\":18446744073709551616}",
        "{\"type\":\"exec\",\"sha256\":\"ab\"}",  // short digest
        "{\"type\":\"exec\",\"target\":\"${NOPE_ZELK_VAR}\"}",
        "{\"type\":\"exec\",\"isexec\":\"yes\"}",
    };
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
    CtlRun r = Zelkctl(dir, {"scan", dir});
    EXPECT_EQ(r.exit, 2) << "missing --db";
    r = Zelkctl(dir, {"frobnicate"});
    EXPECT_EQ(r.exit, 2);
    r = Zelkctl(dir, {"--help"});
    EXPECT_EQ(r.exit, 0);
    EXPECT_TRUE(Contains(r.out, "replay"));
    for (const char* cmd : {"scan", "check", "replay", "status", "lint", "import", "export",
                            "metrics", "config", "purge", "demo"}) {
        r = Zelkctl(dir, {cmd, "--help"});
        EXPECT_EQ(r.exit, 0) << cmd;
        EXPECT_TRUE(Contains(r.out, "Usage")) << cmd;
    }
    r = Zelkctl(dir, {"purge", "--db", dir + "/x.db", "--source", "9"});
    EXPECT_EQ(r.exit, 2);

    // A file that is not a database: the engine refuses it, named with the
    // status in words.
    zelktest::WriteFile(dir + "/not.db", std::string(4096, 'x'));
    r = Zelkctl(dir, {"metrics", "--db", dir + "/not.db"});
    EXPECT_EQ(r.exit, 3);
    EXPECT_TRUE(Contains(r.err, dir + "/not.db: database could not be opened (0xC0000006)"))
        << r.err;
    r = Zelkctl(dir, {"status", "--db", dir + "/missing.db"});
    EXPECT_EQ(r.exit, 3);
    EXPECT_TRUE(Contains(r.err, "missing.db")) << r.err;
}

TEST(Zelkctl, LintNamesEveryElementTheImporterWouldMishandle) {
    std::string dir = zelktest::ScratchDir();
    for (const char* example :
         {"demo-ruleset.json", "demo-agent-manifest.json", "demo-trustrules.json"}) {
        CtlRun r = Zelkctl(dir, {"lint", std::string(ZELK_EXAMPLES_DIR) + "/" + example});
        EXPECT_EQ(r.exit, 0) << example << "\n" << r.out;
        EXPECT_TRUE(Contains(r.out, "0 findings")) << r.out;
    }
    CtlRun r = Zelkctl(dir, {"lint", std::string(ZELK_EXAMPLES_DIR) + "/demo-agent-manifest.json"});
    EXPECT_TRUE(Contains(r.out, "agent manifest")) << r.out;

    zelktest::WriteFile(dir + "/rules.json", R"({"rules":[)"
                                             R"({"sha256":")" +
                                                 std::string(64, 'a') +
                                                 R"(","action":"allow"},)"
                                                 R"({"sha256":")" +
                                                 std::string(63, 'a') +
                                                 R"(","action":"allow"},)"
                                                 R"({"sha1":")" +
                                                 std::string(40, 'g') +
                                                 R"(","action":"block"},)"
                                                 R"({"sha256":")" +
                                                 std::string(64, 'b') +
                                                 R"(","action":"deny"},)"
                                                 R"({"sha256":")" +
                                                 std::string(64, 'c') +
                                                 R"(","size":"12x"},)"
                                                 R"("text"]})");
    r = Zelkctl(dir, {"lint", dir + "/rules.json"});
    EXPECT_EQ(r.exit, 1);
    EXPECT_TRUE(Contains(r.out, "hash ruleset 'rules', 6 rules")) << r.out;
    EXPECT_FALSE(Contains(r.out, "rules[0]")) << r.out;
    EXPECT_TRUE(Contains(r.out, "rules[1].sha256: 63 characters")) << r.out;
    EXPECT_TRUE(Contains(r.out, "rules[2].sha1: holds characters that are not hexadecimal"));
    EXPECT_TRUE(Contains(r.out, "rules[2]: no usable digest")) << r.out;
    EXPECT_TRUE(Contains(r.out, "rules[3].action: \"deny\" is neither allow nor block"));
    EXPECT_TRUE(Contains(r.out, "rules[4].size: not a whole number")) << r.out;
    EXPECT_TRUE(Contains(r.out, "rules[4].action: missing: stored as allowed")) << r.out;
    EXPECT_TRUE(Contains(r.out, "rules[5]: not an object")) << r.out;

    // The same text named as trust rules is judged as trust rules.
    zelktest::WriteFile(dir + "/t.json",
                        R"({"Trustrules":[{"trustType":2,"paths":"/opt/*"},)"
                        R"({"trustType":7,"paths":"opt/app;;"},{"trustType":"2","paths":";;"},)"
                        R"({"paths":"/x","userList":"ops","trusttype":1}]})");
    r = Zelkctl(dir, {"lint", dir + "/t.json", "--name", "SiteTrustRules"});
    EXPECT_EQ(r.exit, 1);
    EXPECT_TRUE(Contains(r.out, "trust rules 'SiteTrustRules', 4 trust rules")) << r.out;
    EXPECT_FALSE(Contains(r.out, "Trustrules[0]")) << r.out;
    EXPECT_TRUE(Contains(r.out, "Trustrules[1].trustType: 7 is outside 0 to 4")) << r.out;
    EXPECT_TRUE(Contains(r.out, "\"opt/app\" does not start with")) << r.out;
    EXPECT_TRUE(Contains(r.out, "Trustrules[2].paths: only separators")) << r.out;
    EXPECT_TRUE(Contains(r.out, "Trustrules[3]: unknown key \"trusttype\"")) << r.out;
    EXPECT_TRUE(Contains(r.out, "Trustrules[3].userList: \"ops\" is not defined")) << r.out;

    for (const char* text : {"", "{\"rules\":[]}", "{\"rules\": [1,", "[]"}) {
        zelktest::WriteFile(dir + "/e.json", text);
        r = Zelkctl(dir, {"lint", dir + "/e.json"});
        EXPECT_EQ(r.exit, 1) << text;
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

    CtlRun r = Zelkctl(dir, {"scan", "--db", db, tree}, true);
    ASSERT_EQ(r.exit, 0) << r.out << r.err;
    EXPECT_TRUE(Contains(r.out, "scanned 3 files")) << r.out;
    EXPECT_TRUE(Contains(r.out, "1 not persisted by name, 1 symbolic links")) << r.out;
    EXPECT_TRUE(Contains(r.out, "unreadable: 1\n  " + tree + "/secret: Permission denied"))
        << r.out;
    EXPECT_TRUE(Contains(r.out, "2 stored as scanned items")) << r.out;
    // Not a terminal: plain progress lines only, never a redrawn bar.
    EXPECT_FALSE(Contains(r.err, "\r")) << r.err;

    r = Zelkctl(dir, {"export", "--db", db, "--out", dir + "/inv.json"});
    ASSERT_EQ(r.exit, 0) << r.err;
    ExportDoc doc = ReadExport(dir + "/inv.json", "nativePath");
    ASSERT_TRUE(doc.valid);
    std::set<std::pair<std::string, std::string>> rows(doc.rows.begin(), doc.rows.end());
    std::set<std::pair<std::string, std::string>> expected = {
        {tree + "/tool", Sha256Hex(tree + "/tool")},
        {tree + "/sub/libx.so.2", Sha256Hex(tree + "/sub/libx.so.2")}};
    EXPECT_EQ(rows, expected);
    for (int source : doc.sources) {
        EXPECT_EQ(source, ZELK_SOURCE_SCANNED);
    }

    r = Zelkctl(dir, {"status", "--db", db});
    EXPECT_EQ(r.exit, 0);
    EXPECT_TRUE(Contains(r.out, "schema version:  15")) << r.out;
    EXPECT_TRUE(Contains(r.out, "3 scanned inventory    2")) << r.out;
}

TEST(Zelkctl, ExportImportRoundTripAndPurge) {
    std::string dir = zelktest::ScratchDir();
    std::string tree = dir + "/tree";
    mkdir(tree.c_str(), 0755);
    for (int i = 0; i < 5; ++i) {
        WriteExecutable(tree + "/prog" + std::to_string(i), "#!/bin/sh\necho " + std::to_string(i));
    }
    const std::string a = dir + "/a.db", b = dir + "/b.db";
    ASSERT_EQ(Zelkctl(dir, {"scan", "--db", a, tree}).exit, 0);
    ASSERT_EQ(Zelkctl(dir, {"import", "--db", a,
                            std::string(ZELK_EXAMPLES_DIR) + "/demo-trustrules.json"})
                  .exit,
              0);
    ASSERT_EQ(Zelkctl(dir, {"export", "--db", a, "--out", dir + "/a.json"}).exit, 0);
    ASSERT_EQ(
        Zelkctl(dir, {"export", "--db", a, "--out", dir + "/a-trust.json", "--trust-rules"}).exit,
        0);
    // Paging: from the first row's id, at most two rows.
    ExportDoc all = ReadExport(dir + "/a.json", "sha256");
    ASSERT_EQ(all.rows.size(), 5u);
    CtlRun r = Zelkctl(dir, {"export", "--db", a, "--out", dir + "/page.json", "--limit", "2"});
    ASSERT_EQ(r.exit, 0);
    EXPECT_EQ(ReadExport(dir + "/page.json", "sha256").rows.size(), 2u);
    EXPECT_TRUE(Contains(r.out, "2 rows")) << r.out;

    // An inventory export imported elsewhere becomes a hash ruleset with the
    // same digests; a trust-rule export becomes trust rules again.
    r = Zelkctl(dir, {"import", "--db", b, dir + "/a.json", "--name", "from-a"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_TRUE(Contains(r.out, "hash ruleset, from an export): 5 rules")) << r.out;
    r = Zelkctl(dir, {"import", "--db", b, dir + "/a-trust.json"});
    EXPECT_EQ(r.exit, 2) << "a trust-rule export needs a TrustRules name";
    r = Zelkctl(dir, {"import", "--db", b, dir + "/a-trust.json", "--name", "copyTrustRules"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_TRUE(Contains(r.out, "4 trust rules")) << r.out;

    ASSERT_EQ(Zelkctl(dir, {"export", "--db", b, "--out", dir + "/b.json"}).exit, 0);
    ExportDoc copy = ReadExport(dir + "/b.json", "sha256");
    std::set<std::string> before, after;
    for (const auto& row : all.rows) {
        before.insert(row.first);
    }
    for (const auto& row : copy.rows) {
        after.insert(row.first);
    }
    EXPECT_EQ(before, after);
    for (int source : copy.sources) {
        EXPECT_EQ(source, ZELK_SOURCE_EXECUTION_RULES);
    }
    ASSERT_EQ(
        Zelkctl(dir, {"export", "--db", b, "--out", dir + "/b-trust.json", "--trust-rules"}).exit,
        0);
    EXPECT_EQ(ReadExport(dir + "/b-trust.json", "paths").rows,
              ReadExport(dir + "/a-trust.json", "paths").rows);

    r = Zelkctl(dir, {"purge", "--db", b, "--source", "2"});
    EXPECT_EQ(r.exit, 0) << r.err;
    ASSERT_EQ(Zelkctl(dir, {"export", "--db", b, "--out", dir + "/b2.json"}).exit, 0);
    EXPECT_TRUE(ReadExport(dir + "/b2.json", "sha256").rows.empty());
}

TEST(Zelkctl, MetricsAndConfigDocuments) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    CtlRun r = Zelkctl(dir, {"config", "--db", db, "--lockdown", "--maintenance", "1000,2000"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_TRUE(Contains(r.out, "lockdown, maintenance 1000..2000")) << r.out;
    r = Zelkctl(dir, {"status", "--db", db});
    EXPECT_TRUE(Contains(r.out, "host modes:      lockdown, maintenance 1000..2000")) << r.out;
    EXPECT_TRUE(Contains(r.out, "autoAuthorizeStartTime   1000")) << r.out;
    EXPECT_TRUE(Contains(r.out, "autoAuthorizeEndTime     2000")) << r.out;
    r = Zelkctl(dir, {"config", "--db", db, "--maintenance", "9"});
    EXPECT_EQ(r.exit, 2);

    for (bool pretty : {false, true}) {
        std::vector<std::string> args = {"metrics", "--db", db};
        if (pretty) {
            args.push_back("--pretty");
        }
        r = Zelkctl(dir, args);
        ASSERT_EQ(r.exit, 0) << r.err;
        cJSON* doc = cJSON_Parse(r.out.c_str());
        ASSERT_NE(doc, nullptr) << r.out;
        const cJSON* m = cJSON_GetObjectItemCaseSensitive(doc, "metrics");
        ASSERT_TRUE(cJSON_IsObject(m));
        const cJSON* version = cJSON_GetObjectItemCaseSensitive(m, "ACVersion");
        ASSERT_TRUE(cJSON_IsString(version));
        EXPECT_STREQ(version->valuestring, "12.0.178");
        EXPECT_EQ(pretty, Contains(r.out, "\n\t")) << r.out;
        cJSON_Delete(doc);
    }
}

TEST(Zelkctl, CheckReportsAllowedBlockedAndUnknownFiles) {
    std::string dir = zelktest::ScratchDir();
    if (!EngineDecides(dir)) {
        GTEST_SKIP() << "app_ctl does not decide program starts in this build yet";
    }
    WriteExecutable(dir + "/good", "#!/bin/sh\necho good\n");
    WriteExecutable(dir + "/bad", "#!/bin/sh\necho bad\n");
    WriteExecutable(dir + "/stranger", "#!/bin/sh\necho stranger\n");
    zelktest::WriteFile(dir + "/site.json", R"({"rules":[{"sha256":")" + Sha256Hex(dir + "/good") +
                                                R"(","action":"allow"},{"sha256":")" +
                                                Sha256Hex(dir + "/bad") +
                                                R"(","action":"block"}]})");
    const std::string db = dir + "/ac.db";
    CtlRun r = Zelkctl(dir, {"import", "--db", db, dir + "/site.json"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_TRUE(Contains(r.out, "hash ruleset): 2 rules")) << r.out;

    r = Zelkctl(dir, {"check", "--db", db, dir + "/good"});
    EXPECT_EQ(r.exit, 0) << r.out;
    EXPECT_TRUE(Contains(r.out, "allow    " + dir + "/good")) << r.out;
    EXPECT_TRUE(Contains(r.out, "allowed by ruleset 'site'")) << r.out;

    r = Zelkctl(dir, {"check", "--db", db, dir + "/bad", "-v"});
    EXPECT_EQ(r.exit, 1) << r.out;
    EXPECT_TRUE(Contains(r.out, "block    " + dir + "/bad")) << r.out;
    EXPECT_TRUE(Contains(r.out, "[source 2 ruleset, ruleset 'site']")) << r.out;
    EXPECT_TRUE(Contains(r.out, "| Start ConvertEvent")) << "TRACE reasoning with -v\n" << r.out;

    r = Zelkctl(dir, {"check", "--db", db, dir + "/stranger"});
    EXPECT_EQ(r.exit, 0) << r.out;
    EXPECT_TRUE(Contains(r.out, "unknown  " + dir + "/stranger")) << r.out;
    EXPECT_TRUE(Contains(r.out, "log-only mode lets it run")) << r.out;
    r = Zelkctl(dir, {"check", "--db", db, dir + "/stranger", "--lockdown"});
    EXPECT_EQ(r.exit, 1) << r.out;
    EXPECT_TRUE(Contains(r.out, "lockdown blocks it")) << r.out;

    // A persisted lockdown applies until --log-only overrides it.
    ASSERT_EQ(Zelkctl(dir, {"config", "--db", db, "--lockdown"}).exit, 0);
    EXPECT_EQ(Zelkctl(dir, {"check", "--db", db, dir + "/good", dir + "/stranger"}).exit, 1);
    EXPECT_EQ(Zelkctl(dir, {"check", "--db", db, dir + "/stranger", "--log-only"}).exit, 0);
}

TEST(Zelkctl, ReplaySkipsMalformedLinesAndReportsEveryField) {
    std::string dir = zelktest::ScratchDir();
    WriteExecutable(dir + "/good", "#!/bin/sh\necho good\n");
    WriteExecutable(dir + "/stranger", "#!/bin/sh\necho stranger\n");
    zelktest::WriteFile(dir + "/site.json", R"({"rules":[{"sha256":")" + Sha256Hex(dir + "/good") +
                                                R"(","action":"allow"}]})");
    zelktest::WriteFile(
        dir + "/trace.jsonl",
        "# two programs, one broken line\n"
        R"({"type":"exec","process":"/usr/bin/bash","target":"${DIR}/good","isexec":true,"hash":true,"user":"u"})"
        "\n"
        R"({"type":"exec","process":"/usr/bin/bash","target":"${DIR}/stranger",)"
        "\n"
        R"({"type":"exec","process":"/usr/bin/bash","target":"${DIR}/stranger","isexec":true,"hash":true,"user":"u"})"
        "\n"
        R"({"type":"exec","target":"${DIR}/missing","hash":true})"
        "\n");
    const std::string db = dir + "/ac.db";
    CtlRun r = Zelkctl(dir, {"replay", "--db", db, dir + "/trace.jsonl", "--ruleset",
                             dir + "/site.json:site", "--set", "DIR=" + dir, "--format", "jsonl"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_TRUE(Contains(r.err, dir + "/trace.jsonl:3: not valid JSON")) << r.err;
    EXPECT_TRUE(Contains(r.err, dir + "/trace.jsonl:5: cannot hash")) << r.err;

    std::vector<cJSON*> lines;
    std::istringstream out(r.out);
    std::string text;
    while (std::getline(out, text)) {
        cJSON* json = cJSON_Parse(text.c_str());
        ASSERT_NE(json, nullptr) << text;
        lines.push_back(json);
    }
    ASSERT_EQ(lines.size(), 3u) << r.out;
    for (int i = 0; i < 2; ++i) {
        for (const char* key :
             {"line", "event", "status", "verdict", "why", "action", "itemType", "source",
              "authorizedState", "eventType", "extra", "isAuthorized", "ruleset", "ctimeNs"}) {
            EXPECT_NE(cJSON_GetObjectItemCaseSensitive(lines[i], key), nullptr) << key;
        }
    }
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(lines[0], "line")->valueint, 2);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(lines[1], "line")->valueint, 4);
    const cJSON* summary = cJSON_GetObjectItemCaseSensitive(lines[2], "summary");
    ASSERT_NE(summary, nullptr);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(summary, "events")->valueint, 2);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(summary, "malformed")->valueint, 2);

    std::string verdict0 = cJSON_GetObjectItemCaseSensitive(lines[0], "verdict")->valuestring;
    std::string verdict1 = cJSON_GetObjectItemCaseSensitive(lines[1], "verdict")->valuestring;
    for (cJSON* json : lines) {
        cJSON_Delete(json);
    }
    if (verdict0 == "no decision") {
        GTEST_SKIP() << "app_ctl does not decide program starts in this build yet";
    }
    EXPECT_EQ(verdict0, "allow");
    EXPECT_EQ(verdict1, "unknown: allowed");

    // The table form, in lockdown: one row per event and the decision rate.
    r = Zelkctl(dir,
                {"replay", "--db", db, dir + "/trace.jsonl", "--set", "DIR=" + dir, "--lockdown"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_TRUE(Contains(r.out, "unknown: blocked")) << r.out;
    EXPECT_TRUE(Contains(r.out, "decision rate 100%; 2 malformed lines skipped")) << r.out;
}

TEST(Zelkctl, DemoShowsAllowedBlockedAndUnknownVerdicts) {
    std::string dir = zelktest::ScratchDir();
    CtlRun r = Zelkctl(dir, {"demo"});
    EXPECT_TRUE(Contains(r.out, "== zelk demo in " + dir + "/demo-scratch")) << r.out;
    struct stat st;
    EXPECT_EQ(stat((dir + "/demo-scratch/apps/approved-app").c_str(), &st), 0);
    if (!EngineDecides(dir)) {
        GTEST_SKIP() << "app_ctl does not decide program starts in this build yet";
    }
    ASSERT_EQ(r.exit, 0) << r.out << r.err;
    // The example ruleset names the digests of the files the demo writes.
    EXPECT_TRUE(Contains(LineWith(r.out, "apps/approved-app"), " allow ")) << r.out;
    EXPECT_TRUE(Contains(LineWith(r.out, "apps/banned-app"), " block ")) << r.out;
    EXPECT_TRUE(Contains(r.out, "unknown: allowed")) << r.out;
    EXPECT_TRUE(Contains(r.out, "unknown: blocked")) << r.out;
    EXPECT_TRUE(Contains(r.out, "log-only: ")) << r.out;
    EXPECT_TRUE(Contains(r.out, "lockdown: ")) << r.out;

    r = Zelkctl(dir, {"demo", "--dir", "/tmp/zelk-demo"});
    EXPECT_EQ(r.exit, 2);
    r = Zelkctl(dir, {"demo", "--dir", dir + "/.hidden"});
    EXPECT_EQ(r.exit, 2);
}
