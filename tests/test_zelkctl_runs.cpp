// zelkctl runs that must leave the policy database as they found it, answer
// honestly from a damaged one, and inventory what is really installed.  Each
// command runs as its own process.
#include <csignal>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "ZelkctlTestUtil.h"

using namespace ctltest;

namespace {

// A tree of `count` small scripts, enough pages for damage to hit tables.
void WriteScripts(const std::string& dir, int count) {
    mkdir(dir.c_str(), 0755);
    for (int i = 0; i < count; ++i) {
        WriteExecutable(dir + "/p" + std::to_string(i), "#!/bin/sh\necho " + std::to_string(i));
    }
}

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

}  // namespace

TEST(ZelkctlRuns, ModesForOneRunAreRestoredAndWindowsClosed) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    WriteScripts(dir + "/t", 3);
    Zelkctl(dir, {"scan", "--db", db, dir + "/t", "--no-progress"});
    ExpectAll(Zelkctl(dir, {"config", "--db", db, "--lockdown"}).out,
              {"modes: lockdown", "maintenance window: closed"});
    WriteExecutable(dir + "/new", "#!/bin/sh\necho new\n");
    Zelkctl(dir, {"check", "--db", db, "--maintenance", "now,4000000000000", dir + "/new"}, 1);
    CtlRun modes = Zelkctl(dir, {"modes", "--db", db});
    ExpectAll(modes.out, {"modes: lockdown\n", "maintenance window: closed"});
    EXPECT_FALSE(Contains(modes.out, "window stored in the database")) << modes.out;
    ExpectAll(Zelkctl(dir, {"status", "--db", db}).out, {"autoAuthorizeEndTime     -1"});

    // config sets a window and shows it as dates; a later config without one
    // closes it, also in the engine's own settings it recovers at start.
    ExpectAll(Zelkctl(dir, {"config", "--db", db, "--maintenance", "now,4000000000000"}).out,
              {"2096-10-02 07:06:40 UTC (open now)"});
    ExpectAll(Zelkctl(dir, {"modes", "--db", db}).out, {"still running"});
    ExpectAll(Zelkctl(dir, {"config", "--db", db, "--lockdown"}).out,
              {"maintenance window: closed", "closed the window the database still held"});
    CtlRun after = Zelkctl(dir, {"modes", "--db", db});
    ExpectAll(after.out, {"window stored in the database"});
    EXPECT_FALSE(Contains(after.out, "still running")) << after.out;
}

TEST(ZelkctlRuns, CheckAndReplayWorkOnACopyUnlessRecord) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    WriteScripts(dir + "/t", 3);
    Zelkctl(dir, {"scan", "--db", db, dir + "/t", "--no-progress"});
    Zelkctl(dir, {"import", "--db", db, std::string(ZELK_EXAMPLES_DIR) + "/demo-trustrules.json"});
    const std::string before = ReadFile(db);
    WriteExecutable(dir + "/new", "#!/bin/sh\necho new\n");
    const std::string window = "now,4000000000000";
    Zelkctl(
        dir,
        {"check", "--db", db, "--lockdown", "--maintenance", window, dir + "/new", dir + "/t/p0"},
        1);
    zelktest::WriteFile(dir + "/trace.jsonl",
                        "{\"type\":\"exec\",\"pid\":7,\"process\":\"/usr/bin/bash\",\"target\":\"" +
                            dir + "/new\"}\n");
    Zelkctl(dir,
            {"replay", "--db", db, "--maintenance", window, "--ruleset",
             std::string(ZELK_EXAMPLES_DIR) + "/demo-agent-manifest.json", dir + "/trace.jsonl"});
    EXPECT_TRUE(ReadFile(db) == before) << "the database changed";
    EXPECT_FALSE(Exists(db + "-wal") && !ReadFile(db + "-wal").empty());
    CtlRun status = Zelkctl(dir, {"status", "--db", db});
    EXPECT_FALSE(Contains(status.out, "approved drift")) << status.out;
    EXPECT_FALSE(Contains(status.out, "demo-agent-manifest")) << status.out;

    // --record keeps what the engine stores.
    Zelkctl(dir,
            {"check", "--db", db, "--record", "--lockdown", "--maintenance", window, dir + "/new"},
            1);
    ExpectAll(Zelkctl(dir, {"status", "--db", db}).out, {"autoAuthorizeEndTime     4000000000000"});
}

TEST(ZelkctlRuns, DamagedDatabaseIsAnErrorNotAnAnswer) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    WriteScripts(dir + "/t", 400);
    Zelkctl(dir, {"scan", "--db", db, dir + "/t", "--no-progress"});
    ExpectAll(Zelkctl(dir, {"status", "--db", db, "--check"}).out, {"integrity:       ok"});
    {
        // 30 pages after the first one overwritten, as a disk error would.
        std::fstream f(db, std::ios::in | std::ios::out | std::ios::binary);
        ASSERT_TRUE(f.good());
        f.seekp(4096);
        std::string junk(30 * 4096, '\x5a');
        f.write(junk.data(), static_cast<std::streamsize>(junk.size()));
    }
    CtlRun check = Zelkctl(dir, {"check", "--db", db, "--lockdown", dir + "/t/p1"}, 3);
    EXPECT_FALSE(check.err.empty());
    CtlRun status = Zelkctl(dir, {"status", "--db", db, "--check"}, 3);
    ExpectAll(status.err, {"damaged"});
}

TEST(ZelkctlRuns, ScanKeepsProgramsByContentAndRescansWithoutDuplicates) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db", tree = dir + "/bin";
    mkdir(tree.c_str(), 0755);
    // Names that look like data files, contents that are programs.
    WriteExecutable(tree + "/vim.basic", ReadFile("/bin/true"));
    WriteExecutable(tree + "/update-rc.d", "#!/usr/bin/perl\nprint 1;\n");
    WriteExecutable(tree + "/notes.txt", "plain words", 0644);
    CtlRun r = Zelkctl(dir, {"scan", "--db", db, tree, "--no-progress"});
    ExpectAll(r.out, {"2 stored as scanned items",
                      "kept by content (ELF or #!) though not by "
                      "name: 2",
                      "1 not persisted by name"});
    Zelkctl(dir, {"check", "--db", db, "--lockdown", tree + "/vim.basic", tree + "/update-rc.d"});

    ExpectAll(Zelkctl(dir, {"scan", "--db", db, tree, "--no-progress"}).out,
              {"0 stored as scanned items", "already in the inventory unchanged: 2"});
    WriteExecutable(tree + "/update-rc.d", "#!/usr/bin/perl\nprint 2;\n");
    ExpectAll(Zelkctl(dir, {"scan", "--db", db, tree, "--no-progress"}).out,
              {"1 stored as scanned items", "unchanged: 1"});
    // A file named on the command line is stored whatever its name.
    ExpectAll(Zelkctl(dir, {"scan", "--db", db, tree + "/notes.txt", "--no-progress"}).out,
              {"1 stored as scanned items"});
    Zelkctl(dir, {"export", "--db", db, "--out", dir + "/inv.json"});
    EXPECT_EQ(ReadExport(dir + "/inv.json", "nativePath").rows.size(), 4u);
}

TEST(ZelkctlRuns, InterruptedScanKeepsAndReportsWhatItStored) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    WriteScripts(dir + "/t", 3000);
    pid_t pid = fork();
    if (pid == 0) {
        int out = open((dir + "/scan.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        execl(ZELKCTL_PATH, ZELKCTL_PATH, "scan", "--db", db.c_str(), (dir + "/t").c_str(),
              "--no-progress", "-j", "1", static_cast<char*>(nullptr));
        _exit(127);
    }
    // The database appears once the engine runs, after zelkctl took over
    // SIGINT; the scan of 3000 files is then still under way.
    int status = 0;
    while (!Exists(db) && waitpid(pid, &status, WNOHANG) == 0) {
        usleep(1000);
    }
    kill(pid, SIGINT);
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    const std::string out = ReadFile(dir + "/scan.out");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(out, m,
                                  std::regex("interrupted after \\d+ of \\d+ files: (\\d+) "
                                             "stored as scanned items, kept")))
        << out;
    Zelkctl(dir, {"export", "--db", db, "--out", dir + "/inv.json"});
    EXPECT_EQ(ReadExport(dir + "/inv.json", "nativePath").rows.size(),
              static_cast<size_t>(std::stoul(m[1])));
}

TEST(ZelkctlRuns, PackageScanTrustsOnlyFilesMatchingDpkgDigests) {
    std::string dir = zelktest::ScratchDir();
    const std::string root = dir + "/root", db = dir + "/ac.db";
    for (const char* sub : {"", "/var", "/var/lib", "/var/lib/dpkg", "/var/lib/dpkg/info", "/usr",
                            "/usr/bin", "/usr/share"}) {
        mkdir((root + sub).c_str(), 0755);
    }
    WriteExecutable(root + "/usr/bin/good", "#!/bin/sh\necho good\n");
    WriteExecutable(root + "/usr/bin/bad", "#!/bin/sh\necho tampered\n");
    WriteExecutable(root + "/usr/share/readme.txt", "words", 0644);
    auto md5 = [&dir](const std::string& text) {
        std::string path = dir + "/md5-input";
        zelktest::WriteFile(path, text);
        hostkit::FileDigests d;
        int err = 0;
        EXPECT_TRUE(hostkit::DigestFile(path, d, err));
        return hostkit::ToHex(d.md5, 16);
    };
    zelktest::WriteFile(root + "/var/lib/dpkg/info/tools.md5sums",
                        md5("#!/bin/sh\necho good\n") + "  usr/bin/good\n" +
                            md5("#!/bin/sh\necho bad\n") + "  usr/bin/bad\n" + md5("words") +
                            "  usr/share/readme.txt\n" + md5("x") + "  usr/bin/gone\n");
    CtlRun r =
        Zelkctl(dir, {"scan", "--db", db, "--packages", "--package-root", root, "--no-progress"});
    ExpectAll(r.out, {"1 stored as scanned items",
                      "packages: 1 with digest lists, 4 files listed, "
                      "1 missing",
                      "changed since installed (not trusted): 1\n  " + root +
                          "/usr/bin/bad (package tools)"});
    ExpectAll(Zelkctl(dir, {"check", "--db", db, "--lockdown", root + "/usr/bin/good"}).out,
              {"allow"});
    Zelkctl(dir, {"check", "--db", db, "--lockdown", root + "/usr/bin/bad"}, 1);
}

TEST(ZelkctlRuns, SmallMistakesGetClearAnswers) {
    std::string dir = zelktest::ScratchDir();
    const std::string db = dir + "/ac.db";
    ExpectAll(Zelkctl(dir, {"--version"}).out, {"zelkctl ", "(engine 12."});
    WriteScripts(dir + "/t", 1);
    Zelkctl(dir, {"scan", "--db", db, dir + "/t", "--no-progress"});

    ExpectAll(
        Zelkctl(dir, {"config", "--db", db, "--maintenance", "2000000000000,1000000000000"}, 2).err,
        {"is not after START"});
    ExpectAll(Zelkctl(dir, {"config", "--db", db, "--maintenance", "1700000000,1800000000"}, 2).err,
              {"looks like seconds", "1700000000000 is 2023-11-14 22:13:20 UTC"});
    ExpectAll(
        Zelkctl(dir, {"check", "--db", db, "--maintenance", "now,99999999999999999999", "t/p0"}, 2)
            .err,
        {"past the year 9999"});

    ExpectAll(Zelkctl(dir, {"purge", "--db", db, "--source", "0"}, 2).err, {"--yes"});
    ExpectAll(Zelkctl(dir, {"status", "--db", db}).out, {"3 scanned inventory    1"});
    Zelkctl(dir, {"purge", "--db", db, "--source", "0", "--yes"});

    zelktest::WriteFile(dir + "/bad.jsonl", "not json\n{\"event\":\"nonsense\"}\n");
    ExpectAll(Zelkctl(dir, {"replay", "--db", db, dir + "/bad.jsonl"}, 2).err,
              {"no valid event line"});

    for (const char* cmd : {"metrics", "check", "purge"}) {
        std::vector<std::string> args = {cmd, "--db", dir + "/typo.db"};
        if (std::string(cmd) == "check") {
            args.push_back(dir + "/t/p0");
        } else if (std::string(cmd) == "purge") {
            args.insert(args.end(), {"--source", "3"});
        }
        ExpectAll(Zelkctl(dir, args, 3).err, {"typo.db: no database"});
        EXPECT_FALSE(Exists(dir + "/typo.db")) << cmd;
    }
}

TEST(ZelkctlRuns, HelpAndReadmeAgree) {
    std::string dir = zelktest::ScratchDir();
    const std::string readme = ReadFile(std::string(ZELK_EXAMPLES_DIR) + "/../README.md");
    ASSERT_FALSE(readme.empty());
    // The README's command block: "    zelkctl CMD ..." and its indented
    // continuation lines.
    std::map<std::string, std::set<std::string>> documented;
    std::istringstream lines(readme);
    std::string line, current;
    const std::regex option("--[a-z][a-z-]*");
    while (std::getline(lines, line)) {
        if (line.rfind("    zelkctl ", 0) == 0) {
            std::istringstream words(line.substr(12));
            words >> current;
        } else if (line.rfind("                    ", 0) != 0) {
            current.clear();
        }
        if (current.empty() || current.rfind("--", 0) == 0) {
            continue;
        }
        std::set<std::string>& options = documented[current];
        for (std::sregex_iterator it(line.begin(), line.end(), option), end; it != end; ++it) {
            options.insert(it->str());
        }
    }
    const std::string help = Zelkctl(dir, {"--help"}).out;
    const std::regex command("\n  ([a-z]+) ");
    std::set<std::string> commands;
    for (std::sregex_iterator it(help.begin(), help.end(), command), end; it != end; ++it) {
        commands.insert((*it)[1]);
    }
    std::set<std::string> readmeCommands;
    for (const auto& entry : documented) {
        readmeCommands.insert(entry.first);
    }
    EXPECT_EQ(commands, readmeCommands);
    for (const auto& [cmd, options] : documented) {
        const std::string cmdHelp = Zelkctl(dir, {cmd, "--help"}).out;
        for (const std::string& opt : options) {
            EXPECT_TRUE(Contains(cmdHelp, opt)) << "README names " << opt << " for " << cmd;
        }
    }
    ExpectAll(help, {"--version"});
}
