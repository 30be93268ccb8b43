// zelk-agent on the real kernel: program starts in a watched scratch folder
// are held by fanotify until the engine decides, and denied ones fail with
// EPERM.  Needs root and fanotify permission events; where they are missing
// each test reports itself skipped with the kernel's reason.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/fanotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "DbTestUtil.h"
#include "HostDigest.h"
#include "HostProcess.h"
#include "TestUtil.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

// Starts args[0]: its pid, or minus the errno of a refused start (posix_spawn
// reports the child's exec failure).
pid_t Spawn(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
    return rc == 0 ? pid : -rc;
}

// Runs `path`: 0 after a clean run, the errno of a refused start, else -1.
int Exec(const std::string& path) {
    pid_t pid = Spawn({path});
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid) {
        return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
    }
    return pid < 0 ? -pid : -1;
}

class AgentTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_Dir = zelktest::ScratchDir();
        m_Watch = m_Dir + "/bin";
        fs::create_directories(m_Watch);
        const int fd = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE);
        const bool marked =
            fd >= 0 && fanotify_mark(fd, FAN_MARK_ADD, FAN_OPEN_EXEC_PERM | FAN_EVENT_ON_CHILD,
                                     AT_FDCWD, m_Watch.c_str()) == 0;
        const int err = errno;
        close(fd);
        if (!marked) {
            GTEST_SKIP() << "fanotify permission events unavailable: " << strerror(err);
        }
        zelktest::WriteFile(m_Dir + "/manifest.json", "{\"rules\":[]}");
        m_Manifest = m_Dir + "/manifest.json:agent_manifest";
    }
    void TearDown() override {
        if (m_Agent > 0) {
            Stop(SIGKILL);
        }
    }

    using Execs = std::vector<std::pair<std::string, int>>;
    // One agent run: starts it with `args`, runs each program expecting its
    // result, waits for `logged` and stops the agent.
    void Run(const std::vector<std::string>& args, const Execs& execs, const std::string& logged) {
        Start(args);
        for (const auto& [path, expected] : execs) {
            EXPECT_EQ(Exec(path), expected) << path;
        }
        WaitForLog(logged);
        Stop();
    }

    // /bin/true as `name` in the watched folder, `extra` bytes appended (runs
    // the same, hashes differently).  One open and close, so the agent sees a
    // single write.  Returns its path.
    std::string CopyTrue(const std::string& name, const std::string& extra = "") {
        const std::string to = m_Watch + "/" + name;
        zelktest::WriteFile(to, zelktest::ReadFile("/bin/true") + extra);
        fs::permissions(to, fs::perms(0755));
        return to;
    }

    // A hash ruleset allowing `file`, as a --ruleset argument.
    std::string AllowRuleset(const std::string& file) {
        hostkit::FileDigests d;
        int err = 0;
        EXPECT_TRUE(hostkit::DigestFile(file, d, err)) << strerror(err);
        zelktest::WriteFile(m_Dir + "/rules.json",
                            "{\"rules\":[{\"sha256\":\"" + hostkit::ToHex(d.sha256, 32) +
                                "\",\"size\":" + std::to_string(d.size) +
                                ",\"action\":\"allow\",\"fileName\":\"allowed\"}]}");
        return m_Dir + "/rules.json:Weekly";
    }

    // Starts the agent on the watched folder and waits until its marks are set.
    void Start(std::vector<std::string> args) {
        ASSERT_LE(m_Agent, 0);
        m_Log = m_Dir + "/agent" + std::to_string(++m_Run) + ".log";
        args.insert(args.begin(), {ZELK_AGENT_PATH, "--db", m_Dir + "/ac.db", "--watch", m_Watch,
                                   "--log-file", m_Log});
        m_Agent = Spawn(args);
        ASSERT_GT(m_Agent, 0);
        WaitForLog("ready:");
    }

    bool Logged(const std::string& text) {
        return zelktest::ReadFile(m_Log).find(text) != std::string::npos;
    }

    // Waits for `text` in the log; fails if the agent exits first.
    void WaitForLog(const std::string& text) {
        while (!Logged(text)) {
            int status;
            ASSERT_EQ(waitpid(m_Agent, &status, WNOHANG), 0)
                << "agent exited: " << zelktest::ReadFile(m_Log);
            usleep(20000);
        }
    }

    // Ends the agent.  After SIGTERM it must exit cleanly, logging its
    // counters on the way out.
    void Stop(int signal = SIGTERM) {
        kill(m_Agent, signal);
        int status = 0;
        waitpid(m_Agent, &status, 0);
        m_Agent = 0;
        EXPECT_TRUE(signal != SIGTERM || (WIFEXITED(status) && WEXITSTATUS(status) == 0))
            << zelktest::ReadFile(m_Log);
    }

    std::string m_Dir, m_Watch, m_Manifest, m_Log;
    pid_t m_Agent = 0;
    int m_Run = 0;
};

}  // namespace

TEST_F(AgentTest, LockdownLogOnlyAndTheManifest) {
    const std::string allowed = CopyTrue("allowed"), other = CopyTrue("other", "x");

    // Log-only: both run, only the unknown one is reported.
    Run({"--ruleset", AllowRuleset(allowed)}, {{allowed, 0}, {other, 0}},
        "allowed unknown exec " + other);
    EXPECT_TRUE(Logged(", user root): log-only"));
    EXPECT_TRUE(Logged("allowed 2, denied 0, errors 0"));
    EXPECT_FALSE(Logged("unknown exec " + allowed));

    // Lockdown on a database whose manifest was never applied: the engine's
    // blocks are not enforced yet.
    Run({"--lockdown"}, {{other, 0}}, "agent manifest is not applied");

    // With the manifest the kernel refuses the unknown file; the known one
    // runs, the second time with its digests from the cache.  The documents
    // given are the whole policy: the manifest replaces what a document of
    // another kind brought before, so the ruleset is given again.
    Run({"--lockdown", "--ruleset", m_Manifest, "--ruleset", AllowRuleset(allowed)},
        {{allowed, 0}, {other, EPERM}, {allowed, 0}}, "denied exec " + other);
    EXPECT_TRUE(Logged("allowed 2, denied 1, errors 0"));
    EXPECT_TRUE(Logged("digest cache hits 1,"));
}

TEST_F(AgentTest, MaintenanceWindowApprovesOnlyFilesWrittenInIt) {
    const std::string window = "now," + std::to_string(time(nullptr) * 1000ULL + 3600 * 1000);
    Start({"--lockdown", "--maintenance", window, "--ruleset", m_Manifest});
    const std::string fresh = CopyTrue("fresh", "fresh");
    WaitForLog("drift " + fresh + " written by");
    EXPECT_TRUE(Logged("approved (maintenance window)"));
    Stop();

    // Started again without the window: it is closed, so a file written now
    // stays unknown and is refused, while the approved one runs.
    Start({"--lockdown"});
    const std::string late = CopyTrue("late", "late");
    WaitForLog("drift " + late + " written by");
    EXPECT_EQ(Exec(fresh), 0);
    EXPECT_EQ(Exec(late), EPERM);
    Stop();
}

TEST_F(AgentTest, KilledWithExecsInFlightLeavesNothingHungAndTheDatabaseIntact) {
    const std::string allowed = CopyTrue("allowed");
    Start({"--ruleset", AllowRuleset(allowed)});
    std::atomic<bool> stop{false};
    std::atomic<int> runs{0}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            while (!stop.load()) {
                (Exec(allowed) == 0 ? runs : failures)++;
            }
        });
    }
    while (runs.load() < 200) {
        usleep(1000);
    }
    Stop(SIGKILL);
    // Every start waiting on the dead agent was released by the kernel; the
    // threads come back only if none hangs.
    stop = true;
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(failures.load(), 0);

    Start({});
    EXPECT_EQ(Exec(allowed), 0);
    Stop();
    zelktest::Db db(m_Dir + "/ac.db");
    EXPECT_EQ(db.Column("PRAGMA integrity_check;"), std::vector<std::string>{"ok"});
}

// A process whose real, effective and saved ids all differ: asked through a
// pidfd or read from /proc/PID/status, its ids are the real ones.
TEST(HostKit, ProcessIdsAreTheRealOnesWithOrWithoutAPidfd) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        const char ok = setresgid(11, 22, 33) == 0 && setresuid(1000, 2000, 3000) == 0;
        (void)!write(ready[1], &ok, 1);
        pause();
        _exit(0);
    }
    char ok = 0;
    EXPECT_EQ(read(ready[0], &ok, 1), 1);
    EXPECT_TRUE(ok) << "setresgid/setresuid in the child";
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    for (int fd : {pidfd, -1}) {
        const hostkit::ProcessInfo info = hostkit::ReadProcessInfo(child, fd);
        EXPECT_EQ(info.uid, std::optional<uid_t>(1000)) << "pidfd " << fd;
        EXPECT_EQ(info.gid, std::optional<gid_t>(11)) << "pidfd " << fd;
        EXPECT_EQ(info.exe, fs::read_symlink("/proc/self/exe").string());
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(pidfd);
    close(ready[0]);
    close(ready[1]);
}

namespace {

// Runs zelkctl with `args`; its exit code, and its output in `out`.
int Zelkctl(const std::string& args, std::string* out = nullptr) {
    FILE* pipe = popen((std::string(ZELKCTL_PATH) + " " + args + " 2>&1").c_str(), "r");
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        text.append(buffer, n);
    }
    const int status = pclose(pipe);
    if (out != nullptr) {
        *out = text;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

// The agent as a service: started from its configuration file with a policy
// directory, asked over its control socket, reloaded by SIGHUP and by
// `zelkctl agent reload`, and restarted without duplicating a rule.
TEST_F(AgentTest, ServiceConfigPolicyDirectoryReloadAndControl) {
    const std::string allowed = CopyTrue("allowed"), other = CopyTrue("other", "x");
    const std::string policy = m_Dir + "/policy.d";
    fs::create_directories(policy);
    zelktest::WriteFile(policy + "/agent-manifest.json", "{\"rules\":[]}");
    auto allow = [&](std::vector<std::string> files) {
        std::string rules;
        for (const std::string& file : files) {
            hostkit::FileDigests d;
            int err = 0;
            EXPECT_TRUE(hostkit::DigestFile(file, d, err));
            rules += std::string(rules.empty() ? "" : ",") + "{\"sha256\":\"" +
                     hostkit::ToHex(d.sha256, 32) + "\",\"size\":" + std::to_string(d.size) +
                     ",\"action\":\"allow\"}";
        }
        zelktest::WriteFile(policy + "/weekly.json", "{\"rules\":[" + rules + "]}");
    };
    allow({allowed});
    const std::string socket = m_Dir + "/run/agent.sock";
    const std::string conf = m_Dir + "/zelk-agent.conf";
    zelktest::WriteFile(conf, "# test configuration\nmode = lockdown\npolicy_dir = " + policy +
                                  "\nsocket = " + socket + "\n");
    Start({"--config", conf});
    const std::string ask = "agent --socket " + socket + " ";

    std::string out;
    EXPECT_EQ(Zelkctl(ask + "status --json", &out), 0) << out;
    EXPECT_NE(out.find("\"mode\":\t\"lockdown\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"enforcing\":\ttrue"), std::string::npos) << out;
    EXPECT_EQ(Exec(allowed), 0);
    EXPECT_EQ(Exec(other), EPERM);
    EXPECT_EQ(Zelkctl(ask + "check " + other, &out), 1) << out;
    EXPECT_EQ(Zelkctl(ask + "check " + allowed, &out), 0) << out;

    // SIGHUP: the changed document is imported again.
    allow({allowed, other});
    kill(m_Agent, SIGHUP);
    WaitForLog("policy reloaded: changed weekly.json");
    EXPECT_EQ(Exec(other), 0);
    // And through the control socket.
    allow({allowed});
    EXPECT_EQ(Zelkctl(ask + "reload", &out), 0) << out;
    EXPECT_NE(out.find("changed weekly.json"), std::string::npos) << out;
    EXPECT_EQ(Zelkctl(ask + "check " + other, &out), 1) << out;
    EXPECT_EQ(Zelkctl(ask + "metrics", &out), 0);
    EXPECT_NE(out.find("AllowCache"), std::string::npos) << out;
    Stop();

    // Restarts import the same documents again and leave one copy of each.
    for (int i = 0; i < 4; ++i) {
        Start({"--config", conf});
        Stop();
    }
    zelktest::Db db(m_Dir + "/ac.db");
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE source = 2;"), 1);
    EXPECT_EQ(db.Int("SELECT count(*) FROM InventoryItems WHERE source = 1;"), 0);
}
