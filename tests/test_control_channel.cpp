// The agent's control channel: one request, one answer; a stale socket file
// is replaced, a live one is not taken over; other users are refused.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "ControlChannel.h"
#include "TestUtil.h"

namespace {

TEST(ControlChannel, AnswersRequestsAndGuardsItsSocket) {
    const std::string dir = zelktest::ScratchDir();
    const std::string path = dir + "/run/agent.sock";
    hostkit::ControlServer server;
    std::string error;
    ASSERT_TRUE(server.Start(
        path, [](const std::string& request) { return "{\"ok\":true,\"echo\":" + request + "}"; },
        error))
        << error;

    std::string reply;
    ASSERT_TRUE(hostkit::ControlRequest(path, "{\"command\":\"status\"}", reply, error)) << error;
    EXPECT_EQ(reply, "{\"ok\":true,\"echo\":{\"command\":\"status\"}}\n");
    // The socket is the owner's alone.
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    hostkit::ControlServer second;
    EXPECT_FALSE(second.Start(
        path, [](const std::string&) { return "{}"; }, error));
    EXPECT_NE(error.find("another agent"), std::string::npos) << error;

    if (geteuid() == 0) {
        // Another user is refused even when the file's mode would let it in.
        chmod(path.c_str(), 0666);
        chmod((dir + "/run").c_str(), 0755);
        pid_t child = fork();
        if (child == 0) {
            if (setgid(65534) != 0 || setuid(65534) != 0) {
                _exit(2);
            }
            std::string childReply, childError;
            const bool ok =
                hostkit::ControlRequest(path, "{\"command\":\"status\"}", childReply, childError);
            _exit(ok && childReply.find("permission denied") != std::string::npos ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    server.Stop();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_FALSE(hostkit::ControlRequest(path, "{}", reply, error));
    EXPECT_NE(error.find("no agent answers"), std::string::npos) << error;

    // A socket file nobody answers on (an agent that died) is replaced.
    int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    close(stale);
    hostkit::ControlServer third;
    ASSERT_TRUE(third.Start(
        path, [](const std::string&) { return "{\"ok\":true}"; }, error))
        << error;
    ASSERT_TRUE(hostkit::ControlRequest(path, "{}", reply, error)) << error;
    EXPECT_EQ(reply, "{\"ok\":true}\n");
}

}  // namespace
