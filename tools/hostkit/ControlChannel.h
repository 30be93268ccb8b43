// The control channel between zelkctl and a running zelk-agent: a Unix stream
// socket that only root (or the agent's own user) may use.  One request per
// connection: the client writes one JSON object and a newline, the agent
// answers with one JSON object and closes.  Every answer carries "ok" (true or
// false) and, when false, "error" with the reason.
#ifndef ZELK_HOSTKIT_CONTROLCHANNEL_H_
#define ZELK_HOSTKIT_CONTROLCHANNEL_H_

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace hostkit {

// The default socket of an installed agent.
extern const char* const kDefaultControlSocket;

// Sends `request` (a JSON object as text) to the agent at `socketPath` and
// returns its answer in `reply`.  False with `error` when no agent listens
// there, the peer is not answering within `timeoutMs`, or the answer is not
// complete.
bool ControlRequest(const std::string& socketPath, const std::string& request, std::string& reply,
                    std::string& error, int timeoutMs = 30000);

// The agent's side.  Listens on a socket created with mode 0600 in a folder it
// creates with mode 0700 when missing; refuses peers whose user is neither
// root nor the agent's own.  Requests are answered one at a time on the
// channel's own thread, never on a thread that answers the kernel.
class ControlServer {
  public:
    // Gets the request text, returns the answer text.
    using Handler = std::function<std::string(const std::string& request)>;

    ControlServer() = default;
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Binds the socket (replacing a stale one that nobody answers on) and
    // starts the thread.  False with `error` when the socket cannot be made,
    // or another agent already answers on it.
    bool Start(const std::string& socketPath, Handler handler, std::string& error);
    // Stops the thread and removes the socket.  Safe to call twice.
    void Stop();

  private:
    void Run();
    void Serve(int client);

    std::string m_Path;
    Handler m_Handler;
    int m_Listen = -1;
    int m_Wake = -1;  // eventfd that ends Run
    std::thread m_Thread;
};

}  // namespace hostkit

#endif  // ZELK_HOSTKIT_CONTROLCHANNEL_H_
