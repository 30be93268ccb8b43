// A local HTTPS server for tests that fetch policy: a self-signed certificate
// for 127.0.0.1 made with the openssl command, and tests/https_server.py
// serving a folder with ETags.  Tests skip when python3 or openssl is missing.
#ifndef ZELK_TESTS_HTTPSTESTSERVER_H_
#define ZELK_TESTS_HTTPSTESTSERVER_H_

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace zelktest {

class HttpsTestServer {
  public:
    // Why the server cannot run here, or "" when it can.
    static std::string Unavailable() {
        if (system("command -v python3 >/dev/null 2>&1 && command -v openssl >/dev/null 2>&1") !=
            0) {
            return "python3 or openssl is not installed";
        }
        return "";
    }

    // Makes the certificate under `dir` and serves `dir`/www.
    explicit HttpsTestServer(const std::string& dir) : m_Dir(dir) {
        const std::string cmd =
            "cd '" + dir +
            "' && mkdir -p www && openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "
            "'/CN=127.0.0.1' -addext 'subjectAltName=IP:127.0.0.1' -keyout key.pem -out "
            "cert.pem >/dev/null 2>&1";
        m_Ok = system(cmd.c_str()) == 0;
    }
    ~HttpsTestServer() { Stop(); }

    bool Start() {
        if (!m_Ok) {
            return false;
        }
        unlink((m_Dir + "/port").c_str());
        m_Pid = fork();
        if (m_Pid == 0) {
            execlp("python3", "python3", ZELK_TESTS_SOURCE_DIR "/https_server.py",
                   (m_Dir + "/www").c_str(), (m_Dir + "/cert.pem").c_str(),
                   (m_Dir + "/key.pem").c_str(), (m_Dir + "/port").c_str(),
                   (m_Dir + "/requests.log").c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        // Waits for the port file, without a time limit of its own: a server
        // that died is noticed by waitpid.
        for (;;) {
            std::ifstream in(m_Dir + "/port");
            if (in >> m_Port) {
                return true;
            }
            int status = 0;
            if (waitpid(m_Pid, &status, WNOHANG) == m_Pid) {
                m_Pid = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    void Stop() {
        if (m_Pid > 0) {
            kill(m_Pid, SIGTERM);
            waitpid(m_Pid, nullptr, 0);
            m_Pid = -1;
        }
    }

    std::string Url(const std::string& name) const {
        return "https://127.0.0.1:" + std::to_string(m_Port) + "/" + name;
    }
    std::string CaFile() const { return m_Dir + "/cert.pem"; }
    std::string Www() const { return m_Dir + "/www"; }
    // The request log: one "GET /name STATUS" line per request.
    std::string Requests() const {
        std::ifstream in(m_Dir + "/requests.log");
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

  private:
    std::string m_Dir;
    bool m_Ok = false;
    pid_t m_Pid = -1;
    int m_Port = 0;
};

}  // namespace zelktest

#endif  // ZELK_TESTS_HTTPSTESTSERVER_H_
