#include "own_broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "quorel/testsupport/mosquitto_broker.h"
#include "quorel/testsupport/wait.h"

namespace BridgeTesting {

namespace {

constexpr char kDynamicSecurity[] = "/usr/lib/x86_64-linux-gnu/mosquitto_dynamic_security.so";

bool accepts_connections(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return ok;
}

}  // namespace

COwnBroker::COwnBroker() {
    char tmpl[] = "/tmp/cm-bridge-broker-XXXXXX";
    if (mkdtemp(tmpl) != nullptr) m_dir = tmpl;
}

COwnBroker::~COwnBroker() {
    thaw();
    m_process.reset();
    if (m_dir.empty()) return;
    for (const char* name : {"/mosquitto.conf", "/dynamic-security.json", "/dynamic-security.json.new"}) {
        unlink((m_dir + name).c_str());
    }
    rmdir(m_dir.c_str());
}

bool COwnBroker::refuse_subscriptions_under(const std::string& prefix) {
    if (m_dir.empty() || access(kDynamicSecurity, R_OK) != 0) return false;
    // Started as root, mosquitto reads plugin files only after it has become its own user.
    chmod(m_dir.c_str(), 0755);
    std::ofstream out(m_dir + "/dynamic-security.json");
    // Anonymous clients may do anything but subscribe under prefix/.
    out << R"({"defaultACLAccess": {"publishClientSend": true, "publishClientReceive": true,)"
        << R"( "subscribe": true, "unsubscribe": true}, "clients": [],)"
        << R"( "groups": [{"groupname": "anonymous", "roles": [{"rolename": "limited"}]}],)"
        << R"( "roles": [{"rolename": "limited", "acls": [{"acltype": "subscribePattern", "topic": ")" << prefix
        << R"(/#", "priority": 1, "allow": false}]}], "anonymousGroup": "anonymous"})";
    out.close();
    chmod((m_dir + "/dynamic-security.json").c_str(), 0644);
    m_extra_config =
        std::string("plugin ") + kDynamicSecurity + "\nplugin_opt_config_file " + m_dir + "/dynamic-security.json\n";
    return static_cast<bool>(out);
}

bool COwnBroker::start() {
    if (m_dir.empty()) return false;
    // Another test may take the port between free_port() and the broker's bind: try a few.
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = Quorel::Iot::Testing::CMosquittoBroker::free_port();
        {
            std::ofstream out(m_dir + "/mosquitto.conf");
            out << "listener " << m_port << " 127.0.0.1\nallow_anonymous true\npersistence false\n"
                << "log_dest stderr\nlog_type all\n"
                << m_extra_config;
        }
        m_process.reset(new Quorel::Iot::Testing::CChildProcess());
        if (!m_process->start({"mosquitto", "-c", m_dir + "/mosquitto.conf"})) return false;
        // Its own word that it listens, not just a listener on the port: the listener could be
        // another test's broker that took the port first, while this one is failing to bind.
        const auto listening = [&] {
            return m_process->err().find(" running") != std::string::npos && accepts_connections(m_port);
        };
        if (Quorel::Iot::Testing::wait_until([&] { return listening() || !m_process->running(); },
                                             std::chrono::seconds(10)) &&
            m_process->running()) {
            return true;
        }
    }
    return false;
}

bool COwnBroker::freeze() { return m_process && m_process->running() && m_process->signal(SIGSTOP); }

void COwnBroker::kill() {
    if (m_process) m_process->kill_and_reap();
}

bool COwnBroker::thaw() { return m_process && m_process->running() && m_process->signal(SIGCONT); }

}  // namespace BridgeTesting
