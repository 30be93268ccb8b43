// zelk-agent on the real kernel: program starts in a watched scratch folder
// are held by fanotify until the engine decides, and denied ones fail with
// EPERM.  Needs root and fanotify permission events; where they are missing
// each test reports itself skipped with the kernel's reason.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/fanotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "DbTestUtil.h"
#include "HostDigest.h"
#include "TestUtil.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

// Empty when the agent can work here, else why not.
std::string FanotifyUnavailable(const std::string& dir) {
    int fd = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE);
    if (fd < 0) {
        return std::string("fanotify_init(FAN_CLASS_CONTENT): ") + strerror(errno);
    }
    std::string reason;
    if (fanotify_mark(fd, FAN_MARK_ADD, FAN_OPEN_EXEC_PERM | FAN_EVENT_ON_CHILD, AT_FDCWD,
                      dir.c_str()) != 0) {
        reason = std::string("fanotify_mark(FAN_OPEN_EXEC_PERM): ") + strerror(errno);
    }
    close(fd);
    return reason;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs `path`; the errno of a refused start, or 0 after it ran.  posix_spawn
// reports the exec failure of the child.
int Exec(const std::string& path) {
    pid_t pid;
    char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
    int rc = posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ);
    if (rc != 0) {
        return rc;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

// /bin/true with `extra` bytes appended: runs the same, hashes differently.
// Written with one open and close, so the agent sees a single write.
void CopyTrue(const std::string& to, const std::string& extra = "") {
    std::ifstream in("/bin/true", std::ios::binary);
    std::stringstream body;
    body << in.rdbuf() << extra;
    zelktest::WriteFile(to, body.str());
    fs::permissions(to, fs::perms(0755));
}

class AgentTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_Dir = zelktest::ScratchDir();
        m_Watch = m_Dir + "/bin";
        fs::create_directories(m_Watch);
        std::string reason = FanotifyUnavailable(m_Watch);
        if (!reason.empty()) {
            GTEST_SKIP() << "fanotify permission events unavailable: " << reason;
        }
        m_Db = m_Dir + "/ac.db";
        zelktest::WriteFile(m_Dir + "/manifest.json", "{\"rules\":[]}");
    }
    void TearDown() override {
        if (m_Agent > 0) {
            kill(m_Agent, SIGKILL);
            waitpid(m_Agent, nullptr, 0);
        }
    }

    // A hash ruleset allowing `file`.
    std::string AllowRuleset(const std::string& file) {
        hostkit::FileDigests d;
        int err = 0;
        EXPECT_TRUE(hostkit::DigestFile(file, d, err)) << strerror(err);
        std::string path = m_Dir + "/rules.json";
        zelktest::WriteFile(path, "{\"rules\":[{\"sha256\":\"" + hostkit::ToHex(d.sha256, 32) +
                                      "\",\"size\":" + std::to_string(d.size) +
                                      ",\"action\":\"allow\",\"fileName\":\"allowed\"}]}");
        return path + ":Weekly";
    }

    // Starts the agent and waits until its marks are set.
    void Start(std::vector<std::string> args) {
        ASSERT_LE(m_Agent, 0);
        ++m_Run;
        m_Log = m_Dir + "/agent" + std::to_string(m_Run) + ".log";
        m_Err = m_Dir + "/agent" + std::to_string(m_Run) + ".err";
        args.insert(args.begin(),
                    {ZELK_AGENT_PATH, "--db", m_Db, "--watch", m_Watch, "--log-file", m_Log});
        m_Agent = fork();
        ASSERT_GE(m_Agent, 0);
        if (m_Agent == 0) {
            int err = open(m_Err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(err, 2);
            std::vector<char*> argv;
            for (std::string& a : args) {
                argv.push_back(a.data());
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        WaitForLog("ready:");
    }

    // Waits for `text` in the log; fails if the agent exits first.
    void WaitForLog(const std::string& text) {
        while (ReadAll(m_Log).find(text) == std::string::npos) {
            int status;
            ASSERT_EQ(waitpid(m_Agent, &status, WNOHANG), 0)
                << "agent exited: " << ReadAll(m_Err) << ReadAll(m_Log);
            usleep(20000);
        }
    }

    // SIGTERM; expects a clean exit and returns what it printed.
    std::string Stop() {
        kill(m_Agent, SIGTERM);
        int status = 0;
        waitpid(m_Agent, &status, 0);
        m_Agent = 0;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << ReadAll(m_Err);
        return ReadAll(m_Err);
    }

    std::string m_Dir, m_Watch, m_Db, m_Log, m_Err;
    pid_t m_Agent = 0;
    int m_Run = 0;
};

}  // namespace

TEST_F(AgentTest, LockdownLogOnlyAndTheManifest) {
    const std::string allowed = m_Watch + "/allowed", other = m_Watch + "/other";
    CopyTrue(allowed);
    CopyTrue(other, "x");
    const std::string rules = AllowRuleset(allowed);

    // Log-only: both run, the unknown one is reported.
    Start({"--ruleset", rules});
    EXPECT_EQ(Exec(allowed), 0);
    EXPECT_EQ(Exec(other), 0);
    WaitForLog("allowed unknown exec " + other);
    std::string counters = Stop();
    EXPECT_NE(counters.find("allowed 2, denied 0, errors 0"), std::string::npos) << counters;
    EXPECT_EQ(ReadAll(m_Log).find("unknown exec " + allowed), std::string::npos);

    // Lockdown on a database whose manifest was never applied: the engine's
    // blocks are not enforced yet.
    Start({"--lockdown"});
    EXPECT_EQ(Exec(other), 0);
    WaitForLog("agent manifest is not applied");
    Stop();

    // With the manifest the unknown file is refused by the kernel; the known
    // one runs, its digest now coming from the cache.
    Start({"--lockdown", "--ruleset", m_Dir + "/manifest.json:agent_manifest"});
    EXPECT_EQ(Exec(allowed), 0);
    EXPECT_EQ(Exec(other), EPERM);
    EXPECT_EQ(Exec(allowed), 0);
    WaitForLog("denied exec " + other);
    counters = Stop();
    EXPECT_NE(counters.find("exec 3 "), std::string::npos) << counters;
    EXPECT_NE(counters.find("allowed 2, denied 1, errors 0"), std::string::npos) << counters;
    EXPECT_NE(counters.find("digest cache hits 1,"), std::string::npos) << counters;
}

TEST_F(AgentTest, MaintenanceWindowApprovesOnlyFilesWrittenInIt) {
    const std::string fresh = m_Watch + "/fresh", late = m_Watch + "/late";
    const std::string window = "now," + std::to_string(time(nullptr) * 1000ULL + 3600 * 1000);
    Start({"--lockdown", "--maintenance", window, "--ruleset",
           m_Dir + "/manifest.json:agent_manifest"});
    CopyTrue(fresh, "fresh");
    WaitForLog("drift " + fresh + " written by");
    EXPECT_NE(ReadAll(m_Log).find("approved (maintenance window)"), std::string::npos);
    Stop();

    // Started again without the window: it is closed, so a file written now
    // stays unknown and is refused, while the approved one runs.
    Start({"--lockdown"});
    CopyTrue(late, "late");
    WaitForLog("drift " + late + " written by");
    EXPECT_EQ(Exec(fresh), 0);
    EXPECT_EQ(Exec(late), EPERM);
    Stop();
}

TEST_F(AgentTest, KilledWithExecsInFlightLeavesNothingHungAndTheDatabaseIntact) {
    const std::string allowed = m_Watch + "/allowed";
    CopyTrue(allowed);
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
    kill(m_Agent, SIGKILL);
    waitpid(m_Agent, nullptr, 0);
    m_Agent = 0;
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
    zelktest::Db db(m_Db);
    EXPECT_EQ(db.Column("PRAGMA integrity_check;"), std::vector<std::string>{"ok"});
}
