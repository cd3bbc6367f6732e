#include "quorel/testsupport/mosquitto_broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "quorel/testsupport/wait.h"

namespace Quorel {
namespace Iot {
namespace Testing {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

CMosquittoBroker::CMosquittoBroker() {
    char tmpl[] = "/tmp/cm-mqtt-XXXXXX";
    if (mkdtemp(tmpl) != nullptr) m_dir = tmpl;
}

CMosquittoBroker::~CMosquittoBroker() {
    stop();
    if (!m_dir.empty()) {
        unlink((m_dir + "/mosquitto.conf").c_str());
        rmdir(m_dir.c_str());
    }
}

int CMosquittoBroker::free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    close(fd);
    return port;
}

bool CMosquittoBroker::write_config() const {
    std::ofstream out(m_dir + "/mosquitto.conf");
    out << "listener " << m_port << " " << m_host << "\n"
        << "allow_anonymous true\n"
        << "persistence false\n"
        << "log_dest stderr\n"
        << "log_type error\nlog_type warning\nlog_type notice\nlog_type information\nlog_type subscribe\n"
        << "connection_messages true\n";
    return static_cast<bool>(out);
}

bool CMosquittoBroker::accepts_connections() const {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in address = loopback(m_port);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return ok;
}

bool CMosquittoBroker::start() {
    if (m_dir.empty()) return false;
    if (m_process && m_process->running()) return true;
    // Another test may take the port between free_port() and the broker's bind: a first start
    // tries a few; a restart keeps its port, as its clients know only that one.
    const bool keep_port = m_port != 0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (!keep_port) m_port = free_port();
        if (m_port == 0 || !write_config()) return false;
        if (m_process) m_past_log += m_process->err();
        m_process.reset(new CChildProcess());
        if (!m_process->start({"mosquitto", "-c", m_dir + "/mosquitto.conf"})) return false;
        // Its own start-up line first: a listener on the port could be another test's broker that
        // took the port in the meantime.
        const auto listening = [&] {
            return m_process->err().find(" running") != std::string::npos && accepts_connections();
        };
        if (wait_until([&] { return listening() || !m_process->running(); }, std::chrono::seconds(10)) &&
            m_process->running()) {
            return true;
        }
        m_process->kill_and_reap();
    }
    return false;
}

void CMosquittoBroker::stop() {
    if (!m_process) return;
    m_process->signal(SIGTERM);
    if (!m_process->wait_exit(std::chrono::seconds(5))) m_process->kill_and_reap();
}

bool CMosquittoBroker::running() { return m_process && m_process->running(); }

std::string CMosquittoBroker::log() const { return m_past_log + (m_process ? m_process->err() : std::string()); }

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
