#include "ControlChannel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace hostkit {

const char* const kDefaultControlSocket = "/run/zelk/agent.sock";

namespace {

// Requests are small; anything larger is not ours.
constexpr size_t kMaxRequest = 64 * 1024;
// A client that connects and then says nothing is dropped after this long.
constexpr int kRequestTimeoutMs = 5000;

bool FillAddress(const std::string& path, sockaddr_un& address, std::string& error) {
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        error = "socket path '" + path + "' is empty or too long";
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Waits for `events` on `fd` for at most `timeoutMs`; false on timeout/error.
bool WaitFor(int fd, short events, int timeoutMs) {
    pollfd p{fd, events, 0};
    int rc;
    do {
        rc = poll(&p, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}

bool WriteAll(int fd, const std::string& text, int timeoutMs) {
    size_t done = 0;
    while (done < text.size()) {
        if (!WaitFor(fd, POLLOUT, timeoutMs)) {
            return false;
        }
        const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Reads until `stopAtNewline` sees a newline, or the peer closes.
bool ReadMessage(int fd, std::string& out, bool stopAtNewline, size_t limit, int timeoutMs) {
    char buffer[4096];
    for (;;) {
        if (!WaitFor(fd, POLLIN, timeoutMs)) {
            return false;
        }
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            return !out.empty();
        }
        out.append(buffer, static_cast<size_t>(n));
        if (out.size() > limit) {
            return false;
        }
        if (stopAtNewline && out.find('\n') != std::string::npos) {
            out.erase(out.find('\n'));
            return true;
        }
    }
}

}  // namespace

bool ControlRequest(const std::string& socketPath, const std::string& request, std::string& reply,
                    std::string& error, int timeoutMs) {
    sockaddr_un address;
    if (!FillAddress(socketPath, address, error)) {
        return false;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::string("socket: ") + strerror(errno);
        return false;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        error = "no agent answers on " + socketPath + ": " + strerror(errno);
        close(fd);
        return false;
    }
    reply.clear();
    bool ok = WriteAll(fd, request + "\n", timeoutMs);
    if (!ok) {
        error = "cannot send the request to " + socketPath;
    } else if (!ReadMessage(fd, reply, false, 64 * 1024 * 1024, timeoutMs)) {
        error = "the agent on " + socketPath + " did not answer";
        ok = false;
    }
    close(fd);
    return ok;
}

ControlServer::~ControlServer() {
    Stop();
}

bool ControlServer::Start(const std::string& socketPath, Handler handler, std::string& error) {
    sockaddr_un address;
    if (!FillAddress(socketPath, address, error)) {
        return false;
    }
    // The folder holds nothing but the socket; nobody else may even look.
    const size_t slash = socketPath.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        const std::string folder = socketPath.substr(0, slash);
        if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
            error = "cannot create " + folder + ": " + strerror(errno);
            return false;
        }
    }
    // A socket file left by an agent that died is replaced; one that still
    // answers belongs to a running agent.
    std::string probeReply, probeError;
    if (ControlRequest(socketPath, "{\"command\":\"ping\"}", probeReply, probeError, 1000)) {
        error = "another agent already answers on " + socketPath;
        return false;
    }
    unlink(socketPath.c_str());

    m_Listen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_Listen < 0) {
        error = std::string("socket: ") + strerror(errno);
        return false;
    }
    const mode_t old = umask(0177);
    const int rc = bind(m_Listen, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    umask(old);
    if (rc != 0 || listen(m_Listen, 16) != 0) {
        error = "cannot listen on " + socketPath + ": " + strerror(errno);
        close(m_Listen);
        m_Listen = -1;
        return false;
    }
    m_Wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_Wake < 0) {
        error = std::string("eventfd: ") + strerror(errno);
        close(m_Listen);
        m_Listen = -1;
        unlink(socketPath.c_str());
        return false;
    }
    m_Path = socketPath;
    m_Handler = std::move(handler);
    m_Thread = std::thread([this] { Run(); });
    return true;
}

void ControlServer::Stop() {
    if (m_Thread.joinable()) {
        const uint64_t one = 1;
        (void)!write(m_Wake, &one, sizeof(one));
        m_Thread.join();
    }
    if (m_Listen >= 0) {
        close(m_Listen);
        m_Listen = -1;
        unlink(m_Path.c_str());
    }
    if (m_Wake >= 0) {
        close(m_Wake);
        m_Wake = -1;
    }
}

void ControlServer::Run() {
    for (;;) {
        pollfd fds[2] = {{m_Listen, POLLIN, 0}, {m_Wake, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        const int client = accept4(m_Listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        Serve(client);
        close(client);
    }
}

void ControlServer::Serve(int client) {
    // The request is read first even from a peer that is refused, so the
    // refusal reaches it instead of a reset connection.
    std::string request;
    if (!ReadMessage(client, request, true, kMaxRequest, kRequestTimeoutMs)) {
        return;
    }
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
        (peer.uid != 0 && peer.uid != geteuid())) {
        WriteAll(client, "{\"ok\":false,\"error\":\"permission denied: root only\"}\n",
                 kRequestTimeoutMs);
        return;
    }
    WriteAll(client, m_Handler(request) + "\n", kRequestTimeoutMs);
}

}  // namespace hostkit
