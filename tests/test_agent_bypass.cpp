// The ways around a program-start hook, tried against zelk-agent in lockdown
// as a user would: a script handed to an interpreter or sourced, the dynamic
// loader started by hand, a program in a folder made after the agent
// started, a preloaded and a dlopened shared object.  Each unknown file must
// be refused and logged while its allow-listed twin runs; in permissive mode
// all run and the refusals are logged as would-be denials.  Needs root and
// fanotify permission events, else each test reports itself skipped.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/fanotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "DbTestUtil.h"
#include "HostDigest.h"
#include "TestUtil.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

const char* const kLoader = "/lib64/ld-linux-x86-64.so.2";
const char* const kPython = "/usr/bin/python3";

// Runs `command` with /bin/sh (outside the watched tree): true when it
// exits 0.
bool Shell(const std::string& command) {
    std::string c = command;
    char* argv[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"), c.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) != 0) {
        return false;
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class AgentBypassTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_Dir = zelktest::ScratchDir();
        m_Watch = m_Dir + "/tree";
        fs::create_directories(m_Watch);
        const int fd = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE);
        const bool marked =
            fd >= 0 && fanotify_mark(fd, FAN_MARK_ADD, FAN_OPEN_PERM | FAN_EVENT_ON_CHILD, AT_FDCWD,
                                     m_Watch.c_str()) == 0;
        const int err = errno;
        if (fd >= 0) {
            close(fd);
        }
        if (!marked) {
            GTEST_SKIP() << "fanotify permission events unavailable: " << strerror(err);
        }
        if (!fs::exists(kLoader) || !fs::exists(kPython) || !Shell("command -v cc >/dev/null")) {
            GTEST_SKIP() << "needs " << kLoader << ", " << kPython << " and a C compiler";
        }
        zelktest::WriteFile(m_Dir + "/manifest.json", "{\"rules\":[]}");
        MakeTwins();
    }
    void TearDown() override {
        if (m_Agent > 0) {
            kill(m_Agent, SIGKILL);
            waitpid(m_Agent, nullptr, 0);
        }
    }

    // Each kind twice, "allowed-" and "unknown-", differing in one byte; the
    // allowed ones go into a hash ruleset.
    void MakeTwins() {
        const std::string lib = m_Dir + "/lib.c";
        zelktest::WriteFile(lib,
                            "#include <stdio.h>\n"
                            "__attribute__((constructor)) static void ran(void) {\n"
                            "  FILE* f = fopen(MARK, \"w\"); if (f) fclose(f); }\n");
        std::string rules;
        for (const std::string twin : {"allowed", "unknown"}) {
            const std::string p = m_Watch + "/" + twin;
            zelktest::WriteFile(p + ".sh", "exit 0 # " + twin + "\n");
            zelktest::WriteFile(p + ".py", "import sys  # " + twin + "\nsys.exit(0)\n");
            zelktest::WriteFile(p + "-prog", zelktest::ReadFile("/bin/true") + twin);
            ASSERT_TRUE(Shell("cc -shared -fPIC -o " + p + ".so -DMARK='\"" + m_Dir + "/" + twin +
                              ".ran\"' " + lib));
            for (const char* ext : {".sh", ".py", "-prog", ".so"}) {
                fs::permissions(p + ext, fs::perms(0755));
                hostkit::FileDigests d;
                int err = 0;
                ASSERT_TRUE(hostkit::DigestFile(p + ext, d, err)) << strerror(err);
                if (twin == std::string("allowed")) {
                    rules += std::string(rules.empty() ? "" : ",") + "{\"sha256\":\"" +
                             hostkit::ToHex(d.sha256, 32) +
                             "\",\"size\":" + std::to_string(d.size) + ",\"action\":\"allow\"}";
                }
            }
        }
        zelktest::WriteFile(m_Dir + "/rules.json", "{\"rules\":[" + rules + "]}");
    }

    void Start(const std::string& mode) {
        m_Log = m_Dir + "/agent.log";
        std::vector<std::string> args = {ZELK_AGENT_PATH,
                                         "--db",
                                         m_Dir + "/ac.db",
                                         "--watch",
                                         m_Watch,
                                         "--log-file",
                                         m_Log,
                                         "--log-level",
                                         "trace",
                                         mode,
                                         "--ruleset",
                                         m_Dir + "/manifest.json:agent_manifest",
                                         "--ruleset",
                                         m_Dir + "/rules.json:Weekly"};
        args.insert(args.end(), m_Extra.begin(), m_Extra.end());
        std::vector<char*> argv;
        for (std::string& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        ASSERT_EQ(posix_spawn(&m_Agent, argv[0], nullptr, nullptr, argv.data(), environ), 0);
        WaitForLog("ready:");
    }

    // Waits for `text` in the log; fails if the agent exits first.
    void WaitForLog(const std::string& text) {
        while (!Logged(text)) {
            ASSERT_EQ(waitpid(m_Agent, nullptr, WNOHANG), 0) << zelktest::ReadFile(m_Log);
            usleep(20000);
        }
    }

    bool Logged(const std::string& text) {
        return zelktest::ReadFile(m_Log).find(text) != std::string::npos;
    }

    // Each way of running the twin `twin`: which of them ran.
    std::vector<std::string> Ways(const std::string& twin, const std::string& sub) {
        const std::string p = m_Watch + "/" + twin, marker = m_Dir + "/" + twin + ".ran";
        fs::remove(marker);
        std::vector<std::string> ran;
        auto attempt = [&](const char* way, bool ok) {
            if (ok) {
                ran.push_back(way);
            }
        };
        attempt("sh", Shell("sh " + p + ".sh"));
        attempt("source", Shell("cd " + m_Watch + " && . ./" + twin + ".sh"));
        attempt("python", Shell(std::string(kPython) + " " + p + ".py"));
        attempt("loader", Shell(std::string(kLoader) + " " + p + "-prog"));
        attempt("subfolder", Shell(sub + "/" + twin + "-prog"));
        attempt("preload", Shell("LD_PRELOAD=" + p + ".so /bin/true") && fs::exists(marker));
        attempt("dlopen",
                Shell(std::string(kPython) + " -c \"import ctypes; ctypes.CDLL('" + p + ".so')\""));
        return ran;
    }

    std::string m_Dir, m_Watch, m_Log;
    std::vector<std::string> m_Extra;  // further agent arguments
    pid_t m_Agent = 0;
};

const std::vector<std::string> kAllWays = {"sh",        "source",  "python", "loader",
                                           "subfolder", "preload", "dlopen"};

}  // namespace

TEST_F(AgentBypassTest, LockdownRefusesEveryWayForUnknownCodeAndAllowsTheTwins) {
    Start("--lockdown");
    // A folder made after the start, filled with copies of both programs.
    const std::string sub = m_Watch + "/later/deeper";
    fs::create_directories(sub);
    // The new folders' creation is reported after the fact; they are marked then.
    WaitForLog("watching new folder " + sub);
    for (const char* twin : {"allowed", "unknown"}) {
        fs::copy_file(m_Watch + "/" + twin + "-prog", sub + "/" + twin + "-prog");
        fs::permissions(sub + "/" + twin + "-prog", fs::perms(0755));
    }
    EXPECT_EQ(Ways("allowed", sub), kAllWays);
    EXPECT_EQ(Ways("unknown", sub), std::vector<std::string>{});
    for (const std::string& denied :
         {"denied script " + m_Watch + "/unknown.sh", "denied script " + m_Watch + "/unknown.py",
          "denied map " + m_Watch + "/unknown-prog", "denied exec " + sub + "/unknown-prog",
          "denied map " + m_Watch + "/unknown.so"}) {
        EXPECT_TRUE(Logged(denied)) << denied << "\n" << zelktest::ReadFile(m_Log);
    }
}

TEST_F(AgentBypassTest, PermissiveRunsEverythingAndLogsWouldBeDenials) {
    Start("--permissive");
    const std::string sub = m_Watch + "/later";
    fs::create_directories(sub);
    WaitForLog("watching new folder " + sub);
    fs::copy_file(m_Watch + "/unknown-prog", sub + "/unknown-prog");
    fs::permissions(sub + "/unknown-prog", fs::perms(0755));
    EXPECT_EQ(Ways("unknown", sub), kAllWays);
    for (const std::string& would :
         {"script " + m_Watch + "/unknown.sh", "script " + m_Watch + "/unknown.py",
          "map " + m_Watch + "/unknown-prog", "exec " + sub + "/unknown-prog",
          "map " + m_Watch + "/unknown.so"}) {
        EXPECT_TRUE(Logged("would deny (permissive) " + would)) << would;
    }
}

// Files the package manager writes are trusted drift: a program installed by
// dpkg while the agent runs in lockdown runs at once.
TEST_F(AgentBypassTest, ProgramInstalledByThePackageManagerRunsInLockdown) {
    if (!Shell("command -v dpkg-deb >/dev/null && command -v dpkg >/dev/null")) {
        GTEST_SKIP() << "needs dpkg and dpkg-deb";
    }
    const std::string root = m_Dir + "/pkgroot", prefix = m_Watch + "/opt/zelktest";
    const std::string program = prefix + "/bin/packaged";
    fs::create_directories(root + "/DEBIAN");
    fs::create_directories(root + prefix + "/bin");
    zelktest::WriteFile(root + "/DEBIAN/control",
                        "Package: zelk-agent-test-pkg\nVersion: 1.0\nArchitecture: all\n"
                        "Maintainer: zelk tests <root@localhost>\nDescription: test package\n");
    zelktest::WriteFile(root + program, zelktest::ReadFile("/bin/true") + "packaged");
    fs::permissions(root + program, fs::perms(0755));
    ASSERT_TRUE(Shell("dpkg-deb --build --root-owner-group " + root + " " + m_Dir +
                      "/test.deb >/dev/null"));

    // The prefix exists before the agent starts, as on an installed system.
    fs::create_directories(prefix + "/bin");
    // Package managers are trusted by policy: a trusted-source-process rule.
    zelktest::WriteFile(m_Dir + "/trust.json",
                        "{\"Trustrules\":[{\"processName\":\"/usr/bin/dpkg\",\"trustType\":1}]}");
    m_Extra = {"--ruleset", m_Dir + "/trust.json:TrustRules-packages"};
    Start("--lockdown");
    const bool installed = Shell("dpkg -i " + m_Dir + "/test.deb >/dev/null");
    EXPECT_TRUE(installed);
    if (installed) {
        EXPECT_TRUE(Shell(program)) << zelktest::ReadFile(m_Log);
        EXPECT_FALSE(Logged("denied exec " + program));
        // dpkg writes beside the target and renames it into place.
        EXPECT_TRUE(Logged("drift " + program)) << zelktest::ReadFile(m_Log);
        EXPECT_TRUE(Logged("written by /usr/bin/dpkg"));
        EXPECT_FALSE(Logged("not trusted, left unknown"));
    }
    EXPECT_TRUE(Shell("dpkg -P zelk-agent-test-pkg >/dev/null"));
}
